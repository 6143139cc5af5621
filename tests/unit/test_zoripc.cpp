// The IPC library for real: the mount lock between processes, the status
// table under concurrent writers, its limits and bad arguments.
#include "test_support.h"
#include "zoripc.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

namespace {

// Runs fn in a child that exits with its result; the alarm ends a child stuck on a broken lock.
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

// Exit code of pid, 128 + signal, or -1.
int wait_child(pid_t pid)
{
    int st = 0;
    pid_t r;
    while ((r = waitpid(pid, &st, 0)) < 0 && errno == EINTR) {
    }
    return r != pid ? -1 : WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// A one-byte signal between processes.
struct Pipe {
    int fd[2] = {-1, -1};
    bool ok = pipe(fd) == 0;
    ~Pipe()
    {
        close(fd[0]);
        close(fd[1]);
    }
    bool post() const
    {
        return write(fd[1], "x", 1) == 1;
    }
    bool wait(int ms) const
    {
        struct pollfd p = {fd[0], POLLIN, 0};
        char c;
        return poll(&p, 1, ms) == 1 && read(fd[0], &c, 1) == 1;
    }
};

int enter_and_post(const Pipe& entered)
{
    return sem_attach() == 0 && sem_entercrit_mount() == 0 && entered.post() ? 0 : 1;
}

std::string get_text(const char* g, const char* t, const char* r)
{
    char buf[SHMRM_TEXT_SIZE];
    int rc = shmrm_getdescript(g, t, r, buf, sizeof(buf));
    return rc == SHMRM_SUCCESS ? std::string(buf) : "<rc " + std::to_string(rc) + ">";
}

// Every test is a node of its own: a fresh ZOR_HOME and its own status table.
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
    }
    TempDir home_;
    char table_[64] = "";
};

// A forked child does not share its parent's hold; detach frees the lock; a
// second process blocks while it is held and gets it at once when the holder
// is SIGKILLed.
TEST_F(IpcTest, MountLockAcrossProcesses)
{
    ASSERT_EQ(sem_attach(), 0);
    ASSERT_EQ(sem_entercrit_mount(), 0);
    Pipe held, entered;
    ASSERT_TRUE(held.ok && entered.ok);
    pid_t holder = spawn([&] { return enter_and_post(held) != 0 ? 1 : pause(); });
    EXPECT_FALSE(held.wait(300)) << "a forked child shared its parent's hold";
    ASSERT_EQ(sem_detach(), 0);
    ASSERT_TRUE(held.wait(5000)) << "detach did not free the lock";

    pid_t next = spawn([&] { return enter_and_post(entered); }, 10);
    EXPECT_FALSE(entered.wait(300)) << "entered while another process held the lock";
    kill(holder, SIGKILL);
    EXPECT_EQ(wait_child(holder), 128 + SIGKILL);
    EXPECT_TRUE(entered.wait(2000)) << "the killed holder's lock was not freed";
    EXPECT_EQ(wait_child(next), 0);
}

