// The few things the flows do to the machine, reached through one table:
// running a command, running a file system check, probing the mount table for
// a point, finding where a resource is mounted, and the pause between retries.
// The table holds the real implementations; a test replaces entries with
// scripted ones to drive the flows' retry and recovery paths without devices.
// The clock is not in it: the flows read none, and a command's deadline is
// part of running it (a scripted ZR_TIMEOUT is a time-out).
#pragma once

#include "mount_table.h"
#include "zor_exec.h"

#include <cstddef>

struct ZorSeam {
    int (*run_cmd)(PDISK_FUNC_INFO pfinfo);                                                // cmd_thread
    int (*run_fsck)(PDISK_FSCK_INFO pfinfo, const char* fstype);                           // fsck_thread
    int (*mount_count)(const char* point, int fcheck, bool* known);                        // mountsinfo_known
    int (*where)(const char* point, const char* device, const char* share, PMNT_WHERE w);  // mnt_where
    void (*pause)(int seconds);
};

extern ZorSeam zor_seam;

// The real table, for a test to restore.
extern const ZorSeam zor_real_seam;
