// The monitor of disk and NAS resources (see zor_monitor.h).
//
// Level 0 reads the mount table in place and looks at the device node; it
// never stats anything under the mount point, so a dead file server cannot
// hold it up. The deeper levels touch the mount only through the timed
// command runner, whose child is killed when the time is up.
#include "zor_monitor.h"

#include "../bounded.h"
#include "../command_exec/mount_table.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../resource_config/zor_loader.h"
#include "../storage_ops/mount_record.h"
#include "../tracersc.h"
#include "flow_checks.h"
#include "identity.h"
#include "write_check.h"
#include "zor_flows.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Time limit of the read and write checks. A monitor is repeated every few
// seconds, so a slow answer is as bad as none.
constexpr int kMonitorTimeout = 10;

// The device's read-only flag: 1 read-only, 0 read-write, -1 unknown.
int device_readonly(const char* devpath)
{
    int ro = -1;
    int fd = open(devpath, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0) {
        int flag = 0;
        if (ioctl(fd, BLKROGET, &flag) == 0) {
            ro = flag != 0 ? 1 : 0;
        }
        close(fd);
    }
    return ro;
}

void check_failed(bool writing, const char* point)
{
    if (writing) {
        setshmbuf("Writing of mount point was failed. (%s)", point);
    } else {
        setshmbuf("Reading of mount point was failed. (%s)", point);
    }
}

// Runs one check on the mount through the timed runner and turns its result
// into the monitor's text: the read check a command line, the write check
// monitor_write_check of the point in a child of the runner.
bool run_check(bool writing, const char* cmdline, const char* point)
{
    const char* cmdname = writing ? "write" : "read";
    DISK_FUNC_INFO finfo;
    memset(&finfo, 0, sizeof(finfo));
    BCOPY(finfo.cmdname, cmdname);
    finfo.timeout = kMonitorTimeout;
    if (writing) {
        finfo.childfn = monitor_write_check;
    }
    if (BCOPY(finfo.cmdline, cmdline) != 0) {
        trace(TR_ERROR, ZOR_SRC, "%s : cmdline too long.", cmdname);
        check_failed(writing, point);
        return false;
    }
    if (writing) {
        trace(TR_INFO, ZOR_SRC, "(write check %s/%s)", point, MON_CHECK_DIR);
    } else {
        trace(TR_INFO, ZOR_SRC, "(%s)", finfo.cmdline);
    }
    int ret = cmd_thread(&finfo);
    if (ret == ZR_TIMEOUT) {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s not answering.", point);
        setshmbuf("Mount point did not answer. (%s, timeout=%d)", point, kMonitorTimeout);
        return false;
    }
    if (ret != 0) {
        check_failed(writing, point);
        return false;
    }
    return true;
}

// The deeper checks of a mounted point; MON_RUNNING or MON_FAILED.
int check_mount(const char* point, int level)
{
    char line[1024];
    if (level >= MON_LEVEL_READ) {
        if (BPRINTF(line, "exec \"/bin/ls\" -A -- \"%s\" > /dev/null 2>&1", point) != 0 ||
            !run_check(false, line, point)) {
            return MON_FAILED;
        }
    }
    // Written by the agent itself, never through a shell's redirection: a
    // link that a user of the mount planted must not be followed as root.
    if (level >= MON_LEVEL_WRITE && !run_check(true, point, point)) {
        return MON_FAILED;
    }
    return MON_RUNNING;
}

int table_unreadable(const char* point)
{
    trace(TR_ERROR, ZOR_SRC, "read(/proc/self/mountinfo) failed. (errno=%d)", errno);
    setshmbuf("Check of mount status has failed. (%s)", point);
    return MON_FAILED;
}

void trace_where(const MNT_WHERE& w, const char* point)
{
    trace(TR_DETAIL, ZOR_SRC, "mntpoint=%s is %s.", point, w.point);
    if (w.on_point > 0) {
        trace(TR_INFO, ZOR_SRC, "mntpoint=%s mounted from %s (%u:%u), cnt=%d, own=%d.", w.point, w.top.source,
              w.top.major, w.top.minor, w.on_point, w.on_point_own);
    } else {
        trace(TR_INFO, ZOR_SRC, "mntpoint=%s not mounted.", w.point);
    }
}

