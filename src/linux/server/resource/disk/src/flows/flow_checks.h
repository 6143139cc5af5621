// Checks the flows make before they touch anything.
#pragma once

#include <cstring>

#include "../command_exec/mount_table.h"
#include "../globals.h"
#include "../resource_config/zor_param.h"
#include "../tracersc.h"
#include "identity.h"

// The largest retry count an action takes: the largest the configuration
// check accepts. A larger one would keep the action going for days.
#define ZOR_RETRY_MAX 999

// The values an action puts unquoted into its command lines (file system
// type, options, server name) and its retry counts, checked before anything
// runs. 0, or 64 with "Parameter was invalid. (%s)" naming the key.
int ckparam_disk(PZOR_DISK_PARAM param, bool activate);
int ckparam_vxvol(PZOR_VXVOL_PARAM param, bool activate);
int ckparam_nas(PZOR_NAS_PARAM param, bool activate);

// Where the resource with mount point `point` and device `devname` (disk) or
// share `share` ("server:share") is mounted (mount_table.h; a null point
// counts every mount of the device as one elsewhere): 0 with *w filled, or
// ZR_STATUS_UNKNOWN with "Check of mount status has failed. (%s)" when the mount table could
// not be read.
int locate(const char* point, const char* devname, const char* share, PMNT_WHERE w);

// ZR_POINT_INVALID with "Mount point was a system directory. (%s)" when the point, resolved,
// is one on which the system lives (mnt_system_point), else 0. No resource
// is mounted there, and nothing mounted there is unmounted or released.
int system_point(const char* point);

// Before a deactivation touches the point, and before each retry: ZR_MOUNTED with
// "Mount point was mounted from another device. (%s, %s)" (or "... another
// share. ...") naming the source when the lowest mount on the point is not
// the resource's own file system (what is stacked on it is the resource's to
// unmount); ZR_STATUS_UNKNOWN when the table could not be read; else 0.
int foreign_on_point(const char* point, const char* devname, const char* share);

// The deactivation's refusals before it looks at the point any further: a
// system point, another's file system on the point, or an unreadable table.
int own_point(const char* point, const char* devname, const char* share);

// The device as it is resolved once, for every command of the action to get
// the same one (a symbolic link may be changed meanwhile): the canonical path
// of a block device, else the name as given, into out (ZOR_PATH_SIZE bytes).
void device_path(const char* devname, char* out);

// After the mount: 0 when the point's topmost mount is the device `dev`;
// ZR_NOT_MOUNTED with "Mount point was not mounted. (%s)" when nothing is
// there; else ZR_MOUNTED
// with "Mount point was mounted from another device. (%s, %s)", the mount
// undone when the device is not on the point at all (the mount put another
// device there); ZR_STATUS_UNKNOWN when the table could not be read.
int mounted_checked(const char* point, const char* dev, PZOR_UMOUNT pumount);

// Before an activation touches the device: ZR_MOUNTED with "Device was already
// mounted. (%s)" when the device is mounted anywhere (on another mount
// point, or on this one unseen by the mount-point probe), or "Device was in
// use. (%s)" when something else holds it; ZR_STATUS_UNKNOWN when the table
// could not be read; else 0. The texts name the device `shown` when given.
int device_in_use(const char* devname, const char* shown = nullptr);

// Before the device is switched back to read-only: false, traced, when it is
// still mounted somewhere (a read-only switch would break that mount) or
// that cannot be told.
bool roset_safe(const char* devname);

// The opening every flow shares: *param cleared and loaded by `getinfo`
// (named `getinfo_name` in the trace); on failure the status text is set from
// the loader's code, which is returned.
template <typename Param>
int load_param(const char* resource, const char* group, Param* param,
               int (*getinfo)(const char*, const char*, Param*), const char* getinfo_name)
{
    memset(param, 0, sizeof(*param));
    int ret = getinfo(resource, group, param);
    tracefunc(ret, ZOR_SRC, "%s(%s, %s)", getinfo_name, resource, group);
    if (ret != 0)
        mkshm_getinfo(ret, resource, group);
    return ret;
}

// The same, then this node's values against the cluster engine's (an
// activation refuses another resource, a deactivation takes the engine's),
// the engine's time-out against the action's limits, and the check of the
// values before anything runs.
template <typename Param>
int open_flow(const char* resource, const char* group, Param* param,
              int (*getinfo)(const char*, const char*, Param*), const char* getinfo_name,
              int (*ckparam)(Param*, bool), bool activate)
{
    int ret = load_param(resource, group, param, getinfo, getinfo_name);
    if (ret == 0) {
        ret = engine_settle(identity_of(param), activate);
    }
    if (ret != 0) {
        return ret;
    }
    engine_timeout_check(activate, worst_case_s(*param, activate));
    return ckparam(param, activate);
}

// A step whose failure code is returned as it stands.
#define RETURN_CODE_IF_FAILED(step) \
    do {                            \
        int step_ret_ = (step);     \
        if (step_ret_ != 0) {       \
            return step_ret_;       \
        }                           \
    } while (0)

// A step of a flow whose failure ends the flow with its code, traced as the
// flow's exit (a macro, so that the trace names the flow).
#define RETURN_IF_FAILED(step)     \
    do {                           \
        int step_ret_ = (step);    \
        if (step_ret_ != 0) {      \
            TRACE_EXIT(step_ret_); \
            return step_ret_;      \
        }                          \
    } while (0)
