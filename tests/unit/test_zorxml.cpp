// The configuration library against real files in a temporary $ZOR_HOME.
#include "zorxml.h"

#include "test_support.h"

#include <atomic>
#include <climits>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

const char* kConf = R"(<?xml version="1.0"?>
<root>
  <all><path>/opt/c</path></all>
  <cluster><exclusion><mount> 1 </mount></exclusion></cluster>
  <disk><log><level>8</level><size>4194304</size></log></disk>
  <int>
    <max>2147483647</max><min>-2147483648</min><over>2147483648</over><under>-2147483649</under>
    <junk>12a</junk><empty></empty><spaced>  42
    </spaced><plus>+7</plus><hex>0x10</hex><huge>99999999999999999999</huge><sign>-</sign>
    <inner>4 2</inner>
  </int>
  <text><exact>abcdefg</exact><empty/><ws>   </ws><cdata><![CDATA[ a<b ]]></cdata></text>
  <group name="grp1"><resource name="disk@fs1"/><!-- a comment --><resource name="nas@share1"/></group>
  <group name="grp2"><resource name="disk@fs2"/></group>
  <group name="empty"/>
  <resource>
    <disk name="fs1">
      <parameters>
        <device>/dev/common</device>
        <server name="node1"><device>/dev/node1</device><only>node1-only</only></server>
        <mount>
          <point>/mnt/common</point>
          <server name="node2"><point>/mnt/node2-deep</point></server>
        </mount>
        <fs>ext4</fs>
      </parameters>
    </disk>
    <disk name="fs2"><parameters><device>/dev/fs2</device></parameters></disk>
  </resource>
  <server name="node2">
    <resource><disk name="fs1"><parameters>
      <mount><point>/mnt/node2-top</point></mount><fs>xfs</fs>
    </parameters></disk></resource>
  </server>
</root>
)";

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

// A node tree with zor.conf in place and the library set up the way the
// agent does it: init, three policies, config.
class XmlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(home_.path().empty());
        setenv("ZOR_HOME", home_.path().c_str(), 1);
        mkdir((home_ / "etc").c_str(), 0755);
        mkdir((home_ / "etc/policy").c_str(), 0755);
        write_file(home_ / "etc/zor.conf", kConf);
    }
    void TearDown() override { xmllib_term(); }

    void start()
    {
        ASSERT_EQ(xmllib_init("disk"), 0);
        ASSERT_EQ(xmllib_load_policy("all"), 0);
        ASSERT_EQ(xmllib_load_policy("rc"), 0);
        ASSERT_EQ(xmllib_load_policy("disk"), 0);
        ASSERT_EQ(xmllib_load_config(), 0);
    }

    static int get_string(const char* server, const std::string& path, std::string& out, int bufsize = 1024)
    {
        std::vector<char> buf(static_cast<size_t>(bufsize > 0 ? bufsize : 1), '\x7f');
        int size = bufsize;
        int ret = server == nullptr ? xmllib_get_value(path.c_str(), ZOR_XML_STRING, buf.data(), &size)
                                    : xmllib_get_srvsep_value(server, path.c_str(), ZOR_XML_STRING, buf.data(),
                                                              &size);
        out = ret == 0 ? std::string(buf.data()) : std::string();
        return ret;
    }

    TempDir home_;
};

