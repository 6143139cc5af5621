// The walk over /proc: getdents64 on one descriptor, openat per file.
#include "proc_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace {

bool all_digits(const char* s)
{
    if (*s == '\0') {
        return false;
    }
    for (; *s != '\0'; s++) {
        if (*s < '0' || *s > '9') {
            return false;
        }
    }
    return true;
}

}  // namespace

int proc_scan_buf(proc_visit_fn visit, void* arg, char* buf, size_t size)
{
    int procfd = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (procfd < 0) {
        return -1;
    }
    for (bool more = true; more;) {
        ssize_t n = getdents64(procfd, buf, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            int err = errno;
            close(procfd);
            errno = err;
            return 1;
        }
        if (n == 0) {
            break;
        }
        for (ssize_t off = 0; off < n;) {
            struct dirent64* d = reinterpret_cast<struct dirent64*>(buf + off);
            off += d->d_reclen;
            // /proc lists its own files first, then one directory per process.
            if (d->d_type == DT_DIR && all_digits(d->d_name) && visit(arg, procfd, d->d_name) != 0) {
                more = false;
                break;
            }
        }
    }
    close(procfd);
    return 0;
}

int proc_scan(proc_visit_fn visit, void* arg)
{
    // About 800 processes per read of the directory.
    alignas(struct dirent64) char buf[32768];
    return proc_scan_buf(visit, arg, buf, sizeof(buf));
}

ssize_t proc_read(int procfd, const char* pid, const char* name, char* buf, size_t size)
{
    // "PID/NAME" without a printf: the walk does this thousands of times.
    char rel[64];
    size_t lp = strlen(pid);
    size_t ln = strlen(name);
    if (lp + 1 + ln + 1 > sizeof(rel)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(rel, pid, lp);
    rel[lp] = '/';
    memcpy(rel + lp + 1, name, ln + 1);
    int fd = openat(procfd, rel, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    ssize_t n;
    do {
        n = read(fd, buf, size);
    } while (n < 0 && errno == EINTR);
    close(fd);
    return n;
}
