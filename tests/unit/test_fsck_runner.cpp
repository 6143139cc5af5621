// The file system check runner with real checkers on real image files, and
// with small checker scripts for the exit codes real checkers do not give on
// demand (reiserfsck 4 and 6, a checker killed by a signal).
#include "node_home.h"

#include "bounded.h"
#include "command_exec/zor_exec.h"
#include "disk.h"
#include "storage_ops/zor_ops.h"
#include "tracersc.h"
#include "zorxml.h"

#include <string>
#include <sys/stat.h>

namespace {

class FsckTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        home_.write("etc/zor.conf",
                    "<root><disk><log><level>8</level><size>4194304</size></log></disk></root>");
        mkdir((home_ / "bin").c_str(), 0755);
        mkdir((home_ / "img dir").c_str(), 0755);
        BCOPY(type, "disk");
        ASSERT_EQ(xmllib_init("disk"), 0);
        ASSERT_EQ(xmllib_load_config(), 0);
        traceopen("disk", 8, 0, nullptr);
        shmbuf[0] = '\0';
    }
    void TearDown() override
    {
        traceclose();
        xmllib_unload_config();
        xmllib_term();
    }

    // A checker script in $ZOR_HOME/bin; returns its path.
    std::string script(const std::string& name, const std::string& body) const
    {
        std::string path = home_ / ("bin/" + name);
        home_.write("bin/" + name, "#!/bin/sh\n" + body + "\n");
        chmod(path.c_str(), 0755);
        return path;
    }

    // An image file with a fresh file system of the given type.
    std::string image(const std::string& name, const std::string& mkfs, int size_mb) const
    {
        std::string path = home_ / ("img dir/" + name);
        std::string cmd = "truncate -s " + std::to_string(size_mb) + "M '" + path + "' && " + mkfs + " '" +
                          path + "' > /dev/null 2>&1";
        EXPECT_EQ(system(cmd.c_str()), 0) << cmd;
        return path;
    }

    bool has_event(const std::string& msg) const
    {
        for (const LogRecord& r : home_.records("disk")) {
            if (r.level == "EVENT" && r.msg == msg) {
                return true;
            }
        }
        return false;
    }

    static ZOR_FSCK fsck_record(const std::string& opt, int timeout = 60)
    {
        ZOR_FSCK f = {};
        f.to = timeout;
        BCOPY(f.path, "/sbin/fsck");
        BCOPY(f.reiserpath, "/sbin/reiserfsck");
        BCOPY(f.xfspath, "/sbin/xfs_repair");
        BCOPY(f.opt, opt.c_str());
        BCOPY(f.xfsopt, opt.c_str());
        return f;
    }

    NodeHome home_;
};