TEST_F(XmlTest, PathResolution)
{
    start();
    struct Case {
        const char* path;
        int ret;
        const char* value;
    } cases[] = {
        {"/root/all/path", 0, "/opt/c"},
        {"/root/resource/disk@fs2/parameters/device", 0, "/dev/fs2"},
        {"/root/resource/disk@fs3/parameters/device", ZOR_XMLERR_NOTEXIST_PATH, ""},
        {"/root/resource/nas@fs1/parameters/device", ZOR_XMLERR_NOTEXIST_PATH, ""},
        {"/root/resource/disk@FS1/parameters/device", ZOR_XMLERR_NOTEXIST_PATH, ""},
        // A plain segment takes the first element of that name.
        {"/root/resource/disk/parameters/device", 0, "/dev/common"},
        {"/root/resource/disk@fs1/parameters/fs", 0, "ext4"},
        {"/root/text/exact", 0, "abcdefg"},
        {"/root/text/empty", 0, ""},
        {"/root/text/ws", 0, ""},
        {"/root/text/cdata", 0, "a<b"},
        {"/root/cluster/exclusion/mount", 0, "1"},
        {"/root/group@grp1", ZOR_XMLERR_NOTEXIST_VALUE, ""},
        {"/config/all/path", ZOR_XMLERR_NOTEXIST_PATH, ""},
        {"/root", ZOR_XMLERR_NOTEXIST_VALUE, ""},
        {"root/all/path", ZOR_XMLERR_INVALID_PATH, ""},
        {"/root//path", ZOR_XMLERR_INVALID_PATH, ""},
        {"/root/all/", ZOR_XMLERR_INVALID_PATH, ""},
        {"/root/@fs1", ZOR_XMLERR_INVALID_PATH, ""},
        {"/root/disk@", ZOR_XMLERR_INVALID_PATH, ""},
        {"/", ZOR_XMLERR_INVALID_PATH, ""},
        {"", ZOR_XMLERR_INVALID_PATH, ""},
    };
    for (const auto& c : cases) {
        std::string v;
        EXPECT_EQ(get_string(nullptr, c.path, v), c.ret) << c.path;
        EXPECT_EQ(v, c.value) << c.path;
    }
}

TEST_F(XmlTest, PathLengthLimit)
{
    start();
    std::string at_limit = "/root/" + std::string(1023 - 6, 'x');
    std::string over = at_limit + "y";
    std::string v;
    EXPECT_EQ(get_string(nullptr, at_limit, v), ZOR_XMLERR_NOTEXIST_PATH);
    EXPECT_EQ(get_string(nullptr, over, v), ZOR_XMLERR_INVALID_PATH);
}

TEST_F(XmlTest, PerServerOverrides)
{
    start();
    const std::string p = "/root/resource/disk@fs1/parameters/";
    struct Case {
        const char* server;
        std::string path;
        int ret;
        const char* value;
    } cases[] = {
        {nullptr, p + "device", 0, "/dev/common"},
        {"", p + "device", 0, "/dev/common"},
        {"node1", p + "device", 0, "/dev/node1"},
        {"Node1", p + "device", 0, "/dev/common"},
        {"node2", p + "device", 0, "/dev/common"},
        {"node1", p + "only", 0, "node1-only"},
        {"", p + "only", ZOR_XMLERR_NOTEXIST_PATH, ""},
        {"node2", p + "only", ZOR_XMLERR_NOTEXIST_PATH, ""},
        // Overrides at the top and one level above the key: the deepest wins.
        {"node2", p + "mount/point", 0, "/mnt/node2-deep"},
        {"node2", p + "fs", 0, "xfs"},
        {"node1", p + "mount/point", 0, "/mnt/common"},
        {"node3", "/root/resource/disk@fs2/parameters/device", 0, "/dev/fs2"},
        {"node2", p + "missing", ZOR_XMLERR_NOTEXIST_PATH, ""},
    };
    for (const auto& c : cases) {
        std::string v;
        EXPECT_EQ(get_string(c.server, c.path, v), c.ret) << (c.server ? c.server : "(null)") << " " << c.path;
        EXPECT_EQ(v, c.value) << (c.server ? c.server : "(null)") << " " << c.path;
    }
    // The plain read never sees a server's value.
    std::string v;
    EXPECT_EQ(get_string(nullptr, p + "mount/point", v), 0);
    EXPECT_EQ(v, "/mnt/common");
}

TEST_F(XmlTest, StringSizeLimits)
{
    start();
    struct Case {
        int size;
        int ret;
    } cases[] = {{8, 0}, {9, 0}, {7, ZOR_XMLERR_NOTENOUGH_SIZE}, {1, ZOR_XMLERR_NOTENOUGH_SIZE},
                 {0, ZOR_XMLERR_NOTENOUGH_SIZE}, {-1, ZOR_XMLERR_NOTENOUGH_SIZE}};
    for (const auto& c : cases) {
        char buf[16];
        memset(buf, 'Z', sizeof(buf));
        int size = c.size;
        EXPECT_EQ(xmllib_get_value("/root/text/exact", ZOR_XML_STRING, buf, &size), c.ret) << c.size;
        EXPECT_EQ(size, 8) << c.size;  // bytes written, or bytes needed
        if (c.ret == 0) {
            EXPECT_STREQ(buf, "abcdefg");
        } else {
            EXPECT_EQ(buf[0], 'Z') << "nothing may be written when the value does not fit";
        }
    }
    int size = 100;
    EXPECT_EQ(xmllib_get_value("/root/text/exact", ZOR_XML_STRING, nullptr, &size), ZOR_XMLERR_NOTENOUGH_SIZE);
    EXPECT_EQ(size, 8);
    // An empty value needs one byte, its terminator.
    char one[1] = {'Z'};
    size = 1;
    EXPECT_EQ(xmllib_get_value("/root/text/empty", ZOR_XML_STRING, one, &size), 0);
    EXPECT_EQ(one[0], '\0');
}

