// Configuration set-up and tear-down, the end of a run, the status text and
// the mount lock, through the real libraries in a temporary ZOR_HOME.
#include "conf_builder.h"
#include "node_home.h"

#include "bounded.h"
#include "disk.h"
#include "tracersc.h"

#include <zoripc.h>
#include <zorxml.h>
#include <algorithm>
#include <functional>

namespace {

const char* const kConf = "<root><all><path>/opt/c</path></all></root>";

class StartupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        BCOPY(type, "disk");
        _xmlstep = 0;
        semflag = 0;
        sementmoflag = 0;
        memset(shmbuf, 0, sizeof(shmbuf));
        home.write("etc/zor.conf", kConf);
        traceopen("disk", 8, 0, nullptr);
    }
    void TearDown() override
    {
        xmlend();
        xmllib_term();  // in case a test initialised the library itself
        traceclose();
    }
    // The configuration library calls traced since the last mark.
    std::vector<std::string> lib_calls()
    {
        std::vector<std::string> out;
        std::vector<std::string> msgs = home.messages();
        for (size_t i = mark_; i < msgs.size(); i++) {
            if (msgs[i].rfind("  xmllib_", 0) == 0) {
                out.push_back(msgs[i].substr(2));
            }
        }
        mark_ = msgs.size();
        return out;
    }
    NodeHome home;
    size_t mark_ = 0;
};

const char* const kBroken = "<root><unclosed></root>";

// xmlinit stopped at each step, and xmlend undoing exactly the steps done.
TEST_F(StartupTest, SetUpFailsAtEachStepAndTearDownUndoesWhatWasDone)
{
    struct Row {
        const char* name;
        std::function<void(NodeHome&)> spoil;
        int step;                         // _xmlstep after the failure
        std::vector<std::string> undone;  // tear-down calls of xmlend, in order
    };
    const std::vector<Row> rows = {
        {"library already initialised", [](NodeHome&) { ASSERT_EQ(xmllib_init("disk"), 0); }, 0, {}},
        {"broken all.xml",
         [](NodeHome& h) { h.write("etc/policy/all.xml", kBroken); },
         1,
         {"xmllib_term() success."}},
        {"broken rc.xml",
         [](NodeHome& h) { h.write("etc/policy/rc.xml", kBroken); },
         2,
         {"xmllib_unload_policy(all) success.", "xmllib_term() success."}},
        {"broken disk.xml",
         [](NodeHome& h) { h.write("etc/policy/disk.xml", "<notroot/>"); },
         3,
         {"xmllib_unload_policy(rc) success.", "xmllib_unload_policy(all) success.",
          "xmllib_term() success."}},
        {"no zor.conf",
         [](NodeHome& h) { unlink((h / "etc/zor.conf").c_str()); },
         4,
         {"xmllib_unload_policy(disk) success.", "xmllib_unload_policy(rc) success.",
          "xmllib_unload_policy(all) success.", "xmllib_term() success."}},
        {"malformed zor.conf",
         [](NodeHome& h) { h.write("etc/zor.conf", "<root><all>"); },
         4,
         {"xmllib_unload_policy(disk) success.", "xmllib_unload_policy(rc) success.",
          "xmllib_unload_policy(all) success.", "xmllib_term() success."}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        NodeHome node;  // a fresh tree per row
        node.write("etc/zor.conf", kConf);
        traceclose();
        traceopen("disk", 8, 0, nullptr);
        r.spoil(node);

        EXPECT_EQ(xmlinit(), 4);
        EXPECT_EQ(_xmlstep, r.step);
        EXPECT_EQ(xmlend(), 0);  // an undo of a step never done would fail
        EXPECT_EQ(_xmlstep, 0);
        std::vector<std::string> calls;
        for (const std::string& m : node.messages()) {
            if (m.rfind("  xmllib_unload", 0) == 0 || m.rfind("  xmllib_term", 0) == 0) {
                calls.push_back(m.substr(2));
            }
        }
        EXPECT_EQ(calls, r.undone);
        if (r.step == 0) {
            // The caller's own initialisation is left alone.
            EXPECT_EQ(xmllib_term(), 0);
        } else {
            EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_NOT_INIT);
        }
        traceclose();
    }
}

