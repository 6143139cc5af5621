// The registry for real, in a temporary node: round trips, values never
// written, damaged files, bad arguments, and writers killed by SIGKILL.
#include "test_support.h"
#include "zorreg.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

class RegTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(home_.path().empty());
        setenv("ZOR_HOME", home_.path().c_str(), 1);
    }
    void TearDown() override
    {
        for (const char* t : {"disk", "nas"}) {
            while (reg_term(t) == REG_SUCCESS) {
            }
        }
        unsetenv("ZOR_HOME");
    }
    std::string value_file(const std::string& rsc, const char* key) const
    {
        return home_ / ("var/registry/disk/" + rsc + "/" + key);
    }
    TempDir home_;
};

int set_int(const char* rsc, const char* key, int v)
{
    return reg_set_value("disk", rsc, key, REG_TYPE_INT, sizeof(v), &v, 0);
}

int set_str(const char* rsc, const char* key, const std::string& v)
{
    return reg_set_value("disk", rsc, key, REG_TYPE_STRING, static_cast<int>(v.size() + 1), v.c_str(), 0);
}

// The stored int, or "<rc N>".
std::string get_int(const char* rsc, const char* key)
{
    int v = 12345;
    int rc = reg_get_value("disk", rsc, key, REG_TYPE_INT, sizeof(v), &v);
    return rc == REG_SUCCESS ? std::to_string(v) : "<rc " + std::to_string(rc) + ">";
}

// The stored string, or "<rc N>".
std::string get_str(const char* rsc, const char* key, int size = 1024)
{
    std::vector<char> buf(static_cast<size_t>(size), 'Z');
    int rc = reg_get_value("disk", rsc, key, REG_TYPE_STRING, size, buf.data());
    return rc == REG_SUCCESS ? std::string(buf.data()) : "<rc " + std::to_string(rc) + ">";
}

// Names in a resource's directory, temporaries of writers included.
std::vector<std::string> entries(const std::string& dir)
{
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
                out.emplace_back(e->d_name);
            }
        }
        closedir(d);
    }
    return out;
}

TEST_F(RegTest, RoundTripAndNeverWritten)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    // Never written: "" and 0 with success, before and after the resource exists.
    EXPECT_EQ(get_int("fs1", "fsckinterval"), "0");
    EXPECT_EQ(get_str("fs1", "device"), "");
    for (int v : {0, -1, INT_MAX, INT_MIN, 42}) {
        ASSERT_EQ(set_int("fs1", "fsckinterval", v), REG_SUCCESS) << v;
        EXPECT_EQ(get_int("fs1", "fsckinterval"), std::to_string(v));
    }
    EXPECT_EQ(get_str("fs1", "device"), "");
    for (const std::string& v :
         {std::string("/dev/sdb1"), std::string(), std::string(1023, 'x'), std::string("blanks and é ü")}) {
        ASSERT_EQ(set_str("fs1", "device", v), REG_SUCCESS);
        EXPECT_EQ(get_str("fs1", "device"), v);
    }
    // A string fills the caller's buffer without a NUL: the buffer is the value.
    char raw[4] = {'a', 'b', 'c', 'd'};
    ASSERT_EQ(reg_set_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(raw), raw, 0), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "device"), "abcd");
    EXPECT_EQ(get_str("fs2", "device"), "");
    // Where operators look for them, and no temporary left by completed writes.
    auto names = entries(home_ / "var/registry/disk/fs1");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"device", "fsckinterval"}));
}

TEST_F(RegTest, BufferSizeAndStoredType)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(set_str("fs1", "device", "0123456789"), REG_SUCCESS);
    ASSERT_EQ(set_str("fs1", "empty", ""), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 5), REG_SUCCESS);
    struct Case {
        const char* key;
        int size;
        std::string want;
    } cases[] = {
        {"device", 10, "<rc 3>"},  // one short of the terminator
        {"device", 11, "0123456789"},
        {"empty", 1, ""},
        {"fsckinterval", 64, "<rc 6>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(get_str("fs1", c.key, c.size), c.want) << c.key << " " << c.size;
    }
    EXPECT_EQ(get_int("fs1", "device"), "<rc 6>");
    // A cut value is never handed out as if it were the value.
    char buf[5] = "xxxx";
    EXPECT_EQ(reg_get_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(buf), buf), REG_ERR_NOTENOUGH);
    EXPECT_STREQ(buf, "");
    // A write of the other type replaces the value.
    ASSERT_EQ(set_str("fs1", "fsckinterval", "five"), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "fsckinterval"), "five");
}

