// Helpers shared by the unit and component tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

// Tests that need root skip themselves elsewhere; under CI (CI=true), which
// runs as root, a skip would hide a missing test, so it is a failure.
#define ZOR_REQUIRE_ROOT()                                                         \
    do {                                                                           \
        if (geteuid() != 0) {                                                      \
            const char* ci = getenv("CI");                                         \
            if (ci != nullptr && strcmp(ci, "true") == 0) {                        \
                FAIL() << "this test needs root, and CI must run it";              \
            }                                                                      \
            GTEST_SKIP() << "needs root";                                          \
        }                                                                          \
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
        if (!path_.empty()) {
            std::string cmd = "rm -rf '" + path_ + "'";
            if (system(cmd.c_str()) != 0) {
                // Nothing more to do: a leftover directory in /tmp harms no one.
            }
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};
