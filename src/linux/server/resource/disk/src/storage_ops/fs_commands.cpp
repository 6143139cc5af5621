// One routine per storage command on a disk or a mount point: each builds
// its shell command line and runs it under its time limit.
#include "../bounded.h"
#include "../command_exec/cmdline.h"
#include "../command_exec/seam.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../tracersc.h"
#include "zor_ops.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>

namespace {

// The checker's path names the check; a path longer than the 31 characters
// of cmdname is named by its base name (cut to 31), which still tells the
// checkers apart where the path's head would not.
void checker_name(PDISK_FSCK_INFO pfinfo, const char* path)
{
    if (strlen(path) < sizeof(pfinfo->cmdname)) {
        BCOPY(pfinfo->cmdname, path);
        return;
    }
    const char* slash = strrchr(path, '/');
    BCOPY(pfinfo->cmdname, slash != nullptr && slash[1] != '\0' ? slash + 1 : path);
}

}  // namespace

bool cmdpath_valid(const char* path)
{
    struct stat sb;
    if (stat(path, &sb) == 0) {
        return true;
    }
    int err = errno;
    trace(TR_ERROR, ZOR_SRC, "invalid cmdpath. %s (errno=%d)", path, err);
    setshmbuf("Command path was invalid. (%s)", path);
    return false;
}

void new_command(PDISK_FUNC_INFO pfinfo, const char* name, int timeout)
{
    memset(pfinfo, 0, sizeof(*pfinfo));
    zor_bcopy(pfinfo->cmdname, sizeof(pfinfo->cmdname), name);
    pfinfo->timeout = timeout;
}

int run_locked(PDISK_FUNC_INFO pfinfo, int lock, const char* start, const char* end)
{
    if (lock != 0) {
        disk_entercrit_mount();
    }
    trace(TR_INFO, ZOR_SRC, "%s", start);
    int ret = zor_seam.run_cmd(pfinfo);
    trace(TR_INFO, ZOR_SRC, "%s", end);
    if (lock != 0) {
        disk_leavecrit_mount();
    }
    return ret;
}

int cmd_roset(PZOR_ROSET proset, const char* devname, const char* disktype, int roflag)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< roset >>>");
    DISK_FUNC_INFO finfo;
    new_command(&finfo, "roset", proset->to);
    if (!cmdpath_valid(proset->path)) {
        TRACE_EXIT(ZR_CMDPATH_INVALID);
        return ZR_CMDPATH_INVALID;
    }
    int cut;
    if (strcmp(disktype, "disk") == 0) {
        if (roflag == ROSET_RW) {
            cut = CMDLINE(finfo.cmdline, "roset", "exec \"%s\" -w -d \"%s\" > /dev/null 2>&1",
                          zarg("roset/path", proset->path), zarg("device", devname));
        } else if (roflag == ROSET_RO) {
            cut = CMDLINE(finfo.cmdline, "roset", "exec \"%s\" -o -d \"%s\" > /dev/null 2>&1",
                          zarg("roset/path", proset->path), zarg("device", devname));
        } else {
            trace(TR_ERROR, ZOR_SRC, "roflag is invalid. (%d)", roflag);
            setshm_status(ZR_INTERNAL);
            TRACE_EXIT(ZR_INTERNAL);
            return ZR_INTERNAL;
        }
    } else if (strcmp(disktype, "lvm") == 0) {
        trace(TR_DETAIL, ZOR_SRC, "disktype is lvm. skip roset.");
        TRACE_EXIT(0);
        return 0;
    } else {
        trace(TR_ERROR, ZOR_SRC, "disktype is invalid. (%s)", disktype);
        setshm_status(ZR_INTERNAL);
        TRACE_EXIT(ZR_INTERNAL);
        return ZR_INTERNAL;
    }
    if (cut != 0) {
        TRACE_EXIT(cut);
        return cut;
    }
    trace(TR_INFO, ZOR_SRC, "(%s)", finfo.cmdline);
    int ret = zor_seam.run_cmd(&finfo);
    TRACE_EXIT(ret);
    return ret;
}

