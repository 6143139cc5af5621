// ext4's multi-mount protection (MMP), read from the device itself.
//
// A server that mounts an ext4 file system with the mmp feature writes a
// sequence number into the file system's MMP block every update interval
// (kernel thread kmmpd); a mount elsewhere that sees the number move refuses
// with EBUSY after waiting about two check intervals, and e2fsck marks the
// block while it runs. The block also names the server (the kernel's node
// name) and its device of the last writer.
#pragma once

#include <cstdint>

// Sequence numbers with a meaning of their own; any other value is the
// running count of a holder.
constexpr uint32_t MMP_SEQ_CLEAN = 0xFF4D4D50;  // unmounted cleanly
constexpr uint32_t MMP_SEQ_FSCK = 0xE24D4D50;   // e2fsck runs, or was killed while it ran

typedef struct {
    int enabled;               // the file system has the mmp feature; the rest is set only then
    uint32_t seq;              // sequence number
    uint64_t time;             // last update by the writer, seconds since the epoch
    unsigned update_interval;  // the superblock's interval between updates, seconds
    unsigned check_interval;   // the writer's check interval, seconds
    char nodename[65];         // node name of the last writer
    char bdevname[33];         // its device name
} MMP_INFO, *PMMP_INFO;

enum MmpRead {
    MMP_READ_OK = 0,      // an ext2/3/4 file system; info->enabled tells whether it has MMP
    MMP_NOT_EXT = 1,      // no ext2/3/4 superblock on the device
    MMP_UNREADABLE = -1,  // the device, or its MMP block, could not be read (errno kept)
};

// Reads the superblock and, with the mmp feature, the MMP block, past the
// page cache (O_DIRECT): another server's writes never reach this server's
// cache, so a cached block would show an old holder, or none.
MmpRead mmp_read(const char* devname, PMMP_INFO info);

enum MmpVerdict {
    MMP_NOT_REFUSED = 0,  // whatever failed, multi-mount protection did not refuse it
    MMP_ACTIVE = 1,       // another server keeps the file system active
    MMP_IN_FSCK = 2,      // e2fsck marked the file system (running, or killed)
};

// Whether a mount or check that failed after `before` was read was refused by
// multi-mount protection, as `after`, read after the failure, shows: the block
// marked by e2fsck, or the sequence moved on and not cleanly released (which
// only a `before` read with the mmp feature can tell). The
// kernel and e2fsck refuse only on such a sight; a sequence left as it was is
// a holder that died (or none) and never the reason of a refusal.
MmpVerdict mmp_refusal(const MMP_INFO& before, const MMP_INFO& after);

// Seconds that a mount waits for a holder that died without unmounting, as
// the kernel counts them: two looks of 2 x check interval + 1, each at most
// check interval + 60, with the check interval a holder writes (twice its
// update interval, 5 to 300). A live holder is refused after the first look.
unsigned mmp_takeover_wait(const MMP_INFO& info);
