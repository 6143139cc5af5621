// The trace module, read back from a real log file in a temporary ZOR_HOME.
#include "node_home.h"

#include "tracersc.h"

#include <cerrno>
#include <functional>
#include <string>

namespace {

class TraceTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        traceclose();
        traceclose_ex();
        tracetell("");
    }
    NodeHome home;
};

TEST_F(TraceTest, NothingIsWrittenBeforeOpenOrAfterClose)
{
    trace(TR_ERROR, "f", 1, "fn", "before open");
    trace2(TR_ERROR, "f", 1, "fn", "before open 2");
    tracemess(TR_EVENT, 16, "f", 1, "fn", nullptr, "/dev/early");
    traceopen("disk", 8, 0, nullptr);
    trace(TR_ERROR, "f", 1, "fn", "while open");
    traceclose();
    EXPECT_EQ(loghandle, nullptr);
    trace(TR_ERROR, "f", 1, "fn", "after close");
    trace2(TR_ERROR, "f", 1, "fn", "after close 2");
    tracemess(TR_EVENT, 16, "f", 1, "fn", nullptr, "/dev/late");
    EXPECT_EQ(home.messages(), std::vector<std::string>{"while open"});
}

TEST_F(TraceTest, SecondOpenOnlyCountsAndOneCloseEnds)
{
    traceopen("disk", 8, 0, nullptr);
    void* first = loghandle;
    // A reopen with level 1 would drop the detail record below.
    traceopen("disk", 1, 0, nullptr);
    EXPECT_EQ(traceinit, 2);
    EXPECT_EQ(loghandle, first);
    trace(TR_DETAIL, "f", 1, "fn", "detail kept");
    traceclose();
    EXPECT_EQ(traceinit, 0);
    trace(TR_ERROR, "f", 1, "fn", "dropped");
    EXPECT_EQ(home.messages(), std::vector<std::string>{"detail kept"});
}

TEST_F(TraceTest, OpenClearsTheTagAndTellKeepsEightCharacters)
{
    tracetell("resource_name_1");
    EXPECT_STREQ(rscname, "resource");
    traceopen("disk", 8, 0, nullptr);
    EXPECT_STREQ(rscname, "");
    trace(TR_INFO, "f", 1, "fn", "x=%d", 5);
    EXPECT_EQ(home.messages(), std::vector<std::string>{"x=5"});
}

// One row: the tag in force, the call, the level and message read back.
struct FormatCase {
    const char* name;
    const char* tag;
    std::function<void()> call;
    const char* level;
    const char* msg;
};

