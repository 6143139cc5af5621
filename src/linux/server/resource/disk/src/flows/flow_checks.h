// Checks the flows make before they touch anything.
#pragma once

#include "../resource_config/zor_param.h"

// The largest retry count an action takes: the largest the configuration
// check accepts. A larger one would keep the action going for days.
#define ZOR_RETRY_MAX 999

// The values an action puts unquoted into its command lines (file system
// type, options, server name) and its retry counts, checked before anything
// runs. 0, or 64 with "Parameter was invalid. (%s)" naming the key.
int ckparam_disk(PZOR_DISK_PARAM param, bool activate);
int ckparam_vxvol(PZOR_VXVOL_PARAM param, bool activate);
int ckparam_nas(PZOR_NAS_PARAM param, bool activate);

// Before an activation touches the device: 5 with "Device was already
// mounted. (%s)" when the device is mounted anywhere (on another mount
// point, or on this one unseen by the mount-point probe), else 0.
int device_in_use(const char* devname);

// Before the device is switched back to read-only: false, traced, when it is
// still mounted somewhere (a read-only switch would break that mount).
bool roset_safe(const char* devname);
