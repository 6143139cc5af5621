// The trace module, read back from a real log file in a temporary ZOR_HOME.
#include "node_home.h"

#include "tracersc.h"

#include <cerrno>
#include <functional>
#include <string>

namespace {

using Msgs = std::vector<std::string>;

// Each record as "LEVEL message", once its origin is checked.
Msgs shown(const NodeHome& home)
{
    Msgs out;
    for (const LogRecord& r : home.records()) {
        EXPECT_EQ(r.file + " " + r.func, "f fn") << r.msg;
        out.push_back(r.level + " " + r.msg);
    }
    return out;
}

// The agent's fixture opens the trace at level 8; a test that needs it closed or at another level closes it.
using TraceTest = AgentTest;

TEST_F(TraceTest, NothingIsWrittenBeforeOpenOrAfterClose)
{
    traceclose();
    trace(TR_ERROR, "f", 1, "fn", "before open");
    tracemess(TR_EVENT, 16, "f", 1, "fn", nullptr, "/dev/early");
    tracetell("early");
    traceopen("disk", 8, 0, nullptr);
    EXPECT_STREQ(rscname, "");         // an open clears the tag
    traceopen("disk", 1, 0, nullptr);  // a second open only counts: level 1 would drop the detail record
    EXPECT_EQ(traceinit, 2);
    trace(TR_DETAIL, "f", 1, "fn", "while open");
    traceclose();
    EXPECT_EQ(traceinit, 0);
    EXPECT_EQ(loghandle, nullptr);
    trace(TR_ERROR, "f", 1, "fn", "after close");
    tracemess(TR_EVENT, 16, "f", 1, "fn", nullptr, "/dev/late");
    EXPECT_EQ(home_.messages(), Msgs{"while open"});
}

// Long texts are cut at 1023 characters; the library bounds a whole message, which keeps its prefix.
TEST_F(TraceTest, RecordFormats)
{
    static const std::string over(1500, 'b');
    // (tag in force for the call, call, record "LEVEL message")
    const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
        {"resource_name_1", [] { trace(TR_INFO, "f", 1, "fn", "x=%d", 5); }, "INFO resource: x=5"},
        {"", [] { trace(TR_ERROR, "f", 1, "fn", "x=%d", 5); }, "ERROR x=5"},
        {"", [] { trace(TR_ERROR, "f", 1, "fn", "%s", over.c_str()); }, "ERROR " + std::string(1023, 'b')},
        {"", [] { trace2(TR_DETAIL, "f", 1, "fn", "abc"); }, "DETAIL   abc"},
        {"abc", [] { trace2(TR_DETAIL, "f", 1, "fn", "abc"); }, "DETAIL abc     :   abc"},
        {"", [] { tracexml(4, "f", 1, "fn", "xmllib_get_value(%s, %d)", "/root/a", 1); },
         "ERROR   xmllib_get_value(/root/a, 1) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"},
        {"", [] { tracexml(4, "f", 1, "fn", "%s", over.c_str()); }, "ERROR   " + std::string(1021, 'b')},
        {"", [] { tracexml(0, "f", 1, "fn", "xmllib_get_value(%s, %d)", "/root/a", 1); },
         "DETAIL   xmllib_get_value(/root/a, 1) success."},
        {"abc", [] { tracexml(10, "f", 1, "fn", "xmllib_load_config()"); },
         "ERROR abc     :   xmllib_load_config() failed. (0xa ZOR_XMLERR_OTHER)"},
        {"", [] { traceshmrm(1, "f", 1, "fn", "a()"); }, "ERROR   a() failed. (0x1 ?\?)"},
        {"", [] { traceshmrm(16, "f", 1, "fn", "a()"); }, "ERROR   a() failed. (0x10 SHMRM_ERR_BUSY)"},
        {"", [] { traceshmrm(17, "f", 1, "fn", "a()"); }, "ERROR   a() failed. (0x11 ?\?)"},
        {"abc", [] { traceshmrm(0, "f", 1, "fn", "shmrm_detach()"); },
         "DETAIL abc     :   shmrm_detach() success."},
        {"", [] { tracesys(-1, EAGAIN, "f", 1, "fn", "pthread_create(%#x, %s)", 16u, "w"); },
         "ERROR   pthread_create(0x10, w) failed. (ret=-1,errno=11)"},
        {"abc", [] { tracefunc(32, "f", 1, "fn", "zormkdir()"); },
         "ERROR abc     :   zormkdir() failed. (0x20)"},
    };
    Msgs want;
    for (const auto& [tag, call, record] : cases) {
        tracetell(tag);
        call();
        want.push_back(record);
    }
    EXPECT_EQ(shown(home_), want);
}

// Level 1 keeps errors only; events pass every level filter, with the catalogue text unchanged by a tag.
TEST_F(TraceTest, LevelFilterAndEvents)
{
    traceclose();
    traceopen("disk", 1, 0, nullptr);
    tracexml(0, "f", 1, "fn", "ok");
    tracexml(2, "f", 1, "fn", "bad");
    tracetell("abc");
    tracemess(TR_EVENT, 16, "f", 1, "fn", nullptr, "/dev/loop7");
    tracemess2(TR_EVENT, 17, "f", 1, "fn", nullptr, "lvm", "zfs");
    EXPECT_EQ(
        shown(home_),
        (Msgs{"ERROR   bad failed. (0x2 ZOR_XMLERR_NOT_LOAD)",
              "EVENT ZOR-16: xfs file system could not be mounted and no repair is configured. "
              "(device=/dev/loop7)",
              "EVENT ZOR-17: disk type and file system type cannot be combined. (disktype=lvm, fs=zfs)"}));
}

}  // namespace
