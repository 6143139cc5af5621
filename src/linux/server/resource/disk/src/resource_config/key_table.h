// The configuration keys of each parameter group, one table per group.
//
// A row names a key, the kind of its value, the record field it fills, whether
// it is required (and the default when it is not) and the range that --test
// validates. The loaders read a group by walking its table; the configuration
// check walks the same tables, so a key, its order, its default and its range
// are written down once. Rows are read in table order, which is also the order
// of their traces.
#pragma once

#include "zor_param.h"

#include <zorxml.h>

#include <climits>
#include <cstddef>

enum class ZorValue : unsigned char {
    text,     // any text
    word,     // text that a command line takes unquoted as one word
    words,    // text that a command line takes unquoted as a list of words
    cmdpath,  // a command relative to the installation path: loaded as "<install path>/<value>"
    integer,
};

enum class ZorScope : unsigned char {
    common,             // one value for every server
    per_server,         // read for this server
    per_server_loaded,  // read for this server when loaded; --test validates the common value
};

enum class ZorUse : unsigned char {
    always,
    disk_only,  // recovery settings: not for a NAS share (read and checked after the rest)
    load_only,  // not validated by --test
};

struct ZorKey {
    const char* key;  // below the parameter path ("mount/path"); absolute when it begins with "/"
    size_t offset;    // of the field in the group's record
    int size;         // bytes of the field
    ZorValue type = ZorValue::text;
    ZorScope scope = ZorScope::common;
    bool required = true;  // a missing required key fails the load (and is reported by --test)
    int defval = 0;        // an optional integer's value when it cannot be read
    int min = 0;           // integers: the range that --test accepts
    int max = INT_MAX;
    ZorUse use = ZorUse::always;

    int vtype() const
    {
        return type == ZorValue::integer ? ZOR_XML_INT : ZOR_XML_STRING;
    }
    void* field(void* record) const
    {
        return static_cast<char*>(record) + offset;
    }
};

// The offset and size of a row's field in its record.
#define ZOR_FIELD(rec, member) .offset = offsetof(rec, member), .size = static_cast<int>(sizeof(rec::member))

struct ZorKeyTable {
    const ZorKey* rows;
    size_t count;
};

template <size_t N>
constexpr ZorKeyTable zor_table(const ZorKey (&rows)[N])
{
    return ZorKeyTable{rows, N};
}

// clang-format off
inline constexpr ZorKey kMountKeys[] = {
    {.key = "mount/path", ZOR_FIELD(ZOR_MOUNT, path)},
    {.key = "mount/point", ZOR_FIELD(ZOR_MOUNT, point), .scope = ZorScope::per_server},
    {.key = "mount/option", ZOR_FIELD(ZOR_MOUNT, opt), .type = ZorValue::word},
    {.key = "mount/timeout", ZOR_FIELD(ZOR_MOUNT, to), .type = ZorValue::integer, .min = 1, .max = 999},
    {.key = "mount/retry", ZOR_FIELD(ZOR_MOUNT, retry), .type = ZorValue::integer, .max = 999},
    {.key = "mount/action", ZOR_FIELD(ZOR_MOUNT, act), .type = ZorValue::integer, .max = 1,
     .use = ZorUse::disk_only},
    {.key = "/root/cluster/exclusion/mount", ZOR_FIELD(ZOR_MOUNT, lock), .type = ZorValue::integer,
     .required = false, .defval = 1, .max = 1},
    {.key = "mount/xfsaction", ZOR_FIELD(ZOR_MOUNT, xfsact), .type = ZorValue::integer, .max = 1,
     .use = ZorUse::disk_only},
};

