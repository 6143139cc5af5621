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

static int load_vxvol(const char* resource, const char* group, PZOR_VXVOL_PARAM param)
{
    memset(param, 0, sizeof(*param));
    int ret = getinfo_vxvol(resource, group, param);
    tracefunc(ret, ZOR_SRC, "getinfo_vxvol(%s, %s)", resource, group);
    if (ret != 0)
        mkshm_getinfo(ret, resource, group);
    return ret;
}

static const char* check_device(PZOR_VXVOL_PARAM param)
{
    return strcmp(param->fstype, "vxfs") == 0 ? param->rawdev : param->devname;
}

// After a failed first mount: one recovery check unless a check has just
// passed, then the retries. 0 once the point is mounted.
static int recover_mount(PZOR_VXVOL_PARAM param, int ffsck)
{
    PZOR_MOUNT pmount = &param->mount;

    if (pmount->retry == 0) {
        trace(TR_INFO, ZOR_SRC, "return because of mount retry=%d.", pmount->retry);
        return 1;  // the mount step's status text stands
    }
    if (pmount->act != 0 && ffsck == 0) {
        int ret = cmd_fsck(&param->fsck, check_device(param), param->fstype);
        if (ret != 0)
            return actually_mounted(pmount->point) ? 0 : ret;
    }
    if (mount_with_retries(pmount, [=] { return cmd_mount(pmount, param->devname, param->fstype); }))
        return 0;
    return mount_retries_over(pmount);
}

int vxvol_act(const char* resource, const char* group)
{
    ZOR_VXVOL_PARAM param;
    int ret;
    int ffsck = 0;

    TRACE_ENTER();
    ret = load_vxvol(resource, group, &param);
    if (ret == 0)
        ret = ckparam_vxvol(&param, true);
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

int vxvol_deact(const char* resource, const char* group)
{
    ZOR_VXVOL_PARAM param;
    int ret;

    TRACE_ENTER();
    ret = load_vxvol(resource, group, &param);
    if (ret == 0)
        ret = ckparam_vxvol(&param, false);
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

    ret = umount_with_retries(&param.umount, &param.relpath, point, count);
    if (ret != 0)
        TRACE_EXIT(ret);
    return ret;
}
