// The timed command runner against real shell commands: result codes, status
// texts, captured output and its trace, and time-outs that leave no process
// behind; and the storage commands built on it: the command lines they build
// (seen by recording scripts standing in for mount, umount, roset and ping),
// the mount lock around mount and unmount on every path, and mount-point
// creation.
#include "node_home.h"

#include "command_exec/proc_runner.h"
#include "command_exec/thread_wait.h"
#include "command_exec/zor_exec.h"
#include "storage_ops/zor_ops.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

pid_t read_pid(const std::string& file)
{
    long pid = 0;
    std::ifstream(file) >> pid;
    return static_cast<pid_t>(pid);
}

// True while pid is neither gone nor a zombie (an orphan waiting for its reaper is dead all the same).
bool alive(pid_t pid)
{
    char state = 'X';
    if (FILE* f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r")) {
        (void)!fscanf(f, "%*d (%*[^)]) %c", &state);
        fclose(f);
    }
    return state != 'X' && state != 'Z';
}

class RunnerTest : public AgentTest {
protected:
    int run(const char* name, const std::string& cmdline, int timeout, DISK_FUNC_INFO* finfo)
    {
        new_command(finfo, name, timeout);
        BCOPY(finfo->cmdline, cmdline.c_str());
        return cmd_thread(finfo);
    }
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

TEST_F(RunnerTest, ResultsOutputAndTrace)
{
    std::string forty;  // 40 lines, more than 1023 characters together
    std::vector<std::string> forty_traced;
    for (int i = 0; i < 40; i++) {
        forty += "line " + std::to_string(i) + ": abcdefghijklmnopqrstuvwxyz0123456789\n";
        forty_traced.push_back("line " + std::to_string(i) + ": abcdefghijklmnopqrstuvwxyz0123456789 ");
    }
    // mount takes the pipe route, roset/relpath the shell route, which leaves
    // cmdretval unfilled (the decoder's texts are tested on their own); the
    // log writes a newline as a blank.
    const struct {
        const char* name;
        std::string cmdline;
        int ret;
        int cmdretval;
        std::string status;  // "" = untouched
        std::string cmdret;
        std::vector<std::string> traced;
    } cases[] = {
        {"mount", "echo out; exit 3", 13, 3, "Command failed. (mount, ret=3)", "out\n", {"out "}},
        {"roset", "exit 1", 13, 0, "Command failed. (roset, ret=1)", "", {"roset : failed. (ret=1)"}},
        {"relpath", "exit 1", 0, 0, "", "", {"relpath : kill some process."}},
        {"roset", "kill -9 $$", 14, 0, "Command failed. (system(roset), errno=0)", "", {}},
        {"mount", "kill -TERM $$", 14, 0, "Command failed. (pclose(mount), errno=0)", "", {}},
        {"mount", "seq -f 'line %g: abcdefghijklmnopqrstuvwxyz0123456789' 0 39", 0, 0, "",
         forty.substr(0, 1023), forty_traced},
        // "%" is masked in the trace only, and not as the last character.
        {"mount", "printf '50%% done %%\\n'", 0, 0, "", "50% done %\n", {"50# done # "}},
        {"mount", "printf '100%%'", 0, 0, "", "100%", {"100%"}},
    };
    for (const auto& [name, cmdline, ret, cmdretval, status, cmdret, traced] : cases) {
        SCOPED_TRACE(std::string(name) + ": " + cmdline);
        shmbuf[0] = '\0';
        DISK_FUNC_INFO finfo;
        const int got = run(name, cmdline, 10, &finfo);
        EXPECT_EQ(std::tuple(got, finfo.cmdretval, std::string(shmbuf), std::string(finfo.cmdret)),
                  std::tuple(ret, cmdretval, status, cmdret));
        for (const std::string& t : traced) {
            EXPECT_TRUE(home_.has_message(t)) << t;
        }
    }
}

TEST_F(RunnerTest, TimeoutLeavesNoProcessBehind)
{
    for (auto [name, timeout] : {std::pair{"mount", 0}, {"mount", 1}, {"roset", 1}}) {
        SCOPED_TRACE(std::string(name) + " timeout " + std::to_string(timeout));
        const std::string cpid = home_ / "child.pid", gpid = home_ / "grandchild.pid",
                          spid = home_ / "session.pid";
        for (const std::string& file : {cpid, gpid, spid}) {
            unlink(file.c_str());
        }
        // Both ignore SIGTERM; the grandchild would outlive a kill of the child alone, and the one in
        // a session of its own (a daemon) a kill of the child's process group.
        std::string cmd = "trap '' TERM; echo $$ > '" + cpid + "'; sh -c 'echo $$ > \"" + gpid +
                          "\"; exec sleep 30' & setsid sh -c 'echo $$ > \"" + spid +
                          "\"; exec sleep 30' & echo started; wait";
        shmbuf[0] = '\0';
        DISK_FUNC_INFO finfo;
        auto t0 = Clock::now();
        EXPECT_EQ(run(name, cmd, timeout, &finfo), 12);
        double took = seconds_since(t0);
        EXPECT_EQ(shmbuf,
                  "Command timeout. (" + std::string(name) + ", timeout=" + std::to_string(timeout) + ")");
        EXPECT_GE(took, timeout - 0.02);
        EXPECT_LT(took, timeout + 1.0);
        if (timeout > 0) {
            ASSERT_GT(read_pid(gpid), 0) << "the command did not get to start its grandchild";
            ASSERT_GT(read_pid(spid), 0) << "the command did not get to start its daemon";
        }
        for (pid_t pid : {read_pid(cpid), read_pid(gpid), read_pid(spid)}) {
            for (int i = 0; i < 200 && pid > 0 && alive(pid); i++) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            if (pid > 0 && alive(pid)) {
                ADD_FAILURE() << pid << " survived";
                kill(pid, SIGKILL);
            }
        }
    }
    EXPECT_TRUE(home_.has_message("mount : thread timeout."));
}

// A worker held outside the runner's waits (a system call on a dead file server) is given up after a
// short grace: the caller returns, and what the worker does later reaches neither the caller's
// descriptor (gone with the caller's stack) nor the status text nor the wait of the next run.
TEST_F(RunnerTest, StuckWorkerIsLeftBehindWithinAGrace)
{
    struct Desc {
        int fd;
        int ret;
        char text[16];
    };
    static std::atomic<int> finished{0};
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    auto stuck = [](void* arg) -> void* {
        Desc* d = static_cast<Desc*>(arg);
        char c;
        (void)!read(d->fd, &c, 1);  // deaf to the stop request
        d->ret = 99;
        BCOPY(d->text, "late");
        setshmbuf("late text");
        trace(TR_ERROR, ZOR_SRC, "late trace");
        thend_signal();
        finished = 1;
        return nullptr;
    };
    Desc desc{fds[0], 7, "caller"};
    auto t0 = Clock::now();
    EXPECT_EQ(thend_run(+stuck, &desc, "stuck", 1, "stuck", 0, nullptr, ZOR_SRC), ZW_TIMEOUT);
    double took = seconds_since(t0);
    EXPECT_GE(took, 1.0 - 0.02);
    EXPECT_LT(took, 1.0 + ZW_JOIN_GRACE_MS / 1000.0 + 0.3);
    EXPECT_TRUE(home_.has_message("stuck : worker did not end, left behind."));

    // The next run starts while the old worker still hangs; the old one wakes and ends meanwhile.
    setshmbuf("after");
    std::thread waker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        (void)!write(fds[1], "x", 1);
    });
    DISK_FUNC_INFO finfo;
    t0 = Clock::now();
    EXPECT_EQ(run("mount", "sleep 1; echo done", 10, &finfo), 0);
    EXPECT_GE(seconds_since(t0), 0.98);
    EXPECT_STREQ(finfo.cmdret, "done\n");
    waker.join();
    for (int i = 0; i < 500 && !finished; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(finished);
    EXPECT_EQ(
        std::tuple(desc.ret, std::string(desc.text), std::string(shmbuf), home_.has_message("late trace")),
        std::tuple(7, "caller", "after", false));
    close(fds[0]);
    close(fds[1]);
}

