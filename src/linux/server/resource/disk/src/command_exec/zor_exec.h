// Running external commands: the timed command runner, the file system
// check runner and the mount table probe.
#pragma once

#include <cstddef>

// One command run by cmd_thread.
typedef struct {
    char cmdline[1024];  // complete shell command line
    char cmdname[32];    // "roset", "relpath", "ping", "mount", "umount"; selects the worker
    char cmdret[1024];   // first 1023 characters of the output (pipe worker)
    int ret;             // 0, 13 or 14, written by the worker
    int timeout;         // seconds
    int cmdretval;       // exit code (pipe worker)
    // Instead of the command line, a function of the agent run in a forked
    // child (pipe worker; only async-signal-safe calls), cmdline its argument.
    int (*childfn)(const char* arg);
} DISK_FUNC_INFO, *PDISK_FUNC_INFO;

// One file system check run by fsck_thread.
typedef struct {
    char cmdline[1024];
    char cmdname[32];  // checker path; its base name when longer than 31
    char devname[1024];
    char optname[1024];  // option of a second reiserfs run, else empty
    int ret;             // 0, 13 or 14, written by the worker
    int cmdret;          // the checker's exit code
    int timeout;
} DISK_FSCK_INFO, *PDISK_FSCK_INFO;

// One mount table search by mountsinfo.
typedef struct {
    char cmdline[1024];
    char mntpt[1024];  // the mount point as /proc/mounts shows it (spaces as \040)
    int ret;           // matching lines, or -1 when the search failed
} DISK_MOUNTS_INFO, *PDISK_MOUNTS_INFO;

// Timed command runner: 0, ZR_TIMEOUT, ZR_CMD_FAILED, ZR_CMD_ABNORMAL or
// ZR_NO_THREAD, told by cmd_decode (cmd_result.h).
int cmd_thread(PDISK_FUNC_INFO pfinfo);
void* exec_cmd_system(void* parg);
void* exec_cmd_popen(void* parg);

// File system check runner: as cmd_thread; fstype "xfs" picks xfs_repair's
// exit code rules.
int fsck_thread(PDISK_FSCK_INFO pfinfo, const char* fstype);
void* exec_cmd_fsck(void* parg);
void* exec_cmd_xfsrepair(void* parg);
int fsck_log_init(void);
int fsck_log_term(void);

// Mount table probe. fcheck 1 (before a mount): 1 mounted, 0 not or unknown.
// fcheck 2 (before an unmount): number of entries; 1 on time-out, 0 when the
// probe could not run.
#define MNT_PREMOUNT 1
#define MNT_PREUMOUNT 2
int mountsinfo(const char* pdirpath, int fcheck);
// mountsinfo, telling also whether the answer is known: *pknown is false when
// the probe could not decide (no table, no grep, grep failing, time-out) and
// the answer is only the default above.
int mountsinfo_known(const char* pdirpath, int fcheck, bool* pknown);
void* mntinfo_popen(void* parg);

// A basic regular expression that matches exactly the kernel's escaped form
// of path (before the quoting of the command line). 0, or -1 when out is too
// small. The lines it selects are read by mount_table.h.
int mounts_grep_pattern(const char* path, char* out, size_t size);

// Output lines that reach a log show "#" for "%", except in their last
// character.
void mask_percent(char* piece);
