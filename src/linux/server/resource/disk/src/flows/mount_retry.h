// Steps that the disk, volume and NAS activations share: the mount point
// checks, the check before the mount and the mount retries. Each caller keeps
// its own order of steps and its own clean-up on failure.
#pragma once

#include <functional>

#include "../resource_config/zor_param.h"

// Before anything is touched: 5 when the point is mounted already (traced,
// status text set), else 0.
int point_in_use(const char* point);

// Makes the point usable for the mount: 7 when it is not absolute, 8 when it
// cannot be created (traced, status text set), else 0. Strips trailing "/" in
// place: the mount and the probes after it use the short form.
int prepare_point(char* point);

// The check before the mount by pfsck->timing: 0 none, 1 always, 2 when due
// by the registry counter of rsc_type/rsc_name; xfs is never checked here.
// Returns 0 to go on mounting (*ffsck = 1 when a check ran and passed) or the
// failed check's code.
int check_before_mount(PZOR_FSCK pfsck, const char* rsc_type, const char* rsc_name, const char* devname,
                       const char* fstype, int* ffsck);

// After a failed mount: true when the mount table shows the point mounted
// all the same ("actually, mntpoint=%s mounted." traced).
bool actually_mounted(const char* point);

// Up to pmount->retry further mounts through `mount` (0 on success), without
// pause, the mount table looked at after each failure. True once the point is
// mounted; false when the retries are used up (nothing traced for that yet:
// callers have their own steps before mount_retries_over()).
bool mount_with_retries(PZOR_MOUNT pmount, const std::function<int()>& mount);

// The retries are used up: trace and status text. Returns 9.
int mount_retries_over(PZOR_MOUNT pmount);

// The recovery step after a failed first mount, shared by the flows: nothing
// when no retries are configured (1: the mount step's status text stands);
// else one check through `fsck` (when given, when pmount->act asks for it and
// no check has just passed, ffsck == 0) whose failure ends the recovery unless
// the point got mounted all the same; then the retries through `mount`.
// `retries_over` (when given) runs before the retries' failure is reported.
// 0 once the point is mounted, else the failing code.
int recover_mount(PZOR_MOUNT pmount, int ffsck, const std::function<int()>& fsck,
                  const std::function<int()>& mount, const std::function<void()>& retries_over);

// The mount of the disk and volume activations: after a failure that left the
// point unmounted, `recover` with the mount's code; once mounted, the
// activation counter of the periodic check (fsck timing 2) advanced, except
// for xfs. 0 or the recovery's code.
int mount_and_count(PZOR_MOUNT pmount, const char* devname, const char* fstype, PZOR_FSCK pfsck,
                    const char* rsc_type, const char* rsc_name, const std::function<int(int)>& recover);
