// The node-wide mount lock and the shared-memory status table.
//
// Both rely on flock(2): the kernel drops the lock of a process that dies,
// even by SIGKILL, so a crashed agent can never leave a stale lock behind and
// block a failover. flock locks belong to an open file description, which a
// fork shares; so each process opens its own descriptors (see forget_if_forked)
// and a process-local mutex keeps threads of one process apart.
#include "zoripc.h"

#include "zorhome.h"

#include <fcntl.h>
#include <pthread.h>
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

constexpr uint32_t kMagic = 0x5a535431;  // "ZST1"
constexpr uint32_t kVersion = 1;
constexpr uint32_t kCapacity = 1024;

// The text is kept twice; an update writes the slot not in use and then
// switches `cur`, so a writer killed half-way leaves the previous text whole.
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
    uint32_t cur;
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

struct TableState {
    int fd = -1;
    Table* map = nullptr;  // null when the object exists but is still empty (read-only attach)
    bool writable = false;
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
    *st = TableState();
}

void table_forget_if_forked()
{
    if (g_tab.refs > 0 && g_tab.pid != getpid()) {
        table_close(&g_tab);
    }
}

bool all_zero(const void* p, size_t n)
{
    const unsigned char* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; i++) {
        if (b[i] != 0) {
            return false;
        }
    }
    return true;
}

bool header_ok(const Header& h)
{
    return h.magic == kMagic && h.version == kVersion && h.capacity == kCapacity &&
           h.record_size == sizeof(Record) && h.count <= kCapacity;
}

// Checks (and, when it is still blank, initialises) the mapped table. Called
// under the table's flock. Returns SHMRM_SUCCESS, or SHMRM_ERR_LOADINFO for a
// table that holds something other than ours.
int table_validate(TableState* st)
{
    if (st->map == nullptr || header_ok(st->map->hdr)) {
        return SHMRM_SUCCESS;
    }
    if (!all_zero(st->map, kTableSize)) {
        return SHMRM_ERR_LOADINFO;
    }
    if (st->writable) {
        st->map->hdr.magic = kMagic;
        st->map->hdr.version = kVersion;
        st->map->hdr.capacity = kCapacity;
        st->map->hdr.record_size = sizeof(Record);
        st->map->hdr.count = 0;
    }
    return SHMRM_SUCCESS;
}

// Number of records a reader may look at (0 for a blank, read-only table).
uint32_t table_count(const TableState* st)
{
    if (st->map == nullptr || !header_ok(st->map->hdr)) {
        return 0;
    }
    return __atomic_load_n(&st->map->hdr.count, __ATOMIC_ACQUIRE);
}

bool is_removed(const Record& r)
{
    return __atomic_load_n(&r.removed, __ATOMIC_ACQUIRE) != 0;
}

Record* table_find(TableState* st, const char* group, const char* type, const char* resource)
{
    uint32_t n = table_count(st);
    for (uint32_t i = 0; i < n; i++) {
        Record* r = &st->map->rec[i];
        if (is_removed(*r)) {
            continue;
        }
        if (strncmp(r->group, group, SHMRM_NAME_SIZE) == 0 && strncmp(r->type, type, SHMRM_NAME_SIZE) == 0 &&
            strncmp(r->resource, resource, SHMRM_NAME_SIZE) == 0) {
            return r;
        }
    }
    return nullptr;
}

