// The mount tables as data (see mount_table.h).
#include "mount_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A mountinfo line's fields up to its source fit in this: point, root and
// source of PATH_MAX bytes each, escaped (4 bytes a byte), and short rest. The
// super options after the source may run longer; they are not read.
constexpr size_t kLineMax = 64 * 1024;
// As many links as the kernel follows in one lookup.
constexpr int kMaxLinks = 40;
// Mounts stacked on one point whose order is worked out; more are counted.
constexpr int kStackMax = 32;

bool mangled(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\\';
}

bool octal(char c)
{
    return c >= '0' && c <= '7';
}

// A field of a line: n bytes at p.
struct Field {
    const char* p;
    size_t n;
};

// Splits line at each blank into at most max fields (a mount whose source is
// "" has an empty one). Returns their number.
int split(const char* line, Field* f, int max)
{
    int k = 0;
    for (const char* s = line; k < max; k++) {
        const char* end = strchr(s, ' ');
        f[k] = {s, end != nullptr ? static_cast<size_t>(end - s) : strlen(s)};
        if (end == nullptr) {
            return k + 1;
        }
        s = end + 1;
    }
    return k;
}

bool is(Field f, const char* word)
{
    return strlen(word) == f.n && strncmp(f.p, word, f.n) == 0;
}

// A decimal number that is the whole text from p to end.
bool decimal(const char* p, const char* end, unsigned long* out)
{
    char* stop = nullptr;
    errno = 0;
    *out = p < end && *p >= '0' && *p <= '9' ? strtoul(p, &stop, 10) : 0;
    return stop == end && errno == 0 && *out <= INT_MAX;
}

// An escaped field into a buffer of the entry: "" when it does not fit, so
// that a cut text never passes for another.
void take(Field f, char* out, size_t size)
{
    if (mnt_unescape(f.p, f.n, out, size) != 0) {
        out[0] = '\0';
    }
}

bool parse_mountinfo(const char* line, PMNT_ENTRY e, bool whole)
{
    // ID PARENT MAJOR:MINOR ROOT POINT OPTIONS [OPTIONAL...] - TYPE SOURCE SUPER
    Field f[32];
    const int n = split(line, f, 32);
    int sep = 6;
    while (sep < n && !is(f[sep], "-")) {
        sep++;
    }
    const char* colon = n > 2 ? static_cast<const char*>(memchr(f[2].p, ':', f[2].n)) : nullptr;
    unsigned long id, parent, maj, min;
    if (sep + 2 >= n || colon == nullptr || !decimal(f[0].p, f[0].p + f[0].n, &id) ||
        !decimal(f[1].p, f[1].p + f[1].n, &parent) || !decimal(f[2].p, colon, &maj) ||
        !decimal(colon + 1, f[2].p + f[2].n, &min)) {
        return false;
    }
    e->id = static_cast<int>(id);
    e->parent = static_cast<int>(parent);
    e->major = static_cast<unsigned int>(maj);
    e->minor = static_cast<unsigned int>(min);
    take(f[4], e->point, sizeof(e->point));
    take(f[sep + 1], e->fstype, sizeof(e->fstype));
    // Of a line cut at the buffer's end the source counts only when its end was seen.
    const Field source = f[sep + 2];
    e->source[0] = '\0';
    if (whole || source.p[source.n] == ' ') {
        take(source, e->source, sizeof(e->source));
    }
    return true;
}

