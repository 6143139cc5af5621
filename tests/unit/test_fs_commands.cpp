// The storage commands: the command lines they build (seen by recording
// scripts standing in for mount, umount, roset and ping), the mount
// lock around mount and unmount on every path, and mount-point creation.
#include "node_home.h"

#include "storage_ops/zor_ops.h"

#include <sys/stat.h>
#include <atomic>
#include <barrier>
#include <string>
#include <thread>

namespace {

class FsCommandsTest : public AgentTest {
protected:
    void TearDown() override
    {
        if (semflag > 0) {
            disk_sem_detach();
        }
        AgentTest::TearDown();
    }

    // A stand-in command that records its arguments as "<arg>..." (one line per
    // run) and whether another process could take the mount lock while it ran.
    std::string recorder(const std::string& name, const std::string& tail = "exit 0") const
    {
        return home_.script(name, "printf '<%s>' \"$@\" >> '" + (home_ / "args") + "'\necho >> '" +
                                      (home_ / "args") + "'\nflock -n '" + (home_ / "run/mount.lock") +
                                      "' true; echo $? >> '" + (home_ / "lockprobe") + "'\n" + tail);
    }
};

// mount and umount: their command lines, and the mount lock held for the command and left on every path.
TEST_F(FsCommandsTest, MountAndUnmountUnderTheLock)
{
    ASSERT_EQ(disk_sem_attach(), 0);
    ASSERT_GT(semflag, 0) << "the mount lock could not be attached";
    const struct {
        const char* what;
        const char* tail;
        int timeout;
        int lock;
        const char* opt;
        int ret;
        int held;  // 1: another process could not take the lock during the command
        const char* args;
    } cases[] = {
        {"mount failed", "echo busy; exit 32", 10, 1, "ro,noatime", 13, 1,
         "<-t><ext4><-o><ro,noatime></dev/sdz9></mnt/my point>"},
        {"mount timed out", "trap '' TERM; sleep 30", 1, 1, "", 12, 1,
         "<-t><ext4></dev/sdz9></mnt/my point>"},
        {"mount unlocked", "exit 0", 10, 0, "", 0, 0, "<-t><ext4></dev/sdz9></mnt/my point>"},
        {"umount ok", "exit 0", 10, 1, "-l", 0, 1, "<-l></mnt/my point>"},
    };
    for (const auto& [what, tail, timeout, lock, opt, ret, held, args] : cases) {
        SCOPED_TRACE(what);
        int got;
        if (what[0] == 'm') {
            ZOR_MOUNT m = {};
            BCOPY(m.path, recorder("mount", tail).c_str());
            BCOPY(m.point, "/mnt/my point");
            BCOPY(m.opt, opt);
            m.to = timeout;
            m.lock = lock;
            got = cmd_mount(&m, "/dev/sdz9", "ext4");
        } else {
            ZOR_UMOUNT u = {};
            BCOPY(u.path, recorder("umount", tail).c_str());
            BCOPY(u.opt, opt);
            u.to = timeout;
            u.lock = lock;
            got = cmd_umount(&u, "/mnt/my point");
        }
        // The lock is left afterwards: taken by another process at once.
        const int free = system(("flock -n '" + (home_ / "run/mount.lock") + "' true").c_str());
        EXPECT_EQ(std::tuple(got, home_.drain("args"), home_.drain("lockprobe"), sementmoflag, free),
                  std::tuple(ret, args + std::string("\n"), std::to_string(held) + "\n", 0, 0));
    }
    EXPECT_TRUE(home_.has_message("ZOR-15: mount command timed out. (command=mount, device=/dev/sdz9)"));
    EXPECT_TRUE(home_.has_message("ZOR-12: command failed. (command=mount, device=/dev/sdz9, exit code=32)"));
}

// roset by disk type and switch; a share's ping and mount, the share one word "server:share".
TEST_F(FsCommandsTest, RosetAndShareCommandLines)
{
    ZOR_ROSET r = {};
    BCOPY(r.path, recorder("roset").c_str());
    r.to = 10;
    const std::tuple<const char*, int, int, const char*> roset_cases[] = {
        // clang-format off
        {"disk", ROSET_RW, 0, "<-w><-d></dev/sdz9>\n"}, {"disk", ROSET_RO, 0, "<-o><-d></dev/sdz9>\n"},
        {"lvm", ROSET_RO, 0, ""}, {"disk", 2, 64, ""}, {"vxvm", ROSET_RW, 64, ""},
        // clang-format on
    };
    for (const auto& [disktype, roflag, ret, args] : roset_cases) {
        SCOPED_TRACE(std::string(disktype) + " " + std::to_string(roflag));
        shmbuf[0] = '\0';
        EXPECT_EQ(cmd_roset(&r, "/dev/sdz9", disktype, roflag), ret);
        EXPECT_EQ(home_.drain("args"), args);
        EXPECT_STREQ(shmbuf, ret == 64 ? "Internal error. (status=64)" : "");
    }

    ZOR_NAS_PARAM nas = {};
    BCOPY(nas.server, "filer1");
    BCOPY(nas.share, "/export/my data");
    BCOPY(nas.fstype, "nfs");
    nas.pingto = 3;
    BCOPY(nas.pingpath, recorder("ping").c_str());
    BCOPY(nas.mount.path, recorder("mount").c_str());
    BCOPY(nas.mount.point, "/mnt/n");
    BCOPY(nas.mount.opt, "vers=4");
    nas.mount.to = 10;
    EXPECT_EQ(ping_nas(&nas), 0);
    EXPECT_EQ(mount_nas(&nas), 0);
    EXPECT_EQ(home_.drain("args"),
              "<-c><3><filer1>\n<-t><nfs><-o><vers=4><filer1:/export/my data></mnt/n>\n");
    // ping runs under a limit: its requests and its wait for a late reply, with a margin.
    EXPECT_TRUE(home_.has_message("  thread start timeout:18"));
}

// zormkdir: parents created, trailing slashes stripped in the caller's string, any existing file accepted.
TEST_F(FsCommandsTest, MakeMountPoint)
{
    home_.write("afile", "x");
    // (path, ret, the caller's string afterwards, whether a directory exists there afterwards)
    const std::tuple<std::string, int, std::string, bool> cases[] = {
        {home_ / "a/b///", 0, home_ / "a/b", true},
        {home_ / "afile", 0, home_ / "afile", false},
        {home_ / "afile/sub", -1, home_ / "afile/sub", false},
        {"/", 0, "/", true},
    };
    for (const auto& [path, ret, after, dir] : cases) {
        char buf[1024];
        BCOPY(buf, path.c_str());
        EXPECT_EQ(zormkdir(buf), ret) << path;
        EXPECT_EQ(buf, after);
        EXPECT_EQ(std::filesystem::is_directory(after), dir) << path;
    }
}

// Two activations creating points under one new parent at once: neither may fail because the other
// made a parent between its look and its own creation.
TEST(MountPointRace, SiblingsUnderOneNewParent)
{
    TempDir dir;
    constexpr int kRounds = 100;
    std::barrier start(2);
    std::atomic<int> failures{0};
    auto creator = [&](const char* leaf) {
        for (int i = 0; i < kRounds; i++) {
            char path[1024];
            BPRINTF(path, "%s/r%d/p/q/%s", dir.path().c_str(), i, leaf);
            start.arrive_and_wait();
            failures += zormkdir(path) != 0 ? 1 : 0;
        }
    };
    {
        std::jthread a(creator, "a"), b(creator, "b");
    }
    EXPECT_EQ(failures.load(), 0) << "of " << 2 * kRounds << " creations";
}

}  // namespace