// Rows are calls made in order, each with the result it must give.
TEST_F(IpcTest, CallOrderAndBadArguments)
{
    const std::string n31(31, 'n'), n32(32, 'n');
    char buf[SHMRM_TEXT_SIZE];
    SHMRM_RECORD recs[2];
    int count = 0;
    const int BAD = SHMRM_ERR_INVALIDPARAM, NOTINIT = SHMRM_ERR_NOTINIT;
    const struct {
        const char* name;
        int rc;
        int want;
    } calls[] = {
        {"enter without attach", sem_entercrit_mount(), NOTINIT},
        {"attach", sem_attach(), 0},
        {"leave without enter", sem_leavecrit_mount(), BAD},
        {"enter", sem_entercrit_mount(), 0},
        {"enter again: not re-entrant", sem_entercrit_mount(), BAD},
        {"leave", sem_leavecrit_mount(), 0},
        {"nested attach", sem_attach(), 0},
        {"inner detach", sem_detach(), 0},
        {"enter, still attached", sem_entercrit_mount(), 0},
        {"detach while held", sem_detach(), 0},
        {"leave after detach", sem_leavecrit_mount(), NOTINIT},
        {"set before attach", shmrm_setdescript("g", "disk", "r", "t", 2), NOTINIT},
        {"list before attach", shmrm_list(recs, 2, &count), NOTINIT},
        {"attach table", shmrm_attach(), 0},
        {"31-byte names", shmrm_setdescript(n31.c_str(), n31.c_str(), n31.c_str(), "t", 2), 0},
        // An agent started under an unknown name has no type; its refusal must still show.
        {"empty type", shmrm_setdescript("g", "", "r", "t", 2), 0},
        {"empty group", shmrm_setdescript("", "disk", "r", "t", 2), BAD},
        {"32-byte type", shmrm_setdescript("g", n32.c_str(), "r", "t", 2), BAD},
        {"32-byte resource", shmrm_setdescript("g", "disk", n32.c_str(), "t", 2), BAD},
        {"null text", shmrm_setdescript("g", "disk", "r", nullptr, 2), BAD},
        {"len 0", shmrm_setdescript("g", "disk", "r", "t", 0), BAD},
        {"get null type", shmrm_getdescript("g", nullptr, "r", buf, 8), BAD},
        {"get len 0", shmrm_getdescript("g", "disk", "r", buf, 0), BAD},
        {"list max 0", shmrm_list(recs, 0, &count), BAD},
        {"tablename too small", shmrm_tablename(buf, 8), SHMRM_ERR_NOTENOUGH},
    };
    for (const auto& c : calls) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    EXPECT_EQ(get_text("g", "", "r"), "t");
    ASSERT_EQ(shmrm_list(recs, 2, &count), 0);
    EXPECT_EQ(count, 2);
}

