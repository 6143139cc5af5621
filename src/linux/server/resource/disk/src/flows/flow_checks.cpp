// Checks before an action touches anything: values that may not reach a
// command line, retry counts beyond any cluster time-out, and a device
// mounted elsewhere.
#include "flow_checks.h"
#include "../command_exec/seam.h"

#include <cstring>

#include "../command_exec/cmdline.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
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

int device_in_use(const char* devname)
{
    char where[ZOR_PATH_SIZE];
    if (zor_seam.device_mounted(devname, where, sizeof(where)) != 1) {
        return 0;
    }
    trace(TR_ERROR, ZOR_SRC, "device=%s already mounted on %s.", devname, where);
    setshmbuf("Device was already mounted. (%s)", devname);
    return ZR_MOUNTED;
}

bool roset_safe(const char* devname)
{
    char where[ZOR_PATH_SIZE];
    if (zor_seam.device_mounted(devname, where, sizeof(where)) != 1) {
        return true;
    }
    trace(TR_ERROR, ZOR_SRC, "device=%s still mounted on %s. skip roset.", devname, where);
    return false;
}
