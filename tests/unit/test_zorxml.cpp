// The configuration library against real files in a temporary $ZOR_HOME.
#include "zorxml.h"
#include "zorxml_internal.h"

#include "node_home.h"

#include <sys/stat.h>
#include <fstream>
#include <string>
#include <vector>

namespace {

const std::string kConf = R"(<?xml version="1.0"?>
<root>
  <all><path>/opt/c</path></all>
  <disk><log><level>8</level></log></disk>
  <int><max>2147483647</max><min>-2147483648</min><over>2147483648</over><under>-2147483649</under>
    <junk>12a</junk><empty></empty><spaced>  42
    </spaced></int>
  <text><exact>abcdefg</exact><cdata><![CDATA[ a<b ]]></cdata></text>
  <t><a>x<!-- c -->y</a><b>x<e/>y</b><c><e/>y</c><d><!-- c --><![CDATA[z]]> w</d><f><e/><!-- c --></f></t>
  <group name="grp1"><resource name="disk@fs1"/><!-- a comment --><resource name="nas@share1"/></group>
  <group name="grp2"><resource name="disk@fs2"/></group>
  <group name="empty"/>
  <resource>
    <disk name="fs1"><parameters>
      <device>/dev/common</device><fs>ext4</fs>
      <server name="node1"><device>/dev/node1</device><only>node1-only</only></server>
      <mount><point>/mnt/common</point><server name="node2"><point>/mnt/node2-deep</point></server></mount>
    </parameters></disk>
    <disk name="fs2"><parameters><device>/dev/fs2</device></parameters></disk>
    <disk name="fs2"><parameters><device>/dev/second</device></parameters></disk>
  </resource>
  <server name="node2"><resource><disk name="fs1"><parameters>
    <mount><point>/mnt/node2-top</point></mount><fs>xfs</fs></parameters></disk></resource></server>
  <long><e name=")" + std::string(255, 'n') +
                          R"("/><f name=")" + std::string(256, 'n') + R"("/></long>
</root>
)";

// A string value, or "<rc N>". A non-null server reads with its overrides.
std::string val(const char* server, const std::string& path)
{
    char buf[1024];
    int size = sizeof(buf);
    int ret = server == nullptr ? xmllib_get_value(path.c_str(), ZOR_XML_STRING, buf, &size)
                                : xmllib_get_srvsep_value(server, path.c_str(), ZOR_XML_STRING, buf, &size);
    return ret == 0 ? std::string(buf) : "<rc " + std::to_string(ret) + ">";
}

// Each test runs twice: on files parsed whole, and on files read through
// their index (made by a first load, then used by the one the test makes).
class XmlTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        home_.write("etc/zor.conf", kConf);
        zorxml_set_settle_ms(GetParam() ? 0 : 2000);
    }
    void TearDown() override
    {
        xmllib_term();
    }

    // As the agent starts: init, three policies, the configuration.
    void start()
    {
        for (int round = GetParam() ? 0 : 1; round < 2; round++) {
            ASSERT_EQ(xmllib_init("disk"), 0);
            for (const char* policy : {"all", "rc", "disk"}) {
                ASSERT_EQ(xmllib_load_policy(policy), 0) << policy;
            }
            ASSERT_EQ(xmllib_load_config(), 0);
            if (round == 0) {
                ASSERT_EQ(xmllib_term(), 0);
            }
        }
        ASSERT_EQ(zorxml_config_from_index(), GetParam());
    }
    NodeHome home_;
};

// An index that is not root's alone is never read: the file is parsed afresh and the index made again.
TEST_P(XmlTest, IndexNotRootsAloneIsNotRead)
{
    if (!GetParam()) {
        GTEST_SKIP() << "only files read through their index";
    }
    ZOR_REQUIRE_ROOT();
    start();
    ASSERT_EQ(xmllib_term(), 0);
    ASSERT_EQ(chown((home_ / "var/xmlindex/zor.conf").c_str(), 65534, 65534), 0);
    std::vector<bool> from_index;
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(xmllib_init("disk") || xmllib_load_config(), 0);
        from_index.push_back(zorxml_config_from_index());
        ASSERT_EQ(xmllib_term(), 0);
    }
    EXPECT_EQ(from_index, (std::vector<bool>{false, true}));
}

