// The file system an activation is about to bring into service is the one
// configured: its UUID or label, given by the cluster engine (--uuid,
// --label) or by the resource's keys "uuid" and "label" in the configuration,
// against what the device's own superblock says.
#pragma once

// The configured UUID and label of a disk resource (empty when not set);
// reading a key that is not there is no failure. `uuid` and `label` hold ZOR_FSID_SIZE
// bytes each.
void fs_identity_configured(const char* resource, char* uuid, char* label);

// Before anything of the device is switched or mounted: 0 when no identity is
// configured or the file system on `dev` has every configured one;
// ZR_FS_OTHER with "File system was another. (uuid=FOUND, expected WANTED,
// DEVICE)" (or label=), the device named as configured (`shown`); ZR_DEVICE_INVALID with "Device was invalid. (%s)" when it cannot
// be read.
int fs_identity_check(const char* resource, const char* dev, const char* shown, const char* fstype);