TEST_F(IpcTest, LatestTextKeptAndCutAt127)
{
    ASSERT_EQ(shmrm_attach(), 0);
    const time_t before = time(nullptr);
    ASSERT_EQ(shmrm_setdescript("grp1", "disk", "fs1", "Success.", 128), 0);
    ASSERT_EQ(shmrm_setdescript("grp1", "nas", "fs1", "Mount was failed.", 128), 0);
    ASSERT_EQ(shmrm_setdescript("grp1", "disk", "fs1", "Unmount was failed.", 128), 0);
    EXPECT_EQ(get_text("grp2", "disk", "fs1"), "<rc 4>");
    SHMRM_RECORD recs[4];
    int n = 0;
    ASSERT_EQ(shmrm_list(recs, 4, &n), 0);
    ASSERT_EQ(n, 2);
    EXPECT_STREQ(recs[0].text, "Unmount was failed.");
    EXPECT_GE(recs[0].updated_sec, before);
    EXPECT_LE(recs[0].updated_sec, before + 5);
    // The table outlives its writers.
    ASSERT_EQ(shmrm_detach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(get_text("grp1", "disk", "fs1"), "Unmount was failed.");

    // The caller's buffer holds len bytes; the text ends at its first NUL or at 127.
    const std::string a127(127, 'a'), b200(200, 'b');
    const struct {
        const char* text;
        int len;
        std::string want;
    } cases[] = {
        {"abc", 1, "a"},
        {"ab\0cd", 5, "ab"},
        {a127.c_str(), 128, a127},
        {b200.c_str(), 201, b200.substr(0, 127)},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(shmrm_setdescript("g", "disk", "r", c.text, c.len), 0);
        EXPECT_EQ(get_text("g", "disk", "r"), c.want) << "len " << c.len;
    }
    char small[4];
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", small, sizeof(small)), SHMRM_ERR_NOTENOUGH);
    EXPECT_STREQ(small, "bbb");
}

TEST_F(IpcTest, TableFull)
{
    ASSERT_EQ(shmrm_attach(), 0);
    for (int i = 0; i < 1024; i++) {
        std::string name = "r" + std::to_string(i);
        ASSERT_EQ(shmrm_setdescript("g", "disk", name.c_str(), name.c_str(), 32), 0) << i;
    }
    EXPECT_EQ(shmrm_setdescript("g", "nas", "r0", "new", 4), SHMRM_ERR_MAXRSC);
    // A full table still takes updates of the records it has.
    EXPECT_EQ(shmrm_setdescript("g", "disk", "r0", "again", 6), 0);
    EXPECT_EQ(get_text("g", "disk", "r0"), "again");
    EXPECT_EQ(get_text("g", "disk", "r1023"), "r1023");
    std::vector<SHMRM_RECORD> recs(1024);
    int n = 0;
    EXPECT_EQ(shmrm_list(recs.data(), 1023, &n), SHMRM_ERR_NOTENOUGH);
    EXPECT_EQ(n, 1023);
    EXPECT_EQ(shmrm_list(recs.data(), 1024, &n), 0);
    EXPECT_EQ(n, 1024);
}

// "w<writer> r<resource> u<update>|" repeated to 127 characters: a reader
// can tell a torn text from a whole one.
std::string pattern(int w, int r, int u)
{
    std::string head = "w" + std::to_string(w) + " r" + std::to_string(r) + " u" + std::to_string(u) + "|";
    std::string s;
    while (s.size() < SHMRM_TEXT_SIZE - 1) {
        s += head;
    }
    return s.substr(0, SHMRM_TEXT_SIZE - 1);
}

bool whole(const SHMRM_RECORD& rec)
{
    int w, r, u;
    return sscanf(rec.text, "w%d r%d u%d|", &w, &r, &u) == 3 && pattern(w, r, u) == rec.text &&
           "w" + std::to_string(w) == rec.group && "r" + std::to_string(r) == rec.resource;
}

TEST_F(IpcTest, ConcurrentWritersLeaveEveryRecordWhole)
{
    constexpr int kWriters = 4, kResources = 64, kUpdates = 40;
    ASSERT_EQ(shmrm_attach(), 0);  // inherited, and so re-opened, by every child
    std::vector<SHMRM_RECORD> recs(1024);
    int n = 0;
    Pipe stop;
    ASSERT_TRUE(stop.ok);
    // The reader checks every record it sees until the writers are done.
    pid_t reader = spawn(
        [&] {
            int bad = shmrm_attach();
            for (bool done = false; bad == 0 && !done;) {
                done = stop.wait(0);
                bad = shmrm_list(recs.data(), 1024, &n) != 0 ||
                      !std::all_of(recs.begin(), recs.begin() + n, whole);
            }
            return bad;
        },
        120);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++) {
        writers.push_back(spawn(
            [w] {
                int bad = shmrm_attach();
                const std::string g = "w" + std::to_string(w);
                for (int u = 0; u < kUpdates; u++) {
                    for (int r = 0; r < kResources; r++) {
                        bad |= shmrm_setdescript(g.c_str(), "disk", ("r" + std::to_string(r)).c_str(),
                                                 pattern(w, r, u).c_str(), 128);
                    }
                }
                return bad;
            },
            120));
    }
    for (pid_t pid : writers) {
        EXPECT_EQ(wait_child(pid), 0);
    }
    EXPECT_TRUE(stop.post());
    EXPECT_EQ(wait_child(reader), 0);

    ASSERT_EQ(shmrm_list(recs.data(), 1024, &n), 0);
    ASSERT_EQ(n, kWriters * kResources);
    for (int i = 0; i < n; i++) {
        int w, r;
        ASSERT_EQ(sscanf(recs[i].group, "w%d", &w) + sscanf(recs[i].resource, "r%d", &r), 2);
        EXPECT_EQ(recs[i].text, pattern(w, r, kUpdates - 1)) << recs[i].group << " " << recs[i].resource;
    }
}

}  // namespace
