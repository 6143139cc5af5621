// The walk of a trusted path: one component at a time, from a descriptor of
// the directory reached so far, so that nothing can be swapped between the
// check of a directory and its use.
#include "zorsafe.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

// As many links as the kernel follows in one lookup.
constexpr int kMaxLinks = 40;

bool trusted_owner(uid_t uid)
{
    return uid == 0 || uid == geteuid();
}

// Checks the directory open at fd; sets errno when it is not trusted.
bool trusted_dir(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    if (!trusted_owner(st.st_uid) ||
        ((st.st_mode & S_ISVTX) == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
        errno = EPERM;
        return false;
    }
    return true;
}

int open_root(bool absolute)
{
    int fd = open(absolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 && !trusted_dir(fd)) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int fail(int fd)
{
    int err = errno;
    if (fd >= 0) {
        close(fd);
    }
    errno = err;
    return -1;
}

}  // namespace

bool zor_trusted_file(const struct stat* st)
{
    return S_ISREG(st->st_mode) && trusted_owner(st->st_uid) && (st->st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
           st->st_nlink == 1;
}

int zor_safe_dir(const char* path, unsigned mode)
{
    if (path == nullptr || path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    // What is left to walk; a link's target takes the place of the link.
    char rest[PATH_MAX];
    size_t n = strlen(path);
    if (n >= sizeof(rest)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(rest, path, n + 1);
    int cur = open_root(path[0] == '/');
    if (cur < 0) {
        return -1;
    }
    size_t pos = 0;
    int links = 0;
    for (;;) {
        while (rest[pos] == '/') {
            pos++;
        }
        if (rest[pos] == '\0') {
            return cur;
        }
        size_t end = pos;
        while (rest[end] != '/' && rest[end] != '\0') {
            end++;
        }
        char comp[NAME_MAX + 1];
        if (end - pos > NAME_MAX) {
            errno = ENAMETOOLONG;
            return fail(cur);
        }
        memcpy(comp, rest + pos, end - pos);
        comp[end - pos] = '\0';
        pos = end;
        if (strcmp(comp, ".") == 0) {
            continue;
        }
        struct stat st;
        if (fstatat(cur, comp, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            // Made in a directory already found trusted; EEXIST: another maker was first.
            if (errno != ENOENT || mode == 0 || (mkdirat(cur, comp, mode) != 0 && errno != EEXIST) ||
                fstatat(cur, comp, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                return fail(cur);
            }
        }
        if (S_ISLNK(st.st_mode)) {
            if (!trusted_owner(st.st_uid)) {
                errno = EPERM;
                return fail(cur);
            }
            if (++links > kMaxLinks) {
                errno = ELOOP;
                return fail(cur);
            }
            char target[PATH_MAX];
            ssize_t len = readlinkat(cur, comp, target, sizeof(target) - 1);
            if (len <= 0) {
                return fail(cur);
            }
            size_t tail = strlen(rest + pos);
            if (static_cast<size_t>(len) + tail >= sizeof(rest)) {
                errno = ENAMETOOLONG;
                return fail(cur);
            }
            memmove(rest + len, rest + pos, tail + 1);
            memcpy(rest, target, static_cast<size_t>(len));
            pos = 0;
            if (target[0] == '/') {
                close(cur);
                cur = open_root(true);
                if (cur < 0) {
                    return -1;
                }
            }
            continue;
        }
        // The directory itself, not what its name showed a moment ago, is checked.
        int next = openat(cur, comp, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        close(cur);
        cur = next;
        if (cur < 0 || !trusted_dir(cur)) {
            return fail(cur);
        }
    }
}

int zor_safe_open(int dirfd, const char* name, int flags)
{
    int fd = openat(dirfd, name, flags | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return fail(fd);
    }
    if (!zor_trusted_file(&st)) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    if ((st.st_mode & 07777) != 0600 && st.st_uid == geteuid() && fchmod(fd, 0600) != 0) {
        return fail(fd);
    }
    if ((flags & O_NONBLOCK) == 0 && fcntl(fd, F_SETFL, flags & O_APPEND) != 0) {
        return fail(fd);
    }
    return fd;
}
