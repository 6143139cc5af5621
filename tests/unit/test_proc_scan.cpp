// The walk over /proc, and the search for a running unmount built on it.
//
// The processes are this test binary re-executed with a chosen argv: it only
// idles until the test kills it, so no real unmount (or any other command)
// runs and nothing outside the test is touched.
#include "test_support.h"

#include "command_exec/proc_scan.h"
#include "flows/zor_flows.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace {

const char* const kIdleEnv = "ZOR_TEST_IDLE_CHILD";

// Runs before gtest's main: a re-executed copy idles until it is killed.
const bool idle_child = [] {
    while (getenv(kIdleEnv) != nullptr) {
        pause();
    }
    return false;
}();

struct Walk {
    pid_t stop_at = -1;
    std::vector<pid_t> seen;
};

int visit(void* arg, int, const char* name)
{
    Walk* w = static_cast<Walk*>(arg);
    w->seen.push_back(static_cast<pid_t>(atoi(name)));
    return w->seen.back() == w->stop_at ? 1 : 0;
}

// A small entry buffer makes the walk read the directory again between
// processes, as a walk over thousands of processes does: every process is
// visited once, and a visitor that has its answer ends the walk.
TEST(ProcScan, ReadsTheListInBatchesAndStopsAtTheAnswer)
{
    alignas(8) char buf[96];  // two or three entries per read of the directory
    Walk all;
    ASSERT_EQ(proc_scan_buf(visit, &all, buf, sizeof(buf)), 0);
    std::vector<pid_t> sorted = all.seen;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "a process visited twice";
    EXPECT_EQ(std::count(all.seen.begin(), all.seen.end(), getpid()), 1);

    Walk first;
    first.stop_at = 1;  // the first process in /proc; more entries are left to read after it
    ASSERT_EQ(proc_scan_buf(visit, &first, buf, sizeof(buf)), 0);
    EXPECT_EQ(first.seen, std::vector<pid_t>{1});
}

// IsUmountRunning matches a process whose command line is exactly "umount"
// and the mount point, and nothing that merely looks like it.
TEST(UmountRunning, MatchesOnlyTheExactCommandLine)
{
    TempDir dir;
    const std::string p = dir / "mnt point";  // a blank inside the point is one argument
    // (name, argv (empty: no such process at all), match)
    const std::tuple<const char*, std::vector<std::string>, bool> cases[] = {
        {"exact", {"umount", p}, true},
        {"full path", {"/bin/umount", p}, false},
        {"option before the point", {"umount", "-l", p}, false},
        {"option after the point", {"umount", p, "-l"}, false},
        {"trailing slash", {"umount", p + "/"}, false},
        {"parent point", {"umount", dir.path()}, false},
        {"mount, not umount", {"mount", p}, false},
        {"no process", {}, false},
    };
    std::string idle = std::string(kIdleEnv) + "=1";
    char* env[] = {idle.data(), nullptr};
    for (auto [name, argv, match] : cases) {
        SCOPED_TRACE(name);
        pid_t pid = -1;
        if (!argv.empty()) {
            EXPECT_EQ(posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv_of(argv).data(), env), 0);
            // posix_spawn returns once the exec has begun, before the kernel has set the new command line.
            const std::string cmdline = "/proc/" + std::to_string(pid) + "/cmdline";
            for (int ms = 0; std::ifstream(cmdline).peek() == EOF && ms < 10000; ms++) {
                usleep(1000);
            }
        }
        bool result = !match;  // a stale value must not survive
        EXPECT_TRUE(IsUmountRunning(p.c_str(), &result));
        EXPECT_EQ(result, match);
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
}

}  // namespace
