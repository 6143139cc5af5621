// Helpers shared by the tests of the cluster libraries.
#pragma once

#include "test_support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

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