TEST_P(XmlTest, PathResolutionAndServerOverrides)
{
    start();
    const std::string p = "/root/resource/disk@fs1/parameters/";
    const std::string at_limit = "/root/" + std::string(1023 - 6, 'x');
    // clang-format off
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {nullptr, "/root/resource/disk@fs2/parameters/device", "/dev/fs2"},
        {nullptr, "/root/resource/disk@fs3/parameters/device", "<rc 4>"},
        {nullptr, "/root/resource/disk/parameters/device", "/dev/common"},  // the first <disk>
        // A value's text is the same before, between or after comments and children.
        {nullptr, "/root/text/cdata", "a<b"}, {nullptr, "/root/t/a", "xy"}, {nullptr, "/root/t/b", "xy"},
        {nullptr, "/root/t/c", "y"}, {nullptr, "/root/t/d", "z w"}, {nullptr, "/root/t/f", "<rc 5>"},
        {nullptr, "/root/group@grp1", "<rc 5>"}, {nullptr, "/config/all/path", "<rc 4>"},
        {nullptr, at_limit, "<rc 4>"}, {nullptr, at_limit + "y", "<rc 6>"}, {nullptr, "root/all/path", "<rc 6>"},
        {nullptr, "/root//path", "<rc 6>"}, {nullptr, "/root/@fs1", "<rc 6>"},
        {nullptr, "/root/resource/disk@/parameters/device", "<rc 6>"},
        {nullptr, p + "mount/point", "/mnt/common"},  // a plain read never sees a server's value
        {"", p + "device", "/dev/common"}, {"node1", p + "device", "/dev/node1"},
        {"node2", p + "device", "/dev/common"}, {"node1", p + "only", "node1-only"}, {"node2", p + "only", "<rc 4>"},
        // Overrides at the top and one level above the key: the deepest wins; asked again, the lookups
        // the first read remembered answer the same.
        {"node2", p + "mount/point", "/mnt/node2-deep"}, {"node2", p + "fs", "xfs"},
        {"node2", p + "mount/point", "/mnt/node2-deep"},
    };
    // clang-format on
    for (const auto& [server, path, want] : cases) {
        EXPECT_EQ(val(server, path), want) << (server ? server : "(null)") << " " << path;
    }
}

TEST_P(XmlTest, SizesAtTheLimitAndIntegers)
{
    start();
    // A refused read writes nothing and tells the size it needs: 8 bytes for "abcdefg", 4 for an integer.
    const std::tuple<const char*, int, bool, int, int> sizes[] = {
        {"/root/text/exact", ZOR_XML_STRING, true, 8, 0},
        {"/root/text/exact", ZOR_XML_STRING, true, 7, ZOR_XMLERR_NOTENOUGH_SIZE},
        {"/root/text/exact", ZOR_XML_STRING, false, 100, ZOR_XMLERR_NOTENOUGH_SIZE},
        {"/root/int/max", ZOR_XML_INT, true, 3, ZOR_XMLERR_NOTENOUGH_SIZE},
    };
    for (const auto& [path, type, buffer, bufsize, ret] : sizes) {
        char buf[16] = "ZZZ";
        int size = bufsize;
        EXPECT_EQ(xmllib_get_value(path, type, buffer ? buf : nullptr, &size), ret) << path << " " << bufsize;
        EXPECT_EQ(size, type == ZOR_XML_INT ? 4 : 8) << path << " " << bufsize;
        EXPECT_STREQ(buf, ret == 0 ? "abcdefg" : "ZZZ");
    }
    const std::pair<const char*, std::string> cases[] = {
        {"max", "2147483647"}, {"min", "-2147483648"}, {"spaced", "42"},    {"over", "<rc 9>"},
        {"under", "<rc 9>"},   {"junk", "<rc 9>"},     {"empty", "<rc 9>"}, {"missing", "<rc 4>"},
    };
    for (const auto& [key, want] : cases) {
        int v = -12345, size = 4;
        int ret = xmllib_get_value(("/root/int/" + std::string(key)).c_str(), ZOR_XML_INT, &v, &size);
        EXPECT_EQ(ret == 0 ? std::to_string(v) : "<rc " + std::to_string(ret) + ">", want) << key;
        EXPECT_TRUE(ret == 0 || v == -12345) << key << ": written on failure";
    }
}

