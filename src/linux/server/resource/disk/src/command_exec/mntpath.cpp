// Canonical form of a mount point that never looks at what is mounted on it.
//
// realpath() ends with a stat of the path itself, which on a mounted point is
// a request to the mounted file system: on the share of a file server that no
// longer answers it waits as long as the server does. Here "." and ".." are
// taken lexically, the parent directory is resolved by realpath(), and the
// last component is looked up in the parent's own directory entries: only a
// symbolic link there is followed (a link is never a mount point itself).
#include "zor_exec.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// As many links as the kernel follows in one lookup.
constexpr int kMaxLinks = 40;

// Writes the lexically cleaned absolute form of path into out (PATH_MAX
// bytes): no empty, "." or ".." component, no trailing "/". A relative path
// is taken from the working directory. Returns 0, or -1 with errno.
int clean(const char* path, char* out)
{
    char full[PATH_MAX * 2];
    if (path[0] == '/') {
        if (strlen(path) >= sizeof(full)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        strcpy(full, path);
    } else {
        if (getcwd(full, PATH_MAX) == nullptr) {
            return -1;
        }
        size_t n = strlen(full);
        if (n + 1 + strlen(path) >= sizeof(full)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        full[n] = '/';
        strcpy(full + n + 1, path);
    }
    size_t o = 0;
    const char* s = full;
    while (*s != '\0') {
        while (*s == '/') {
            s++;
        }
        const char* e = s;
        while (*e != '\0' && *e != '/') {
            e++;
        }
        size_t len = static_cast<size_t>(e - s);
        if (len == 0 || (len == 1 && s[0] == '.')) {
            // nothing
        } else if (len == 2 && s[0] == '.' && s[1] == '.') {
            while (o > 0 && out[o - 1] != '/') {
                o--;
            }
            if (o > 0) {
                o--;  // the "/" before the dropped component
            }
        } else {
            if (o + 1 + len >= PATH_MAX) {
                errno = ENAMETOOLONG;
                return -1;
            }
            out[o++] = '/';
            memcpy(out + o, s, len);
            o += len;
        }
        s = e;
    }
    if (o == 0) {
        out[o++] = '/';
    }
    out[o] = '\0';
    return 0;
}

// Is name a symbolic link in the directory dirfd, by the directory's own
// entry? 1 yes, 0 no, -1 with errno when there is no such entry. An entry
// without a type (some file systems) counts as no link: asking the inode
// would reach into a file system mounted on it.
int entry_is_link(int dirfd, const char* name)
{
    int fd = dup(dirfd);
    if (fd < 0) {
        return -1;
    }
    DIR* d = fdopendir(fd);
    if (d == nullptr) {
        close(fd);
        return -1;
    }
    int found = -1;
    errno = ENOENT;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, name) == 0) {
            found = e->d_type == DT_LNK ? 1 : 0;
            break;
        }
    }
    int err = errno;
    closedir(d);
    if (found < 0) {
        errno = err != 0 ? err : ENOENT;
    }
    return found;
}

}  // namespace

char* zor_point_path(const char* path, char* out)
{
    if (path == nullptr || path[0] == '\0') {
        errno = ENOENT;
        return nullptr;
    }
    char cur[PATH_MAX];
    if (clean(path, cur) != 0) {
        return nullptr;
    }
    for (int hops = 0; hops <= kMaxLinks; hops++) {
        if (strcmp(cur, "/") == 0) {
            strcpy(out, "/");
            return out;
        }
        char* slash = strrchr(cur, '/');
        char last[PATH_MAX];
        strcpy(last, slash + 1);
        char parent[PATH_MAX];
        if (slash == cur) {
            strcpy(parent, "/");
        } else {
            *slash = '\0';
            if (realpath(cur, parent) == nullptr) {
                return nullptr;
            }
        }
        int dirfd = open(parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirfd < 0) {
            return nullptr;
        }
        int link = entry_is_link(dirfd, last);
        char target[PATH_MAX];
        ssize_t n = -1;
        if (link == 1) {
            n = readlinkat(dirfd, last, target, sizeof(target) - 1);
        }
        int err = errno;
        close(dirfd);
        if (link < 0 || (link == 1 && n < 0)) {
            errno = err;
            return nullptr;
        }
        size_t plen = strlen(parent);
        if (link == 0) {
            if (plen + 1 + strlen(last) >= PATH_MAX) {
                errno = ENAMETOOLONG;
                return nullptr;
            }
            size_t o = plen;
            memcpy(out, parent, plen);
            if (plen > 1) {
                out[o++] = '/';
            }
            strcpy(out + o, last);
            return out;
        }
        target[n] = '\0';
        char next[PATH_MAX * 2 + 2];
        if (target[0] == '/') {
            strcpy(next, target);
        } else {
            memcpy(next, parent, plen);
            next[plen] = '/';
            strcpy(next + plen + 1, target);
        }
        if (clean(next, cur) != 0) {
            return nullptr;
        }
    }
    errno = ELOOP;
    return nullptr;
}
