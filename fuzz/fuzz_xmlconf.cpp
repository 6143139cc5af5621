// libFuzzer harness: the configuration library's load and reads. The input's
// first line is a configuration path to read; the rest is the configuration
// file, loaded as an alternate configuration and read through every kind of
// call the agent makes. The same file is also loaded as zor.conf through its
// index, and every read must answer as the whole parse did.
#include <zorxml.h>
#include <zorxml_internal.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

// The file the library loads as an alternate configuration: an anonymous
// in-memory file, rewritten for every input. The same bytes go to zor.conf
// of a node tree of the harness's own.
int conf_fd()
{
    static const int fd = [] {
        static char home[] = "/tmp/zor-fuzz-home.XXXXXX";
        if (mkdtemp(home) == nullptr) {
            return -1;
        }
        setenv("ZOR_HOME", home, 1);
        atexit([] { std::filesystem::remove_all(home); });
        mkdir((std::string(home) + "/etc").c_str(), 0700);
        zorxml_set_settle_ms(0);
        xmllib_init("disk");
        return memfd_create("zor-fuzz-conf", MFD_CLOEXEC);
    }();
    return fd;
}

// Every answer of the reads the agent makes of one path, as text.
std::string read_all(const char* path)
{
    std::string seen;
    char text[1024];
    int size = sizeof(text);
    int ret = xmllib_get_value(path, ZOR_XML_STRING, text, &size);
    if (ret == ZOR_XMLERR_SUCCESS &&
        (size <= 0 || size > static_cast<int>(sizeof(text)) || text[size - 1] != '\0')) {
        __builtin_trap();
    }
    seen += std::to_string(ret) + ":" + (ret == 0 ? text : "") + ";";
    int number = 0;
    size = sizeof(number);
    ret = xmllib_get_value(path, ZOR_XML_INT, &number, &size);
    seen += std::to_string(ret) + ":" + std::to_string(ret == 0 ? number : 0) + ";";
    size = 4;  // a string buffer too small for most values
    seen += std::to_string(xmllib_get_value(path, ZOR_XML_STRING, text, &size)) + ";";
    size = sizeof(text);
    ret = xmllib_get_srvsep_value("node1", path, ZOR_XML_STRING, text, &size);
    seen += std::to_string(ret) + ":" + (ret == 0 ? text : "") + ";";
    size = 0;
    ret = xmllib_enum_value(path, nullptr, &size);
    seen += std::to_string(ret) + ":" + std::to_string(size) + ";";
    if (ret == ZOR_XMLERR_NOTENOUGH_SIZE && size > 0 && size <= (1 << 20)) {
        std::string slots(static_cast<size_t>(size), '\0');
        int got = size;
        ret = xmllib_enum_value(path, slots.data(), &got);
        seen += std::to_string(ret) + ":" + slots;
    }
    return seen;
}

std::string read_paths(const std::string& path)
{
    std::string seen = read_all(path.c_str());
    for (const char* fixed : {"/root/all/path", "/root/disk/log/level", "/root/group", "/root/resource",
                              "/root/group@grp1/resource", "/root/resource/disk@fs1/parameters/mount/point",
                              "/root/resource/disk", "/root/server@node1/all/path"}) {
        seen += read_all(fixed);
    }
    return seen;
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
    std::string whole = read_paths(path);
    xmllib_change_config(nullptr);
    xmllib_unload_pathconfig(handle);

    // zor.conf: the first load parses it whole and writes its index, the
    // second reads the index. An index left by the last input must go first:
    // two inputs of one size written within one tick look like one file.
    std::string home = getenv("ZOR_HOME");
    unlink((home + "/var/xmlindex/zor.conf").c_str());
    FILE* f = fopen((home + "/etc/zor.conf").c_str(), "w");
    if (f == nullptr) {
        return 0;
    }
    bool written = fwrite(data + skip, 1, size - skip, f) == size - skip;
    if (fclose(f) != 0 || !written || xmllib_load_config() != ZOR_XMLERR_SUCCESS) {
        return 0;
    }
    xmllib_unload_config();
    if (xmllib_load_config() != ZOR_XMLERR_SUCCESS) {
        __builtin_trap();  // it loaded a moment ago
    }
    if (std::string idx = read_paths(path); idx != whole) {
        fprintf(stderr, "WHOLE %s\nINDEX %s\n", whole.c_str(), idx.c_str());
        __builtin_trap();
    }
    xmllib_unload_config();
    return 0;
}
