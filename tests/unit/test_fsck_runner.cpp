// The file system check runner with real checkers on real image files, and
// with small checker scripts for what real checkers do not give on demand
// (reiserfsck exit codes 4 and 6, a checker that hangs); and the periodic
// check schedule over a series of activations, with the real registry in a
// temporary node tree and a checker script that records its runs.
#include "node_home.h"

#include "command_exec/zor_exec.h"
#include "storage_ops/zor_ops.h"
#include "zorreg.h"

#include <sys/stat.h>
#include <algorithm>
#include <regex>
#include <string>

namespace {

class FsckTest : public ConfiguredAgentTest {
protected:
    static ZOR_FSCK fsck_record(const std::string& opt)
    {
        ZOR_FSCK f = {};
        f.to = 60;
        BCOPY(f.path, "/sbin/fsck");
        BCOPY(f.reiserpath, "/sbin/reiserfsck");
        BCOPY(f.xfspath, "/sbin/xfs_repair");
        BCOPY(f.opt, opt.c_str());
        BCOPY(f.xfsopt, opt.c_str());
        return f;
    }
};

TEST_F(FsckTest, RealCheckersOnCleanAndDamagedImages)
{
    // Image files, each made by shell commands on IMG.
    mkdir((home_ / "img dir").c_str(), 0755);
    auto image = [&](const std::string& name, int size_mb, const std::string& make) {
        const std::string path = home_ / ("img dir/" + name);
        const std::string cmd = std::regex_replace(
            "truncate -s " + std::to_string(size_mb) + "M IMG && (" + make + ") > /dev/null 2>&1",
            std::regex("IMG"), "'" + path + "'");
        EXPECT_EQ(system(cmd.c_str()), 0) << cmd;
        return path;
    };
    const std::string ext4 = image("ext4 clean.img", 16, "mkfs.ext4 -q -F IMG");
    // The root directory's inode wiped.
    const std::string bad = image("ext4 bad.img", 16, "mkfs.ext4 -q -F IMG && debugfs -w -R 'clri <2>' IMG");
    const std::string xfs = image("xfs clean.img", 300, "mkfs.xfs -q -f IMG");
    const std::string xbad =
        image("xfs bad.img", 300,
              "mkfs.xfs -q -f IMG && xfs_db -x -c 'inode 128' -c 'write -d core.nlinkv2 0' IMG");
    const std::string reiser = image("reiser clean.img", 64, "mkreiserfs -f -q IMG");
    // (image, file system, options, result, start of the status text ("": untouched), command in the events)
    const std::tuple<std::string, const char*, const char*, int, const char*, const char*> cases[] = {
        {ext4, "ext4", "-f -n", 0, "", "/sbin/fsck"},
        {bad, "ext4", "-f -n", 13, "Command failed. (/sbin/fsck, ret=", "/sbin/fsck"},
        {xfs, "xfs", "-n", 0, "", "/sbin/xfs_repair"},
        {xbad, "xfs", "-n", 13, "Command failed. (/sbin/xfs_repair, ret=1)", "/sbin/xfs_repair"},
        {reiser, "reiserfs", "--check", 0, "", "/sbin/reiserfsck"},
    };
    for (const auto& [dev, fstype, opt, ret, status_prefix, command] : cases) {
        SCOPED_TRACE(dev + " " + opt);
        shmbuf[0] = '\0';
        ZOR_FSCK f = fsck_record(opt);
        home_.take();
        const int got = cmd_fsck(&f, dev.c_str(), fstype);
        const std::vector<LogRecord> recs = home_.take();
        const std::string what = std::string("(command=") + command + ", device=" + dev + ")";
        EXPECT_EQ(std::tuple(got, std::string(shmbuf).rfind(status_prefix, 0),
                             has(recs, "ZOR-10: file system check started. " + what, "EVENT"),
                             has(recs, "ZOR-11: file system is clean. " + what, "EVENT")),
                  std::tuple(ret, 0u, true, ret == 0))
            << shmbuf;
    }
    EXPECT_TRUE(home_.has_message("ZOR-12: command failed. (command=/sbin/xfs_repair, device=" + xbad +
                                  ", exit code=1)"));
    // The checker's output went to the fsck log, not to the trace log.
    auto pass1 = [](const std::vector<std::string>& msgs) {
        return std::count_if(msgs.begin(), msgs.end(),
                             [](const std::string& m) { return m.rfind("Pass 1: Checking inodes", 0) == 0; });
    };
    EXPECT_EQ(std::pair(pass1(home_.messages("disk_fsck")), pass1(home_.messages())), std::pair(2L, 0L));
    EXPECT_EQ(traceinit_ex, 0);  // opened and closed by each run
}

// A reiserfs check that asks for a repair gets its second run only with the option the configuration
// allows; other file systems never get one.
TEST_F(FsckTest, ReiserfsSecondRunFollowsTheAllowedOption)
{
    // Exit code from a file on the first run; the repair runs succeed (--fix-fixable: "errors corrected").
    const std::string checker = home_.script(
        "fakereiserfsck", "echo \"$*\" >> '" + (home_ / "args") + "'\nfor a in \"$@\"; do case \"$a\" in\n" +
                              "--rebuild-tree) exit 0;; --fix-fixable) exit 1;; esac; done\nexit $(cat '" +
                              (home_ / "code") + "')");
    // The scripts' paths in the temporary tree are longer than cmdname holds: named by their base names.
    const std::string what = "(command=fakereiserfsck, device=/dev/fake dev, option=";
    const std::string refused =
        "reiserfs check needs an option that the configuration does not allow; check the file system by "
        "hand. ";
    // (file system, first exit code, rebuildopt, fixopt, result, option of the second run (null: none),
    // refusal)
    const std::tuple<const char*, int, int, int, int, const char*, bool> cases[] = {
        {"reiserfs", 4, 1, 0, 0, "--rebuild-tree", false},
        {"reiserfs", 4, 0, 1, 13, nullptr, true},
        {"reiserfs", 6, 0, 1, 0, "--fix-fixable", false},
        {"reiserfs", 6, 1, 0, 13, nullptr, true},
        {"reiserfs", 8, 1, 1, 13, nullptr, false},
        {"reiserfs", 1, 1, 1, 0, nullptr, false},
        {"ext4", 4, 1, 1, 13, nullptr, false},
    };
    for (const auto& [fs, first, rebuildopt, fixopt, ret, second, refusal] : cases) {
        SCOPED_TRACE(std::string(fs) + " exit " + std::to_string(first) + " rebuild " +
                     std::to_string(rebuildopt) + " fix " + std::to_string(fixopt));
        home_.write("code", std::to_string(first));
        ZOR_FSCK f = fsck_record("-a");
        BCOPY(f.path, checker.c_str());
        BCOPY(f.reiserpath, checker.c_str());
        f.rebuildopt = rebuildopt;
        f.fixopt = fixopt;
        home_.take();
        const int got = cmd_fsck(&f, "/dev/fake dev", fs);
        const std::vector<LogRecord> recs = home_.take();
        const std::string opt = what + (first == 4 ? "--rebuild-tree)" : "--fix-fixable)");
        const std::string runs = std::string(fs[0] == 'e' ? "-t ext4 " : "") + "-a /dev/fake dev\n" +
                                 (second ? second + std::string(" /dev/fake dev\n") : "");
        EXPECT_EQ(std::tuple(got, home_.drain("args"),
                             has(recs, "ZOR-14: file system check started with an option. " + opt, "EVENT"),
                             has(recs, "ZOR-13: " + refused + opt, "EVENT")),
                  std::tuple(ret, runs, second != nullptr, refusal));
    }
}

// What the status text tells of a checker that ends badly: a path that fits
// cmdname names the check whole, a longer one its base name; a missing
// checker fails with the shell's 127 (a hung one ends at its time limit as
// every command does: the runner's tests). The output goes to the fsck log,
// its "%" masked.
TEST_F(FsckTest, CheckerOutcomesAndTheirNames)
{
    const std::string fits = "/" + std::string(25, 'd') + "/fsck";    // 31 characters
    const std::string longer = "/" + std::string(26, 'd') + "/fsck";  // 32 characters
    const std::tuple<std::string, int, std::string> cases[] = {
        // checker, result, status
        {home_.script("chatty", "printf 'progress 50%% %%\\n'"), 0, ""},
        {fits, 13, "Command failed. (" + fits + ", ret=127)"},
        {longer, 13, "Command failed. (fsck, ret=127)"},
    };
    for (const auto& [path, ret, status] : cases) {
        SCOPED_TRACE(path);
        shmbuf[0] = '\0';
        ZOR_FSCK f = fsck_record("");
        BCOPY(f.path, path.c_str());
        EXPECT_EQ(cmd_fsck(&f, "/dev/sdz9", "ext4"), ret);
        EXPECT_EQ(shmbuf, status);
    }
    EXPECT_TRUE(home_.has_message("progress 50# # ", "disk_fsck"));
}

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