TEST_F(XmlTest, Integers)
{
    start();
    struct Case {
        const char* key;
        int ret;
        int value;
    } cases[] = {
        {"max", 0, INT_MAX},
        {"min", 0, INT_MIN},
        {"spaced", 0, 42},
        {"plus", 0, 7},
        {"over", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"under", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"junk", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"empty", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"hex", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"huge", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"sign", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"inner", ZOR_XMLERR_INVALID_CONTENTS, 0},
        {"missing", ZOR_XMLERR_NOTEXIST_PATH, 0},
    };
    for (const auto& c : cases) {
        int v = -12345;
        int size = 4;
        std::string path = std::string("/root/int/") + c.key;
        EXPECT_EQ(xmllib_get_value(path.c_str(), ZOR_XML_INT, &v, &size), c.ret) << c.key;
        EXPECT_EQ(v, c.ret == 0 ? c.value : -12345) << c.key;
    }
    int v = 0;
    int size = 3;
    EXPECT_EQ(xmllib_get_value("/root/int/max", ZOR_XML_INT, &v, &size), ZOR_XMLERR_NOTENOUGH_SIZE);
    EXPECT_EQ(size, 4);
    EXPECT_EQ(v, 0);
}

TEST_F(XmlTest, Enumeration)
{
    start();
    struct Case {
        const char* path;
        int ret;
        std::vector<std::string> names;
    } cases[] = {
        {"/root/group", 0, {"grp1", "grp2", "empty"}},
        {"/root/group@grp1/resource", 0, {"disk@fs1", "nas@share1"}},
        {"/root/group@grp2/resource", 0, {"disk@fs2"}},
        {"/root/group@empty/resource", 0, {}},
        {"/root/nothing", 0, {}},
        {"/root/group@none/resource", ZOR_XMLERR_NOTEXIST_PATH, {}},
        {"/root", ZOR_XMLERR_INVALID_PATH, {}},
    };
    for (const auto& c : cases) {
        int size = 0;
        int ret = xmllib_enum_value(c.path, nullptr, &size);
        if (c.ret != 0) {
            EXPECT_EQ(ret, c.ret) << c.path;
            continue;
        }
        int need = static_cast<int>(c.names.size()) * ZOR_XML_ENUM_SLOT;
        EXPECT_EQ(ret, need == 0 ? 0 : ZOR_XMLERR_NOTENOUGH_SIZE) << c.path;
        EXPECT_EQ(size, need) << c.path;
        if (need == 0) {
            continue;
        }
        // One slot short: refused, nothing written.
        std::vector<char> buf(static_cast<size_t>(need), 'Z');
        size = need - ZOR_XML_ENUM_SLOT;
        EXPECT_EQ(xmllib_enum_value(c.path, buf.data(), &size), ZOR_XMLERR_NOTENOUGH_SIZE) << c.path;
        EXPECT_EQ(size, need);
        EXPECT_EQ(buf[0], 'Z');
        size = need;
        ASSERT_EQ(xmllib_enum_value(c.path, buf.data(), &size), 0) << c.path;
        EXPECT_EQ(size, need);
        for (size_t i = 0; i < c.names.size(); i++) {
            EXPECT_STREQ(&buf[i * ZOR_XML_ENUM_SLOT], c.names[i].c_str()) << c.path << " slot " << i;
        }
    }
}

