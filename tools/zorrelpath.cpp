// zorrelpath: ends the processes that use a mounted file system, so that the
// agent's next unmount of it can succeed.
//
// Safety first: the tool acts only on a path that the mount table lists as a
// mount point, and it matches processes by the mount they hold (mount id, or the
// device for memory maps), never by path prefix. It never looks inside the mount
// in a way that could block on a dead file server: the mount point itself is
// never stat()ed, open descriptors are matched through /proc/PID/fdinfo, memory
// maps through their device (PROCMAP_QUERY on /proc/PID/maps, or its text), and
// cwd, root and exe through statx() with AT_STATX_DONT_SYNC, which answers from
// cached attributes.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "command_exec/proc_scan.h"

namespace {

// Exit codes; docs/tools.md lists them for operators. The agent counts 0 and 1 as success.
enum Exit {
    EXIT_UNUSED = 0,  // nothing used the mount
    EXIT_ENDED = 1,   // processes were signalled and the mount is no longer in use
    EXIT_USAGE = 2,
    EXIT_NOT_MOUNT = 3,  // refused: not a mount point (or the root file system)
    EXIT_STUCK = 4,      // a process could not be ended, or /proc could not be read
};

constexpr int kGraceMs = 1000;     // from SIGTERM to SIGKILL
constexpr int kKillWaitMs = 1000;  // for SIGKILLed processes to be gone
constexpr int kPollMs = 10;
// Holders may fork while they are being ended; rescan a few times, not forever.
constexpr int kMaxRounds = 3;
// From this many processes on, a second thread shares the examination.
constexpr size_t kShareFrom = 256;
constexpr unsigned long kPfKthread = 0x00200000;  // PF_KTHREAD in the flags of /proc/PID/stat

const char* g_point = "";  // the mount point, for messages

__attribute__((format(printf, 1, 2))) void say(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "zorrelpath: %s: ", g_point);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

void usage(FILE* out)
{
    fputs(
        "Usage: zorrelpath MOUNTPOINT\n"
        "       zorrelpath --help | --version\n"
        "Ends (SIGTERM, then SIGKILL) the processes that use the file system mounted\n"
        "on MOUNTPOINT, so that it can be unmounted. Never PID 1, itself or its ancestors.\n"
        "Exit status: 0 nothing used it, 1 processes were ended, 2 usage error,\n"
        "3 refused (not a mount point), 4 a process could not be ended.\n",
        out);
}

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads a small /proc file relative to dirfd into buf (NUL-terminated). One
// read: /proc/PID/stat and fdinfo come whole from the first one, and the scan
// reads thousands of them.
ssize_t read_small(int dirfd, const char* name, char* buf, size_t size)
{
    int fd = openat(dirfd, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    ssize_t n;
    do {
        n = read(fd, buf, size - 1);
    } while (n < 0 && errno == EINTR);
    close(fd);
    buf[n > 0 ? n : 0] = '\0';
    return n;
}

bool read_whole(const char* path, std::string& out)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    out.clear();
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            close(fd);
            return false;
        }
        if (n == 0) {
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

// ---- mount table ----

struct Mount {
    int id = 0;
    int parent = 0;
    dev_t dev = 0;
    std::string point;
};

// mountinfo writes blank, tab, newline and backslash as \ooo.
std::string unescape(const std::string& s)
{
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        const char* o = s.c_str() + i + 1;
        if (s[i] == '\\' && i + 3 < s.size() && o[0] >= '0' && o[0] <= '3' && o[1] >= '0' && o[1] <= '7' &&
            o[2] >= '0' && o[2] <= '7') {
            out += static_cast<char>((o[0] - '0') * 64 + (o[1] - '0') * 8 + (o[2] - '0'));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

bool read_mounts(std::vector<Mount>& mounts)
{
    std::string text;
    if (!read_whole("/proc/self/mountinfo", text)) {
        return false;
    }
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) {
            eol = text.size();
        }
        std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        // id parent major:minor root mount-point options ...
        Mount m;
        unsigned maj = 0, min = 0;
        int used = 0;
        if (sscanf(line.c_str(), "%d %d %u:%u %*s %n", &m.id, &m.parent, &maj, &min, &used) != 4 ||
            used == 0) {
            continue;
        }
        size_t end = line.find(' ', static_cast<size_t>(used));
        m.point = unescape(line.substr(static_cast<size_t>(used), end == std::string::npos
                                                                      ? std::string::npos
                                                                      : end - static_cast<size_t>(used)));
        m.dev = makedev(maj, min);
        mounts.push_back(std::move(m));
    }
    return !mounts.empty();
}

// The mount to release when several are stacked on one point: the one that no
// other mount on the same point stands on.
const Mount* topmost(const std::vector<Mount>& mounts, const std::string& point)
{
    const Mount* last = nullptr;
    for (auto it = mounts.rbegin(); it != mounts.rend(); ++it) {
        if (it->point != point) {
            continue;
        }
        if (last == nullptr) {
            last = &*it;
        }
        bool covered = std::any_of(mounts.begin(), mounts.end(), [&](const Mount& o) {
            return o.point == point && o.parent == it->id && o.id != it->id;
        });
        if (!covered) {
            return &*it;
        }
    }
    return last;
}

// Textual clean-up only: collapses "//" and drops trailing "/" (keeps a lone "/").
std::string collapse(const std::string& in)
{
    std::string out;
    for (char ch : in) {
        if (ch == '/' && !out.empty() && out.back() == '/') {
            continue;
        }
        out += ch;
    }
    while (out.size() > 1 && out.back() == '/') {
        out.pop_back();
    }
    return out;
}

enum class Resolve { Found, Usage, Refused };

// Finds the mount on `arg` without touching the mount point itself: the parent
// directory, on the file system below, is resolved with realpath() and the
// last component appended. A last component that is a symbolic link in the
// parent directory is followed (it is not a mount root, so readlink is safe).
Resolve resolve(const std::string& arg, const std::vector<Mount>& mounts, const Mount** found,
                std::string& point, std::string& why)
{
    std::string path = arg;
    for (int hop = 0; hop < 40; ++hop) {
        path = collapse(path);
        if (path == "/") {
            why = "the root file system is never released";
            return Resolve::Refused;
        }
        size_t slash = path.rfind('/');
        std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
        if (last == "." || last == "..") {
            why = "name the mount point itself, not \".\" or \"..\"";
            return Resolve::Usage;
        }
        char* real = realpath(parent.c_str(), nullptr);
        if (real == nullptr) {
            why = std::string("not a mount point (") + parent + ": " + strerror(errno) + ")";
            return Resolve::Refused;
        }
        std::string dir = real;
        free(real);
        point = dir == "/" ? "/" + last : dir + "/" + last;
        *found = topmost(mounts, point);
        if (*found != nullptr) {
            return Resolve::Found;
        }
        char target[PATH_MAX];
        ssize_t n = readlink(point.c_str(), target, sizeof(target) - 1);
        if (n <= 0) {
            why = "not a mount point";
            return Resolve::Refused;
        }
        target[n] = '\0';
        path = target[0] == '/' ? std::string(target) : dir + "/" + target;
    }
    why = "too many symbolic links";
    return Resolve::Refused;
}

// ---- processes ----

struct Target {
    int mnt_id = 0;
    dev_t dev = 0;
    bool dev_shared = false;  // another mount in the table has the same device
};

struct ProcStat {
    char state = '?';
    pid_t ppid = 0;
    unsigned long flags = 0;
    unsigned long long start = 0;
    std::string comm;
};

bool read_stat(int pfd, ProcStat& st)
{
    char buf[1024];
    if (read_small(pfd, "stat", buf, sizeof(buf)) <= 0) {
        return false;
    }
    // "pid (comm) state ppid ...": comm may hold blanks and ')', so cut at the last ')'.
    char* open_paren = strchr(buf, '(');
    char* close_paren = strrchr(buf, ')');
    if (open_paren == nullptr || close_paren == nullptr || close_paren < open_paren) {
        return false;
    }
    st.comm.assign(open_paren + 1, close_paren);
    // Fields from 3 (state) on; flags is field 9, starttime field 22.
    char* p = close_paren + 1;
    for (int field = 3; field <= 22; ++field) {
        while (*p == ' ') {
            ++p;
        }
        if (*p == '\0') {
            return false;
        }
        char* end = p;
        if (field == 3) {
            st.state = *p;
        } else if (field == 4) {
            st.ppid = static_cast<pid_t>(strtol(p, &end, 10));
        } else if (field == 9) {
            st.flags = strtoul(p, &end, 10);
        } else if (field == 22) {
            st.start = strtoull(p, &end, 10);
        }
        while (*end != ' ' && *end != '\0') {
            ++end;
        }
        p = end;
    }
    return true;
}

int open_proc(pid_t pid)
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d", static_cast<int>(pid));
    return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// Mount id (or, where the kernel gives none, the device) of what a /proc link names.
// 1 it is on the target, 0 not, -1 unknown (gone, or no answer).
int link_on_target(int pfd, const char* name, const Target& t)
{
    struct statx sx;
    if (statx(pfd, name, AT_STATX_DONT_SYNC, STATX_MNT_ID, &sx) != 0) {
        return -1;
    }
    if (sx.stx_mask & STATX_MNT_ID) {
        return sx.stx_mnt_id == static_cast<unsigned long long>(t.mnt_id) ? 1 : 0;
    }
    // Without a mount id the device alone is trusted only if no other mount shares it.
    return !t.dev_shared && makedev(sx.stx_dev_major, sx.stx_dev_minor) == t.dev ? 1 : 0;
}

// getdents64 straight into a buffer on the stack: no DIR allocation, and no
// closing call that only says "no more". The kernel fills the buffer while
// entries fit, so a buffer left with room for a longer entry than any fd
// number needs (32 bytes) was given every entry the directory had.
constexpr size_t kDentsBuf = 4096;
constexpr size_t kDentsRoom = 64;

bool fds_on_target(int pfd, const Target& t)
{
    int dfd = openat(pfd, "fdinfo", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) {
        return false;
    }
    bool hit = false;
    alignas(8) char dents[kDentsBuf];
    char buf[512];
    while (!hit) {
        long n = syscall(SYS_getdents64, dfd, dents, sizeof(dents));
        if (n <= 0) {
            break;
        }
        for (long off = 0; off < n && !hit;) {
            const char* rec = dents + off;
            unsigned short reclen;
            memcpy(&reclen, rec + offsetof(struct dirent64, d_reclen), sizeof(reclen));
            const char* name = rec + offsetof(struct dirent64, d_name);
            off += reclen;
            if (name[0] < '0' || name[0] > '9' || read_small(dfd, name, buf, sizeof(buf)) <= 0) {
                continue;
            }
            const char* m = strstr(buf, "\nmnt_id:");
            hit = m != nullptr && atoi(m + 8) == t.mnt_id;
        }
        if (sizeof(dents) - static_cast<size_t>(n) >= kDentsRoom) {
            break;
        }
    }
    close(dfd);
    return hit;
}

// A file-backed memory map from lo to hi of the file dev:ino. Only a map on the
// mount's device has its mount looked up (a bind mount of the same file
// system elsewhere must not count); `seen` holds the inodes found elsewhere.
bool map_on_target(int pfd, unsigned long lo, unsigned long hi, dev_t dev, unsigned long ino, const Target& t,
                   std::vector<unsigned long>& seen)
{
    if (dev != t.dev || ino == 0 || std::find(seen.begin(), seen.end(), ino) != seen.end()) {
        return false;
    }
    char name[64];
    snprintf(name, sizeof(name), "map_files/%lx-%lx", lo, hi);
    int on = link_on_target(pfd, name, t);
    if (on < 0) {
        on = errno == ENOENT || t.dev_shared ? 0 : 1;
    }
    if (on == 0) {
        seen.push_back(ino);
    }
    return on == 1;
}

// One line of /proc/PID/maps: "lo-hi perms offset MAJ:MIN inode path".
bool map_line_on_target(int pfd, const char* line, const Target& t, std::vector<unsigned long>& seen)
{
    const char* p = line;
    for (int skip = 0; skip < 3; ++skip) {
        p = strchr(p, ' ');
        if (p == nullptr) {
            return false;
        }
        ++p;
    }
    char* end;
    unsigned long maj = strtoul(p, &end, 16);
    if (*end != ':') {
        return false;
    }
    unsigned long min = strtoul(end + 1, &end, 16);
    if (makedev(maj, min) != t.dev) {
        return false;
    }
    unsigned long ino = strtoul(end, nullptr, 10);
    unsigned long lo = strtoul(line, &end, 16);
    unsigned long hi = strtoul(end + 1, nullptr, 16);
    return map_on_target(pfd, lo, hi, makedev(maj, min), ino, t, seen);
}

// The text of /proc/PID/maps, for kernels without PROCMAP_QUERY.
bool maps_text_on_target(int fd, int pfd, const Target& t)
{
    std::vector<unsigned long> seen;
    // Per thread: the walk may run in two.
    thread_local char buf[65536];
    size_t have = 0;
    bool hit = false;
    while (!hit) {
        ssize_t n = read(fd, buf + have, sizeof(buf) - 1 - have);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        have += static_cast<size_t>(n);
        buf[have] = '\0';
        char* line = buf;
        char* eol;
        while (!hit && (eol = strchr(line, '\n')) != nullptr) {
            *eol = '\0';
            hit = map_line_on_target(pfd, line, t, seen);
            line = eol + 1;
        }
        // Keep a partial last line for the next read; a line longer than the
        // buffer (a path of thousands of bytes) is dropped.
        have = static_cast<size_t>(buf + have - line);
        if (have == sizeof(buf) - 1) {
            have = 0;
        }
        memmove(buf, line, have);
    }
    return hit;
}

// PROCMAP_QUERY (Linux 6.11, <linux/fs.h>; declared here for older headers):
// the next file-backed map from an address, with its device and inode but
// without the path the text of maps spells out for every line.
struct ProcmapQuery {
    uint64_t size;
    uint64_t query_flags;
    uint64_t query_addr;
    uint64_t vma_start;
    uint64_t vma_end;
    uint64_t vma_flags;
    uint64_t vma_page_size;
    uint64_t vma_offset;
    uint64_t inode;
    uint32_t dev_major;
    uint32_t dev_minor;
    uint32_t vma_name_size;
    uint32_t build_id_size;
    uint64_t vma_name_addr;
    uint64_t build_id_addr;
};
constexpr unsigned long kProcmapQuery = _IOWR('f', 17, ProcmapQuery);
constexpr uint64_t kQueryCoveringOrNext = 0x10;
constexpr uint64_t kQueryFileBacked = 0x20;

// 1 a map is on the target, 0 none, -1 the kernel has no PROCMAP_QUERY.
int maps_query_on_target(int fd, int pfd, const Target& t)
{
    std::vector<unsigned long> seen;
    ProcmapQuery q;
    memset(&q, 0, sizeof(q));
    for (uint64_t addr = 0;;) {
        q.size = sizeof(q);
        q.query_flags = kQueryCoveringOrNext | kQueryFileBacked;
        q.query_addr = addr;
        q.vma_name_size = 0;
        q.build_id_size = 0;
        if (ioctl(fd, kProcmapQuery, &q) != 0) {
            if (addr == 0 && (errno == ENOTTY || errno == EINVAL)) {
                return -1;
            }
            return 0;  // ENOENT: no map beyond addr; anything else: the process is going
        }
        if (map_on_target(pfd, q.vma_start, q.vma_end, makedev(q.dev_major, q.dev_minor), q.inode, t, seen)) {
            return 1;
        }
        if (q.vma_end <= addr) {
            return 0;
        }
        addr = q.vma_end;
    }
}

bool maps_on_target(int pfd, const Target& t)
{
    static std::atomic<bool> no_query{false};  // learnt once: this kernel has no PROCMAP_QUERY
    int fd = openat(pfd, "maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    int hit = no_query ? -1 : maps_query_on_target(fd, pfd, t);
    if (hit < 0) {
        no_query = true;
        hit = maps_text_on_target(fd, pfd, t) ? 1 : 0;
    }
    close(fd);
    return hit == 1;
}

bool uses_target(int pfd, const Target& t)
{
    for (const char* link : {"cwd", "root", "exe"}) {
        if (link_on_target(pfd, link, t) == 1) {
            return true;
        }
    }
    return fds_on_target(pfd, t) || maps_on_target(pfd, t);
}

struct Holder {
    pid_t pid = 0;
    unsigned long long start = 0;
    std::string comm;
    int pidfd = -1;
    bool done = false;  // exited, or let go of the mount
};

struct Seen {
    pid_t pid;
    ino_t ino;
    bool operator<(const Seen& o) const
    {
        return pid < o.pid;
    }
};

struct ScanState {
    const Target* t;
    const std::set<pid_t>* excluded;
    // Processes an earlier walk saw, by PID, with the inode of their /proc
    // entry (sorted by PID; empty in the first walk).
    const std::vector<Seen>* seen;
    std::vector<pid_t> pids;  // the walk's list, examined afterwards
    std::vector<ino_t> inos;  // per entry of the list: its /proc inode, 0 when it has gone
    bool short_of_memory = false;
};

// The list first, the examination after: the examination is what costs, and
// it can then be shared out between threads.
int list_pid(void* arg, int, const char* name)
{
    ScanState* s = static_cast<ScanState*>(arg);
    pid_t pid = static_cast<pid_t>(strtol(name, nullptr, 10));
    if (pid <= 0 || s->excluded->count(pid) != 0) {
        return 0;
    }
    try {
        s->pids.push_back(pid);
    } catch (const std::bad_alloc&) {
        s->short_of_memory = true;
        return 1;
    }
    return 0;
}

void examine(const ScanState& s, int procfd, size_t idx, std::vector<Holder>& out, std::vector<ino_t>& inos)
{
    pid_t pid = s.pids[idx];
    char name[16];
    snprintf(name, sizeof(name), "%d", static_cast<int>(pid));
    struct stat sb;
    auto old = std::lower_bound(s.seen->begin(), s.seen->end(), Seen{pid, 0});
    if (old != s.seen->end() && old->pid == pid) {
        // A process the previous walk saw and found unrelated cannot have
        // inherited the mount from a holder; only newer ones are examined.
        // Its /proc entry keeps its inode while it lives; a PID used again
        // is a new entry, and so is one the kernel dropped from its cache
        // meanwhile (examined again, to no harm).
        if (fstatat(procfd, name, &sb, 0) == 0 && sb.st_ino == old->ino) {
            inos[idx] = sb.st_ino;
            return;
        }
    }
    int pfd = openat(procfd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (pfd < 0) {
        return;
    }
    if (fstat(pfd, &sb) == 0) {
        inos[idx] = sb.st_ino;
    }
    ProcStat st;
    // Kernel threads and zombies never match the checks (no descriptors, no
    // maps, the root's cwd), so their stat is read only for a process that does.
    if (uses_target(pfd, *s.t) && read_stat(pfd, st) && (st.flags & kPfKthread) == 0 && st.state != 'Z' &&
        st.state != 'X') {
        Holder h;
        h.pid = pid;
        h.start = st.start;
        h.comm = st.comm;
        out.push_back(std::move(h));
    }
    close(pfd);
}

// Every `step`-th process of the list from `first` on.
void examine_share(ScanState* s, int procfd, size_t first, size_t step, std::vector<Holder>* out)
{
    for (size_t i = first; i < s->pids.size(); i += step) {
        examine(*s, procfd, i, *out, s->inos);  // each thread writes its own entries only
    }
}

// The processes that use the target, except the excluded ones, kernel threads
// and zombies; only those not in `seen`, which the walk replaces with what it saw.
// Processes that vanish during the walk are simply not listed.
bool scan(const Target& t, const std::set<pid_t>& excluded, std::vector<Seen>& seen, std::vector<Holder>& out)
{
    ScanState s = {&t, &excluded, &seen, {}, {}, false};
    // A list read only in part could hide a holder: that is a failure here.
    if (proc_scan(list_pid, &s) != 0 || s.short_of_memory) {
        say("cannot read /proc: %s", s.short_of_memory ? "out of memory" : strerror(errno));
        return false;
    }
    try {
        s.inos.assign(s.pids.size(), 0);
    } catch (const std::bad_alloc&) {
        say("cannot read /proc: out of memory");
        return false;
    }
    int procfd = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (procfd < 0) {
        say("cannot read /proc: %s", strerror(errno));
        return false;
    }
    // A failover waits on this walk: with a second core, a second thread
    // takes every other process. Without one, or without the thread, the
    // main thread does it all.
    std::vector<Holder> second;
    std::thread helper;
    size_t step = 1;
    if (s.pids.size() >= kShareFrom && std::thread::hardware_concurrency() > 1) {
        try {
            helper = std::thread(examine_share, &s, procfd, 1, 2, &second);
            step = 2;
        } catch (const std::system_error&) {
            step = 1;
        }
    }
    examine_share(&s, procfd, 0, step, &out);
    if (helper.joinable()) {
        helper.join();
        out.insert(out.end(), second.begin(), second.end());
        // In the order of the list, as one thread would have found them.
        std::sort(out.begin(), out.end(), [](const Holder& a, const Holder& b) { return a.pid < b.pid; });
    }
    close(procfd);
    std::vector<Seen> now;
    try {
        now.reserve(s.pids.size());
    } catch (const std::bad_alloc&) {
        seen.clear();  // the next walk examines everything again
        return true;
    }
    for (size_t i = 0; i < s.pids.size(); ++i) {
        if (s.inos[i] != 0) {
            now.push_back(Seen{s.pids[i], s.inos[i]});
        }
    }
    std::sort(now.begin(), now.end());
    seen.swap(now);
    return true;
}

// PID 1, this process and every ancestor: ending any of them would end the caller.
std::set<pid_t> excluded_pids()
{
    std::set<pid_t> ex{1, getpid()};
    pid_t pid = getppid();
    while (pid > 1 && ex.insert(pid).second) {
        int pfd = open_proc(pid);
        ProcStat st;
        bool ok = pfd >= 0 && read_stat(pfd, st);
        if (pfd >= 0) {
            close(pfd);
        }
        if (!ok) {
            break;
        }
        pid = st.ppid;
    }
    return ex;
}

// Same process as when it was found? (A PID can be reused once the holder is gone.)
bool same_process(const Holder& h, int pfd)
{
    ProcStat st;
    return read_stat(pfd, st) && st.start == h.start && st.state != 'Z' && st.state != 'X';
}

// A pidfd pins the process: signals through it can never reach a reused PID.
void attach(Holder& h)
{
    h.pidfd = static_cast<int>(syscall(SYS_pidfd_open, h.pid, 0));
    int pfd = open_proc(h.pid);
    if (pfd < 0 || !same_process(h, pfd)) {
        h.done = true;
    }
    if (pfd >= 0) {
        close(pfd);
    }
}

bool send(Holder& h, int sig)
{
    if (h.pidfd >= 0) {
        if (syscall(SYS_pidfd_send_signal, h.pidfd, sig, nullptr, 0) == 0) {
            return true;
        }
    } else {
        // No pidfd (old kernel): the start time guards against a reused PID.
        int pfd = open_proc(h.pid);
        bool same = pfd >= 0 && same_process(h, pfd);
        if (pfd >= 0) {
            close(pfd);
        }
        if (!same) {
            h.done = true;
            return false;
        }
        if (kill(h.pid, sig) == 0) {
            return true;
        }
    }
    if (errno == ESRCH) {
        h.done = true;  // gone already
    }
    return false;
}

bool exited(const Holder& h)
{
    if (h.pidfd >= 0) {
        struct pollfd p = {h.pidfd, POLLIN, 0};
        return poll(&p, 1, 0) > 0;
    }
    int pfd = open_proc(h.pid);
    bool same = pfd >= 0 && same_process(h, pfd);
    if (pfd >= 0) {
        close(pfd);
    }
    return !same;
}

bool still_uses(const Holder& h, const Target& t)
{
    int pfd = open_proc(h.pid);
    if (pfd < 0) {
        return false;
    }
    bool uses = same_process(h, pfd) && uses_target(pfd, t);
    close(pfd);
    return uses;
}

// Waits until every holder has exited (or, with `recheck`, no longer uses the
// mount) or the time is up. Returns whether all are done.
bool wait_done(std::vector<Holder>& hs, const Target& t, int ms, bool recheck)
{
    long long deadline = now_ms() + ms;
    for (;;) {
        std::vector<struct pollfd> fds;
        for (Holder& h : hs) {
            if (h.done) {
                continue;
            }
            if (exited(h) || (recheck && !still_uses(h, t))) {
                h.done = true;
            } else if (h.pidfd >= 0) {
                fds.push_back({h.pidfd, POLLIN, 0});
            }
        }
        bool all = std::all_of(hs.begin(), hs.end(), [](const Holder& h) { return h.done; });
        long long left = deadline - now_ms();
        if (all || left <= 0) {
            return all;
        }
        int step = static_cast<int>(std::min<long long>(left, kPollMs));
        if (fds.empty()) {
            struct timespec ts = {0, step * 1000000L};
            nanosleep(&ts, nullptr);
        } else {
            poll(fds.data(), fds.size(), step);
        }
    }
}

// One round: SIGTERM, grace, SIGKILL for the rest. Returns whether all ended.
bool end_holders(std::vector<Holder>& hs, const Target& t, bool& signalled)
{
    for (Holder& h : hs) {
        attach(h);
        if (!h.done && send(h, SIGTERM)) {
            // A stopped process would only act on SIGTERM once continued.
            send(h, SIGCONT);
            say("SIGTERM to %d (%s)", static_cast<int>(h.pid), h.comm.c_str());
            signalled = true;
        }
    }
    bool ok = wait_done(hs, t, kGraceMs, true);
    if (!ok) {
        for (Holder& h : hs) {
            if (!h.done && send(h, SIGKILL)) {
                say("SIGKILL to %d (%s)", static_cast<int>(h.pid), h.comm.c_str());
                signalled = true;
            }
        }
        ok = wait_done(hs, t, kKillWaitMs, false);
        for (const Holder& h : hs) {
            if (!h.done) {
                say("%d (%s) did not end", static_cast<int>(h.pid), h.comm.c_str());
            }
        }
    }
    for (Holder& h : hs) {
        if (h.pidfd >= 0) {
            close(h.pidfd);
        }
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        usage(stdout);
        return EXIT_UNUSED;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("zorrelpath (zor) %s\n", ZOR_VERSION);
        return EXIT_UNUSED;
    }
    // A mount point starting with "-" can be given as ./-name.
    if (argc != 2 || argv[1][0] == '\0' || argv[1][0] == '-') {
        if (argc > 2) {
            fprintf(stderr, "zorrelpath: unexpected argument '%s'\n", argv[2]);
        } else if (argc == 2 && argv[1][0] == '-') {
            fprintf(stderr, "zorrelpath: unrecognized option '%s'\n", argv[1]);
        } else {
            fprintf(stderr, "zorrelpath: no mount point given\n");
        }
        fputs("Try 'zorrelpath --help'.\n", stderr);
        return EXIT_USAGE;
    }
    g_point = argv[1];

    std::vector<Mount> mounts;
    if (!read_mounts(mounts)) {
        say("cannot read /proc/self/mountinfo: %s", strerror(errno));
        return EXIT_NOT_MOUNT;
    }
    const Mount* mount = nullptr;
    std::string point, why;
    Resolve r = resolve(argv[1], mounts, &mount, point, why);
    if (r != Resolve::Found) {
        say("%s", why.c_str());
        if (r == Resolve::Usage) {
            fputs("Try 'zorrelpath --help'.\n", stderr);
            return EXIT_USAGE;
        }
        return EXIT_NOT_MOUNT;
    }
    g_point = point.c_str();

    Target t;
    t.mnt_id = mount->id;
    t.dev = mount->dev;
    t.dev_shared =
        std::count_if(mounts.begin(), mounts.end(), [&](const Mount& m) { return m.dev == mount->dev; }) > 1;

    std::set<pid_t> excluded = excluded_pids();
    bool signalled = false;
    std::vector<Seen> seen;
    for (int round = 0;; ++round) {
        std::vector<Holder> holders;
        if (!scan(t, excluded, seen, holders)) {
            return EXIT_STUCK;
        }
        if (holders.empty()) {
            break;
        }
        if (round == kMaxRounds) {
            for (const Holder& h : holders) {
                say("still used by %d (%s)", static_cast<int>(h.pid), h.comm.c_str());
            }
            return EXIT_STUCK;
        }
        if (!end_holders(holders, t, signalled)) {
            return EXIT_STUCK;
        }
        // Whatever this walk saw has been looked at; what could hold the
        // mount now was started by a holder since.
    }
    return signalled ? EXIT_ENDED : EXIT_UNUSED;
}
