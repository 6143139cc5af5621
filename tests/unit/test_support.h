// Helpers shared by the unit and component tests: temporary directories,
// forked children, shell output.
#pragma once

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Tests that need root skip themselves elsewhere; under CI (CI=true), which
// runs as root, a skip would hide a missing test, so it is a failure.
#define ZOR_REQUIRE_ROOT()                                                                    \
    do {                                                                                      \
        if (geteuid() != 0) {                                                                 \
            ASSERT_STRNE(getenv("CI"), "true") << "this test needs root, and CI must run it"; \
            GTEST_SKIP() << "needs root";                                                     \
        }                                                                                     \
    } while (0)

// A temporary directory removed with its contents at the end of the scope.
class TempDir {
public:
    TempDir() : path_(mkdtemp(tmpl_) != nullptr ? tmpl_ : "") {}
    ~TempDir()
    {
        std::error_code ignored;  // a leftover directory in /tmp harms no one
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const
    {
        return path_;
    }
    std::string operator/(const std::string& rel) const
    {
        return path_ + "/" + rel;
    }

private:
    char tmpl_[20] = "/tmp/zortest.XXXXXX";
    std::string path_;
};

// Sorted names in a directory, dot files included.
inline std::vector<std::string> entries(const std::string& dir)
{
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        out.push_back(e.path().filename());
    }
    std::sort(out.begin(), out.end());
    return out;
}

// A null-terminated argv pointing into args, for exec and for main-like functions.
inline std::vector<char*> argv_of(std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    return argv;
}

// Runs fn in a forked child that exits with its result; the alarm ends a
// child stuck on a broken lock.
template <typename F>
pid_t spawn(F fn, unsigned limit = 30)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(limit);
        _exit(fn());
    }
    return pid;
}

// Exit code of pid, 128 + signal, or -1.
inline int wait_child(pid_t pid)
{
    int st = 0;
    pid_t r;
    while ((r = waitpid(pid, &st, 0)) < 0 && errno == EINTR) {
    }
    return r != pid ? -1 : WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// Runs fn in a forked child, for what must not change this process (its
// namespaces, its host name); returns fn's text.
inline std::string in_child(const std::function<std::string()>& fn)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return "pipe failed";
    }
    const pid_t pid = spawn([&] {
        const std::string out = fn();
        return write(fds[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 2;
    });
    close(fds[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof(buf))) > 0;) {
        text.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    wait_child(pid);
    return text;
}

// fn in a child with a mount namespace of its own, a 64k tmpfs mounted on each
// of `mounts` as (source, point), so that nothing outside sees them.
using TmpfsMounts = std::vector<std::pair<std::string, std::string>>;
inline std::string in_mount_namespace(const TmpfsMounts& mounts, const std::function<std::string()>& fn)
{
    return in_child([&]() -> std::string {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return "unshare failed";
        }
        for (const auto& [source, point] : mounts) {
            if (mount(source.c_str(), point.c_str(), "tmpfs", 0, "size=64k") != 0) {
                return "mount " + point + " failed";
            }
        }
        return fn();
    });
}

// A line as the agent's runner hands it to the shell (/bin/sh -c, stdin /dev/null; the shell's own
// messages name "/bin/sh"): its output, and its wait status in *status.
inline std::string sh_output(const std::string& line, int* status = nullptr)
{
    setenv("ZOR_SH_LINE", line.c_str(), 1);
    FILE* p = popen("exec /bin/sh -c \"$ZOR_SH_LINE\" < /dev/null", "r");
    if (p == nullptr) {
        return "popen failed";
    }
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) {
        out.append(buf, n);
    }
    const int st = pclose(p);
    if (status != nullptr) {
        *status = st;
    }
    return out;
}

// Library calls made in the order listed (a braced list is evaluated in
// order), each with the result it must give.
struct Call {
    const char* name;
    int rc;
    int want;
};

inline void expect_calls(std::initializer_list<Call> calls)
{
    for (const Call& c : calls) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
}
