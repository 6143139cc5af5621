// IsUmountRunning matches a process whose command line is exactly "umount"
// and the mount point, and nothing that merely looks like it.
//
// The look-alike processes are this test binary re-executed with a chosen
// argv: it only waits for its standard input to close, so no real unmount
// (or any other command) runs and nothing outside the test is touched.
#include "test_support.h"

#include "flows/zor_flows.h"

#include <fcntl.h>
#include <sys/wait.h>

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

// A process of this binary with the given argv, alive until the object goes.
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
        if (feed_ >= 0) {
            close(feed_);
        }
        if (pid_ > 0) {
            waitpid(pid_, nullptr, 0);
        }
    }
    LookAlike(const LookAlike&) = delete;
    LookAlike& operator=(const LookAlike&) = delete;
    bool ready_ = false;

private:
    pid_t pid_ = -1;
    int feed_ = -1;
};

TEST(UmountRunning, MatchesOnlyTheExactCommandLine)
{
    TempDir dir;
    const std::string p = dir / "mnt point";  // a blank inside the point is one argument
    const struct {
        const char* name;
        std::vector<std::string> argv;  // empty: no such process at all
        bool match;
    } cases[] = {
        {"exact", {"umount", p}, true},
        {"full path", {"/bin/umount", p}, false},
        {"option before the point", {"umount", "-l", p}, false},
        {"option after the point", {"umount", p, "-l"}, false},
        {"other point", {"umount", p + "2"}, false},
        {"trailing slash", {"umount", p + "/"}, false},
        {"parent point", {"umount", dir.path()}, false},
        {"mount, not umount", {"mount", p}, false},
        {"no process", {}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LookAlike proc(c.argv);
        ASSERT_EQ(proc.ready_, !c.argv.empty());
        bool result = !c.match;  // a stale value must not survive
        ASSERT_TRUE(IsUmountRunning(p.c_str(), &result));
        EXPECT_EQ(result, c.match);
    }
}

}  // namespace