TEST_F(StartupTest, FullSetUpAndTearDown)
{
    ASSERT_EQ(xmlinit(), 0);
    EXPECT_EQ(_xmlstep, 5);
    EXPECT_EQ(lib_calls(), (std::vector<std::string>{
                               "xmllib_init(disk) success.", "xmllib_load_policy(all) success.",
                               "xmllib_load_policy(rc) success.", "xmllib_load_policy(disk) success.",
                               "xmllib_load_config() success."}));
    // Done is done: a second call makes no library call.
    EXPECT_EQ(xmlinit(), 0);
    EXPECT_EQ(lib_calls(), std::vector<std::string>{});

    char buf[64] = {};
    int size = sizeof(buf);
    EXPECT_EQ(xmllib_get_value("/root/all/path", ZOR_XML_STRING, buf, &size), 0);
    EXPECT_EQ(xmlend(), 0);
    EXPECT_EQ(lib_calls(), (std::vector<std::string>{
                               "xmllib_unload_config() success.", "xmllib_unload_policy(disk) success.",
                               "xmllib_unload_policy(rc) success.", "xmllib_unload_policy(all) success.",
                               "xmllib_term() success."}));
    size = sizeof(buf);
    EXPECT_EQ(xmllib_get_value("/root/all/path", ZOR_XML_STRING, buf, &size), ZOR_XMLERR_NOT_INIT);
    // Nothing left to undo.
    EXPECT_EQ(xmlend(), 0);
    EXPECT_EQ(lib_calls(), std::vector<std::string>{});
}

TEST_F(StartupTest, SetUpResumesAtTheFailedStep)
{
    home.write("etc/policy/rc.xml", kBroken);
    ASSERT_EQ(xmlinit(), 4);
    ASSERT_EQ(_xmlstep, 2);
    home.write("etc/policy/rc.xml", "<root/>");
    lib_calls();
    // A restart from step 0 would fail: the library is initialised already.
    EXPECT_EQ(xmlinit(), 0);
    EXPECT_EQ(_xmlstep, 5);
    EXPECT_EQ(lib_calls().front(), "xmllib_load_policy(rc) success.");
}

TEST_F(StartupTest, FailedTearDownCallDoesNotStopTheRest)
{
    ASSERT_EQ(xmlinit(), 0);
    ASSERT_EQ(xmllib_unload_config(), 0);  // behind the driver's back
    lib_calls();
    EXPECT_EQ(xmlend(), 4);
    EXPECT_EQ(_xmlstep, 0);
    std::vector<std::string> calls = lib_calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0], "xmllib_unload_config() failed. (0x2 ZOR_XMLERR_NOT_LOAD)");
    EXPECT_EQ(calls[4], "xmllib_term() success.");
    EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_NOT_INIT);
}

TEST_F(StartupTest, StatusTextOfLoaderCodes)
{
    struct Row {
        int code;
        const char* text;
    };
    const Row rows[] = {
        {0, "untouched"},
        {2, "Resource was not in config. (fs1)"},
        {3, "Group was not in config. (grp1)"},
        {4, "Getting of config was failed."},
        {16, "Internal error. (status=16)"},
        {20, "Internal error. (status=20)"},
        {1, "Internal error. (status=1)"},
    };
    for (const Row& r : rows) {
        BCOPY(shmbuf, "untouched");
        mkshm_getinfo(r.code, "fs1", "grp1");
        EXPECT_STREQ(shmbuf, r.text) << "code " << r.code;
    }
}

