// The cluster's log library.
//
// Several agent processes write the same log during a failover, so a record
// is formatted completely in memory and handed to the kernel in one write(2)
// on an O_APPEND descriptor: records of different processes can then neither
// interleave nor overwrite each other. Rotation renames the files under an
// flock(2) on NAME.log.lock; a writer notices that its file was renamed away
// by comparing the inode of NAME.log with that of its own descriptor, and
// reopens. Records written to a file just after another process renamed it
// land in NAME.log.1 and are kept.
//
// The syslog copy of errors and events goes through the C library's syslog(3),
// which serialises its callers and reconnects to /dev/log by itself; a system
// without a syslog daemon simply drops it.
#include "zorlog.h"
#include "zorhome.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>

namespace {

constexpr int kDefaultSize = 10 * 1024 * 1024;
constexpr int kMinSize = 4096;
constexpr int kGenerations = 3;      // NAME.log.1 .. NAME.log.3
constexpr size_t kRecordMax = 2048;  // one line, newline included
constexpr size_t kMessageMax = 1024;
constexpr size_t kMaxName = 64;
constexpr unsigned kMagic = 0x5a4f524cU;

struct Log {
    unsigned magic = kMagic;
    std::mutex mu;  // guards fd and ino/dev: threads of one process share the handle
    std::string path;
    std::string lockpath;
    int level = ZOR_LOG_ERROR;
    off_t size = kDefaultSize;
    int fd = -1;
    dev_t dev = 0;
    ino_t ino = 0;
    bool to_syslog = false;
    std::string syslog_prefix;  // "PREFIX: " or empty
};

// openlog(3) keeps the pointer it is given: the identity lives here.
char g_ident[kMaxName + 1];

bool valid_name(const char* name)
{
    size_t len = strnlen(name, kMaxName + 1);
    if (len == 0 || len > kMaxName) {
        return false;
    }
    return strchr(name, '/') == nullptr && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// Opens (or creates) the current file and records which inode it is.
bool open_current(Log& lg)
{
    int fd = open(lg.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return false;
    }
    if (lg.fd >= 0) {
        close(lg.fd);
    }
    lg.fd = fd;
    lg.dev = st.st_dev;
    lg.ino = st.st_ino;
    return true;
}

// True when NAME.log is still the file our descriptor writes to.
bool still_current(const Log& lg)
{
    struct stat st;
    return lg.fd >= 0 && stat(lg.path.c_str(), &st) == 0 && st.st_dev == lg.dev && st.st_ino == lg.ino;
}

// Called when the next record would take the file past its size. Under the
// lock file, another process may already have rotated: then only reopen.
void rotate(Log& lg, size_t reclen)
{
    int lfd = open(lg.lockpath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    if (lfd < 0) {
        return;  // no lock, no rotation: the file grows, which is better than racing
    }
    while (flock(lfd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            close(lfd);
            return;
        }
    }
    if (!still_current(lg)) {
        open_current(lg);
    }
    struct stat st;
    if (lg.fd >= 0 && fstat(lg.fd, &st) == 0 && st.st_size > 0 &&
        st.st_size + static_cast<off_t>(reclen) > lg.size) {
        for (int g = kGenerations - 1; g >= 1; g--) {
            std::string from = lg.path + "." + std::to_string(g);
            std::string to = lg.path + "." + std::to_string(g + 1);
            rename(from.c_str(), to.c_str());  // a missing generation is fine
        }
        std::string first = lg.path + ".1";
        if (rename(lg.path.c_str(), first.c_str()) == 0) {
            open_current(lg);
        }
    }
    flock(lfd, LOCK_UN);
    close(lfd);
}

const char* level_name(int level, char* buf, size_t size)
{
    switch (level) {
        case ZOR_LOG_ERROR:
            return "ERROR";
        case ZOR_LOG_WARNING:
            return "WARN";
        case ZOR_LOG_INFO:
            return "INFO";
        case ZOR_LOG_DETAIL:
            return "DETAIL";
        case ZOR_LOG_EVENT:
            return "EVENT";
        default:
            snprintf(buf, size, "L%d", level);
            return buf;
    }
}

const char* ins(const char* s)
{
    return s != nullptr ? s : "-";
}

// The message catalogue of the numbered events. The inserts are fetched with
// their real types, so a catalogue text can never read an argument wrongly.
void event_text(char* buf, size_t size, int eid, va_list ap)
{
    const char *s1 = nullptr, *s2 = nullptr, *s3 = nullptr;
    int code = 0;
    switch (eid) {
        case ZOR_EV_FSCK_START:
        case ZOR_EV_FSCK_CLEAN:
        case ZOR_EV_MOUNT_TIMEOUT:
            s1 = va_arg(ap, const char*);
            s2 = va_arg(ap, const char*);
            break;
        case ZOR_EV_CMD_FAILED:
            s1 = va_arg(ap, const char*);
            s2 = va_arg(ap, const char*);
            code = va_arg(ap, int);
            break;
        case ZOR_EV_OPTION_REFUSED:
        case ZOR_EV_FSCK_START_OPT:
            s1 = va_arg(ap, const char*);
            s2 = va_arg(ap, const char*);
            s3 = va_arg(ap, const char*);
            break;
        case ZOR_EV_XFS_NOT_REPAIRED:
            s1 = va_arg(ap, const char*);
            break;
        case ZOR_EV_BAD_COMBINATION:
            s1 = va_arg(ap, const char*);
            s2 = va_arg(ap, const char*);
            break;
        default:
            break;
    }
    switch (eid) {
        case ZOR_EV_FSCK_START:
            snprintf(buf, size, "ZOR-10: file system check started. (command=%s, device=%s)", ins(s1),
                     ins(s2));
            break;
        case ZOR_EV_FSCK_CLEAN:
            snprintf(buf, size, "ZOR-11: file system is clean. (command=%s, device=%s)", ins(s1), ins(s2));
            break;
        case ZOR_EV_CMD_FAILED:
            snprintf(buf, size, "ZOR-12: command failed. (command=%s, device=%s, exit code=%d)", ins(s1),
                     ins(s2), code);
            break;
        case ZOR_EV_OPTION_REFUSED:
            snprintf(buf, size,
                     "ZOR-13: reiserfs check needs an option that the configuration does not allow;"
                     " check the file system by hand. (command=%s, device=%s, option=%s)",
                     ins(s1), ins(s2), ins(s3));
            break;
        case ZOR_EV_FSCK_START_OPT:
            snprintf(buf, size,
                     "ZOR-14: file system check started with an option. (command=%s, device=%s, option=%s)",
                     ins(s1), ins(s2), ins(s3));
            break;
        case ZOR_EV_MOUNT_TIMEOUT:
            snprintf(buf, size, "ZOR-15: mount command timed out. (command=%s, device=%s)", ins(s1), ins(s2));
            break;
        case ZOR_EV_XFS_NOT_REPAIRED:
            snprintf(buf, size,
                     "ZOR-16: xfs file system could not be mounted and no repair is configured. (device=%s)",
                     ins(s1));
            break;
        case ZOR_EV_BAD_COMBINATION:
            snprintf(buf, size,
                     "ZOR-17: disk type and file system type cannot be combined. (disktype=%s, fs=%s)",
                     ins(s1), ins(s2));
            break;
        default:
            snprintf(buf, size, "ZOR-%d: event without a catalogue text.", eid);
            break;
    }
}

// The syslog priority of an event of the catalogue.
int event_priority(int eid)
{
    switch (eid) {
        case ZOR_EV_CMD_FAILED:
        case ZOR_EV_MOUNT_TIMEOUT:
        case ZOR_EV_XFS_NOT_REPAIRED:
        case ZOR_EV_BAD_COMBINATION:
            return LOG_ERR;
        case ZOR_EV_OPTION_REFUSED:
            return LOG_WARNING;
        default:
            return LOG_NOTICE;
    }
}

// Builds the whole line, newline included; returns its length.
size_t format_record(char* rec, size_t size, int level, const char* file, int line, const char* func,
                     const char* msg)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tm);
    char lvbuf[16];
    long tid = static_cast<long>(syscall(SYS_gettid));
    int n = snprintf(rec, size, "%s.%06ld [%ld:%ld] %s %s:%d %s: %s", stamp, ts.tv_nsec / 1000,
                     static_cast<long>(getpid()), tid, level_name(level, lvbuf, sizeof(lvbuf)),
                     file != nullptr ? file : "-", line, func != nullptr ? func : "-", msg);
    size_t len = n < 0 ? 0 : static_cast<size_t>(n);
    if (len > size - 2) {
        len = size - 2;  // cut: the record stays one line
    }
    rec[len++] = '\n';
    rec[len] = '\0';
    return len;
}

}  // namespace