// The child: /dev/null as stdin, no blocked signal, none of the agent's descriptors.
// A helper it leaves running with the output pipe open (a FUSE mount's ssh) does not hold the run.
TEST_F(RunnerTest, ChildEnvironmentAndALingeringDescendant)
{
    const int leak = open("/dev/null", O_RDONLY);  // inheritable
    const std::string pidfile = home_ / "bg.pid";
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    DISK_FUNC_INFO finfo;
    auto t0 = Clock::now();
    int ret = run("mount",
                  "sleep 20 & echo $! > '" + pidfile + "'; [ -e /proc/self/fd/" + std::to_string(leak) +
                      " ] && echo leaked; readlink /proc/self/fd/0; grep '^SigBlk' /proc/self/status",
                  10, &finfo);
    double took = seconds_since(t0);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    close(leak);
    pid_t bg = read_pid(pidfile);
    if (bg > 0) {
        kill(bg, SIGKILL);
    }
    EXPECT_EQ(std::tuple(bg > 0, ret, std::string(finfo.cmdret), took < 5.0),
              std::tuple(true, 0, "/dev/null\nSigBlk:\t0000000000000000\n", true));
}

TEST_F(RunnerTest, MissingCommandFilesAreRefusedBeforeRunning)
{
    ZOR_ROSET roset = {};
    BCOPY(roset.path, "/nonexistent/zorroset");
    ZOR_RELPATH relpath = {};
    BCOPY(relpath.path, "/nonexistent/zorrelpath");
    // lvm skips the switch, but only after the path test.
    EXPECT_EQ(cmd_roset(&roset, "/dev/null", "lvm", ROSET_RW), 11);
    EXPECT_STREQ(shmbuf, "Command path was invalid. (/nonexistent/zorroset)");
    EXPECT_EQ(cmd_relpath(&relpath, "/mnt/x"), 11);
    EXPECT_STREQ(shmbuf, "Command path was invalid. (/nonexistent/zorrelpath)");
    EXPECT_TRUE(home_.has_message("invalid cmdpath. /nonexistent/zorroset (errno=2)"));
}

// A stop request left over from a time-out refuses a new spawn.
TEST(ProcRunner, StopRequestBlocksSpawn)
{
    zproc_stop_reset();
    zproc_stop();
    ZPROC p;
    int err = 0;
    EXPECT_EQ(std::pair(zproc_spawn(&p, "exit 0", 1, &err), err), std::pair(-1, ECANCELED));
    zproc_stop_reset();
}

// mount and umount: their command lines, and the mount lock held for the command and left on every path.
TEST_F(RunnerTest, MountAndUnmountUnderTheLock)
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
TEST_F(RunnerTest, RosetAndShareCommandLines)
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
TEST_F(RunnerTest, MakeMountPoint)
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