inline constexpr ZorKey kUmountKeys[] = {
    {.key = "umount/path", ZOR_FIELD(ZOR_UMOUNT, path)},
    {.key = "umount/option", ZOR_FIELD(ZOR_UMOUNT, opt), .type = ZorValue::words},
    {.key = "umount/timeout", ZOR_FIELD(ZOR_UMOUNT, to), .type = ZorValue::integer, .min = 1, .max = 999},
    {.key = "umount/retry", ZOR_FIELD(ZOR_UMOUNT, retry), .type = ZorValue::integer, .max = 999},
    {.key = "umount/action", ZOR_FIELD(ZOR_UMOUNT, act)},
    {.key = "/root/cluster/exclusion/mount", ZOR_FIELD(ZOR_UMOUNT, lock), .type = ZorValue::integer,
     .required = false, .defval = 1, .max = 1, .use = ZorUse::load_only},
    {.key = "umount/interval", ZOR_FIELD(ZOR_UMOUNT, interval), .type = ZorValue::integer,
     .required = false, .defval = 5, .use = ZorUse::load_only},
    {.key = "umount/chkprcmnts", ZOR_FIELD(ZOR_UMOUNT, chkprcmnts), .type = ZorValue::integer,
     .required = false, .defval = 0, .use = ZorUse::load_only},
};

// The xfs keys are required whatever the file system: one record serves both.
inline constexpr ZorKey kFsckKeys[] = {
    {.key = "fsck/path", ZOR_FIELD(ZOR_FSCK, path)},
    {.key = "fsck/reiserfs", ZOR_FIELD(ZOR_FSCK, reiserpath)},
    {.key = "fsck/rebuildopt", ZOR_FIELD(ZOR_FSCK, rebuildopt), .type = ZorValue::integer, .max = 1},
    {.key = "fsck/fixopt", ZOR_FIELD(ZOR_FSCK, fixopt), .type = ZorValue::integer, .max = 1},
    {.key = "fsck/option", ZOR_FIELD(ZOR_FSCK, opt), .type = ZorValue::words},
    {.key = "fsck/timeout", ZOR_FIELD(ZOR_FSCK, to), .type = ZorValue::integer, .min = 1, .max = 9999},
    {.key = "fsck/timing", ZOR_FIELD(ZOR_FSCK, timing), .type = ZorValue::integer, .max = 2},
    {.key = "fsck/interval", ZOR_FIELD(ZOR_FSCK, interval), .type = ZorValue::integer, .max = 999},
    {.key = "fsck/xfs", ZOR_FIELD(ZOR_FSCK, xfspath)},
    {.key = "fsck/xfsoption", ZOR_FIELD(ZOR_FSCK, xfsopt), .type = ZorValue::words},
    {.key = "fsck/xfstimeout", ZOR_FIELD(ZOR_FSCK, xfsto), .type = ZorValue::integer, .min = 1, .max = 9999},
    {.key = "fsck/xfstiming", ZOR_FIELD(ZOR_FSCK, xfstiming), .type = ZorValue::integer, .max = 2},
    {.key = "fsck/xfsinterval", ZOR_FIELD(ZOR_FSCK, xfsinterval), .type = ZorValue::integer, .max = 999},
};

inline constexpr ZorKey kRosetKeys[] = {
    {.key = "roset/path", ZOR_FIELD(ZOR_ROSET, path), .type = ZorValue::cmdpath},
    {.key = "roset/timeout", ZOR_FIELD(ZOR_ROSET, to), .type = ZorValue::integer},
};

inline constexpr ZorKey kRelpathKeys[] = {
    {.key = "relpath/path", ZOR_FIELD(ZOR_RELPATH, path), .type = ZorValue::cmdpath},
    {.key = "relpath/timeout", ZOR_FIELD(ZOR_RELPATH, to), .type = ZorValue::integer},
};

// Resource keys of disk type "disk" and "lvm". The disk type is validated
// before the kind is known, so --test does not read it again here.
inline constexpr ZorKey kDiskKeys[] = {
    {.key = "device", ZOR_FIELD(ZOR_DISK_PARAM, devname), .scope = ZorScope::per_server_loaded},
    {.key = "fs", ZOR_FIELD(ZOR_DISK_PARAM, fstype), .type = ZorValue::word,
     .scope = ZorScope::per_server_loaded},
    {.key = "disktype", ZOR_FIELD(ZOR_DISK_PARAM, disktype), .scope = ZorScope::per_server,
     .use = ZorUse::load_only},
};