int log_init(const char* name, void** handle, int level, int size, const char* path)
{
    if (handle == nullptr) {
        return ZOR_LOG_ERR_PARAM;
    }
    *handle = nullptr;
    if (name == nullptr || !valid_name(name) || (path != nullptr && path[0] == '\0')) {
        return ZOR_LOG_ERR_PARAM;
    }
    char dir[4096];
    if (path == nullptr) {
        if (zor_home_path(dir, sizeof(dir), "log") != 0) {
            return ZOR_LOG_ERR_PARAM;
        }
    } else {
        if (strnlen(path, sizeof(dir)) >= sizeof(dir)) {
            return ZOR_LOG_ERR_PARAM;
        }
        snprintf(dir, sizeof(dir), "%s", path);
    }
    Log* lg = new (std::nothrow) Log;
    if (lg == nullptr) {
        return ZOR_LOG_ERR_MEMORY;
    }
    try {
        lg->path = std::string(dir) + "/" + name + ".log";
        lg->lockpath = lg->path + ".lock";
    } catch (...) {
        delete lg;
        return ZOR_LOG_ERR_MEMORY;
    }
    lg->level = level > 0 ? level : ZOR_LOG_ERROR;
    lg->size = size <= 0 ? kDefaultSize : (size < kMinSize ? kMinSize : size);
    zor_mkdirs(dir, 0755);  // an existing directory is fine; open() tells the rest
    if (!open_current(*lg)) {
        delete lg;
        return ZOR_LOG_ERR_OPEN;
    }
    *handle = lg;
    return ZOR_LOG_SUCCESS;
}

