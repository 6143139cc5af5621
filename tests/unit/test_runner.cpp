// The timed command runner against real shell commands: result codes, status
// texts, captured output and its trace, and time-outs that leave no process
// behind.
#include "node_home.h"

#include "bounded.h"
#include "command_exec/proc_runner.h"
#include "command_exec/thread_wait.h"
#include "command_exec/zor_exec.h"
#include "disk.h"
#include "storage_ops/zor_ops.h"
#include "tracersc.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/wait.h>
#include <pthread.h>
#include <string>
#include <thread>

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// True once pid is gone or a zombie (a reaped orphan disappears; one that
// waits for a reaper is dead all the same).
bool process_gone(pid_t pid, double within_s = 2.0)
{
    auto t0 = std::chrono::steady_clock::now();
    do {
        std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
        std::string stat;
        if (!std::getline(in, stat)) {
            return true;
        }
        size_t close = stat.rfind(')');
        if (close != std::string::npos && close + 2 < stat.size() &&
            (stat[close + 2] == 'Z' || stat[close + 2] == 'X')) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (seconds_since(t0) < within_s);
    return false;
}

pid_t read_pid(const std::string& file)
{
    std::ifstream in(file);
    long pid = 0;
    in >> pid;
    return static_cast<pid_t>(pid);
}

class RunnerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        BCOPY(type, "disk");
        traceopen("disk", 8, 0, nullptr);
        shmbuf[0] = '\0';
    }
    void TearDown() override { traceclose(); }

    // Messages of the trace log so far (the log writes a newline as a blank).
    std::vector<std::string> messages() const { return home_.messages("disk"); }
    bool logged(const std::string& msg) const { return home_.has_message(msg, "disk"); }

    int run(const char* name, const std::string& cmdline, int timeout, DISK_FUNC_INFO* out = nullptr)
    {
        DISK_FUNC_INFO finfo;
        memset(&finfo, 0, sizeof(finfo));
        BCOPY(finfo.cmdname, name);
        BCOPY(finfo.cmdline, cmdline.c_str());
        finfo.timeout = timeout;
        int ret = cmd_thread(&finfo);
        if (out != nullptr) {
            *out = finfo;
        }
        return ret;
    }

    NodeHome home_;
};

struct ExitCase {
    const char* name;
    const char* cmdline;
    int ret;
    int cmdretval;
    const char* status;  // status text, "" = untouched
};

TEST_F(RunnerTest, ExitStatusesMapToResultCodes)
{
    const ExitCase cases[] = {
        {"mount", "exit 0", 0, 0, ""},
        {"mount", "echo out; exit 3", 13, 3, "Command failed. (mount, ret=3)"},
        {"umount", "exit 255", 13, 255, "Command failed. (umount, ret=255)"},
        // The shell route never fills cmdretval.
        {"roset", "exit 0", 0, 0, ""},
        {"roset", "exit 1", 13, 0, "Command failed. (roset, ret=1)"},
        {"relpath", "exit 1", 0, 0, ""},
        {"relpath", "exit 2", 13, 0, "Command failed. (relpath, ret=2)"},
        // A command path that does not exist: the shell answers 127.
        {"mount", "exec \"/nonexistent/mount\" 2>&1", 13, 127, "Command failed. (mount, ret=127)"},
        // Ended by a signal.
        {"roset", "kill -9 $$", 14, 0, "Command failed. (system(roset), errno=0)"},
        {"mount", "kill -TERM $$", 14, 0, "Command failed. (pclose(mount), errno=0)"},
    };
    for (const ExitCase& c : cases) {
        SCOPED_TRACE(std::string(c.name) + ": " + c.cmdline);
        shmbuf[0] = '\0';
        DISK_FUNC_INFO finfo;
        EXPECT_EQ(run(c.name, c.cmdline, 10, &finfo), c.ret);
        EXPECT_EQ(finfo.cmdretval, c.cmdretval);
        EXPECT_STREQ(shmbuf, c.status);
    }
    EXPECT_TRUE(logged("relpath : kill some process."));
    EXPECT_TRUE(logged("roset : failed. (ret=1)"));
}

TEST_F(RunnerTest, OutputBeyondTheBufferIsCutInCmdretButFullyTraced)
{
    std::string expected;
    for (int i = 0; i < 40; i++) {
        expected += "line " + std::to_string(i) + ": abcdefghijklmnopqrstuvwxyz0123456789\n";
    }
    ASSERT_GT(expected.size(), 1023u);
    DISK_FUNC_INFO finfo;
    ASSERT_EQ(run("mount",
                  "i=0; while [ $i -lt 40 ]; do echo \"line $i: abcdefghijklmnopqrstuvwxyz0123456789\"; "
                  "i=$((i+1)); done",
                  10, &finfo),
              0);
    EXPECT_EQ(std::string(finfo.cmdret), expected.substr(0, 1023));
    for (int i = 0; i < 40; i++) {
        EXPECT_TRUE(logged("line " + std::to_string(i) + ": abcdefghijklmnopqrstuvwxyz0123456789 "))
            << "line " << i << " not traced";
    }
}

