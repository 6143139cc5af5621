// Steps the activations share. What differs between them (the recovery
// check, the read-only switch back, events) stays with the caller.
#include "mount_retry.h"

#include <cstring>

#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"

int point_in_use(const char* point)
{
    if (mountsinfo(point, MNT_PREMOUNT) == 0)
        return 0;
    trace(TR_ERROR, ZOR_SRC, "mntpoint=%s already mounted.", point);
    setshmbuf("Mount point was already mounted. (%s)", point);
    return ZR_MOUNTED;
}

int prepare_point(char* point)
{
    if (point[0] != '/') {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s is invalid.", point);
        setshmbuf("Mount point was invalid. (%s)", point);
        return ZR_POINT_INVALID;
    }
    int ret = zormkdir(point);
    tracefunc(ret, ZOR_SRC, "zormkdir(%s)", point);
    if (ret != 0) {
        setshmbuf("Creating of mount point was failed. (%s)", point);
        return ZR_POINT_NOT_MADE;
    }
    return 0;
}

int check_before_mount(PZOR_FSCK pfsck, const char* rsc_type, const char* rsc_name, const char* devname,
                       const char* fstype, int* ffsck)
{
    if (strcmp(fstype, "xfs") == 0)
        return 0;  // xfs is only repaired, as recovery

    int ret;
    switch (pfsck->timing) {
        case 0:
            return 0;
        case 1:
            ret = cmd_fsck(pfsck, devname, fstype);
            break;
        case 2:
            ret = fsck_timing(rsc_type, rsc_name, pfsck, devname, fstype);
            if (ret == ZR_FSCK_NOT_DUE)
                return 0;
            if (ret == ZR_SCHEDULE_UNUSABLE) {
                // A broken registry must not keep the resource down.
                trace(TR_ERROR, ZOR_SRC, "fsck_timing() failed ignore.");
                trace(TR_ERROR, ZOR_SRC, "fsck was not executed.");
                return 0;
            }
            break;
        default:
            trace(TR_WARNING, ZOR_SRC, "fsck timing=%d invalid.", pfsck->timing);
            return 0;
    }
    if (ret != 0)
        return ret;
    *ffsck = 1;
    return 0;
}

// The kernel's table decides whether a failed mount left the point mounted.
bool actually_mounted(const char* point)
{
    if (mountsinfo(point, MNT_PREMOUNT) == 0)
        return false;
    trace(TR_INFO, ZOR_SRC, "actually, mntpoint=%s mounted.", point);
    return true;
}

bool mount_with_retries(PZOR_MOUNT pmount, const std::function<int()>& mount)
{
    for (int i = 1; i <= pmount->retry; i++) {
        trace(TR_INFO, ZOR_SRC, "mount retry start.(count=%d)", i);
        if (mount() == 0) {
            trace(TR_INFO, ZOR_SRC, "break mount retry. (count=%d)", i);
            return true;
        }
        if (actually_mounted(pmount->point))
            return true;
    }
    return false;
}

int mount_retries_over(PZOR_MOUNT pmount)
{
    trace(TR_ERROR, ZOR_SRC, "mount max recover retry(%d) over.", pmount->retry);
    setshmbuf("Max recover retry over. (%s, retry=%d)", "mount", pmount->retry);
    return ZR_RETRY_OVER;
}

int recover_mount(PZOR_MOUNT pmount, int ffsck, const std::function<int()>& fsck,
                  const std::function<int()>& mount, const std::function<void()>& retries_over)
{
    if (pmount->retry == 0) {
        trace(TR_INFO, ZOR_SRC, "return because of mount retry=%d.", pmount->retry);
        return ZR_NO_RETRY;  // the mount step's status text stands
    }
    if (fsck && pmount->act != 0 && ffsck == 0) {
        int ret = fsck();
        if (ret != 0)
            return actually_mounted(pmount->point) ? 0 : ret;
    }
    if (mount_with_retries(pmount, mount))
        return 0;
    if (retries_over)
        retries_over();
    return mount_retries_over(pmount);
}

int mount_and_count(PZOR_MOUNT pmount, const char* devname, const char* fstype, PZOR_FSCK pfsck,
                    const char* rsc_type, const char* rsc_name, const std::function<int(int)>& recover)
{
    int ret = cmd_mount(pmount, devname, fstype);
    if (ret != 0 && !actually_mounted(pmount->point)) {
        ret = recover(ret);
        if (ret != 0)
            return ret;
    }
    if (strcmp(fstype, "xfs") != 0 && pfsck->timing == 2) {
        if (set_fsck_interval(rsc_type, rsc_name) != 0)
            trace(TR_ERROR, ZOR_SRC, "set_fsck_interval() failed ignore.");
    }
    return 0;
}
