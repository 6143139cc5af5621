// Activation of a disk resource of disk type "disk" or "lvm": load the
// parameters, make sure the mount point is free and usable, switch the device
// read-write, check the file system when due, mount with retries and one
// recovery check, and advance the periodic check counter.
#include <cstring>

#include "../bounded.h"
#include "../command_exec/zor_exec.h"
#include "../disk.h"
#include "../resource_config/zor_loader.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "mount_retry.h"
#include "zor_flows.h"

// Event messages of the log catalogue used here.
#define EVT_XFS_NOT_REPAIRED 16
#define EVT_BAD_COMBINATION 17

// Runs the check that comes before the mount. Returns 0 to go on mounting
// (ffsck tells whether a check ran and passed) or the failed check's code.
static int check_before_mount(PZOR_DISK_PARAM param, int* ffsck)
{
    if (strcmp(param->fstype, "xfs") == 0)
        return 0;  // xfs is only repaired, as recovery

    int ret;
    switch (param->fsck.timing) {
    case 0:
        return 0;
    case 1:
        ret = cmd_fsck(&param->fsck, param->rawdev, param->fstype);
        if (ret != 0)
            return ret;
        *ffsck = 1;
        return 0;
    case 2:
        if (strcmp(param->fstype, "zfs") == 0)
            return 0;
        ret = fsck_timing(param->rsctype, param->rscname, &param->fsck, param->rawdev, param->fstype);
        if (ret == 18)
            return 0;
        if (ret == 19) {
            // A broken registry must not keep the resource down.
            trace(TR_ERROR, ZOR_SRC, "fsck_timing() failed ignore.");
            trace(TR_ERROR, ZOR_SRC, "fsck was not executed.");
            return 0;
        }
        if (ret != 0)
            return ret;
        *ffsck = 1;
        return 0;
    default:
        trace(TR_WARNING, ZOR_SRC, "fsck timing=%d invalid.", param->fsck.timing);
        return 0;
    }
}

// After a failed first mount: the recovery check (once, unless a check has
// just passed) and the retries. 0 when the point ends up mounted.
static int recover_mount(PZOR_DISK_PARAM param, int ffsck)
{
    PZOR_MOUNT pmount = &param->mount;
    int ret;

    if (pmount->retry == 0) {
        trace(TR_INFO, ZOR_SRC, "return because of mount retry=%d.", pmount->retry);
        failact_roset(&param->roset, param->devname, param->disktype);
        return 1;  // the mount step's status text stands
    }

    if (pmount->act != 0 && ffsck == 0) {
        ret = cmd_fsck(&param->fsck, param->rawdev, param->fstype);
        if (ret != 0) {
            if (actually_mounted(pmount->point))
                return 0;
            failact_roset(&param->roset, param->devname, param->disktype);
            return ret;
        }
    }

    if (mount_with_retries(pmount, [=] { return cmd_mount(pmount, param->devname, param->fstype); }))
        return 0;

    if (strcmp(param->fstype, "xfs") == 0 && pmount->xfsact == 0)
        tracemess(TR_EVENT, EVT_XFS_NOT_REPAIRED, ZOR_SRC, nullptr, param->devname);
    ret = mount_retries_over(pmount);
    failact_roset(&param->roset, param->devname, param->disktype);
    return ret;
}

int disk_act(const char* resource, const char* group)
{
    ZOR_DISK_PARAM param;
    int ret;
    int ffsck = 0;

    TRACE_ENTER();
    memset(&param, 0, sizeof(param));
    ret = getinfo_disk(resource, group, &param);
    tracefunc(ret, ZOR_SRC, "getinfo_disk(%s, %s)", resource, group);
    if (ret != 0) {
        mkshm_getinfo(ret, resource, group);
        TRACE_EXIT(ret);
        return ret;
    }

    if (strcmp(param.disktype, "lvm") == 0 && strcmp(param.fstype, "zfs") == 0) {
        tracemess2(TR_EVENT, EVT_BAD_COMBINATION, ZOR_SRC, nullptr, param.disktype, param.fstype);
        trace(TR_ERROR, ZOR_SRC, "Setting of Disktype=%s and Filesystem=%s can't be combined.",
              param.disktype, param.fstype);
        setshmbuf("Internal error. (status=%d)", 21);
        TRACE_EXIT(21);
        return 21;
    }

    // Someone else's file system on the point: leave the device alone.
    if (mountsinfo(param.mount.point, MNT_PREMOUNT) != 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s already mounted.", param.mount.point);
        setshmbuf("Mount point was already mounted. (%s)", param.mount.point);
        TRACE_EXIT(5);
        return 5;
    }

    if (param.mount.point[0] != '/') {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s is invalid.", param.mount.point);
        setshmbuf("Mount point was invalid. (%s)", param.mount.point);
        failact_roset(&param.roset, param.devname, param.disktype);
        TRACE_EXIT(7);
        return 7;
    }

    // Strips trailing "/" in place: the mount and the probes below use the short form.
    ret = zormkdir(param.mount.point);
    tracefunc(ret, ZOR_SRC, "zormkdir(%s)", param.mount.point);
    if (ret != 0) {
        setshmbuf("Creating of mount point was failed. (%s)", param.mount.point);
        failact_roset(&param.roset, param.devname, param.disktype);
        TRACE_EXIT(8);
        return 8;
    }

    // A device that stays read-only makes the mount fail with its own text.
    if (cmd_roset(&param.roset, param.devname, param.disktype, ROSET_RW) != 0)
        trace(TR_ERROR, ZOR_SRC, "roset failed ignore.");

    ret = check_before_mount(&param, &ffsck);
    if (ret != 0) {
        failact_roset(&param.roset, param.devname, param.disktype);
        TRACE_EXIT(ret);
        return ret;
    }

    if (cmd_mount(&param.mount, param.devname, param.fstype) != 0 && !actually_mounted(param.mount.point)) {
        ret = recover_mount(&param, ffsck);
        if (ret != 0) {
            TRACE_EXIT(ret);
            return ret;
        }
    }

    if (strcmp(param.fstype, "xfs") != 0 && param.fsck.timing == 2) {
        if (set_fsck_interval(param.rsctype, param.rscname) != 0)
            trace(TR_ERROR, ZOR_SRC, "set_fsck_interval() failed ignore.");
    }
    return 0;
}

int failact_roset(PZOR_ROSET proset, const char* devname, const char* disktype)
{
    char saved[ZOR_SHMBUF_SIZE];

    TRACE_ENTER();
    // The operator must see why the activation failed, not what the clean-up said.
    BCOPY(saved, shmbuf);
    if (cmd_roset(proset, devname, disktype, ROSET_RO) != 0)
        trace(TR_ERROR, ZOR_SRC, "roset failed ignore.");
    BCOPY(shmbuf, saved);
    TRACE_EXIT(0);
    return 0;
}
