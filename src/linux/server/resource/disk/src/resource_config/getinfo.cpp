// Resource loaders: confirm that the group and the resource are configured,
// then fill the resource's whole parameter record.
#include "key_table.h"
#include "zor_loader.h"

#include "../bounded.h"
#include "../disk.h"
#include "../tracersc.h"
#include "../value.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

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
        return 16;
    }
    trace2(TR_DETAIL, ZOR_SRC, "malloc(%d) (value) success.", size);

    ret = xmllib_enum_value(listpath, value, &size);
    tracexml(ret, ZOR_SRC, "xmllib_enum_value(%s)", listpath);
    if (ret != 0) {
        ret = 4;
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

// The opening of the three resource loaders, traced under the loader's name:
// both existence checks, the copied names, the parameter path, the host name
// when hostname is given, and the resource's own keys. Returns 0 or the
// loader's result; on a failed key also its exit trace.
int open_resource(const char* file, int line, const char* func, const char* resource, const char* group,
                  char (&rscname_out)[ZOR_NAME_SIZE], char (&rsctype_out)[ZOR_NAME_SIZE],
                  char (&xmlpath)[ZOR_PATH_SIZE], ZorKeyTable keys, void* record, char* hostname)
{
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
    if (hostname != nullptr && (ret = get_hostname(hostname)) != 0) {
        trace(TR_ERROR, file, line, func, "get_hostname() failed. (ret=%d)", ret);
        return 20;
    }
    if (zor_read_keys(file, line, func, xmlpath, keys, record, {.host = hostname}) != 0) {
        trace(TR_DETAIL, file, line, func, "<<< EXIT >>> : 0x%08lx", 4L);
        return 4;
    }
    return 0;
}

// The command groups of a resource, read in this order; a group without a
// record is not read.
struct Groups {
    PZOR_MOUNT mount;
    PZOR_UMOUNT umount;
    PZOR_FSCK fsck;
    PZOR_ROSET roset;  // not read for zfs
    PZOR_RELPATH relpath;
    const char* host;  // as get_mount() takes it
    bool share;        // a NAS share: get_mount_nas()
};

// Loads the groups and, for the file system "xfs", lets the xfs values replace
// the general ones: one repair command serves both uses.
int load_groups(const char* xmlpath, const char* fstype, const Groups& g)
{
    const bool xfs = strcmp(fstype, "xfs") == 0;
    int ret = g.share ? get_mount_nas(xmlpath, g.mount) : get_mount(xmlpath, g.mount, g.host);
    if (ret != 0) {
        return ret;
    }
    if (xfs && !g.share) {
        trace(TR_INFO, ZOR_SRC, "filesystem is xfs. overwrite mount/act params.");
        g.mount->act = g.mount->xfsact;
    }
    if ((ret = get_umount(xmlpath, g.umount)) != 0) {
        return ret;
    }
    if (g.fsck != nullptr) {
        if ((ret = get_fsck(xmlpath, g.fsck)) != 0) {
            return ret;
        }
        if (xfs) {
            trace(TR_INFO, ZOR_SRC, "filesystem is xfs. overwrite fsck params.");
            g.fsck->to = g.fsck->xfsto;
            g.fsck->timing = g.fsck->xfstiming;
            g.fsck->interval = g.fsck->xfsinterval;
        }
    }
    // zfs manages its own devices: there is no read-only switch to configure.
    if (g.roset != nullptr && strcmp(fstype, "zfs") != 0) {
        if ((ret = get_roset(xmlpath, g.roset)) != 0) {
            return ret;
        }
    }
    return get_relpath(xmlpath, g.relpath);
}

}  // namespace

int ckgrpexist(const char* group)
{
    TRACE_ENTER();
    int ret = find_in_list(ListKind::group, "/root/group", group, group, 3);
    if (ret == 0) {
        trace(TR_DETAIL, ZOR_SRC, "group=%s exist in config.", group);
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
    } else {
        TRACE_EXIT(ret);
    }
    return ret;
}

int ckrscexist(const char* resource, const char* group)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    char xmlrsc[ZOR_PATH_SIZE] = {};
    BPRINTF(xmlpath, "/root/group@%s/resource", group);
    BPRINTF(xmlrsc, "%s@%s", type, resource);
    int ret = find_in_list(ListKind::resource, xmlpath, xmlrsc, resource, 2);
    if (ret == 0) {
        trace(TR_DETAIL, ZOR_SRC, "resource=%s exist in config.", resource);
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
    } else {
        TRACE_EXIT(ret);
    }
    return ret;
}

int getinfo_disk(const char* resource, const char* group, PZOR_DISK_PARAM pparam)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    char hostname[ZOR_HOST_SIZE] = {};
    // Device, file system and disk type may differ per server.
    int ret = open_resource(ZOR_SRC, resource, group, pparam->rscname, pparam->rsctype, xmlpath,
                            zor_table(kDiskKeys), pparam, hostname);
    BCOPY(pparam->rawdev, pparam->devname);
    if (ret != 0) {
        return ret;
    }
    trace(TR_INFO, ZOR_SRC, "device   : %s", pparam->devname);
    trace(TR_INFO, ZOR_SRC, "fs       : %s", pparam->fstype);
    trace(TR_INFO, ZOR_SRC, "disktype : %s", pparam->disktype);
    ret = load_groups(xmlpath, pparam->fstype,
                      {&pparam->mount, &pparam->umount, &pparam->fsck, &pparam->roset, &pparam->relpath, hostname,
                       false});
    TRACE_EXIT(ret);
    return ret;
}

int getinfo_vxvol(const char* resource, const char* group, PZOR_VXVOL_PARAM pparam)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    int ret = open_resource(ZOR_SRC, resource, group, pparam->rscname, pparam->rsctype, xmlpath,
                            zor_table(kVxvolKeys), pparam, nullptr);
    if (ret != 0) {
        return ret;
    }
    trace(TR_INFO, ZOR_SRC, "device   : %s", pparam->devname);
    trace(TR_INFO, ZOR_SRC, "rawdev   : %s", pparam->rawdev);
    trace(TR_INFO, ZOR_SRC, "fs       : %s", pparam->fstype);
    ret = load_groups(xmlpath, pparam->fstype,
                      {&pparam->mount, &pparam->umount, &pparam->fsck, nullptr, &pparam->relpath, nullptr, false});
    TRACE_EXIT(ret);
    return ret;
}

int getinfo_nas(const char* resource, const char* group, PZOR_NAS_PARAM pparam)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    int ret = open_resource(ZOR_SRC, resource, group, pparam->rscname, pparam->rsctype, xmlpath,
                            zor_table(kNasKeys), pparam, nullptr);
    if (ret != 0) {
        return ret;
    }
    trace(TR_INFO, ZOR_SRC, "server   : %s", pparam->server);
    trace(TR_INFO, ZOR_SRC, "share    : %s", pparam->share);
    trace(TR_INFO, ZOR_SRC, "fs       : %s", pparam->fstype);
    trace(TR_INFO, ZOR_SRC, "pingpath ; %s", pparam->pingpath);
    trace(TR_INFO, ZOR_SRC, "pingto   : %d", pparam->pingto);
    ret = load_groups(xmlpath, pparam->fstype,
                      {&pparam->mount, &pparam->umount, nullptr, nullptr, &pparam->relpath, nullptr, true});
    TRACE_EXIT(ret);
    return ret;
}
