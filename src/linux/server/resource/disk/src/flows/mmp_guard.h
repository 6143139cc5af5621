// ext4's multi-mount protection around an activation's check and mount.
//
// A mount or e2fsck of a file system that another server keeps active is
// refused by the kernel (or e2fsck) after it watched the MMP block for a
// while; the command only says it failed. The block read before the check
// and again after a failure tells whether that was the refusal, so that the
// activation says so and does not spend its recovery check and retries on a
// disk that is another server's.
//
// Nothing is waited for here: a block whose holder stopped updating may be
// a server that crashed, and only the kernel's own wait may tell it from a
// slow one; refusing it at a look would block the failover after a crash
// that multi-mount protection exists to allow. A block marked by e2fsck is
// certain, and refused at once.
#pragma once

#include "../command_exec/mmp_block.h"

typedef struct {
    char devname[1024];
    MMP_INFO before;  // enabled == 0: no ext file system with MMP, or not read
} MMP_GUARD, *PMMP_GUARD;

// Reads the block of an ext file system (fstype "ext2", "ext3", "ext4")
// before the activation checks or mounts it. Returns 0, or ZR_MMP_REFUSED
// with its status text when the block is marked by e2fsck.
int mmp_before(PMMP_GUARD guard, const char* devname, const char* fstype);

// After a check or mount that failed with `failed`: ZR_MMP_REFUSED, traced
// with the holder and with its status text, when multi-mount protection
// refused it; else 0 and nothing changed. Only a command that ended with an
// exit code (ZR_CMD_FAILED) can have been refused: one killed at its time
// limit may have left this server's own new sequence in the block, which
// would read as another holder's.
int mmp_after(PMMP_GUARD guard, int failed);