// Opens (creating when absent) the table of this node and maps it.
int table_open(TableState* st)
{
    char name[64];
    if (shmrm_tablename(name, sizeof(name)) != SHMRM_SUCCESS) {
        return SHMRM_ERR_FTOK;
    }
    int fd = -1;
    bool writable = true;
    for (int attempt = 0; attempt < 3 && fd < 0; attempt++) {
        fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
        if (fd >= 0) {
            break;
        }
        if (errno == EACCES) {
            // An operator without write access can still read the table.
            fd = shm_open(name, O_RDONLY | O_CLOEXEC, 0);
            writable = false;
            break;
        }
        if (errno != ENOENT) {
            break;
        }
        // O_EXCL: when two processes race to create it, one creates and the
        // other goes round again and opens the winner's table.
        fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) {
            fchmod(fd, 0644);  // whatever the umask: operators may read it
        } else if (errno != EEXIST) {
            break;
        }
    }
    if (fd < 0) {
        return SHMRM_ERR_SHMGET;
    }

    // Exclusive while the table may still need its size and header, so that
    // a second process never sees it half made.
    if (flock_retry(fd, writable ? LOCK_EX : LOCK_SH) != 0) {
        close(fd);
        return SHMRM_ERR_SHMCTL;
    }
    int rc = SHMRM_SUCCESS;
    struct stat sb;
    if (fstat(fd, &sb) != 0) {
        rc = SHMRM_ERR_SHMCTL;
    } else if (static_cast<size_t>(sb.st_size) != kTableSize) {
        // Another size: only a blank object (a creator that died before
        // setting it up) may be taken over.
        size_t have = static_cast<size_t>(sb.st_size);
        if (have > 0) {
            void* p = mmap(nullptr, have, PROT_READ, MAP_SHARED, fd, 0);
            if (p == MAP_FAILED) {
                rc = SHMRM_ERR_SHMAT;
            } else {
                if (!all_zero(p, have)) {
                    rc = SHMRM_ERR_LOADINFO;
                }
                munmap(p, have);
            }
        }
        if (rc == SHMRM_SUCCESS && writable && ftruncate(fd, static_cast<off_t>(kTableSize)) != 0) {
            rc = SHMRM_ERR_SHMCTL;
        }
    }
    Table* map = nullptr;
    if (rc == SHMRM_SUCCESS && (writable || static_cast<size_t>(sb.st_size) == kTableSize)) {
        void* p = mmap(nullptr, kTableSize, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
        if (p == MAP_FAILED) {
            rc = SHMRM_ERR_SHMAT;
        } else {
            map = static_cast<Table*>(p);
        }
    }
    if (rc == SHMRM_SUCCESS) {
        st->fd = fd;
        st->map = map;
        st->writable = writable;
        rc = table_validate(st);
    }
    flock_retry(fd, LOCK_UN);
    if (rc != SHMRM_SUCCESS) {
        if (map != nullptr) {
            munmap(map, kTableSize);
        }
        close(fd);
        *st = TableState();
    }
    return rc;
}

