// The log library against real files, several threads and several processes.
#include "zorlog.h"

#include "test_support.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <fstream>
#include <regex.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream f(path);
    for (std::string line; std::getline(f, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// The message part of a record: what follows "function: ".
std::string message_of(const std::string& line, const std::string& func)
{
    size_t pos = line.find(" " + func + ": ");
    return pos == std::string::npos ? std::string("<no message>") : line.substr(pos + func.size() + 3);
}

// "YYYY-MM-DD hh:mm:ss.uuuuuu [pid:tid] LEVEL file:line function: message".
bool is_record(const std::string& l)
{
    // POSIX regex: g++ 12 warns falsely inside std::regex at -O2.
    static regex_t re;
    static const bool compiled =
        regcomp(&re,
                "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} \\[[0-9]+:[0-9]+\\] "
                "(ERROR|WARN|INFO|DETAIL|EVENT|L[0-9]+) [^ ]+:[0-9]+ [^ ]+: .*$",
                REG_EXTENDED | REG_NOSUB) == 0;
    return compiled && regexec(&re, l.c_str(), 0, nullptr, 0) == 0;
}

TEST(Log, RecordLayoutInDefaultDirectory)
{
    TempDir home;
    setenv("ZOR_HOME", home.path().c_str(), 1);
    void* h = nullptr;
    ASSERT_EQ(log_init("disk", &h, 8, 0, nullptr), ZOR_LOG_SUCCESS);
    unsetenv("ZOR_HOME");
    ASSERT_NE(h, nullptr);
    log_write(h, ZOR_LOG_INFO, 0, "src/disk_main", 42, "main", "x=%d y=%s", 5, "abc");
    log_write(h, ZOR_LOG_ERROR, 0, nullptr, 0, nullptr, "no origin");
    // Texts are cut at 1023 characters and never span lines.
    log_write(h, ZOR_LOG_INFO, 0, "f", 1, "fn", "%s", std::string(5000, 'a').c_str());
    log_write(h, ZOR_LOG_INFO, 0, "f", 1, "fn", "first\nsecond\r\nthird\n");
    log_term(h);
    auto lines = read_lines(home / "log/disk.log");
    ASSERT_EQ(lines.size(), 4u);
    for (const auto& l : lines) {
        EXPECT_TRUE(is_record(l)) << l;
    }
    EXPECT_NE(lines[0].find("[" + std::to_string(getpid()) + ":"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(" INFO src/disk_main:42 main: x=5 y=abc"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" ERROR -:0 -: no origin"), std::string::npos) << lines[1];
    EXPECT_EQ(message_of(lines[2], "fn"), std::string(1023, 'a'));
    EXPECT_EQ(message_of(lines[3], "fn"), "first second  third ");
}

TEST(Log, LevelFiltering)
{
    const int record_levels[] = {ZOR_LOG_ERROR, ZOR_LOG_WARNING, ZOR_LOG_INFO, ZOR_LOG_DETAIL, 16,
                                 ZOR_LOG_EVENT};
    struct Case {
        int configured;
        const char* kept;  // one letter per record level above: y kept, n dropped
    } cases[] = {
        {-3, "ynnnny"}, {0, "ynnnny"}, {1, "ynnnny"},  {2, "yynnny"},
        {4, "yyynny"},  {8, "yyyyny"}, {32, "yyyyyy"}, {3, "yynnny"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        void* h = nullptr;
        ASSERT_EQ(log_init("lv", &h, c.configured, 0, dir.path().c_str()), 0);
        for (int lv : record_levels) {
            log_write(h, lv, 0, "f", 1, "fn", "level %d", lv);
        }
        log_term(h);
        std::set<std::string> got;
        for (const auto& l : read_lines(dir / "lv.log")) {
            got.insert(message_of(l, "fn"));
        }
        for (size_t i = 0; i < 6; i++) {
            EXPECT_EQ(got.count("level " + std::to_string(record_levels[i])) == 1, c.kept[i] == 'y')
                << "configured " << c.configured << ", record level " << record_levels[i];
        }
    }
}

TEST(Log, EventCatalogue)
{
    TempDir dir;
    void* h = nullptr;
    ASSERT_EQ(log_init("ev", &h, 1, 0, dir.path().c_str()), 0);
    const char* fsck = "/sbin/fsck";
    const char* dev = "/dev/sdb1";
    log_write(h, ZOR_LOG_EVENT, 10, "f", 1, "fn", nullptr, fsck, dev);
    log_write(h, ZOR_LOG_EVENT, 11, "f", 1, "fn", nullptr, fsck, dev);
    log_write(h, ZOR_LOG_EVENT, 12, "f", 1, "fn", nullptr, "/bin/mount", dev, 32);
    log_write(h, ZOR_LOG_EVENT, 13, "f", 1, "fn", nullptr, "/sbin/reiserfsck", dev, "--rebuild-tree");
    log_write(h, ZOR_LOG_EVENT, 14, "f", 1, "fn", nullptr, "/sbin/reiserfsck", dev, "--fix-fixable");
    log_write(h, ZOR_LOG_EVENT, 15, "f", 1, "fn", nullptr, "/bin/mount", dev);
    log_write(h, ZOR_LOG_EVENT, 16, "f", 1, "fn", nullptr, dev);
    log_write(h, ZOR_LOG_EVENT, 17, "f", 1, "fn", nullptr, "lvm", "zfs");
    log_write(h, ZOR_LOG_EVENT, 10, "f", 1, "fn", nullptr, nullptr, dev);
    log_write(h, ZOR_LOG_EVENT, 99, "f", 1, "fn", nullptr);
    log_write(h, ZOR_LOG_EVENT, 12, "f", 1, "fn", "own text %s", "here");
    log_term(h);
    const char* expected[] = {
        "ZOR-10: file system check started. (command=/sbin/fsck, device=/dev/sdb1)",
        "ZOR-11: file system is clean. (command=/sbin/fsck, device=/dev/sdb1)",
        "ZOR-12: command failed. (command=/bin/mount, device=/dev/sdb1, exit code=32)",
        "ZOR-13: reiserfs check needs an option that the configuration does not allow; check the file system "
        "by "
        "hand. (command=/sbin/reiserfsck, device=/dev/sdb1, option=--rebuild-tree)",
        "ZOR-14: file system check started with an option. (command=/sbin/reiserfsck, device=/dev/sdb1, "
        "option=--fix-fixable)",
        "ZOR-15: mount command timed out. (command=/bin/mount, device=/dev/sdb1)",
        "ZOR-16: xfs file system could not be mounted and no repair is configured. (device=/dev/sdb1)",
        "ZOR-17: disk type and file system type cannot be combined. (disktype=lvm, fs=zfs)",
        "ZOR-10: file system check started. (command=-, device=/dev/sdb1)",
        "ZOR-99: event without a catalogue text.",
        "own text here",
    };
    auto lines = read_lines(dir / "ev.log");
    ASSERT_EQ(lines.size(), std::size(expected));
    for (size_t i = 0; i < lines.size(); i++) {
        EXPECT_EQ(message_of(lines[i], "fn"), expected[i]);
        EXPECT_NE(lines[i].find(" EVENT f:1 fn: "), std::string::npos) << lines[i];
    }
}

TEST(Log, BadArgumentsAndUnwritableDirectoryAreHarmless)
{
    TempDir dir;
    const std::string d = dir.path();
    std::ofstream(dir / "plainfile") << "x";
    const std::string long_name(65, 'n');
    const std::string through_file = dir / "plainfile/sub";  // stops root as well as anyone
    void* h = nullptr;
    struct Case {
        const char* name;
        void** handle;
        const char* path;
        int ret;
    } cases[] = {
        {nullptr, &h, d.c_str(), ZOR_LOG_ERR_PARAM},
        {"", &h, d.c_str(), ZOR_LOG_ERR_PARAM},
        {"a/b", &h, d.c_str(), ZOR_LOG_ERR_PARAM},
        {"..", &h, d.c_str(), ZOR_LOG_ERR_PARAM},
        {long_name.c_str(), &h, d.c_str(), ZOR_LOG_ERR_PARAM},
        {"disk", nullptr, d.c_str(), ZOR_LOG_ERR_PARAM},
        {"disk", &h, "", ZOR_LOG_ERR_PARAM},
        {"disk", &h, through_file.c_str(), ZOR_LOG_ERR_OPEN},
    };
    for (const auto& c : cases) {
        h = reinterpret_cast<void*>(1);
        EXPECT_EQ(log_init(c.name, c.handle, 8, 0, c.path), c.ret) << (c.name ? c.name : "(null)");
        EXPECT_EQ(h, c.handle == nullptr ? reinterpret_cast<void*>(1) : nullptr);
    }
    EXPECT_EQ(log_write(nullptr, ZOR_LOG_ERROR, 0, "f", 1, "fn", "dropped %d", 1), 0);
    EXPECT_EQ(log_write(nullptr, ZOR_LOG_EVENT, 12, "f", 1, "fn", nullptr, "a", "b", 1), 0);
    EXPECT_EQ(log_term(nullptr), 0);

    // A log whose directory vanished drops records quietly.
    ASSERT_EQ(log_init("gone", &h, 8, 0, (dir / "sub").c_str()), 0);
    ASSERT_EQ(system(("rm -rf '" + dir / "sub" + "'").c_str()), 0);
    EXPECT_EQ(log_write(h, ZOR_LOG_ERROR, 0, "f", 1, "fn", "into nothing"), 0);
    EXPECT_EQ(log_term(h), 0);
}

TEST(Log, RotationKeepsThreeGenerationsInOrder)
{
    TempDir dir;
    void* h = nullptr;
    // 100 bytes is raised to the 4096-byte minimum.
    ASSERT_EQ(log_init("rot", &h, 8, 100, dir.path().c_str()), 0);
    const int total = 400;
    for (int i = 0; i < total; i++) {
        log_write(h, ZOR_LOG_INFO, 0, "f", 1, "fn", "record %06d", i);
    }
    log_term(h);
    const std::string base = dir / "rot.log";
    int next = -1;
    for (const std::string& g : {base + ".3", base + ".2", base + ".1", base}) {
        struct stat st;
        ASSERT_EQ(stat(g.c_str(), &st), 0) << g;
        EXPECT_LE(st.st_size, 4096) << g;
        EXPECT_TRUE(g == base || st.st_size > 4096 - 200) << g << ": a rotated generation is full";
        for (const auto& l : read_lines(g)) {
            int n = std::stoi(message_of(l, "fn").substr(7));
            EXPECT_TRUE(next < 0 || n == next) << g << ": gap before record " << n;
            next = n + 1;
        }
    }
    EXPECT_EQ(next, total);
    EXPECT_FALSE(exists(base + ".4"));
}

// A second writer (as another process would) still holds the file that the
// first one rotated away; its next record must go to the new current file.
TEST(Log, WriterFollowsRotationByAnotherHandle)
{
    TempDir dir;
    void *a = nullptr, *b = nullptr;
    ASSERT_EQ(log_init("two", &a, 8, 4096, dir.path().c_str()), 0);
    ASSERT_EQ(log_init("two", &b, 8, 4096, dir.path().c_str()), 0);
    log_write(b, ZOR_LOG_INFO, 0, "f", 1, "fn", "b before");
    // Long records, so that the rotated file still has room for b's short one.
    const std::string pad(1000, 'a');
    for (int i = 0; i < 10 && !exists(dir / "two.log.1"); i++) {
        log_write(a, ZOR_LOG_INFO, 0, "f", 1, "fn", "a %d %s", i, pad.c_str());
    }
    ASSERT_TRUE(exists(dir / "two.log.1"));
    log_write(b, ZOR_LOG_INFO, 0, "f", 1, "fn", "b after");
    log_term(a);
    log_term(b);
    auto old = read_lines(dir / "two.log.1");
    auto cur = read_lines(dir / "two.log");
    ASSERT_FALSE(old.empty());
    ASSERT_FALSE(cur.empty());
    EXPECT_EQ(message_of(old.front(), "fn"), "b before");
    EXPECT_EQ(message_of(cur.back(), "fn"), "b after");
}

// Processes and threads write one log at once across rotations: every record
// arrives exactly once and whole.
TEST(Log, ProcessesAndThreadsAcrossRotation)
{
    TempDir dir;
    const int procs = 4, threads = 2, per_thread = 250;
    const int limit = 128 * 1024;  // about 2.5 rotations for the volume below
    const std::string pad(100, 'p');
    std::vector<pid_t> kids;
    for (int p = 0; p < procs; p++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            void* h = nullptr;
            if (log_init("mp", &h, 8, limit, dir.path().c_str()) != 0) {
                _exit(2);
            }
            std::vector<std::thread> ts;
            for (int t = 0; t < threads; t++) {
                ts.emplace_back([h, p, t, &pad] {
                    for (int k = 0; k < per_thread; k++) {
                        log_write(h, ZOR_LOG_INFO, 0, "mp.cpp", 7, "writer", "p%d t%d k%d %s end", p, t, k,
                                  pad.c_str());
                    }
                });
            }
            for (auto& t : ts) {
                t.join();
            }
            log_term(h);
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const std::string base = dir / "mp.log";
    ASSERT_TRUE(exists(base + ".1")) << "no rotation happened";
    ASSERT_FALSE(exists(base + ".3")) << "volume too large: the oldest generation may have been dropped";
    std::set<std::string> seen;
    int torn = 0, dup = 0;
    for (const std::string& f : {base, base + ".1", base + ".2"}) {
        for (const auto& l : read_lines(f)) {
            std::string m = message_of(l, "writer");
            int p = -1, t = -1, k = -1;
            bool whole = is_record(l) && sscanf(m.c_str(), "p%d t%d k%d ", &p, &t, &k) == 3 &&
                         m == "p" + std::to_string(p) + " t" + std::to_string(t) + " k" + std::to_string(k) +
                                  " " + pad + " end";
            torn += whole ? 0 : 1;
            dup += whole && !seen.insert(m).second ? 1 : 0;
        }
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(dup, 0);
    EXPECT_EQ(seen.size(), static_cast<size_t>(procs * threads * per_thread));
}

}  // namespace
