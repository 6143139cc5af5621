// The IPC library for real: the mount lock between processes (including a
// holder killed by SIGKILL), the status table under concurrent writers, its
// limits and bad arguments, and zorstat's view of it.
#include "test_support.h"
#include "zoripc.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Runs fn in a child that exits with fn's result; SIGALRM ends it after
// `limit` seconds so that a broken lock cannot hang the test run.
template <typename F>
pid_t spawn(F fn, unsigned limit = 30)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(limit);
        _exit(fn());
    }
    return pid;
}

// Exit code of pid, or 128 + signal.
int wait_child(pid_t pid)
{
    int st = 0;
    while (waitpid(pid, &st, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// Waits up to ms for one byte on fd: true when it came.
bool read_byte(int fd, int ms)
{
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, ms) != 1) {
        return false;
    }
    char c;
    return read(fd, &c, 1) == 1;
}

void write_byte(int fd)
{
    char c = 'x';
    if (write(fd, &c, 1) != 1) {
        _exit(99);
    }
}

struct Pipe {
    Pipe()
    {
        if (pipe(fd) != 0) {
            fd[0] = fd[1] = -1;
        }
    }
    ~Pipe()
    {
        close(fd[0]);
        close(fd[1]);
    }
    int fd[2];
};

// Every test is a node of its own: a fresh ZOR_HOME, whose status table is
// removed at the end.
class IpcTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(home_.path().empty());
        setenv("ZOR_HOME", home_.path().c_str(), 1);
        ASSERT_EQ(shmrm_tablename(table_, sizeof(table_)), SHMRM_SUCCESS);
    }
    void TearDown() override
    {
        while (shmrm_detach() == SHMRM_SUCCESS) {
        }
        while (sem_detach() == SHMRM_SUCCESS) {
        }
        shm_unlink(table_);
        unsetenv("ZOR_HOME");
    }
    TempDir home_;
    char table_[64] = "";
};

// ---------------------------------------------------------------- mount lock

TEST_F(IpcTest, MountLockOfKilledHolderIsFreeAtOnce)
{
    Pipe ready;
    pid_t holder = spawn([&] {
        if (sem_attach() != 0 || sem_entercrit_mount() != 0) {
            return 1;
        }
        write_byte(ready.fd[1]);
        pause();
        return 0;
    });
    ASSERT_TRUE(read_byte(ready.fd[0], 5000)) << "holder did not take the lock";

    pid_t next = spawn([] { return sem_attach() == 0 && sem_entercrit_mount() == 0 ? 0 : 1; }, 10);
    usleep(300 * 1000);
    EXPECT_EQ(waitpid(next, nullptr, WNOHANG), 0) << "entered while another process held the lock";

    kill(holder, SIGKILL);
    EXPECT_EQ(wait_child(holder), 128 + SIGKILL);
    auto t0 = Clock::now();
    EXPECT_EQ(wait_child(next), 0);
    EXPECT_LT(ms_since(t0), 2000.0);
}

TEST_F(IpcTest, EnterBlocksUntilHolderLeaves)
{
    Pipe held, release, entered;
    pid_t holder = spawn([&] {
        if (sem_attach() != 0 || sem_entercrit_mount() != 0) {
            return 1;
        }
        write_byte(held.fd[1]);
        if (!read_byte(release.fd[0], 20000)) {
            return 2;
        }
        int rc = sem_leavecrit_mount();
        // Still alive and attached: it is the leave that frees the lock.
        sleep(3);
        return rc;
    });
    ASSERT_TRUE(read_byte(held.fd[0], 5000));
    pid_t waiter = spawn([&] {
        if (sem_attach() != 0 || sem_entercrit_mount() != 0) {
            return 1;
        }
        write_byte(entered.fd[1]);
        return sem_leavecrit_mount();
    });

    EXPECT_FALSE(read_byte(entered.fd[0], 500)) << "entered while the lock was held";
    write_byte(release.fd[1]);
    auto t0 = Clock::now();
    EXPECT_TRUE(read_byte(entered.fd[0], 5000));
    EXPECT_LT(ms_since(t0), 2000.0);
    EXPECT_EQ(wait_child(waiter), 0);
    EXPECT_EQ(wait_child(holder), 0);
}

