// The registry: one file per value, $ZOR_HOME/var/registry/TYPE/RSCNAME/KEY.
//
// A write goes to a temporary file in the same directory, is synced, renamed
// over the value and the directory is synced: readers and a crash see the old
// value or the new one. Concurrent writers each have their own temporary
// file, so the last rename wins and nothing is mixed.
//
// A value file is a 16-byte header followed by the value:
//   0  magic "ZRG1"
//   4  version (1), value type (1 int, 2 string), two zero bytes
//   8  length of the value in bytes (uint32, native order: the files never
//      leave the node)
//   12 CRC-32 of the header's first 12 bytes and the value
// An int is stored as its 4 bytes; a string without its NUL.
#include "zorreg.h"

#include "zorhome.h"
#include "zorsafe.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kNameMax = 256;  // names are shorter than this
constexpr size_t kHeaderSize = 16;
constexpr size_t kValueMax = 65536;  // the largest string value kept
constexpr unsigned char kMagic[4] = {'Z', 'R', 'G', '1'};
constexpr unsigned char kVersion = 1;
constexpr char kTmpPrefix[] = ".tmp.";  // temporaries of writers; never a name
// A writer holds its temporary for the time of one write and sync; one older
// than this was left by a writer that died.
constexpr time_t kStaleTmpSeconds = 60;

