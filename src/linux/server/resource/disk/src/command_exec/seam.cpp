// The real implementations behind the flows' seam.
#include "seam.h"

#include <cerrno>
#include <ctime>

namespace {

// The configured interval has no upper bound, so it is slept as a timespec
// of whole seconds rather than as a microsecond count, which would overflow
// above 4294 seconds.
void sleep_seconds(int seconds)
{
    if (seconds <= 0)
        return;
    struct timespec left = {seconds, 0};
    // A signal cuts the sleep short; sleep what is left.
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

const ZorSeam zor_real_seam = {cmd_thread, fsck_thread, mountsinfo_known, mnt_where, sleep_seconds};

ZorSeam zor_seam = zor_real_seam;
