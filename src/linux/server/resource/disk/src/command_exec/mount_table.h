// The kernel's mount table read in place, for the monitor.
//
// The monitor must answer within milliseconds and must never block on a dead
// file server, so it neither starts grep nor stats anything under the mount
// point: /proc/self/mountinfo names each mount's point, source and device
// numbers, and reading it never touches the mounted file systems.
#pragma once

#include <sys/types.h>

// The topmost mount of a point (the one a path lookup reaches).
typedef struct {
    unsigned int major;  // device numbers of the mounted file system
    unsigned int minor;
    char source[1024];  // mount source: device path, or "server:share"
    char fstype[64];
    int readonly;  // mounted with the per-mount "ro" option
} MNT_ENTRY, *PMNT_ENTRY;

// Number of mounts whose mount point equals point, trailing "/" ignored and
// compared as text (symbolic links are not followed: resolving them would
// touch the mount). *ptop receives the last, topmost, of them. -1 when the
// table could not be read.
int mnttab_lookup(const char* point, PMNT_ENTRY ptop);

// Undoes the kernel's octal escapes ("\040" for a space) of a mountinfo field
// into out of `size` bytes.
void mnttab_unescape(const char* in, char* out, size_t size);
