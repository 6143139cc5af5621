// Which lines of the raw binding tool's output the check believes.
#include "config_check/zor_check.h"
#include "disk.h"
#include "test_support.h"

#include <string>

namespace {

TEST(CkbindParse, Table)
{
    const std::string r1 = "/dev/raw/raw1:  bound to major ";
    // (line, major, minor); major -1: the line is refused and the caller's numbers are left alone.
    // Numbers are decimal whatever their leading zeros.
    const std::tuple<std::string, int, int> cases[] = {
        {r1 + "8, minor 17\n", 8, 17},
        {r1 + "8, minor 17", 8, 17},  // last line without newline
        {r1 + "010, minor 999\n", 10, 999},
        {"/dev/raw/raw9: see /dev/raw/raw1 major 8, minor 1\n", 8, 1},  // the name found later in the line
        // The number texts of a 4-byte buffer hold at most 3 digits, and must convert whole.
        {r1 + "1234, minor 5\n", -1, -1},
        {r1 + "8, minor 1000\n", -1, -1},
        {r1 + "8, minor 17x\n", -1, -1},
        {r1 + ", minor 17\n", -1, -1},
        {r1 + "-8, minor 17\n", -1, -1},
        // Not a line about this raw device, or the words out of order.
        {"/dev/raw/raw10:  bound to major 8, minor 17\n", -1, -1},
        {"/dev/raw/raw1 bound to major 8, minor 17\n", -1, -1},
        {"/dev/raw/raw1:  bound to minor 17, major 8\n", -1, -1},
        {"/dev/raw/raw1: major 8, minor", -1, -1},
    };
    for (const auto& [line, want_major, want_minor] : cases) {
        int major = -1, minor = -1;
        const int found = ckbind_parse_line(line.c_str(), "/dev/raw/raw1", &major, &minor);
        EXPECT_EQ(std::tuple(found, major, minor), std::tuple(int{want_major >= 0}, want_major, want_minor))
            << line;
    }
}

}  // namespace
