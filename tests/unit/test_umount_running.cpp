// IsUmountRunning matches a process whose command line is exactly "umount"
// and the mount point, and nothing that merely looks like it.
//
// The look-alike processes are this test binary re-executed with a chosen
// argv: it only waits for its standard input to close, so no real unmount
// (or any other command) runs and nothing outside the test is touched.
#include "test_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "flows/zor_flows.h"

namespace {

const char* const kIdleEnv = "ZOR_TEST_IDLE_CHILD";

// Runs before gtest's main: a re-executed copy idles until its stdin closes.
struct IdleChild {
    IdleChild()
    {
        if (getenv(kIdleEnv) == nullptr)
            return;
        char c;
        while (read(0, &c, 1) != 0) {
        }
        _exit(0);
    }
} idle_child;

std::string read_cmdline(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A process of this binary with the given argv, alive until the object goes.
class LookAlike {
public:
    explicit LookAlike(const std::vector<std::string>& args)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return;
        std::string expect;
        for (const auto& a : args)
            expect += a + '\0';
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[0], 0);
            std::vector<char*> argv;
            for (const auto& a : args)
                argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            setenv(kIdleEnv, "1", 1);
            execv("/proc/self/exe", argv.data());
            _exit(127);
        }
        close(fds[0]);
        feed_ = fds[1];
        // Wait until the exec has replaced the forked copy's command line.
        for (int i = 0; i < 500 && pid_ > 0; i++) {
            if (read_cmdline(pid_) == expect) {
                ready_ = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~LookAlike()
    {
        if (feed_ >= 0)
            close(feed_);
        if (pid_ > 0) {
            if (!ready_)
                kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    LookAlike(const LookAlike&) = delete;
    LookAlike& operator=(const LookAlike&) = delete;
    bool ready() const { return ready_; }

private:
    pid_t pid_ = -1;
    int feed_ = -1;
    bool ready_ = false;
};

struct Case {
    const char* name;
    std::vector<std::string> argv;  // "@" stands for the mount point
    bool match;
};

class UmountRunning : public ::testing::TestWithParam<Case> {};

TEST_P(UmountRunning, MatchesOnlyTheExactCommandLine)
{
    TempDir dir;
    const std::string point = dir / "mnt point";  // a blank inside the point is one argument
    std::vector<std::string> argv;
    for (const auto& a : GetParam().argv) {
        std::string s = a;
        size_t at = s.find('@');
        if (at != std::string::npos)
            s.replace(at, 1, point);
        argv.push_back(s);
    }
    LookAlike proc(argv);
    ASSERT_TRUE(proc.ready());

    bool result = !GetParam().match;
    ASSERT_TRUE(IsUmountRunning(point.c_str(), &result));
    EXPECT_EQ(result, GetParam().match);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, UmountRunning,
    ::testing::Values(Case{"exact", {"umount", "@"}, true},
                      Case{"full_path", {"/bin/umount", "@"}, false},
                      Case{"option_before_point", {"umount", "-l", "@"}, false},
                      Case{"option_after_point", {"umount", "@", "-l"}, false},
                      Case{"other_point", {"umount", "@2"}, false},
                      Case{"trailing_slash", {"umount", "@/"}, false},
                      Case{"parent_point", {"umount", "/tmp"}, false},
                      Case{"mount_not_umount", {"mount", "@"}, false}),
    [](const ::testing::TestParamInfo<Case>& p) { return p.param.name; });

// No process at all: the answer is a clean "no", not a stale value.
TEST(UmountRunningPlain, NoSuchProcessClearsResult)
{
    bool result = true;
    ASSERT_TRUE(IsUmountRunning("/nonexistent/zor/point", &result));
    EXPECT_FALSE(result);
}

// The longest point the records hold (1023 characters) still fits the
// 1031 bytes read from /proc, so it is compared whole.
TEST(UmountRunningPlain, LongestPointComparedWhole)
{
    std::string point = "/" + std::string(1022, 'p');
    LookAlike same({"umount", point});
    ASSERT_TRUE(same.ready());
    bool result = false;
    ASSERT_TRUE(IsUmountRunning(point.c_str(), &result));
    EXPECT_TRUE(result);

    std::string other = point;
    other.back() = 'q';
    ASSERT_TRUE(IsUmountRunning(other.c_str(), &result));
    EXPECT_FALSE(result);
}

void ignore_signal(int) {}

// A signal in the middle of the pause does not shorten it; a non-positive
// interval does not pause at all.
TEST(SleepSeconds, SignalDoesNotShortenThePause)
{
    struct sigaction sa = {};
    struct sigaction old = {};
    sa.sa_handler = ignore_signal;  // no SA_RESTART: nanosleep sees EINTR
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    auto start = std::chrono::steady_clock::now();
    zor_sleep_seconds(0);
    zor_sleep_seconds(-5);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));

    std::thread sleeper([] { zor_sleep_seconds(1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    sleeper.join();
    auto took = std::chrono::steady_clock::now() - start;
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(took, std::chrono::milliseconds(990));
    EXPECT_LT(took, std::chrono::milliseconds(1500));
}

}  // namespace
