// The pause between unmount retries. The configured interval has no upper
// bound, so it is slept as a timespec of whole seconds rather than as a
// microsecond count, which would overflow above 4294 seconds.
#include <cerrno>
#include <ctime>

#include "zor_flows.h"

void zor_sleep_seconds(int seconds)
{
    if (seconds <= 0)
        return;
    struct timespec left = {seconds, 0};
    // A signal cuts the sleep short; sleep what is left.
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
