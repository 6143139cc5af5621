// Activation of a disk resource of disk type "disk" or "lvm": load the
// parameters, make sure the mount point is free and usable, switch the device
// read-write, check the file system when due, mount with retries and one
// recovery check, and advance the periodic check counter.
#include <cstring>

#include "../bounded.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../resource_config/zor_loader.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "flow_checks.h"
#include "mount_retry.h"
#include "zor_flows.h"

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
        tracemess(TR_EVENT, ZOR_EV_XFS_NOT_REPAIRED, ZOR_SRC, nullptr, param->devname);
    ret = mount_retries_over(pmount);
    failact_roset(&param->roset, param->devname, param->disktype);
    return ret;
}

int load_disk(const char* resource, const char* group, PZOR_DISK_PARAM pparam)
{
    memset(pparam, 0, sizeof(*pparam));
    int ret = getinfo_disk(resource, group, pparam);
    tracefunc(ret, ZOR_SRC, "getinfo_disk(%s, %s)", resource, group);
    if (ret != 0)
        mkshm_getinfo(ret, resource, group);
    return ret;
}

int disk_act(const char* resource, const char* group)
{
    ZOR_DISK_PARAM param;
    int ret;
    int ffsck = 0;

    TRACE_ENTER();
    ret = load_disk(resource, group, &param);
    if (ret == 0)
        ret = ckparam_disk(&param, true);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    if (strcmp(param.disktype, "lvm") == 0 && strcmp(param.fstype, "zfs") == 0) {
        tracemess2(TR_EVENT, ZOR_EV_BAD_COMBINATION, ZOR_SRC, nullptr, param.disktype, param.fstype);
        trace(TR_ERROR, ZOR_SRC, "Setting of Disktype=%s and Filesystem=%s can't be combined.",
              param.disktype, param.fstype);
        setshm_status(21);
        TRACE_EXIT(21);
        return 21;
    }

    // Someone else's file system on the point: leave the device alone.
    ret = point_in_use(param.mount.point);
    // The same device mounted anywhere else: a second mount of one file
    // system, or the probe did not see it on the point.
    if (ret == 0)
        ret = device_in_use(param.devname);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    ret = prepare_point(param.mount.point);
    if (ret != 0) {
        failact_roset(&param.roset, param.devname, param.disktype);
        TRACE_EXIT(ret);
        return ret;
    }

    // A device that stays read-only makes the mount fail with its own text.
    if (cmd_roset(&param.roset, param.devname, param.disktype, ROSET_RW) != 0)
        trace(TR_ERROR, ZOR_SRC, "roset failed ignore.");

    // The periodic check is not run on zfs.
    if (param.fsck.timing == 2 && strcmp(param.fstype, "zfs") == 0)
        ret = 0;
    else
        ret =
            check_before_mount(&param.fsck, param.rsctype, param.rscname, param.rawdev, param.fstype, &ffsck);
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
    if (roset_safe(devname) && cmd_roset(proset, devname, disktype, ROSET_RO) != 0)
        trace(TR_ERROR, ZOR_SRC, "roset failed ignore.");
    BCOPY(shmbuf, saved);
    TRACE_EXIT(0);
    return 0;
}
