// Routines of the dispatch table that are not built yet. Each answers as an
// internal error so that a run never claims a success it did not achieve.
// Remove an entry when its routine lands.
#include "../disk.h"
#include "../tracersc.h"
#include "../config_check/zor_check.h"
#include "zor_flows.h"

[[maybe_unused]] static int pending(const char* name)
{
    trace(TR_ERROR, ZOR_SRC, "%s is not available in this build.", name);
    setshmbuf("Internal error. (status=%d)", 64);
    return 64;
}