TEST_F(FsckTest, RealCheckersOnCleanAndDamagedImages)
{
    std::string ext4 = image("ext4 clean.img", "mkfs.ext4 -q -F", 16);
    std::string bad = image("ext4 bad.img", "mkfs.ext4 -q -F", 16);
    ASSERT_EQ(system(("debugfs -w -R 'clri <2>' '" + bad + "' > /dev/null 2>&1").c_str()), 0);
    std::string bad2 = home_ / "img dir/ext4 bad2.img";
    ASSERT_EQ(system(("cp '" + bad + "' '" + bad2 + "'").c_str()), 0);
    std::string xfs = image("xfs clean.img", "mkfs.xfs -q -f", 300);
    std::string xbad = image("xfs bad.img", "mkfs.xfs -q -f", 300);
    ASSERT_EQ(system(("xfs_db -x -c 'inode 128' -c 'write -d core.nlinkv2 0' '" + xbad + "' > /dev/null 2>&1")
                         .c_str()),
              0);
    std::string reiser = image("reiser clean.img", "mkreiserfs -f -q", 64);

    struct {
        std::string dev;
        const char* fstype;
        const char* opt;
        int ret;
        const char* status_prefix;  // "" = untouched
    } cases[] = {
        {ext4, "ext4", "-f -n", 0, ""},
        {bad, "ext4", "-f -n", 13, "Command failed. (fsck, ret="},
        {bad2, "ext4", "-f -y", 0, ""},  // errors corrected: exit 1 is clean
        {xfs, "xfs", "-n", 0, ""},
        {xbad, "xfs", "-n", 13, "Command failed. (xfs_repair, ret=1)"},
        {reiser, "reiserfs", "--check", 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dev + " " + c.opt);
        shmbuf[0] = '\0';
        ZOR_FSCK f = fsck_record(c.opt);
        EXPECT_EQ(cmd_fsck(&f, c.dev.c_str(), c.fstype), c.ret);
        EXPECT_EQ(std::string(shmbuf).rfind(c.status_prefix, 0), 0u) << shmbuf;
        if (c.ret == 0) {
            EXPECT_TRUE(has_event(std::string("ZOR-11: file system is clean. (command=") +
                                  (strcmp(c.fstype, "xfs") == 0        ? "xfs_repair"
                                   : strcmp(c.fstype, "reiserfs") == 0 ? "reiserfsck"
                                                                       : "fsck") +
                                  ", device=" + c.dev + ")"));
        }
    }
    EXPECT_TRUE(has_event("ZOR-10: file system check started. (command=fsck, device=" + ext4 + ")"));
    EXPECT_TRUE(has_event("ZOR-12: command failed. (command=xfs_repair, device=" + xbad + ", exit code=1)"));
    // The checker's output went to the fsck log, not to the trace log.
    bool pass1 = false;
    for (const std::string& m : home_.messages("disk_fsck")) {
        pass1 = pass1 || m.rfind("Pass 1: Checking inodes", 0) == 0;
    }
    EXPECT_TRUE(pass1);
    for (const std::string& m : home_.messages("disk")) {
        EXPECT_NE(m.rfind("Pass 1: Checking inodes", 0), 0u);
    }
    EXPECT_EQ(traceinit_ex, 0);  // opened and closed by each run
}

