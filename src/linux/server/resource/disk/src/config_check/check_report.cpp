// The check report's line writer.
#include "check_report.h"

#include <cstdarg>
#include <cstdio>

void chk_report(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    fputc('\n', stdout);
    fflush(stdout);
}
