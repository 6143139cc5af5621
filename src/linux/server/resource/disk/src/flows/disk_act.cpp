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
#include "mmp_guard.h"
#include "mount_retry.h"
#include "zor_flows.h"

// After a failed first mount: the recovery check and the retries, unless
// another server's multi-mount protection refused the mount (no check or
// retry can mount that here); the device goes back to read-only when the
// point stays unmounted.
static int recover_disk_mount(PZOR_DISK_PARAM param, PMMP_GUARD mmp, int failed, int ffsck)
{
    PZOR_MOUNT pmount = &param->mount;
    int ret = mmp_after(mmp, failed);
    if (ret == 0) {
        ret = recover_mount(
            pmount, ffsck, [=] { return cmd_fsck(&param->fsck, param->rawdev, param->fstype); },
            [=] { return cmd_mount(pmount, param->devname, param->fstype); },
            [=] {
                if (strcmp(param->fstype, "xfs") == 0 && pmount->xfsact == 0)
                    tracemess(TR_EVENT, ZOR_EV_XFS_NOT_REPAIRED, ZOR_SRC_IN("recover_mount"), nullptr,
                              param->devname);
            });
    }
    if (ret != 0)
        failact_roset(&param->roset, param->devname, param->disktype);
    return ret;
}

int load_disk(const char* resource, const char* group, PZOR_DISK_PARAM pparam)
{
    return load_param(resource, group, pparam, getinfo_disk, "getinfo_disk");
}

int disk_act(const char* resource, const char* group)
{
    ZOR_DISK_PARAM param;
    int ret;
    int ffsck = 0;

    TRACE_ENTER();
    RETURN_IF_FAILED(open_flow(resource, group, &param, getinfo_disk, "getinfo_disk", ckparam_disk, true));

    if (strcmp(param.disktype, "lvm") == 0 && strcmp(param.fstype, "zfs") == 0) {
        tracemess2(TR_EVENT, ZOR_EV_BAD_COMBINATION, ZOR_SRC, nullptr, param.disktype, param.fstype);
        trace(TR_ERROR, ZOR_SRC, "Setting of Disktype=%s and Filesystem=%s can't be combined.",
              param.disktype, param.fstype);
        setshm_status(ZR_BAD_COMBINATION);
        TRACE_EXIT(ZR_BAD_COMBINATION);
        return ZR_BAD_COMBINATION;
    }

    // Someone else's file system on the point: leave the device alone.
    RETURN_IF_FAILED(point_in_use(param.mount.point));
    // The same device mounted anywhere else: a second mount of one file
    // system, or the probe did not see it on the point.
    RETURN_IF_FAILED(device_in_use(param.devname));
    // A file system marked by e2fsck is refused before anything is touched.
    MMP_GUARD mmp;
    RETURN_IF_FAILED(mmp_before(&mmp, param.devname, param.fstype));

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
        if (int refused = mmp_after(&mmp, ret))
            ret = refused;
        failact_roset(&param.roset, param.devname, param.disktype);
        TRACE_EXIT(ret);
        return ret;
    }

    RETURN_IF_FAILED(
        mount_and_count(&param.mount, param.devname, param.fstype, &param.fsck, param.rsctype, param.rscname,
                        [&](int failed) { return recover_disk_mount(&param, &mmp, failed, ffsck); }));
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