TEST_F(XmlTest, EnumerationOfManyAndNameAtSlotLimit)
{
    std::string xml = "<root>";
    for (int i = 0; i < 500; i++) {
        xml += "<group name=\"g" + std::to_string(i) + "\"/>";
    }
    xml += "<long><e name=\"" + std::string(255, 'n') + "\"/></long>";
    xml += "<toolong><e name=\"" + std::string(256, 'n') + "\"/></toolong></root>";
    write_file(home_ / "etc/zor.conf", xml);
    start();
    int size = 0;
    ASSERT_EQ(xmllib_enum_value("/root/group", nullptr, &size), ZOR_XMLERR_NOTENOUGH_SIZE);
    ASSERT_EQ(size, 500 * ZOR_XML_ENUM_SLOT);
    std::vector<char> buf(static_cast<size_t>(size));
    ASSERT_EQ(xmllib_enum_value("/root/group", buf.data(), &size), 0);
    EXPECT_STREQ(&buf[0], "g0");
    EXPECT_STREQ(&buf[499 * ZOR_XML_ENUM_SLOT], "g499");

    char slot[ZOR_XML_ENUM_SLOT];
    size = sizeof(slot);
    EXPECT_EQ(xmllib_enum_value("/root/long/e", slot, &size), 0);
    EXPECT_EQ(strlen(slot), 255u);
    size = sizeof(slot);
    EXPECT_EQ(xmllib_enum_value("/root/toolong/e", slot, &size), ZOR_XMLERR_INVALID_CONTENTS);
}

TEST_F(XmlTest, BrokenFiles)
{
    ASSERT_EQ(xmllib_init("disk"), 0);
    mkdir((home_ / "adir").c_str(), 0755);
    struct Case {
        const char* name;
        const char* text;  // null: do not create the file
        int ret;
    } cases[] = {
        {"missing", nullptr, ZOR_XMLERR_NOTEXIST_PATH},
        {"empty", "", ZOR_XMLERR_INVALID_XML},
        {"blank", "  \n", ZOR_XMLERR_INVALID_XML},
        {"truncated", "<root><all><path>/opt/c</pa", ZOR_XMLERR_INVALID_XML},
        {"unclosed", "<root><all>", ZOR_XMLERR_INVALID_XML},
        {"mismatched", "<root><a></b></root>", ZOR_XMLERR_INVALID_XML},
        {"wrongroot", "<config><all/></config>", ZOR_XMLERR_INVALID_XML},
        {"binary", "\x01\x02\xff\xfe<\x00", ZOR_XMLERR_INVALID_XML},
        {"adir", nullptr, ZOR_XMLERR_INVALID_XML},
        {"good", "<root><all><path>/x</path></all></root>", 0},
    };
    for (const auto& c : cases) {
        std::string path = home_ / c.name;
        if (c.text != nullptr) {
            write_file(path, c.text);
        }
        void* h = reinterpret_cast<void*>(1);
        EXPECT_EQ(xmllib_load_pathconfig(path.c_str(), &h), c.ret) << c.name;
        EXPECT_EQ(h == nullptr, c.ret != 0) << c.name;
        if (h != nullptr) {
            EXPECT_EQ(xmllib_unload_pathconfig(h), 0);
        }
    }
    // The same through the default configuration.
    unlink((home_ / "etc/zor.conf").c_str());
    EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_NOTEXIST_PATH);
    write_file(home_ / "etc/zor.conf", "<root><all>");
    EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_INVALID_XML);
    std::string v;
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), ZOR_XMLERR_NOT_LOAD);
}

TEST_F(XmlTest, CallsOutOfOrder)
{
    char buf[64];
    int size = sizeof(buf);
    void* h = nullptr;
    // Before init.
    EXPECT_EQ(xmllib_load_policy("all"), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_load_config(), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_get_srvsep_value("n", "/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_enum_value("/root/group", nullptr, &size), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_load_pathconfig((home_ / "etc/zor.conf").c_str(), &h), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_change_config(nullptr), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_unload_config(), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_unload_policy("all"), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_term(), ZOR_XMLERR_NOT_INIT);
    // Initialised, nothing loaded.
    ASSERT_EQ(xmllib_init("disk"), 0);
    EXPECT_EQ(xmllib_init("disk"), ZOR_XMLERR_OTHER);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(xmllib_enum_value("/root/group", nullptr, &size), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(xmllib_unload_config(), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(xmllib_unload_policy("rc"), ZOR_XMLERR_NOT_LOAD);
    // Loaded, unloaded, and loaded again.
    ASSERT_EQ(xmllib_load_config(), 0);
    EXPECT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_LOAD);
    ASSERT_EQ(xmllib_load_config(), 0);
    size = sizeof(buf);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, &size), 0);
    // Term drops everything; the library starts again from scratch.
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_INIT);
    EXPECT_EQ(xmllib_init("nas"), 0);
}

