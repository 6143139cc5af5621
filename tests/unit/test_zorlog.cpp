// The log library against real files, several threads and several processes.
#include "zorlog.h"

#include "test_support.h"

#include <fstream>
#include <cctype>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream f(path);
    std::string line;
    while (std::getline(f, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::string slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

off_t file_size(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// The message part of a record: what follows "function: ".
std::string message_of(const std::string& line, const std::string& func)
{
    size_t pos = line.find(" " + func + ": ");
    return pos == std::string::npos ? std::string("<no message>") : line.substr(pos + func.size() + 3);
}

// One record: "YYYY-MM-DD hh:mm:ss.uuuuuu [pid:tid] LEVEL file:line function: message".
bool is_record(const std::string& l)
{
    const char* stamp = "dddd-dd-dd dd:dd:dd.dddddd [";
    size_t i = 0;
    for (; stamp[i] != '\0'; i++) {
        if (i >= l.size() || (stamp[i] == 'd' ? !isdigit(static_cast<unsigned char>(l[i])) : l[i] != stamp[i])) {
            return false;
        }
    }
    auto digits = [&l, &i] {
        size_t from = i;
        while (i < l.size() && isdigit(static_cast<unsigned char>(l[i]))) {
            i++;
        }
        return i > from;
    };
    auto word = [&l, &i](char end) {
        size_t from = i;
        while (i < l.size() && l[i] != ' ' && l[i] != end) {
            i++;
        }
        return i > from && i < l.size() && l[i] == end;
    };
    if (!digits() || l[i++] != ':' || !digits() || l.compare(i, 2, "] ") != 0) {
        return false;
    }
    i += 2;
    size_t sp = l.find(' ', i);
    if (sp == std::string::npos) {
        return false;
    }
    std::string level = l.substr(i, sp - i);
    static const std::set<std::string> levels = {"ERROR", "WARN", "INFO", "DETAIL", "EVENT"};
    if (levels.count(level) == 0 && !(level.size() > 1 && level[0] == 'L')) {
        return false;
    }
    i = sp + 1;
    size_t colon = l.find(' ', i);
    colon = colon == std::string::npos ? std::string::npos : l.rfind(':', colon);
    if (colon == std::string::npos || colon < i) {
        return false;
    }
    i = colon + 1;
    if (!digits() || l[i++] != ' ' || !word(':')) {
        return false;
    }
    return l.compare(i, 2, ": ") == 0;
}

TEST(Log, RecordLayout)
{
    TempDir dir;
    void* h = nullptr;
    ASSERT_EQ(log_init("disk", &h, 8, 0, dir.path().c_str()), ZOR_LOG_SUCCESS);
    ASSERT_NE(h, nullptr);
    log_write(h, ZOR_LOG_INFO, 0, "src/disk_main", 42, "main", "x=%d y=%s", 5, "abc");
    log_write(h, ZOR_LOG_ERROR, 0, nullptr, 0, nullptr, "no origin");
    log_term(h);
    auto lines = read_lines(dir / "disk.log");
    ASSERT_EQ(lines.size(), 2u);
    for (const auto& l : lines) {
        EXPECT_TRUE(is_record(l)) << l;
    }
    std::string head = "[" + std::to_string(getpid()) + ":";
    EXPECT_NE(lines[0].find(head), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(" INFO src/disk_main:42 main: x=5 y=abc"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" ERROR -:0 -: no origin"), std::string::npos) << lines[1];
}

TEST(Log, LevelFiltering)
{
    const int record_levels[] = {ZOR_LOG_ERROR, ZOR_LOG_WARNING, ZOR_LOG_INFO, ZOR_LOG_DETAIL, 16, ZOR_LOG_EVENT};
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
        std::string text = slurp(dir / "lv.log");
        for (size_t i = 0; i < 6; i++) {
            std::string msg = "fn: level " + std::to_string(record_levels[i]) + "\n";
            EXPECT_EQ(text.find(msg) != std::string::npos, c.kept[i] == 'y')
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
        "ZOR-13: reiserfs check needs an option that the configuration does not allow; check the file system by "
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

TEST(Log, LongAndMultiLineTextsStayOneLine)
{
    TempDir dir;
    void* h = nullptr;
    ASSERT_EQ(log_init("cut", &h, 8, 0, dir.path().c_str()), 0);
    std::string longtext(5000, 'a');
    log_write(h, ZOR_LOG_INFO, 0, "f", 1, "fn", "%s", longtext.c_str());
    log_write(h, ZOR_LOG_INFO, 0, "f", 1, "fn", "first\nsecond\r\nthird\n");
    std::string longfile(3000, 'f');
    log_write(h, ZOR_LOG_INFO, 0, longfile.c_str(), 1, "fn", "tail");
    log_term(h);
    auto lines = read_lines(dir / "cut.log");
    ASSERT_EQ(lines.size(), 3u);
    std::string m0 = message_of(lines[0], "fn");
    EXPECT_EQ(m0, std::string(1023, 'a'));
    EXPECT_EQ(message_of(lines[1], "fn"), "first second  third ");
    EXPECT_LE(lines[2].size(), 2047u);
    EXPECT_TRUE(is_record(lines[0]));
}

TEST(Log, BadArgumentsAndUnwritableDirectoryAreHarmless)
{
    TempDir dir;
    void* h = reinterpret_cast<void*>(1);
    struct Case {
        const char* name;
        void** handle;
        const char* path;
        int ret;
    } cases[] = {
        {nullptr, &h, dir.path().c_str(), ZOR_LOG_ERR_PARAM},
        {"", &h, dir.path().c_str(), ZOR_LOG_ERR_PARAM},
        {"a/b", &h, dir.path().c_str(), ZOR_LOG_ERR_PARAM},
        {"..", &h, dir.path().c_str(), ZOR_LOG_ERR_PARAM},
        {"disk", nullptr, dir.path().c_str(), ZOR_LOG_ERR_PARAM},
        {"disk", &h, "", ZOR_LOG_ERR_PARAM},
    };
    for (const auto& c : cases) {
        h = reinterpret_cast<void*>(1);
        EXPECT_EQ(log_init(c.name, c.handle, 8, 0, c.path), c.ret) << (c.name ? c.name : "(null)");
        EXPECT_EQ(h, c.handle == nullptr ? reinterpret_cast<void*>(1) : nullptr);
    }
    std::string longname(65, 'n');
    EXPECT_EQ(log_init(longname.c_str(), &h, 8, 0, dir.path().c_str()), ZOR_LOG_ERR_PARAM);

    // A directory that cannot exist: a path through a regular file (this
    // stops root as well as anyone).
    std::ofstream(dir / "plainfile") << "x";
    h = reinterpret_cast<void*>(1);
    EXPECT_EQ(log_init("disk", &h, 8, 0, (dir / "plainfile/sub").c_str()), ZOR_LOG_ERR_OPEN);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(log_write(h, ZOR_LOG_ERROR, 0, "f", 1, "fn", "dropped %d", 1), 0);
    EXPECT_EQ(log_write(nullptr, ZOR_LOG_EVENT, 12, "f", 1, "fn", nullptr, "a", "b", 1), 0);
    EXPECT_EQ(log_term(nullptr), 0);

    // A log whose file vanished with its directory drops records quietly.
    void* h2 = nullptr;
    ASSERT_EQ(log_init("gone", &h2, 8, 0, (dir / "sub").c_str()), 0);
    ASSERT_EQ(system(("rm -rf '" + dir / "sub" + "'").c_str()), 0);
    EXPECT_EQ(log_write(h2, ZOR_LOG_ERROR, 0, "f", 1, "fn", "into nothing"), 0);
    EXPECT_EQ(log_term(h2), 0);
}

TEST(Log, DefaultDirectoryIsCreatedBelowZorHome)
{
    TempDir home;
    setenv("ZOR_HOME", home.path().c_str(), 1);
    void* h = nullptr;
    ASSERT_EQ(log_init("nas", &h, 4, 0, nullptr), 0);
    log_write(h, ZOR_LOG_INFO, 0, "f", 1, "fn", "hello");
    log_term(h);
    auto lines = read_lines(home / "log/nas.log");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(message_of(lines[0], "fn"), "hello");
}

TEST(Log, RotationKeepsThreeGenerations)
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
    std::string base = dir / "rot.log";
    const std::string gens[] = {base + ".3", base + ".2", base + ".1", base};
    int expect_next = -1;
    for (const auto& g : gens) {
        ASSERT_TRUE(exists(g)) << g;
        EXPECT_LE(file_size(g), 4096) << g;
        if (g != base) {
            EXPECT_GT(file_size(g), 4096 - 200) << g;  // a rotated generation is full
        }
        for (const auto& l : read_lines(g)) {
            int n = std::stoi(message_of(l, "fn").substr(7));
            // Oldest to newest, without gaps between the generations.
            if (expect_next >= 0) {
                EXPECT_EQ(n, expect_next) << g;
            }
            expect_next = n + 1;
        }
        if (g == base) {
            break;
        }
    }
    EXPECT_EQ(expect_next, total);
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
    // Long records, so that the rotated file still has room for b's short one:
    // only noticing the rotation moves b to the new file.
    const std::string pad(1000, 'a');
    for (int i = 0; i < 10 && !exists(dir / "two.log.1"); i++) {
        log_write(a, ZOR_LOG_INFO, 0, "f", 1, "fn", "a %d %s", i, pad.c_str());
    }
    ASSERT_TRUE(exists(dir / "two.log.1"));
    log_write(b, ZOR_LOG_INFO, 0, "f", 1, "fn", "b after");
    log_term(a);
    log_term(b);
    std::string cur = slurp(dir / "two.log");
    std::string old = slurp(dir / "two.log.1");
    EXPECT_NE(old.find("fn: b before\n"), std::string::npos);
    EXPECT_NE(cur.find("fn: b after\n"), std::string::npos);
    EXPECT_EQ(old.find("b after"), std::string::npos);
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
    std::string base = dir / "mp.log";
    ASSERT_TRUE(exists(base + ".1")) << "no rotation happened";
    ASSERT_FALSE(exists(base + ".3")) << "volume too large: the oldest generation may have been dropped";
    std::set<std::string> seen;
    int torn = 0, dup = 0;

    for (const std::string& f : {base, base + ".1", base + ".2"}) {
        for (const auto& l : read_lines(f)) {
            std::string m = message_of(l, "writer");
            int p = -1, t = -1, k = -1;
            bool whole = sscanf(m.c_str(), "p%d t%d k%d ", &p, &t, &k) == 3 &&
                         m == "p" + std::to_string(p) + " t" + std::to_string(t) + " k" + std::to_string(k) + " " +
                                  pad + " end";
            if (!is_record(l) || !whole) {
                torn++;
                continue;
            }
            if (!seen.insert(m).second) {
                dup++;
            }
        }
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(dup, 0);
    EXPECT_EQ(seen.size(), static_cast<size_t>(procs * threads * per_thread));
}

}  // namespace
