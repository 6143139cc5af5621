// The node-wide mount lock and the shared-memory status table.
//
// Both rely on flock(2) on files of root's alone: the kernel drops the lock of
// a process that dies, even by SIGKILL, so a crashed agent can never leave a
// stale lock behind and block a failover. flock locks belong to an open file
// description, which a fork shares; so each process opens its own descriptors
// (see forget_if_forked) and a process-local mutex keeps threads of one
// process apart.
#include "zoripc.h"

#include "zorhome.h"
#include "zorsafe.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// Takes an flock, retried when a signal interrupts the wait.
int flock_retry(int fd, int op)
{
    int rc;
    do {
        rc = flock(fd, op);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

// Length of name when it is a valid record name (1 to 31 bytes), else 0.
size_t name_len(const char* name)
{
    if (name == nullptr) {
        return 0;
    }
    size_t n = strnlen(name, SHMRM_NAME_SIZE);
    return n < SHMRM_NAME_SIZE ? n : 0;
}

// Copies a field of the shared table into a caller's buffer. The table may
// have been scribbled on by anyone with write access, so the source is never
// trusted to be terminated.
void copy_field(char* dst, size_t size, const char* src, size_t srcsize)
{
    size_t n = strnlen(src, srcsize);
    if (n >= size) {
        n = size - 1;
    }
    memcpy(dst, src, n);
    dst[n] = '\0';
}

// ---------------------------------------------------------------- mount lock

struct LockState {
    int fd = -1;
    int refs = 0;
    bool held = false;
    pid_t pid = 0;
};

pthread_mutex_t g_lock_mu = PTHREAD_MUTEX_INITIALIZER;
LockState g_lock;

// A child of fork inherits the parent's descriptor and with it the parent's
// lock; it must not use it, or parent and child would count as one holder.
void lock_forget_if_forked()
{
    if (g_lock.refs > 0 && g_lock.pid != getpid()) {
        close(g_lock.fd);
        g_lock = LockState();
    }
}

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t* mu) : mu_(mu)
    {
        pthread_mutex_lock(mu_);
    }
    ~MutexGuard()
    {
        pthread_mutex_unlock(mu_);
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t* mu_;
};

// ------------------------------------------------------------- status table
//
// Any user may read the table (zorstat shows it to operators), and a lock that
// a reader could take is a lock that a user could hold against every agent of
// the node. So readers take none. Writers, root's agents, serialise on a file
// of root's alone beside the mount lock, and change each record so that a
// reader can tell a copy it made while the record changed: every change bumps
// the record's count, and a reader that finds the count moved copies again.

constexpr uint32_t kMagic = 0x5a535431;  // "ZST1"
constexpr uint32_t kVersion = 2;
// Version 1 has the same layout, but its readers and writers lock the table
// itself, so it is root's alone (0600), and it lives under the name without
// "v2-". The next writer merges one it meets into ours and removes it.
constexpr uint32_t kOldVersion = 1;
constexpr uint32_t kCapacity = 1024;
constexpr const char* kPrefix = "/zor-status-v2-";
constexpr const char* kOldPrefix = "/zor-status-";
// Copies of a record a reader makes before it gives up: only a writer that
// changes the record without a pause keeps it from a consistent copy.
constexpr int kReadTries = 1000;

// The text is kept twice; an update writes the slot not in use and then
// switches to it, so a writer killed half-way leaves the previous text whole.
struct Slot {
    char text[SHMRM_TEXT_SIZE];
    int64_t sec;
    int64_t nsec;
};

// A removed record keeps its place with `removed` set; a later new record
// takes the place and clears the flag last, so a writer killed while it
// fills the place leaves it removed, never half made.
struct Record {
    char group[SHMRM_NAME_SIZE];
    char type[SHMRM_NAME_SIZE];
    char resource[SHMRM_NAME_SIZE];
    uint32_t seq;      // changes made to the record; its low bit is the slot in use
    uint32_t removed;  // 1: free for a new record (tables before removal held 0 here)
    Slot slot[2];
};

struct Header {
    uint32_t magic;
    uint32_t version;
    uint32_t capacity;
    uint32_t record_size;
    uint32_t count;  // records [0, count) are in use or removed
    uint32_t pad[11];
};

struct Table {
    Header hdr;
    Record rec[kCapacity];
};

constexpr size_t kTableSize = sizeof(Table);
constexpr size_t kNamesSize = offsetof(Record, seq);

// Readers copy what writers may be changing in words of 8 bytes, each an
// atomic access, rather than with memcpy, so a copy that races a writer is
// only ever stale or mixed (which the count tells), never undefined.
typedef uint64_t __attribute__((may_alias)) Word;
static_assert(kNamesSize % 8 == 0 && sizeof(Slot) % 8 == 0 && offsetof(Record, slot) % 8 == 0 &&
                  sizeof(Record) % 8 == 0 && sizeof(Header) % 8 == 0,
              "records are copied in words");

void load_words(void* dst, const void* src, size_t size)
{
    const Word* s = static_cast<const Word*>(src);
    Word* d = static_cast<Word*>(dst);
    for (size_t i = 0; i < size / 8; i++) {
        d[i] = __atomic_load_n(&s[i], __ATOMIC_RELAXED);
    }
}

void store_words(void* dst, const void* src, size_t size)
{
    const Word* s = static_cast<const Word*>(src);
    Word* d = static_cast<Word*>(dst);
    for (size_t i = 0; i < size / 8; i++) {
        __atomic_store_n(&d[i], s[i], __ATOMIC_RELAXED);
    }
}

struct TableState {
    int fd = -1;
    int lock_fd = -1;  // the writers' lock; -1 when attached to read only
    bool old = false;  // a version 1 table, read under its own flock
    Table* map = nullptr;
    int refs = 0;
    pid_t pid = 0;
};

pthread_mutex_t g_tab_mu = PTHREAD_MUTEX_INITIALIZER;
TableState g_tab;

void table_close(TableState* st)
{
    if (st->map != nullptr) {
        munmap(st->map, kTableSize);
    }
    if (st->fd >= 0) {
        close(st->fd);
    }
    if (st->lock_fd >= 0) {
        close(st->lock_fd);
    }
    *st = TableState();
}

void table_forget_if_forked()
{
    if (g_tab.refs > 0 && g_tab.pid != getpid()) {
        table_close(&g_tab);
    }
}

bool header_ok(const Header& h, uint32_t version)
{
    return h.magic == kMagic && h.version == version && h.capacity == kCapacity &&
           h.record_size == sizeof(Record) && h.count <= kCapacity;
}

// Number of records a reader may look at.
uint32_t table_count(const Table* t)
{
    uint32_t n = __atomic_load_n(&t->hdr.count, __ATOMIC_ACQUIRE);
    return n <= kCapacity ? n : 0;
}

enum class Copy { kLive, kRemoved, kBusy };

// A consistent copy of record r into out: its names and, in out->slot[0], the
// text in use. A writer bumps the count before it touches anything a reader
// may be copying, and a reader keeps a copy only when the count did not move
// while it made it.
Copy read_record(const Record& r, Record* out)
{
    for (int i = 0; i < kReadTries; i++) {
        uint32_t seq = __atomic_load_n(&r.seq, __ATOMIC_ACQUIRE);
        if (__atomic_load_n(&r.removed, __ATOMIC_ACQUIRE) != 0) {
            return Copy::kRemoved;
        }
        load_words(out, &r, kNamesSize);
        load_words(&out->slot[0], &r.slot[seq & 1u], sizeof(Slot));
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        if (__atomic_load_n(&r.seq, __ATOMIC_RELAXED) == seq) {
            return Copy::kLive;
        }
        if (i >= 8) {
            sched_yield();  // let the writer finish
        }
    }
    return Copy::kBusy;
}

bool same_names(const Record& r, const char* group, const char* type, const char* resource)
{
    return strncmp(r.group, group, SHMRM_NAME_SIZE) == 0 && strncmp(r.type, type, SHMRM_NAME_SIZE) == 0 &&
           strncmp(r.resource, resource, SHMRM_NAME_SIZE) == 0;
}

// The record of these names, for a writer (who holds the writers' lock, so
// nothing changes under it).
Record* table_find(Table* t, const char* group, const char* type, const char* resource)
{
    for (uint32_t i = 0; i < t->hdr.count; i++) {
        Record* r = &t->rec[i];
        if (r->removed == 0 && same_names(*r, group, type, resource)) {
            return r;
        }
    }
    return nullptr;
}

// Writes s into the slot of r not in use, then makes it the one in use. Under
// the writers' lock. The fence keeps the slot's stores after the load of the
// count: a reader still copying that slot (in use two changes ago) then finds
// the count moved.
void put_slot(Record* r, const Slot& s)
{
    uint32_t seq = __atomic_load_n(&r->seq, __ATOMIC_ACQUIRE);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    store_words(&r->slot[(seq + 1) & 1u], &s, sizeof(s));
    __atomic_store_n(&r->seq, seq + 1, __ATOMIC_RELEASE);
}

// Stores a text under these names, as a new record when there is none:
// SHMRM_ERR_MAXRSC when the table is full. Under the writers' lock.
int table_store(Table* t, const char* group, const char* type, const char* resource, const Slot& s)
{
    Record* r = table_find(t, group, type, resource);
    if (r != nullptr) {
        put_slot(r, s);
        return SHMRM_SUCCESS;
    }
    Record names = {};
    strncpy(names.group, group, SHMRM_NAME_SIZE - 1);
    strncpy(names.type, type, SHMRM_NAME_SIZE - 1);
    strncpy(names.resource, resource, SHMRM_NAME_SIZE - 1);
    // The place of a removed record first. A reader may still be copying it
    // from before its removal: the count moves before its names change, and
    // the flag clears last.
    for (uint32_t i = 0; i < t->hdr.count; i++) {
        r = &t->rec[i];
        if (r->removed != 0) {
            __atomic_store_n(&r->seq, r->seq + 1, __ATOMIC_RELAXED);
            __atomic_thread_fence(__ATOMIC_RELEASE);
            store_words(r, &names, kNamesSize);
            put_slot(r, s);
            __atomic_store_n(&r->removed, 0u, __ATOMIC_RELEASE);
            return SHMRM_SUCCESS;
        }
    }
    if (t->hdr.count >= kCapacity) {
        return SHMRM_ERR_MAXRSC;
    }
    // Beyond the count no reader looks: filled whole before the count takes
    // it in, so a writer killed here leaves nothing half made.
    r = &t->rec[t->hdr.count];
    memcpy(r, &names, kNamesSize);
    r->seq = 0;
    r->removed = 0;
    r->slot[0] = s;
    memset(&r->slot[1], 0, sizeof(Slot));
    __atomic_store_n(&t->hdr.count, t->hdr.count + 1, __ATOMIC_RELEASE);
    return SHMRM_SUCCESS;
}

// An flock that no one else can put off for long: tried without waiting, up
// to about a second. For the flock of a version 1 table, whose own writers
// hold it for microseconds.
int flock_bounded(int fd, int op)
{
    for (int i = 0; i < 1000; i++) {
        if (flock(fd, op | LOCK_NB) == 0) {
            return 0;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return -1;
        }
        struct timespec ms = {0, 1000000};
        nanosleep(&ms, nullptr);
    }
    errno = EWOULDBLOCK;
    return -1;
}

int table_name(char* out, int len, const char* prefix)
{
    if (out == nullptr || len <= 0) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    // The canonical path, so that every spelling of one tree (a symlink, a
    // trailing slash) finds the same table. A tree that does not exist yet
    // is hashed as written.
    char canon[PATH_MAX];
    const char* home = zor_home();
    const char* key = realpath(home, canon) != nullptr ? canon : home;
    uint64_t h = 14695981039346656037ull;  // FNV-1a
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(key); *p != 0; p++) {
        h = (h ^ *p) * 1099511628211ull;
    }
    int n = snprintf(out, static_cast<size_t>(len), "%s%016llx", prefix, static_cast<unsigned long long>(h));
    if (n < 0 || n >= len) {
        out[0] = '\0';
        return SHMRM_ERR_NOTENOUGH;
    }
    return SHMRM_SUCCESS;
}