TEST_F(IpcTest, ForkedChildIsNotTheHolder)
{
    ASSERT_EQ(sem_attach(), 0);
    ASSERT_EQ(sem_entercrit_mount(), 0);
    Pipe entered;
    // The child inherits the parent's descriptor; it must neither count as
    // attached nor share the parent's hold.
    pid_t child = spawn([&] {
        if (sem_entercrit_mount() != SHMRM_ERR_NOTINIT) {
            return 1;
        }
        if (sem_attach() != 0 || sem_entercrit_mount() != 0) {
            return 2;
        }
        write_byte(entered.fd[1]);
        return 0;
    });
    EXPECT_FALSE(read_byte(entered.fd[0], 300));
    EXPECT_EQ(sem_leavecrit_mount(), 0);
    EXPECT_TRUE(read_byte(entered.fd[0], 5000));
    EXPECT_EQ(wait_child(child), 0);
}

enum Op { ATTACH, DETACH, ENTER, LEAVE };

TEST_F(IpcTest, MountLockCallOrder)
{
    struct Step {
        Op op;
        int want;
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
    };
    const Case cases[] = {
        {"enter without attach", {{ENTER, SHMRM_ERR_NOTINIT}}},
        {"leave without attach", {{LEAVE, SHMRM_ERR_NOTINIT}}},
        {"detach without attach", {{DETACH, SHMRM_ERR_NOTINIT}}},
        {"leave without enter", {{ATTACH, 0}, {LEAVE, SHMRM_ERR_INVALIDPARAM}, {DETACH, 0}}},
        {"not re-entrant",
         {{ATTACH, 0},
          {ENTER, 0},
          {ENTER, SHMRM_ERR_INVALIDPARAM},
          {LEAVE, 0},
          {LEAVE, SHMRM_ERR_INVALIDPARAM},
          {DETACH, 0}}},
        {"detach while held", {{ATTACH, 0}, {ENTER, 0}, {DETACH, 0}, {LEAVE, SHMRM_ERR_NOTINIT}}},
        {"nested attach",
         {{ATTACH, 0},
          {ATTACH, 0},
          {DETACH, 0},
          {ENTER, 0},
          {LEAVE, 0},
          {DETACH, 0},
          {DETACH, SHMRM_ERR_NOTINIT}}},
    };
    for (const Case& c : cases) {
        int i = 0;
        for (const Step& s : c.steps) {
            int rc = s.op == ATTACH   ? sem_attach()
                     : s.op == DETACH ? sem_detach()
                     : s.op == ENTER  ? sem_entercrit_mount()
                                      : sem_leavecrit_mount();
            EXPECT_EQ(rc, s.want) << c.name << ", step " << i;
            i++;
        }
        while (sem_detach() == 0) {
        }
    }
    // The lock lives in the node's run directory, made when missing.
    struct stat sb;
    EXPECT_EQ(stat((home_ / "run/mount.lock").c_str(), &sb), 0);
}

TEST_F(IpcTest, DetachWhileHeldFreesTheLock)
{
    ASSERT_EQ(sem_attach(), 0);
    ASSERT_EQ(sem_entercrit_mount(), 0);
    ASSERT_EQ(sem_detach(), 0);
    pid_t other = spawn([] { return sem_attach() == 0 && sem_entercrit_mount() == 0 ? 0 : 1; }, 5);
    EXPECT_EQ(wait_child(other), 0);
}

// ------------------------------------------------------------- status table

std::string get_text(const char* g, const char* t, const char* r)
{
    char buf[SHMRM_TEXT_SIZE];
    int rc = shmrm_getdescript(g, t, r, buf, sizeof(buf));
    return rc == SHMRM_SUCCESS ? std::string(buf) : "<rc " + std::to_string(rc) + ">";
}

TEST_F(IpcTest, StoresLatestTextAndTime)
{
    ASSERT_EQ(shmrm_attach(), 0);
    struct timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    ASSERT_EQ(shmrm_setdescript("grp1", "disk", "fs1", "Success.", 128), 0);
    ASSERT_EQ(shmrm_setdescript("grp1", "nas", "fs1", "Mount was failed.", 128), 0);
    ASSERT_EQ(shmrm_setdescript("grp1", "disk", "fs1", "Unmount was failed.", 128), 0);
    EXPECT_EQ(get_text("grp1", "disk", "fs1"), "Unmount was failed.");
    EXPECT_EQ(get_text("grp1", "nas", "fs1"), "Mount was failed.");
    EXPECT_EQ(get_text("grp2", "disk", "fs1"), "<rc 4>");

    SHMRM_RECORD recs[4];
    int n = 0;
    ASSERT_EQ(shmrm_list(recs, 4, &n), 0);
    ASSERT_EQ(n, 2);
    EXPECT_STREQ(recs[0].text, "Unmount was failed.");
    EXPECT_GE(recs[0].updated_sec, before.tv_sec);
    EXPECT_LE(recs[0].updated_sec, before.tv_sec + 5);
    EXPECT_LT(recs[0].updated_nsec, 1000000000L);

    // A second attach in the same process shares the table.
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(shmrm_detach(), 0);
    EXPECT_EQ(get_text("grp1", "nas", "fs1"), "Mount was failed.");
    ASSERT_EQ(shmrm_detach(), 0);

    // It outlives the writer: a later attach finds the texts.
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(get_text("grp1", "disk", "fs1"), "Unmount was failed.");
}

