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
    int ffsck = 0;

    TRACE_ENTER();
    RETURN_IF_FAILED(open_flow(resource, group, &param, getinfo_vxvol, "getinfo_vxvol", ckparam_vxvol, true));

    if (strcmp(param.fstype, "zfs") == 0) {
        tracemess2(TR_EVENT, ZOR_EV_BAD_COMBINATION, ZOR_SRC, nullptr, "vxvm", param.fstype);
        trace(TR_ERROR, ZOR_SRC, "Setting of Disktype=%s and Filesystem=%s can't be combined.", "vxvm",
              param.fstype);
        setshm_status(ZR_BAD_COMBINATION);
        TRACE_EXIT(ZR_BAD_COMBINATION);
        return ZR_BAD_COMBINATION;
    }

    PZOR_MOUNT pmount = &param.mount;
    RETURN_IF_FAILED(point_in_use(pmount->point));
    RETURN_IF_FAILED(device_in_use(param.devname));

    // The volume is checked before its mount point is even looked at.
    RETURN_IF_FAILED(check_before_mount(&param.fsck, param.rsctype, param.rscname, check_device(&param),
                                        param.fstype, &ffsck));

    RETURN_IF_FAILED(prepare_point(pmount->point));

    RETURN_IF_FAILED(mount_and_count(
        pmount, param.devname, param.fstype, &param.fsck, param.rsctype, param.rscname, [&](int) {
            return recover_mount(
                pmount, ffsck, [&] { return cmd_fsck(&param.fsck, check_device(&param), param.fstype); },
                [&] { return cmd_mount(pmount, param.devname, param.fstype); }, nullptr);
        }));
    return 0;
}

int vxvol_deact(const char* resource, const char* group)
{
    ZOR_VXVOL_PARAM param;
    int ret;

    TRACE_ENTER();
    RETURN_IF_FAILED(
        open_flow(resource, group, &param, getinfo_vxvol, "getinfo_vxvol", ckparam_vxvol, false));

    ret = umount_point(&param.umount, &param.relpath, param.mount.point, nullptr, nullptr);
    if (ret != 0)
        TRACE_EXIT(ret);
    return ret;
}
