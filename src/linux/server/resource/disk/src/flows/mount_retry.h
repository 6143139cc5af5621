// The mount retries that the disk, volume and NAS activations share.
#pragma once

#include <functional>

#include "../resource_config/zor_param.h"

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
