// The walk over /proc while processes come and go, and the search for a
// running unmount built on it.
//
// The processes are this test binary re-executed with a chosen argv: it only
// waits for its standard input to close, so no real unmount (or any other
// command) runs and nothing outside the test is touched.
#include "test_support.h"

#include "command_exec/proc_scan.h"
#include "flows/zor_flows.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

const char* const kIdleEnv = "ZOR_TEST_IDLE_CHILD";

// Runs before gtest's main: a re-executed copy reports on stdout that it is
// ready, then idles until its stdin closes.
const bool idle_child = [] {
    if (getenv(kIdleEnv) != nullptr) {
        char c = 'r';
        if (write(1, &c, 1) == 1) {
            while (read(0, &c, 1) > 0) {
            }
        }
        _exit(0);
    }
    return false;
}();

// A process of this binary with the given argv, alive until end() or the object goes.
class LookAlike {
public:
    explicit LookAlike(std::vector<std::string> args)
    {
        int in[2], out[2];
        if (args.empty() || pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            setenv(kIdleEnv, "1", 1);
            execv("/proc/self/exe", argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        feed_ = in[1];
        char c;
        ready_ = pid_ > 0 && read(out[0], &c, 1) == 1;  // EOF: the exec failed
        close(out[0]);
    }
    ~LookAlike()
    {
        end();
    }
    LookAlike(const LookAlike&) = delete;
    LookAlike& operator=(const LookAlike&) = delete;
    void end()
    {
        if (feed_ >= 0) {
            close(feed_);
            feed_ = -1;
            waitpid(pid_, nullptr, 0);
        }
    }
    bool ready_ = false;
    pid_t pid_ = -1;

private:
    int feed_ = -1;
};

struct Walk {
    LookAlike* ends = nullptr;         // if set, ended at the first visit,
    std::optional<LookAlike> started;  // and this one started then
    pid_t stop_at = -1;
    std::vector<pid_t> seen;
};

int visit(void* arg, int, const char* name)
{
    Walk* w = static_cast<Walk*>(arg);
    const pid_t pid = static_cast<pid_t>(atoi(name));
    if (w->seen.empty() && w->ends != nullptr) {
        w->ends->end();
        w->started.emplace(std::vector<std::string>{"idle"});
    }
    w->seen.push_back(pid);
    return pid == w->stop_at ? 1 : 0;
}

bool contains(const std::vector<pid_t>& v, pid_t pid)
{
    return std::find(v.begin(), v.end(), pid) != v.end();
}

// One that ends during the walk is skipped without ending the walk, one that
// starts during it is seen once the walk reaches it, and no process is visited
// twice. A small entry buffer makes the walk read the directory again between
// processes, as a walk over thousands of processes does.
TEST(ProcScan, ProcessesComingAndGoingDuringTheWalk)
{
    LookAlike stays({"idle"});
    LookAlike ends({"idle"});
    ASSERT_TRUE(stays.ready_ && ends.ready_);
    Walk w;
    w.ends = &ends;

    alignas(8) char buf[96];  // two or three entries per read of the directory
    ASSERT_EQ(proc_scan_buf(visit, &w, buf, sizeof(buf)), 0);
    ASSERT_TRUE(w.started.has_value() && w.started->ready_);

    std::vector<pid_t> sorted = w.seen;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "a process visited twice";
    // The one ended before the walk reached it is not visited.
    EXPECT_EQ(
        std::tuple(contains(w.seen, getpid()), contains(w.seen, stays.pid_), contains(w.seen, ends.pid_)),
        std::tuple(true, true, false));
    // Numbers rise unless they wrapped: then the walk must go on past the
    // ended process and reach the started one, whose number is above
    // everything read before it started.
    if (stays.pid_ < ends.pid_ && ends.pid_ < w.started->pid_) {
        EXPECT_TRUE(contains(w.seen, w.started->pid_));
    }
}

TEST(ProcScan, StopsWhenTheVisitorHasItsAnswer)
{
    Walk w;
    w.stop_at = 1;            // the first process in /proc
    alignas(8) char buf[96];  // more entries left to read after the answer
    ASSERT_EQ(proc_scan_buf(visit, &w, buf, sizeof(buf)), 0);
    EXPECT_EQ(w.seen, std::vector<pid_t>{1});
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
    for (const auto& [name, argv, match] : cases) {
        SCOPED_TRACE(name);
        LookAlike proc(argv);
        ASSERT_EQ(proc.ready_, !argv.empty());
        bool result = !match;  // a stale value must not survive
        ASSERT_TRUE(IsUmountRunning(p.c_str(), &result));
        EXPECT_EQ(result, match);
    }
}

}  // namespace
