// The log library against real files, several threads and several processes.
#include "zorlog.h"

#include "test_support.h"

#include <regex.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fstream>
#include <set>
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
    return access(path.c_str(), F_OK) == 0;
}

// What follows "function: " in a record.
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

TEST(Log, LevelFiltering)
{
    const int levels[] = {ZOR_LOG_ERROR, ZOR_LOG_WARNING, ZOR_LOG_INFO, ZOR_LOG_DETAIL, 16, ZOR_LOG_EVENT};
    const struct {
        int configured;
        const char* kept;  // per record level above: y kept, n dropped
    } cases[] = {{0, "ynnnny"}, {2, "yynnny"}, {5, "yyynny"}, {8, "yyyyny"}, {32, "yyyyyy"}};
    for (const auto& c : cases) {
        TempDir dir;
        void* h = nullptr;
        ASSERT_EQ(log_init("lv", &h, c.configured, 0, dir.path().c_str()), 0);
        for (int lv : levels) {
            log_write(h, lv, 0, "f", 1, "fn", "level %d", lv);
        }
        log_term(h);
        std::string kept = "nnnnnn";
        for (const auto& l : read_lines(dir / "lv.log")) {
            for (size_t i = 0; i < kept.size(); i++) {
                kept[i] = message_of(l, "fn") == "level " + std::to_string(levels[i]) ? 'y' : kept[i];
            }
        }
        EXPECT_EQ(kept, c.kept) << "configured " << c.configured;
    }
}

// The record layout, in the default directory, and the texts of the numbered events.
TEST(Log, RecordLayoutAndEventTexts)
{
    TempDir home;
    setenv("ZOR_HOME", home.path().c_str(), 1);
    void* h = nullptr;
    ASSERT_EQ(log_init("disk", &h, 8, 0, nullptr), ZOR_LOG_SUCCESS);
    unsetenv("ZOR_HOME");
    log_write(h, ZOR_LOG_INFO, 0, "src/disk_main", 42, "main", "x=%d y=%s", 5, "abc");
    log_write(h, ZOR_LOG_ERROR, 0, nullptr, 0, nullptr, "no origin");
    // Texts are cut at 1023 characters and never span lines.
    log_write(h, ZOR_LOG_EVENT, 0, "f", 1, "fn", "%s", std::string(5000, 'a').c_str());
    log_write(h, ZOR_LOG_EVENT, 0, "f", 1, "fn", "first\nsecond\r\nthird\n");
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
    const std::string expected[] = {
        std::string(1023, 'a'),
        "first second  third ",
        "ZOR-10: file system check started. (command=/sbin/fsck, device=/dev/sdb1)",
        "ZOR-11: file system is clean. (command=/sbin/fsck, device=/dev/sdb1)",
        "ZOR-12: command failed. (command=/bin/mount, device=/dev/sdb1, exit code=32)",
        "ZOR-13: reiserfs check needs an option that the configuration does not allow; check the file system "
        "by hand. (command=/sbin/reiserfsck, device=/dev/sdb1, option=--rebuild-tree)",
        "ZOR-14: file system check started with an option. (command=/sbin/reiserfsck, device=/dev/sdb1, "
        "option=--fix-fixable)",
        "ZOR-15: mount command timed out. (command=/bin/mount, device=/dev/sdb1)",
        "ZOR-16: xfs file system could not be mounted and no repair is configured. (device=/dev/sdb1)",
        "ZOR-17: disk type and file system type cannot be combined. (disktype=lvm, fs=zfs)",
        "ZOR-10: file system check started. (command=-, device=/dev/sdb1)",
        "ZOR-99: event without a catalogue text.",
        "own text here",
    };
    auto lines = read_lines(home / "log/disk.log");
    ASSERT_EQ(lines.size(), 2 + std::size(expected));
    for (const auto& l : lines) {
        EXPECT_TRUE(is_record(l)) << l;
    }
    EXPECT_NE(lines[0].find("[" + std::to_string(getpid()) + ":"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(" INFO src/disk_main:42 main: x=5 y=abc"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" ERROR -:0 -: no origin"), std::string::npos) << lines[1];
    for (size_t i = 0; i < std::size(expected); i++) {
        EXPECT_NE(lines[i + 2].find(" EVENT f:1 fn: "), std::string::npos) << lines[i + 2];
        EXPECT_EQ(message_of(lines[i + 2], "fn"), expected[i]);
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
    EXPECT_EQ(log_init("disk", nullptr, 8, 0, d.c_str()), ZOR_LOG_ERR_PARAM);
    const struct {
        const char* name;
        const char* path;
        int ret;
    } cases[] = {
        {nullptr, d.c_str(), ZOR_LOG_ERR_PARAM}, {"a/b", d.c_str(), ZOR_LOG_ERR_PARAM},
        {"..", d.c_str(), ZOR_LOG_ERR_PARAM},    {long_name.c_str(), d.c_str(), ZOR_LOG_ERR_PARAM},
        {"disk", "", ZOR_LOG_ERR_PARAM},         {"disk", through_file.c_str(), ZOR_LOG_ERR_OPEN},
    };
    for (const auto& c : cases) {
        h = reinterpret_cast<void*>(1);
        EXPECT_EQ(log_init(c.name, &h, 8, 0, c.path), c.ret) << (c.name ? c.name : "(null)");
        EXPECT_EQ(h, nullptr);
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

// Two handles (as two processes would) write in turn, so each must follow the
// other's rotation. Three full generations are kept, in order; 100 bytes is
// raised to the 4096-byte minimum.
TEST(Log, RotationKeepsThreeGenerationsInOrder)
{
    TempDir dir;
    void* h[2] = {nullptr, nullptr};
    for (void*& one : h) {
        ASSERT_EQ(log_init("rot", &one, 8, 100, dir.path().c_str()), 0);
    }
    const int total = 400;
    for (int i = 0; i < total; i++) {
        log_write(h[i % 2], ZOR_LOG_INFO, 0, "f", 1, "fn", "record %06d", i);
    }
    log_term(h[0]);
    log_term(h[1]);
    const std::string base = dir / "rot.log";
    int next = -1;
    for (const std::string& g : {base + ".3", base + ".2", base + ".1", base}) {
        struct stat st;
        ASSERT_EQ(stat(g.c_str(), &st), 0) << g;
        EXPECT_LE(st.st_size, 4096) << g;
        EXPECT_TRUE(g == base || st.st_size > 4096 - 200) << g << " is not full";
        for (const auto& l : read_lines(g)) {
            int n = std::stoi(message_of(l, "fn").substr(7));
            EXPECT_TRUE(next < 0 || n == next) << g << ": gap before record " << n;
            next = n + 1;
        }
    }
    EXPECT_EQ(next, total);
    EXPECT_FALSE(exists(base + ".4"));
}

// Processes and threads write one log at once across rotations: every record
// arrives exactly once and whole.
TEST(Log, ProcessesAndThreadsAcrossRotation)
{
    TempDir dir;
    const int procs = 4, threads = 2, per_thread = 250;
    const int limit = 128 * 1024;  // about 2.5 rotations for this volume
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
    ASSERT_FALSE(exists(base + ".3")) << "the oldest generation may have been dropped";
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