// devname, point: the resource's; rwswitch: the disk type switches the device
// read-only when out of service ("disk"); device: see disk_monitor.
int device_monitor(const char* devname, const char* point, bool rwswitch, int level, char* device)
{
    MNT_WHERE w;
    if (mnt_where(point, devname, nullptr, &w) != 0) {
        return table_unreadable(point);
    }
    trace_where(w, point);
    trace(TR_DETAIL, ZOR_SRC, "device=%s is %s (%u:%u), elsewhere=%d.", devname,
          w.device ? w.devpath : "none", major(w.rdev), minor(w.rdev), w.elsewhere);
    if (w.on_point > 0 && w.top_own) {
        if (rwswitch && device_readonly(w.devpath) == 1) {
            trace(TR_ERROR, ZOR_SRC, "device=%s read-only while mounted.", devname);
            setshmbuf("Device was read-only while mounted. (%s)", devname);
            return MON_FAILED;
        }
        return check_mount(point, level);
    }
    if (w.on_point_own > 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s mounted from another device %s.", point, w.top.source);
        setshmbuf("Mount point was mounted from another device. (%s, %s)", point, w.top.source);
        return MON_FAILED;
    }
    if (w.elsewhere > 0) {
        trace(TR_ERROR, ZOR_SRC, "device=%s mounted on %s, cnt=%d.", devname, w.where, w.elsewhere);
        setshmbuf("Device was mounted elsewhere. (%s, %s)", devname, w.where);
        return MON_FAILED;
    }
    // Nothing of it in the table. What stands on the point, if anything, is
    // another's: no business of this resource's.
    if (w.on_point > 0) {
        trace(TR_WARNING, ZOR_SRC, "mntpoint=%s holds another file system %s.", point, w.top.source);
    }
    if (!w.device) {
        if (devname[0] != '/') {
            return MON_STOPPED;  // a file system known by name only (a dataset) has no node to look at
        }
        trace(TR_ERROR, ZOR_SRC, "device=%s not found.", devname);
        setshmbuf("Device was not found. (%s)", devname);
        return MON_ABSENT;
    }
    // A lazily detached mount still in use, a mount of another namespace.
    const int held = mnt_device_held(w.devpath);
    if (held != 0) {
        trace(TR_ERROR, ZOR_SRC, "device=%s (%s) %s. (errno=%d)", devname, w.devpath,
              held > 0 ? "in use" : "cannot be opened", errno);
        setshmbuf(held > 0 ? "Device was in use. (%s)" : "Device was invalid. (%s)", devname);
        return MON_FAILED;
    }
    if (rwswitch && device_readonly(w.devpath) != 1) {
        trace(TR_ERROR, ZOR_SRC, "device=%s read-write but not mounted.", devname);
        setshmbuf("Device was read-write but not mounted. (%s)", devname);
        if (device != nullptr) {
            zor_bcopy(device, ZOR_PATH_SIZE, w.devpath);
        }
        return MON_READWRITE;
    }
    return MON_STOPPED;
}

// What this node recorded of the resource when it brought it into service,
// still mounted although the resource as configured (or as the engine
// describes it) is not: the configuration changed under it. Only an answer
// that nothing of the resource is here is looked at again.
int recorded_left(const char* resource, int answer)
{
    if (answer == MON_RUNNING || answer == MON_FAILED) {
        return answer;
    }
    ZOR_MOUNT_RECORD rec;
    // An unreadable record is traced; the mount table has answered for what
    // is configured.
    if (mount_record_read(type, resource, &rec) != 1) {
        return answer;
    }
    return mount_record_left(rec) != 0 ? MON_FAILED : answer;
}

// The answer for a node whose configuration disagrees with the engine's
// description (`text`, the disagreement), once the resource the engine means
// was looked at: in service here, it is refused all the same (a failure, so
// that the engine takes it down); out of service, this node cannot run it.
int disagreed(int answer, const char* text)
{
    if (answer == MON_RUNNING || answer == MON_STOPPED || answer == MON_ABSENT) {
        setshmbuf("%s", text);
        return answer == MON_RUNNING ? MON_FAILED : MON_CONFIG;
    }
    return answer;
}

// The configuration against the engine's description: when they disagree,
// the monitor looks at the resource the engine means, and the disagreement
// goes into `text`. The engine's time-outs, when given, against the limits.
template <typename Param>
bool engine_view_taken(Param* param, char (&text)[ZOR_SHMBUF_SIZE])
{
    engine_timeout_check(true, worst_case_s(*param, true));
    engine_timeout_check(false, worst_case_s(*param, false));
    const ZOR_IDENTITY id = identity_of(param);
    if (engine_disagrees(id) == 0) {
        return false;
    }
    BCOPY(text, shmbuf);
    engine_take(id);
    return true;
}

