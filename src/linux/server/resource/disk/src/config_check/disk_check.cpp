// The configuration check (--test): validates one resource of the new
// configuration file, examines the server's devices, and appends a report
// block to the result file. Also the switch to the configuration under check
// used by --dactive and --ddeactive.
#include "zor_check.h"

#include "check_report.h"

#include "../bounded.h"
#include "../command_exec/cmdline.h"
#include "../globals.h"
#include "../resource_config/key_table.h"
#include "../tracersc.h"
#include "../value.h"

#include <zorxml.h>

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

const char* const kDefaultRdrctPath = "/webmgr/check_result.txt";
const char* const kDefaultChkConf = "/work/cfmgr/up/zor.conf";

// The driver's keys and the disk type (the common value), named as the report names them.
constexpr ZorKey kLogLevel = {.key = "/root/TYPE/log/level",
                              .offset = 0,
                              .size = sizeof(int),
                              .type = ZorValue::integer,
                              .min = 1,
                              .max = 32};
constexpr ZorKey kLogSize = {
    .key = "/root/TYPE/log/size", .offset = 0, .size = sizeof(int), .type = ZorValue::integer};
constexpr ZorKey kDisktype = {.key = "disktype", .offset = 0, .size = ZOR_NAME_SIZE};

// E [018] for a value that cannot stand unquoted in a command line. 0 or 1.
int check_word(const ZorKey& row, const void* value, const char* resource)
{
    if (row.type != ZorValue::word && row.type != ZorValue::words) {
        return 0;
    }
    if (cmd_word_ok(static_cast<const char*>(value), row.type == ZorValue::word ? ZA_WORD : ZA_WORDS)) {
        return 0;
    }
    char xmlpath[ZOR_PATH_SIZE];
    BPRINTF(xmlpath, "/root/resource/%s@%s/parameters/%s", type, resource, row.key);
    chk_report("E [018] %s has an invalid character.", xmlpath);
    return 1;
}

// Validates the rows of a table that are used as `use` says, also after a
// failed one, so that the report lists every fault. Returns 0 or 1.
int check_keys(ZorKeyTable table, void* record, ZorUse use, const char* resource, const char* hostname)
{
    int ret = 0;
    for (const ZorKey* row = table.rows; row < table.rows + table.count; row++) {
        if (row->use != use) {
            continue;
        }
        void* field = row->field(record);
        if (row->key[0] == '/') {
            ret |= xmlparam_check(*row, field, hostname, "%s", row->key);
        } else if (xmlparam_check(*row, field, hostname, "/root/resource/%s@%s/parameters/%s", type, resource,
                                  row->key) != 0) {
            ret = 1;
        } else {
            ret |= check_word(*row, field, resource);
        }
    }
    return ret;
}

// What --test reads into; a kind or group names its record by offset.
struct Records {
    ZOR_DISK_PARAM disk;
    ZOR_VXVOL_PARAM vxvol;
    ZOR_NAS_PARAM nas;
    ZOR_RAW_PARAM raw;  // also the device values of the other kinds, for the device checks
    ZOR_FSCK fsck;
    ZOR_MOUNT mount;
    ZOR_UMOUNT umount;
    ZOR_BIND bind;
    ZOR_UNBIND unbind;
    ZOR_RELPATH relpath;
    ZOR_ROSET roset;
};

// The groups, in the order they are validated.
struct Group {
    int bit;
    ZorKeyTable keys;
    size_t record;
};

enum {
    GRP_FSCK = 1,
    GRP_MOUNT = 2,
    GRP_UMOUNT = 4,
    GRP_BIND = 8,
    GRP_UNBIND = 16,
    GRP_RELPATH = 32,
    GRP_ROSET = 64
};

const Group kGroups[] = {
    {GRP_FSCK, zor_table(kFsckKeys), offsetof(Records, fsck)},
    {GRP_MOUNT, zor_table(kMountKeys), offsetof(Records, mount)},
    {GRP_UMOUNT, zor_table(kUmountKeys), offsetof(Records, umount)},
    {GRP_BIND, zor_table(kBindKeys), offsetof(Records, bind)},
    {GRP_UNBIND, zor_table(kUnbindKeys), offsetof(Records, unbind)},
    {GRP_RELPATH, zor_table(kRelpathKeys), offsetof(Records, relpath)},
    {GRP_ROSET, zor_table(kRosetKeys), offsetof(Records, roset)},
};

