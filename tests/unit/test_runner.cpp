// The timed command runner against real shell commands: result codes, status
// texts, captured output and its trace, and time-outs that leave no process
// behind.
#include "node_home.h"

#include "command_exec/proc_runner.h"
#include "command_exec/thread_wait.h"
#include "command_exec/zor_exec.h"
#include "storage_ops/zor_ops.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <chrono>
#include <csignal>
#include <fstream>
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
        {"mount",
         "i=0; while [ $i -lt 40 ]; do echo \"line $i: abcdefghijklmnopqrstuvwxyz0123456789\"; i=$((i+1)); "
         "done",
         0, 0, "", forty.substr(0, 1023), forty_traced},
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

}  // namespace
