// Helpers shared by the unit and component tests.
#pragma once

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// Tests that need root skip themselves elsewhere; under CI (CI=true), which
// runs as root, a skip would hide a missing test, so it is a failure.
#define ZOR_REQUIRE_ROOT()                                            \
    do {                                                              \
        if (geteuid() != 0) {                                         \
            const char* ci = getenv("CI");                            \
            if (ci != nullptr && strcmp(ci, "true") == 0) {           \
                FAIL() << "this test needs root, and CI must run it"; \
            }                                                         \
            GTEST_SKIP() << "needs root";                             \
        }                                                             \
    } while (0)

// A temporary directory removed with its contents at the end of the scope.
class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/zortest.XXXXXX";
        const char* made = mkdtemp(tmpl);
        path_ = made != nullptr ? made : "";
    }
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
    std::string path_;
};

// Runs fn in a forked child, in a mount namespace of its own with a 64k tmpfs
// mounted on each of `mounts` as (source, point, flags), so that nothing
// outside sees them; returns fn's text, or why the set-up failed.
struct TmpfsMount {
    std::string source;
    std::string point;
    unsigned long flags = 0;
};
inline std::string in_mount_namespace(const std::vector<TmpfsMount>& mounts,
                                      const std::function<std::string()>& fn)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return "pipe failed";
    }
    pid_t pid = fork();
    if (pid == 0) {
        std::string out;
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            out = "unshare failed";
        }
        for (size_t i = 0; i < mounts.size() && out.empty(); i++) {
            const TmpfsMount& m = mounts[i];
            if (mount(m.source.c_str(), m.point.c_str(), "tmpfs", m.flags, "size=64k") != 0) {
                out = "mount " + m.point + " failed";
            }
        }
        out = out.empty() ? fn() : out;
        _exit(write(fds[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 2);
    }
    close(fds[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof(buf))) > 0;) {
        text.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return text;
}