// A volume's names are the same on every server.
inline constexpr ZorKey kVxvolKeys[] = {
    {.key = "device", ZOR_FIELD(ZOR_VXVOL_PARAM, devname)},
    {.key = "rawdevice", ZOR_FIELD(ZOR_VXVOL_PARAM, rawdev)},
    {.key = "fs", ZOR_FIELD(ZOR_VXVOL_PARAM, fstype), .type = ZorValue::word},
};

inline constexpr ZorKey kNasKeys[] = {
    {.key = "svname", ZOR_FIELD(ZOR_NAS_PARAM, server), .type = ZorValue::word},
    {.key = "share", ZOR_FIELD(ZOR_NAS_PARAM, share)},
    {.key = "fs", ZOR_FIELD(ZOR_NAS_PARAM, fstype), .type = ZorValue::word},
    {.key = "ping/path", ZOR_FIELD(ZOR_NAS_PARAM, pingpath), .type = ZorValue::cmdpath},
    {.key = "ping/timeout", ZOR_FIELD(ZOR_NAS_PARAM, pingto), .type = ZorValue::integer, .max = 999},
};

// Disk type "raw" and its bind/unbind groups: read by --test only.
inline constexpr ZorKey kRawKeys[] = {
    {.key = "device", ZOR_FIELD(ZOR_RAW_PARAM, devname)},
    {.key = "rawdevice", ZOR_FIELD(ZOR_RAW_PARAM, rawdev), .type = ZorValue::word},
    {.key = "raw/path", ZOR_FIELD(ZOR_RAW_PARAM, rawpath), .type = ZorValue::word},
    {.key = "raw/timeout", ZOR_FIELD(ZOR_RAW_PARAM, rawto), .type = ZorValue::integer},
};

inline constexpr ZorKey kBindKeys[] = {
    {.key = "bind/timeout", ZOR_FIELD(ZOR_BIND, to), .type = ZorValue::integer},
    {.key = "bind/retry", ZOR_FIELD(ZOR_BIND, retry), .type = ZorValue::integer},
    {.key = "bind/check/execute", ZOR_FIELD(ZOR_BIND, check.exec), .type = ZorValue::integer,
     .required = false, .max = 1},
    {.key = "bind/check/option", ZOR_FIELD(ZOR_BIND, check.opt), .type = ZorValue::integer,
     .required = false, .max = 1},
    {.key = "bind/check/retry", ZOR_FIELD(ZOR_BIND, check.retry), .type = ZorValue::integer,
     .required = false},
    {.key = "bind/check/interval", ZOR_FIELD(ZOR_BIND, check.interval), .type = ZorValue::integer,
     .required = false},
    {.key = "bind/check/error", ZOR_FIELD(ZOR_BIND, check.error), .type = ZorValue::integer,
     .required = false, .max = 1},
};

inline constexpr ZorKey kUnbindKeys[] = {
    {.key = "unbind/execute", ZOR_FIELD(ZOR_UNBIND, exec), .type = ZorValue::integer, .required = false,
     .max = 1},
    {.key = "unbind/timeout", ZOR_FIELD(ZOR_UNBIND, to), .type = ZorValue::integer, .min = 1, .max = 999},
    {.key = "unbind/retry", ZOR_FIELD(ZOR_UNBIND, retry), .type = ZorValue::integer, .min = 1, .max = 999},
    {.key = "unbind/action", ZOR_FIELD(ZOR_UNBIND, act)},
};
// clang-format on

// How a loader walks a table.
struct ZorLoad {
    const char* host = nullptr;  // for per-server rows
    bool share = false;          // a NAS share: no disk_only rows, per-server rows read as common
};

// Reads the rows in order into record, each reported through tracexml under
// the caller's file, line and function; a command path is composed as soon as
// it is read. Returns 0, or 4 at the first required key that could not be read
// or path that does not fit (later rows are not read; earlier fields keep
// their values). An optional integer that cannot be read takes its default.
int zor_read_keys(const char* file, int line, const char* func, const char* xmlpath, ZorKeyTable table,
                  void* record, ZorLoad how = {});

// Writes "<installation path>/<value>" back into path. Returns 0, or 4 when the
// whole does not fit: a cut path could name another command.
int zor_compose_cmdpath(char* path, size_t size, const char* what);