TEST_F(IpcTest, TextIsCutAtBufferLengthAnd127)
{
    const std::string a127(127, 'a');
    const std::string b200(200, 'b');
    const char nul_inside[] = "ab\0cd";
    struct Case {
        const char* text;
        int len;
        std::string want;
    };
    const Case cases[] = {
        {"abc", 1, "a"},
        {"abc", 3, "abc"},
        {"abc", 4, "abc"},
        {nul_inside, 5, "ab"},
        {a127.c_str(), 128, a127},
        {b200.c_str(), 128, std::string(127, 'b')},
        {b200.c_str(), 201, std::string(127, 'b')},
        {"", 128, ""},
    };
    ASSERT_EQ(shmrm_attach(), 0);
    for (const Case& c : cases) {
        ASSERT_EQ(shmrm_setdescript("g", "disk", "r", c.text, c.len), 0) << c.len;
        EXPECT_EQ(get_text("g", "disk", "r"), c.want) << "len " << c.len;
    }
    // A reader's small buffer gets a cut text and says so.
    char small[4];
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", small, sizeof(small)), SHMRM_SUCCESS);  // "" fits
    ASSERT_EQ(shmrm_setdescript("g", "disk", "r", "abcd", 128), 0);
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", small, sizeof(small)), SHMRM_ERR_NOTENOUGH);
    EXPECT_STREQ(small, "abc");
}

