// The monitor: is a resource in service on this server?
//
// Answers with the exit status a cluster engine expects of a monitor, the
// only place where the agent leaves its 0/1 convention: MON_RUNNING in
// service, MON_STOPPED cleanly out of service, MON_FAILED failed or half-way
// (with the reason in the status text).
#pragma once

#define MON_RUNNING 0
#define MON_FAILED 1
#define MON_STOPPED 7

// Depths of the check, as the engine's check levels: 0 the mount table and
// the device only; 10 also reads the mount; 20 also writes a small file on it
// and reads it back. Reading and writing run under kMonitorTimeout seconds.
#define MON_LEVEL_READ 10
#define MON_LEVEL_WRITE 20

int disk_monitor(const char* resource, const char* group, const char* disktype, int level);
int nas_monitor(const char* resource, const char* group, int level);