TEST_F(XmlTest, BadArguments)
{
    start();
    char buf[64];
    int size = sizeof(buf);
    int v = 0;
    int isize = 4;
    void* h = nullptr;
    EXPECT_EQ(xmllib_get_value(nullptr, 0, buf, &size), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, nullptr), ZOR_XMLERR_OTHER);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 2, buf, &size), ZOR_XMLERR_OTHER);
    EXPECT_EQ(xmllib_get_value("/root/all/path", -1, buf, &size), ZOR_XMLERR_OTHER);
    EXPECT_EQ(xmllib_get_value("/root/int/max", ZOR_XML_INT, nullptr, &isize), ZOR_XMLERR_NOTENOUGH_SIZE);
    isize = -4;
    EXPECT_EQ(xmllib_get_value("/root/int/max", ZOR_XML_INT, &v, &isize), ZOR_XMLERR_NOTENOUGH_SIZE);
    EXPECT_EQ(xmllib_get_srvsep_value("n", nullptr, 0, buf, &size), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_enum_value(nullptr, nullptr, &size), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_enum_value("/root/group", buf, nullptr), ZOR_XMLERR_OTHER);
    size = -1;
    EXPECT_EQ(xmllib_enum_value("/root/group", buf, &size), ZOR_XMLERR_NOTENOUGH_SIZE);
    EXPECT_EQ(xmllib_load_pathconfig(nullptr, &h), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_load_pathconfig("", &h), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_load_pathconfig("/x", nullptr), ZOR_XMLERR_INVALID_HANDLE);
    EXPECT_EQ(xmllib_change_config(buf), ZOR_XMLERR_INVALID_HANDLE);
    EXPECT_EQ(xmllib_unload_pathconfig(buf), ZOR_XMLERR_INVALID_HANDLE);
    EXPECT_EQ(xmllib_unload_pathconfig(nullptr), ZOR_XMLERR_INVALID_HANDLE);
    EXPECT_EQ(xmllib_load_policy(nullptr), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_load_policy("../zor"), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_load_policy(".."), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_load_policy(std::string(300, 'p').c_str()), ZOR_XMLERR_INVALID_PATH);
    EXPECT_EQ(xmllib_unload_policy(nullptr), ZOR_XMLERR_INVALID_PATH);
    // An empty policy name (the type of an unknown program name) loads nothing.
    EXPECT_EQ(xmllib_load_policy(""), 0);
    EXPECT_EQ(xmllib_unload_policy(""), 0);
    // The library still answers normally afterwards.
    size = sizeof(buf);
    EXPECT_EQ(xmllib_get_value("/root/all/path", 0, buf, &size), 0);
    EXPECT_STREQ(buf, "/opt/c");
}

TEST_F(XmlTest, PoliciesLieBeneathTheConfiguration)
{
    write_file(home_ / "etc/policy/all.xml",
               "<root><disk><log><level>4</level><extra>from-all</extra><only>all</only></log></disk>"
               "<cluster><exclusion><mount>0</mount></exclusion></cluster>"
               "<resource><disk name=\"fs2\"><parameters><server name=\"node9\"><fs>btrfs</fs></server>"
               "</parameters></disk></resource></root>");
    write_file(home_ / "etc/policy/disk.xml", "<root><disk><log><extra>from-disk</extra></log></disk></root>");
    start();  // "rc" has no file: no defaults, no error
    struct Case {
        const char* server;
        const char* path;
        const char* value;
    } cases[] = {
        {nullptr, "/root/disk/log/level", "8"},           // the configuration's own value wins
        {nullptr, "/root/cluster/exclusion/mount", "1"},  // likewise
        {nullptr, "/root/disk/log/extra", "from-disk"},   // the last loaded policy first
        {nullptr, "/root/disk/log/only", "all"},
        {"node9", "/root/resource/disk@fs2/parameters/fs", "btrfs"},
    };
    for (const auto& c : cases) {
        std::string v;
        EXPECT_EQ(get_string(c.server, c.path, v), 0) << c.path;
        EXPECT_EQ(v, c.value) << c.path;
    }
    ASSERT_EQ(xmllib_unload_policy("disk"), 0);
    std::string v;
    EXPECT_EQ(get_string(nullptr, "/root/disk/log/extra", v), 0);
    EXPECT_EQ(v, "from-all");
    ASSERT_EQ(xmllib_unload_policy("all"), 0);
    EXPECT_EQ(get_string(nullptr, "/root/disk/log/extra", v), ZOR_XMLERR_NOTEXIST_PATH);
    EXPECT_EQ(xmllib_unload_policy("rc"), 0);
    EXPECT_EQ(xmllib_unload_policy("rc"), ZOR_XMLERR_NOT_LOAD);
}

