// Parameter records of the resources, filled from the cluster configuration.
//
// Fixed-size records of character arrays and ints: a flow clears one to zeros
// and its loader fills it once. Texts are NUL-terminated (at most N-1
// characters); time-outs are whole seconds.
#pragma once

// Mount command group.
typedef struct {
    int to;            // time limit of the mount command
    int retry;         // further attempts after the first failure
    int act;           // recovery check before the retries (xfs: xfsact)
    char point[1024];  // mount point
    char opt[1024];    // options after "-o", when not empty
    char path[1024];   // mount command
    int lock;          // mount under the node-wide mount lock
    int xfsact;        // act for xfs
} ZOR_MOUNT, *PZOR_MOUNT;

// Unmount command group.
typedef struct {
    int to;
    int retry;
    char act[32];    // "kill" or "none"
    char opt[1024];  // inserted as is before the mount point
    char path[1024];
    int lock;
    int interval;    // pause before each retry, seconds
    int chkprcmnts;  // volume and NAS: look at the mount table during retries
} ZOR_UMOUNT, *PZOR_UMOUNT;

// File system check group: the general set and the xfs set.
typedef struct {
    int to;
    int timing;      // 0 never, 1 every activation, 2 by schedule
    int interval;    // activations between scheduled checks
    int rebuildopt;  // reiserfs: rerun with --rebuild-tree on exit code 4
    int fixopt;      // reiserfs: rerun with --fix-fixable on exit code 6
    char opt[1024];
    char path[1024];
    char reiserpath[1024];
    int xfsto;
    int xfstiming;
    int xfsinterval;
    char xfsopt[1024];
    char xfspath[1024];
} ZOR_FSCK, *PZOR_FSCK;

// Read-only/read-write switch of a disk device.
typedef struct {
    char path[1024];  // installation path + "/" + configured value
    int to;
} ZOR_ROSET, *PZOR_ROSET;

// Release-path command (ends the processes that use a mount point).
typedef struct {
    char path[1024];  // installation path + "/" + configured value
    int to;
} ZOR_RELPATH, *PZOR_RELPATH;

// Disk resource of disk type "disk" or "lvm".
typedef struct {
    char rscname[32];
    char rsctype[32];
    char devname[1024];
    char rawdev[1024];  // always a copy of devname
    char fstype[1024];
    char disktype[32];
    ZOR_MOUNT mount;
    ZOR_UMOUNT umount;
    ZOR_FSCK fsck;
    ZOR_ROSET roset;  // not loaded for zfs
    ZOR_RELPATH relpath;
} ZOR_DISK_PARAM, *PZOR_DISK_PARAM;

// Disk resource of disk type "vxvm" (a volume-manager volume).
typedef struct {
    char rscname[32];
    char rsctype[32];
    char devname[1024];
    char rawdev[1024];
    char fstype[1024];
    ZOR_MOUNT mount;
    ZOR_UMOUNT umount;
    ZOR_FSCK fsck;
    ZOR_RELPATH relpath;
} ZOR_VXVOL_PARAM, *PZOR_VXVOL_PARAM;

// NAS resource (a file server's share).
typedef struct {
    char rscname[32];
    char rsctype[32];
    char server[256];
    char share[1024];
    char fstype[1024];
    int pingto;           // ping count; 0 = no ping
    char pingpath[1024];  // installation path + "/" + configured value
    ZOR_MOUNT mount;      // act and xfsact stay 0
    ZOR_UMOUNT umount;
    ZOR_RELPATH relpath;
} ZOR_NAS_PARAM, *PZOR_NAS_PARAM;

// Records filled only by the configuration check (disk type "raw").
typedef struct {
    char devname[1024];
    char rawdev[1024];
    int rawto;
    char rawpath[1024];
} ZOR_RAW_PARAM, *PZOR_RAW_PARAM;

typedef struct {
    int exec;
    int opt;
    int retry;
    int interval;
    int error;
} ZOR_CHECK, *PZOR_CHECK;

typedef struct {
    int to;
    int retry;
    ZOR_CHECK check;
} ZOR_BIND, *PZOR_BIND;

typedef struct {
    int exec;
    int to;
    int retry;
    char act[32];
} ZOR_UNBIND, *PZOR_UNBIND;
