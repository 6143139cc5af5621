// The unmount with retries that the volume and NAS deactivations share.
#pragma once

#include "../resource_config/zor_param.h"

// Before a volume or NAS unmount: the number of mount-table entries for the
// point in *count, or 6 when there is none (traced, status text set).
int point_not_mounted(const char* point, int* count);

// Unmounts `point`, which the mount table showed with `count` entries: one
// unmount, paused retries on failure (releasing the point first when the
// action is "kill", looking at the mount table when chkprcmnts is set), then
// the stacked mounts below. 0 once the point is unmounted, 9 when the retries
// are used up (status text set).
int umount_with_retries(PZOR_UMOUNT pumount, PZOR_RELPATH prelpath, const char* point, int count);
