// The pause between unmount retries, through the seam.
#include "../command_exec/seam.h"
#include "zor_flows.h"

void zor_sleep_seconds(int seconds)
{
    zor_seam.pause(seconds);
}