// The kinds of resource: their own keys, their groups and the device checks.
struct Kind {
    const char* type;
    const char* disktypes[2];  // compared without regard to case; none: any
    bool host;                 // per-server values: needs the host name
    ZorKeyTable keys;
    size_t record;
    int groups;
    int checks;
};

constexpr int kFsGroups = GRP_FSCK | GRP_MOUNT | GRP_UMOUNT | GRP_RELPATH;

// clang-format off
const Kind kKinds[] = {
    {.type = "disk", .disktypes = {"disk", "lvm"}, .host = true, .keys = zor_table(kDiskKeys),
     .record = offsetof(Records, disk), .groups = kFsGroups | GRP_ROSET,
     .checks = CHK_BLOCKDEV | CHK_FSTAB | CHK_MNTPOINT},
    {.type = "disk", .disktypes = {"raw"}, .host = true, .keys = zor_table(kRawKeys),
     .record = offsetof(Records, raw), .groups = GRP_BIND | GRP_UNBIND | GRP_ROSET,
     .checks = CHK_BLOCKDEV | CHK_FSTAB | CHK_RAWDEV},
    {.type = "disk", .disktypes = {"vxvm"}, .host = false, .keys = zor_table(kVxvolKeys),
     .record = offsetof(Records, vxvol), .groups = kFsGroups,
     .checks = CHK_BLOCKDEV | CHK_FSTAB | CHK_RAWDEV | CHK_MNTPOINT},
    {.type = "nas", .disktypes = {}, .host = false, .keys = zor_table(kNasKeys), .record = offsetof(Records, nas),
     .groups = GRP_MOUNT | GRP_UMOUNT | GRP_RELPATH, .checks = CHK_FSTAB | CHK_MNTPOINT},
};
// clang-format on

void* record_at(Records& recs, size_t offset)
{
    return reinterpret_cast<char*>(&recs) + offset;
}

// The kind of the resource under check, or nullptr after its E line.
const Kind* find_kind(const char* disktype)
{
    bool known_type = false;
    for (const Kind& k : kKinds) {
        if (strcmp(type, k.type) == 0) {
            known_type = true;
            if (k.disktypes[0] == nullptr) {
                return &k;
            }
            for (const char* name : k.disktypes) {
                if (name != nullptr && strcasecmp(disktype, name) == 0) {
                    return &k;
                }
            }
        }
    }
    if (known_type) {
        chk_report("E [005] disktype is illegal.(%s)", disktype);
    } else {
        chk_report("E [006] type is illegal.(%s)", type);
    }
    return nullptr;
}

// The server is examined only for a configuration that is complete.
int check_devices(const Kind& kind, Records& r, const char* resource, const char* disktype)
{
    int ret = 0;
    ZOR_RAW_PARAM& dev = r.raw;
    if (kind.record == offsetof(Records, disk)) {
        BCOPY(dev.devname, r.disk.devname);
    } else if (kind.record == offsetof(Records, vxvol)) {
        BCOPY(dev.devname, r.vxvol.devname);
        BCOPY(dev.rawdev, r.vxvol.rawdev);
    }
    if (kind.checks & CHK_BLOCKDEV) {
        const int bad = check_blockdev(dev.devname, disktype);
        const char* fstype = kind.record == offsetof(Records, disk)    ? r.disk.fstype
                             : kind.record == offsetof(Records, vxvol) ? r.vxvol.fstype
                                                                       : "";
        if (bad == 0) {
            ret |= check_mmp(dev.devname, fstype, r.mount.to);
            ret |= check_fsid(resource, dev.devname, fstype);
        }
        ret |= bad;
    }
    if (kind.checks & CHK_FSTAB) {
        char specname[1281];
        if (kind.record == offsetof(Records, nas)) {
            BPRINTF(specname, "%s:%s", r.nas.server, r.nas.share);
        } else {
            BCOPY(specname, dev.devname);
        }
        ret |= check_fstab(specname);
    }
    if (kind.checks & CHK_RAWDEV) {
        ret |= check_rawdev(disktype, dev.devname, dev.rawdev, dev.rawpath, dev.rawto);
    }
    if (kind.checks & CHK_MNTPOINT) {
        ret |= check_mntpoint(r.mount.point);
    }
    return ret;
}

// Standard output redirected to the result file, and back.
struct Redirect {
    bool active = false;  // freopen was tried
    int saved = -1;       // the process's own standard output
    FILE* fp = nullptr;
};

