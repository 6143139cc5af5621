// The registry for real, in a temporary node: round trips, values never
// written, damaged files, bad arguments, and writers killed by SIGKILL at
// random moments.
#include "test_support.h"
#include "zorreg.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <random>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
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
    std::string value_file(const char* rsc, const char* key) const
    {
        return home_ / (std::string("var/registry/disk/") + rsc + "/" + key);
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

// The stored string, or "<rc N>".
std::string get_str(const char* rsc, const char* key, int size = 1024)
{
    std::vector<char> buf(static_cast<size_t>(size), 'Z');
    int rc = reg_get_value("disk", rsc, key, REG_TYPE_STRING, size, buf.data());
    return rc == REG_SUCCESS ? std::string(buf.data()) : "<rc " + std::to_string(rc) + ">";
}

TEST_F(RegTest, RoundTrip)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    for (int v : {0, 1, -1, INT_MAX, INT_MIN, 42}) {
        ASSERT_EQ(set_int("fs1", "fsckinterval", v), REG_SUCCESS) << v;
        int got = 7;
        ASSERT_EQ(reg_get_value("disk", "fs1", "fsckinterval", REG_TYPE_INT, sizeof(got), &got), REG_SUCCESS);
        EXPECT_EQ(got, v);
    }
    const std::string strings[] = {"/dev/sdb1",      "",         "a", std::string(1023, 'x'),
                                   "blanks and é ü", "/dev/sdc1"};
    for (const std::string& v : strings) {
        ASSERT_EQ(set_str("fs1", "device", v), REG_SUCCESS);
        EXPECT_EQ(get_str("fs1", "device"), v);
    }
    // A string fills the caller's buffer without a NUL: the buffer is the value.
    char raw[4] = {'a', 'b', 'c', 'd'};
    ASSERT_EQ(reg_set_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(raw), raw, 0), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "device"), "abcd");

    // Values of other resources and types are apart, and on disk where
    // operators look for them.
    EXPECT_EQ(get_str("fs2", "device"), "");
    struct stat sb;
    EXPECT_EQ(stat(value_file("fs1", "device").c_str(), &sb), 0);
    EXPECT_EQ(stat(value_file("fs1", "fsckinterval").c_str(), &sb), 0);

    // No temporary file is left behind by writes that completed.
    DIR* d = opendir((home_ / "var/registry/disk/fs1").c_str());
    ASSERT_NE(d, nullptr);
    int entries = 0;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            entries++;
        } else {
            EXPECT_TRUE(strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) << e->d_name;
        }
    }
    closedir(d);
    EXPECT_EQ(entries, 2);
}

TEST_F(RegTest, NeverWrittenReadsAsNothing)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    int v = 12345;
    EXPECT_EQ(reg_get_value("disk", "new", "fsckinterval", REG_TYPE_INT, sizeof(v), &v), REG_SUCCESS);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(get_str("new", "device"), "");
    // The resource's directory exists, the key does not.
    ASSERT_EQ(set_int("new", "fsckinterval", 3), REG_SUCCESS);
    EXPECT_EQ(get_str("new", "device"), "");
}

TEST_F(RegTest, BufferSizes)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(set_str("fs1", "device", "0123456789"), REG_SUCCESS);
    struct Case {
        int size;
        std::string want;
    };
    const Case cases[] = {
        {1, "<rc 3>"},
        {10, "<rc 3>"},
        {11, "0123456789"},
        {1024, "0123456789"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(get_str("fs1", "device", c.size), c.want) << c.size;
    }
    // A cut value is never handed out as if it were the value.
    char buf[5] = "xxxx";
    EXPECT_EQ(reg_get_value("disk", "fs1", "device", REG_TYPE_STRING, sizeof(buf), buf), REG_ERR_NOTENOUGH);
    EXPECT_STREQ(buf, "");
    ASSERT_EQ(set_str("fs1", "empty", ""), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "empty", 1), "");
}

TEST_F(RegTest, StoredTypeMustMatch)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 5), REG_SUCCESS);
    ASSERT_EQ(set_str("fs1", "device", "/dev/sdb1"), REG_SUCCESS);
    int v = 0;
    EXPECT_EQ(get_str("fs1", "fsckinterval"), "<rc 6>");
    EXPECT_EQ(reg_get_value("disk", "fs1", "device", REG_TYPE_INT, sizeof(v), &v), REG_ERR_TYPE);
    // A write of the other type replaces the value.
    ASSERT_EQ(set_str("fs1", "fsckinterval", "five"), REG_SUCCESS);
    EXPECT_EQ(get_str("fs1", "fsckinterval"), "five");
}