int cmd_fsck(PZOR_FSCK pfsck, const char* devname, const char* fstype)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< fsck >>>");
    DISK_FSCK_INFO finfo;
    memset(&finfo, 0, sizeof(finfo));
    BCOPY(finfo.devname, devname);
    finfo.timeout = pfsck->to;
    bool reiserfs = strcmp(fstype, "reiserfs") == 0;
    if (reiserfs) {
        checker_name(&finfo, pfsck->reiserpath);
        // reiserfsck asks for confirmation; "Yes" answers every question.
        CMDLINE_OR_RETURN(finfo.cmdline, finfo.cmdname, "exec yes Yes | \"%s\" %s \"%s\" 2>&1",
                          zarg("fsck/reiserfs", pfsck->reiserpath), zarg("fsck/option", pfsck->opt, ZA_WORDS),
                          zarg("device", devname));
    } else if (strcmp(fstype, "xfs") == 0) {
        checker_name(&finfo, pfsck->xfspath);
        CMDLINE_OR_RETURN(finfo.cmdline, finfo.cmdname, "exec \"%s\" %s \"%s\" 2>&1",
                          zarg("fsck/xfs", pfsck->xfspath), zarg("fsck/xfsoption", pfsck->xfsopt, ZA_WORDS),
                          zarg("device", devname));
    } else {
        checker_name(&finfo, pfsck->path);
        CMDLINE_OR_RETURN(finfo.cmdline, finfo.cmdname, "exec \"%s\" -t %s %s \"%s\" 2>&1",
                          zarg("fsck/path", pfsck->path), zarg("fs", fstype),
                          zarg("fsck/option", pfsck->opt, ZA_WORDS), zarg("device", devname));
    }
    int ret = zor_seam.run_fsck(&finfo, fstype);

    // reiserfsck's exit codes 4 and 6 ask for a second run with an option
    // the configuration must allow.
    if (ret == ZR_CMD_FAILED && reiserfs && (finfo.cmdret == 4 || finfo.cmdret == 6)) {
        const char* opt = finfo.cmdret == 4 ? "--rebuild-tree" : "--fix-fixable";
        int allowed = finfo.cmdret == 4 ? pfsck->rebuildopt : pfsck->fixopt;
        BCOPY(finfo.optname, opt);
        trace(TR_WARNING, ZOR_SRC, "ret=%d,need to do %s comannd with %s option", ret, pfsck->reiserpath,
              opt);
        if (allowed != 0) {
            int rc = CMDLINE(finfo.cmdline, finfo.cmdname, "exec yes Yes | \"%s\" %s \"%s\" 2>&1",
                             zarg("fsck/reiserfs", pfsck->reiserpath), zarg(nullptr, opt, ZA_WORDS),
                             zarg("device", devname));
            if (rc != 0) {
                return rc;
            }
            trace(TR_INFO, ZOR_SRC, "(%s)", finfo.cmdline);
            // ret 13 and the exit code stay in the record: the runner
            // announces the second run with its option.
            ret = zor_seam.run_fsck(&finfo, fstype);
        } else {
            tracemess3(TR_EVENT, ZOR_EV_OPTION_REFUSED, ZOR_SRC, nullptr, finfo.cmdname, finfo.devname,
                       finfo.optname);
        }
    }
    trace(TR_INFO, ZOR_SRC, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ret));
    return ret;
}

int cmd_mount(PZOR_MOUNT pmount, const char* devname, const char* fstype)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< mount >>>");
    DISK_FUNC_INFO finfo;
    new_command(&finfo, "mount", pmount->to);
    if (pmount->opt[0] != '\0') {
        CMDLINE_OR_RETURN(finfo.cmdline, "mount", "exec \"%s\" -t %s -o %s \"%s\" \"%s\" 2>&1",
                          zarg("mount/path", pmount->path), zarg("fs", fstype),
                          zarg("mount/option", pmount->opt), zarg("device", devname),
                          zarg("mount/point", pmount->point));
    } else {
        CMDLINE_OR_RETURN(finfo.cmdline, "mount", "exec \"%s\" -t %s \"%s\" \"%s\" 2>&1",
                          zarg("mount/path", pmount->path), zarg("fs", fstype), zarg("device", devname),
                          zarg("mount/point", pmount->point));
    }
    int ret = run_locked(&finfo, pmount->lock, "mount start.", "mount end.");
    if (ret == ZR_TIMEOUT) {
        tracemess2(TR_EVENT, ZOR_EV_MOUNT_TIMEOUT, ZOR_SRC, nullptr, finfo.cmdname, devname);
    } else if (ret == ZR_CMD_FAILED) {
        tracemess4(TR_EVENT, ZOR_EV_CMD_FAILED, ZOR_SRC, nullptr, finfo.cmdname, devname, finfo.cmdretval);
    }
    TRACE_EXIT(ret);
    return ret;
}

