// Configuration set-up and tear-down, the end of a run, the status text and
// the mount lock, through the real libraries in a temporary ZOR_HOME.
#include "node_home.h"

#include "bounded.h"
#include "disk.h"
#include "tracersc.h"

#include <zorxml.h>
#include <algorithm>
#include <functional>

namespace {

const char* const kConf = "<root><all><path>/opt/c</path></all></root>";
const char* const kBroken = "<root><unclosed></root>";
using Calls = std::vector<std::string>;
// What xmlend calls for a complete set-up, in order.
const Calls kTearDown = {"xmllib_unload_config() success.", "xmllib_unload_policy(disk) success.",
                         "xmllib_unload_policy(rc) success.", "xmllib_unload_policy(all) success.",
                         "xmllib_term() success."};

class StartupTest : public AgentTest {
protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        _xmlstep = semflag = sementmoflag = 0;
        home_.write("etc/zor.conf", kConf);
    }
    // A table row's own tree: its configuration and a trace log there.
    void start(const NodeHome& node)
    {
        node.write("etc/zor.conf", kConf);
        traceclose();
        traceopen("disk", 8, 0, nullptr);
    }
    void TearDown() override
    {
        xmlend();
        xmllib_term();  // in case a test initialised the library itself
        AgentTest::TearDown();
    }
    // The configuration library calls traced since the last call.
    static Calls lib_calls(NodeHome& node)
    {
        Calls out;
        for (const LogRecord& r : node.take()) {
            if (r.msg.rfind("  xmllib_", 0) == 0) {
                out.push_back(r.msg.substr(2));
            }
        }
        return out;
    }
};

// xmlinit stopped at each of its steps, and xmlend undoing exactly the steps done.
TEST_F(StartupTest, SetUpFailsAtEachStepAndTearDownUndoesWhatWasDone)
{
    // (name, spoil, _xmlstep afterwards: all 5 done is a success)
    const std::tuple<const char*, std::function<void(NodeHome&)>, int> rows[] = {
        {"library already initialised", [](NodeHome&) { ASSERT_EQ(xmllib_init("disk"), 0); }, 0},
        {"broken rc.xml", [](NodeHome& h) { h.write("etc/policy/rc.xml", kBroken); }, 2},
        {"no zor.conf", [](NodeHome& h) { unlink((h / "etc/zor.conf").c_str()); }, 4},
        {"all fine", [](NodeHome&) {}, 5},
    };
    for (const auto& [name, spoil, step] : rows) {
        SCOPED_TRACE(name);
        NodeHome node;
        start(node);
        spoil(node);

        EXPECT_EQ(xmlinit(), step == 5 ? 0 : 4);
        EXPECT_EQ(_xmlstep, step);
        if (step == 5) {
            EXPECT_EQ(lib_calls(node),
                      (Calls{"xmllib_init(disk) success.", "xmllib_load_policy(all) success.",
                             "xmllib_load_policy(rc) success.", "xmllib_load_policy(disk) success.",
                             "xmllib_load_config() success."}));
            EXPECT_EQ(xmlinit(), 0);  // done is done: no second library call
            EXPECT_EQ(lib_calls(node), Calls{});
        }
        lib_calls(node);
        EXPECT_EQ(xmlend(), 0);  // an undo of a step never done would fail
        EXPECT_EQ(_xmlstep, 0);
        EXPECT_EQ(lib_calls(node), Calls(kTearDown.end() - step, kTearDown.end()));
        if (step == 0) {
            EXPECT_EQ(xmllib_term(), 0);  // the caller's own initialisation is left alone
        } else {
            EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_NOT_INIT);
        }
    }
}

TEST_F(StartupTest, SetUpResumesAtTheFailedStepAndTearDownGoesOnAfterAFailure)
{
    home_.write("etc/policy/rc.xml", kBroken);
    ASSERT_EQ(xmlinit(), 4);
    home_.write("etc/policy/rc.xml", "<root/>");
    lib_calls(home_);
    // A restart from step 0 would fail: the library is initialised already.
    EXPECT_EQ(xmlinit(), 0);
    EXPECT_EQ(lib_calls(home_).front(), "xmllib_load_policy(rc) success.");

    ASSERT_EQ(xmllib_unload_config(), 0);  // behind the driver's back
    EXPECT_EQ(xmlend(), 4);
    EXPECT_EQ(_xmlstep, 0);
    Calls want = kTearDown;
    want[0] = "xmllib_unload_config() failed. (0x2 ZOR_XMLERR_NOT_LOAD)";
    EXPECT_EQ(lib_calls(home_), want);
    EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_NOT_INIT);
}

// diskend: the status record only with both names, a failure's text traced
// before the last record, then the trace log closed.
TEST_F(StartupTest, EndOfRunStoresTheStatusAndClosesTheLog)
{
    const std::tuple<const char*, const char*, int, const char*, const char*> rows[] = {
        {"grp1", "fs1", 0, "shmrm_detach() success.", "disk OK."},
        {"", "fs3", 1, "status: Text of fs3.", "disk resource failed."},
        {"grp1", "", 1, "status: Text of .", "disk resource failed."},
    };
    for (const auto& [group, resource, argret, before_last, last] : rows) {
        SCOPED_TRACE(std::string(group) + "/" + resource);
        NodeHome node;
        start(node);
        ASSERT_EQ(xmlinit(), 0);
        setshmbuf("Text of %s.", resource);
        node.take();

        diskend("caller.cpp", 7, "runner", argret, group, resource);

        EXPECT_EQ(std::pair(traceinit, _xmlstep), std::pair(0, 0));
        const std::vector<LogRecord> recs = node.take();
        ASSERT_GE(recs.size(), 2u);
        EXPECT_EQ(recs[0].msg + " " + recs[0].func, "runner -> diskend runner");
        EXPECT_EQ(recs.back().msg + " " + recs.back().file, std::string(last) + " caller.cpp");
        EXPECT_NE(recs[recs.size() - 2].msg.find(before_last), std::string::npos);
        // Stored or not; what the table then holds, the end-to-end tests read after every run.
        EXPECT_EQ(std::any_of(recs.begin(), recs.end(),
                              [](auto& rec) { return rec.msg.find("setdescript") != std::string::npos; }),
                  group[0] && resource[0]);
    }
}

// run/ as a plain file: the lock file cannot be created, and the lock is a no-op without a library call.
TEST_F(StartupTest, WithoutSemaphoresTheMountLockIsANoOp)
{
    rmdir((home_ / "run").c_str());
    home_.write("run", "not a directory");
    disk_sem_attach();
    EXPECT_EQ(semflag, 0);
    disk_entercrit_mount();
    disk_leavecrit_mount();
    disk_sem_detach();
    EXPECT_EQ(sementmoflag, 0);
    EXPECT_EQ(home_.messages(), (Calls{"disk_sem_attach()  ENTRY...", "sem_attach() failed. (ret=8)",
                                       "disk_entercrit_mount()  ENTRY...", "disk_leavecrit_mount()  ENTRY...",
                                       "disk_sem_detach()  ENTRY..."}));
}

}  // namespace
