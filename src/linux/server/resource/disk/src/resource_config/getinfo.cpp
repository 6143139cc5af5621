// Resource loaders: confirm that the group and the resource are configured,
// then fill the resource's whole parameter record.
#include "key_table.h"
#include "zor_loader.h"

#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"
#include "../value.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

enum class ListKind { group, resource };

void trace_missing(ListKind kind, const char* name)
{
    if (kind == ListKind::group) {
        trace(TR_WARNING, ZOR_SRC, "group=%s not exist in config.", name);
    } else {
        trace(TR_WARNING, ZOR_SRC, "resource=%s not exist in config.", name);
    }
}

// Looks `wanted` up in the enumeration at `listpath`. `shown` is the name the
// traces give. Returns 0, `notfound`, 4, 16 or the size query's own code.
int find_in_list(ListKind kind, const char* listpath, const char* wanted, const char* shown, int notfound)
{
    int size = 0;
    char* value = nullptr;
    int ret = xmllib_enum_value(listpath, nullptr, &size);
    // Without a buffer the library answers "too small" with the size needed.
    if (ret != ZOR_XMLERR_SUCCESS && ret != ZOR_XMLERR_NOTENOUGH_SIZE) {
        return ret;
    }
    const int num = size > 0 ? size / ZOR_XML_ENUM_SLOT : 0;
    if (kind == ListKind::group) {
        trace(TR_DETAIL, ZOR_SRC, "group_num=%d", num);
    } else {
        trace(TR_DETAIL, ZOR_SRC, "rscnum=%d", num);
    }
    if (num == 0) {
        trace_missing(kind, shown);
        return notfound;
    }

    value = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (value == nullptr) {
        trace2(TR_ERROR, ZOR_SRC, "malloc(%d) (*value) failed. (errno=%d)", size, errno);
        return ZR_NO_MEMORY;
    }
    trace2(TR_DETAIL, ZOR_SRC, "malloc(%d) (value) success.", size);

    ret = xmllib_enum_value(listpath, value, &size);
    tracexml(ret, ZOR_SRC, "xmllib_enum_value(%s)", listpath);
    if (ret != 0) {
        ret = ZR_CONFIG;
    } else {
        ret = notfound;
        for (int i = 0; i < num; i++) {
            const char* slot = value + static_cast<size_t>(i) * ZOR_XML_ENUM_SLOT;
            // Exact and bounded: a slot is not trusted to be terminated.
            if (strnlen(slot, ZOR_XML_ENUM_SLOT) < ZOR_XML_ENUM_SLOT && strcmp(slot, wanted) == 0) {
                ret = 0;
                break;
            }
        }
        if (ret != 0) {
            trace_missing(kind, shown);
        }
    }
    free(value);
    trace2(TR_DETAIL, ZOR_SRC, "free(value) success.");
    return ret;
}

// The existence checks' exit traces, under the check's name. Returns ret.
int end_lookup(const char* file, int line, const char* func, int ret, ListKind kind, const char* name)
{
    if (ret != 0) {
        trace(TR_DETAIL, file, line, func, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ret));
        return ret;
    }
    if (kind == ListKind::group) {
        trace(TR_DETAIL, file, line, func, "group=%s exist in config.", name);
    } else {
        trace(TR_DETAIL, file, line, func, "resource=%s exist in config.", name);
    }
    trace(TR_DETAIL, file, line, func, "<<< EXIT >>>");
    return 0;
}

// The "xfs" values replace the general ones: one repair command for both uses.
void apply_xfs_mount(const char* fstype, PZOR_MOUNT pmount)
{
    if (strcmp(fstype, "xfs") == 0) {
        trace(TR_INFO, ZOR_SRC, "filesystem is xfs. overwrite mount/act params.");
        pmount->act = pmount->xfsact;
    }
}

void apply_xfs_fsck(const char* fstype, PZOR_FSCK pfsck)
{
    if (strcmp(fstype, "xfs") == 0) {
        trace(TR_INFO, ZOR_SRC, "filesystem is xfs. overwrite fsck params.");
        pfsck->to = pfsck->xfsto;
        pfsck->timing = pfsck->xfstiming;
        pfsck->interval = pfsck->xfsinterval;
    }
}