// Copies path into out (PATH_MAX bytes) with "//" and "/." components and a
// trailing "/" gone; ".." stays for the resolution. false when too long.
bool collapse(const char* path, char* out)
{
    size_t o = 0;
    for (const char* s = path; *s != '\0';) {
        if (*s == '/') {
            s++;
            continue;
        }
        const char* e = s;
        while (*e != '\0' && *e != '/') {
            e++;
        }
        const size_t len = static_cast<size_t>(e - s);
        if (!(len == 1 && s[0] == '.')) {
            if (o + 1 + len >= PATH_MAX) {
                return false;
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
    return true;
}

// The textual form: collapsed, and ".." taking away the component before it.
void lexical(const char* collapsed, char* out)
{
    size_t o = 0;
    for (const char* s = collapsed; *s != '\0';) {
        const char* e = strchr(s + 1, '/');
        const size_t len = e != nullptr ? static_cast<size_t>(e - s) : strlen(s);  // with its "/"
        if (len == 3 && strncmp(s, "/..", 3) == 0) {
            while (o > 0 && out[o - 1] != '/') {
                o--;
            }
            if (o > 0) {
                o--;
            }
        } else {
            memcpy(out + o, s, len);
            o += len;
        }
        s += len;
    }
    if (o == 0) {
        out[o++] = '/';
    }
    out[o] = '\0';
}

// Whether the table shows a mount on point: 1, 0, or -1 with errno.
int is_mount_point(const char* point)
{
    bool found = false;
    if (mnt_each([&](const MNT_ENTRY* e) {
            found = strcmp(e->point, point) == 0;
            return !found;
        }) != 0) {
        return -1;
    }
    return found ? 1 : 0;
}

// dir and name joined into out (PATH_MAX bytes); false when too long.
bool join(const char* dir, const char* name, char* out)
{
    const char* sep = strcmp(dir, "/") == 0 ? "" : "/";
    return static_cast<size_t>(snprintf(out, PATH_MAX, "%s%s%s", dir, sep, name)) < PATH_MAX;
}

// The state of one scan for mnt_where.
struct WhereScan {
    const char* device;
    const char* share;
    PMNT_WHERE w;
    int ids[kStackMax];  // the mounts on the point, in table order
    int parents[kStackMax];
    int own[kStackMax];
};

bool own_mount(const WhereScan& s, const MNT_ENTRY* e)
{
    if (s.share != nullptr) {
        return strcmp(e->source, s.share) == 0;
    }
    if (s.device == nullptr) {
        return false;
    }
    if (!s.w->device) {
        // A file system without a block device (a dataset name), or a device
        // node that is gone: only the name can tell.
        return s.device[0] != '\0' && strcmp(e->source, s.device) == 0;
    }
    if (makedev(e->major, e->minor) == s.w->rdev) {
        return true;
    }
    // A file system that shows an anonymous device number (btrfs) names its
    // device as the source.
    struct stat sb;
    return e->major == 0 && strncmp(e->source, "/dev/", 5) == 0 && stat(e->source, &sb) == 0 &&
           S_ISBLK(sb.st_mode) && sb.st_rdev == s.w->rdev;
}

bool where_entry(WhereScan* s, const MNT_ENTRY* e)
{
    PMNT_WHERE w = s->w;
    const bool own = own_mount(*s, e);
    if (w->point[0] != '\0' && strcmp(e->point, w->point) == 0) {
        if (w->on_point < kStackMax) {
            s->ids[w->on_point] = e->id;
            s->parents[w->on_point] = e->parent;
            s->own[w->on_point] = own ? 1 : 0;
        }
        if (w->on_point == 0) {
            w->lowest = *e;
            w->lowest_own = own ? 1 : 0;
        }
        w->top = *e;
        w->top_own = own ? 1 : 0;
        w->on_point++;
        w->on_point_own += own ? 1 : 0;
    } else if (own) {
        if (w->elsewhere == 0) {
            snprintf(w->where, sizeof(w->where), "%s", e->point);
        }
        w->elsewhere++;
    }
    return true;
}

// Fetches the mount `id` into *e; 0, or -1 when it is gone or unreadable.
int fetch(int id, PMNT_ENTRY e)
{
    bool found = false;
    if (mnt_each([&](const MNT_ENTRY* m) {
            if (m->id == id) {
                *e = *m;
                found = true;
            }
            return !found;
        }) != 0 ||
        !found) {
        return -1;
    }
    return 0;
}

// Table order is mount order, which a mount slid beneath another does not
// keep: the lowest is the one that stands on no other mount of the point,
// the top the one no other stands on.
int order_stack(WhereScan* s)
{
    PMNT_WHERE w = s->w;
    const int n = w->on_point < kStackMax ? w->on_point : kStackMax;
    int lowest = 0;
    int top = n - 1;
    for (int i = 0; i < n; i++) {
        bool on_another = false;
        bool under_another = false;
        for (int j = 0; j < n; j++) {
            on_another = on_another || (j != i && s->parents[i] == s->ids[j]);
            under_another = under_another || (j != i && s->parents[j] == s->ids[i]);
        }
        if (!on_another) {
            lowest = i;
        }
        if (!under_another) {
            top = i;
        }
    }
    if (lowest != 0) {
        if (fetch(s->ids[lowest], &w->lowest) != 0) {
            return -1;
        }
        w->lowest_own = s->own[lowest];
    }
    if (top != n - 1 && n == w->on_point) {
        if (fetch(s->ids[top], &w->top) != 0) {
            return -1;
        }
        w->top_own = s->own[top];
    }
    return 0;
}

}  // namespace

int mnt_escape(const char* path, char* out, size_t size)
{
    size_t o = 0;
    for (const char* s = path; *s != '\0'; s++) {
        const size_t need = mangled(*s) ? 4 : 1;
        if (o + need >= size) {
            if (size > 0) {
                out[0] = '\0';
            }
            return -1;
        }
        if (need == 4) {
            snprintf(out + o, 5, "\\%03o", static_cast<unsigned>(static_cast<unsigned char>(*s)));
        } else {
            out[o] = *s;
        }
        o += need;
    }
    if (size == 0) {
        return -1;
    }
    out[o] = '\0';
    return 0;
}

int mnt_unescape(const char* in, size_t n, char* out, size_t size)
{
    if (size == 0) {
        return -1;
    }
    size_t o = 0;
    for (size_t i = 0; i < n; o++) {
        if (o + 1 >= size) {
            out[o] = '\0';
            return -1;
        }
        if (n - i >= 4 && in[i] == '\\' && in[i + 1] >= '0' && in[i + 1] <= '3' && octal(in[i + 2]) &&
            octal(in[i + 3])) {
            out[o] = static_cast<char>((in[i + 1] - '0') * 64 + (in[i + 2] - '0') * 8 + (in[i + 3] - '0'));
            i += 4;
        } else {
            out[o] = in[i++];
        }
    }
    out[o] = '\0';
    return 0;
}

bool mnt_parse_mounts(const char* line, PMNT_ENTRY e)
{
    // SOURCE POINT TYPE OPTIONS FREQ PASSNO
    Field f[3];
    const int n = split(line, f, 3);
    if (n < 3) {
        return false;
    }
    e->id = 0;
    e->parent = 0;
    e->major = 0;
    e->minor = 0;
    take(f[0], e->source, sizeof(e->source));
    take(f[1], e->point, sizeof(e->point));
    take(f[2], e->fstype, sizeof(e->fstype));
    return true;
}

bool mnt_parse_mountinfo(const char* line, PMNT_ENTRY e)
{
    return parse_mountinfo(line, e, true);
}

int mnt_scan(bool (*fn)(void* arg, const MNT_ENTRY* e), void* arg)
{
    int fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    char buf[kLineMax];
    MNT_ENTRY e;
    size_t have = 0;
    bool skipping = false;  // the rest of a line longer than the buffer
    bool stop = false;
    int ret = 0;
    while (!stop) {
        ssize_t got = read(fd, buf + have, sizeof(buf) - 1 - have);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            ret = -1;
            break;
        }
        if (got == 0) {
            // A last line without its newline.
            buf[have] = '\0';
            if (have > 0 && !skipping && parse_mountinfo(buf, &e, true)) {
                fn(arg, &e);
            }
            break;
        }
        have += static_cast<size_t>(got);
        char* start = buf;
        char* nl;
        while (!stop && (nl = static_cast<char*>(
                             memchr(start, '\n', static_cast<size_t>(buf + have - start)))) != nullptr) {
            *nl = '\0';
            if (!skipping && parse_mountinfo(start, &e, true)) {
                stop = !fn(arg, &e);
            }
            skipping = false;
            start = nl + 1;
        }
        have = static_cast<size_t>(buf + have - start);
        memmove(buf, start, have);
        if (!stop && have == sizeof(buf) - 1) {
            // The first part of a longer line holds the fields that are read.
            buf[have] = '\0';
            if (!skipping && parse_mountinfo(buf, &e, false)) {
                stop = !fn(arg, &e);
            }
            skipping = true;
            have = 0;
        }
    }
    const int err = errno;
    close(fd);
    errno = err;
    return ret;
}

int mnt_point_resolve(const char* path, char* out)
{
    char cur[PATH_MAX];
    if (path == nullptr || path[0] != '/') {
        snprintf(out, PATH_MAX, "%s", path != nullptr ? path : "");
        errno = EINVAL;
        return -1;
    }
    if (!collapse(path, cur)) {
        out[0] = '\0';
        errno = ENAMETOOLONG;
        return -1;
    }
    lexical(cur, out);
    for (int hops = 0; hops <= kMaxLinks; hops++) {
        if (strcmp(cur, "/") == 0) {
            strcpy(out, "/");
            return 0;
        }
        char* slash = strrchr(cur, '/');
        const char* last = slash + 1;
        char parent[PATH_MAX];
        if (strcmp(last, "..") == 0) {
            // A point spelt as the parent of something: only the whole lookup tells.
            if (realpath(cur, parent) == nullptr) {
                return -1;
            }
            strcpy(out, parent);
            return 0;
        }
        *slash = '\0';
        if (realpath(slash == cur ? "/" : cur, parent) == nullptr) {
            return -1;
        }
        char cand[PATH_MAX];
        if (!join(parent, last, cand)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        // Something mounted on it: it is no link, and must not be looked at.
        int mounted = is_mount_point(cand);
        if (mounted < 0) {
            return -1;
        }
        struct stat sb;
        if (mounted == 1 || fstatat(AT_FDCWD, cand, &sb, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0 ||
            !S_ISLNK(sb.st_mode)) {
            // Also a point that does not exist yet: this is where it will be made.
            strcpy(out, cand);
            return 0;
        }
        char target[PATH_MAX];
        const ssize_t n = readlink(cand, target, sizeof(target) - 1);
        if (n < 0) {
            return -1;
        }
        target[n] = '\0';
        char next[PATH_MAX];
        if (target[0] == '/') {
            strcpy(next, target);
        } else if (!join(parent, target, next)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        if (!collapse(next, cur)) {
            errno = ENAMETOOLONG;
            return -1;
        }
    }
    errno = ELOOP;
    return -1;
}

bool mnt_system_point(const char* point)
{
    // Trees the system lives in, each with everything below it.
    static const char* const trees[] = {"/proc", "/sys", "/dev", "/run", "/boot",
                                        "/etc",  "/usr", "/bin", "/sbin"};
    // Directories that are the system's, while directories below them may be data.
    static const char* const dirs[] = {"/", "/var", "/var/lib", "/tmp", "/root", "/opt"};
    for (const char* d : dirs) {
        if (strcmp(point, d) == 0) {
            return true;
        }
    }
    for (const char* t : trees) {
        const size_t n = strlen(t);
        if (strncmp(point, t, n) == 0 && (point[n] == '\0' || point[n] == '/')) {
            return true;
        }
    }
    // /lib, /lib32, /lib64, /libx32 and what a multilib system adds.
    return strncmp(point, "/lib", 4) == 0;
}

namespace {

// The scan of the table for a resource whose point and device are set in *w.
int where_scan(const char* device, const char* share, PMNT_WHERE w)
{
    WhereScan s = {device, share, w, {}, {}, {}};
    if (mnt_each([&](const MNT_ENTRY* e) { return where_entry(&s, e); }) != 0) {
        return -1;
    }
    return w->on_point > 1 ? order_stack(&s) : 0;
}

}  // namespace

int mnt_where(const char* point, const char* device, const char* share, PMNT_WHERE w)
{
    memset(w, 0, sizeof(*w));
    // A point that cannot be resolved has the form its text gives.
    if (point != nullptr) {
        mnt_point_resolve(point, w->point);
    }
    if (device != nullptr) {
        snprintf(w->devpath, sizeof(w->devpath), "%s", device);
        struct stat sb;
        char real[PATH_MAX];
        if (device[0] == '/' && realpath(device, real) != nullptr && stat(real, &sb) == 0 &&
            S_ISBLK(sb.st_mode)) {
            w->device = 1;
            w->rdev = sb.st_rdev;
            strcpy(w->devpath, real);
        }
    }
    return where_scan(device, share, w);
}

int mnt_where_devno(const char* point, const char* devpath, dev_t rdev, PMNT_WHERE w)
{
    memset(w, 0, sizeof(*w));
    if (point != nullptr) {
        mnt_point_resolve(point, w->point);
    }
    w->device = 1;
    w->rdev = rdev;
    snprintf(w->devpath, sizeof(w->devpath), "%s", devpath);
    return where_scan(devpath, nullptr, w);
}

int mnt_device_held(const char* devpath)
{
    // Read-only: closing a device opened for writing makes udev probe it again.
    int fd = open(devpath, O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        return 0;
    }
    return errno == EBUSY ? 1 : -1;
}
