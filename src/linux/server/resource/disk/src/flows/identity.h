// The resource as the cluster engine describes it, and this node's agreement
// with that description.
//
// The engine keeps one description of each resource for the whole cluster and
// hands it to every action: the OCF agent passes its instance attributes as
// options (--device, --directory, --uuid, --label of a disk; --server,
// --share, --directory of a share) beside the engine's time-outs of start and
// stop. Each node's configuration must name the same resource for this
// server. An activation refuses to bring anything else into service; a
// deactivation and the monitor take the resource as the engine describes it,
// so that what they take down or report is the resource the engine means.
#pragma once

#include "../globals.h"
#include "../resource_config/zor_param.h"

// Room for a file system's UUID or label, and its terminator.
#define ZOR_FSID_SIZE 256

// What the engine gave on the command line; an empty text or a time-out of 0
// was not given.
typedef struct {
    char device[ZOR_PATH_SIZE];
    char directory[ZOR_PATH_SIZE];
    char uuid[ZOR_FSID_SIZE];
    char label[ZOR_FSID_SIZE];
    char server[ZOR_HOST_SIZE];
    char share[ZOR_PATH_SIZE];
    long start_timeout_ms;
    long stop_timeout_ms;
} ZOR_ENGINE_VIEW;

extern ZOR_ENGINE_VIEW engine_view;

// Where a loaded record keeps the resource's identity: device and point
// (ZOR_PATH_SIZE bytes), server (ZOR_HOST_SIZE) and share (ZOR_PATH_SIZE);
// what a kind does not have is null.
typedef struct {
    char* device;
    char* point;
    char* server;
    char* share;
} ZOR_IDENTITY;

ZOR_IDENTITY identity_of(PZOR_DISK_PARAM p);
ZOR_IDENTITY identity_of(PZOR_VXVOL_PARAM p);
ZOR_IDENTITY identity_of(PZOR_NAS_PARAM p);

// Whether a and b name the same device: the same block device (links
// followed), the same file for anything else that exists, the same text only
// when neither exists.
bool same_device(const char* a, const char* b);
// Whether two mount points are the same once resolved as activation resolves
// them.
bool same_point(const char* a, const char* b);

// 0 when this node's values agree with every value the engine gave; else
// ZR_DISAGREES with the status text naming the first that differs, this
// node's value and the engine's, for example "Device differed from the
// engine's. (node2: /dev/sdc, engine: /dev/sdb)".
int engine_disagrees(const ZOR_IDENTITY& id);

// The engine's values in place of this node's, each traced.
void engine_take(const ZOR_IDENTITY& id);

// An action's answer to a disagreement, once its record is loaded: an
// activation refuses (ZR_DISAGREES and its text); a deactivation takes the
// engine's values (engine_take) and goes on (0): what it takes down is the
// resource the engine means, and only that.
int engine_settle(const ZOR_IDENTITY& id, bool activate);

// The longest an activation (start) or a deactivation (stop) of the loaded
// resource may take by its time limits, in seconds: every command at its time
// limit, every retry taken with its pause. A disk start: the read-only switch
// twice (disk type "disk"), one file system check (two runs for reiserfs when
// a second run is allowed) and the mount with its retries; a stop: the
// unmount with its retries, a pause and a release-path run before each retry,
// and the read-only switch. A share: the ping first (its count plus 15 s),
// and after the unmount retries a forced and a lazy unmount. Multi-mount
// protection's wait for a crashed holder is part of the mount's and the
// check's time (--test makes sure the mount's limit outlasts it); a wait for
// the node's mount lock is not counted.
long worst_case_s(const ZOR_DISK_PARAM& p, bool start);
long worst_case_s(const ZOR_VXVOL_PARAM& p, bool start);
long worst_case_s(const ZOR_NAS_PARAM& p, bool start);

// The engine's time-out of the action (start or stop) against the longest
// time the loaded limits allow it, worst_s seconds: a warning in the trace
// and on stderr when the time-out is shorter. The action runs all the same.
void engine_timeout_check(bool start, long worst_s);