TEST_P(XmlTest, Enumeration)
{
    start();
    const std::tuple<const char*, int, std::vector<std::string>> cases[] = {
        {"/root/group", 0, {"grp1", "grp2", "empty"}},
        {"/root/group@grp2/resource", 0, {"disk@fs2"}},
        {"/root/group@empty/resource", 0, {}},
        {"/root/long/e", 0, {std::string(255, 'n')}},  // a name that just fits its slot
        {"/root/long/f", ZOR_XMLERR_INVALID_CONTENTS, {}},
        {"/root/group@none/resource", ZOR_XMLERR_NOTEXIST_PATH, {}},
        {"/root", ZOR_XMLERR_INVALID_PATH, {}},
    };
    for (const auto& [path, ret, names] : cases) {
        const int need = static_cast<int>(names.size()) * ZOR_XML_ENUM_SLOT;
        int size = 0;
        EXPECT_EQ(xmllib_enum_value(path, nullptr, &size),
                  (ret != 0 || need == 0) ? ret : ZOR_XMLERR_NOTENOUGH_SIZE)
            << path;
        EXPECT_EQ(size, need) << path;
        if (need == 0) {
            continue;
        }
        // One slot short: refused, nothing written.
        std::vector<char> buf(static_cast<size_t>(need), 'Z');
        size = need - ZOR_XML_ENUM_SLOT;
        EXPECT_EQ(xmllib_enum_value(path, buf.data(), &size), ZOR_XMLERR_NOTENOUGH_SIZE) << path;
        EXPECT_EQ(buf[0], 'Z');
        size = need;
        ASSERT_EQ(xmllib_enum_value(path, buf.data(), &size), 0) << path;
        for (size_t i = 0; i < names.size(); i++) {
            EXPECT_STREQ(&buf[i * ZOR_XML_ENUM_SLOT], names[i].c_str()) << path << " slot " << i;
        }
    }
}

TEST_P(XmlTest, BrokenFilesFailTheLoad)
{
    ASSERT_EQ(xmllib_init("disk"), 0);
    mkdir((home_ / "adir").c_str(), 0755);
    // (file, text; null: none written). A missing or cut file the driver's end-to-end tests meet, where the
    // monitor tells one from the other; a good one, the alternate configuration's test.
    const std::pair<const char*, const char*> cases[] = {
        {"empty", ""}, {"wrongroot", "<config><all/></config>"}, {"adir", nullptr}};
    for (const auto& [name, text] : cases) {
        if (text != nullptr) {
            home_.write(name, text);
        }
        void* h = reinterpret_cast<void*>(1);
        EXPECT_EQ(xmllib_load_pathconfig((home_ / name).c_str(), &h), ZOR_XMLERR_INVALID_XML) << name;
        EXPECT_EQ(h, nullptr) << name;
    }
}

