#include "zorhome.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const char* zor_home(void)
{
    const char* home = getenv("ZOR_HOME");
    return (home != nullptr && home[0] != '\0') ? home : "/opt/zor";
}

int zor_home_path(char* out, size_t size, const char* rel)
{
    if (out == nullptr || size == 0 || rel == nullptr) {
        return -1;
    }
    int n = snprintf(out, size, "%s/%s", zor_home(), rel);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int zor_mkdirs(const char* dir, unsigned mode)
{
    if (dir == nullptr || dir[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    char buf[4096];
    size_t len = strlen(dir);
    if (len >= sizeof(buf)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(buf, dir, len + 1);
    for (size_t i = 1; i <= len; i++) {
        if (buf[i] == '/' || buf[i] == '\0') {
            char saved = buf[i];
            buf[i] = '\0';
            if (mkdir(buf, mode) != 0 && errno != EEXIST) {
                return -1;
            }
            buf[i] = saved;
        }
    }
    return 0;
}