int cmd_umount(PZOR_UMOUNT pumount, const char* mntpt)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< umount >>>");
    DISK_FUNC_INFO finfo;
    new_command(&finfo, "umount", pumount->to);
    if (pumount->opt[0] != '\0') {
        CMDLINE_OR_RETURN(finfo.cmdline, "umount", "exec \"%s\" %s \"%s\" 2>&1",
                          zarg("umount/path", pumount->path), zarg("umount/option", pumount->opt, ZA_WORDS),
                          zarg("mount/point", mntpt));
    } else {
        CMDLINE_OR_RETURN(finfo.cmdline, "umount", "exec \"%s\" \"%s\" 2>&1",
                          zarg("umount/path", pumount->path), zarg("mount/point", mntpt));
    }
    int ret = run_locked(&finfo, pumount->lock, "umount start.", "umount end.");
    TRACE_EXIT(ret);
    return ret;
}

int cmd_relpath(PZOR_RELPATH prelpath, const char* path)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< relpath >>>");
    DISK_FUNC_INFO finfo;
    new_command(&finfo, "relpath", prelpath->to);
    if (!cmdpath_valid(prelpath->path)) {
        TRACE_EXIT(ZR_CMDPATH_INVALID);
        return ZR_CMDPATH_INVALID;
    }
    CMDLINE_OR_RETURN(finfo.cmdline, "relpath", "exec \"%s\" \"%s\" > /dev/null 2>&1",
                      zarg("relpath/path", prelpath->path), zarg("mount/point", path));
    int ret = zor_seam.run_cmd(&finfo);
    TRACE_EXIT(ret);
    return ret;
}

int zormkdir(char* path)
{
    TRACE_ENTER();
    size_t len = strlen(path);
    while (len > 1 && path[len - 1] == '/') {
        path[--len] = '\0';
    }
    trace(TR_DETAIL, ZOR_SRC, "path check -> %s", path);
    struct stat sb;
    if (stat(path, &sb) == 0) {
        // Whatever it is: a file here makes the later mount fail, with its own text.
        trace(TR_INFO, ZOR_SRC, "path:%s already exist.", path);
        TRACE_EXIT(0);
        return 0;
    }
    const char* slash = strrchr(path, '/');
    if (slash != nullptr && slash != path) {
        char parent[ZOR_PATH_SIZE];
        if (static_cast<size_t>(slash - path) >= sizeof(parent)) {
            trace(TR_ERROR, ZOR_SRC, "path is too long. (%s)", path);
            TRACE_EXIT(-1);
            return -1;
        }
        BCOPY(parent, path);
        parent[slash - path] = '\0';
        int ret = zormkdir(parent);
        if (ret != 0) {
            TRACE_EXIT(ret);
            return ret;
        }
    }
    int ret = mkdir(path, 0777);
    if (ret == 0) {
        trace(TR_INFO, ZOR_SRC, "mkdir -> %s", path);
        TRACE_EXIT(0);
        return 0;
    }
    int err = errno;
    // Another activation made it since the look above (points under one
    // new parent); only a directory will do.
    if (err == EEXIST && stat(path, &sb) == 0 && S_ISDIR(sb.st_mode)) {
        trace(TR_INFO, ZOR_SRC, "path:%s already exist.", path);
        TRACE_EXIT(0);
        return 0;
    }
    trace2(TR_ERROR, ZOR_SRC, "mkdir(%s, %d) failed. (ret=%d,errno=%d)", path, 0777, ret, err);
    TRACE_EXIT(ret);
    return ret;
}
