// The configuration check (--test) and the switch to the configuration under
// check (--dactive, --ddeactive).
#pragma once

#include "../resource_config/zor_param.h"

int disk_check(const char* resource);
// Reads the value at the path fmt names into field as row says (type, size,
// per server, range) and reports a missing required value (E [002]) or an
// integer out of range (E [003]). Returns 0 or 1.
struct ZorKey;
int xmlparam_check(const ZorKey& row, void* field, const char* hostname, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int disk_load_newconf(void** handle);
void disk_unload_newconf(void* handle);

typedef struct {
    char devname[1024];
    char rawdev[1024];
    char cmdline[1024];
    int tmajor;
    int tminor;
    int ret;  // 0 not bound, 15 bound elsewhere, 16 bound to devname
} RAW_INFO, *PRAW_INFO;

int ckbind(PZOR_RAW_PARAM pparam);
int get_devnumber(PRAW_INFO pinfo);
void* exec_ckbind(void* parg);

// One line of the binding tool's output, e.g. "/dev/raw/raw1:  bound to
// major 8, minor 17". Returns 1 and the two numbers when the line reports on
// rawdev, 0 when it is to be skipped. A number must be 1 to 3 decimal digits.
int ckbind_parse_line(const char* line, const char* rawdev, int* pmajor, int* pminor);

// Bits of the device checks.
#define CHK_BLOCKDEV 1
#define CHK_RAWDEV 2
#define CHK_MNTPOINT 4
#define CHK_FSTAB 8

// Device checks; each prints its E lines on standard output and returns 0
// (passed) or 1 (failed).
int check_blockdev(const char* devname, const char* disktype);
int check_fstab(const char* specname);
int check_rawdev(const char* disktype, const char* devname, const char* rawdev, const char* rawpath,
                 int rawto);
int check_mntpoint(const char* point);
// An ext file system's multi-mount protection: an I line whether it is on
// (with its update interval and the wait of a takeover after a holder's
// crash), and E [020] when the mount's time limit would cut that wait short.
constexpr int kMmpMountMargin = 10;
int check_mmp(const char* devname, const char* fstype, int mount_timeout);
