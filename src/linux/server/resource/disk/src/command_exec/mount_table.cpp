// Reads /proc/self/mountinfo in place (see mount_table.h for why).
#include "mount_table.h"

#include "../bounded.h"
#include "../tracersc.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The comparison form of a point: no trailing "/" except for "/" itself.
void strip_slashes(char* path)
{
    size_t n = strlen(path);
    while (n > 1 && path[n - 1] == '/') {
        path[--n] = '\0';
    }
}

// Splits off the next blank-separated field of *ps; null when none is left.
char* next_field(char** ps)
{
    char* s = *ps;
    while (*s == ' ') {
        s++;
    }
    if (*s == '\0' || *s == '\n') {
        return nullptr;
    }
    char* start = s;
    while (*s != '\0' && *s != ' ' && *s != '\n') {
        s++;
    }
    if (*s != '\0') {
        *s++ = '\0';
    }
    *ps = s;
    return start;
}

bool has_option(const char* opts, const char* want)
{
    const size_t n = strlen(want);
    for (const char* p = opts;;) {
        if (strncmp(p, want, n) == 0 && (p[n] == ',' || p[n] == '\0')) {
            return true;
        }
        p = strchr(p, ',');
        if (p == nullptr) {
            return false;
        }
        p++;
    }
}

}  // namespace

void mnttab_unescape(const char* in, char* out, size_t size)
{
    size_t o = 0;
    while (*in != '\0' && o + 1 < size) {
        if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' && in[3] >= '0' &&
            in[3] <= '7') {
            out[o++] = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
            in += 4;
        } else {
            out[o++] = *in++;
        }
    }
    out[o] = '\0';
}

int mnttab_lookup(const char* point, PMNT_ENTRY ptop)
{
    char want[1024];
    if (BCOPY(want, point) != 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s is too long.", point);
        return -1;
    }
    strip_slashes(want);

    FILE* fp = fopen("/proc/self/mountinfo", "re");
    if (fp == nullptr) {
        trace(TR_ERROR, ZOR_SRC, "fopen(/proc/self/mountinfo) failed. (errno=%d)", errno);
        return -1;
    }
    // Long enough for a source and a point of 1023 characters each, escaped.
    static char line[16384];
    int count = 0;
    bool whole = true;
    while (fgets(line, sizeof(line), fp) != nullptr) {
        // A line longer than the buffer cannot be one of ours: skip its rest.
        bool starts = whole;
        whole = strchr(line, '\n') != nullptr;
        if (!starts) {
            continue;
        }
        char* s = line;
        char* f[6];
        int i = 0;
        for (; i < 6 && (f[i] = next_field(&s)) != nullptr; i++) {
        }
        if (i < 6) {
            continue;
        }
        // f: id, parent, major:minor, root, mount point, mount options.
        char mpoint[1024];
        mnttab_unescape(f[4], mpoint, sizeof(mpoint));
        if (strcmp(mpoint, want) != 0) {
            continue;
        }
        // Optional fields up to "-", then file system type and source.
        char* fld;
        while ((fld = next_field(&s)) != nullptr && strcmp(fld, "-") != 0) {
        }
        char* fstype = fld != nullptr ? next_field(&s) : nullptr;
        char* source = fstype != nullptr ? next_field(&s) : nullptr;
        unsigned int maj = 0;
        unsigned int min = 0;
        if (sscanf(f[2], "%u:%u", &maj, &min) != 2) {
            continue;
        }
        count++;
        memset(ptop, 0, sizeof(*ptop));
        ptop->major = maj;
        ptop->minor = min;
        ptop->readonly = has_option(f[5], "ro") ? 1 : 0;
        BCOPY(ptop->fstype, fstype != nullptr ? fstype : "");
        mnttab_unescape(source != nullptr ? source : "", ptop->source, sizeof(ptop->source));
    }
    fclose(fp);
    return count;
}
