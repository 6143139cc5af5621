// Routines of the dispatch table that are not built yet. Each answers as an
// internal error so that a run never claims a success it did not achieve.
// Remove an entry when its routine lands.
#include "../disk.h"
#include "../tracersc.h"
#include "../config_check/zor_check.h"
#include "zor_flows.h"

static int pending(const char* name)
{
    trace(TR_ERROR, ZOR_SRC, "%s is not available in this build.", name);
    setshmbuf("Internal error. (status=%d)", 64);
    return 64;
}

int disk_act(const char*, const char*) { return pending("disk_act"); }
int disk_deact(const char*, const char*) { return pending("disk_deact"); }
int vxvol_act(const char*, const char*) { return pending("vxvol_act"); }
int vxvol_deact(const char*, const char*) { return pending("vxvol_deact"); }
int nas_act(const char*, const char*) { return pending("nas_act"); }
int nas_deact(const char*, const char*) { return pending("nas_deact"); }
int disk_check(const char*) { return pending("disk_check"); }
int disk_load_newconf(void** handle) { *handle = nullptr; return pending("disk_load_newconf") != 0; }
void disk_unload_newconf(void*) {}