bool redirect_open(Redirect& rd, const char* path)
{
    fflush(stdout);
    rd.active = true;
    rd.saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    rd.fp = freopen(path, "a", stdout);
    return rd.fp != nullptr;
}

// Closes the result file and gives the process its own standard output back.
void redirect_close(Redirect& rd)
{
    fflush(stdout);
    if (rd.saved >= 0) {
        dup2(rd.saved, STDOUT_FILENO);
        close(rd.saved);
        rd.saved = -1;
    } else {
        close(STDOUT_FILENO);
    }
    rd.fp = nullptr;
    rd.active = false;
}

}  // namespace

int xmlparam_check(const ZorKey& row, void* field, const char* hostname, const char* fmt, ...)
{
    char xmlpath[ZOR_PATH_SIZE];
    va_list ap;
    va_start(ap, fmt);
    zor_vbprintf(xmlpath, sizeof(xmlpath), fmt, ap);
    va_end(ap);

    int len = row.size;
    int ret;
    // --test validates the common value of a key that only the loaders read per server.
    if (row.scope != ZorScope::per_server) {
        ret = xmllib_get_value(xmlpath, row.vtype(), field, &len);
        tracexml(ret, ZOR_SRC, "xmllib_get_value(%s, %d)", xmlpath, row.vtype());
    } else {
        ret = xmllib_get_srvsep_value(hostname, xmlpath, row.vtype(), field, &len);
        tracexml(ret, ZOR_SRC, "xmllib_get_srvsep_value(%s, %d)", xmlpath, row.vtype());
    }
    if (ret != ZOR_XMLERR_SUCCESS) {
        if (row.required) {
            chk_report("E [002] %s not exists.", xmlpath);
            return 1;
        }
        return 0;
    }
    if (row.type == ZorValue::integer) {
        int value = *static_cast<int*>(field);
        if (value < row.min || value > row.max) {
            chk_report("E [003] %s is out of range. (%d - %d)", xmlpath, row.min, row.max);
            return 1;
        }
    }
    return 0;
}

// A file of the check, named by the setting at xmlpath (dflt when unset), and
// the install path it lies below. 1 when the install path is not set.
static int read_check_paths(char (&file)[ZOR_PATH_SIZE], const char* xmlpath, const char* dflt,
                            char (&inspath)[ZOR_PATH_SIZE])
{
    xmlparam_check({.key = xmlpath, .offset = 0, .size = sizeof(file), .required = false}, file, "", "%s",
                   xmlpath);
    if (file[0] == '\0') {
        trace(TR_ERROR, ZOR_SRC, "xmlpath(%s) is not found. set default path(%s).", xmlpath, dflt);
        BCOPY(file, dflt);
    }
    xmlparam_check({.key = "/root/all/path", .offset = 0, .size = sizeof(inspath)}, inspath, "",
                   "/root/all/path");
    if (inspath[0] == '\0') {
        trace(TR_ERROR, ZOR_SRC, "xmlpath(/root/all/path) is not found.");
        return 1;
    }
    return 0;
}

int disk_load_newconf(void** handle)
{
    TRACE_ENTER();
    char chkconf[ZOR_PATH_SIZE] = {};
    char inspath[ZOR_PATH_SIZE] = {};
    char newconfpath[ZOR_PATH_SIZE];

    *handle = nullptr;
    if (read_check_paths(chkconf, "/root/cluster/check/chkconf", kDefaultChkConf, inspath) != 0) {
        TRACE_EXIT(1);
        return 1;
    }
    // Joined as they stand: the configured name carries its own separator.
    if (BPRINTF(newconfpath, "%s%s", inspath, chkconf) != 0) {
        trace(TR_ERROR, ZOR_SRC, "newconfpath:%s is too long.", newconfpath);
        TRACE_EXIT(1);
        return 1;
    }
    trace(TR_INFO, ZOR_SRC, "newconfpath:%s", newconfpath);

    int ret = xmllib_load_pathconfig(newconfpath, handle);
    tracexml(ret, ZOR_SRC, "xmllib_load_pathconfig(%s)", newconfpath);
    if (ret != ZOR_XMLERR_SUCCESS) {
        trace(TR_ERROR, ZOR_SRC, "xmllib_load_pathconfig(%s) failed(%d).", newconfpath, ret);
        TRACE_EXIT(1);
        return 1;
    }
    ret = xmllib_change_config(*handle);
    tracexml(ret, ZOR_SRC, "xmllib_change_config(%s)", newconfpath);
    if (ret != ZOR_XMLERR_SUCCESS) {
        // The handle stays set: the caller unloads it.
        trace(TR_ERROR, ZOR_SRC, "xmllib_change_config(%s) failed(%d).", newconfpath, ret);
        TRACE_EXIT(1);
        return 1;
    }
    TRACE_EXIT(0);
    return 0;
}

