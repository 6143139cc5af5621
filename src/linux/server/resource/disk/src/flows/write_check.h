// The write check of the deepest monitor: a file written, synced and read
// back in the mount's root, in a child of the process runner.
#pragma once

// The directory, in the mount's root, that holds the check's file (one per
// node, named after its host name).
#define MON_CHECK_DIR ".zor_monitor"

// The check, run in a forked child (only async-signal-safe calls): point is
// the mount point. Returns 0 when the token written was read back, 1 when
// not; what failed is written to descriptor 1.
int monitor_write_check(const char* point);
