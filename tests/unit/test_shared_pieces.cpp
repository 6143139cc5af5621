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
    struct Row {
        int code;
        const char* name;
        const char* text;
    };
    const Row rows[] = {
        {2, "r1", "Resource was not in config. (r1)"},  {3, "g1", "Group was not in config. (g1)"},
        {4, "r1", "Getting of config was failed."},     {21, nullptr, "Internal error. (status=21)"},
        {32, nullptr, "Internal error. (status=32)"},   {64, "r1", "Internal error. (status=64)"},
        {128, nullptr, "Internal error. (status=128)"}, {1, nullptr, "Internal error. (status=1)"},
        {-1, nullptr, "Internal error. (status=-1)"},   {2, nullptr, "Resource was not in config. ()"},
    };
    for (const Row& r : rows) {
        char out[ZOR_SHMBUF_SIZE];
        status_text(r.code, r.name, out, sizeof(out));
        EXPECT_STREQ(out, r.text) << "code " << r.code;
    }
}

TEST(StatusText, CutAtTheStatusBuffer)
{
    // 127 characters stay, the terminator takes the last byte.
    const std::string name(200, 'n');
    char out[ZOR_SHMBUF_SIZE];
    status_text(2, name.c_str(), out, sizeof(out));
    EXPECT_EQ(std::string(out), ("Resource was not in config. (" + name).substr(0, ZOR_SHMBUF_SIZE - 1));

    setshm_status(3, "grp");
    EXPECT_STREQ(shmbuf, "Group was not in config. (grp)");
    mkshm_getinfo(0, "r", "g");  // success leaves the text alone
    EXPECT_STREQ(shmbuf, "Group was not in config. (grp)");
    mkshm_getinfo(3, "r", "g");
    EXPECT_STREQ(shmbuf, "Group was not in config. (g)");
    mkshm_getinfo(2, "r", "g");
    EXPECT_STREQ(shmbuf, "Resource was not in config. (r)");
}

TEST(WaitStatus, ExitCodeOrNone)
{
    struct Row {
        int status;
        int code;
    };
    const Row rows[] = {
        {0, 0},
        {1 << 8, 1},
        {255 << 8, 255},
        {SIGKILL, -1},
        {SIGTERM | 0x80, -1},         // ended by a signal with a core
        {0x7f | (SIGSTOP << 8), -1},  // stopped, not ended
        {-1, -1},                     // no status at all
    };
    for (const Row& r : rows) {
        EXPECT_EQ(zproc_exit_code(r.status), r.code) << "status " << r.status;
    }
}

}  // namespace
