// The write check of the deepest monitor (see write_check.h).
//
// It runs as root in a mount whose root its users may write (a shared data
// disk, a 1777 share), so nothing it opens may be of their choosing:
// everything is reached from a descriptor of the mount's root, one level
// down, without following a link, in a directory that only root may write.
// A file outside the mount cannot be reached, a link planted in the root is
// never followed, and a hard link to a file elsewhere in the mount is refused.
#include "write_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#ifndef STATX_ATTR_MOUNT_ROOT
#define STATX_ATTR_MOUNT_ROOT 0x00002000
#endif

namespace {

// A line built without printf, which is not async-signal-safe.
struct Line {
    char buf[512];
    size_t len;

    Line& add(const char* s)
    {
        while (*s != '\0' && len + 1 < sizeof(buf)) {
            buf[len++] = *s++;
        }
        buf[len] = '\0';
        return *this;
    }
    Line& add(long v)
    {
        char digits[24];
        int n = 0;
        unsigned long u = v < 0 ? 0UL - static_cast<unsigned long>(v) : static_cast<unsigned long>(v);
        do {
            digits[n++] = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u != 0);
        if (v < 0) {
            add("-");
        }
        while (n > 0) {
            const char one[2] = {digits[--n], '\0'};
            add(one);
        }
        return *this;
    }
};

int failed(const char* what, int err)
{
    Line l{};
    l.add("write check: ").add(what).add(" failed. (errno=").add(static_cast<long>(err)).add(")\n");
    (void)!write(1, l.buf, l.len);
    return 1;
}

// The check's directory, as only root can have made it: a directory of the
// mount (not one mounted on it), private, and root's; or, on a file system
// that shows root's files as another user's (NFS root squash, sshfs), made by
// this very check.
bool ours(int dfd, dev_t dev, bool made)
{
    struct stat st;
    return fstat(dfd, &st) == 0 && S_ISDIR(st.st_mode) && st.st_dev == dev && (st.st_mode & 077) == 0 &&
           (st.st_uid == 0 || made);
}

// Opens the check's directory, making it when absent; one that is not ours
// (left by a user, a link, an old check file) is removed and made again.
int open_dir(int root, dev_t dev, const char* file)
{
    for (int round = 0; round < 2; round++) {
        const bool made = mkdirat(root, MON_CHECK_DIR, 0700) == 0;
        int dfd = openat(root, MON_CHECK_DIR, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (dfd >= 0 && ours(dfd, dev, made)) {
            return dfd;
        }
        // What was made a moment ago and is not ours now was swapped: give up.
        if (made) {
            if (dfd >= 0) {
                close(dfd);
            }
            break;
        }
        // Removal never follows a link: only the name in the root goes.
        if (dfd >= 0) {
            unlinkat(dfd, file, 0);
            close(dfd);
            unlinkat(root, MON_CHECK_DIR, AT_REMOVEDIR);
        } else {
            unlinkat(root, MON_CHECK_DIR, 0);
        }
    }
    errno = EPERM;
    return -1;
}

}  // namespace

int monitor_write_check(const char* point)
{
    int root = open(point, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) {
        return failed("open(mount point)", errno);
    }
    struct statx sx;
    if (statx(root, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &sx) != 0) {
        return failed("statx(mount point)", errno);
    }
    if ((sx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 &&
        (sx.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0) {
        return failed("mount point as the root of a mount", ENOTDIR);
    }
    const dev_t dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);

    // One file per node: nodes that share a file server do not race for it.
    struct utsname un;
    char host[sizeof(un.nodename)] = "node";
    if (uname(&un) == 0 && un.nodename[0] != '\0' && un.nodename[0] != '.') {
        size_t n = 0;
        for (; un.nodename[n] != '\0' && un.nodename[n] != '.' && n + 1 < sizeof(host); n++) {
            host[n] = un.nodename[n] == '/' ? '_' : un.nodename[n];
        }
        host[n] = '\0';
    }
    int dfd = open_dir(root, dev, host);
    if (dfd < 0) {
        return failed("open(" MON_CHECK_DIR ")", errno);
    }
    struct stat dir;
    struct stat st;
    if (fstat(dfd, &dir) != 0) {
        return failed("fstat(" MON_CHECK_DIR ")", errno);
    }
    // No one else can put a name in the directory; a file of a crashed check
    // is replaced all the same when it is anything but a plain file.
    if (fstatat(dfd, host, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        (!S_ISREG(st.st_mode) || st.st_nlink != 1 || st.st_uid != dir.st_uid)) {
        unlinkat(dfd, host, 0);
    }
    int fd = openat(dfd, host, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        return failed("open(" MON_CHECK_DIR "/file)", errno);
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || st.st_dev != dev) {
        return failed("open(" MON_CHECK_DIR "/file)", EPERM);
    }

    // A token of this run, so that an old file read back cannot pass; the
    // sync makes a lost device fail here rather than in the page cache.
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    Line token{};
    token.add("zor monitor ")
        .add(host)
        .add(" ")
        .add(static_cast<long>(getpid()))
        .add(" ")
        .add(now.tv_nsec)
        .add("\n");
    if (ftruncate(fd, 0) != 0 || pwrite(fd, token.buf, token.len, 0) != static_cast<ssize_t>(token.len)) {
        return failed("write(" MON_CHECK_DIR "/file)", errno);
    }
    if (fsync(fd) != 0) {
        return failed("fsync(" MON_CHECK_DIR "/file)", errno);
    }
    char back[sizeof(token.buf)];
    ssize_t n = pread(fd, back, sizeof(back), 0);
    if (n != static_cast<ssize_t>(token.len) || memcmp(back, token.buf, token.len) != 0) {
        return failed("read back(" MON_CHECK_DIR "/file)", n < 0 ? errno : 0);
    }
    return 0;
}