// The answer for a resource whose parameters could not be loaded.
int load_failed(int ret)
{
    switch (ret) {
        case ZR_RESOURCE_UNKNOWN:
        case ZR_GROUP_UNKNOWN:
            return MON_ABSENT;
        case ZR_CONFIG:
            return MON_CONFIG;
        default:
            return MON_FAILED;
    }
}

}  // namespace

int monitor_unconfigured(const char* resource, int answer)
{
    const bool disk = strcmp(type, "disk") == 0;
    const char* device = disk && engine_view.device[0] != '\0' ? engine_view.device : nullptr;
    char share[ZOR_PATH_SIZE + ZOR_HOST_SIZE] = {};
    if (!disk && engine_view.server[0] != '\0' && engine_view.share[0] != '\0') {
        BPRINTF(share, "%s:%s", engine_view.server, engine_view.share);
    }
    const char* point = engine_view.directory[0] != '\0' ? engine_view.directory : nullptr;
    if (device != nullptr || (share[0] != '\0' && point != nullptr)) {
        MNT_WHERE w;
        if (mnt_where(point, device, share[0] != '\0' ? share : nullptr, &w) != 0) {
            return table_unreadable(point != nullptr ? point : device);
        }
        const char* where = w.on_point_own > 0                     ? w.point
                            : device != nullptr && w.elsewhere > 0 ? w.where
                                                                   : nullptr;
        if (where == nullptr && device != nullptr && w.device && mnt_device_held(w.devpath) == 1) {
            where = "in use";
        }
        if (where != nullptr) {
            trace(TR_ERROR, ZOR_SRC, "%s still mounted on %s.", device != nullptr ? device : share, where);
            setshmbuf("Resource was still mounted. (%s, %s)", device != nullptr ? device : share, where);
            return MON_FAILED;
        }
    }
    return recorded_left(resource, answer);
}

int disk_monitor(const char* resource, const char* group, const char* disktype, int level, char* device)
{
    TRACE_ENTER();
    char text[ZOR_SHMBUF_SIZE] = {};
    bool taken = false;
    int loaded;
    int ret = MON_FAILED;
    if (strcasecmp(disktype, "vxvm") == 0) {
        ZOR_VXVOL_PARAM param;
        loaded = load_param(resource, group, &param, getinfo_vxvol, "getinfo_vxvol");
        if (loaded == 0) {
            taken = engine_view_taken(&param, text);
            ret = device_monitor(param.devname, param.mount.point, false, level, device);
        }
    } else {
        ZOR_DISK_PARAM param;
        loaded = load_disk(resource, group, &param);
        if (loaded == 0) {
            taken = engine_view_taken(&param, text);
            ret = device_monitor(param.devname, param.mount.point, strcasecmp(param.disktype, "disk") == 0,
                                 level, device);
        }
    }
    ret = loaded != 0 ? monitor_unconfigured(resource, load_failed(loaded))
                      : recorded_left(resource, taken ? disagreed(ret, text) : ret);
    TRACE_EXIT(ret);
    return ret;
}

int nas_monitor(const char* resource, const char* group, int level)
{
    TRACE_ENTER();
    ZOR_NAS_PARAM param;
    int ret = load_param(resource, group, &param, getinfo_nas, "getinfo_nas");
    if (ret != 0) {
        ret = monitor_unconfigured(resource, load_failed(ret));
        TRACE_EXIT(ret);
        return ret;
    }
    char text[ZOR_SHMBUF_SIZE] = {};
    const bool taken = engine_view_taken(&param, text);
    const char* point = param.mount.point;
    char source[ZOR_PATH_SIZE + 256];
    BPRINTF(source, "%s:%s", param.server, param.share);
    MNT_WHERE w;
    if (mnt_where(point, nullptr, source, &w) != 0) {
        ret = table_unreadable(point);
    } else {
        trace_where(w, point);
        if (w.on_point > 0 && w.top_own) {
            ret = check_mount(point, level);
        } else if (w.on_point_own > 0) {
            trace(TR_ERROR, ZOR_SRC, "mntpoint=%s mounted from another share %s.", point, w.top.source);
            setshmbuf("Mount point was mounted from another share. (%s, %s)", point, w.top.source);
            ret = MON_FAILED;
        } else {
            // A share may be mounted elsewhere by others as well: only the point is this resource's.
            ret = MON_STOPPED;
        }
    }
    ret = recorded_left(resource, taken ? disagreed(ret, text) : ret);
    TRACE_EXIT(ret);
    return ret;
}