uint32_t crc32_update(uint32_t crc, const unsigned char* p, size_t n)
{
    crc = ~crc;
    for (size_t i = 0; i < n; i++) {
        crc ^= p[i];
        for (int k = 0; k < 8; k++) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

bool valid_name(const char* s)
{
    if (s == nullptr) {
        return false;
    }
    size_t n = strnlen(s, kNameMax);
    if (n == 0 || n >= kNameMax || memchr(s, '/', n) != nullptr) {
        return false;
    }
    if (strcmp(s, ".") == 0 || strcmp(s, "..") == 0) {
        return false;
    }
    return strncmp(s, kTmpPrefix, sizeof(kTmpPrefix) - 1) != 0;
}

// ------------------------------------------------------- initialised types

constexpr int kMaxTypes = 32;

struct TypeEntry {
    char name[kNameMax];
    int refs;
};

pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;
TypeEntry g_types[kMaxTypes];

// Index of type in g_types, or -1. Called with g_mu held.
int find_type(const char* type)
{
    for (int i = 0; i < kMaxTypes; i++) {
        if (g_types[i].refs > 0 && strcmp(g_types[i].name, type) == 0) {
            return i;
        }
    }
    return -1;
}

bool type_ready(const char* type)
{
    pthread_mutex_lock(&g_mu);
    bool ok = find_type(type) >= 0;
    pthread_mutex_unlock(&g_mu);
    return ok;
}

// ---------------------------------------------------------------- file I/O

// "$ZOR_HOME/var/registry/TYPE[/RSCNAME]" into out (PATH_MAX bytes).
bool reg_path(char* out, const char* type, const char* rscname)
{
    char base[PATH_MAX];
    if (zor_home_path(base, sizeof(base), "var/registry") != 0) {
        return false;
    }
    int n = rscname == nullptr ? snprintf(out, PATH_MAX, "%s/%s", base, type)
                               : snprintf(out, PATH_MAX, "%s/%s/%s", base, type, rscname);
    return n > 0 && n < PATH_MAX;
}

bool write_all(int fd, const unsigned char* p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// The registry's directories, opened by zor_safe_dir (O_PATH).
bool fsync_dir(int dirfd)
{
    int fd = openat(dirfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

// A descriptor that closes itself.
struct Fd {
    explicit Fd(int f) : fd(f) {}
    ~Fd()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int fd;
};

// The error of a failed zor_safe_dir or zor_safe_open.
int open_error()
{
    return errno == EPERM ? REG_ERR_UNSAFE : REG_ERR_IO;
}

// Removes the temporaries that writers killed between their create and
// rename left in dir, so that they never pile up. Best effort.
void sweep_stale(int dir)
{
    int fd = openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* d = fd >= 0 ? fdopendir(fd) : nullptr;
    if (d == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    time_t now = time(nullptr);
    struct dirent* ent;
    while ((ent = readdir(d)) != nullptr) {
        if (strncmp(ent->d_name, kTmpPrefix, sizeof(kTmpPrefix) - 1) != 0) {
            continue;
        }
        struct stat sb;
        if (fstatat(dirfd(d), ent->d_name, &sb, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(sb.st_mode) &&
            now - sb.st_mtime > kStaleTmpSeconds) {
            unlinkat(dirfd(d), ent->d_name, 0);
        }
    }
    closedir(d);
}

// Fills the header of a value of `len` bytes at buf (header + value).
void seal(unsigned char* buf, int valtype, size_t len)
{
    memcpy(buf, kMagic, 4);
    buf[4] = kVersion;
    buf[5] = static_cast<unsigned char>(valtype);
    buf[6] = 0;
    buf[7] = 0;
    uint32_t len32 = static_cast<uint32_t>(len);
    memcpy(buf + 8, &len32, 4);
    uint32_t crc = crc32_update(0, buf, 12);
    crc = crc32_update(crc, buf + kHeaderSize, len);
    memcpy(buf + 12, &crc, 4);
}

// Reads the value file key of the directory dir into buf (kHeaderSize +
// kValueMax bytes). Returns REG_SUCCESS with *len the value's length and
// *stored its type, or the error. *absent is set when the value was never
// written.
int load(const char* dir, const char* key, unsigned char* buf, size_t* len, int* stored, bool* absent)
{
    *absent = false;
    Fd dfd(zor_safe_dir(dir, 0));
    int fd = dfd.fd >= 0 ? zor_safe_open(dfd.fd, key, O_RDONLY) : -1;
    if (fd < 0) {
        if (errno == ENOENT) {
            *absent = true;
            return REG_SUCCESS;
        }
        return open_error();
    }
    size_t cap = kHeaderSize + kValueMax;
    size_t got = 0;
    int rc = REG_SUCCESS;
    // One byte more than the largest valid file, to notice an overlong one.
    unsigned char extra;
    for (;;) {
        unsigned char* dst = got < cap ? buf + got : &extra;
        size_t want = got < cap ? cap - got : 1;
        ssize_t r = read(fd, dst, want);
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            rc = REG_ERR_IO;
            break;
        }
        if (r == 0) {
            break;
        }
        got += static_cast<size_t>(r);
        if (got > cap) {
            rc = REG_ERR_CORRUPT;
            break;
        }
    }
    close(fd);
    if (rc != REG_SUCCESS) {
        return rc;
    }
    if (got < kHeaderSize || memcmp(buf, kMagic, 4) != 0 || buf[4] != kVersion) {
        return REG_ERR_CORRUPT;
    }
    uint32_t len32;
    uint32_t crc;
    memcpy(&len32, buf + 8, 4);
    memcpy(&crc, buf + 12, 4);
    if (len32 != got - kHeaderSize) {
        return REG_ERR_CORRUPT;
    }
    uint32_t want = crc32_update(crc32_update(0, buf, 12), buf + kHeaderSize, len32);
    if (want != crc) {
        return REG_ERR_CORRUPT;
    }
    *stored = buf[5];
    *len = len32;
    if (*stored == REG_TYPE_INT) {
        return *len == sizeof(int) ? REG_SUCCESS : REG_ERR_CORRUPT;
    }
    if (*stored == REG_TYPE_STRING) {
        return memchr(buf + kHeaderSize, '\0', *len) == nullptr ? REG_SUCCESS : REG_ERR_CORRUPT;
    }
    return REG_ERR_CORRUPT;
}

// A heap buffer: values may be up to 64 KiB, too much for the stack of a
// worker thread.
struct Buffer {
    explicit Buffer(size_t n) : p(static_cast<unsigned char*>(malloc(n))) {}
    ~Buffer()
    {
        free(p);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    unsigned char* p;
};

bool size_ok(int valtype, int size)
{
    if (valtype == REG_TYPE_INT) {
        return size >= static_cast<int>(sizeof(int));
    }
    if (valtype == REG_TYPE_STRING) {
        return size > 0;
    }
    return false;
}

}  // namespace

int reg_init(const char* type)
{
    if (!valid_name(type)) {
        return REG_ERR_INVALIDPARAM;
    }
    // The type's directory is made here, so that a registry that cannot be
    // used is reported at once rather than at the first write.
    char dir[PATH_MAX];
    if (!reg_path(dir, type, nullptr)) {
        return REG_ERR_INVALIDPARAM;
    }
    Fd dfd(zor_safe_dir(dir, 0755));
    if (dfd.fd < 0) {
        return open_error();
    }
    pthread_mutex_lock(&g_mu);
    int rc = REG_SUCCESS;
    int i = find_type(type);
    if (i < 0) {
        for (i = 0; i < kMaxTypes && g_types[i].refs > 0; i++) {
        }
        if (i < kMaxTypes) {
            strcpy(g_types[i].name, type);  // length checked by valid_name
        } else {
            rc = REG_ERR_NOTENOUGH;
        }
    }
    if (rc == REG_SUCCESS) {
        g_types[i].refs++;
    }
    pthread_mutex_unlock(&g_mu);
    return rc;
}

int reg_term(const char* type)
{
    if (!valid_name(type)) {
        return REG_ERR_INVALIDPARAM;
    }
    pthread_mutex_lock(&g_mu);
    int i = find_type(type);
    if (i >= 0) {
        g_types[i].refs--;
    }
    pthread_mutex_unlock(&g_mu);
    return i >= 0 ? REG_SUCCESS : REG_ERR_NOTINIT;
}

int reg_get_value(const char* type, const char* rscname, const char* key, int valtype, int size, void* value)
{
    if (!valid_name(type) || !valid_name(rscname) || !valid_name(key) || !size_ok(valtype, size) ||
        value == nullptr) {
        return REG_ERR_INVALIDPARAM;
    }
    if (!type_ready(type)) {
        return REG_ERR_NOTINIT;
    }
    char dir[PATH_MAX];
    if (!reg_path(dir, type, rscname)) {
        return REG_ERR_INVALIDPARAM;
    }
    Buffer buf(kHeaderSize + kValueMax);
    if (buf.p == nullptr) {
        return REG_ERR_IO;
    }
    size_t len = 0;
    int stored = 0;
    bool absent = false;
    int rc = load(dir, key, buf.p, &len, &stored, &absent);
    if (rc != REG_SUCCESS) {
        return rc;
    }
    if (absent) {
        // Never written: a new resource starts from nothing.
        if (valtype == REG_TYPE_INT) {
            int zero = 0;
            memcpy(value, &zero, sizeof(zero));
        } else {
            static_cast<char*>(value)[0] = '\0';
        }
        return REG_SUCCESS;
    }
    if (stored != valtype) {
        return REG_ERR_TYPE;
    }
    if (valtype == REG_TYPE_INT) {
        memcpy(value, buf.p + kHeaderSize, sizeof(int));
        return REG_SUCCESS;
    }
    char* out = static_cast<char*>(value);
    if (len >= static_cast<size_t>(size)) {
        out[0] = '\0';  // no cut value that a caller might take for the real one
        return REG_ERR_NOTENOUGH;
    }
    memcpy(out, buf.p + kHeaderSize, len);
    out[len] = '\0';
    return REG_SUCCESS;
}

int reg_set_value(const char* type, const char* rscname, const char* key, int valtype, int size,
                  const void* value, int flag)
{
    if (!valid_name(type) || !valid_name(rscname) || !valid_name(key) || !size_ok(valtype, size) ||
        value == nullptr || (flag != 0 && flag != REG_FLAG_BOOT)) {
        return REG_ERR_INVALIDPARAM;
    }
    // A string ends at its NUL or at the end of the caller's buffer.
    size_t len = valtype == REG_TYPE_INT
                     ? sizeof(int)
                     : strnlen(static_cast<const char*>(value), static_cast<size_t>(size));
    if (len > kValueMax) {
        return REG_ERR_INVALIDPARAM;
    }
    if (!type_ready(type)) {
        return REG_ERR_NOTINIT;
    }
    char typedir[PATH_MAX];
    char dir[PATH_MAX];
    if (!reg_path(typedir, type, nullptr) || !reg_path(dir, type, rscname)) {
        return REG_ERR_INVALIDPARAM;
    }
    Fd tdfd(zor_safe_dir(typedir, 0755));
    if (tdfd.fd < 0) {
        return open_error();
    }
    bool new_dir = mkdirat(tdfd.fd, rscname, 0755) == 0;
    Fd dfd(zor_safe_dir(dir, 0));
    if (dfd.fd < 0) {
        return open_error();
    }
    const bool sync = flag != REG_FLAG_BOOT;
    if (sync && new_dir && !fsync_dir(tdfd.fd)) {
        return REG_ERR_IO;
    }

    Buffer buf(kHeaderSize + len);
    if (buf.p == nullptr) {
        return REG_ERR_IO;
    }
    memcpy(buf.p + kHeaderSize, value, len);
    seal(buf.p, valtype, len);

    char tmp[sizeof(kTmpPrefix) + 16];
    int fd = -1;
    for (int attempt = 0; attempt < 16 && fd < 0; attempt++) {
        unsigned long r = 0;
        if (getrandom(&r, sizeof(r), 0) != static_cast<ssize_t>(sizeof(r))) {
            r = static_cast<unsigned long>(getpid()) * 2654435761u + static_cast<unsigned long>(attempt);
        }
        snprintf(tmp, sizeof(tmp), "%s%012lx", kTmpPrefix, r & 0xffffffffffffUL);
        fd = zor_safe_open(dfd.fd, tmp, O_WRONLY | O_CREAT | O_EXCL);
        if (fd < 0 && errno != EEXIST) {
            return REG_ERR_IO;
        }
    }
    if (fd < 0) {
        return REG_ERR_IO;
    }
    bool ok = write_all(fd, buf.p, kHeaderSize + len) && (!sync || fsync(fd) == 0);
    ok = close(fd) == 0 && ok;
    // Renamed over whatever holds the value's name: also a file that was
    // refused because it is not root's alone.
    if (!ok || renameat(dfd.fd, tmp, dfd.fd, key) != 0) {
        unlinkat(dfd.fd, tmp, 0);
        return REG_ERR_IO;
    }
    sweep_stale(dfd.fd);
    // The rename is durable only once the directory is on disk.
    return !sync || fsync_dir(dfd.fd) ? REG_SUCCESS : REG_ERR_IO;
}

int reg_delete_value(const char* type, const char* rscname, const char* key, int flag)
{
    if (!valid_name(type) || !valid_name(rscname) || !valid_name(key) ||
        (flag != 0 && flag != REG_FLAG_BOOT)) {
        return REG_ERR_INVALIDPARAM;
    }
    if (!type_ready(type)) {
        return REG_ERR_NOTINIT;
    }
    char dir[PATH_MAX];
    if (!reg_path(dir, type, rscname)) {
        return REG_ERR_INVALIDPARAM;
    }
    Fd dfd(zor_safe_dir(dir, 0));
    if (dfd.fd < 0) {
        return errno == ENOENT ? REG_SUCCESS : open_error();
    }
    if (unlinkat(dfd.fd, key, 0) != 0) {
        return errno == ENOENT ? REG_SUCCESS : REG_ERR_IO;
    }
    return flag == REG_FLAG_BOOT || fsync_dir(dfd.fd) ? REG_SUCCESS : REG_ERR_IO;
}
