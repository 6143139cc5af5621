// The log library against real files, several threads and several processes.
// The catalogue texts of events 10 to 17 are checked where the agent writes them.
#include "zorlog.h"

#include "test_support.h"

#include <fstream>
#include <thread>

namespace {

// The record layout, in the default directory; a level of 0 keeps errors and
// events only (the other levels are checked through the agent's trace
// module); an event's catalogue text, and one without any.
TEST(Log, RecordLayoutLevelZeroAndEventTexts)
{
    TempDir home;
    setenv("ZOR_HOME", home.path().c_str(), 1);
    void* h = nullptr;
    ASSERT_EQ(log_init("disk", &h, 0, 0, nullptr), ZOR_LOG_SUCCESS);
    unsetenv("ZOR_HOME");
    log_write(h, ZOR_LOG_ERROR, 0, "src/disk_main", 42, "main", "x=%d y=%s", 5, "abc");
    log_write(h, ZOR_LOG_WARNING, 0, "f", 1, "fn", "dropped");
    log_write(h, ZOR_LOG_ERROR, 0, nullptr, 0, nullptr, "no origin");
    // Texts never span lines (that they are cut at 1023 characters, the trace module's tests show).
    log_write(h, ZOR_LOG_EVENT, 0, "f", 1, "fn", "first\nsecond\r\nthird\n");
    log_write(h, ZOR_LOG_EVENT, 10, "f", 1, "fn", nullptr, nullptr, "/dev/sdb1");
    log_write(h, ZOR_LOG_EVENT, 99, "f", 1, "fn", nullptr);
    log_write(h, ZOR_LOG_EVENT, 12, "f", 1, "fn", "own text %s", "here");
    log_term(h);
    // Each line as its stamp's shape, this process's number and the rest.
    const std::string at = "9999-99-99 99:99:99.999999 [" + std::to_string(getpid()) + ": ";
    std::vector<std::string> got;
    std::ifstream log(home / "log/disk.log");
    for (std::string l; std::getline(log, l);) {
        std::replace_if(l.begin(), l.begin() + std::min<long>(27, static_cast<long>(l.size())), ::isdigit,
                        '9');
        got.push_back(l.substr(0, at.size() - 1) + " " + l.substr(l.find("] ") + 2));
    }
    EXPECT_EQ(got, (std::vector<std::string>{
                       at + "ERROR src/disk_main:42 main: x=5 y=abc",
                       at + "ERROR -:0 -: no origin",
                       at + "EVENT f:1 fn: first second  third ",
                       at + "EVENT f:1 fn: ZOR-10: file system check started. (command=-, device=/dev/sdb1)",
                       at + "EVENT f:1 fn: ZOR-99: event without a catalogue text.",
                       at + "EVENT f:1 fn: own text here",
                   }));
}

TEST(Log, BadArgumentsAreHarmless)
{
    TempDir dir;
    const std::string d = dir.path();
    std::ofstream(dir / "plainfile") << "x";
    const std::string through_file = dir / "plainfile/sub";  // stops root as well as anyone
    // The result of log_init, or -1 when a failed call left the handle set.
    auto init = [](const char* name, const char* path) {
        void* h = reinterpret_cast<void*>(1);
        int rc = log_init(name, &h, 8, 0, path);
        return rc == 0 || h == nullptr ? rc : -1;
    };
    const int BAD = ZOR_LOG_ERR_PARAM;
    expect_calls({
        {"null handle", log_init("disk", nullptr, 8, 0, d.c_str()), BAD},
        {"null name", init(nullptr, d.c_str()), BAD},
        {"slash in name", init("a/b", d.c_str()), BAD},
        {"dotdot", init("..", d.c_str()), BAD},
        {"65-byte name", init(std::string(65, 'n').c_str(), d.c_str()), BAD},
        {"empty path", init("disk", ""), BAD},
        {"path through a file", init("disk", through_file.c_str()), ZOR_LOG_ERR_OPEN},
        {"write to no log", log_write(nullptr, ZOR_LOG_EVENT, 12, "f", 1, "fn", nullptr, "a", "b", 1), 0},
        {"term of no log", log_term(nullptr), 0},
    });
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
    EXPECT_EQ(entries(dir.path()),
              (std::vector<std::string>{"rot.log", "rot.log.1", "rot.log.2", "rot.log.3", "rot.log.lock"}));
    // Only root may hold the rotation's lock (an flock needs only a read).
    EXPECT_EQ(std::filesystem::status(dir / "rot.log.lock").permissions(), std::filesystem::perms(0600));
    int next = -1;
    for (const std::string g : {"rot.log.3", "rot.log.2", "rot.log.1", "rot.log"}) {
        const auto size = std::filesystem::file_size(dir / g);
        EXPECT_LE(size, 4096u) << g;
        EXPECT_TRUE(g == "rot.log" || size > 4096 - 200) << g << " is not full";
        std::ifstream in(dir / g);
        for (std::string l; std::getline(in, l);) {
            int n = std::stoi(l.substr(l.find(" fn: record ") + 12));
            EXPECT_TRUE(next < 0 || n == next) << g << ": gap before record " << n;
            next = n + 1;
        }
    }
    EXPECT_EQ(next, total);
}

// Processes and threads write one log at once across rotations: every record
// arrives exactly once and whole.
TEST(Log, ProcessesAndThreadsAcrossRotation)
{
    TempDir dir;
    const int procs = 4, threads = 2, per_thread = 250;
    const int limit = 128 * 1024;  // about 2.5 rotations for this volume
    auto text = [](int p, int t, int k) {
        return "p" + std::to_string(p) + " t" + std::to_string(t) + " k" + std::to_string(k) + " " +
               std::string(100, 'p') + " end";
    };
    std::vector<pid_t> kids;
    for (int p = 0; p < procs; p++) {
        kids.push_back(spawn([&, p] {
            void* h = nullptr;
            if (log_init("mp", &h, 8, limit, dir.path().c_str()) != 0) {
                return 2;
            }
            std::vector<std::thread> ts;
            for (int t = 0; t < threads; t++) {
                ts.emplace_back([&, h, p, t] {
                    for (int k = 0; k < per_thread; k++) {
                        log_write(h, ZOR_LOG_INFO, 0, "mp.cpp", 7, "writer", "%s", text(p, t, k).c_str());
                    }
                });
            }
            for (auto& t : ts) {
                t.join();
            }
            return log_term(h);
        }));
    }
    std::vector<std::string> want, got;
    for (int p = 0; p < procs; p++) {
        EXPECT_EQ(wait_child(kids[p]), 0);
        for (int i = 0; i < threads * per_thread; i++) {
            want.push_back(text(p, i / per_thread, i % per_thread));
        }
    }
    // No generation dropped, so nothing may be missing.
    EXPECT_EQ(entries(dir.path()),
              (std::vector<std::string>{"mp.log", "mp.log.1", "mp.log.2", "mp.log.lock"}));
    for (const std::string f : {"mp.log", "mp.log.1", "mp.log.2"}) {
        std::ifstream in(dir / f);
        for (std::string l; std::getline(in, l);) {
            got.push_back(l.substr(l.find(" writer: ") + 9));
        }
    }
    std::sort(want.begin(), want.end());
    std::sort(got.begin(), got.end());
    EXPECT_TRUE(got == want) << "records torn, lost or written twice: " << got.size() << " of "
                             << want.size();
}

}  // namespace
