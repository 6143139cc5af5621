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
#include "../tracersc.h"
#include "flow_checks.h"
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
#include <cstring>

namespace {

// Time limit of the read and write checks. A monitor is repeated every few
// seconds, so a slow answer is as bad as none.
constexpr int kMonitorTimeout = 10;

// What a device node tells without touching any file system.
struct DeviceState {
    bool found;  // a block device node exists
    dev_t rdev;
    int readonly;  // 1 read-only, 0 read-write, -1 unknown
};

DeviceState probe_device(const char* devname)
{
    DeviceState st = {false, 0, -1};
    struct stat sb;
    if (stat(devname, &sb) != 0 || !S_ISBLK(sb.st_mode)) {
        trace(TR_INFO, ZOR_SRC, "device=%s not found. (errno=%d)", devname, errno);
        return st;
    }
    st.found = true;
    st.rdev = sb.st_rdev;
    int fd = open(devname, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0) {
        int ro = 0;
        if (ioctl(fd, BLKROGET, &ro) == 0) {
            st.readonly = ro != 0 ? 1 : 0;
        }
        close(fd);
    }
    trace(TR_DETAIL, ZOR_SRC, "device=%s dev=%u:%u ro=%d", devname, major(st.rdev), minor(st.rdev),
          st.readonly);
    return st;
}

// The mount is the resource's when its device numbers are the device's, or,
// for a source without a device node (zfs), when the source is the name.
bool same_device(const MNT_ENTRY& top, const DeviceState& dev, const char* devname)
{
    if (dev.found && makedev(top.major, top.minor) == dev.rdev) {
        return true;
    }
    return strcmp(top.source, devname) == 0;
}

// Not mounted: a point that is gone is half-way (the activation made it, or
// its parent file system is missing). lstat is safe here: nothing is mounted
// on the point, so the lookup ends in its parent's file system.
bool point_missing(const char* point)
{
    struct stat sb;
    if (lstat(point, &sb) == 0) {
        return false;
    }
    trace(TR_ERROR, ZOR_SRC, "mntpoint=%s not found. (errno=%d)", point, errno);
    setshmbuf("Mount point was not found. (%s)", point);
    return true;
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
    setshmbuf("Check of mount status has failed. (%s)", point);
    return MON_FAILED;
}

// devname, point: the resource's; rwswitch: the disk type switches the device
// read-only when out of service ("disk").
int device_monitor(const char* devname, const char* point, bool rwswitch, int level)
{
    MNT_ENTRY top;
    int count = mnttab_lookup(point, &top);
    if (count < 0) {
        return table_unreadable(point);
    }
    DeviceState dev = probe_device(devname);
    if (count > 0) {
        trace(TR_INFO, ZOR_SRC, "mntpoint=%s mounted from %s (%u:%u), cnt=%d.", point, top.source, top.major,
              top.minor, count);
        if (!same_device(top, dev, devname)) {
            trace(TR_ERROR, ZOR_SRC, "mntpoint=%s mounted from another device %s.", point, top.source);
            setshmbuf("Mount point was mounted from another device. (%s, %s)", point, top.source);
            return MON_FAILED;
        }
        if (rwswitch && dev.readonly == 1) {
            trace(TR_ERROR, ZOR_SRC, "device=%s read-only while mounted.", devname);
            setshmbuf("Device was read-only while mounted. (%s)", devname);
            return MON_FAILED;
        }
        return check_mount(point, level);
    }
    trace(TR_INFO, ZOR_SRC, "mntpoint=%s not mounted.", point);
    if (rwswitch) {
        if (!dev.found) {
            setshmbuf("Device was not found. (%s)", devname);
            return MON_FAILED;
        }
        if (dev.readonly != 1) {
            trace(TR_ERROR, ZOR_SRC, "device=%s read-write but not mounted.", devname);
            setshmbuf("Device was read-write but not mounted. (%s)", devname);
            return MON_FAILED;
        }
    }
    return point_missing(point) ? MON_FAILED : MON_STOPPED;
}

}  // namespace

int disk_monitor(const char* resource, const char* group, const char* disktype, int level)
{
    TRACE_ENTER();
    int ret;
    if (strcasecmp(disktype, "vxvm") == 0) {
        ZOR_VXVOL_PARAM param;
        if (load_param(resource, group, &param, getinfo_vxvol, "getinfo_vxvol") != 0) {
            ret = MON_FAILED;
        } else {
            ret = device_monitor(param.devname, param.mount.point, false, level);
        }
    } else {
        ZOR_DISK_PARAM param;
        if (load_disk(resource, group, &param) != 0) {
            ret = MON_FAILED;
        } else {
            ret = device_monitor(param.devname, param.mount.point, strcasecmp(param.disktype, "disk") == 0,
                                 level);
        }
    }
    TRACE_EXIT(ret);
    return ret;
}

int nas_monitor(const char* resource, const char* group, int level)
{
    TRACE_ENTER();
    ZOR_NAS_PARAM param;
    int ret = load_param(resource, group, &param, getinfo_nas, "getinfo_nas");
    if (ret != 0) {
        TRACE_EXIT(MON_FAILED);
        return MON_FAILED;
    }
    const char* point = param.mount.point;
    char source[ZOR_PATH_SIZE + 256];
    BPRINTF(source, "%s:%s", param.server, param.share);
    MNT_ENTRY top;
    int count = mnttab_lookup(point, &top);
    if (count < 0) {
        ret = table_unreadable(point);
    } else if (count > 0) {
        trace(TR_INFO, ZOR_SRC, "mntpoint=%s mounted from %s, cnt=%d.", point, top.source, count);
        if (strcmp(top.source, source) != 0) {
            trace(TR_ERROR, ZOR_SRC, "mntpoint=%s mounted from another share %s.", point, top.source);
            setshmbuf("Mount point was mounted from another share. (%s, %s)", point, top.source);
            ret = MON_FAILED;
        } else {
            ret = check_mount(point, level);
        }
    } else {
        trace(TR_INFO, ZOR_SRC, "mntpoint=%s not mounted.", point);
        ret = point_missing(point) ? MON_FAILED : MON_STOPPED;
    }
    TRACE_EXIT(ret);
    return ret;
}
