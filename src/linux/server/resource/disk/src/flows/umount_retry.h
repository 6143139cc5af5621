// The unmount with retries that the volume and NAS deactivations share.
#pragma once

#include <functional>

#include "../resource_config/zor_param.h"

// Before a volume or NAS unmount: the number of mount-table entries for the
// point in *count, or 6 when there is none (traced, status text set).
int point_not_mounted(const char* point, int* count);

// What the mount-status probe of an unmount retry found: the part of the
// retry loop that differs between the disk flow and the volume and NAS flows.
#define UMOUNT_PROBE_MOUNTED (-1)  // still there: release and unmount again
#define UMOUNT_PROBE_BUSY (-2)     // another unmount runs: wait for the next pause
#define UMOUNT_PROBE_GONE 0        // unmounted: the retries end with 0
// Any other value is a failure code that ends the retries as it stands.
//
// Called with the attempt number, and `after_failed` false before the
// attempt's unmount, true after the last attempt's unmount failed.
using UmountProbe = std::function<int(int attempt, bool after_failed)>;

// Unmounts `point`, which the mount table showed with `count` entries: one
// unmount, paused retries on failure (each looked at by `probe` first, the
// point released first when the action is "kill"), then the stacked mounts
// below. 0 once the point is unmounted, 9 when the retries are used up
// (status text set), or the probe's failure code.
int umount_with_retries(PZOR_UMOUNT pumount, PZOR_RELPATH prelpath, const char* point, int count,
                        const UmountProbe& probe);

// The volume and NAS probe: another's file system now lowest on the point
// ends the retries (foreign_on_point: nothing of it is unmounted or
// released); with chkprcmnts set, a point that the mount table no longer
// shows counts as unmounted.
UmountProbe table_probe(PZOR_UMOUNT pumount, const char* point, const char* devname, const char* share);

// The volume and NAS deactivation after the opening: the refusals of
// own_point() for the resource of device `devname` or share `share`; 6 when
// the point is not mounted (traced, status text set); else `before` (when
// given), then the unmount with retries that trusts the mount table; `stuck`
// (when given) runs with the point's entry count when the retries are used up.
int umount_point(PZOR_UMOUNT pumount, PZOR_RELPATH prelpath, const char* point, const char* devname,
                 const char* share, const std::function<void()>& before,
                 const std::function<void(int count)>& stuck);
