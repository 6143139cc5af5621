// Checks before an action touches anything: values that may not reach a
// command line, retry counts beyond any cluster time-out, and a device
// mounted elsewhere.
#include "flow_checks.h"
#include "../command_exec/mount_table.h"
#include "../command_exec/seam.h"

#include <cerrno>
#include <cstring>

#include "../command_exec/cmdline.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"

namespace {

// One value: its key, its text (or a retry count) and how it is used.
struct Param {
    const char* key;
    const char* text;  // nullptr for a retry count
    int kind;          // ZA_WORD or ZA_WORDS
    int retry;
};

Param word(const char* key, const char* text, int kind = ZA_WORD)
{
    return Param{key, text, kind, 0};
}

Param retry(const char* key, int count)
{
    return Param{key, nullptr, ZA_WORD, count};
}

// The first refused value decides the status text.
int check(std::initializer_list<Param> params)
{
    for (const Param& p : params) {
        if (p.text != nullptr && !cmd_word_ok(p.text, p.kind)) {
            return cmd_param_refused(p.key, p.text);
        }
        // 0 and negative counts keep their meaning: no retry.
        if (p.text == nullptr && p.retry > ZOR_RETRY_MAX) {
            trace(TR_ERROR, ZOR_SRC, "%s=%d is invalid.", p.key, p.retry);
            setshmbuf("Parameter was invalid. (%s)", p.key);
            return ZR_INTERNAL;
        }
    }
    return 0;
}

// The check option that the file system type selects.
Param fsck_option(const ZOR_FSCK* pfsck, const char* fstype)
{
    if (strcmp(fstype, "xfs") == 0) {
        return word("fsck/xfsoption", pfsck->xfsopt, ZA_WORDS);
    }
    return word("fsck/option", pfsck->opt, ZA_WORDS);
}

}  // namespace

// Disks and volumes check the same values.
template <typename Param>
int ckparam_device(Param* param, bool activate)
{
    if (activate) {
        return check({word("fs", param->fstype), word("mount/option", param->mount.opt),
                      fsck_option(&param->fsck, param->fstype), retry("mount/retry", param->mount.retry)});
    }
    return check(
        {word("umount/option", param->umount.opt, ZA_WORDS), retry("umount/retry", param->umount.retry)});
}

int ckparam_disk(PZOR_DISK_PARAM param, bool activate)
{
    return ckparam_device(param, activate);
}

int ckparam_vxvol(PZOR_VXVOL_PARAM param, bool activate)
{
    return ckparam_device(param, activate);
}

int ckparam_nas(PZOR_NAS_PARAM param, bool activate)
{
    if (activate) {
        return check({word("svname", param->server), word("fs", param->fstype),
                      word("mount/option", param->mount.opt), retry("mount/retry", param->mount.retry)});
    }
    return check({word("svname", param->server), word("umount/option", param->umount.opt, ZA_WORDS),
                  retry("umount/retry", param->umount.retry)});
}

int locate(const char* point, const char* devname, const char* share, PMNT_WHERE w)
{
    if (zor_seam.where(point, devname, share, w) == 0) {
        return 0;
    }
    trace(TR_ERROR, ZOR_SRC, "read(/proc/self/mountinfo) failed. (errno=%d)", errno);
    setshmbuf("Check of mount status has failed. (%s)", point != nullptr ? point : devname);
    return ZR_STATUS_UNKNOWN;
}

int system_point(const char* point)
{
    char resolved[PATH_MAX];
    mnt_point_resolve(point, resolved);
    if (!mnt_system_point(resolved)) {
        return 0;
    }
    trace(TR_ERROR, ZOR_SRC, "mntpoint=%s (%s) is a system directory.", point, resolved);
    setshmbuf("Mount point was a system directory. (%s)", point);
    return ZR_POINT_INVALID;
}

int foreign_on_point(const char* point, const char* devname, const char* share)
{
    MNT_WHERE w;
    RETURN_CODE_IF_FAILED(locate(point, devname, share, &w));
    if (w.on_point == 0 || w.lowest_own) {
        return 0;
    }
    const char* what = share != nullptr ? "share" : "device";
    trace(TR_ERROR, ZOR_SRC, "mntpoint=%s mounted from another %s %s.", point, what, w.lowest.source);
    setshmbuf("Mount point was mounted from another %s. (%s, %s)", what, point, w.lowest.source);
    return ZR_MOUNTED;
}

int own_point(const char* point, const char* devname, const char* share)
{
    RETURN_CODE_IF_FAILED(system_point(point));
    return foreign_on_point(point, devname, share);
}

void device_path(const char* devname, char* out)
{
    MNT_WHERE w;
    if (zor_seam.where(nullptr, devname, nullptr, &w) == 0 && w.device) {
        zor_bcopy(out, ZOR_PATH_SIZE, w.devpath);
    } else {
        zor_bcopy(out, ZOR_PATH_SIZE, devname);
    }
    trace(TR_DETAIL, ZOR_SRC, "device=%s is %s.", devname, out);
}

int mounted_checked(const char* point, const char* dev, PZOR_UMOUNT pumount)
{
    MNT_WHERE w;
    RETURN_CODE_IF_FAILED(locate(point, dev, nullptr, &w));
    if (w.on_point > 0 && w.top_own) {
        return 0;
    }
    if (w.on_point == 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpoint=%s not mounted.", point);
        setshmbuf("Mount point was not mounted. (%s)", point);
        return ZR_NOT_MOUNTED;
    }
    trace(TR_ERROR, ZOR_SRC, "mntpoint=%s mounted from %s, not from device=%s.", point, w.top.source, dev);
    // The point was free before the mount: what stands there alone came with
    // it, from a device that is not the one checked and switched, and goes.
    if (w.on_point_own == 0) {
        cmd_umount(pumount, point);
    }
    setshmbuf("Mount point was mounted from another device. (%s, %s)", point, w.top.source);
    return ZR_MOUNTED;
}

int device_in_use(const char* devname, const char* shown)
{
    shown = shown != nullptr ? shown : devname;
    // Without a point, every mount of the device counts as one elsewhere.
    MNT_WHERE w;
    RETURN_CODE_IF_FAILED(locate(nullptr, devname, nullptr, &w));
    if (w.elsewhere > 0) {
        trace(TR_ERROR, ZOR_SRC, "device=%s already mounted on %s.", shown, w.where);
        setshmbuf("Device was already mounted. (%s)", shown);
        return ZR_MOUNTED;
    }
    // Not in this namespace's table, yet held: a lazily detached mount still
    // in use, a mount of another namespace, a holder of the device.
    if (w.device && mnt_device_held(w.devpath) == 1) {
        trace(TR_ERROR, ZOR_SRC, "device=%s (%s) in use.", shown, w.devpath);
        setshmbuf("Device was in use. (%s)", shown);
        return ZR_MOUNTED;
    }
    return 0;
}

bool roset_safe(const char* devname)
{
    MNT_WHERE w;
    if (zor_seam.where(nullptr, devname, nullptr, &w) != 0) {
        trace(TR_ERROR, ZOR_SRC, "device=%s mount status unknown. skip roset.", devname);
        return false;
    }
    if (w.elsewhere == 0) {
        return true;
    }
    trace(TR_ERROR, ZOR_SRC, "device=%s still mounted on %s. skip roset.", devname, w.where);
    return false;
}