TEST_F(FsckTest, ReiserfsSecondRunFollowsTheAllowedOption)
{
    std::string args = home_ / "args";
    std::string code = home_ / "code";
    // Exit code from a file on the first run; the repair runs succeed
    // (--fix-fixable with "errors corrected").
    std::string checker =
        script("fakereiserfsck", "echo \"$*\" >> '" + args +
                                     "'\n"
                                     "for a in \"$@\"; do case \"$a\" in\n"
                                     "--rebuild-tree) exit 0;; --fix-fixable) exit 1;; esac; done\n"
                                     "exit $(cat '" +
                                     code + "')");
    const char* dev = "/dev/fake dev";
    struct {
        int first;
        int rebuildopt;
        int fixopt;
        int ret;
        const char* second;  // args of the second run, null = none
        bool refused;        // event 13
    } cases[] = {
        {4, 1, 0, 0, "--rebuild-tree /dev/fake dev", false},
        {4, 0, 1, 13, nullptr, true},
        {6, 0, 1, 0, "--fix-fixable /dev/fake dev", false},
        {6, 1, 0, 13, nullptr, true},
        {8, 1, 1, 13, nullptr, false},
        {2, 1, 1, 13, nullptr, false},
        {1, 1, 1, 0, nullptr, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("exit " + std::to_string(c.first) + " rebuild " + std::to_string(c.rebuildopt) +
                     " fix " + std::to_string(c.fixopt));
        home_.write("code", std::to_string(c.first));
        home_.write("args", "");
        ZOR_FSCK f = fsck_record("-a");
        BCOPY(f.reiserpath, checker.c_str());
        f.rebuildopt = c.rebuildopt;
        f.fixopt = c.fixopt;
        EXPECT_EQ(cmd_fsck(&f, dev, "reiserfs"), c.ret);
        std::string expected =
            std::string("-a /dev/fake dev\n") + (c.second ? std::string(c.second) + "\n" : "");
        EXPECT_EQ(home_.read("args"), expected);
        const char* opt = c.first == 4 ? "--rebuild-tree" : "--fix-fixable";
        if (c.second != nullptr) {
            EXPECT_TRUE(has_event(std::string("ZOR-14: file system check started with an option. "
                                              "(command=fakereiserfsck, device=/dev/fake dev, option=") +
                                  opt + ")"));
        }
        if (c.refused) {
            EXPECT_TRUE(has_event(std::string("ZOR-13: reiserfs check needs an option that the configuration "
                                              "does not allow; check the file system by hand. "
                                              "(command=fakereiserfsck, device=/dev/fake dev, option=") +
                                  opt + ")"));
        }
    }
    // Other file systems never get a second run.
    home_.write("code", "4");
    home_.write("args", "");
    ZOR_FSCK f = fsck_record("-a");
    BCOPY(f.path, checker.c_str());
    f.rebuildopt = 1;
    EXPECT_EQ(cmd_fsck(&f, dev, "ext4"), 13);
    EXPECT_EQ(home_.read("args"), "-t ext4 -a /dev/fake dev\n");
}

TEST_F(FsckTest, ExitCodesSignalsAndNamesOfScriptedCheckers)
{
    const std::string longname = "a_checker_with_a_very_long_name_0123456789";
    struct {
        std::string name;
        const char* body;
        const char* fstype;
        int ret;
        std::string status;
    } cases[] = {
        {"fsck_one", "exit 1", "ext4", 0, ""},
        {"xfs_one", "exit 1", "xfs", 13, "Command failed. (xfs_one, ret=1)"},
        {"xfs_zero", "exit 0", "xfs", 0, ""},
        {"fsck_killed", "kill -9 $$", "ext4", 14, "Command failed. (pclose(fsck_killed), errno=0)"},
        {longname, "exit 5", "ext4", 13, "Command failed. (a_checker_with_a_very_long_name, ret=5)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        shmbuf[0] = '\0';
        ZOR_FSCK f = fsck_record("");
        std::string path = script(c.name, c.body);
        BCOPY(f.path, path.c_str());
        BCOPY(f.xfspath, path.c_str());
        EXPECT_EQ(cmd_fsck(&f, "/dev/sdz9", c.fstype), c.ret);
        EXPECT_EQ(std::string(shmbuf), c.status);
    }
}

TEST_F(FsckTest, OutputGoesToTheFsckLogWithPercentMasked)
{
    std::string checker = script("chatty", "printf 'progress 50%% %%\\n'\nprintf 'done 100%%'\nexit 0");
    ZOR_FSCK f = fsck_record("");
    BCOPY(f.path, checker.c_str());
    ASSERT_EQ(cmd_fsck(&f, "/dev/sdz9", "ext4"), 0);
    std::vector<std::string> lines = home_.messages("disk_fsck");
    std::vector<std::string> output;
    for (const std::string& m : lines) {
        if (m.rfind("progress", 0) == 0 || m.rfind("done", 0) == 0) {
            output.push_back(m);
        }
    }
    ASSERT_EQ(output.size(), 2u);
    EXPECT_EQ(output[0], "progress 50# # ");
    EXPECT_EQ(output[1], "done 100%");
}

TEST_F(FsckTest, TimeoutStopsTheCheckerAndLeavesTheTimeoutText)
{
    std::string checker = script("slowfsck", "trap '' TERM\nsleep 30");
    ZOR_FSCK f = fsck_record("", 1);
    BCOPY(f.path, checker.c_str());
    EXPECT_EQ(cmd_fsck(&f, "/dev/sdz9", "ext4"), 12);
    EXPECT_STREQ(shmbuf, "Command timeout. (slowfsck, timeout=1)");
    EXPECT_TRUE(home_.has_message("slowfsck : thread timeout."));
}

}  // namespace
