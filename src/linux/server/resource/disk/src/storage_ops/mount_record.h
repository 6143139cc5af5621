// What this node brought into service for a resource, kept in the registry
// (key "mounted"), so that a node whose configuration no longer names the
// resource, or names it otherwise, still knows what of it to look for.
//
// An activation writes the record before it touches anything: the device as
// resolved and its numbers (disk) or the share "server:share" (NAS), the
// mount point as activation resolves it, the file system type, and the boot
// it was written in. A deactivation that leaves nothing of it mounted or held
// removes it. A record of an earlier boot is void: no mount survives a
// reboot, and device numbers may change; so neither the write nor the
// removal waits for the disk (a crash ends the boot the record is of). The record says what to look for,
// never that something is mounted: the mount table decides.
#pragma once

#include <climits>

typedef struct {
    char source[PATH_MAX];  // the device's canonical path, or "server:share"
    unsigned int major;     // the device's numbers; 0:0 for a share
    unsigned int minor;
    char point[PATH_MAX];
    char fstype[64];
} ZOR_MOUNT_RECORD;

// Writes the record of resource `rsc` of type `rsctype`: the block device
// `device` or the share `share` (the other null), mounted on `point`. 0, or
// the registry's code (traced).
int mount_record_write(const char* rsctype, const char* rsc, const char* device, const char* share,
                       const char* point, const char* fstype);

// 1 with *rec filled, 0 when there is none of this boot, -1 when it cannot be
// read (traced).
int mount_record_read(const char* rsctype, const char* rsc, ZOR_MOUNT_RECORD* rec);

// Whether anything of the recorded resource is on this node: its file system
// on its point, its device mounted anywhere or held (a share: on its point).
// 1 with the status text "Resource was still mounted. (SOURCE, WHERE)"; 0
// nothing; -1 when the mount table cannot be read.
int mount_record_left(const ZOR_MOUNT_RECORD& rec);

// After a deactivation: removes the record when nothing of it is left.
void mount_record_settle(const char* rsctype, const char* rsc);
