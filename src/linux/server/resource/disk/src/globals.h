// The globals and the services that every layer of the agent shares: the
// resource type, the installation path, the status text and its writer, the
// cluster semaphores and the mount lock. The driver sits on top of these.
#pragma once

#include <atomic>
#include <cstddef>

#define ZOR_NAME_SIZE 32
#define ZOR_PATH_SIZE 1024
#define ZOR_HOST_SIZE 256
#define ZOR_SHMBUF_SIZE 128

// Resource type of the run: "disk" as zordisk, "nas" as zornas, else empty.
extern char type[ZOR_NAME_SIZE];
// Installation path, from "/root/all/path".
extern char ipath[ZOR_PATH_SIZE];
// Status text of the run, stored for the cluster at the end of the run.
extern char shmbuf[ZOR_SHMBUF_SIZE];
// Completion flag of the one worker thread that may run at a time: cleared
// before the worker starts, set by the worker as its last act.
extern std::atomic<int> thend;

// 1 while the cluster semaphores are attached / while the mount lock is held.
extern int semflag;
extern int sementmoflag;

// Result codes of the agent's routines; 0 is success everywhere. The numbers
// are part of what the operator sees: "Internal error. (status=N)" shows them.
enum ZorResult {
    ZR_OK = 0,
    ZR_NO_RETRY = 1,            // mount failed and no retries are configured
    ZR_RESOURCE_UNKNOWN = 2,    // resource not listed in the group
    ZR_GROUP_UNKNOWN = 3,       // group not in the configuration
    ZR_CONFIG = 4,              // a configuration value could not be read
    ZR_MOUNTED = 5,             // mount point (or device) already mounted
    ZR_NOT_MOUNTED = 6,         // nothing mounted on the mount point
    ZR_POINT_INVALID = 7,       // mount point not an absolute path
    ZR_POINT_NOT_MADE = 8,      // mount point could not be created
    ZR_RETRY_OVER = 9,          // recovery retries used up
    ZR_PATH_INVALID = 10,       // device path invalid
    ZR_CMDPATH_INVALID = 11,    // command path invalid
    ZR_TIMEOUT = 12,            // command timed out
    ZR_CMD_FAILED = 13,         // command ended with a non-zero exit code
    ZR_CMD_ABNORMAL = 14,       // command could not be run or ended abnormally
    ZR_RAW_BOUND_OTHER = 15,    // raw device bound to another device
    ZR_RAW_BOUND_SAME = 16,     // raw device bound to the configured device
    ZR_NO_MEMORY = 16,          // memory for a configuration list not available
    ZR_DEVICE_INVALID = 17,     // device invalid
    ZR_FSCK_NOT_DUE = 18,       // scheduled file system check not due
    ZR_SCHEDULE_UNUSABLE = 19,  // check schedule unusable
    ZR_NO_HOSTNAME = 20,        // host name unavailable
    ZR_BAD_COMBINATION = 21,    // disk type and file system type cannot be combined
    ZR_UMOUNT_RUNNING = 22,     // another unmount of the mount point is running
    ZR_STATUS_UNKNOWN = 23,     // mount status could not be determined
    ZR_MMP_REFUSED = 24,        // ext4's multi-mount protection refused the check or the mount
    ZR_NO_THREAD = 32,          // worker thread could not be created
    ZR_INTERNAL = 64,           // invalid argument, internal error
    ZR_PROGRAM_NAME = 128,      // started under a name other than zordisk or zornas
};

// Replaces the status text (bounded to 127 characters).
void setshmbuf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The one map from a result code to its status text: 2 and 3 (resource or
// group not in the configuration, `name` names it), 4 (configuration not
// read), every other code "Internal error. (status=N)". Cut to `size`.
void status_text(int code, const char* name, char* out, size_t size);
// The same text as the run's status text.
void setshm_status(int code, const char* name = nullptr);

// The status text of a failed configuration read (getinfo_* result; 0 sets
// nothing).
void mkshm_getinfo(int ret, const char* resource, const char* group);

int disk_sem_attach(void);
int disk_sem_detach(void);
int disk_entercrit_mount(void);
int disk_leavecrit_mount(void);
