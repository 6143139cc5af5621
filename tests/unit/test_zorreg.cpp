// The registry for real, in a temporary node: round trips, values never
// written, damaged files, bad arguments, and a writer killed by SIGKILL.
#include "test_support.h"
#include "zorreg.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <algorithm>
#include <climits>
#include <ctime>
#include <fstream>
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

// The stored value, or "<rc N>".
std::string get_int(const char* rsc, const char* key)
{
    int v = 12345;
    int rc = reg_get_value("disk", rsc, key, REG_TYPE_INT, sizeof(v), &v);
    return rc == REG_SUCCESS ? std::to_string(v) : "<rc " + std::to_string(rc) + ">";
}

std::string get_str(const char* rsc, const char* key, int size = 1024)
{
    std::vector<char> buf(static_cast<size_t>(size), 'Z');
    int rc = reg_get_value("disk", rsc, key, REG_TYPE_STRING, size, buf.data());
    return rc == REG_SUCCESS ? std::string(buf.data()) : "<rc " + std::to_string(rc) + ">";
}

// Sorted names in a directory, writers' temporaries included.
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
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(RegTest, RoundTripAndNeverWritten)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    // Never written: 0 and "" with success, before and after the resource exists.
    EXPECT_EQ(get_int("fs1", "fsckinterval"), "0");
    for (int v : {INT_MIN, INT_MAX}) {
        ASSERT_EQ(set_int("fs1", "fsckinterval", v), REG_SUCCESS);
        EXPECT_EQ(get_int("fs1", "fsckinterval"), std::to_string(v));
    }
    EXPECT_EQ(get_str("fs1", "device"), "");
    for (const std::string& v : {std::string(1023, 'x'), std::string()}) {
        ASSERT_EQ(set_str("fs1", "device", v), REG_SUCCESS);
        EXPECT_EQ(get_str("fs1", "device"), v);
    }
    // A string that fills the caller's buffer without a NUL: the buffer is the value.
    char raw[4] = {'a', 'b', 'c', 'd'};
    ASSERT_EQ(reg_set_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(raw), raw, 0), REG_SUCCESS);
    const struct {
        const char* key;
        int size;
        std::string want;
    } reads[] = {
        {"device", 5, "abcd"},
        {"fsckinterval", 64, "<rc 6>"},
    };
    for (const auto& r : reads) {
        EXPECT_EQ(get_str("fs1", r.key, r.size), r.want) << r.key << " " << r.size;
    }
    EXPECT_EQ(get_int("fs1", "device"), "<rc 6>");
    // A cut value is never handed out as if it were the value.
    char buf[4] = "xxx";
    EXPECT_EQ(reg_get_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(buf), buf), REG_ERR_NOTENOUGH);
    EXPECT_STREQ(buf, "");
    // Where operators look for them, and no temporary left behind.
    EXPECT_EQ(entries(home_ / "var/registry/disk/fs1"), (std::vector<std::string>{"device", "fsckinterval"}));
}

// Temporaries of writers that died are removed by the next write once they
// are old enough that no live writer can own them.
TEST_F(RegTest, StaleTemporariesAreRemoved)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 1), REG_SUCCESS);
    const std::string dir = home_ / "var/registry/disk/fs1";
    const struct {
        const char* name;
        int age;  // seconds
        bool kept;
    } files[] = {
        {".tmp.old1", 3600, false},
        {".tmp.old2", 66, false},
        {".tmp.fresh", 0, true},
        {"notes", 3600, true},
    };
    for (const auto& f : files) {
        std::ofstream(dir + "/" + f.name) << "x";
        struct timeval tv[2] = {{time(nullptr) - f.age, 0}, {time(nullptr) - f.age, 0}};
        ASSERT_EQ(utimes((dir + "/" + f.name).c_str(), tv), 0);
    }
    ASSERT_EQ(set_int("fs1", "fsckinterval", 2), REG_SUCCESS);
    std::vector<std::string> want = {"fsckinterval"};
    for (const auto& f : files) {
        if (f.kept) {
            want.emplace_back(f.name);
        }
    }
    std::sort(want.begin(), want.end());
    EXPECT_EQ(entries(dir), want);
    EXPECT_EQ(get_int("fs1", "fsckinterval"), "2");
}