TEST_F(RunnerTest, LongLineArrivesInPiecesOf1022)
{
    // 2500 characters without a newline, then one.
    DISK_FUNC_INFO finfo;
    ASSERT_EQ(run("mount", "head -c 2500 /dev/zero | tr '\\0' x; echo", 10, &finfo), 0);
    EXPECT_EQ(std::string(finfo.cmdret), std::string(1023, 'x'));
    std::vector<std::string> pieces;
    for (const std::string& m : messages()) {
        if (!m.empty() && m[0] == 'x') {
            pieces.push_back(m);
        }
    }
    ASSERT_EQ(pieces.size(), 3u);
    EXPECT_EQ(pieces[0], std::string(1022, 'x'));
    EXPECT_EQ(pieces[1], std::string(1022, 'x'));
    EXPECT_EQ(pieces[2], std::string(456, 'x') + " ");
}

TEST_F(RunnerTest, PercentIsMaskedInTheTraceOnlyAndNotInItsLastCharacter)
{
    struct {
        const char* cmdline;
        const char* cmdret;
        const char* traced;
    } cases[] = {
        {"printf '50%% done %%\\n'", "50% done %\n", "50# done # "},
        {"printf '100%%'", "100%", "100%"},
        {"printf '%%s %%d\\n'", "%s %d\n", "#s #d "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmdline);
        DISK_FUNC_INFO finfo;
        ASSERT_EQ(run("mount", c.cmdline, 10, &finfo), 0);
        EXPECT_STREQ(finfo.cmdret, c.cmdret);
        EXPECT_TRUE(logged(c.traced));
    }
}

TEST_F(RunnerTest, ChildGetsNullStdinDefaultSignalsAndNoInheritedDescriptors)
{
    // An inheritable descriptor of the agent, a blocked and an ignored signal.
    int leak = open("/dev/null", O_RDONLY);
    ASSERT_GE(leak, 3);
    sigset_t block;
    sigset_t old;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    struct sigaction ign = {};
    struct sigaction oldact = {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGUSR2, &ign, &oldact);

    DISK_FUNC_INFO finfo;
    std::string cmd =
        "[ -e /proc/self/fd/" + std::to_string(leak) +
        " ] && echo leaked; readlink /proc/self/fd/0; exec grep -E '^Sig(Blk|Ign)' /proc/self/status";
    int ret = run("mount", cmd, 10, &finfo);

    sigaction(SIGUSR2, &oldact, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    close(leak);

    ASSERT_EQ(ret, 0);
    unsigned long long blk = ~0ULL;
    unsigned long long ignored = ~0ULL;
    char fd0[64] = "";
    ASSERT_EQ(sscanf(finfo.cmdret, "%63s\nSigBlk:\t%llx\nSigIgn:\t%llx", fd0, &blk, &ignored), 3)
        << finfo.cmdret;
    EXPECT_STREQ(fd0, "/dev/null");
    EXPECT_EQ(blk, 0u);
    // glibc leaves its two internal real-time signals (32, 33) ignored in
    // every spawned child, as system() and popen() do; the others are default.
    EXPECT_EQ(ignored & ~0x180000000ULL, 0u);
}

TEST_F(RunnerTest, DescendantHoldingThePipeDoesNotHoldTheRun)
{
    // A helper left running with the output pipe open (a FUSE mount's ssh).
    std::string pidfile = home_ / "bg.pid";
    DISK_FUNC_INFO finfo;
    auto t0 = std::chrono::steady_clock::now();
    int ret = run("mount", "sleep 20 & echo $! > '" + pidfile + "'; echo mounted", 10, &finfo);
    double took = seconds_since(t0);
    pid_t bg = read_pid(pidfile);
    if (bg > 0) {
        kill(bg, SIGKILL);
    }
    EXPECT_EQ(ret, 0);
    EXPECT_STREQ(finfo.cmdret, "mounted\n");
    EXPECT_LT(took, 5.0);
    EXPECT_GT(bg, 0);
}

struct TimeoutCase {
    const char* name;  // "mount": pipe route, "roset": shell route
    int timeout;
};

TEST_F(RunnerTest, TimeoutKillsTheWholeProcessGroup)
{
    const TimeoutCase cases[] = {{"mount", 0}, {"mount", -3}, {"mount", 1}, {"roset", 1}, {"umount", 2}};
    for (const TimeoutCase& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " timeout " + std::to_string(c.timeout));
        std::string cpid = home_ / "child.pid";
        std::string gpid = home_ / "grandchild.pid";
        unlink(cpid.c_str());
        unlink(gpid.c_str());
        // Both ignore SIGTERM; the grandchild would outlive a kill of the child alone.
        std::string cmd = "trap '' TERM; echo $$ > '" + cpid + "'; sh -c 'echo $$ > \"" + gpid +
                          "\"; exec sleep 30' & echo started; wait";
        shmbuf[0] = '\0';
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(run(c.name, cmd, c.timeout), 12);
        double took = seconds_since(t0);
        char want[128];
        snprintf(want, sizeof(want), "Command timeout. (%s, timeout=%d)", c.name, c.timeout);
        EXPECT_STREQ(shmbuf, want);
        double limit = c.timeout > 0 ? c.timeout : 0;
        EXPECT_GE(took, limit - 0.02);
        EXPECT_LT(took, limit + 1.0);
        if (c.timeout > 0) {
            ASSERT_GT(read_pid(gpid), 0) << "the command did not get to start its grandchild";
        }
        for (const std::string& f : {cpid, gpid}) {
            pid_t pid = read_pid(f);
            if (pid > 0) {
                EXPECT_TRUE(process_gone(pid)) << f << " " << pid << " survived";
                if (!process_gone(pid, 0)) {
                    kill(pid, SIGKILL);
                }
            }
        }
    }
    EXPECT_TRUE(logged("mount : thread timeout."));
    EXPECT_TRUE(logged("thread end time:1.000000") || logged("  thread end time:1.000000"));
}

