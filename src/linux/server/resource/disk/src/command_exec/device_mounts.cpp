// Is a block device mounted anywhere? Read from /proc/self/mountinfo, which
// names every mount's device by number: a device reached under another name
// (a symbolic link, a second node) is still found. No shell, no command, and
// the mounts themselves are never touched.
#include "../bounded.h"
#include "../tracersc.h"
#include "zor_exec.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

int device_mounted(const char* devname, char* where, size_t size)
{
    if (size > 0) {
        where[0] = '\0';
    }
    struct stat sb;
    if (stat(devname, &sb) != 0 || !S_ISBLK(sb.st_mode)) {
        return 0;
    }
    FILE* fp = fopen("/proc/self/mountinfo", "re");
    if (fp == nullptr) {
        trace(TR_ERROR, ZOR_SRC, "fopen(/proc/self/mountinfo) failed. (errno=%d)", errno);
        return -1;
    }
    unsigned want_major = major(sb.st_rdev);
    unsigned want_minor = minor(sb.st_rdev);
    // Lines longer than the buffer arrive in pieces; only a line's first
    // piece holds its fields, and the longest escaped mount point fits in it.
    char line[4 * PATH_MAX + 512];
    bool line_start = true;
    int found = 0;
    while (found == 0 && fgets(line, sizeof(line), fp) != nullptr) {
        bool whole_start = line_start;
        size_t n = strlen(line);
        line_start = n > 0 && line[n - 1] == '\n';
        unsigned maj = 0;
        unsigned min = 0;
        const char* point = nullptr;
        size_t len = 0;
        if (!whole_start || mountinfo_line_parse(line, &maj, &min, &point, &len) == 0) {
            continue;
        }
        if (maj == want_major && min == want_minor) {
            line[(point - line) + static_cast<ptrdiff_t>(len)] = '\0';
            mounts_unescape(point, where, size);
            found = 1;
        }
    }
    bool failed = ferror(fp) != 0;
    fclose(fp);
    if (found == 0 && failed) {
        trace(TR_ERROR, ZOR_SRC, "read(/proc/self/mountinfo) failed.");
        return -1;
    }
    return found;
}
