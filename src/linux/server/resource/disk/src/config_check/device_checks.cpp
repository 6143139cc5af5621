// The check of the server itself: the device, /etc/fstab, the raw binding and
// the mount point. Each finding is one line of the check report.
#include "zor_check.h"

#include "check_report.h"

#include "../bounded.h"
#include "../command_exec/mmp_block.h"
#include "../command_exec/mount_table.h"
#include "../globals.h"
#include "../tracersc.h"

#include <mntent.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <cerrno>
#include <climits>
#include <cstring>

int check_blockdev(const char* devname, const char* disktype)
{
    TRACE_ENTER();
    int ret = 0;
    struct stat st;
    if (stat(devname, &st) != 0) {
        chk_report("E [007] [errno:%d] device(%s) is invalid.", errno, devname);
        // A logical volume or a volume-manager volume may be brought in by its
        // manager on the server that takes the resource over.
        if (strcasecmp(disktype, "lvm") != 0 && strcasecmp(disktype, "vxvm") != 0) {
            ret = 1;
        }
    } else if (!S_ISBLK(st.st_mode)) {
        chk_report("E [008] device(%s) is not block device.", devname);
        ret = 1;
    }
    TRACE_EXIT(ret);
    return ret;
}

int check_fstab(const char* specname)
{
    TRACE_ENTER();
    int ret = 0;
    FILE* fp = setmntent("/etc/fstab", "r");
    if (fp == nullptr) {
        // No fstab: nothing there can mount the resource behind the cluster's back.
        TRACE_EXIT(ret);
        return ret;
    }
    struct mntent* ent;
    while ((ent = getmntent(fp)) != nullptr) {
        if (strcmp(ent->mnt_fsname, specname) != 0) {
            continue;
        }
        if (strcmp(ent->mnt_type, "ignore") == 0) {
            chk_report("E [009] entry(%s) found in fstab file. filesystem is ignore.", specname);
            ret = 1;
        }
        if (hasmntopt(ent, "noauto") == nullptr) {
            chk_report("E [010] entry(%s) found in fstab file. noauto option is not found.", specname);
            ret = 1;
        }
        break;
    }
    endmntent(fp);
    TRACE_EXIT(ret);
    return ret;
}

namespace {

int check_raw_binding(const char* devname, const char* rawdev, const char* rawpath, int rawto)
{
    ZOR_RAW_PARAM param;
    memset(&param, 0, sizeof(param));
    BCOPY(param.devname, devname);
    BCOPY(param.rawdev, rawdev);
    BCOPY(param.rawpath, rawpath);
    param.rawto = rawto;
    switch (ckbind(&param)) {
        case 0:
        case ZR_RAW_BOUND_SAME:
            return 0;
        case ZR_RAW_BOUND_OTHER:
            chk_report("E [011] raw device(%s) already bound.", rawdev);
            return 1;
        default:
            chk_report("E [012] raw device(%s) check error.", rawdev);
            return 1;
    }
}

// A volume-manager volume: its raw device and block device must be one
// device under two node types.
int check_vxvm_pair(const char* devname, const char* rawdev)
{
    struct stat rst;
    if (stat(rawdev, &rst) != 0) {
        chk_report("E [013] [errno:%d] raw device(%s) is invalid.", errno, rawdev);
        return 0;
    }
    if (!S_ISCHR(rst.st_mode)) {
        chk_report("E [014] raw device(%s) is not character device.", rawdev);
        return 1;
    }
    struct stat bst;
    if (stat(devname, &bst) != 0) {
        chk_report("E [007] [errno:%d] device(%s) is invalid.", errno, devname);
        return 1;
    }
    int bmaj = static_cast<int>(major(bst.st_rdev));
    int bmin = static_cast<int>(minor(bst.st_rdev));
    int rmaj = static_cast<int>(major(rst.st_rdev));
    int rmin = static_cast<int>(minor(rst.st_rdev));
    if (bmaj != rmaj || bmin != rmin) {
        chk_report("E [015] major or minor is illegal. device(%s) is %d:%d, raw device(%s) is %d:%d.",
                   devname, bmaj, bmin, rawdev, rmaj, rmin);
        return 1;
    }
    return 0;
}

}  // namespace

int check_rawdev(const char* disktype, const char* devname, const char* rawdev, const char* rawpath,
                 int rawto)
{
    TRACE_ENTER();
    int ret = 0;
    if (strcasecmp(disktype, "raw") == 0) {
        ret = check_raw_binding(devname, rawdev, rawpath, rawto);
    } else if (strcasecmp(disktype, "vxvm") == 0) {
        ret = check_vxvm_pair(devname, rawdev);
    }
    TRACE_EXIT(ret);
    return ret;
}

int check_mntpoint(const char* point)
{
    TRACE_ENTER();
    int ret = 0;
    // Every action refuses it (however it is spelt): the system lives there.
    char resolved[PATH_MAX];
    mnt_point_resolve(point, resolved);
    if (mnt_system_point(resolved)) {
        chk_report("E [019] mountpoint(%s) is a system directory.", point);
        ret = 1;
    }
    struct stat st;
    if (stat(point, &st) == 0 && !S_ISDIR(st.st_mode)) {
        chk_report("E [017] mountpoint(%s) is not a directory.", point);
        ret = 1;
    }
    // A symbolic link among the parents would let the mount land elsewhere
    // than the configured path says. The point itself is not looked at.
    char path[ZOR_PATH_SIZE];
    BCOPY(path, point);
    while (true) {
        char* slash = strrchr(path, '/');
        if (slash == nullptr) {
            break;
        }
        *slash = '\0';
        if (path[0] == '\0') {
            break;
        }
        if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
            chk_report("E [016] part of mountpoint(%s) is a symbolic link file.", path);
            ret = 1;
        }
    }
    TRACE_EXIT(ret);
    return ret;
}

int check_mmp(const char* devname, const char* fstype, int mount_timeout)
{
    TRACE_ENTER();
    int ret = 0;
    MMP_INFO info;
    // Only ext file systems have it; a device that cannot be read here had its own line.
    if (strncmp(fstype, "ext", 3) == 0 && mmp_read(devname, &info) == MMP_READ_OK) {
        if (info.enabled == 0) {
            chk_report("I [003] device(%s) has no multi-mount protection.", devname);
        } else {
            const unsigned wait = mmp_takeover_wait(info);
            chk_report("I [002] device(%s) has multi-mount protection. (interval=%u, takeover=%u)", devname,
                       info.update_interval, wait);
            // A mount killed at its time limit fails the failover after a crash; the mount itself,
            // a journal replay included, needs some seconds beyond the wait.
            if (mount_timeout < static_cast<int>(wait) + kMmpMountMargin) {
                chk_report(
                    "E [020] mount/timeout(%d) is shorter than takeover of multi-mount protection(%u) + %d.",
                    mount_timeout, wait, kMmpMountMargin);
                ret = 1;
            }
        }
    }
    TRACE_EXIT(ret);
    return ret;
}