// The command groups of a resource, read in this order; a group without a
// record is not read.
struct Groups {
    PZOR_MOUNT mount;
    PZOR_UMOUNT umount;
    PZOR_FSCK fsck = nullptr;
    PZOR_ROSET roset = nullptr;  // not read for zfs
    PZOR_RELPATH relpath;
    bool share = false;  // a NAS share: get_mount_nas()
};

int load_groups(const char* xmlpath, const char* fstype, const char* host, const Groups& g)
{
    int ret = g.share ? get_mount_nas(xmlpath, g.mount) : get_mount(xmlpath, g.mount, host);
    if (ret != 0) {
        return ret;
    }
    if (!g.share) {
        apply_xfs_mount(fstype, g.mount);
    }
    if ((ret = get_umount(xmlpath, g.umount)) != 0) {
        return ret;
    }
    if (g.fsck != nullptr) {
        if ((ret = get_fsck(xmlpath, g.fsck)) != 0) {
            return ret;
        }
        apply_xfs_fsck(fstype, g.fsck);
    }
    // zfs manages its own devices: there is no read-only switch to configure.
    if (g.roset != nullptr && strcmp(fstype, "zfs") != 0) {
        if ((ret = get_roset(xmlpath, g.roset)) != 0) {
            return ret;
        }
    }
    return get_relpath(xmlpath, g.relpath);
}

// A value that a resource loader traces once its own keys are read:
// the label, then the text or number at offset in the record.
struct Shown {
    const char* label;
    size_t offset;
    bool number = false;
};

// One kind of resource: its keys, what is traced of them, and its groups.
struct ResourceKind {
    ZorKeyTable keys;
    const Shown* shown;
    size_t nshown;
    bool host = false;                           // per-server values: needs the host name
    void (*after_keys)(void* record) = nullptr;  // runs after the keys, read or not
};

// Loads one resource, traced under the loader's name: both existence checks,
// the copied names, the parameter path, the host name, the resource's own
// keys, then its groups. Returns 0, 2, 3, 4, 16, 20 or a library code.
int load_resource(const char* file, int line, const char* func, const char* resource, const char* group,
                  const ResourceKind& kind, void* record, char (&rscname_out)[ZOR_NAME_SIZE],
                  char (&rsctype_out)[ZOR_NAME_SIZE], const char* fstype, const Groups& groups)
{
    trace(TR_DETAIL, file, line, func, "<<< ENTER >>>");
    char xmlpath[ZOR_PATH_SIZE] = {};
    char hostname[ZOR_HOST_SIZE] = {};
    char* host = kind.host ? hostname : nullptr;
    int ret = ckgrpexist(group);
    if (ret == 0) {
        ret = ckrscexist(resource, group);
    }
    if (ret != 0) {
        trace(TR_DETAIL, file, line, func, "<<< EXIT >>>");
        return ret;
    }
    BCOPY(rscname_out, resource);
    BCOPY(rsctype_out, type);
    BPRINTF(xmlpath, "/root/resource/%s@%s/parameters", type, resource);
    if (host != nullptr && (ret = get_hostname(host)) != 0) {
        trace(TR_ERROR, file, line, func, "get_hostname() failed. (ret=%d)", ret);
        return ZR_NO_HOSTNAME;
    }
    ret = zor_read_keys(file, line, func, xmlpath, kind.keys, record, {.host = host});
    if (kind.after_keys != nullptr) {
        kind.after_keys(record);
    }
    if (ret != 0) {
        trace(TR_DETAIL, file, line, func, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ZR_CONFIG));
        return ZR_CONFIG;
    }
    for (const Shown* s = kind.shown; s < kind.shown + kind.nshown; s++) {
        const char* at = static_cast<const char*>(record) + s->offset;
        if (s->number) {
            trace(TR_INFO, file, line, func, "%s%d", s->label, *reinterpret_cast<const int*>(at));
        } else {
            trace(TR_INFO, file, line, func, "%s%s", s->label, at);
        }
    }
    ret = load_groups(xmlpath, fstype, host, groups);
    trace(TR_DETAIL, file, line, func, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ret));
    return ret;
}

