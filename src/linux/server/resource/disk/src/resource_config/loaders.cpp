// Loaders of the command groups of a resource: each reads its keys in a fixed
// order, supplies the few defaults, and finishes the command paths that the
// configuration gives relative to the installation path.
#include "key_table.h"
#include "zor_loader.h"

#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"

#include <cstring>

int zor_read_keys(const char* file, int line, const char* func, const char* xmlpath, const ZorKey* rows,
                  size_t count, const char* host)
{
    char xmlwpath[ZOR_PATH_SIZE] = {};
    for (size_t i = 0; i < count; i++) {
        const ZorKey& row = rows[i];
        int cut = row.key[0] == '/' ? BCOPY(xmlwpath, row.key) : BPRINTF(xmlwpath, "%s/%s", xmlpath, row.key);
        int size = row.size;
        int ret;
        if (cut != 0) {
            // A cut path would read some other key.
            ret = ZOR_XMLERR_INVALID_PATH;
        } else if (row.srvsep) {
            ret = xmllib_get_srvsep_value(host, xmlwpath, row.vtype, row.field, &size);
        } else {
            ret = xmllib_get_value(xmlwpath, row.vtype, row.field, &size);
        }
        if (row.srvsep) {
            tracexml(ret, file, line, func, "xmllib_get_srvsep_value(%s, %d)", xmlwpath, row.vtype);
        } else {
            tracexml(ret, file, line, func, "xmllib_get_value(%s, %d)", xmlwpath, row.vtype);
        }
        if (ret == 0) {
            continue;
        }
        if (row.required) {
            return 4;
        }
        *static_cast<int*>(row.field) = row.defval;
    }
    return 0;
}

int zor_compose_cmdpath(char* path, size_t size, const char* what)
{
    char work[ZOR_PATH_SIZE] = {};
    // Also for an empty value: the installation path with a trailing "/".
    if (BPRINTF(work, "%s/%s", ipath, path) != 0 || strlen(work) >= size) {
        trace(TR_ERROR, ZOR_SRC, "%s path=%s/%s is too long.", what, ipath, path);
        path[0] = '\0';
        return 4;
    }
    zor_bcopy(path, size, work);
    return 0;
}

int get_mount(const char* xmlpath, PZOR_MOUNT pmount, const char* phostname)
{
    TRACE_ENTER();
    const ZorKey rows[] = {
        zor_str_key("mount/path", pmount->path),
        zor_srv_str_key("mount/point", pmount->point),
        zor_str_key("mount/option", pmount->opt),
        zor_int_key("mount/timeout", &pmount->to),
        zor_int_key("mount/retry", &pmount->retry),
        zor_int_key("mount/action", &pmount->act),
        zor_int_key_or("/root/cluster/exclusion/mount", &pmount->lock, 1),
        zor_int_key("mount/xfsaction", &pmount->xfsact),
    };
    if (zor_read_keys(ZOR_SRC, xmlpath, rows, phostname) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "mount path :%s", pmount->path);
    trace(TR_INFO, ZOR_SRC, "mount point:%s", pmount->point);
    trace(TR_INFO, ZOR_SRC, "mount:opt=%s,to=%d,retry=%d,act=%d,lock=%d,xfsact=%d", pmount->opt, pmount->to,
          pmount->retry, pmount->act, pmount->lock, pmount->xfsact);
    TRACE_EXIT(0);
    return 0;
}

int get_mount_nas(const char* xmlpath, PZOR_MOUNT pmount)
{
    TRACE_ENTER();
    // A share has no server-specific mount point and no recovery check.
    const ZorKey rows[] = {
        zor_str_key("mount/path", pmount->path),
        zor_str_key("mount/point", pmount->point),
        zor_str_key("mount/option", pmount->opt),
        zor_int_key("mount/timeout", &pmount->to),
        zor_int_key("mount/retry", &pmount->retry),
        zor_int_key_or("/root/cluster/exclusion/mount", &pmount->lock, 1),
    };
    if (zor_read_keys(ZOR_SRC, xmlpath, rows) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "mount path :%s", pmount->path);
    trace(TR_INFO, ZOR_SRC, "mount point:%s", pmount->point);
    trace(TR_INFO, ZOR_SRC, "mount:opt=%s,to=%d,retry=%d,lock=%d", pmount->opt, pmount->to, pmount->retry,
          pmount->lock);
    TRACE_EXIT(0);
    return 0;
}

