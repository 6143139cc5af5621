// Activation and deactivation of each kind of resource.
#pragma once

#include "../resource_config/zor_param.h"

// Clears *pparam and loads it; on failure the status text is set from the
// loader's code, which is returned.
int load_disk(const char* resource, const char* group, PZOR_DISK_PARAM pparam);

int disk_act(const char* resource, const char* group);
int failact_roset(PZOR_ROSET proset, const char* devname, const char* disktype);
int disk_deact(const char* resource, const char* group);
bool CheckMountStatus(const char* mount_point, bool* is_running, int* mount_count);
bool IsUmountRunning(const char* mount_point, bool* result);

int vxvol_act(const char* resource, const char* group);
int vxvol_deact(const char* resource, const char* group);

int nas_act(const char* resource, const char* group);
int nas_deact(const char* resource, const char* group);

// Sleeps the given number of seconds (any int) without overflow.
void zor_sleep_seconds(int seconds);