TEST_F(RegTest, DamagedValueIsAnError)
{
    const struct {
        const char* name;
        void (*damage)(std::string&);
    } cases[] = {
        {"cut in the header", [](std::string& s) { s.resize(10); }},
        {"last byte lost", [](std::string& s) { s.pop_back(); }},
        {"bad magic", [](std::string& s) { s[0] = 'X'; }},
        {"value byte flipped", [](std::string& s) { s[s.size() - 2] ^= 0x20; }},
        {"huge garbage", [](std::string& s) { s.assign(100000, 'Z'); }},
    };
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string file = home_ / "var/registry/disk/fs1/device";
    for (const auto& c : cases) {
        ASSERT_EQ(set_str("fs1", "device", "/dev/sdb1"), REG_SUCCESS);
        std::stringstream ss;
        ss << std::ifstream(file, std::ios::binary).rdbuf();
        std::string s = ss.str();
        c.damage(s);
        std::ofstream(file, std::ios::binary | std::ios::trunc) << s;
        EXPECT_EQ(get_str("fs1", "device"), "<rc 5>") << c.name;
        // A new write repairs it.
        ASSERT_EQ(set_str("fs1", "device", "/dev/sdc1"), REG_SUCCESS) << c.name;
        EXPECT_EQ(get_str("fs1", "device"), "/dev/sdc1") << c.name;
    }
}

// Rows are calls made in order, each with the result it must give.
TEST_F(RegTest, CallOrderAndBadArguments)
{
    const std::string n255(255, 'n'), n256(256, 'n');
    int iv = 1;
    const int BAD = REG_ERR_INVALIDPARAM;
    const struct {
        const char* name;
        int rc;
        int want;
    } cases[] = {
        {"get before init", reg_get_value("disk", "r", "k", REG_TYPE_INT, 4, &iv), REG_ERR_NOTINIT},
        {"term before init", reg_term("disk"), REG_ERR_NOTINIT},
        {"init of another type", reg_init("nas"), 0},
        {"set with another type's init", set_int("r", "k", 1), REG_ERR_NOTINIT},
        {"init", reg_init("disk"), 0},
        {"init again: counted", reg_init("disk"), 0},
        {"term", reg_term("disk"), 0},
        {"set, one init left", set_int("r", "k", 1), 0},
        {"255-byte names", set_int(n255.c_str(), n255.c_str(), 1), 0},
        {"256-byte resource", set_int(n256.c_str(), "k", 1), BAD},
        {"256-byte type", reg_init(n256.c_str()), BAD},
        {"empty resource", set_int("", "k", 1), BAD},
        {"dotdot resource", set_int("..", "k", 1), BAD},
        {"slash in key", set_int("r", "a/b", 1), BAD},
        {"temporary's name", set_int("r", ".tmp.abcdef", 1), BAD},
        {"int size 3", reg_get_value("disk", "r", "k", REG_TYPE_INT, 3, &iv), BAD},
        {"flag 1", reg_set_value("disk", "r", "k", REG_TYPE_INT, 4, &iv, 1), BAD},
        {"last term", reg_term("disk"), 0},
        {"get after last term", reg_get_value("disk", "r", "k", REG_TYPE_INT, 4, &iv), REG_ERR_NOTINIT},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    // Nothing escaped the registry's tree.
    EXPECT_EQ(entries(home_ / "var"), std::vector<std::string>{"registry"});
    EXPECT_EQ(entries(home_ / "var/registry"), (std::vector<std::string>{"disk", "nas"}));

    // A registry that cannot be created is reported by reg_init.
    TempDir broken;
    setenv("ZOR_HOME", broken.path().c_str(), 1);
    ASSERT_EQ(mkdir((broken / "var").c_str(), 0755), 0);
    std::ofstream(broken / "var/registry") << "a file";
    EXPECT_EQ(reg_init("disk"), REG_ERR_IO);
}

// A writer killed by SIGKILL at any moment leaves the old value or the new
// one. The child writes two values in turn until it is killed after a random
// delay; then the parent reads.
TEST_F(RegTest, WriterKilledAtRandomMoments)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string a(900, 'A'), b(700, 'B');
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
            // Starting with the other value each round, a child killed in its
            // first write may leave either.
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

}  // namespace