TEST_F(XmlTest, CorruptPolicyFailsItsLoad)
{
    write_file(home_ / "etc/policy/rc.xml", "<root><disk>");
    ASSERT_EQ(xmllib_init("disk"), 0);
    EXPECT_EQ(xmllib_load_policy("all"), 0);
    EXPECT_EQ(xmllib_load_policy("rc"), ZOR_XMLERR_INVALID_XML);
    EXPECT_EQ(xmllib_unload_policy("rc"), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(xmllib_unload_policy("all"), 0);
}

TEST_F(XmlTest, AlternateConfigurationSwitchAndBack)
{
    start();
    write_file(home_ / "new.conf", "<root><all><path>/opt/new</path></all><group name=\"g9\"/></root>");
    void* h = nullptr;
    ASSERT_EQ(xmllib_load_pathconfig((home_ / "new.conf").c_str(), &h), 0);
    ASSERT_NE(h, nullptr);
    std::string v;
    // Loading alone changes nothing.
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), 0);
    EXPECT_EQ(v, "/opt/c");
    ASSERT_EQ(xmllib_change_config(h), 0);
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), 0);
    EXPECT_EQ(v, "/opt/new");
    EXPECT_EQ(get_string(nullptr, "/root/text/exact", v), ZOR_XMLERR_NOTEXIST_PATH);
    int size = 0;
    EXPECT_EQ(xmllib_enum_value("/root/group", nullptr, &size), ZOR_XMLERR_NOTENOUGH_SIZE);
    EXPECT_EQ(size, ZOR_XML_ENUM_SLOT);
    ASSERT_EQ(xmllib_change_config(nullptr), 0);
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), 0);
    EXPECT_EQ(v, "/opt/c");
    // Unloading the current one makes the default current again.
    ASSERT_EQ(xmllib_change_config(h), 0);
    ASSERT_EQ(xmllib_unload_pathconfig(h), 0);
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), 0);
    EXPECT_EQ(v, "/opt/c");
    EXPECT_EQ(xmllib_change_config(h), ZOR_XMLERR_INVALID_HANDLE);
    EXPECT_EQ(xmllib_unload_pathconfig(h), ZOR_XMLERR_INVALID_HANDLE);
}

TEST_F(XmlTest, AlternateWithoutDefaultConfiguration)
{
    write_file(home_ / "new.conf", "<root><all><path>/opt/new</path></all></root>");
    ASSERT_EQ(xmllib_init("disk"), 0);
    void* h = nullptr;
    ASSERT_EQ(xmllib_load_pathconfig((home_ / "new.conf").c_str(), &h), 0);
    ASSERT_EQ(xmllib_change_config(h), 0);
    std::string v;
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), 0);
    EXPECT_EQ(v, "/opt/new");
    EXPECT_EQ(xmllib_change_config(nullptr), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(get_string(nullptr, "/root/all/path", v), ZOR_XMLERR_NOT_LOAD);
}

// Worker threads read while the main thread switches configurations: every
// read sees one configuration or the other, whole.
TEST_F(XmlTest, ReadsFromSeveralThreads)
{
    start();
    write_file(home_ / "new.conf", "<root><all><path>/opt/new</path></all></root>");
    void* h = nullptr;
    ASSERT_EQ(xmllib_load_pathconfig((home_ / "new.conf").c_str(), &h), 0);
    std::atomic<int> bad{0};
    auto reader = [&bad] {
        for (int i = 0; i < 2000; i++) {
            char buf[64];
            int size = sizeof(buf);
            int ret = xmllib_get_value("/root/all/path", ZOR_XML_STRING, buf, &size);
            if (ret != 0 || (strcmp(buf, "/opt/c") != 0 && strcmp(buf, "/opt/new") != 0)) {
                bad++;
            }
        }
    };
    std::thread t1(reader), t2(reader);
    for (int i = 0; i < 500; i++) {
        xmllib_change_config(i % 2 == 0 ? h : nullptr);
    }
    t1.join();
    t2.join();
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