const Shown kDiskShown[] = {
    {"device   : ", offsetof(ZOR_DISK_PARAM, devname)},
    {"fs       : ", offsetof(ZOR_DISK_PARAM, fstype)},
    {"disktype : ", offsetof(ZOR_DISK_PARAM, disktype)},
};
const Shown kVxvolShown[] = {
    {"device   : ", offsetof(ZOR_VXVOL_PARAM, devname)},
    {"rawdev   : ", offsetof(ZOR_VXVOL_PARAM, rawdev)},
    {"fs       : ", offsetof(ZOR_VXVOL_PARAM, fstype)},
};
const Shown kNasShown[] = {
    {"server   : ", offsetof(ZOR_NAS_PARAM, server)},
    {"share    : ", offsetof(ZOR_NAS_PARAM, share)},
    {"fs       : ", offsetof(ZOR_NAS_PARAM, fstype)},
    {"pingpath ; ", offsetof(ZOR_NAS_PARAM, pingpath)},
    {.label = "pingto   : ", .offset = offsetof(ZOR_NAS_PARAM, pingto), .number = true},
};

// Device, file system and disk type may differ per server; the raw device
// of a disk is its block device.
const ResourceKind kDiskKind = {.keys = zor_table(kDiskKeys),
                                .shown = kDiskShown,
                                .nshown = std::size(kDiskShown),
                                .host = true,
                                .after_keys = [](void* record) {
                                    auto* p = static_cast<PZOR_DISK_PARAM>(record);
                                    BCOPY(p->rawdev, p->devname);
                                }};
// A volume's names are the same on every server: no host name needed.
const ResourceKind kVxvolKind = {
    .keys = zor_table(kVxvolKeys), .shown = kVxvolShown, .nshown = std::size(kVxvolShown)};
const ResourceKind kNasKind = {
    .keys = zor_table(kNasKeys), .shown = kNasShown, .nshown = std::size(kNasShown)};

}  // namespace

int ckgrpexist(const char* group)
{
    TRACE_ENTER();
    return end_lookup(ZOR_SRC, find_in_list(ListKind::group, "/root/group", group, group, ZR_GROUP_UNKNOWN),
                      ListKind::group, group);
}

int ckrscexist(const char* resource, const char* group)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    char xmlrsc[ZOR_PATH_SIZE] = {};
    BPRINTF(xmlpath, "/root/group@%s/resource", group);
    BPRINTF(xmlrsc, "%s@%s", type, resource);
    return end_lookup(ZOR_SRC,
                      find_in_list(ListKind::resource, xmlpath, xmlrsc, resource, ZR_RESOURCE_UNKNOWN),
                      ListKind::resource, resource);
}

int getinfo_disk(const char* resource, const char* group, PZOR_DISK_PARAM p)
{
    return load_resource(ZOR_SRC, resource, group, kDiskKind, p, p->rscname, p->rsctype, p->fstype,
                         {.mount = &p->mount,
                          .umount = &p->umount,
                          .fsck = &p->fsck,
                          .roset = &p->roset,
                          .relpath = &p->relpath});
}

int getinfo_vxvol(const char* resource, const char* group, PZOR_VXVOL_PARAM p)
{
    return load_resource(
        ZOR_SRC, resource, group, kVxvolKind, p, p->rscname, p->rsctype, p->fstype,
        {.mount = &p->mount, .umount = &p->umount, .fsck = &p->fsck, .relpath = &p->relpath});
}

int getinfo_nas(const char* resource, const char* group, PZOR_NAS_PARAM p)
{
    return load_resource(ZOR_SRC, resource, group, kNasKind, p, p->rscname, p->rsctype, p->fstype,
                         {.mount = &p->mount, .umount = &p->umount, .relpath = &p->relpath, .share = true});
}
