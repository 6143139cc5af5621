// The shared pieces every layer uses: the map from result code to status
// text, the wait-status decoder and the decoder of a command's end.
#include "node_home.h"

#include "command_exec/cmd_result.h"
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
        {ZR_RESOURCE_UNKNOWN, "r1", "Resource was not in config. (r1)"},
        {ZR_GROUP_UNKNOWN, "g1", "Group was not in config. (g1)"},
        {ZR_CONFIG, "r1", "Getting of config was failed."},
        {ZR_INTERNAL, "r1", "Internal error. (status=64)"},
        {-1, nullptr, "Internal error. (status=-1)"},
        {ZR_RESOURCE_UNKNOWN, nullptr, "Resource was not in config. ()"},
        {ZR_RESOURCE_UNKNOWN, long_name.c_str(),
         ("Resource was not in config. (" + long_name).substr(0, ZOR_SHMBUF_SIZE - 1)},
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

// Every end of a command in every voice: its result code, its status text and its one record.
TEST_F(AgentTest, CommandEndDecoder)
{
    const CmdRules mount{"mount", CV_PIPE, false, TR_INFO}, relpath{"relpath", CV_SHELL, true, TR_INFO},
        roset{"roset", CV_SHELL, false, TR_INFO}, ping{"ping", CV_SHELL, false, TR_DETAIL},
        fsck{"/sbin/fsck", CV_CHECK, true, TR_INFO}, xfs{"xfs_repair", CV_CHECK, false, TR_INFO},
        grep{"grep", CV_PROBE, true, TR_DETAIL}, raw{"raw", CV_QUERY, false, TR_INFO};
    const struct {
        CmdEnd end;
        CmdRules rules;
        int ret;
        std::string status;  // "" = untouched
        std::string record;  // "" = none; "LEVEL message"
    } rows[] = {
        // clang-format off
        {{CMD_EXITED, 0}, mount, 0, "", "INFO mount : success."},
        {{CMD_EXITED, 3}, mount, ZR_CMD_FAILED, "Command failed. (mount, ret=3)", "ERROR mount : failed. (ret=3)"},
        {{CMD_EXITED, 1}, relpath, 0, "", "INFO relpath : kill some process."},
        {{CMD_EXITED, 2}, relpath, ZR_CMD_FAILED, "Command failed. (relpath, ret=2)", "ERROR relpath : failed. (ret=2)"},
        {{CMD_EXITED, 1}, roset, ZR_CMD_FAILED, "Command failed. (roset, ret=1)", "ERROR roset : failed. (ret=1)"},
        {{CMD_EXITED, 0}, ping, 0, "", "DETAIL ping : success."},
        {{CMD_SIGNALED, 0}, roset, ZR_CMD_ABNORMAL, "Command failed. (system(roset), errno=0)",
         "ERROR system(roset) error. (ret=0,errno=0)"},
        {{CMD_NOT_STARTED, 11}, relpath, ZR_CMD_ABNORMAL, "Command failed. (system(relpath), errno=11)",
         "ERROR system(relpath) error. (ret=0,errno=11)"},
        {{CMD_SIGNALED, 0}, mount, ZR_CMD_ABNORMAL, "Command failed. (pclose(mount), errno=0)",
         "ERROR pclose(mount) error. (ret=0,errno=0)"},
        {{CMD_NOT_STARTED, 24}, mount, ZR_CMD_ABNORMAL, "Command failed. (popen(mount), errno=24)",
         "ERROR   popen(mount, r) failed. (errno=24)"},
        {{CMD_EXITED, 1}, fsck, 0, "", "INFO /sbin/fsck : clean file system. (ret=1)"},
        {{CMD_EXITED, 0}, xfs, 0, "", "INFO xfs_repair : clean file system. (ret=0)"},
        {{CMD_EXITED, 1}, xfs, ZR_CMD_FAILED, "Command failed. (xfs_repair, ret=1)", "ERROR xfs_repair : failed. (ret=1)"},
        // The mount-table search and the raw query never write a status text.
        {{CMD_EXITED, 1}, grep, 0, "", "DETAIL grep : can't grep."},
        {{CMD_EXITED, 2}, grep, ZR_CMD_FAILED, "", "ERROR grep : failed. (ret=2)"},
        {{CMD_SIGNALED, 0}, grep, ZR_CMD_ABNORMAL, "", "ERROR pclose(grep) error. (ret=0,errno=0)"},
        {{CMD_NOT_STARTED, 12}, grep, ZR_CMD_ABNORMAL, "", "ERROR   popen(grep, r) failed. (errno=12)"},
        {{CMD_TIMED_OUT, 10}, grep, ZR_TIMEOUT, "", ""},
        {{CMD_EXITED, 0}, raw, 0, "", "INFO raw : success."},
        {{CMD_EXITED, 1}, raw, ZR_CMD_FAILED, "", "ERROR raw : failed ignore. (ret=1)"},
        {{CMD_SIGNALED, 5}, raw, ZR_CMD_ABNORMAL, "", "ERROR pclose(raw) error ignore. (ret=0,errno=5)"},
        {{CMD_NOT_STARTED, 2}, raw, ZR_CMD_ABNORMAL, "", "ERROR popen(raw, r) failed ignore. (errno=2)"},
        // What the waiting thread tells; the wait itself traces it.
        {{CMD_STOPPED, 0}, mount, ZR_CMD_ABNORMAL, "", ""},
        {{CMD_TIMED_OUT, 30}, mount, ZR_TIMEOUT, "Command timeout. (mount, timeout=30)", ""},
        {{CMD_NO_WORKER, 11}, mount, ZR_NO_THREAD, "Creating of thread was failed. (mount, errno=11)", ""},
        // clang-format on
    };
    for (const auto& [end, rules, ret, status, record] : rows) {
        SCOPED_TRACE(std::string(rules.name) + " " + std::to_string(end.kind) + " " +
                     std::to_string(end.value));
        shmbuf[0] = '\0';
        home_.take();
        EXPECT_EQ(cmd_decode(end, rules, ZOR_SRC), ret);
        traceclose();  // flushed, so the trace can be read back
        std::string got;
        for (const LogRecord& r : home_.take()) {
            got += (got.empty() ? "" : " | ") + r.level + " " + r.msg;
        }
        traceopen("disk", 8, 0, nullptr);
        EXPECT_EQ(std::tuple(std::string(shmbuf), got), std::tuple(status, record));
    }
}

}  // namespace
