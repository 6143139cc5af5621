// Unmount with paused retries, shared by the disk, volume and NAS flows; the
// probe before each retry is the flow's own. The disk flow looks for a
// concurrent unmount and for the entry count to drop by one; the volume and
// NAS flows, when chkprcmnts is set, trust the mount table: a point that
// something else has emptied counts as unmounted.
#include <cstring>

#include "../command_exec/seam.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "flow_checks.h"
#include "umount_retry.h"
#include "zor_flows.h"

int point_not_mounted(const char* point, int* count)
{
    *count = mountsinfo(point, MNT_PREUMOUNT);
    if (*count != 0)
        return 0;
    trace(TR_ERROR, ZOR_SRC, "mntpoint=%s not mounted.", point);
    setshmbuf("Mount point was not mounted. (%s)", point);
    return ZR_NOT_MOUNTED;
}

// With chkprcmnts set: true when the mount table has no entry left for the
// point. A probe that could not decide has not seen the point go.
static bool gone_from_table(PZOR_UMOUNT pumount, const char* point)
{
    if (pumount->chkprcmnts == 0)
        return false;
    bool known = false;
    if (zor_seam.mount_count(point, MNT_PREUMOUNT, &known) != 0 || !known)
        return false;
    trace(TR_INFO, ZOR_SRC, "actually, mntpoint=%s umounted.", point);
    return true;
}

static int retry_umount(PZOR_UMOUNT pumount, PZOR_RELPATH prelpath, const char* point,
                        const UmountProbe& probe)
{
    bool kill = strcmp(pumount->act, "kill") == 0;

    if (!kill && strcmp(pumount->act, "none") != 0)
        trace(TR_ERROR, ZOR_SRC, "umntact=%s invalid.", pumount->act);

    for (int i = 1; i <= pumount->retry; i++) {
        zor_sleep_seconds(pumount->interval);
        trace(TR_INFO, ZOR_SRC, "umount retry start.(count=%d)", i);
        int seen = probe(i, false);
        if (seen == UMOUNT_PROBE_BUSY)
            continue;
        if (seen != UMOUNT_PROBE_MOUNTED)
            return seen;
        // The release command's own failure shows in the next unmount.
        if (kill)
            cmd_relpath(prelpath, point);
        if (cmd_umount(pumount, point) == 0) {
            trace(TR_INFO, ZOR_SRC, "break umount retry. (count=%d)", i);
            return 0;
        }
        // An unmount that someone else finished during the last attempt.
        if (i == pumount->retry && probe(i, true) == UMOUNT_PROBE_GONE)
            return 0;
    }

    trace(TR_ERROR, ZOR_SRC, "umount max recover retry(%d) over.", pumount->retry);
    setshmbuf("Max recover retry over. (%s, retry=%d)", "umount", pumount->retry);
    return ZR_RETRY_OVER;
}

UmountProbe table_probe(PZOR_UMOUNT pumount, const char* point, const char* devname, const char* share)
{
    return [pumount, point, devname, share](int, bool after_failed) {
        if (!after_failed) {
            int refused = foreign_on_point(point, devname, share);
            if (refused != 0)
                return refused;
        }
        return gone_from_table(pumount, point) ? UMOUNT_PROBE_GONE : UMOUNT_PROBE_MOUNTED;
    };
}

int umount_with_retries(PZOR_UMOUNT pumount, PZOR_RELPATH prelpath, const char* point, int count,
                        const UmountProbe& probe)
{
    if (cmd_umount(pumount, point) != 0) {
        int ret = retry_umount(pumount, prelpath, point, probe);
        if (ret != 0)
            return ret;
    }

    // File systems stacked under the one just removed; best effort.
    for (int i = 1; i < count; i++)
        cmd_umount(pumount, point);
    return 0;
}

int umount_point(PZOR_UMOUNT pumount, PZOR_RELPATH prelpath, const char* point, const char* devname,
                 const char* share, const std::function<void()>& before,
                 const std::function<void(int count)>& stuck)
{
    int ret = own_point(point, devname, share);
    if (ret != 0)
        return ret;
    int count = 0;
    ret = point_not_mounted(point, &count);
    if (ret != 0)
        return ret;
    if (before)
        before();
    ret = umount_with_retries(pumount, prelpath, point, count, table_probe(pumount, point, devname, share));
    if (ret == ZR_RETRY_OVER && stuck)
        stuck(count);
    return ret;
}
