// This server's short host name, the key of per-server configuration values.
#include "value.h"

#include "globals.h"
#include "tracersc.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>

int get_hostname(char* phostname)
{
    if (gethostname(phostname, ZOR_HOST_SIZE) != 0) {
        trace(TR_ERROR, ZOR_SRC, "get_hostname() failed. (errno=%d)", errno);
        return 1;
    }
    // gethostname need not terminate a name that fills the buffer.
    phostname[ZOR_HOST_SIZE - 1] = '\0';
    char* dot = strchr(phostname, '.');
    if (dot != nullptr) {
        *dot = '\0';
    }
    return 0;
}