TEST_F(IpcTest, BadArguments)
{
    const std::string n31(31, 'n');
    const std::string n32(32, 'n');
    char buf[SHMRM_TEXT_SIZE];
    SHMRM_RECORD recs[2];
    int count = 0;
    ASSERT_EQ(shmrm_attach(), 0);
    struct Case {
        const char* name;
        int rc;
        int want;
    };
    const Case cases[] = {
        {"31-byte names", shmrm_setdescript(n31.c_str(), n31.c_str(), n31.c_str(), "t", 2), SHMRM_SUCCESS},
        {"null group", shmrm_setdescript(nullptr, "disk", "r", "t", 2), SHMRM_ERR_INVALIDPARAM},
        {"empty type", shmrm_setdescript("g", "", "r", "t", 2), SHMRM_SUCCESS},
        {"32-byte group", shmrm_setdescript(n32.c_str(), "disk", "r", "t", 2), SHMRM_ERR_INVALIDPARAM},
        {"32-byte type", shmrm_setdescript("g", n32.c_str(), "r", "t", 2), SHMRM_ERR_INVALIDPARAM},
        {"32-byte resource", shmrm_setdescript("g", "disk", n32.c_str(), "t", 2), SHMRM_ERR_INVALIDPARAM},
        {"null resource", shmrm_setdescript("g", "disk", nullptr, "t", 2), SHMRM_ERR_INVALIDPARAM},
        {"null text", shmrm_setdescript("g", "disk", "r", nullptr, 2), SHMRM_ERR_INVALIDPARAM},
        {"len 0", shmrm_setdescript("g", "disk", "r", "t", 0), SHMRM_ERR_INVALIDPARAM},
        {"len -1", shmrm_setdescript("g", "disk", "r", "t", -1), SHMRM_ERR_INVALIDPARAM},
        {"get null text", shmrm_getdescript("g", "disk", "r", nullptr, 8), SHMRM_ERR_INVALIDPARAM},
        {"get len 0", shmrm_getdescript("g", "disk", "r", buf, 0), SHMRM_ERR_INVALIDPARAM},
        {"get 32-byte name", shmrm_getdescript(n32.c_str(), "disk", "r", buf, 8), SHMRM_ERR_INVALIDPARAM},
        {"get null name", shmrm_getdescript("g", nullptr, "r", buf, 8), SHMRM_ERR_INVALIDPARAM},
        {"list null out", shmrm_list(nullptr, 2, &count), SHMRM_ERR_INVALIDPARAM},
        {"list max 0", shmrm_list(recs, 0, &count), SHMRM_ERR_INVALIDPARAM},
        {"list max -1", shmrm_list(recs, -1, &count), SHMRM_ERR_INVALIDPARAM},
        {"list null count", shmrm_list(recs, 2, nullptr), SHMRM_ERR_INVALIDPARAM},
        {"tablename null", shmrm_tablename(nullptr, 64), SHMRM_ERR_INVALIDPARAM},
        {"tablename len 0", shmrm_tablename(buf, 0), SHMRM_ERR_INVALIDPARAM},
        {"tablename too small", shmrm_tablename(buf, 8), SHMRM_ERR_NOTENOUGH},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    // Only the two valid calls stored anything.
    ASSERT_EQ(shmrm_list(recs, 2, &count), 0);
    EXPECT_EQ(count, 2);
}

TEST_F(IpcTest, CallsNeedAttach)
{
    char buf[8];
    SHMRM_RECORD rec;
    int count = 0;
    EXPECT_EQ(shmrm_setdescript("g", "disk", "r", "t", 2), SHMRM_ERR_NOTINIT);
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", buf, sizeof(buf)), SHMRM_ERR_NOTINIT);
    EXPECT_EQ(shmrm_list(&rec, 1, &count), SHMRM_ERR_NOTINIT);
    EXPECT_EQ(shmrm_detach(), SHMRM_ERR_NOTINIT);
}

TEST_F(IpcTest, TableFull)
{
    ASSERT_EQ(shmrm_attach(), 0);
    char name[32];
    int stored = 0;
    for (int i = 0; i < 2000; i++) {
        snprintf(name, sizeof(name), "r%d", i);
        int rc = shmrm_setdescript("g", "disk", name, name, sizeof(name));
        if (rc == SHMRM_ERR_MAXRSC) {
            break;
        }
        ASSERT_EQ(rc, 0) << name;
        stored++;
    }
    EXPECT_EQ(stored, 1024);
    // A full table still takes updates of the records it has.
    EXPECT_EQ(shmrm_setdescript("g", "disk", "r0", "again", 6), 0);
    EXPECT_EQ(get_text("g", "disk", "r0"), "again");
    EXPECT_EQ(get_text("g", "disk", "r1023"), "r1023");
    EXPECT_EQ(shmrm_setdescript("g", "nas", "r0", "new", 4), SHMRM_ERR_MAXRSC);

    std::vector<SHMRM_RECORD> recs(1024);
    int n = 0;
    EXPECT_EQ(shmrm_list(recs.data(), 1000, &n), SHMRM_ERR_NOTENOUGH);
    EXPECT_EQ(n, 1000);
    EXPECT_EQ(shmrm_list(recs.data(), 1024, &n), SHMRM_SUCCESS);
    EXPECT_EQ(n, 1024);
}

// A text whose every part is derived from its head, so a reader can tell a
// torn one: "w<writer> r<resource> u<update>|" repeated up to 127 characters.
std::string pattern(int w, int r, int u)
{
    char head[40];
    snprintf(head, sizeof(head), "w%d r%d u%d|", w, r, u);
    std::string s;
    while (s.size() < SHMRM_TEXT_SIZE - 1) {
        s += head;
    }
    return s.substr(0, SHMRM_TEXT_SIZE - 1);
}

bool whole(const SHMRM_RECORD& rec)
{
    int w, r, u;
    if (sscanf(rec.text, "w%d r%d u%d|", &w, &r, &u) != 3) {
        return false;
    }
    char name[32];
    snprintf(name, sizeof(name), "w%d", w);
    return pattern(w, r, u) == rec.text && std::string(name) == rec.group;
}

TEST_F(IpcTest, ConcurrentWritersLeaveEveryRecordWhole)
{
    constexpr int kWriters = 4;
    constexpr int kResources = 64;
    constexpr int kUpdates = 40;
    Pipe stop;
    pid_t reader = spawn(
        [&] {
            close(stop.fd[1]);
            if (shmrm_attach() != 0) {
                return 1;
            }
            std::vector<SHMRM_RECORD> recs(1024);
            int passes = 0;
            for (;;) {
                int n = 0;
                if (shmrm_list(recs.data(), 1024, &n) != 0) {
                    return 2;
                }
                for (int i = 0; i < n; i++) {
                    if (!whole(recs[i])) {
                        fprintf(stderr, "torn: %s\n", recs[i].text);
                        return 3;
                    }
                }
                passes++;
                struct pollfd p = {stop.fd[0], POLLIN, 0};
                if (poll(&p, 1, 0) == 1) {
                    return passes > 1 ? 0 : 4;
                }
            }
        },
        120);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++) {
        writers.push_back(spawn(
            [w] {
                if (shmrm_attach() != 0) {
                    return 1;
                }
                char group[32];
                char rsc[32];
                snprintf(group, sizeof(group), "w%d", w);
                for (int u = 0; u < kUpdates; u++) {
                    for (int r = 0; r < kResources; r++) {
                        snprintf(rsc, sizeof(rsc), "r%d", r);
                        std::string text = pattern(w, r, u);
                        if (shmrm_setdescript(group, "disk", rsc, text.c_str(), SHMRM_TEXT_SIZE) != 0) {
                            return 2;
                        }
                    }
                }
                return 0;
            },
            120));
    }
    for (pid_t pid : writers) {
        EXPECT_EQ(wait_child(pid), 0);
    }
    close(stop.fd[1]);  // POLLHUP ends the reader
    stop.fd[1] = -1;
    EXPECT_EQ(wait_child(reader), 0);

    ASSERT_EQ(shmrm_attach(), 0);
    std::vector<SHMRM_RECORD> recs(1024);
    int n = 0;
    ASSERT_EQ(shmrm_list(recs.data(), 1024, &n), 0);
    EXPECT_EQ(n, kWriters * kResources);
    for (int w = 0; w < kWriters; w++) {
        for (int r = 0; r < kResources; r++) {
            std::string g = "w" + std::to_string(w);
            std::string rsc = "r" + std::to_string(r);
            EXPECT_EQ(get_text(g.c_str(), "disk", rsc.c_str()), pattern(w, r, kUpdates - 1))
                << g << " " << rsc;
        }
    }
}

