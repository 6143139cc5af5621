// The monitor's in-place mount table reader against real tmpfs mounts, made in
// a private mount namespace of a forked child; and its unescaping as a table.
#include "test_support.h"

#include "command_exec/mount_table.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <string>
#include <utility>
#include <vector>

namespace {

TEST(MountTable, Unescape)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/mnt/with\\040space", "/mnt/with space"},
        {"tab\\011nl\\012bs\\134", "tab\tnl\nbs\\"},
        {"\\04", "\\04"},      // too short for an escape
        {"\\400x", "\\400x"},  // not a byte
        {"\\08x", "\\08x"},    // not octal
        {"plain", "plain"},
    };
    for (const auto& [in, want] : cases) {
        char out[64];
        mnttab_unescape(in.c_str(), out, sizeof(out));
        EXPECT_EQ(out, want) << in;
    }
    char small[4];
    mnttab_unescape("abcdef", small, sizeof(small));
    EXPECT_STREQ(small, "abc");
}

// Mounts each of `mounts` in a new mount namespace and gives, for every
// wanted point, "count:source:readonly ".
std::string lookup_in_namespace(const std::vector<TmpfsMount>& mounts, const std::vector<std::string>& points)
{
    return in_mount_namespace(mounts, [&] {
        std::string out;
        for (const std::string& p : points) {
            MNT_ENTRY top = {};
            int n = mnttab_lookup(p.c_str(), &top);
            out += std::to_string(n) + ":" + (n > 0 ? top.source : "") + ":" +
                   std::to_string(n > 0 ? top.readonly : -1) + " ";
        }
        return out;
    });
}

TEST(MountTable, LooksUpPointsAsText)
{
    ZOR_REQUIRE_ROOT();
    TempDir tmp;
    const std::string t = tmp.path();
    for (const char* d : {"data", "data2", "with space", "stack", "ro"}) {
        ASSERT_EQ(mkdir((t + "/" + d).c_str(), 0755), 0) << d;
    }
    ASSERT_EQ(symlink((t + "/data2").c_str(), (t + "/link").c_str()), 0);
    const std::vector<TmpfsMount> mounts = {
        {"zor-data2", t + "/data2", 0},  {"zor space", t + "/with space", 0}, {"zor-first", t + "/stack", 0},
        {"zor-second", t + "/stack", 0}, {"zor-ro", t + "/ro", MS_RDONLY},
    };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {t + "/data", "0::-1"},  // a prefix of data2 is not data2
        {t + "/data2", "1:zor-data2:0"},
        {t + "/data2//", "1:zor-data2:0"},     // trailing "/" ignored
        {t + "/link", "0::-1"},                // symbolic links are not followed
        {t + "/with space", "1:zor space:0"},  // unescaped point and source
        {t + "/stack", "2:zor-second:0"},      // the topmost mount
        {t + "/ro", "1:zor-ro:1"},
        {t + "/nonexistent", "0::-1"},
        {t + "/" + std::string(1100, 'x'), "-1::-1"},  // longer than any configured point
    };
    std::vector<std::string> points;
    std::string want;
    for (const auto& [p, w] : cases) {
        points.push_back(p);
        want += w + " ";
    }
    EXPECT_EQ(lookup_in_namespace(mounts, points), want);
}

}  // namespace