// Opens name in /dev/shm (dfd) as a table of root's (or the caller's) that no
// one else may write; -1 with errno EPERM for an object that is not.
int open_table_file(int dfd, const char* name, int flags)
{
    int fd = openat(dfd, name + 1, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat sb;
    if (fd >= 0 && (fstat(fd, &sb) != 0 || !zor_trusted_file(&sb))) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

// Maps the table open at fd when it is one of ours of the given version.
int map_table(int fd, int prot, uint32_t version, Table** out)
{
    struct stat sb;
    if (fstat(fd, &sb) != 0) {
        return SHMRM_ERR_SHMCTL;
    }
    if (static_cast<size_t>(sb.st_size) != kTableSize) {
        return SHMRM_ERR_LOADINFO;  // mapping past its end would kill us
    }
    void* p = mmap(nullptr, kTableSize, prot, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        return SHMRM_ERR_SHMAT;
    }
    Header h;
    load_words(&h, p, sizeof(h));
    if (!header_ok(h, version)) {
        munmap(p, kTableSize);
        return SHMRM_ERR_LOADINFO;
    }
    *out = static_cast<Table*>(p);
    return SHMRM_SUCCESS;
}

// A new table, made whole before it gets its name, so that no reader ever
// sees it half made. Every page exists before anything is written: on a full
// /dev/shm a store to a page that cannot be made kills the writer with
// SIGBUS, after its disk work is done.
int make_table(int dfd, const char* name, int* fd_out)
{
    int fd = openat(dfd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
    if (fd < 0 || fchmod(fd, 0644) != 0) {  // readable by all, whatever the umask
        return fd < 0 ? SHMRM_ERR_SHMGET : (close(fd), SHMRM_ERR_SHMGET);
    }
    if (posix_fallocate(fd, 0, static_cast<off_t>(kTableSize)) != 0) {
        close(fd);
        return SHMRM_ERR_NOTENOUGH;
    }
    Header h = {};
    h.magic = kMagic;
    h.version = kVersion;
    h.capacity = kCapacity;
    h.record_size = sizeof(Record);
    if (pwrite(fd, &h, sizeof(h), 0) != static_cast<ssize_t>(sizeof(h))) {
        close(fd);
        return SHMRM_ERR_NOTENOUGH;
    }
    // Without CAP_DAC_READ_SEARCH (root in a user namespace) through /proc.
    char self[64];
    snprintf(self, sizeof(self), "/proc/self/fd/%d", fd);
    if (linkat(fd, "", dfd, name + 1, AT_EMPTY_PATH) != 0 &&
        (errno == EEXIST || linkat(AT_FDCWD, self, dfd, name + 1, AT_SYMLINK_FOLLOW) != 0)) {
        int rc = errno == EEXIST ? SHMRM_ERR_NOTFOUND : SHMRM_ERR_SHMGET;
        close(fd);
        return rc;  // NOTFOUND: another object took the name meanwhile
    }
    *fd_out = fd;
    return SHMRM_SUCCESS;
}

// Takes into t the records of a version 1 table of this node, if there is
// one, and removes it: newer texts win. Under the writers' lock. The old
// table's own writers (agents of the version before, still running) lock it
// for microseconds; no one else can open it.
void merge_old_table(int dfd, Table* t)
{
    char name[64];
    if (table_name(name, sizeof(name), kOldPrefix) != SHMRM_SUCCESS) {
        return;
    }
    int fd = open_table_file(dfd, name, O_RDONLY);
    if (fd < 0) {
        return;  // none, the usual case; or not root's alone, and left as it is
    }
    struct stat sb;
    Table* old = nullptr;
    if (fstat(fd, &sb) != 0 || (sb.st_mode & 077) != 0 || flock_bounded(fd, LOCK_SH) != 0 ||
        map_table(fd, PROT_READ, kOldVersion, &old) != SHMRM_SUCCESS) {
        close(fd);
        return;
    }
    for (uint32_t i = 0; i < table_count(old); i++) {
        Record r;
        if (read_record(old->rec[i], &r) != Copy::kLive) {
            continue;
        }
        r.group[SHMRM_NAME_SIZE - 1] = r.type[SHMRM_NAME_SIZE - 1] = r.resource[SHMRM_NAME_SIZE - 1] = '\0';
        r.slot[0].text[SHMRM_TEXT_SIZE - 1] = '\0';
        const Record* ours = table_find(t, r.group, r.type, r.resource);
        const Slot* s = ours != nullptr ? &ours->slot[ours->seq & 1u] : nullptr;
        if (r.group[0] != '\0' && r.resource[0] != '\0' &&
            (s == nullptr || s->sec < r.slot[0].sec ||
             (s->sec == r.slot[0].sec && s->nsec < r.slot[0].nsec))) {
            table_store(t, r.group, r.type, r.resource, r.slot[0]);
        }
    }
    // Only the object just read: not one that took the name meanwhile.
    struct stat now;
    if (fstatat(dfd, name + 1, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_ino == sb.st_ino &&
        now.st_dev == sb.st_dev) {
        unlinkat(dfd, name + 1, 0);
    }
    munmap(old, kTableSize);
    close(fd);
}

// Opens (or makes) the table for writing, root's and readable by all, with the
// writers' lock of the node. An object under its name that is not root's
// alone to write (made first by a user, writable by others, a link) is never
// used: it is removed to make way for ours.
int open_for_writing(TableState* st, const char* name)
{
    char path[PATH_MAX];
    if (zor_home_path(path, sizeof(path), "run/status.lock") != 0) {
        return SHMRM_ERR_FTOK;
    }
    *strrchr(path, '/') = '\0';
    int rundir = zor_safe_dir(path, 0755);
    st->lock_fd = rundir >= 0 ? zor_safe_open(rundir, "status.lock", O_RDWR | O_CREAT) : -1;
    if (rundir >= 0) {
        close(rundir);
    }
    int dfd = zor_safe_dir("/dev/shm", 0);
    if (st->lock_fd < 0 || dfd < 0) {
        if (dfd >= 0) {
            close(dfd);
        }
        return SHMRM_ERR_SHMGET;
    }
    if (flock_retry(st->lock_fd, LOCK_EX) != 0) {
        close(dfd);
        return SHMRM_ERR_SHMCTL;
    }
    int rc = SHMRM_ERR_SHMGET;
    for (int attempt = 0; attempt < 4 && rc == SHMRM_ERR_SHMGET; attempt++) {
        st->fd = open_table_file(dfd, name, O_RDWR);
        if (st->fd >= 0) {
            rc = map_table(st->fd, PROT_READ | PROT_WRITE, kVersion, &st->map);
            struct stat sb;
            if (rc == SHMRM_SUCCESS && fstat(st->fd, &sb) == 0 && (sb.st_mode & 07777) != 0644) {
                fchmod(st->fd, 0644);
            }
            break;
        }
        if (errno == ENOENT) {
            rc = make_table(dfd, name, &st->fd);
            if (rc == SHMRM_SUCCESS) {
                rc = map_table(st->fd, PROT_READ | PROT_WRITE, kVersion, &st->map);
            }
            rc = rc == SHMRM_ERR_NOTFOUND ? SHMRM_ERR_SHMGET : rc;  // taken meanwhile: again
            continue;
        }
        // Only while it is still the refused object.
        struct stat sb;
        if (fstatat(dfd, name + 1, &sb, AT_SYMLINK_NOFOLLOW) == 0 && !zor_trusted_file(&sb)) {
            unlinkat(dfd, name + 1, S_ISDIR(sb.st_mode) ? AT_REMOVEDIR : 0);
        }
    }
    if (rc == SHMRM_SUCCESS) {
        merge_old_table(dfd, st->map);
    }
    flock_retry(st->lock_fd, LOCK_UN);
    close(dfd);
    return rc;
}

// Opens the table for reading, as any user may: no lock, nothing made. A node
// that has only a version 1 table (upgraded, no action stored since) shows
// that one, to root.
int open_for_reading(TableState* st, const char* name)
{
    int dfd = zor_safe_dir("/dev/shm", 0);
    if (dfd < 0) {
        return SHMRM_ERR_SHMGET;
    }
    st->fd = open_table_file(dfd, name, O_RDONLY);
    char old[64];
    if (st->fd < 0 && errno == ENOENT && table_name(old, sizeof(old), kOldPrefix) == SHMRM_SUCCESS) {
        st->fd = open_table_file(dfd, old, O_RDONLY);
        st->old = true;
    }
    int err = errno;
    close(dfd);
    if (st->fd < 0) {
        return err == ENOENT ? SHMRM_ERR_NOTFOUND : SHMRM_ERR_SHMGET;
    }
    return map_table(st->fd, PROT_READ, st->old ? kOldVersion : kVersion, &st->map);
}

int table_attach(bool write)
{
    MutexGuard guard(&g_tab_mu);
    table_forget_if_forked();
    if (g_tab.refs > 0) {
        if (write && g_tab.lock_fd < 0) {
            return SHMRM_ERR_SHMAT;  // attached to read only: detach first
        }
        g_tab.refs++;
        return SHMRM_SUCCESS;
    }
    char name[64];
    if (table_name(name, sizeof(name), kPrefix) != SHMRM_SUCCESS) {
        return SHMRM_ERR_FTOK;
    }
    int rc = write ? open_for_writing(&g_tab, name) : open_for_reading(&g_tab, name);
    if (rc != SHMRM_SUCCESS) {
        table_close(&g_tab);
        return rc;
    }
    g_tab.refs = 1;
    g_tab.pid = getpid();
    return SHMRM_SUCCESS;
}

// Holds the process mutex for one operation, and the writers' lock to write
// (or, on a version 1 table, its own flock to read).
class TableLock {
public:
    explicit TableLock(bool write) : guard_(&g_tab_mu)
    {
        table_forget_if_forked();
        if (g_tab.refs == 0) {
            rc_ = SHMRM_ERR_NOTINIT;
        } else if (write && g_tab.lock_fd < 0) {
            rc_ = SHMRM_ERR_SHMAT;
        } else if (write || g_tab.old) {
            fd_ = write ? g_tab.lock_fd : g_tab.fd;
            if ((write ? flock_retry(fd_, LOCK_EX) : flock_bounded(fd_, LOCK_SH)) != 0) {
                fd_ = -1;
                rc_ = SHMRM_ERR_SHMCTL;
            }
        }
    }
    ~TableLock()
    {
        if (fd_ >= 0) {
            flock_retry(fd_, LOCK_UN);
        }
    }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;
    int rc() const
    {
        return rc_;
    }

private:
    MutexGuard guard_;
    int rc_ = SHMRM_SUCCESS;
    int fd_ = -1;
};

void fill_record(SHMRM_RECORD* out, const Record& r)
{
    copy_field(out->group, sizeof(out->group), r.group, sizeof(r.group));
    copy_field(out->type, sizeof(out->type), r.type, sizeof(r.type));
    copy_field(out->resource, sizeof(out->resource), r.resource, sizeof(r.resource));
    copy_field(out->text, sizeof(out->text), r.slot[0].text, sizeof(r.slot[0].text));
    out->updated_sec = r.slot[0].sec;
    out->updated_nsec = static_cast<long>(r.slot[0].nsec);
}

// Whether the names are those of a record: group and resource of 1 to 31
// bytes, a type of 0 to 31.
bool names_ok(const char* group, const char* type, const char* resource)
{
    return name_len(group) != 0 && type != nullptr && strnlen(type, SHMRM_NAME_SIZE) < SHMRM_NAME_SIZE &&
           name_len(resource) != 0;
}

}  // namespace

// ------------------------------------------------------------- mount lock API

int sem_attach(void)
{
    MutexGuard guard(&g_lock_mu);
    lock_forget_if_forked();
    if (g_lock.refs > 0) {
        g_lock.refs++;
        return SHMRM_SUCCESS;
    }
    char dir[PATH_MAX];
    if (zor_home_path(dir, sizeof(dir), "run/mount.lock") != 0) {
        return SHMRM_ERR_FTOK;
    }
    *strrchr(dir, '/') = '\0';
    // Root's alone: anyone who could open the file could take the lock (an
    // flock needs only a read) and hold every mount of the node. Close-on-exec:
    // no command inherits the lock; the agent hands it to a watcher of its own
    // for a command that must not outlive the lock.
    int dfd = zor_safe_dir(dir, 0755);
    int fd = dfd >= 0 ? zor_safe_open(dfd, "mount.lock", O_RDWR | O_CREAT) : -1;
    if (dfd >= 0) {
        close(dfd);
    }
    if (fd < 0) {
        return SHMRM_ERR_SHMGET;
    }
    g_lock.fd = fd;
    g_lock.refs = 1;
    g_lock.held = false;
    g_lock.pid = getpid();
    return SHMRM_SUCCESS;
}

int sem_detach(void)
{
    MutexGuard guard(&g_lock_mu);
    lock_forget_if_forked();
    if (g_lock.refs == 0) {
        return SHMRM_ERR_NOTINIT;
    }
    if (--g_lock.refs == 0) {
        // Closing the only descriptor also drops a lock still held.
        close(g_lock.fd);
        g_lock = LockState();
    }
    return SHMRM_SUCCESS;
}

namespace {

// Takes (take) or releases the node's mount lock for this process. Not
// re-entrant: a second flock on our own descriptor would succeed at once and
// hide the caller's error; a release needs the lock held.
int change_mount_lock(bool take)
{
    MutexGuard guard(&g_lock_mu);
    lock_forget_if_forked();
    if (g_lock.refs == 0) {
        return SHMRM_ERR_NOTINIT;
    }
    if (g_lock.held == take) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    if (flock_retry(g_lock.fd, take ? LOCK_EX : LOCK_UN) != 0) {
        return SHMRM_ERR_SHMCTL;
    }
    g_lock.held = take;
    return SHMRM_SUCCESS;
}

}  // namespace

int sem_entercrit_mount(void)
{
    return change_mount_lock(true);
}

int sem_leavecrit_mount(void)
{
    return change_mount_lock(false);
}

int sem_mount_lock_fd(void)
{
    MutexGuard guard(&g_lock_mu);
    lock_forget_if_forked();
    return g_lock.refs > 0 && g_lock.held ? g_lock.fd : -1;
}

// ----------------------------------------------------------- status table API

int shmrm_tablename(char* out, int len)
{
    return table_name(out, len, kPrefix);
}

int shmrm_attach(void)
{
    return table_attach(true);
}

int shmrm_attach_read(void)
{
    return table_attach(false);
}

int shmrm_detach(void)
{
    MutexGuard guard(&g_tab_mu);
    table_forget_if_forked();
    if (g_tab.refs == 0) {
        return SHMRM_ERR_NOTINIT;
    }
    if (--g_tab.refs == 0) {
        table_close(&g_tab);
    }
    return SHMRM_SUCCESS;
}

int shmrm_setdescript(const char* group, const char* type, const char* resource, const char* text, int len)
{
    if (!names_ok(group, type, resource) || text == nullptr || len <= 0) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    // The caller's buffer holds len bytes; its text ends at the first NUL
    // inside them, and the table keeps at most 127 characters of it.
    size_t limit = static_cast<size_t>(len) < SHMRM_TEXT_SIZE ? static_cast<size_t>(len) : SHMRM_TEXT_SIZE;
    size_t textlen = strnlen(text, limit);
    if (textlen >= SHMRM_TEXT_SIZE) {
        textlen = SHMRM_TEXT_SIZE - 1;
    }
    Slot s = {};
    memcpy(s.text, text, textlen);
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    s.sec = now.tv_sec;
    s.nsec = now.tv_nsec;

    TableLock lock(true);
    return lock.rc() != SHMRM_SUCCESS ? lock.rc() : table_store(g_tab.map, group, type, resource, s);
}

int shmrm_getdescript(const char* group, const char* type, const char* resource, char* text, int len)
{
    if (!names_ok(group, type, resource) || text == nullptr || len <= 0) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    TableLock lock(false);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    uint32_t n = table_count(g_tab.map);
    for (uint32_t i = 0; i < n; i++) {
        Record r;
        Copy c = read_record(g_tab.map->rec[i], &r);
        if (c == Copy::kBusy) {
            return SHMRM_ERR_BUSY;
        }
        if (c == Copy::kLive && same_names(r, group, type, resource)) {
            SHMRM_RECORD rec;
            fill_record(&rec, r);
            copy_field(text, static_cast<size_t>(len), rec.text, sizeof(rec.text));
            return strlen(rec.text) < static_cast<size_t>(len) ? SHMRM_SUCCESS : SHMRM_ERR_NOTENOUGH;
        }
    }
    return SHMRM_ERR_NOTFOUND;
}

int shmrm_list(SHMRM_RECORD* out, int max, int* count)
{
    if (out == nullptr || max <= 0 || count == nullptr) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    *count = 0;
    TableLock lock(false);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    uint32_t n = table_count(g_tab.map);
    int copied = 0;
    for (uint32_t i = 0; i < n; i++) {
        Record r;
        Copy c = read_record(g_tab.map->rec[i], &r);
        if (c == Copy::kBusy) {
            return SHMRM_ERR_BUSY;
        }
        if (c == Copy::kRemoved) {
            continue;
        }
        if (copied == max) {
            return SHMRM_ERR_NOTENOUGH;
        }
        fill_record(&out[copied++], r);
        *count = copied;
    }
    return SHMRM_SUCCESS;
}

int shmrm_remove(const char* group, const char* type, const char* resource)
{
    if (!names_ok(group, type, resource)) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    TableLock lock(true);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    Record* r = table_find(g_tab.map, group, type, resource);
    if (r == nullptr) {
        return SHMRM_ERR_NOTFOUND;
    }
    __atomic_store_n(&r->removed, 1u, __ATOMIC_RELEASE);
    return SHMRM_SUCCESS;
}
