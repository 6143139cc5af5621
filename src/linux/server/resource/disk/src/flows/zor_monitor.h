// The monitor: is a resource in service on this server?
//
// Answers with its exit status, the only place where the agent leaves its
// 0/1 convention; every answer but 0 and 7 leaves its reason in the status
// text. The caller decides from the number alone.
#pragma once

// In service: the resource's own device or share is mounted on its point
// (the topmost mount there); for disk type "disk" the device is read-write.
#define MON_RUNNING 0
// Failed, half-way, or cannot tell: something of it is mounted in a wrong
// way (elsewhere on the node, under another mount, held by a lazily detached
// mount), or the mount table cannot be read. A stop must not succeed on it.
#define MON_FAILED 1
// Disk type "disk": nothing of it is mounted or held, but the device is
// read-write. disk_monitor then names the device that was looked at, for the
// caller to switch read-only (zorroset -o, which refuses a device in use);
// the program prints it as "device=PATH".
#define MON_READWRITE 2
// This node lacks the resource (the configuration does not list it or its
// group, or its device does not exist) and nothing of it is mounted or held:
// neither the resource as the cluster engine describes it (when it was
// described) nor what this node recorded when it brought it into service.
#define MON_ABSENT 5
// This node's configuration cannot serve the resource: it names it but
// cannot be used (a value or the resource's entry missing, an unknown disk
// type), or it disagrees with the engine's description (another device,
// point, server or share); nothing of it is mounted or held, as with 5.
#define MON_CONFIG 6
// Out of service and clean: nothing of it is mounted or held, for disk type
// "disk" the device is read-only; the point may be missing (activation makes
// it) or hold another file system.
#define MON_STOPPED 7

// Depths of the check, as the engine's check levels: 0 the mount table and
// the device only; 10 also reads the mount; 20 also writes a small file on it
// and reads it back. Reading and writing run under kMonitorTimeout seconds.
#define MON_LEVEL_READ 10
#define MON_LEVEL_WRITE 20

// device (ZOR_PATH_SIZE bytes, when given) receives the canonical path of the
// device with MON_READWRITE.
int disk_monitor(const char* resource, const char* group, const char* disktype, int level,
                 char* device = nullptr);
int nas_monitor(const char* resource, const char* group, int level);

// The answer `answer` (5 or 6) of a node whose configuration could not be
// loaded for the resource, unless the monitor finds something of it here: the
// resource as the engine describes it, or as this node recorded it; then 1,
// with "Resource was still mounted. (SOURCE, WHERE)".
int monitor_unconfigured(const char* resource, int answer);
