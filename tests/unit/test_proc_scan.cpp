// The walk over /proc while processes come and go: one that ends during the
// walk is skipped without ending the walk, one that starts during it is seen
// once the walk reaches it, and no process is visited twice. A small entry
// buffer makes the walk read the directory again between processes, as a
// walk over thousands of processes does.
#include "test_support.h"

#include "command_exec/proc_scan.h"

#include <sys/wait.h>
#include <csignal>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

pid_t idle_child()
{
    pid_t pid = fork();
    if (pid == 0) {
        pause();
        _exit(0);
    }
    return pid;
}

void end_child(pid_t pid)
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

struct Walk {
    pid_t ends = -1;  // ended at the first visit
    bool ended = false;
    pid_t starts = -1;  // started at the first visit
    pid_t stop_at = -1;
    std::vector<pid_t> seen;
    std::vector<pid_t> unreadable;  // visited, but its cmdline could not be read
};

int visit(void* arg, int procfd, const char* name)
{
    Walk* w = static_cast<Walk*>(arg);
    pid_t pid = static_cast<pid_t>(atoi(name));
    if (!w->ended) {
        end_child(w->ends);
        w->ended = true;
        if (w->starts == 0) {
            w->starts = idle_child();
        }
    }
    w->seen.push_back(pid);
    char buf[64];
    if (proc_read(procfd, name, "cmdline", buf, sizeof(buf)) < 0) {
        w->unreadable.push_back(pid);
    }
    return pid == w->stop_at ? 1 : 0;
}

bool contains(const std::vector<pid_t>& v, pid_t pid)
{
    return std::find(v.begin(), v.end(), pid) != v.end();
}

TEST(ProcScan, ProcessesComingAndGoingDuringTheWalk)
{
    const pid_t stays = idle_child();
    Walk w;
    w.ends = idle_child();
    w.starts = 0;
    ASSERT_GT(stays, 0);
    ASSERT_GT(w.ends, 0);

    alignas(8) char buf[96];  // two or three entries per read of the directory
    int rc = proc_scan_buf(visit, &w, buf, sizeof(buf));
    end_child(w.starts);
    end_child(stays);
    if (!w.ended) {
        end_child(w.ends);  // the walk visited nothing
    }

    ASSERT_EQ(rc, 0);
    std::vector<pid_t> sorted = w.seen;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "a process visited twice";
    EXPECT_TRUE(contains(w.seen, getpid()));
    EXPECT_TRUE(contains(w.seen, stays));
    EXPECT_FALSE(contains(w.unreadable, stays));
    // Ended before the walk reached it: not visited.
    EXPECT_FALSE(contains(w.seen, w.ends));
    // Numbers rise unless they wrapped: then the walk must go on past the
    // ended process and reach the started one, whose number is above
    // everything read before it started.
    ASSERT_GT(w.starts, 0);
    if (stays < w.ends && w.ends < w.starts) {
        EXPECT_TRUE(contains(w.seen, w.starts));
    }
}

TEST(ProcScan, StopsWhenTheVisitorHasItsAnswer)
{
    Walk w;
    w.stop_at = getpid();
    ASSERT_EQ(proc_scan(visit, &w), 0);
    ASSERT_FALSE(w.seen.empty());
    EXPECT_EQ(w.seen.back(), getpid());
    EXPECT_EQ(std::count(w.seen.begin(), w.seen.end(), getpid()), 1);
}

}  // namespace
