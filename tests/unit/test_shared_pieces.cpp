// The shared pieces every layer uses: the map from result code to status text
// and the wait-status decoder.
#include "command_exec/proc_runner.h"
#include "globals.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

namespace {

TEST(StatusText, EachCodeHasItsText)
{
    const std::string long_name(200, 'n');  // 127 characters stay, the terminator takes the last byte
    const std::tuple<int, const char*, std::string> rows[] = {
        {2, "r1", "Resource was not in config. (r1)"},
        {3, "g1", "Group was not in config. (g1)"},
        {4, "r1", "Getting of config was failed."},
        {64, "r1", "Internal error. (status=64)"},
        {-1, nullptr, "Internal error. (status=-1)"},
        {2, nullptr, "Resource was not in config. ()"},
        {2, long_name.c_str(), ("Resource was not in config. (" + long_name).substr(0, ZOR_SHMBUF_SIZE - 1)},
    };
    for (const auto& [code, name, text] : rows) {
        char out[ZOR_SHMBUF_SIZE];
        status_text(code, name, out, sizeof(out));
        EXPECT_EQ(out, text) << "code " << code;
    }
}

// The loaders' codes name the group for 3, the resource otherwise; 0 leaves the text alone.
TEST(StatusText, LoaderCodesPickTheName)
{
    setshm_status(3, "grp");
    const std::pair<int, const char*> rows[] = {{0, "Group was not in config. (grp)"},
                                                {3, "Group was not in config. (g)"},
                                                {2, "Resource was not in config. (r)"},
                                                {16, "Internal error. (status=16)"}};
    for (const auto& [code, text] : rows) {
        mkshm_getinfo(code, "r", "g");
        EXPECT_STREQ(shmbuf, text) << code;
    }
}

TEST(WaitStatus, ExitCodeOrNone)
{
    const std::pair<int, int> rows[] = {
        {0, 0},
        {255 << 8, 255},
        {SIGKILL, -1},
        {SIGTERM | 0x80, -1},         // ended by a signal with a core
        {0x7f | (SIGSTOP << 8), -1},  // stopped, not ended
        {-1, -1},                     // no status at all
    };
    for (const auto& [status, code] : rows) {
        EXPECT_EQ(zproc_exit_code(status), code) << "status " << status;
    }
}

}  // namespace