TEST_F(IpcTest, EachNodeHasItsOwnTable)
{
    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript("g", "disk", "r", "node A", 7), 0);
    ASSERT_EQ(shmrm_detach(), 0);

    TempDir other;
    setenv("ZOR_HOME", other.path().c_str(), 1);
    char other_table[64];
    ASSERT_EQ(shmrm_tablename(other_table, sizeof(other_table)), 0);
    EXPECT_STRNE(other_table, table_);
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(get_text("g", "disk", "r"), "<rc 4>");
    ASSERT_EQ(shmrm_detach(), 0);
    shm_unlink(other_table);

    // Another spelling of the same tree is the same node.
    std::string link = other / "link";
    ASSERT_EQ(symlink(home_.path().c_str(), link.c_str()), 0);
    setenv("ZOR_HOME", (link + "/").c_str(), 1);
    char same[64];
    ASSERT_EQ(shmrm_tablename(same, sizeof(same)), 0);
    EXPECT_STREQ(same, table_);
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(get_text("g", "disk", "r"), "node A");
    ASSERT_EQ(shmrm_detach(), 0);
}

// What an attach finds in place of a table: a blank object is taken over,
// anything else is left alone and reported.
TEST_F(IpcTest, ForeignObjectUnderTheTableName)
{
    struct Case {
        const char* name;
        size_t size;
        unsigned char fill;
        int want;
    };
    const Case cases[] = {
        {"blank, small", 4096, 0, SHMRM_SUCCESS},
        {"blank, size 0", 0, 0, SHMRM_SUCCESS},
        {"blank, large", 1 << 20, 0, SHMRM_SUCCESS},
        {"foreign data, small", 4096, 0x41, SHMRM_ERR_LOADINFO},
        {"foreign data, table size", 0, 0x41, SHMRM_ERR_LOADINFO},  // size 0: use the real table size
    };
    ASSERT_EQ(shmrm_attach(), 0);
    struct stat sb;
    int fd0 = shm_open(table_, O_RDONLY, 0);
    ASSERT_GE(fd0, 0);
    ASSERT_EQ(fstat(fd0, &sb), 0);
    close(fd0);
    ASSERT_EQ(shmrm_detach(), 0);
    const size_t table_size = static_cast<size_t>(sb.st_size);

    for (const Case& c : cases) {
        shm_unlink(table_);
        size_t size = c.fill != 0 && c.size == 0 ? table_size : c.size;
        int fd = shm_open(table_, O_RDWR | O_CREAT | O_EXCL, 0600);
        ASSERT_GE(fd, 0) << c.name;
        ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
        if (c.fill != 0) {
            std::vector<unsigned char> junk(size, c.fill);
            ASSERT_EQ(write(fd, junk.data(), size), static_cast<ssize_t>(size));
        }
        close(fd);
        EXPECT_EQ(shmrm_attach(), c.want) << c.name;
        if (c.want == SHMRM_SUCCESS) {
            EXPECT_EQ(shmrm_setdescript("g", "disk", "r", "ok", 3), 0) << c.name;
            EXPECT_EQ(get_text("g", "disk", "r"), "ok") << c.name;
            EXPECT_EQ(shmrm_detach(), 0);
        }
    }
}