// Damage done to a stored value file; each must read as an error.
TEST_F(RegTest, DamagedValueIsAnError)
{
    struct Case {
        const char* name;
        int want;
        void (*damage)(const std::string& path);
    };
    static std::string (*read_file)(const std::string&) = [](const std::string& path) {
        std::string s;
        FILE* f = fopen(path.c_str(), "rb");
        if (f != nullptr) {
            int c;
            while ((c = fgetc(f)) != EOF) {
                s += static_cast<char>(c);
            }
            fclose(f);
        }
        return s;
    };
    static void (*put)(const std::string&, const std::string&) = [](const std::string& path,
                                                                    const std::string& s) {
        FILE* f = fopen(path.c_str(), "wb");
        if (f != nullptr) {
            fwrite(s.data(), 1, s.size(), f);
            fclose(f);
        }
    };
    const Case cases[] = {
        {"empty file", REG_ERR_CORRUPT, [](const std::string& p) { put(p, ""); }},
        {"cut in the header", REG_ERR_CORRUPT,
         [](const std::string& p) { put(p, read_file(p).substr(0, 10)); }},
        {"last byte lost", REG_ERR_CORRUPT,
         [](const std::string& p) {
             std::string s = read_file(p);
             put(p, s.substr(0, s.size() - 1));
         }},
        {"byte appended", REG_ERR_CORRUPT, [](const std::string& p) { put(p, read_file(p) + "x"); }},
        {"bad magic", REG_ERR_CORRUPT,
         [](const std::string& p) {
             std::string s = read_file(p);
             s[0] = 'X';
             put(p, s);
         }},
        {"other version", REG_ERR_CORRUPT,
         [](const std::string& p) {
             std::string s = read_file(p);
             s[4] = 2;
             put(p, s);
         }},
        {"type byte flipped", REG_ERR_CORRUPT,
         [](const std::string& p) {
             std::string s = read_file(p);
             s[5] = 1;
             put(p, s);
         }},
        {"value byte flipped", REG_ERR_CORRUPT,
         [](const std::string& p) {
             std::string s = read_file(p);
             s[s.size() - 2] ^= 0x20;
             put(p, s);
         }},
        {"huge garbage", REG_ERR_CORRUPT, [](const std::string& p) { put(p, std::string(100000, '\x5a')); }},
        {"a directory", REG_ERR_IO,
         [](const std::string& p) {
             unlink(p.c_str());
             mkdir(p.c_str(), 0755);
         }},
    };
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    int i = 0;
    for (const Case& c : cases) {
        std::string rsc = "r" + std::to_string(i++);
        ASSERT_EQ(set_str(rsc.c_str(), "device", "/dev/sdb1"), REG_SUCCESS);
        c.damage(value_file(rsc.c_str(), "device"));
        EXPECT_EQ(get_str(rsc.c_str(), "device"), "<rc " + std::to_string(c.want) + ">") << c.name;
        // A new write repairs a damaged file (not a directory in its place).
        if (c.want == REG_ERR_CORRUPT) {
            ASSERT_EQ(set_str(rsc.c_str(), "device", "/dev/sdc1"), REG_SUCCESS) << c.name;
            EXPECT_EQ(get_str(rsc.c_str(), "device"), "/dev/sdc1") << c.name;
        }
    }
}

