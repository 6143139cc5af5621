// Activation and deactivation of a volume-manager volume (disk type "vxvm").
// The volume manager owns the volume's access mode, so the device is never
// switched read-only or read-write here. A "vxfs" file system is checked on
// the volume's raw device, every other type on its block device.
#include <cstring>

#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../resource_config/zor_loader.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "flow_checks.h"
#include "mount_retry.h"
#include "umount_retry.h"
#include "zor_flows.h"

static const char* check_device(PZOR_VXVOL_PARAM param)
{
    return strcmp(param->fstype, "vxfs") == 0 ? param->rawdev : param->devname;
}

int vxvol_act(const char* resource, const char* group)
{
    ZOR_VXVOL_PARAM param;
    int ret;
    int ffsck = 0;

    TRACE_ENTER();
    ret = open_flow(resource, group, &param, getinfo_vxvol, "getinfo_vxvol", ckparam_vxvol, true);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    if (strcmp(param.fstype, "zfs") == 0) {
        tracemess2(TR_EVENT, ZOR_EV_BAD_COMBINATION, ZOR_SRC, nullptr, "vxvm", param.fstype);
        trace(TR_ERROR, ZOR_SRC, "Setting of Disktype=%s and Filesystem=%s can't be combined.", "vxvm",
              param.fstype);
        setshm_status(21);
        TRACE_EXIT(21);
        return 21;
    }

    PZOR_MOUNT pmount = &param.mount;
    ret = point_in_use(pmount->point);
    if (ret == 0)
        ret = device_in_use(param.devname);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    // The volume is checked before its mount point is even looked at.
    ret = check_before_mount(&param.fsck, param.rsctype, param.rscname, check_device(&param), param.fstype,
                             &ffsck);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    ret = prepare_point(pmount->point);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    if (cmd_mount(pmount, param.devname, param.fstype) != 0 && !actually_mounted(pmount->point)) {
        ret = recover_mount(
            pmount, ffsck, [&] { return cmd_fsck(&param.fsck, check_device(&param), param.fstype); },
            [&] { return cmd_mount(pmount, param.devname, param.fstype); }, nullptr);
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

int vxvol_deact(const char* resource, const char* group)
{
    ZOR_VXVOL_PARAM param;
    int ret;

    TRACE_ENTER();
    ret = open_flow(resource, group, &param, getinfo_vxvol, "getinfo_vxvol", ckparam_vxvol, false);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    const char* point = param.mount.point;
    int count = 0;
    ret = point_not_mounted(point, &count);
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }

    ret = umount_with_retries(&param.umount, &param.relpath, point, count, table_probe(&param.umount, point));
    if (ret != 0)
        TRACE_EXIT(ret);
    return ret;
}