// Holds the process mutex and the table's flock for one operation.
class TableLock {
public:
    explicit TableLock(int op) : guard_(&g_tab_mu)
    {
        table_forget_if_forked();
        if (g_tab.refs == 0) {
            rc_ = SHMRM_ERR_NOTINIT;
        } else if (flock_retry(g_tab.fd, op) != 0) {
            rc_ = SHMRM_ERR_SHMCTL;
        } else {
            locked_ = true;
            rc_ = table_validate(&g_tab);
        }
    }
    ~TableLock()
    {
        if (locked_) {
            flock_retry(g_tab.fd, LOCK_UN);
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
    bool locked_ = false;
};

void fill_record(SHMRM_RECORD* out, const Record& r)
{
    const Slot& s = r.slot[__atomic_load_n(&r.cur, __ATOMIC_ACQUIRE) & 1u];
    copy_field(out->group, sizeof(out->group), r.group, sizeof(r.group));
    copy_field(out->type, sizeof(out->type), r.type, sizeof(r.type));
    copy_field(out->resource, sizeof(out->resource), r.resource, sizeof(r.resource));
    copy_field(out->text, sizeof(out->text), s.text, sizeof(s.text));
    out->updated_sec = s.sec;
    out->updated_nsec = static_cast<long>(s.nsec);
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
    char path[PATH_MAX];
    if (zor_home_path(dir, sizeof(dir), "run") != 0 ||
        zor_home_path(path, sizeof(path), "run/mount.lock") != 0) {
        return SHMRM_ERR_FTOK;
    }
    if (zor_mkdirs(dir, 0755) != 0) {
        return SHMRM_ERR_SHMGET;
    }
    // O_CLOEXEC: no command inherits the lock. The agent hands it to a
    // keeper of its own for a command that must not outlive the lock.
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
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
    int n =
        snprintf(out, static_cast<size_t>(len), "/zor-status-%016llx", static_cast<unsigned long long>(h));
    if (n < 0 || n >= len) {
        out[0] = '\0';
        return SHMRM_ERR_NOTENOUGH;
    }
    return SHMRM_SUCCESS;
}

int shmrm_attach(void)
{
    MutexGuard guard(&g_tab_mu);
    table_forget_if_forked();
    if (g_tab.refs > 0) {
        g_tab.refs++;
        return SHMRM_SUCCESS;
    }
    int rc = table_open(&g_tab);
    if (rc == SHMRM_SUCCESS) {
        g_tab.refs = 1;
        g_tab.pid = getpid();
    }
    return rc;
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
    size_t glen = name_len(group);
    size_t rlen = name_len(resource);
    // An empty type is allowed: an agent started under an unknown name has
    // none, and its refusal must still reach the operator.
    bool type_ok = type != nullptr && strnlen(type, SHMRM_NAME_SIZE) < SHMRM_NAME_SIZE;
    size_t tlen = type_ok ? strlen(type) : 0;
    if (glen == 0 || !type_ok || rlen == 0 || text == nullptr || len <= 0) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    // The caller's buffer holds len bytes; its text ends at the first NUL
    // inside them, and the table keeps at most 127 characters of it.
    size_t limit = static_cast<size_t>(len) < SHMRM_TEXT_SIZE ? static_cast<size_t>(len) : SHMRM_TEXT_SIZE;
    size_t textlen = strnlen(text, limit);
    if (textlen >= SHMRM_TEXT_SIZE) {
        textlen = SHMRM_TEXT_SIZE - 1;
    }
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);

    TableLock lock(LOCK_EX);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    if (!g_tab.writable || g_tab.map == nullptr) {
        return SHMRM_ERR_SHMAT;
    }
    Table* t = g_tab.map;
    Record* r = table_find(&g_tab, group, type, resource);
    bool fresh = r == nullptr;
    bool reuse = false;
    uint32_t use;
    if (fresh) {
        // The place of a removed record first, then a new one.
        uint32_t n = t->hdr.count;
        for (uint32_t i = 0; i < n && !reuse; i++) {
            if (is_removed(t->rec[i])) {
                r = &t->rec[i];
                reuse = true;
            }
        }
        if (!reuse && n >= kCapacity) {
            return SHMRM_ERR_MAXRSC;
        }
        // Filled completely before the count (or the cleared flag) makes it
        // visible, so a writer killed here leaves no half-made record.
        r = reuse ? r : &t->rec[n];
        memset(r, 0, offsetof(Record, removed));
        memset(r->slot, 0, sizeof(r->slot));
        memcpy(r->group, group, glen);
        memcpy(r->type, type, tlen);
        memcpy(r->resource, resource, rlen);
        use = 0;
    } else {
        use = (r->cur & 1u) ^ 1u;
    }
    Slot* s = &r->slot[use];
    memset(s->text, 0, sizeof(s->text));
    memcpy(s->text, text, textlen);
    s->sec = now.tv_sec;
    s->nsec = now.tv_nsec;
    __atomic_store_n(&r->cur, use, __ATOMIC_RELEASE);
    if (reuse) {
        __atomic_store_n(&r->removed, 0u, __ATOMIC_RELEASE);
    } else if (fresh) {
        r->removed = 0;
        __atomic_store_n(&t->hdr.count, t->hdr.count + 1, __ATOMIC_RELEASE);
    }
    return SHMRM_SUCCESS;
}

int shmrm_getdescript(const char* group, const char* type, const char* resource, char* text, int len)
{
    if (name_len(group) == 0 || type == nullptr || strnlen(type, SHMRM_NAME_SIZE) >= SHMRM_NAME_SIZE ||
        name_len(resource) == 0 || text == nullptr || len <= 0) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    TableLock lock(LOCK_SH);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    Record* r = table_find(&g_tab, group, type, resource);
    if (r == nullptr) {
        return SHMRM_ERR_NOTFOUND;
    }
    SHMRM_RECORD rec;
    fill_record(&rec, *r);
    copy_field(text, static_cast<size_t>(len), rec.text, sizeof(rec.text));
    return strlen(rec.text) < static_cast<size_t>(len) ? SHMRM_SUCCESS : SHMRM_ERR_NOTENOUGH;
}

int shmrm_list(SHMRM_RECORD* out, int max, int* count)
{
    if (out == nullptr || max <= 0 || count == nullptr) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    *count = 0;
    TableLock lock(LOCK_SH);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    uint32_t n = table_count(&g_tab);
    int copied = 0;
    bool more = false;
    for (uint32_t i = 0; i < n; i++) {
        if (is_removed(g_tab.map->rec[i])) {
            continue;
        }
        if (copied == max) {
            more = true;
            break;
        }
        fill_record(&out[copied++], g_tab.map->rec[i]);
    }
    *count = copied;
    return more ? SHMRM_ERR_NOTENOUGH : SHMRM_SUCCESS;
}

int shmrm_remove(const char* group, const char* type, const char* resource)
{
    if (name_len(group) == 0 || type == nullptr || strnlen(type, SHMRM_NAME_SIZE) >= SHMRM_NAME_SIZE ||
        name_len(resource) == 0) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    TableLock lock(LOCK_EX);
    if (lock.rc() != SHMRM_SUCCESS) {
        return lock.rc();
    }
    if (!g_tab.writable || g_tab.map == nullptr) {
        return SHMRM_ERR_SHMAT;
    }
    Record* r = table_find(&g_tab, group, type, resource);
    if (r == nullptr) {
        return SHMRM_ERR_NOTFOUND;
    }
    __atomic_store_n(&r->removed, 1u, __ATOMIC_RELEASE);
    return SHMRM_SUCCESS;
}
