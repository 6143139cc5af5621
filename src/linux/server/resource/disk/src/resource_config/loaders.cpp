// Loaders of the command groups of a resource: each reads its keys in a fixed
// order, supplies the few defaults, and finishes the command paths that the
// configuration gives relative to the installation path.
#include "key_table.h"
#include "zor_loader.h"

#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"

#include <cstring>

int zor_read_keys(const char* file, int line, const char* func, const char* xmlpath, ZorKeyTable table,
                  void* record, ZorLoad how)
{
    char xmlwpath[ZOR_PATH_SIZE] = {};
    for (const ZorKey* row = table.rows; row < table.rows + table.count; row++) {
        if (how.share && row->use == ZorUse::disk_only) {
            continue;
        }
        void* field = row->field(record);
        const bool srvsep = row->scope != ZorScope::common && !how.share;
        int cut =
            row->key[0] == '/' ? BCOPY(xmlwpath, row->key) : BPRINTF(xmlwpath, "%s/%s", xmlpath, row->key);
        int size = row->size;
        int ret;
        if (cut != 0) {
            // A cut path would read some other key.
            ret = ZOR_XMLERR_INVALID_PATH;
        } else if (srvsep) {
            ret = xmllib_get_srvsep_value(how.host, xmlwpath, row->vtype(), field, &size);
        } else {
            ret = xmllib_get_value(xmlwpath, row->vtype(), field, &size);
        }
        if (srvsep) {
            tracexml(ret, file, line, func, "xmllib_get_srvsep_value(%s, %d)", xmlwpath, row->vtype());
        } else {
            tracexml(ret, file, line, func, "xmllib_get_value(%s, %d)", xmlwpath, row->vtype());
        }
        if (ret != 0 && row->required) {
            return ZR_CONFIG;
        }
        if (ret != 0) {
            *static_cast<int*>(field) = row->defval;
        } else if (row->type == ZorValue::cmdpath) {
            // Named after the group: "roset/path" is the roset path.
            char what[ZOR_NAME_SIZE] = {};
            BPRINTF(what, "%.*s", static_cast<int>(strcspn(row->key, "/")), row->key);
            if (zor_compose_cmdpath(static_cast<char*>(field), static_cast<size_t>(row->size), what) != 0) {
                return ZR_CONFIG;
            }
        }
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
        return ZR_CONFIG;
    }
    zor_bcopy(path, size, work);
    return 0;
}

namespace {

// A group loader's opening: its entry trace and its keys, traced under the
// loader's name. On failure also its exit trace. Returns 0 or 4.
int read_group(const char* file, int line, const char* func, const char* xmlpath, ZorKeyTable table,
               void* record, ZorLoad how = {})
{
    trace(TR_DETAIL, file, line, func, "<<< ENTER >>>");
    if (zor_read_keys(file, line, func, xmlpath, table, record, how) != 0) {
        trace(TR_DETAIL, file, line, func, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ZR_CONFIG));
        return ZR_CONFIG;
    }
    return 0;
}

// The read-only switch and the release path: a command and its time limit.
int get_command(const char* file, int line, const char* func, const char* xmlpath, ZorKeyTable table,
                void* record, const char* what, const char* path, const int* to)
{
    if (read_group(file, line, func, xmlpath, table, record) != 0) {
        return ZR_CONFIG;
    }
    trace(TR_INFO, file, line, func, "%s:path=%s,to=%d", what, path, *to);
    trace(TR_DETAIL, file, line, func, "<<< EXIT >>> : 0x%08lx", 0L);
    return 0;
}

}  // namespace

int get_mount(const char* xmlpath, PZOR_MOUNT pmount, const char* phostname)
{
    if (read_group(ZOR_SRC, xmlpath, zor_table(kMountKeys), pmount, {.host = phostname}) != 0) {
        return ZR_CONFIG;
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
    // A share has no server-specific mount point and no recovery check.
    if (read_group(ZOR_SRC, xmlpath, zor_table(kMountKeys), pmount, {.share = true}) != 0) {
        return ZR_CONFIG;
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
    if (read_group(ZOR_SRC, xmlpath, zor_table(kUmountKeys), pumount) != 0) {
        return ZR_CONFIG;
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
    if (read_group(ZOR_SRC, xmlpath, zor_table(kFsckKeys), pfsck) != 0) {
        return ZR_CONFIG;
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
    return get_command(ZOR_SRC, xmlpath, zor_table(kRosetKeys), proset, "roset", proset->path, &proset->to);
}

int get_relpath(const char* xmlpath, PZOR_RELPATH prelpath)
{
    return get_command(ZOR_SRC, xmlpath, zor_table(kRelpathKeys), prelpath, "relpath", prelpath->path,
                       &prelpath->to);
}