int log_write(void* handle, int level, int eid, const char* file, int line, const char* func, const char* fmt,
              ...)
{
    Log* lg = static_cast<Log*>(handle);
    if (lg == nullptr || lg->magic != kMagic) {
        return ZOR_LOG_SUCCESS;
    }
    if (level != ZOR_LOG_EVENT && level > lg->level) {
        return ZOR_LOG_SUCCESS;
    }
    char msg[kMessageMax];
    va_list ap;
    va_start(ap, fmt);
    if (fmt != nullptr) {
        vsnprintf(msg, sizeof(msg), fmt, ap);
    } else if (eid != 0) {
        event_text(msg, sizeof(msg), eid, ap);
    } else {
        msg[0] = '\0';
    }
    va_end(ap);
    for (char* p = msg; *p != '\0'; p++) {
        if (*p == '\n' || *p == '\r') {
            *p = ' ';
        }
    }
    if (lg->to_syslog && (level == ZOR_LOG_ERROR || level == ZOR_LOG_EVENT)) {
        int prio = level == ZOR_LOG_ERROR ? LOG_ERR : (fmt == nullptr ? event_priority(eid) : LOG_NOTICE);
        syslog(prio, "%s%s", lg->syslog_prefix.c_str(), msg);
    }
    char rec[kRecordMax];
    size_t len = format_record(rec, sizeof(rec), level, file, line, func, msg);

    std::lock_guard<std::mutex> lock(lg->mu);
    if (!still_current(*lg)) {
        open_current(*lg);  // rotated away by another process, or removed
    }
    struct stat st;
    if (lg->fd >= 0 && fstat(lg->fd, &st) == 0 && st.st_size > 0 &&
        st.st_size + static_cast<off_t>(len) > lg->size) {
        rotate(*lg, len);
    }
    if (lg->fd < 0) {
        return ZOR_LOG_SUCCESS;
    }
    ssize_t w;
    do {
        w = write(lg->fd, rec, len);
    } while (w < 0 && errno == EINTR);
    // A full disk or a short write is not the caller's problem.
    return ZOR_LOG_SUCCESS;
}

int log_syslog(void* handle, const char* ident, const char* prefix)
{
    Log* lg = static_cast<Log*>(handle);
    if (lg == nullptr || lg->magic != kMagic) {
        return ZOR_LOG_SUCCESS;
    }
    if (ident == nullptr || !valid_name(ident)) {
        return ZOR_LOG_ERR_PARAM;
    }
    try {
        lg->syslog_prefix = (prefix != nullptr && prefix[0] != '\0') ? std::string(prefix) + ": " : "";
    } catch (...) {
        return ZOR_LOG_ERR_MEMORY;
    }
    snprintf(g_ident, sizeof(g_ident), "%s", ident);
    openlog(g_ident, LOG_PID, LOG_DAEMON);
    lg->to_syslog = true;
    return ZOR_LOG_SUCCESS;
}

int log_term(void* handle)
{
    Log* lg = static_cast<Log*>(handle);
    if (lg == nullptr || lg->magic != kMagic) {
        return ZOR_LOG_SUCCESS;
    }
    if (lg->fd >= 0) {
        close(lg->fd);
    }
    lg->magic = 0;
    delete lg;
    return ZOR_LOG_SUCCESS;
}
