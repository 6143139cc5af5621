// libFuzzer harness: the configuration library's load and reads. The input's
// first line is a configuration path to read; the rest is the configuration
// file, loaded as an alternate configuration and read through every kind of
// call the agent makes.
#include <zorxml.h>

#include <sys/mman.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The file the library loads: an anonymous in-memory file, rewritten for
// every input.
int conf_fd()
{
    static const int fd = [] {
        xmllib_init("disk");
        return memfd_create("zor-fuzz-conf", MFD_CLOEXEC);
    }();
    return fd;
}

void read_all(const char* path)
{
    char text[1024];
    int size = sizeof(text);
    if (xmllib_get_value(path, ZOR_XML_STRING, text, &size) == ZOR_XMLERR_SUCCESS &&
        (size <= 0 || size > static_cast<int>(sizeof(text)) || text[size - 1] != '\0')) {
        __builtin_trap();
    }
    int number = 0;
    size = sizeof(number);
    xmllib_get_value(path, ZOR_XML_INT, &number, &size);
    size = 4;  // a string buffer too small for most values
    xmllib_get_value(path, ZOR_XML_STRING, text, &size);
    size = sizeof(text);
    xmllib_get_srvsep_value("node1", path, ZOR_XML_STRING, text, &size);
    size = 0;
    if (xmllib_enum_value(path, nullptr, &size) == ZOR_XMLERR_NOTENOUGH_SIZE && size > 0 &&
        size <= (1 << 20)) {
        std::string slots(static_cast<size_t>(size), '\0');
        int got = size;
        xmllib_enum_value(path, slots.data(), &got);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fd = conf_fd();
    if (fd < 0) {
        return 0;
    }
    const char* begin = reinterpret_cast<const char*>(data);
    const char* nl = static_cast<const char*>(memchr(begin, '\n', size));
    std::string path = nl != nullptr ? std::string(begin, nl) : std::string();
    size_t skip = nl != nullptr ? static_cast<size_t>(nl - begin) + 1 : 0;
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, data + skip, size - skip, 0) != static_cast<ssize_t>(size - skip)) {
        return 0;
    }
    char file[64];
    snprintf(file, sizeof(file), "/proc/self/fd/%d", fd);
    void* handle = nullptr;
    if (xmllib_load_pathconfig(file, &handle) != ZOR_XMLERR_SUCCESS) {
        return 0;
    }
    xmllib_change_config(handle);
    read_all(path.c_str());
    for (const char* fixed :
         {"/root/all/path", "/root/disk/log/level", "/root/group", "/root/resource",
          "/root/group@grp1/resource", "/root/resource/disk@fs1/parameters/mount/point"}) {
        read_all(fixed);
    }
    xmllib_change_config(nullptr);
    xmllib_unload_pathconfig(handle);
    return 0;
}
