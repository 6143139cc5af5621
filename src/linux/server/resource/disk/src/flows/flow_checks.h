// Checks the flows make before they touch anything.
#pragma once

#include <cstring>

#include "../globals.h"
#include "../resource_config/zor_param.h"
#include "../tracersc.h"

// The largest retry count an action takes: the largest the configuration
// check accepts. A larger one would keep the action going for days.
#define ZOR_RETRY_MAX 999

// The values an action puts unquoted into its command lines (file system
// type, options, server name) and its retry counts, checked before anything
// runs. 0, or 64 with "Parameter was invalid. (%s)" naming the key.
int ckparam_disk(PZOR_DISK_PARAM param, bool activate);
int ckparam_vxvol(PZOR_VXVOL_PARAM param, bool activate);
int ckparam_nas(PZOR_NAS_PARAM param, bool activate);

// Before an activation touches the device: 5 with "Device was already
// mounted. (%s)" when the device is mounted anywhere (on another mount
// point, or on this one unseen by the mount-point probe), else 0.
int device_in_use(const char* devname);

// Before the device is switched back to read-only: false, traced, when it is
// still mounted somewhere (a read-only switch would break that mount).
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

// The same, followed by the check of the values before anything runs.
template <typename Param>
int open_flow(const char* resource, const char* group, Param* param,
              int (*getinfo)(const char*, const char*, Param*), const char* getinfo_name,
              int (*ckparam)(Param*, bool), bool activate)
{
    int ret = load_param(resource, group, param, getinfo, getinfo_name);
    return ret != 0 ? ret : ckparam(param, activate);
}

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