TEST_F(RegTest, CallsNeedInit)
{
    int v = 0;
    EXPECT_EQ(reg_get_value("disk", "fs1", "k", REG_TYPE_INT, sizeof(v), &v), REG_ERR_NOTINIT);
    EXPECT_EQ(set_int("fs1", "k", 1), REG_ERR_NOTINIT);
    EXPECT_EQ(reg_term("disk"), REG_ERR_NOTINIT);

    ASSERT_EQ(reg_init("nas"), REG_SUCCESS);
    EXPECT_EQ(set_int("fs1", "k", 1), REG_ERR_NOTINIT) << "init of another type";
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    EXPECT_EQ(reg_term("disk"), REG_SUCCESS);
    EXPECT_EQ(set_int("fs1", "k", 1), REG_SUCCESS) << "one init left";
    EXPECT_EQ(reg_term("disk"), REG_SUCCESS);
    EXPECT_EQ(reg_get_value("disk", "fs1", "k", REG_TYPE_INT, sizeof(v), &v), REG_ERR_NOTINIT);
    EXPECT_EQ(reg_term("disk"), REG_ERR_NOTINIT);

    // A registry that cannot be created is reported by reg_init.
    TempDir broken;
    setenv("ZOR_HOME", broken.path().c_str(), 1);
    std::string blocker = broken / "var";
    ASSERT_EQ(mkdir(blocker.c_str(), 0755), 0);
    FILE* f = fopen((blocker + "/registry").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    EXPECT_EQ(reg_init("disk"), REG_ERR_IO);
}

TEST_F(RegTest, BadArguments)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string n255(255, 'n');
    const std::string n256(256, 'n');
    int iv = 1;
    char sv[16] = "x";
    struct Case {
        const char* name;
        int rc;
        int want;
    };
    const Case cases[] = {
        {"255-byte names", reg_set_value("disk", n255.c_str(), n255.c_str(), REG_TYPE_INT, 4, &iv, 0),
         REG_SUCCESS},
        {"256-byte resource", reg_set_value("disk", n256.c_str(), "k", REG_TYPE_INT, 4, &iv, 0),
         REG_ERR_INVALIDPARAM},
        {"256-byte key", reg_get_value("disk", "r", n256.c_str(), REG_TYPE_INT, 4, &iv),
         REG_ERR_INVALIDPARAM},
        {"256-byte type", reg_init(n256.c_str()), REG_ERR_INVALIDPARAM},
        {"null type", reg_get_value(nullptr, "r", "k", REG_TYPE_INT, 4, &iv), REG_ERR_INVALIDPARAM},
        {"null resource", reg_set_value("disk", nullptr, "k", REG_TYPE_INT, 4, &iv, 0), REG_ERR_INVALIDPARAM},
        {"null key", reg_get_value("disk", "r", nullptr, REG_TYPE_INT, 4, &iv), REG_ERR_INVALIDPARAM},
        {"empty resource", reg_get_value("disk", "", "k", REG_TYPE_INT, 4, &iv), REG_ERR_INVALIDPARAM},
        {"empty type init", reg_init(""), REG_ERR_INVALIDPARAM},
        {"null type init", reg_init(nullptr), REG_ERR_INVALIDPARAM},
        {"null type term", reg_term(nullptr), REG_ERR_INVALIDPARAM},
        {"dot key", reg_set_value("disk", "r", ".", REG_TYPE_INT, 4, &iv, 0), REG_ERR_INVALIDPARAM},
        {"dotdot resource", reg_set_value("disk", "..", "k", REG_TYPE_INT, 4, &iv, 0), REG_ERR_INVALIDPARAM},
        {"dotdot type", reg_init(".."), REG_ERR_INVALIDPARAM},
        {"slash in key", reg_set_value("disk", "r", "a/b", REG_TYPE_INT, 4, &iv, 0), REG_ERR_INVALIDPARAM},
        {"slash in resource", reg_get_value("disk", "../x", "k", REG_TYPE_INT, 4, &iv), REG_ERR_INVALIDPARAM},
        {"temporary's name", reg_set_value("disk", "r", ".tmp.abcdef", REG_TYPE_INT, 4, &iv, 0),
         REG_ERR_INVALIDPARAM},
        {"value type 0", reg_get_value("disk", "r", "k", 0, 4, &iv), REG_ERR_INVALIDPARAM},
        {"value type 3", reg_set_value("disk", "r", "k", 3, 4, &iv, 0), REG_ERR_INVALIDPARAM},
        {"int size 3", reg_get_value("disk", "r", "k", REG_TYPE_INT, 3, &iv), REG_ERR_INVALIDPARAM},
        {"int size 0", reg_set_value("disk", "r", "k", REG_TYPE_INT, 0, &iv, 0), REG_ERR_INVALIDPARAM},
        {"string size 0", reg_get_value("disk", "r", "k", REG_TYPE_STRING, 0, sv), REG_ERR_INVALIDPARAM},
        {"string size -1", reg_set_value("disk", "r", "k", REG_TYPE_STRING, -1, sv, 0), REG_ERR_INVALIDPARAM},
        {"null get buffer", reg_get_value("disk", "r", "k", REG_TYPE_STRING, 16, nullptr),
         REG_ERR_INVALIDPARAM},
        {"null set value", reg_set_value("disk", "r", "k", REG_TYPE_INT, 4, nullptr, 0),
         REG_ERR_INVALIDPARAM},
        {"flag 1", reg_set_value("disk", "r", "k", REG_TYPE_INT, 4, &iv, 1), REG_ERR_INVALIDPARAM},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    // Nothing escaped the registry's tree.
    struct stat sb;
    EXPECT_NE(stat((home_ / "var/registry/x").c_str(), &sb), 0);
    EXPECT_NE(stat((home_ / "var/k").c_str(), &sb), 0);
}

// A writer killed by SIGKILL at any moment leaves the old value or the new
// one. The child writes two values in turn, as fast as it can, and is killed
// after a random delay; the parent then reads.
TEST_F(RegTest, WriterKilledAtRandomMoments)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    const std::string a(900, 'A');
    const std::string b(700, 'B');
    ASSERT_EQ(set_str("fs1", "device", a), REG_SUCCESS);
    ASSERT_EQ(set_int("fs1", "fsckinterval", 1), REG_SUCCESS);

    std::mt19937 rng(20240501u);
    std::uniform_int_distribution<int> delay_us(0, 25000);
    constexpr int kRounds = 150;
    int seen_a = 0;
    int seen_b = 0;
    int seen_1 = 0;
    int seen_2 = 0;
    for (int round = 0; round < kRounds; round++) {
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            alarm(30);
            // Each round starts with the other value, so that even a child
            // killed in its first write may leave either.
            for (int i = round;; i++) {
                bool odd = (i & 1) != 0;
                set_str("fs1", "device", odd ? b : a);
                set_int("fs1", "fsckinterval", odd ? 2 : 1);
            }
        }
        usleep(static_cast<useconds_t>(delay_us(rng)));
        kill(pid, SIGKILL);
        int st = 0;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);

        std::string dev = get_str("fs1", "device");
        ASSERT_TRUE(dev == a || dev == b) << "round " << round << ": " << dev.substr(0, 40);
        (dev == a ? seen_a : seen_b)++;
        int v = 0;
        ASSERT_EQ(reg_get_value("disk", "fs1", "fsckinterval", REG_TYPE_INT, sizeof(v), &v), REG_SUCCESS);
        ASSERT_TRUE(v == 1 || v == 2) << "round " << round << ": " << v;
        (v == 1 ? seen_1 : seen_2)++;
    }
    // Both values showed up, so the kills did land during the writes.
    EXPECT_GT(seen_a, 0);
    EXPECT_GT(seen_b, 0);
    EXPECT_GT(seen_1, 0);
    EXPECT_GT(seen_2, 0);
    RecordProperty("device_a", seen_a);
    RecordProperty("device_b", seen_b);
    // Temporaries left by killed writers: kills that landed inside a write.
    int cut = 0;
    if (DIR* d = opendir((home_ / "var/registry/disk/fs1").c_str())) {
        while (struct dirent* e = readdir(d)) {
            cut += strncmp(e->d_name, ".tmp.", 5) == 0 ? 1 : 0;
        }
        closedir(d);
    }
    RecordProperty("killed_inside_a_write", cut);
}

