// libFuzzer harness for the mount-table line parsing: a /proc/mounts line
// against a wanted mount point, a /proc/self/mountinfo line, and the escaped
// forms of a path. Besides memory errors it checks the properties the probe
// relies on: a path is found in a line built from its own escaped form, and
// the escaped form reads back as the path.
#include "command_exec/zor_exec.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The input, up to its first NUL, is both a table line and a path; the
    // part after a NUL (if any) is the wanted point.
    std::string all(reinterpret_cast<const char*>(data), size);
    std::string line = all.substr(0, all.find('\0'));
    std::string want = all.find('\0') == std::string::npos ? line : all.substr(all.find('\0') + 1);
    want = want.substr(0, want.find('\0'));

    (void)mounts_line_matches(line.c_str(), want.c_str());

    unsigned maj = 0;
    unsigned min = 0;
    const char* point = nullptr;
    size_t len = 0;
    if (mountinfo_line_parse(line.c_str(), &maj, &min, &point, &len) == 1) {
        if (point < line.c_str() || point + len > line.c_str() + line.size()) {
            abort();
        }
    }

    char field[4 * 4096 + 1];
    char pattern[5 * 4096 + 1];
    if (line.size() < 4096 && mounts_escape_field(line.c_str(), field, sizeof(field)) == 0) {
        // The kernel's form of the path, in a line of its own: found, exactly.
        std::string table = std::string("dev ") + field + " ext4 rw 0 0";
        if (!mounts_line_matches(table.c_str(), line.c_str())) {
            abort();
        }
        char back[4096];
        mounts_unescape(field, back, sizeof(back));
        if (line != back) {
            abort();
        }
        if (mounts_grep_pattern(line.c_str(), pattern, sizeof(pattern)) != 0) {
            abort();
        }
    }
    return 0;
}
