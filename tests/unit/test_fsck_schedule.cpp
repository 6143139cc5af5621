// The periodic check schedule over a series of activations, with the real
// registry in a temporary node tree and a checker script that records its
// runs.
#include "node_home.h"

#include "storage_ops/zor_ops.h"
#include "zorreg.h"

#include <sys/stat.h>
#include <string>

namespace {

class ScheduleTest : public ConfiguredAgentTest {
protected:
    void SetUp() override
    {
        ConfiguredAgentTest::SetUp();
        mkdir((home_ / "var").c_str(), 0755);
        const std::string checker = home_.script(
            "checker", "echo run >> '" + (home_ / "runs") + "'\nexit $(cat '" + (home_ / "code") + "')");
        home_.write("code", "0");
        BCOPY(fsck_.path, checker.c_str());
        fsck_.to = 10;
        fsck_.interval = 3;
    }
    // Number of checker runs since the last call.
    int runs()
    {
        return static_cast<int>(home_.drain("runs").size() / 4);
    }

    int counter() const
    {
        int v = -1;
        EXPECT_EQ(reg_init("disk"), 0);
        EXPECT_EQ(reg_get_value("disk", "fs1", "fsckinterval", REG_TYPE_INT, sizeof(v), &v), 0);
        reg_term("disk");
        return v;
    }

    ZOR_FSCK fsck_ = {};
};

TEST_F(ScheduleTest, ActivationsCountUpToTheCheckAndRestartOnANewDevice)
{
    const struct {
        const char* step;
        const char* device;
        int checker_exit;
        int timing;        // result of fsck_timing
        int want_runs;     // checker runs
        bool mounted;      // set_fsck_interval after a successful mount
        int want_counter;  // afterwards
    } steps[] = {
        {"first activation registers the device", "/dev/sdz1", 0, 18, 0, true, 1},
        {"1 < 3: not due", "/dev/sdz1", 0, 18, 0, true, 2},
        {"2 < 3: not due", "/dev/sdz1", 0, 18, 0, true, 3},
        {"3: due, failing check keeps the count", "/dev/sdz1", 4, 13, 1, false, 3},
        {"still due: checks again and passes", "/dev/sdz1", 1, 0, 1, true, 1},
        {"not due again", "/dev/sdz1", 0, 18, 0, true, 2},
        {"moved to a new device: no check", "/dev/sdz2", 0, 18, 0, true, 1},
    };
    for (const auto& [step, device, checker_exit, timing, want_runs, mounted, want_counter] : steps) {
        SCOPED_TRACE(step);
        home_.write("code", std::to_string(checker_exit));
        EXPECT_EQ(fsck_timing("disk", "fs1", &fsck_, device, "ext4"), timing);
        EXPECT_EQ(runs(), want_runs);
        if (mounted) {
            EXPECT_EQ(set_fsck_interval("disk", "fs1"), 0);
        }
        EXPECT_EQ(counter(), want_counter);
    }
    EXPECT_TRUE(home_.has_message("dev changed ->/dev/sdz1"));
    EXPECT_TRUE(home_.has_message("dev changed /dev/sdz1->/dev/sdz2"));
    EXPECT_TRUE(home_.has_message("execute fsck! fsckinterval over 3. (device:/dev/sdz1)"));
    EXPECT_TRUE(home_.has_message("not execute fsck. fsckinterval not over 3. (device:/dev/sdz1)"));
}

// A damaged value is rewritten so that the check is due at the next
// activation; the activation that finds it goes on without a check.
TEST_F(ScheduleTest, DamagedScheduleIsRepairedAndTheCheckDueNext)
{
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"fsckinterval", "garbage", "fsckinterval damaged."},
        {"fsckinterval", "", "fsckinterval damaged."},
        {"device", "garbage", "device damaged."},
    };
    for (const auto& [key, bytes, line] : cases) {
        SCOPED_TRACE(std::string(key) + " " + line);
        ASSERT_EQ(fsck_timing("disk", "fs1", &fsck_, "/dev/sdz1", "ext4"), 18);  // registers the device
        home_.write(std::string("var/registry/disk/fs1/") + key, bytes);
        EXPECT_EQ(fsck_timing("disk", "fs1", &fsck_, "/dev/sdz1", "ext4"), 19);
        EXPECT_EQ(runs(), 0);
        const std::string repaired = " set fsckinterval->3, fsck due at next activation. (device:/dev/sdz1)";
        EXPECT_TRUE(home_.has_message(line + repaired));
        EXPECT_EQ(set_fsck_interval("disk", "fs1"), 0);
        EXPECT_EQ(fsck_timing("disk", "fs1", &fsck_, "/dev/sdz1", "ext4"), 0);
        EXPECT_EQ(runs(), 1);
        EXPECT_EQ(counter(), 0);
    }
    // Counting alone (a schedule that the check does not read) restarts the count.
    home_.write("var/registry/disk/fs1/fsckinterval", "garbage");
    EXPECT_EQ(set_fsck_interval("disk", "fs1"), 19);
    EXPECT_EQ(counter(), 1);
    EXPECT_TRUE(home_.has_message("fsckinterval damaged. set fsckinterval->1."));
}

TEST_F(ScheduleTest, UnusableRegistryRunsNoCheckAndCountsNothing)
{
    // Something that is not a directory where the registry should be.
    home_.write("var/registry", "not a directory");
    EXPECT_EQ(fsck_timing("disk", "fs1", &fsck_, "/dev/sdz1", "ext4"), 19);
    EXPECT_EQ(set_fsck_interval("disk", "fs1"), 19);
    EXPECT_EQ(runs(), 0);
    EXPECT_TRUE(home_.has_message("reg_init() failed ignore. (ret=4)"));
}

}  // namespace
