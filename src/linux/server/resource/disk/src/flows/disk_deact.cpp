// Deactivation of a disk resource of disk type "disk" or "lvm": unmount
// everything on the mount point, with paused retries that may first release
// the processes holding it, then switch the device back to read-only.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "../bounded.h"
#include "../command_exec/proc_scan.h"
#include "../command_exec/seam.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../resource_config/zor_loader.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "flow_checks.h"
#include "umount_retry.h"
#include "zor_flows.h"

// "umount " plus a mount point of up to 1023 characters, and its terminator.
#define UMOUNT_CMDLINE_SIZE 1032

namespace {

struct UmountSearch {
    const char* expected;
    size_t limit;  // bytes read of each command line
    bool found;
};

int match_umount(void* arg, int procfd, const char* pid)
{
    UmountSearch* s = static_cast<UmountSearch*>(arg);
    char cmdline[UMOUNT_CMDLINE_SIZE];
    memset(cmdline, 0, sizeof(cmdline));
    // The process may be gone by now; that is no error.
    ssize_t n = proc_read(procfd, pid, "cmdline", cmdline, s->limit);
    if (n > 0) {
        // Arguments are NUL-separated; show them separated by one blank.
        for (ssize_t k = 0; k < n - 1; k++) {
            if (cmdline[k] == '\0')
                cmdline[k] = ' ';
        }
        s->found = strcmp(cmdline, s->expected) == 0;
    }
    return s->found ? 1 : 0;
}

}  // namespace

bool IsUmountRunning(const char* mount_point, bool* result)
{
    char expected[UMOUNT_CMDLINE_SIZE];

    TRACE_ENTER();
    BPRINTF(expected, "%s %s", "umount", mount_point);

    // At most 1031 bytes of each command line are looked at. Fewer give the
    // same answer: a text that equals `expected` (length L) is L bytes and a
    // terminator, so once L + 2 bytes were read the blank that the NUL at
    // position L turns into (or whatever stands there) already tells it apart.
    UmountSearch search = {expected, std::min(sizeof(expected) - 1, strlen(expected) + 2), false};
    // A list that breaks off part way ends the search like its end would.
    if (proc_scan(match_umount, &search) < 0) {
        int err = errno;
        trace(TR_ERROR, ZOR_SRC, "failed to opendir. (errno=%d:%s)", err, strerror(err));
        TRACE_EXIT(0);
        return false;
    }
    *result = search.found;
    TRACE_EXIT(1);
    return true;
}

bool CheckMountStatus(const char* mount_point, bool* is_running, int* mount_count)
{
    char point[ZOR_PATH_SIZE];

    BCOPY(point, mount_point);
    if (!IsUmountRunning(point, is_running)) {
        trace(TR_ERROR, ZOR_SRC, "failed to IsUmountRunning(%s).", point);
        return false;
    }
    if (*is_running)
        trace(TR_INFO, ZOR_SRC, "umount is running. mntpoint=%s", point);

    // A table that could not be read tells nothing: taking it for "not
    // mounted" would report success over a live mount.
    bool known = false;
    *mount_count = zor_seam.mount_count(point, MNT_PREUMOUNT, &known);
    if (!known) {
        trace(TR_ERROR, ZOR_SRC, "failed to mountsinfo(%s).", point);
        return false;
    }
    if (*mount_count != 0)
        trace(TR_INFO, ZOR_SRC, "found in /proc/mounts. mntpoint=%s, cnt=%d", point, *mount_count);
    return true;
}

// The status could not be read: the caller gives up with 23.
static int status_failed(const char* point)
{
    trace(TR_ERROR, ZOR_SRC, "failed to CheckMountStatus(%s).", point);
    setshmbuf("Check of mount status has failed. (%s)", point);
    return ZR_STATUS_UNKNOWN;
}

// The disk flow's probe before an unmount retry: another's file system now
// lowest on the point ends the retries (nothing of it is released or
// unmounted); wait while another unmount of the point runs; done once the
// point has lost the mount that the failed attempt was meant to remove; 23
// when the status cannot be read.
static UmountProbe status_probe(const char* point, const char* devname, int count)
{
    return [point, devname, count](int attempt, bool after_failed) {
        if (after_failed)
            return UMOUNT_PROBE_MOUNTED;
        int refused = foreign_on_point(point, devname, nullptr);
        if (refused != 0)
            return refused;
        bool is_running = false;
        int mount_count = 0;
        if (!CheckMountStatus(point, &is_running, &mount_count))
            return status_failed(point);
        if (is_running)
            return UMOUNT_PROBE_BUSY;
        if (mount_count == count - 1) {
            trace(TR_INFO, ZOR_SRC_IN("retry_umount"), "unmounted, break umount retry. count=%d mntpoint=%s",
                  attempt, point);
            return UMOUNT_PROBE_GONE;
        }
        return UMOUNT_PROBE_MOUNTED;
    };
}

int disk_deact(const char* resource, const char* group)
{
    ZOR_DISK_PARAM param;
    bool is_running = false;
    int mount_count = 0;
    int ret;

    TRACE_ENTER();
    RETURN_IF_FAILED(open_flow(resource, group, &param, getinfo_disk, "getinfo_disk", ckparam_disk, false));

    const char* point = param.mount.point;
    // Only the resource's own file system, and what stands on it, is taken down.
    RETURN_IF_FAILED(own_point(point, param.devname, nullptr));
    if (!CheckMountStatus(point, &is_running, &mount_count)) {
        ret = status_failed(point);
        TRACE_EXIT(ret);
        return ret;
    }

    // Two unmounts of one point would fight over it; let the other one finish.
    if (is_running) {
        trace(TR_ERROR, ZOR_SRC, "umount is runnning. mntpoint=%s", point);
        setshmbuf("Umount is running. (%s)", point);
        TRACE_EXIT(ZR_UMOUNT_RUNNING);
        return ZR_UMOUNT_RUNNING;
    }

    // Nothing of ours to take down; the device's setting is left as it is.
    if (mount_count == 0) {
        trace(TR_WARNING, ZOR_SRC, "already unmounted. mntpoint=%s", point);
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }

    RETURN_IF_FAILED(umount_with_retries(&param.umount, &param.relpath, point, mount_count,
                                         status_probe(point, param.devname, mount_count)));

    char dev[ZOR_PATH_SIZE];
    device_path(param.devname, dev);
    if (roset_safe(dev) && cmd_roset(&param.roset, dev, param.disktype, ROSET_RO) != 0)
        trace(TR_ERROR, ZOR_SRC, "roset failed ignore.");
    return 0;
}