void disk_unload_newconf(void* handle)
{
    TRACE_ENTER();
    int ret = xmllib_unload_pathconfig(handle);
    tracexml(ret, ZOR_SRC, "xmllib_unload_pathconfig()");
    ret = xmllib_change_config(nullptr);
    tracexml(ret, ZOR_SRC, "xmllib_change_config(NULL)");
    TRACE_EXIT(0);
}

int disk_check(const char* resource)
{
    TRACE_ENTER();
    trace(TR_INFO, ZOR_SRC, "--test rsc:%s", resource);

    int ret = 0;
    void* newconf_handle = nullptr;
    Redirect rdrct;
    char hostname[ZOR_HOST_SIZE] = {};
    char logpath[ZOR_PATH_SIZE] = {};
    char rdrctpath[ZOR_PATH_SIZE] = {};
    char disktype[ZOR_NAME_SIZE] = {};
    int loglevel = 0;
    int logsize = 0;
    const Kind* kind = nullptr;
    Records recs = {};
    memset(ipath, 0, sizeof(ipath));

    // Where the report goes comes from the running configuration.
    if (read_check_paths(rdrctpath, "/root/cluster/check/rdrctpath", kDefaultRdrctPath, ipath) != 0) {
        ret = 1;
        goto end;
    }
    // A cut path would name some other file: refuse it like one that cannot be opened.
    if (BPRINTF(logpath, "%s%s", ipath, rdrctpath) != 0) {
        trace(TR_ERROR, ZOR_SRC, "freopen(%s) failed.", logpath);
        ret = 1;
        goto end;
    }
    trace(TR_INFO, ZOR_SRC, "logpath:%s", logpath);
    if (!redirect_open(rdrct, logpath)) {
        trace(TR_ERROR, ZOR_SRC, "freopen(%s) failed.", logpath);
        ret = 1;
        goto end;
    }
    chk_report("***** START [type : %s][rscname : %s]", type, resource);

    if (disk_load_newconf(&newconf_handle) != 0) {
        ret = 1;
        goto end;
    }

    // Read before the kind of resource is known.
    ret |= xmlparam_check(kLogLevel, &loglevel, "", "/root/%s/log/level", type);
    ret |= xmlparam_check(kLogSize, &logsize, "", "/root/%s/log/size", type);
    ret |=
        xmlparam_check(kDisktype, disktype, "", "/root/resource/%s@%s/parameters/disktype", type, resource);
    if (ret != 0) {
        goto end;
    }
    if ((kind = find_kind(disktype)) == nullptr) {
        ret = 1;
        goto end;
    }
    if (kind->host && get_hostname(hostname) != 0) {
        chk_report("E [004] get hostname failed.");
        ret = 1;
        goto end;
    }
    ret |= check_keys(kind->keys, record_at(recs, kind->record), ZorUse::always, resource, hostname);
    for (const Group& g : kGroups) {
        if (kind->groups & g.bit) {
            ret |= check_keys(g.keys, record_at(recs, g.record), ZorUse::always, resource, hostname);
            // A NAS mount has no recovery check.
            if (g.bit == GRP_MOUNT && strcmp(type, "nas") != 0) {
                ret |= check_keys(g.keys, record_at(recs, g.record), ZorUse::disk_only, resource, hostname);
            }
        }
    }
    if (ret == 0) {
        ret |= check_devices(*kind, recs, resource, disktype);
    }

end:
    trace(TR_INFO, ZOR_SRC, "check end. ret = %d.", ret);
    if (newconf_handle != nullptr) {
        disk_unload_newconf(newconf_handle);
    }
    if (ret == 0) {
        chk_report("I [001] Success in a composition check.");
    }
    chk_report("***** END [type : %s][rscname : %s]", type, resource);
    if (rdrct.active) {
        redirect_close(rdrct);
    }
    TRACE_EXIT(ret);
    return ret;
}