// Damage done to a stored value file (header: magic, version, type, length,
// CRC); each must read as an error, and a new write repairs it.
TEST_F(RegTest, DamagedValueIsAnError)
{
    struct Case {
        const char* name;
        std::function<void(std::string&)> damage;
    } cases[] = {
        {"empty file", [](std::string& s) { s.clear(); }},
        {"cut in the header", [](std::string& s) { s.resize(10); }},
        {"last byte lost", [](std::string& s) { s.pop_back(); }},
        {"byte appended", [](std::string& s) { s += 'x'; }},
        {"bad magic", [](std::string& s) { s[0] = 'X'; }},
        {"other version", [](std::string& s) { s[4] = 2; }},
        {"type byte flipped", [](std::string& s) { s[5] = 1; }},
        {"value byte flipped", [](std::string& s) { s[s.size() - 2] ^= 0x20; }},
        {"huge garbage", [](std::string& s) { s.assign(100000, 'Z'); }},
    };
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string file = value_file("fs1", "device");
    for (const Case& c : cases) {
        ASSERT_EQ(set_str("fs1", "device", "/dev/sdb1"), REG_SUCCESS);
        std::stringstream ss;
        ss << std::ifstream(file, std::ios::binary).rdbuf();
        std::string s = ss.str();
        c.damage(s);
        std::ofstream(file, std::ios::binary | std::ios::trunc) << s;
        EXPECT_EQ(get_str("fs1", "device"), "<rc 5>") << c.name;
        ASSERT_EQ(set_str("fs1", "device", "/dev/sdc1"), REG_SUCCESS) << c.name;
        EXPECT_EQ(get_str("fs1", "device"), "/dev/sdc1") << c.name;
    }
    // Something that is not a file at all cannot be read.
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_EQ(mkdir(file.c_str(), 0755), 0);
    EXPECT_EQ(get_str("fs1", "device"), "<rc 4>");
}

TEST_F(RegTest, CallsNeedInit)
{
    EXPECT_EQ(get_int("fs1", "k"), "<rc 1>");
    EXPECT_EQ(reg_term("disk"), REG_ERR_NOTINIT);
    ASSERT_EQ(reg_init("nas"), REG_SUCCESS);
    EXPECT_EQ(set_int("fs1", "k", 1), REG_ERR_NOTINIT) << "init of another type";
    // Counted: each init needs its term.
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    EXPECT_EQ(reg_term("disk"), REG_SUCCESS);
    EXPECT_EQ(set_int("fs1", "k", 1), REG_SUCCESS) << "one init left";
    EXPECT_EQ(reg_term("disk"), REG_SUCCESS);
    EXPECT_EQ(get_int("fs1", "k"), "<rc 1>");

    // A registry that cannot be created is reported by reg_init.
    TempDir broken;
    setenv("ZOR_HOME", broken.path().c_str(), 1);
    ASSERT_EQ(mkdir((broken / "var").c_str(), 0755), 0);
    std::ofstream(broken / "var/registry") << "a file";
    EXPECT_EQ(reg_init("disk"), REG_ERR_IO);
}

