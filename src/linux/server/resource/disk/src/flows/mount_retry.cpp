// Mount retries for the activations. What differs between them (the recovery
// check, the read-only switch back, events) stays with the caller.
#include "mount_retry.h"

#include "../command_exec/zor_exec.h"
#include "../disk.h"
#include "../tracersc.h"

// The kernel's table decides whether a failed mount left the point mounted.
bool actually_mounted(const char* point)
{
    if (mountsinfo(point, MNT_PREMOUNT) == 0)
        return false;
    trace(TR_INFO, ZOR_SRC, "actually, mntpoint=%s mounted.", point);
    return true;
}

bool mount_with_retries(PZOR_MOUNT pmount, const std::function<int()>& mount)
{
    for (int i = 1; i <= pmount->retry; i++) {
        trace(TR_INFO, ZOR_SRC, "mount retry start.(count=%d)", i);
        if (mount() == 0) {
            trace(TR_INFO, ZOR_SRC, "break mount retry. (count=%d)", i);
            return true;
        }
        if (actually_mounted(pmount->point))
            return true;
    }
    return false;
}

int mount_retries_over(PZOR_MOUNT pmount)
{
    trace(TR_ERROR, ZOR_SRC, "mount max recover retry(%d) over.", pmount->retry);
    setshmbuf("Max recover retry over. (%s, retry=%d)", "mount", pmount->retry);
    return 9;
}
