#include "bounded.h"

#include <cstdio>
#include <cstring>

int zor_bcopy(char* dst, size_t size, const char* src)
{
    if (dst == nullptr || size == 0) {
        return 1;
    }
    if (src == nullptr) {
        src = "";
    }
    size_t len = strnlen(src, size);
    if (len >= size) {
        memcpy(dst, src, size - 1);
        dst[size - 1] = '\0';
        return 1;
    }
    memcpy(dst, src, len + 1);
    return 0;
}

int zor_vbprintf(char* dst, size_t size, const char* fmt, va_list ap)
{
    if (dst == nullptr || size == 0) {
        return 1;
    }
    int n = vsnprintf(dst, size, fmt, ap);
    if (n < 0) {
        dst[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) >= size ? 1 : 0;
}

int zor_bprintf(char* dst, size_t size, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int cut = zor_vbprintf(dst, size, fmt, ap);
    va_end(ap);
    return cut;
}
