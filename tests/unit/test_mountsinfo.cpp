// The two readers of the mount table against real tmpfs mounts, made in a
// private mount namespace of a forked child so that nothing outside the test
// sees them: the monitor's in-place lookup, which compares the point as text,
// and the probe of the actions, which canonicalises it and asks grep.
#include "test_support.h"

#include "command_exec/mount_table.h"
#include "command_exec/zor_exec.h"
#include "disk.h"

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

// The probe's answer, with "?" when it could not decide and gave its default.
std::string probe(const std::string& path, int mode)
{
    bool known = false;
    const int answer = mountsinfo_known(path.c_str(), mode, &known);
    return std::to_string(answer) + (known ? "" : "?");
}

TEST(MountTable, LookupAndProbeAgainstRealMounts)
{
    ZOR_REQUIRE_ROOT();
    TempDir tmp;
    const std::string t = tmp.path();
    for (const char* d : {"data", "data2", "with space", "pct%dir", "stack", "ro", "br[ack", "bin\xff"}) {
        ASSERT_EQ(mkdir((t + "/" + d).c_str(), 0755), 0) << d;
    }
    ASSERT_EQ(symlink((t + "/data2").c_str(), (t + "/link").c_str()), 0);
    const std::vector<TmpfsMount> mounts = {
        {"zor-data2", t + "/data2"}, {"zor space", t + "/with space"}, {"zor-pct", t + "/pct%dir"},
        {"zor-first", t + "/stack"}, {"zor-second", t + "/stack"},     {"zor-ro", t + "/ro", MS_RDONLY},
        {"zor-br", t + "/br[ack"},   {"zor-bin", t + "/bin\xff"},
    };
    // Per point: the lookup's "count:source:readonly", then the probe's
    // answers before a mount and before an unmount.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {t + "/data", "0::-1 0 0"},  // grep selects the data2 line, the field differs
        {t + "/data2", "1:zor-data2:0 1 1"},
        {t + "/data2//", "1:zor-data2:0 1 1"},      // trailing "/" ignored, probed again canonical
        {t + "/link", "0::-1 1 1"},                 // the lookup follows no link, the probe does
        {t + "/with space", "1:zor space:0 1 1"},   // \040 in the table
        {t + "/with space/", "1:zor space:0 1 1"},  // canonical path, escaped again
        {t + "/pct%dir", "1:zor-pct:0 1 1"},        // compared before "%" becomes "#"
        {t + "/stack", "2:zor-second:0 1 2"},       // the topmost mount; every mount to undo
        {t + "/ro", "1:zor-ro:1 1 1"},
        {t + "/nonexistent", "0::-1 0 0"},
        {t + "/br[ack", "1:zor-br:0 1 1"},      // taken as text, not as a pattern
        {t + "/bin\xff", "1:zor-bin:0 0? 0?"},  // grep matched but did not show the line
        // The escaped form cannot fit the probe's command line: no answer, only the default.
        {t + "/" + std::string(300, ' '), "0::-1 0? 0?"},
        {t + "/" + std::string(1100, 'x'), "-1::-1 0? 0?"},  // longer than any configured point
    };
    std::string want;
    for (const auto& [p, w] : cases) {
        want += w + "\n";
    }
    const std::string got = in_mount_namespace(mounts, [&] {
        // A UTF-8 locale, in which grep does not show a line it takes for binary data.
        setenv("LC_ALL", "C.UTF-8", 1);
        std::string out;
        for (const auto& [p, w] : cases) {
            MNT_ENTRY top = {};
            const int n = mnttab_lookup(p.c_str(), &top);
            out += std::to_string(n) + ":" + (n > 0 ? top.source : "") + ":" +
                   std::to_string(n > 0 ? top.readonly : -1) + " " + probe(p, MNT_PREMOUNT) + " " +
                   probe(p, MNT_PREUMOUNT) + "\n";
        }
        return out;
    });
    EXPECT_EQ(got, want);
}

}  // namespace