int get_umount(const char* xmlpath, PZOR_UMOUNT pumount)
{
    TRACE_ENTER();
    const ZorKey rows[] = {
        zor_str_key("umount/path", pumount->path),
        zor_str_key("umount/option", pumount->opt),
        zor_int_key("umount/timeout", &pumount->to),
        zor_int_key("umount/retry", &pumount->retry),
        zor_str_key("umount/action", pumount->act),
        zor_int_key_or("/root/cluster/exclusion/mount", &pumount->lock, 1),
        zor_int_key_or("umount/interval", &pumount->interval, 5),
        zor_int_key_or("umount/chkprcmnts", &pumount->chkprcmnts, 0),
    };
    if (zor_read_keys(ZOR_SRC, xmlpath, rows) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "umount path:%s", pumount->path);
    trace(TR_INFO, ZOR_SRC, "umount opt:%s", pumount->opt);
    trace(TR_INFO, ZOR_SRC, "umount:to=%d,retry=%d,act=%s,lock=%d,interval=%d,chkprcmnts=%d", pumount->to,
          pumount->retry, pumount->act, pumount->lock, pumount->interval, pumount->chkprcmnts);
    TRACE_EXIT(0);
    return 0;
}

int get_fsck(const char* xmlpath, PZOR_FSCK pfsck)
{
    TRACE_ENTER();
    // The xfs keys are required whatever the file system: one record serves both.
    const ZorKey rows[] = {
        zor_str_key("fsck/path", pfsck->path),
        zor_str_key("fsck/reiserfs", pfsck->reiserpath),
        zor_int_key("fsck/rebuildopt", &pfsck->rebuildopt),
        zor_int_key("fsck/fixopt", &pfsck->fixopt),
        zor_str_key("fsck/option", pfsck->opt),
        zor_int_key("fsck/timeout", &pfsck->to),
        zor_int_key("fsck/timing", &pfsck->timing),
        zor_int_key("fsck/interval", &pfsck->interval),
        zor_str_key("fsck/xfs", pfsck->xfspath),
        zor_str_key("fsck/xfsoption", pfsck->xfsopt),
        zor_int_key("fsck/xfstimeout", &pfsck->xfsto),
        zor_int_key("fsck/xfstiming", &pfsck->xfstiming),
        zor_int_key("fsck/xfsinterval", &pfsck->xfsinterval),
    };
    if (zor_read_keys(ZOR_SRC, xmlpath, rows) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "fsck:path=%s,reiserpath=%s", pfsck->path, pfsck->reiserpath);
    trace(TR_INFO, ZOR_SRC, "fsck:opt=%s,rebuild=%d,fix=%d,to=%d,timing=%d,interval=%d", pfsck->opt,
          pfsck->rebuildopt, pfsck->fixopt, pfsck->to, pfsck->timing, pfsck->interval);
    trace(TR_INFO, ZOR_SRC, "fsck:xfspath=%s,xfsopt=%s,xfsto=%d,xfstiming=%d,xfsinterval=%d", pfsck->xfspath,
          pfsck->xfsopt, pfsck->xfsto, pfsck->xfstiming, pfsck->xfsinterval);
    TRACE_EXIT(0);
    return 0;
}

int get_roset(const char* xmlpath, PZOR_ROSET proset)
{
    TRACE_ENTER();
    const ZorKey path_row[] = {zor_str_key("roset/path", proset->path)};
    const ZorKey to_row[] = {zor_int_key("roset/timeout", &proset->to)};
    if (zor_read_keys(ZOR_SRC, xmlpath, path_row) != 0 ||
        zor_compose_cmdpath(proset->path, sizeof(proset->path), "roset") != 0 ||
        zor_read_keys(ZOR_SRC, xmlpath, to_row) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "roset:path=%s,to=%d", proset->path, proset->to);
    TRACE_EXIT(0);
    return 0;
}

int get_relpath(const char* xmlpath, PZOR_RELPATH prelpath)
{
    TRACE_ENTER();
    const ZorKey path_row[] = {zor_str_key("relpath/path", prelpath->path)};
    const ZorKey to_row[] = {zor_int_key("relpath/timeout", &prelpath->to)};
    if (zor_read_keys(ZOR_SRC, xmlpath, path_row) != 0 ||
        zor_compose_cmdpath(prelpath->path, sizeof(prelpath->path), "relpath") != 0 ||
        zor_read_keys(ZOR_SRC, xmlpath, to_row) != 0) {
        TRACE_EXIT(4);
        return 4;
    }
    trace(TR_INFO, ZOR_SRC, "relpath:path=%s,to=%d", prelpath->path, prelpath->to);
    TRACE_EXIT(0);
    return 0;
}
