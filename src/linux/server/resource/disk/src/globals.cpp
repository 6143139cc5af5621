// The globals every module of the agent shares, and the status text writer.
#include "bounded.h"
#include "command_exec/proc_runner.h"
#include "disk.h"

#include <cstdarg>

char type[ZOR_NAME_SIZE];
char ipath[ZOR_PATH_SIZE];
char shmbuf[ZOR_SHMBUF_SIZE];
std::atomic<int> thend{0};

void setshmbuf(const char* fmt, ...)
{
    // The text of a worker given up at its time-out would replace the
    // time-out's own, or a later step's.
    if (zproc_orphaned()) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    zor_vbprintf(shmbuf, sizeof(shmbuf), fmt, ap);
    va_end(ap);
}
