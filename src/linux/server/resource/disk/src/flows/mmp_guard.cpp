// ext4's multi-mount protection around an activation's check and mount.
#include "mmp_guard.h"

#include <cerrno>
#include <cstring>

#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"

namespace {

// The status text names the device and, when the block names one, the server.
void refusal_text(const char* what, const char* devname, const char* nodename)
{
    if (nodename[0] != '\0')
        setshmbuf("File system was %s. (%s, %s)", what, devname, nodename);
    else
        setshmbuf("File system was %s. (%s)", what, devname);
}

}  // namespace

int mmp_before(PMMP_GUARD guard, const char* devname, const char* fstype)
{
    memset(guard, 0, sizeof(*guard));
    BCOPY(guard->devname, devname);
    if (strcmp(fstype, "ext2") != 0 && strcmp(fstype, "ext3") != 0 && strcmp(fstype, "ext4") != 0)
        return 0;
    MmpRead r = mmp_read(devname, &guard->before);
    if (r == MMP_UNREADABLE) {
        // The check and the mount will tell what is wrong with the device.
        trace(TR_WARNING, ZOR_SRC, "mmp: device=%s not read ignore. (errno=%d)", devname, errno);
        guard->before.enabled = 0;
        return 0;
    }
    if (guard->before.enabled == 0)
        return 0;
    trace(TR_INFO, ZOR_SRC, "mmp: device=%s seq=%#x node=%s device=%s interval=%u.", devname,
          guard->before.seq, guard->before.nodename, guard->before.bdevname, guard->before.update_interval);
    if (guard->before.seq == MMP_SEQ_FSCK) {
        trace(TR_ERROR, ZOR_SRC, "mmp: device=%s marked by e2fsck on node=%s.", devname,
              guard->before.nodename);
        refusal_text("marked in use by fsck", devname, guard->before.nodename);
        return ZR_MMP_REFUSED;
    }
    return 0;
}

int mmp_after(PMMP_GUARD guard, int failed)
{
    if (guard->before.enabled == 0 || failed != ZR_CMD_FAILED)
        return 0;
    MMP_INFO after;
    if (mmp_read(guard->devname, &after) != MMP_READ_OK)
        return 0;
    switch (mmp_refusal(guard->before, after)) {
        case MMP_ACTIVE:
            trace(TR_ERROR, ZOR_SRC, "mmp: device=%s active on node=%s device=%s. (seq %#x -> %#x)",
                  guard->devname, after.nodename, after.bdevname, guard->before.seq, after.seq);
            refusal_text("active on another server", guard->devname, after.nodename);
            return ZR_MMP_REFUSED;
        case MMP_IN_FSCK:
            trace(TR_ERROR, ZOR_SRC, "mmp: device=%s marked by e2fsck on node=%s.", guard->devname,
                  after.nodename);
            refusal_text("marked in use by fsck", guard->devname, after.nodename);
            return ZR_MMP_REFUSED;
        case MMP_NOT_REFUSED:
            break;
    }
    return 0;
}