TEST_F(RegTest, ConcurrentWritersOfOneKey)
{
    ASSERT_EQ(reg_init("disk"), REG_SUCCESS);
    constexpr int kWriters = 3;
    constexpr int kWrites = 60;
    auto value_of = [](int w) {
        return std::string(static_cast<size_t>(100 + w * 200), static_cast<char>('a' + w));
    };
    std::vector<pid_t> pids;
    for (int w = 0; w <= kWriters; w++) {
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            alarm(60);
            int bad = 0;
            for (int i = 0; i < kWrites; i++) {
                if (w == kWriters) {
                    // The reader: every read is a whole value of some writer,
                    // or nothing before the first write.
                    std::string s = get_str("fs1", "device");
                    bool ok = s.empty();
                    for (int x = 0; x < kWriters; x++) {
                        ok = ok || s == value_of(x);
                    }
                    bad += ok ? 0 : 1;
                    usleep(1000);
                } else if (set_str("fs1", "device", value_of(w)) != REG_SUCCESS) {
                    bad++;
                }
            }
            _exit(bad == 0 ? 0 : 1);
        }
        pids.push_back(pid);
    }
    for (pid_t pid : pids) {
        int st = 0;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    std::string last = get_str("fs1", "device");
    bool known = false;
    for (int x = 0; x < kWriters; x++) {
        known = known || last == value_of(x);
    }
    EXPECT_TRUE(known) << last.substr(0, 40);
}

}  // namespace