TEST_F(RunnerTest, MissingCommandFilesAreRefusedBeforeRunning)
{
    ZOR_ROSET roset = {};
    BCOPY(roset.path, "/nonexistent/zorroset");
    roset.to = 5;
    ZOR_RELPATH relpath = {};
    BCOPY(relpath.path, "/nonexistent/zorrelpath");
    relpath.to = 5;
    // lvm skips the switch, but only after the path test.
    EXPECT_EQ(cmd_roset(&roset, "/dev/null", "lvm", ROSET_RW), 11);
    EXPECT_STREQ(shmbuf, "Command path was invalid. (/nonexistent/zorroset)");
    EXPECT_EQ(cmd_relpath(&relpath, "/mnt/x"), 11);
    EXPECT_STREQ(shmbuf, "Command path was invalid. (/nonexistent/zorrelpath)");
    EXPECT_TRUE(logged("invalid cmdpath. /nonexistent/zorroset (errno=2)"));
}

TEST(ThreadWait, SlicesAreCountedLikeAPoll)
{
    struct {
        int timeout;
        int signal_after_ms;  // -1: before the wait
        long long limit;
        bool in_time;
    } cases[] = {
        {0, -1, 0, false},  // no poll at all
        {-5, -1, 0, false},
        {1, -1, 100, true},  // already ended: counted 0
        {1, 300, 100, true},
        {1, 1100, 100, false},                   // ended after the limit
        {2147483647, -1, 214748364700LL, true},  // no overflow
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.timeout) + "/" + std::to_string(c.signal_after_ms));
        thend_reset();
        std::thread worker;
        if (c.signal_after_ms < 0) {
            thend_signal();
        } else {
            worker = std::thread([ms = c.signal_after_ms] {
                std::this_thread::sleep_for(std::chrono::milliseconds(ms));
                thend_signal();
            });
        }
        long long limit = -1;
        auto t0 = std::chrono::steady_clock::now();
        long long counted = thend_wait(c.timeout, &limit);
        double took = seconds_since(t0);
        if (worker.joinable()) {
            worker.join();
        }
        EXPECT_EQ(limit, c.limit);
        EXPECT_EQ(counted < limit, c.in_time);
        if (c.signal_after_ms < 0) {
            EXPECT_EQ(counted, 0);
        } else if (c.in_time) {
            // Woken at the end, not at the next 10 ms boundary or later.
            EXPECT_GE(counted, c.signal_after_ms / 10);
            EXPECT_LE(counted, c.signal_after_ms / 10 + 5);
            EXPECT_LT(took, c.signal_after_ms / 1000.0 + 0.05);
        } else {
            EXPECT_EQ(counted, limit);
            EXPECT_LT(took, c.timeout + 0.05);
        }
    }
}

TEST(ProcRunner, SystemRunsSynchronouslyAndReportsWaitStatus)
{
    struct {
        const char* cmdline;
        int code;
    } cases[] = {{"exit 0", 0}, {"exit 7", 7}, {"true | false", 1}};
    // A stop request left over from an earlier time-out must not touch it.
    zproc_stop();
    for (const auto& c : cases) {
        int err = -1;
        int st = zproc_system(c.cmdline, &err);
        ASSERT_TRUE(WIFEXITED(st)) << c.cmdline;
        EXPECT_EQ(WEXITSTATUS(st), c.code) << c.cmdline;
    }
    zproc_stop_reset();
}

TEST(ProcRunner, StopBeforeSpawnStartsNothing)
{
    zproc_stop_reset();
    zproc_stop();
    ZPROC p;
    int err = 0;
    EXPECT_EQ(zproc_spawn(&p, "exit 0", 1, &err), -1);
    EXPECT_EQ(err, ECANCELED);
    zproc_stop_reset();
    ASSERT_EQ(zproc_spawn(&p, "echo hi", 1, &err), 0);
    char buf[16];
    EXPECT_EQ(zproc_gets(&p, buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "hi\n");
    EXPECT_EQ(zproc_gets(&p, buf, sizeof(buf)), 0);
    int st = -1;
    EXPECT_EQ(zproc_wait(&p, &st), 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    zproc_abandon(&p);
}

}  // namespace
