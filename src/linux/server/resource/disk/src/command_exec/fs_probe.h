// The identity of the file system on a device, as its superblock gives it.
#pragma once

#include <cstddef>

typedef struct {
    char type[64];    // as libblkid names it: "ext4", "xfs", ...
    char uuid[256];   // empty when the file system has none
    char label[256];  // empty when it has none
} FS_IDENTITY, *PFS_IDENTITY;

// Reads the superblock of the file system on `dev` with libblkid, past this
// server's page cache (another server may have written the device since it
// was last read here). `fstype`, the configured type, narrows the search to
// its family (the ext types one family), which keeps it to a few reads; a
// device that holds none of that family is searched for any file system.
// 0 with *id filled; 1 no file system found; -1 with errno when the device
// could not be opened or read.
int fs_probe(const char* dev, const char* fstype, PFS_IDENTITY id);