// diskend: the status record only with both names, then the trace log closed.
TEST_F(StartupTest, EndOfRunStoresTheStatusAndClosesTheLog)
{
    struct Row {
        const char* group;
        const char* resource;
        int argret;
        bool stored;
        const char* last;
    };
    const Row rows[] = {
        {"grp1", "fs1", 0, true, "disk OK."},
        {"grp1", "fs2", 1, true, "disk resource failed."},
        {"", "fs3", 1, false, "disk resource failed."},
        {"grp1", "", 1, false, "disk resource failed."},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.group) + "/" + r.resource);
        NodeHome node;
        node.write("etc/zor.conf", kConf);
        traceclose();
        traceopen("disk", 8, 0, nullptr);
        ASSERT_EQ(xmlinit(), 0);
        setshmbuf("Text of %s.", r.resource);

        diskend("caller.cpp", 7, "runner", r.argret, r.group, r.resource);

        EXPECT_EQ(traceinit, 0);
        EXPECT_EQ(_xmlstep, 0);
        std::vector<LogRecord> recs = node.records();
        ASSERT_FALSE(recs.empty());
        auto first = std::find_if(recs.begin(), recs.end(),
                                  [](const LogRecord& rec) { return rec.msg == "runner -> diskend"; });
        ASSERT_NE(first, recs.end());
        EXPECT_EQ(first->func, "runner");
        EXPECT_EQ(recs.back().msg, r.last);
        EXPECT_EQ(recs.back().file, "caller.cpp");

        ASSERT_EQ(shmrm_attach(), 0);
        char text[128] = {};
        int ret = shmrm_getdescript(r.group[0] ? r.group : "grp1", "disk", r.resource[0] ? r.resource : "fs3",
                                    text, sizeof(text));
        shmrm_detach();
        if (r.stored) {
            EXPECT_EQ(ret, 0);
            EXPECT_EQ(std::string(text), std::string("Text of ") + r.resource + ".");
            EXPECT_TRUE(node.has_message(std::string("  shmrm_setdescript(grp1, disk, ") + r.resource +
                                         ", Text of " + r.resource + "., 128) success."));
        } else {
            EXPECT_EQ(ret, SHMRM_ERR_NOTFOUND);
            // Not even tried: without both names there is no record to address.
            for (const LogRecord& rec : recs) {
                EXPECT_EQ(rec.msg.find("shmrm_"), std::string::npos) << rec.msg;
            }
        }
    }
}

TEST_F(StartupTest, MountLockPairs)
{
    EXPECT_EQ(disk_sem_attach(), 0);
    EXPECT_EQ(semflag, 1);
    disk_entercrit_mount();
    EXPECT_EQ(sementmoflag, 1);
    disk_leavecrit_mount();
    EXPECT_EQ(sementmoflag, 0);
    // A leave without an enter makes no library call (which would fail).
    disk_leavecrit_mount();
    disk_sem_detach();
    EXPECT_EQ(semflag, 0);
    disk_sem_detach();  // nothing attached: no call
    for (const std::string& m : home.messages()) {
        EXPECT_EQ(m.find("failed"), std::string::npos) << m;
    }
    EXPECT_TRUE(home.has_message("sem_entercrit_mount() succeeded."));
    EXPECT_TRUE(home.has_message("sem_leavecrit_mount() succeeded."));
}

TEST_F(StartupTest, WithoutSemaphoresTheLockIsANoOp)
{
    // run/ as a plain file: the lock file cannot be created.
    rmdir((home / "run").c_str());
    home.write("run", "not a directory");
    disk_sem_attach();
    EXPECT_EQ(semflag, 0);
    disk_entercrit_mount();
    disk_leavecrit_mount();
    disk_sem_detach();
    EXPECT_EQ(sementmoflag, 0);
    std::vector<std::string> msgs = home.messages();
    EXPECT_EQ(msgs,
              (std::vector<std::string>{"disk_sem_attach()  ENTRY...", "sem_attach() failed. (ret=8)",
                                        "disk_entercrit_mount()  ENTRY...",
                                        "disk_leavecrit_mount()  ENTRY...", "disk_sem_detach()  ENTRY..."}));
}

}  // namespace
