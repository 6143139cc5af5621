// Activation and deactivation of a NAS resource: a file server's share
// mounted as "server:share". There is no device, so no read-only switch and no
// file system check; the server is pinged first when a ping count is set.
#include <cstring>

#include "../bounded.h"

#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../resource_config/zor_loader.h"
#include "../storage_ops/mount_record.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "flow_checks.h"
#include "mount_retry.h"
#include "umount_retry.h"
#include "zor_flows.h"

int nas_act(const char* resource, const char* group)
{
    ZOR_NAS_PARAM param;
    int ret;

    TRACE_ENTER();
    RETURN_IF_FAILED(open_flow(resource, group, &param, getinfo_nas, "getinfo_nas", ckparam_nas, true));

    PZOR_MOUNT pmount = &param.mount;
    RETURN_IF_FAILED(system_point(pmount->point));
    // Looked at before the ping: a point already in use is refused even
    // when the server is down.
    RETURN_IF_FAILED(point_in_use(pmount->point));

    // A server that does not answer would only make the mount wait for its
    // time-out; nothing is created for it.
    if (param.pingto != 0) {
        RETURN_IF_FAILED(ping_nas(&param));
    }

    char share[ZOR_PATH_SIZE + ZOR_HOST_SIZE];
    BPRINTF(share, "%s:%s", param.server, param.share);
    mount_record_write(type, resource, nullptr, share, pmount->point, param.fstype);
    RETURN_IF_FAILED(prepare_point(pmount->point));

    if (mount_nas(&param) == 0) {
        TRACE_EXIT(0);
        return 0;
    }
    if (actually_mounted(pmount->point))
        return 0;
    // Retries without pause, and no check: a share has nothing to repair.
    ret = recover_mount(
        pmount, 0, nullptr, [&] { return mount_nas(&param); }, nullptr);
    if (ret != 0)
        TRACE_EXIT(ret);
    return ret;
}

// After the unmount retries are used up: a share whose server no longer
// answers cannot be unmounted the normal way (the unmount waits on the
// server), yet it must not stay in service on this server. A forced unmount
// aborts the outstanding requests; a lazy one detaches what is still there,
// one stacked entry per call. Both run like any unmount, under its time limit
// and lock. The failure and its status text stand: the share did not go the
// way it was asked to.
static void force_out(PZOR_UMOUNT pumount, const char* point, int count)
{
    char text[ZOR_SHMBUF_SIZE];
    BCOPY(text, shmbuf);
    ZOR_UMOUNT forced = *pumount;
    int left = mountsinfo(point, MNT_PREUMOUNT);
    if (left > 0) {
        trace(TR_ERROR, ZOR_SRC, "force umount. mntpoint=%s", point);
        BCOPY(forced.opt, "-f");
        cmd_umount(&forced, point);
        left = mountsinfo(point, MNT_PREUMOUNT);
    }
    for (int i = 0; left > 0 && i < (count > 0 ? count : 1); i++) {
        trace(TR_ERROR, ZOR_SRC, "lazy umount. mntpoint=%s", point);
        BCOPY(forced.opt, "-l");
        cmd_umount(&forced, point);
        left = mountsinfo(point, MNT_PREUMOUNT);
    }
    if (left > 0)
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s still mounted. (cnt=%d)", point, left);
    else
        trace(TR_INFO, ZOR_SRC, "mntpoint=%s out of the mount table.", point);
    setshmbuf("%s", text);
}

int nas_deact(const char* resource, const char* group)
{
    ZOR_NAS_PARAM param;
    int ret;

    TRACE_ENTER();
    RETURN_IF_FAILED(open_flow(resource, group, &param, getinfo_nas, "getinfo_nas", ckparam_nas, false));

    const char* point = param.mount.point;
    char share[ZOR_PATH_SIZE + ZOR_HOST_SIZE];
    BPRINTF(share, "%s:%s", param.server, param.share);
    ret = umount_point(
        &param.umount, &param.relpath, point, nullptr, share,
        [&] {
            // Only for the record: a dead server must not keep its share mounted here.
            if (param.pingto != 0 && ping_nas(&param) != 0)
                trace(TR_ERROR, ZOR_SRC_IN("nas_deact"), "ping failed ignore.");
        },
        [&](int count) { force_out(&param.umount, point, count); });
    if (ret != 0)
        TRACE_EXIT(ret);
    return ret;
}
