// One routine per storage command, and the periodic check schedule.
#pragma once

#include "../command_exec/zor_exec.h"
#include "../resource_config/zor_param.h"

// roflag for cmd_roset.
#define ROSET_RW 0
#define ROSET_RO 1

// A cleared command record named `name` with its time-out in seconds.
void new_command(PDISK_FUNC_INFO pfinfo, const char* name, int timeout);
// The one mount-lock wrapper: runs a mount or unmount command, under the
// node's mount lock when the resource asks for it (lock != 0), between the
// trace lines `start` and `end`; the lock is left whatever the outcome.
int run_locked(PDISK_FUNC_INFO pfinfo, int lock, const char* start, const char* end);
// A command file that cannot be found is reported (trace and status text)
// before anything runs.
bool cmdpath_valid(const char* path);

int cmd_roset(PZOR_ROSET proset, const char* devname, const char* disktype, int roflag);
int cmd_fsck(PZOR_FSCK pfsck, const char* devname, const char* fstype);
int cmd_mount(PZOR_MOUNT pmount, const char* devname, const char* fstype);
int cmd_umount(PZOR_UMOUNT pumount, const char* mntpt);
int cmd_relpath(PZOR_RELPATH prelpath, const char* path);
// Creates path and its missing parents; strips trailing "/" in place.
// 0 when the path exists or was created, also when another process created a
// directory of it meanwhile, else -1.
int zormkdir(char* path);

// ping sends its requests a second apart and, when none is answered, waits
// 10 s more for a late reply; its time limit is the count plus this margin,
// which leaves room for the name lookup and a busy machine. A ping held longer
// (a name server that does not answer) is ended like any command.
#define ZOR_PING_MARGIN 15
int ping_nas(PZOR_NAS_PARAM pparam);
int mount_nas(PZOR_NAS_PARAM pparam);

// Check schedule in the registry: 18 not due (or new device), 19 registry
// unusable, else the result of cmd_fsck. The schedule is kept for the device
// as configured (devname); the check runs on checkdev when given (the device
// as the activation resolved it).
int fsck_timing(const char* rsctype, const char* rscname, PZOR_FSCK pfsck, const char* devname,
                const char* fstype, const char* checkdev = nullptr);
// 0 when the activation counter was advanced, 19 when the registry failed.
int set_fsck_interval(const char* rsctype, const char* rscname);