TEST_F(TraceTest, RecordFormats)
{
    const char* path = "/root/disk/log/level";
    const std::vector<FormatCase> cases = {
        {"long tag cut", "resource_name_1", [] { trace(TR_INFO, "f", 1, "fn", "x=%d", 5); }, "INFO",
         "resource: x=5"},
        {"short tag padded", "abc", [] { trace(TR_INFO, "f", 1, "fn", "x=%d", 5); }, "INFO", "abc     : x=5"},
        {"eight-character tag", "abcdefgh", [] { trace(TR_WARNING, "f", 1, "fn", "w"); }, "WARN",
         "abcdefgh: w"},
        {"no tag", "", [] { trace(TR_ERROR, "f", 1, "fn", "x=%d", 5); }, "ERROR", "x=5"},
        {"trace2 no tag", "", [] { trace2(TR_DETAIL, "f", 1, "fn", "abc"); }, "DETAIL", "  abc"},
        {"trace2 tag", "abc", [] { trace2(TR_DETAIL, "f", 1, "fn", "abc"); }, "DETAIL", "abc     :   abc"},
        {"xml failure", "", [path] { tracexml(4, "f", 1, "fn", "xmllib_get_value(%s, %d)", path, 1); },
         "ERROR", "  xmllib_get_value(/root/disk/log/level, 1) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"},
        {"xml success", "", [path] { tracexml(0, "f", 1, "fn", "xmllib_get_value(%s, %d)", path, 1); },
         "DETAIL", "  xmllib_get_value(/root/disk/log/level, 1) success."},
        {"xml failure tagged", "abc", [] { tracexml(10, "f", 1, "fn", "xmllib_load_config()"); }, "ERROR",
         "abc     :   xmllib_load_config() failed. (0xa ZOR_XMLERR_OTHER)"},
        {"xml unknown code", "", [] { tracexml(11, "f", 1, "fn", "x"); }, "ERROR",
         "  x failed. (0xb ?"
         "?)"},
        {"shmrm code without name", "", [] { traceshmrm(1, "f", 1, "fn", "shmrm_attach()"); }, "ERROR",
         "  shmrm_attach() failed. (0x1 ?"
         "?)"},
        {"shmrm named code", "", [] { traceshmrm(4, "f", 1, "fn", "shmrm_detach()"); }, "ERROR",
         "  shmrm_detach() failed. (0x4 SHMRM_ERR_NOTFOUND)"},
        {"shmrm success tagged", "abc", [] { traceshmrm(0, "f", 1, "fn", "shmrm_detach()"); }, "DETAIL",
         "abc     :   shmrm_detach() success."},
        {"sys failure", "", [] { tracesys(-1, EAGAIN, "f", 1, "fn", "pthread_create(%#x, %s)", 16u, "w"); },
         "ERROR", "  pthread_create(0x10, w) failed. (ret=-1,errno=11)"},
        {"sys failure tagged", "r1", [] { tracesys(-1, 2, "f", 1, "fn", "stat(%s)", "/x"); }, "ERROR",
         "r1      :   stat(/x) failed. (ret=-1,errno=2)"},
        {"func failure", "", [] { tracefunc(4, "f", 1, "fn", "get_mount()"); }, "ERROR",
         "  get_mount() failed. (0x4)"},
        {"func failure tagged", "abc", [] { tracefunc(32, "f", 1, "fn", "zormkdir()"); }, "ERROR",
         "abc     :   zormkdir() failed. (0x20)"},
        {"func success", "", [] { tracefunc(0, "f", 1, "fn", "get_umount()"); }, "DETAIL",
         "  get_umount() success."},
    };
    traceopen("disk", 8, 0, nullptr);
    for (const FormatCase& c : cases) {
        tracetell(c.tag);
        c.call();
    }
    std::vector<LogRecord> recs = home.records();
    ASSERT_EQ(recs.size(), cases.size());
    for (size_t i = 0; i < cases.size(); i++) {
        SCOPED_TRACE(cases[i].name);
        EXPECT_EQ(recs[i].msg, cases[i].msg);
        EXPECT_EQ(recs[i].level, cases[i].level);
        EXPECT_EQ(recs[i].file, "f");
        EXPECT_EQ(recs[i].func, "fn");
    }
}

TEST_F(TraceTest, ResultRecordsHonourTheLogLevel)
{
    // Level 1 keeps errors only: failures are written, successes dropped.
    traceopen("disk", 1, 0, nullptr);
    tracexml(0, "f", 1, "fn", "ok");
    tracexml(2, "f", 1, "fn", "bad");
    EXPECT_EQ(home.messages(), std::vector<std::string>{"  bad failed. (0x2 ZOR_XMLERR_NOT_LOAD)"});
}

TEST_F(TraceTest, TextIsCutAt1023Characters)
{
    traceopen("disk", 8, 0, nullptr);
    const std::string exact(1023, 'a');
    const std::string over(1500, 'b');
    trace(TR_ERROR, "f", 1, "fn", "%s", exact.c_str());
    trace(TR_ERROR, "f", 1, "fn", "%s", over.c_str());
    tracexml(4, "f", 1, "fn", "%s", over.c_str());
    std::vector<std::string> msgs = home.messages();
    ASSERT_EQ(msgs.size(), 3u);
    EXPECT_EQ(msgs[0], exact);
    EXPECT_EQ(msgs[1], std::string(1023, 'b'));
    // The library bounds the whole message; the cut text keeps its prefix.
    EXPECT_EQ(msgs[2].rfind("  " + std::string(100, 'b'), 0), 0u);
}