// --------------------------------------------------------------- zorstat

// Runs zorstat with args and returns its output; *status gets its exit code.
std::string run_zorstat(const std::string& args, int* status)
{
    std::string cmd = std::string(ZOR_TEST_BUILD_DIR) + "/tools/zorstat " + args + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    if (p == nullptr) {
        *status = -1;
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) {
        out.append(buf, n);
    }
    int st = pclose(p);
    *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
}

TEST_F(IpcTest, ZorstatShowsTheTable)
{
    ASSERT_EQ(access(ZOR_TEST_BUILD_DIR "/tools/zorstat", X_OK), 0) << "build the zorstat target first";
    int st = 0;
    EXPECT_EQ(run_zorstat("--json", &st), "[]\n");
    EXPECT_EQ(st, 0);
    std::string empty = run_zorstat("", &st);
    EXPECT_EQ(st, 0);
    EXPECT_EQ(empty.find("GROUP"), 0u);
    EXPECT_EQ(empty.find('\n'), empty.size() - 1) << "only the heading";
    struct stat sb;
    EXPECT_NE(stat(("/dev/shm" + std::string(table_)).c_str(), &sb), 0)
        << "looking must not create the table";

    ASSERT_EQ(shmrm_attach(), 0);
    ASSERT_EQ(shmrm_setdescript("grpB", "disk", "fs1", "Success.", 128), 0);
    ASSERT_EQ(
        shmrm_setdescript("grpA", "nas", "share", "quote \" back \\ tab \t nl \n bell \x07 bad \xff é", 128),
        0);
    ASSERT_EQ(shmrm_setdescript("grpA", "disk", "fs2", "Mount was failed. (/mnt/a)", 128), 0);

    std::string table = run_zorstat("", &st);
    EXPECT_EQ(st, 0);
    size_t a2 = table.find("grpA   disk  fs2");
    size_t an = table.find("grpA   nas   share");
    size_t b1 = table.find("grpB   disk  fs1");
    ASSERT_NE(a2, std::string::npos) << table;
    ASSERT_NE(an, std::string::npos) << table;
    ASSERT_NE(b1, std::string::npos) << table;
    EXPECT_LT(a2, an);
    EXPECT_LT(an, b1);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 4) << "a text with a newline stays on one line";

    // The JSON must parse and give back the texts as stored.
    std::string check =
        "--json -g grpA | /usr/bin/python3 -c 'import json,sys; "
        "[print(ascii((o[\"group\"], o[\"type\"], o[\"resource\"], o[\"text\"], len(o[\"updated\"]) > 18))) "
        "for o in json.load(sys.stdin)]'";
    std::string parsed = run_zorstat(check, &st);
    EXPECT_EQ(st, 0);
    EXPECT_EQ(
        parsed,
        "('grpA', 'disk', 'fs2', 'Mount was failed. (/mnt/a)', True)\n"
        "('grpA', 'nas', 'share', 'quote \" back \\\\ tab \\t nl \\n bell \\x07 bad \\ufffd \\xe9', True)\n");
    std::string one = run_zorstat("-r fs1 --json", &st);
    EXPECT_NE(one.find("\"fs1\""), std::string::npos);
    EXPECT_EQ(one.find("grpA"), std::string::npos);

    EXPECT_EQ(run_zorstat("--table-name", &st), std::string(table_) + "\n");
    EXPECT_EQ(st, 0);
    for (const char* bad : {"-x", "extra", "-g"}) {
        run_zorstat(bad, &st);
        EXPECT_EQ(st, 2) << bad;
    }
}

}  // namespace
