// Loaders that fill the parameter records from the configuration.
#pragma once

#include "zor_param.h"

// Group loaders: 0 when every required key was read, 4 otherwise.
int get_mount(const char* xmlpath, PZOR_MOUNT pmount, const char* phostname);
int get_mount_nas(const char* xmlpath, PZOR_MOUNT pmount);
int get_umount(const char* xmlpath, PZOR_UMOUNT pumount);
int get_fsck(const char* xmlpath, PZOR_FSCK pfsck);
int get_roset(const char* xmlpath, PZOR_ROSET proset);
int get_relpath(const char* xmlpath, PZOR_RELPATH prelpath);

// Existence checks: 0 found; 3 (group) / 2 (resource) not found; 4 list
// unreadable; 16 no memory; or the library's code of the size query.
int ckgrpexist(const char* group);
int ckrscexist(const char* resource, const char* group);

// Resource loaders: 0, 2, 3, 4, 16, 20 (disk: no host name) or a library code.
int getinfo_disk(const char* resource, const char* group, PZOR_DISK_PARAM pparam);
int getinfo_vxvol(const char* resource, const char* group, PZOR_VXVOL_PARAM pparam);
int getinfo_nas(const char* resource, const char* group, PZOR_NAS_PARAM pparam);
