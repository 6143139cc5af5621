// The decoder of a command's end, which every layer uses. (The status texts of the result codes are
// checked end to end, where the agent stores them.)
#include "node_home.h"

#include "command_exec/cmd_result.h"
#include "globals.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

namespace {

// Every end of a command in every voice, most of them read from a wait status: its result code, its
// status text and its one record.
TEST_F(AgentTest, CommandEndDecoder)
{
    const CmdRules mount{"mount", CV_PIPE, false, TR_INFO}, relpath{"relpath", CV_SHELL, true, TR_INFO},
        roset{"roset", CV_SHELL, false, TR_INFO}, ping{"ping", CV_SHELL, false, TR_DETAIL},
        fsck{"/sbin/fsck", CV_CHECK, true, TR_INFO}, xfs{"xfs_repair", CV_CHECK, false, TR_INFO},
        grep{"grep", CV_PROBE, true, TR_DETAIL}, raw{"raw", CV_QUERY, false, TR_INFO};
    const int stopped = 0x7f | (SIGSTOP << 8), cored = SIGTERM | 0x80;  // not ended; ended with a core
    const struct {
        CmdEnd end;
        CmdRules rules;
        int ret;
        std::string status;  // "" = untouched
        std::string record;  // "" = none; "LEVEL message"
    } rows[] = {
        // clang-format off
        {cmd_end_of(0, 0), mount, 0, "", "INFO mount : success."},
        {cmd_end_of(3 << 8, 0), mount, ZR_CMD_FAILED, "Command failed. (mount, ret=3)", "ERROR mount : failed. (ret=3)"},
        {cmd_end_of(1 << 8, 0), relpath, 0, "", "INFO relpath : kill some process."},
        {cmd_end_of(2 << 8, 0), relpath, ZR_CMD_FAILED, "Command failed. (relpath, ret=2)", "ERROR relpath : failed. (ret=2)"},
        {cmd_end_of(1 << 8, 0), roset, ZR_CMD_FAILED, "Command failed. (roset, ret=1)", "ERROR roset : failed. (ret=1)"},
        {cmd_end_of(0, 0), ping, 0, "", "DETAIL ping : success."},
        {cmd_end_of(SIGKILL, 0), roset, ZR_CMD_ABNORMAL, "Command failed. (system(roset), errno=0)",
         "ERROR system(roset) error. (ret=0,errno=0)"},
        {{CMD_NOT_STARTED, 11}, relpath, ZR_CMD_ABNORMAL, "Command failed. (system(relpath), errno=11)",
         "ERROR system(relpath) error. (ret=0,errno=11)"},
        {cmd_end_of(cored, 0), mount, ZR_CMD_ABNORMAL, "Command failed. (pclose(mount), errno=0)",
         "ERROR pclose(mount) error. (ret=0,errno=0)"},
        {{CMD_NOT_STARTED, 24}, mount, ZR_CMD_ABNORMAL, "Command failed. (popen(mount), errno=24)",
         "ERROR   popen(mount, r) failed. (errno=24)"},
        {cmd_end_of(1 << 8, 0), fsck, 0, "", "INFO /sbin/fsck : clean file system. (ret=1)"},
        {cmd_end_of(1 << 8, 0), xfs, ZR_CMD_FAILED, "Command failed. (xfs_repair, ret=1)", "ERROR xfs_repair : failed. (ret=1)"},
        // The mount-table search and the raw query never write a status text.
        {cmd_end_of(1 << 8, 0), grep, 0, "", "DETAIL grep : can't grep."},
        {cmd_end_of(255 << 8, 0), grep, ZR_CMD_FAILED, "", "ERROR grep : failed. (ret=255)"},
        {cmd_end_of(stopped, 0), grep, ZR_CMD_ABNORMAL, "", "ERROR pclose(grep) error. (ret=0,errno=0)"},
        {cmd_end_of(1 << 8, 0), raw, ZR_CMD_FAILED, "", "ERROR raw : failed ignore. (ret=1)"},
        {cmd_end_of(-1, 5), raw, ZR_CMD_ABNORMAL, "", "ERROR pclose(raw) error ignore. (ret=0,errno=5)"},  // no status
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