TEST_F(TraceTest, NullFormatWritesNothing)
{
    traceopen("disk", 8, 0, nullptr);
    const char* volatile nofmt = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    trace(TR_ERROR, "f", 1, "fn", nofmt);
    trace2(TR_ERROR, "f", 1, "fn", nofmt);
#pragma GCC diagnostic pop
    trace(TR_ERROR, "f", 1, "fn", "end");
    EXPECT_EQ(home.messages(), std::vector<std::string>{"end"});
}

TEST_F(TraceTest, EventsUseTheCatalogueAndPassEveryLevelFilter)
{
    traceopen("disk", 1, 0, nullptr);
    tracetell("abc");
    tracemess(TR_EVENT, 16, "f", 1, "fn", nullptr, "/dev/loop7");
    tracemess2(TR_EVENT, 17, "f", 1, "fn", nullptr, "lvm", "zfs");
    std::vector<LogRecord> recs = home.records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].level, "EVENT");
    // No tag: the catalogue text is handed over unchanged.
    EXPECT_EQ(recs[0].msg.rfind("ZOR-16:", 0), 0u);
    EXPECT_NE(recs[0].msg.find("/dev/loop7"), std::string::npos);
    EXPECT_NE(recs[1].msg.find("disktype=lvm"), std::string::npos);
    EXPECT_NE(recs[1].msg.find("fs=zfs"), std::string::npos);
}

TEST_F(TraceTest, SecondLogIsSeparateAndKeepsTheTag)
{
    traceopen("disk", 8, 0, nullptr);
    tracetell("abc");
    traceopen_ex("disk_fsck", 8, 0, nullptr);
    traceopen_ex("disk_fsck", 8, 0, nullptr);
    EXPECT_EQ(traceinit_ex, 2);
    EXPECT_STREQ(rscname, "abc");
    trace_ex(TR_WARNING, "f", 1, "fn", "fsck line %d", 1);
    trace(TR_INFO, "f", 1, "fn", "main");
    traceclose_ex();
    EXPECT_EQ(loghandle_ex, nullptr);
    trace_ex(TR_WARNING, "f", 1, "fn", "dropped");
    EXPECT_EQ(home.messages("disk_fsck"), std::vector<std::string>{"abc     : fsck line 1"});
    EXPECT_EQ(home.messages("disk"), std::vector<std::string>{"abc     : main"});
}

TEST(ErrorNames, CodesAndTheirBoundaries)
{
    struct Row {
        void (*fn)(int, char*);
        int code;
        const char* name;
    };
    const Row rows[] = {
        {makeerrstr_xml, 0, "ZOR_XMLERR_SUCCESS"},
        {makeerrstr_xml, 3, "ZOR_XMLERR_NOTENOUGH_SIZE"},
        {makeerrstr_xml, 9, "ZOR_XMLERR_INVALID_CONTENTS"},
        {makeerrstr_xml, 10, "ZOR_XMLERR_OTHER"},
        {makeerrstr_xml, 11, "??"},
        {makeerrstr_xml, -1, "??"},
        {makeerrstr_shmrm, 0, "??"},
        {makeerrstr_shmrm, 1, "??"},
        {makeerrstr_shmrm, 2, "SHMRM_ERR_NOTINIT"},
        {makeerrstr_shmrm, 8, "SHMRM_ERR_SHMGET"},
        {makeerrstr_shmrm, 15, "SHMRM_ERR_LOADCONF"},
        {makeerrstr_shmrm, 16, "??"},
        {makeerrstr_shmrm, -3, "??"},
    };
    for (const Row& r : rows) {
        char buf[128];
        memset(buf, 'x', sizeof(buf));
        r.fn(r.code, buf);
        EXPECT_STREQ(buf, r.name) << "code " << r.code;
    }
}

}  // namespace
