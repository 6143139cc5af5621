// The registry for real, in a temporary node: round trips, values never
// written, damaged files, bad arguments, and a writer killed by SIGKILL.
// The check schedule's tests cover a registry that cannot be created.
#include "node_home.h"
#include "zorreg.h"

#include <signal.h>
#include <sys/time.h>
#include <climits>
#include <ctime>
#include <random>
#include <set>

namespace {

class RegTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (const char* t : {"disk", "nas"}) {
            while (reg_term(t) == REG_SUCCESS) {
            }
        }
    }
    NodeHome home_;
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

TEST_F(RegTest, RoundTripAndNeverWritten)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    // Never written: 0 with success (a string never written: the check schedule tests).
    EXPECT_EQ(get_int("fs1", "fsckinterval"), "0");
    ASSERT_EQ(set_int("fs1", "fsckinterval", INT_MIN), REG_SUCCESS);
    EXPECT_EQ(get_int("fs1", "fsckinterval"), std::to_string(INT_MIN));
    ASSERT_EQ(set_str("fs1", "device", ""), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "device"), "");
    // A string that fills the caller's buffer without a NUL: the buffer is the value.
    char raw[4] = {'a', 'b', 'c', 'd'};
    ASSERT_EQ(reg_set_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(raw), raw, 0), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "device", 5), "abcd");
    EXPECT_EQ(get_int("fs1", "device"), "<rc 6>");
    // A cut value is never handed out as if it were the value.
    char buf[4] = "xxx";
    EXPECT_EQ(reg_get_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(buf), buf), REG_ERR_NOTENOUGH);
    EXPECT_STREQ(buf, "");
}

// Temporaries of writers that died are removed by the next write once they
// are old enough that no live writer can own them.
TEST_F(RegTest, StaleTemporariesAreRemoved)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 1), REG_SUCCESS);
    const std::string dir = "var/registry/disk/fs1/";
    const std::pair<const char*, int> files[] = {{".tmp.old", 66}, {".tmp.fresh", 0}, {"notes", 3600}};
    for (const auto& [name, age] : files) {
        home_.write(dir + name, "x");
        struct timeval tv[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
        ASSERT_EQ(utimes((home_ / (dir + name)).c_str(), tv), 0);
    }
    ASSERT_EQ(set_int("fs1", "fsckinterval", 2), REG_SUCCESS);
    EXPECT_EQ(entries(home_ / dir), (std::vector<std::string>{".tmp.fresh", "fsckinterval", "notes"}));
    EXPECT_EQ(get_int("fs1", "fsckinterval"), "2");
}

// A value file that is not root's alone, or one below a directory that others may write, is never read;
// a write replaces such a file with one of root's.
TEST_F(RegTest, FilesNotRootsAloneAreNotRead)
{
    ZOR_REQUIRE_ROOT();
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 5), REG_SUCCESS);
    const std::string file = home_ / "var/registry/disk/fs1/fsckinterval";
    ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
    const std::string foreign = get_int("fs1", "fsckinterval");
    ASSERT_EQ(set_int("fs1", "fsckinterval", 6), REG_SUCCESS);
    struct stat st = {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    const std::string replaced = get_int("fs1", "fsckinterval");
    ASSERT_EQ(chmod((home_ / "var/registry/disk").c_str(), 0777), 0);
    EXPECT_EQ(std::tuple(foreign, replaced, st.st_uid, st.st_mode & 07777, get_int("fs1", "fsckinterval")),
              std::tuple("<rc 7>", "6", 0u, 0600u, "<rc 7>"));
}

TEST_F(RegTest, DamagedValueIsAnError)
{
    const std::pair<const char*, void (*)(std::string&)> cases[] = {
        {"last byte lost", [](std::string& s) { s.pop_back(); }},
        {"bad magic", [](std::string& s) { s[0] = 'X'; }},
        {"value byte flipped", [](std::string& s) { s[s.size() - 2] ^= 0x20; }},
        {"huge garbage", [](std::string& s) { s.assign(100000, 'Z'); }},
    };
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    for (const auto& [name, damage] : cases) {
        ASSERT_EQ(set_str("fs1", "device", "/dev/sdb1"), REG_SUCCESS);
        std::string s = home_.read("var/registry/disk/fs1/device");
        damage(s);
        home_.write("var/registry/disk/fs1/device", s);
        EXPECT_EQ(get_str("fs1", "device"), "<rc 5>") << name;
    }
}

TEST_F(RegTest, CallOrderAndBadArguments)
{
    const std::string n255(255, 'n'), n256(256, 'n');
    int iv = 1;
    const int BAD = REG_ERR_INVALIDPARAM;
    expect_calls({
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
        {"empty resource", set_int("", "k", 1), BAD},
        {"dotdot resource", set_int("..", "k", 1), BAD},
        {"slash in key", set_int("r", "a/b", 1), BAD},
        {"temporary's name", set_int("r", ".tmp.abcdef", 1), BAD},
        {"int size 3", reg_get_value("disk", "r", "k", REG_TYPE_INT, 3, &iv), BAD},
        {"flag 2", reg_set_value("disk", "r", "k", REG_TYPE_INT, 4, &iv, 2), BAD},
        {"last term", reg_term("disk"), 0},
        {"get after last term", reg_get_value("disk", "r", "k", REG_TYPE_INT, 4, &iv), REG_ERR_NOTINIT},
    });
}

// A writer killed by SIGKILL at any moment leaves the old value or the new
// one. The child writes two values in turn until it is killed after a random
// delay; then the parent reads.
TEST_F(RegTest, WriterKilledAtRandomMoments)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string a(900, 'A'), b(700, 'B');
    ASSERT_EQ(set_str("fs1", "device", a), REG_SUCCESS);
    std::mt19937 rng(20240501u);
    std::uniform_int_distribution<int> delay_us(0, 25000);
    std::set<std::string> seen;
    for (int round = 0; round < 150; round++) {
        // Starting with the other value each round, a child killed in its
        // first write may leave either.
        pid_t pid = spawn([&]() -> int {
            for (int i = round;; i++) {
                set_str("fs1", "device", (i & 1) != 0 ? b : a);
            }
        });
        usleep(static_cast<useconds_t>(delay_us(rng)));
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_child(pid), 128 + SIGKILL);
        const std::string dev = get_str("fs1", "device");
        ASSERT_TRUE(dev == a || dev == b) << "round " << round << ": " << dev.substr(0, 40);
        seen.insert(dev);
    }
    // Both values showed up, so the kills did land during the writes.
    EXPECT_EQ(seen.size(), 2u);
}

}  // namespace
