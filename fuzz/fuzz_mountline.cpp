// libFuzzer harness for the mount-table line parsing: a /proc/mounts line, a
// /proc/self/mountinfo line, and the escaped forms of a path. Besides memory
// errors it checks the properties the readers rely on: a path written in its
// escaped form into a line of either table reads back as the path, and the
// probe's pattern can be made of any path whose escaped form fits.
#include "command_exec/mount_table.h"
#include "command_exec/zor_exec.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The input, up to its first NUL, is both a table line and a path.
    std::string all(reinterpret_cast<const char*>(data), size);
    std::string line = all.substr(0, all.find('\0'));

    static MNT_ENTRY e;
    (void)mnt_parse_mounts(line.c_str(), &e);
    (void)mnt_parse_mountinfo(line.c_str(), &e);

    static char field[4 * 4096 + 1];
    static char pattern[5 * 4096 + 1];
    if (line.size() < 4096 && mnt_escape(line.c_str(), field, sizeof(field)) == 0) {
        // The kernel's form of the path, in a line of each table: read back exactly.
        std::string mounts = std::string("dev ") + field + " ext4 rw 0 0";
        if (!mnt_parse_mounts(mounts.c_str(), &e) || line != e.point) {
            abort();
        }
        std::string info = std::string("1 2 8:1 / ") + field + " rw - ext4 " + field + " rw";
        if (!mnt_parse_mountinfo(info.c_str(), &e) || line != e.point || line != e.source) {
            abort();
        }
        if (mounts_grep_pattern(line.c_str(), pattern, sizeof(pattern)) != 0) {
            abort();
        }
    }
    return 0;
}