TEST_F(RegTest, BadArguments)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string n255(255, 'n');
    const std::string n256(256, 'n');
    int iv = 1;
    const struct {
        const char* name;
        int rc;
        int want;
    } cases[] = {
        {"255-byte names", set_int(n255.c_str(), n255.c_str(), 1), REG_SUCCESS},
        {"256-byte resource", set_int(n256.c_str(), "k", 1), REG_ERR_INVALIDPARAM},
        {"256-byte key", set_int("r", n256.c_str(), 1), REG_ERR_INVALIDPARAM},
        {"256-byte type", reg_init(n256.c_str()), REG_ERR_INVALIDPARAM},
        {"null type", reg_get_value(nullptr, "r", "k", REG_TYPE_INT, 4, &iv), REG_ERR_INVALIDPARAM},
        {"null key", set_int("r", nullptr, 1), REG_ERR_INVALIDPARAM},
        {"empty resource", set_int("", "k", 1), REG_ERR_INVALIDPARAM},
        {"empty type init", reg_init(""), REG_ERR_INVALIDPARAM},
        {"null type term", reg_term(nullptr), REG_ERR_INVALIDPARAM},
        {"dot key", set_int("r", ".", 1), REG_ERR_INVALIDPARAM},
        {"dotdot resource", set_int("..", "k", 1), REG_ERR_INVALIDPARAM},
        {"slash in key", set_int("r", "a/b", 1), REG_ERR_INVALIDPARAM},
        {"temporary's name", set_int("r", ".tmp.abcdef", 1), REG_ERR_INVALIDPARAM},
        {"value type 3", reg_set_value("disk", "r", "k", 3, 4, &iv, 0), REG_ERR_INVALIDPARAM},
        {"int size 3", reg_get_value("disk", "r", "k", REG_TYPE_INT, 3, &iv), REG_ERR_INVALIDPARAM},
        {"string size 0", reg_get_value("disk", "r", "k", REG_TYPE_STRING, 0, &iv), REG_ERR_INVALIDPARAM},
        {"string size -1", reg_set_value("disk", "r", "k", REG_TYPE_STRING, -1, "x", 0),
         REG_ERR_INVALIDPARAM},
        {"null buffer", reg_get_value("disk", "r", "k", REG_TYPE_STRING, 16, nullptr), REG_ERR_INVALIDPARAM},
        {"flag 1", reg_set_value("disk", "r", "k", REG_TYPE_INT, 4, &iv, 1), REG_ERR_INVALIDPARAM},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    // Nothing escaped the registry's tree.
    EXPECT_EQ(entries(home_ / "var").size(), 1u);
    EXPECT_EQ(entries(home_ / "var/registry"), std::vector<std::string>{"disk"});
}

// A writer killed by SIGKILL at any moment leaves the old value or the new
// one. The child writes two values in turn as fast as it can and is killed
// after a random delay; then the parent reads.
TEST_F(RegTest, WriterKilledAtRandomMoments)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string a(900, 'A');
    const std::string b(700, 'B');
    ASSERT_EQ(set_str("fs1", "device", a), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 1), REG_SUCCESS);
    std::mt19937 rng(20240501u);
    std::uniform_int_distribution<int> delay_us(0, 25000);
    int seen[4] = {0, 0, 0, 0};  // device a, device b, interval 1, interval 2
    for (int round = 0; round < 150; round++) {
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            alarm(30);
            // Each round starts with the other value, so that even a child
            // killed in its first write may leave either.
            for (int i = round;; i++) {
                set_str("fs1", "device", (i & 1) != 0 ? b : a);
                set_int("fs1", "fsckinterval", (i & 1) != 0 ? 2 : 1);
            }
        }
        usleep(static_cast<useconds_t>(delay_us(rng)));
        kill(pid, SIGKILL);
        int st = 0;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);

        std::string dev = get_str("fs1", "device");
        ASSERT_TRUE(dev == a || dev == b) << "round " << round << ": " << dev.substr(0, 40);
        std::string iv = get_int("fs1", "fsckinterval");
        ASSERT_TRUE(iv == "1" || iv == "2") << "round " << round << ": " << iv;
        seen[dev == a ? 0 : 1]++;
        seen[iv == "1" ? 2 : 3]++;
    }
    // Both values showed up, so the kills did land during the writes.
    for (int n : seen) {
        EXPECT_GT(n, 0);
    }
}

// Writers in several processes share no temporary file: the last rename
// wins, whole, and nothing is left behind.
TEST_F(RegTest, ConcurrentWritersOfOneKey)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    auto value_of = [](int w) { return std::string(static_cast<size_t>(100 + w * 200), 'a' + w); };
    std::vector<pid_t> pids;
    for (int w = 0; w < 3; w++) {
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            alarm(60);
            for (int i = 0; i < 60; i++) {
                if (set_str("fs1", "device", value_of(w)) != REG_SUCCESS) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        pids.push_back(pid);
    }
    for (pid_t pid : pids) {
        int st = 0;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    std::string last = get_str("fs1", "device");
    EXPECT_TRUE(last == value_of(0) || last == value_of(1) || last == value_of(2)) << last.substr(0, 40);
    EXPECT_EQ(entries(home_ / "var/registry/disk/fs1"), std::vector<std::string>{"device"});
}

}  // namespace
