// The mount table probe against real tmpfs mounts, made in a private mount
// namespace of a forked child so that nothing outside the test sees them.
#include "test_support.h"

#include "command_exec/zor_exec.h"
#include "disk.h"

#include <sys/stat.h>
#include <string>
#include <vector>

namespace {

struct ProbeCase {
    std::string path;
    int mode;
    int expected;
    bool known = true;  // false: the probe could not decide, the answer is its default
};

// Mounts a tmpfs on each of `mounts` in a new mount namespace and gives the
// answer of every case there.
std::string probe_in_namespace(const std::vector<std::string>& mounts, const std::vector<ProbeCase>& cases)
{
    std::vector<TmpfsMount> tmpfs;
    for (const std::string& m : mounts) {
        tmpfs.push_back({"zortest", m});
    }
    return in_mount_namespace(tmpfs, [&] {
        // A UTF-8 locale, in which grep does not show a line it takes for binary data.
        setenv("LC_ALL", "C.UTF-8", 1);
        std::string out;
        for (const ProbeCase& c : cases) {
            bool known = false;
            int answer = mountsinfo_known(c.path.c_str(), c.mode, &known);
            out += std::to_string(answer) + (known ? " " : "? ");
        }
        return out;
    });
}

TEST(MountsInfo, FindsMountPointsInTheRealMountTable)
{
    ZOR_REQUIRE_ROOT();
    TempDir tmp;
    const std::string t = tmp.path();
    for (const char* d : {"data", "data2", "with space", "pct%dir", "stack", "plain", "br[ack", "bin\xff"}) {
        ASSERT_EQ(mkdir((t + "/" + d).c_str(), 0755), 0) << d;
    }
    ASSERT_EQ(symlink((t + "/data2").c_str(), (t + "/link").c_str()), 0);
    const std::vector<ProbeCase> cases = {
        {t + "/data", MNT_PREMOUNT, 0},  // grep selects the data2 line, the field differs
        {t + "/data", MNT_PREUMOUNT, 0},
        {t + "/data2", MNT_PREMOUNT, 1},
        {t + "/with space", MNT_PREMOUNT, 1},    // \040 in the table
        {t + "/with space/", MNT_PREUMOUNT, 1},  // canonical path, escaped again
        {t + "/data2/", MNT_PREMOUNT, 1},        // second search under the canonical path
        {t + "/data2///", MNT_PREUMOUNT, 1},
        {t + "/link", MNT_PREMOUNT, 1},
        {t + "/pct%dir", MNT_PREMOUNT, 1},  // compared before "%" becomes "#"
        {t + "/stack", MNT_PREUMOUNT, 2},
        {t + "/stack", MNT_PREMOUNT, 1},
        {t + "/plain", MNT_PREUMOUNT, 0},
        {t + "/nonexistent", MNT_PREMOUNT, 0},
        {t + "/br[ack", MNT_PREUMOUNT, 1},          // taken as text, not as a pattern
        {t + "/bin\xff", MNT_PREUMOUNT, 0, false},  // grep matched but did not show the line
        // The escaped form cannot fit the command line: no answer, only the default.
        {t + "/" + std::string(300, ' '), MNT_PREUMOUNT, 0, false},
        {t + "/" + std::string(300, ' '), MNT_PREMOUNT, 0, false},
    };
    std::string want;
    for (const ProbeCase& c : cases) {
        want += std::to_string(c.expected) + (c.known ? " " : "? ");
    }
    // One answer per case, in order.
    EXPECT_EQ(probe_in_namespace({t + "/data2", t + "/with space", t + "/pct%dir", t + "/stack", t + "/stack",
                                  t + "/br[ack", t + "/bin\xff"},
                                 cases),
              want);
}

}  // namespace