TEST_P(XmlTest, CallOrderAndBadArguments)
{
    char buf[64];
    int size = sizeof(buf);
    void* h = nullptr;
    // Evaluated in order, through init and load. What a term undoes, the set-up's tests and the indexed
    // runs' start() check; a read after an unload, the alternate configuration's test.
    expect_calls({
        {"get before init", xmllib_get_value("/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_INIT},
        {"term before init", xmllib_term(), ZOR_XMLERR_NOT_INIT},
        {"init", xmllib_init("disk"), 0},
        {"init twice", xmllib_init("disk"), ZOR_XMLERR_OTHER},
        {"get before load", xmllib_get_value("/root/all/path", 0, buf, &size), ZOR_XMLERR_NOT_LOAD},
        {"load", xmllib_load_config(), 0},
        {"null path", xmllib_get_value(nullptr, 0, buf, &size), ZOR_XMLERR_INVALID_PATH},
        {"null size", xmllib_get_value("/root/all/path", 0, buf, nullptr), ZOR_XMLERR_OTHER},
        {"enum null size", xmllib_enum_value("/root/group", buf, nullptr), ZOR_XMLERR_OTHER},
        {"alternate empty path", xmllib_load_pathconfig("", &h), ZOR_XMLERR_INVALID_PATH},
        {"alternate null handle", xmllib_load_pathconfig("/x", nullptr), ZOR_XMLERR_INVALID_HANDLE},
        {"foreign handle", xmllib_change_config(buf), ZOR_XMLERR_INVALID_HANDLE},
        {"null policy", xmllib_load_policy(nullptr), ZOR_XMLERR_INVALID_PATH},
        {"policy ../zor", xmllib_load_policy("../zor"), ZOR_XMLERR_INVALID_PATH},
        // The type of an unknown program name is empty, and so is its policy: nothing to load.
        {"empty policy", xmllib_load_policy(""), 0},
    });
}

TEST_P(XmlTest, PoliciesLieBeneathTheConfiguration)
{
    home_.write("etc/policy/all.xml",
                "<root><disk><log><level>4</level><extra>from-all</extra><only>all</only></log></disk>"
                "<resource><disk name=\"fs2\"><parameters><server name=\"node9\"><fs>btrfs</fs></server>"
                "</parameters></disk></resource></root>");
    home_.write("etc/policy/disk.xml", "<root><disk><log><extra>from-disk</extra></log></disk></root>");
    start();                                                       // "rc" has no file: no defaults, no error
    EXPECT_EQ(val(nullptr, "/root/disk/log/level"), "8");          // the configuration's own value wins
    EXPECT_EQ(val(nullptr, "/root/disk/log/extra"), "from-disk");  // the last loaded policy first
    EXPECT_EQ(val(nullptr, "/root/disk/log/only"), "all");
    EXPECT_EQ(val("node9", "/root/resource/disk@fs2/parameters/fs"), "btrfs");
    ASSERT_EQ(xmllib_unload_policy("disk"), 0);
    EXPECT_EQ(val(nullptr, "/root/disk/log/extra"), "from-all");

    // A broken policy must not be taken for a missing one.
    ASSERT_EQ(xmllib_unload_policy("rc"), 0);
    home_.write("etc/policy/rc.xml", "<root><disk>");
    EXPECT_EQ(xmllib_load_policy("rc"), ZOR_XMLERR_INVALID_XML);
    EXPECT_EQ(xmllib_unload_policy("rc"), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(val(nullptr, "/root/all/path"), "/opt/c");
}

TEST_P(XmlTest, AlternateConfigurationAndBack)
{
    start();
    home_.write("new.conf", "<root><all><path>/opt/new</path></all></root>");
    void* h = nullptr;
    ASSERT_EQ(xmllib_load_pathconfig((home_ / "new.conf").c_str(), &h), 0);
    EXPECT_EQ(val(nullptr, "/root/all/path"), "/opt/c") << "loading alone changes nothing";
    ASSERT_EQ(xmllib_change_config(h), 0);
    EXPECT_EQ(val(nullptr, "/root/all/path"), "/opt/new");
    EXPECT_EQ(val(nullptr, "/root/text/exact"), "<rc 4>");
    ASSERT_EQ(xmllib_change_config(nullptr), 0);
    EXPECT_EQ(val(nullptr, "/root/all/path"), "/opt/c");
    // Unloading the current one makes the default current again.
    ASSERT_EQ(xmllib_change_config(h), 0);
    ASSERT_EQ(xmllib_unload_pathconfig(h), 0);
    EXPECT_EQ(val(nullptr, "/root/all/path"), "/opt/c");
    EXPECT_EQ(xmllib_change_config(h), ZOR_XMLERR_INVALID_HANDLE);

    // Without a default configuration there is nothing to switch back to.
    ASSERT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(xmllib_change_config(nullptr), ZOR_XMLERR_NOT_LOAD);
    EXPECT_EQ(val(nullptr, "/root/all/path"), "<rc 2>");
}

// A file changed after its index was read: the element at the place the
// index gives is no longer the one it names, and the read parses the file
// afresh (a file parsed whole answers from the copy it parsed).
TEST_P(XmlTest, FileChangedUnderItsIndex)
{
    start();
    std::string renamed = kConf;  // the same length: every element stays where it was
    renamed.replace(renamed.find("\"fs2\""), 5, "\"fs9\"");
    home_.write("etc/zor.conf", renamed);
    EXPECT_EQ(val(nullptr, "/root/resource/disk@fs2/parameters/device"),
              GetParam() ? "/dev/second" : "/dev/fs2");
    EXPECT_EQ(val(nullptr, "/root/resource/disk@fs9/parameters/device"), GetParam() ? "/dev/fs2" : "<rc 4>");
}

INSTANTIATE_TEST_SUITE_P(ParsedAndIndexed, XmlTest, ::testing::Bool());

}  // namespace
