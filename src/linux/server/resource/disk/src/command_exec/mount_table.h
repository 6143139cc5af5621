// The kernel's mount tables read as data, and the one answer to "where is
// this resource on this node?".
//
// /proc/self/mountinfo gives every mount's id, the id of the mount it stands
// on, the device numbers of its file system, its point and its source; a
// /proc/mounts line (what the mount probe's grep prints) gives source, point,
// type and options. Both write a blank, tab, newline or backslash of a field
// as a backslash and three octal digits. Reading them never touches a mounted
// file system, and a mount point is resolved without looking at what is
// mounted on it, so a file server that no longer answers cannot hold a reader
// up. Fixed buffers only: nothing here allocates, and nothing traces (the
// tools use it too); the callers decide and tell.
#pragma once

#include <sys/types.h>
#include <climits>
#include <cstddef>

// One mount. From a /proc/mounts line, id, parent and the device numbers are 0.
typedef struct {
    int id;      // mount id
    int parent;  // id of the mount it stands on (below it on the same point, or the parent directory's)
    unsigned int major;  // device numbers of its file system
    unsigned int minor;
    char point[PATH_MAX];   // unescaped; "" when it does not fit
    char source[PATH_MAX];  // unescaped; "" when it does not fit
    char fstype[64];
} MNT_ENTRY, *PMNT_ENTRY;

// The kernel's escaped form of path (blank, tab, newline and backslash as a
// backslash and three octal digits). 0, or -1 with out empty when it does not
// fit in size bytes.
int mnt_escape(const char* path, char* out, size_t size);
// The n bytes of the escaped field `in`, unescaped into out. 0, or -1 when
// out had to be cut (it then holds the first size - 1 bytes).
int mnt_unescape(const char* in, size_t n, char* out, size_t size);

// One line, without its newline. True when it has the fields the entry
// needs: a /proc/mounts line needs a source and a point followed by a blank;
// a mountinfo line its first six fields, and type and source after "-".
bool mnt_parse_mounts(const char* line, PMNT_ENTRY e);
bool mnt_parse_mountinfo(const char* line, PMNT_ENTRY e);

// Calls fn for every mount of /proc/self/mountinfo, in the table's order,
// until fn returns false. 0, or -1 with errno when the table could not be read
// to its end (a reader that stopped early must not take "not found" for an
// answer).
int mnt_scan(bool (*fn)(void* arg, const MNT_ENTRY* e), void* arg);

template <typename F>
int mnt_each(F&& fn)
{
    return mnt_scan([](void* arg, const MNT_ENTRY* e) -> bool { return (*static_cast<F*>(arg))(e); }, &fn);
}

// The mount point as the mount command makes it (it mounts on the canonical
// path): symbolic links in the point and its parents followed, "//", "/./",
// ".." and a trailing "/" gone. The point itself is looked at only when the
// table shows nothing mounted on it, so a dead file server's mount is never
// touched. A point that does not exist yet has the form the activation will
// create. 0, or -1 with errno (a relative path: EINVAL; a missing parent:
// ENOENT; ELOOP; ENAMETOOLONG); out (PATH_MAX bytes) then holds the path
// cleaned as text, ".." taken textually, the best guess there is.
int mnt_point_resolve(const char* path, char* out);

// True for a resolved point on which the system itself lives, never a
// resource's: "/", the pseudo file systems and system trees and everything
// below them (/proc, /sys, /dev, /run, /boot, /etc, /usr, /bin, /sbin, /lib*),
// and /var, /var/lib, /tmp, /root and /opt themselves (a directory below
// them, such as /var/lib/NAME, is a data disk's place).
bool mnt_system_point(const char* point);

// Where one resource is on this node.
typedef struct {
    char point[PATH_MAX];  // the point as activation makes it, or its cleaned text
    int device;            // disk: 1 when the device is a block device (rdev, devpath)
    dev_t rdev;
    char devpath[PATH_MAX];  // the device's canonical path; else the path as given
    int on_point;            // mounts on the point, stacked
    int on_point_own;        // of them the resource's own file system
    MNT_ENTRY lowest;        // the one the others on the point stand on
    int lowest_own;          // it is the resource's own file system
    MNT_ENTRY top;           // the one a path lookup reaches
    int top_own;
    int elsewhere;         // mounts of the resource's own file system on other points
    char where[PATH_MAX];  // the first of them
} MNT_WHERE, *PMNT_WHERE;

// Fills *w for the resource with the configured mount point `point` and
// either the device `device` (disk: matched by device number, or by name when
// it is no block device, as a file system without one is) or the share
// `share` ("server:share", matched by the mount's source). Either may be
// null: then only the point is looked for; a null point counts every mount of
// the resource as one elsewhere. 0, or -1 with errno when the table could not
// be read.
int mnt_where(const char* point, const char* device, const char* share, PMNT_WHERE w);

// The same for a block device known by its number `rdev` (one that
// activation recorded: its name may name another device by now); `devpath`
// is only shown.
int mnt_where_devno(const char* point, const char* devpath, dev_t rdev, PMNT_WHERE w);

// Whether anything holds the block device exclusively: a mounted file system
// (also one lazily detached but still in use, or one mounted in another mount
// namespace), a device-mapper or md holder, a running check. Told by an
// exclusive open. 1 held, 0 free, -1 with errno when it cannot be opened.
int mnt_device_held(const char* devpath);
