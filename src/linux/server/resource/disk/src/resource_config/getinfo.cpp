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

// Common start of the three resource loaders: both existence checks, the
// copied names and the parameter path.
int check_and_name(const char* resource, const char* group, char (&rscname_out)[ZOR_NAME_SIZE],
                   char (&rsctype_out)[ZOR_NAME_SIZE], char (&xmlpath)[ZOR_PATH_SIZE])
{
    int ret = ckgrpexist(group);
    if (ret == 0) {
        ret = ckrscexist(resource, group);
    }
    if (ret != 0) {
        return ret;
    }
    BCOPY(rscname_out, resource);
    BCOPY(rsctype_out, type);
    BPRINTF(xmlpath, "/root/resource/%s@%s/parameters", type, resource);
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

// The mount, unmount and check groups that disks and volumes share, with the
// "xfs" values applied. hostname as get_mount() takes it.
int load_fs_groups(const char* xmlpath, const char* fstype, const char* hostname, PZOR_MOUNT pmount,
                   PZOR_UMOUNT pumount, PZOR_FSCK pfsck)
{
    int ret = get_mount(xmlpath, pmount, hostname);
    if (ret != 0) {
        return ret;
    }
    apply_xfs_mount(fstype, pmount);
    if ((ret = get_umount(xmlpath, pumount)) != 0) {
        return ret;
    }
    if ((ret = get_fsck(xmlpath, pfsck)) != 0) {
        return ret;
    }
    apply_xfs_fsck(fstype, pfsck);
    return 0;
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
    int ret = check_and_name(resource, group, pparam->rscname, pparam->rsctype, xmlpath);
    if (ret != 0) {
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return ret;
    }
    ret = get_hostname(hostname);
    if (ret != 0) {
        trace(TR_ERROR, ZOR_SRC, "get_hostname() failed. (ret=%d)", ret);
        return 20;
    }

    // Device, file system and disk type may differ per server.
    const ZorKey dev_row[] = {zor_srv_str_key("device", pparam->devname)};
    const ZorKey rest_rows[] = {
        zor_srv_str_key("fs", pparam->fstype),
        zor_srv_str_key("disktype", pparam->disktype),
    };
    if (zor_read_keys(ZOR_SRC, xmlpath, dev_row, hostname) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    BCOPY(pparam->rawdev, pparam->devname);
    if (zor_read_keys(ZOR_SRC, xmlpath, rest_rows, hostname) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "device   : %s", pparam->devname);
    trace(TR_INFO, ZOR_SRC, "fs       : %s", pparam->fstype);
    trace(TR_INFO, ZOR_SRC, "disktype : %s", pparam->disktype);

    ret = load_fs_groups(xmlpath, pparam->fstype, hostname, &pparam->mount, &pparam->umount, &pparam->fsck);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    // zfs manages its own devices: there is no read-only switch to configure.
    if (strcmp(pparam->fstype, "zfs") != 0) {
        if ((ret = get_roset(xmlpath, &pparam->roset)) != 0) {
            TRACE_EXIT(ret);
            return ret;
        }
    }
    if ((ret = get_relpath(xmlpath, &pparam->relpath)) != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    TRACE_EXIT(0);
    return 0;
}

int getinfo_vxvol(const char* resource, const char* group, PZOR_VXVOL_PARAM pparam)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    int ret = check_and_name(resource, group, pparam->rscname, pparam->rsctype, xmlpath);
    if (ret != 0) {
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return ret;
    }
    // A volume's names are the same on every server: no host name needed.
    const ZorKey rows[] = {
        zor_str_key("device", pparam->devname),
        zor_str_key("rawdevice", pparam->rawdev),
        zor_str_key("fs", pparam->fstype),
    };
    if (zor_read_keys(ZOR_SRC, xmlpath, rows) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "device   : %s", pparam->devname);
    trace(TR_INFO, ZOR_SRC, "rawdev   : %s", pparam->rawdev);
    trace(TR_INFO, ZOR_SRC, "fs       : %s", pparam->fstype);

    ret = load_fs_groups(xmlpath, pparam->fstype, nullptr, &pparam->mount, &pparam->umount, &pparam->fsck);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    if ((ret = get_relpath(xmlpath, &pparam->relpath)) != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    TRACE_EXIT(0);
    return 0;
}

int getinfo_nas(const char* resource, const char* group, PZOR_NAS_PARAM pparam)
{
    TRACE_ENTER();
    char xmlpath[ZOR_PATH_SIZE] = {};
    int ret = check_and_name(resource, group, pparam->rscname, pparam->rsctype, xmlpath);
    if (ret != 0) {
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return ret;
    }
    const ZorKey rows[] = {
        zor_str_key("svname", pparam->server),
        zor_str_key("share", pparam->share),
        zor_str_key("fs", pparam->fstype),
        zor_str_key("ping/path", pparam->pingpath),
    };
    const ZorKey to_row[] = {zor_int_key("ping/timeout", &pparam->pingto)};
    if (zor_read_keys(ZOR_SRC, xmlpath, rows) != 0 ||
        zor_compose_cmdpath(pparam->pingpath, sizeof(pparam->pingpath), "ping") != 0 ||
        zor_read_keys(ZOR_SRC, xmlpath, to_row) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "server   : %s", pparam->server);
    trace(TR_INFO, ZOR_SRC, "share    : %s", pparam->share);
    trace(TR_INFO, ZOR_SRC, "fs       : %s", pparam->fstype);
    trace(TR_INFO, ZOR_SRC, "pingpath ; %s", pparam->pingpath);
    trace(TR_INFO, ZOR_SRC, "pingto   : %d", pparam->pingto);

    if ((ret = get_mount_nas(xmlpath, &pparam->mount)) != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    if ((ret = get_umount(xmlpath, &pparam->umount)) != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    if ((ret = get_relpath(xmlpath, &pparam->relpath)) != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    TRACE_EXIT(0);
    return 0;
}
