// The file system an activation is about to bring into service is the one
// configured: its UUID or label, given by the cluster engine (--uuid,
// --label) or by the resource's keys "uuid" and "label" in the configuration,
// against what the device's own superblock says.
#pragma once

#include "../command_exec/fs_probe.h"

// The configured UUID and label of a disk resource (empty when not set), each
// ZOR_FSID_SIZE bytes. 0; -1 when a key is there but cannot be read (longer
// than ZOR_FSID_SIZE - 1 characters): a value that is set is never ignored.
int fs_identity_configured(const char* resource, char* uuid, char* label);

// Which of the expected values (empty: not expected) the file system `found`
// lacks: "uuid", "label", or nullptr when it has every one. UUIDs are
// compared without regard to case, labels as they stand.
const char* fs_identity_differs(const FS_IDENTITY& found, const char* uuid, const char* label);

// Before anything of the device is switched or mounted: 0 when no identity is
// configured or the file system on `dev` has every configured one;
// ZR_FS_OTHER with "File system was another. (uuid=FOUND, expected WANTED,
// DEVICE)" (or label=), the device named as configured (`shown`);
// ZR_DEVICE_INVALID with "Device was invalid. (%s)" when it cannot be read;
// ZR_CONFIG when a configured value cannot be read.
int fs_identity_check(const char* resource, const char* dev, const char* shown, const char* fstype);
