// The IPC library for real: the mount lock between processes (including a
// holder killed by SIGKILL), the status table under concurrent writers, its
// limits and bad arguments.
#include "test_support.h"
#include "zoripc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

namespace {

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

// A pipe used as a one-shot signal between processes.
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
    void post() const
    {
        if (write(fd[1], "x", 1) != 1) {
            _exit(99);
        }
    }
    // True when a byte came within ms.
    bool wait(int ms) const
    {
        struct pollfd p = {fd[0], POLLIN, 0};
        char c;
        return poll(&p, 1, ms) == 1 && read(fd[0], &c, 1) == 1;
    }
    int fd[2];
};

// The lock taken in a child that reports on `entered` once it has it.
int enter_and_post(const Pipe& entered)
{
    if (sem_attach() != 0 || sem_entercrit_mount() != 0) {
        return 1;
    }
    entered.post();
    return 0;
}

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
    Pipe held, entered;
    pid_t holder = spawn([&] { return enter_and_post(held) != 0 ? 1 : pause(); });
    ASSERT_TRUE(held.wait(5000)) << "holder did not take the lock";
    pid_t next = spawn([&] { return enter_and_post(entered); }, 10);
    EXPECT_FALSE(entered.wait(300)) << "entered while another process held the lock";

    kill(holder, SIGKILL);
    EXPECT_EQ(wait_child(holder), 128 + SIGKILL);
    EXPECT_TRUE(entered.wait(2000)) << "the kernel did not free the lock of the dead holder";
    EXPECT_EQ(wait_child(next), 0);
}

// Leave and detach both free the lock; a forked child inherits the parent's
// descriptor but must neither count as attached nor share its hold.
TEST_F(IpcTest, LeaveOrDetachFreesTheLockForAForkedChild)
{
    for (bool by_detach : {false, true}) {
        ASSERT_EQ(sem_attach(), 0);
        ASSERT_EQ(sem_entercrit_mount(), 0);
        Pipe entered;
        pid_t child =
            spawn([&] { return sem_entercrit_mount() != SHMRM_ERR_NOTINIT ? 2 : enter_and_post(entered); });
        EXPECT_FALSE(entered.wait(300)) << by_detach;
        EXPECT_EQ(by_detach ? sem_detach() : sem_leavecrit_mount(), 0);
        EXPECT_TRUE(entered.wait(5000)) << by_detach;
        EXPECT_EQ(wait_child(child), 0);
        while (sem_detach() == 0) {
        }
    }
}

// Rows are calls made in order; each with the result it must give.
struct Call {
    const char* name;
    int rc;
    int want;
};

TEST_F(IpcTest, MountLockCallOrder)
{
    const int BAD = SHMRM_ERR_INVALIDPARAM, NOTINIT = SHMRM_ERR_NOTINIT;
    const Call calls[] = {
        {"enter without attach", sem_entercrit_mount(), NOTINIT},
        {"leave without attach", sem_leavecrit_mount(), NOTINIT},
        {"detach without attach", sem_detach(), NOTINIT},
        {"attach", sem_attach(), 0},
        {"leave without enter", sem_leavecrit_mount(), BAD},
        {"enter", sem_entercrit_mount(), 0},
        {"enter again: not re-entrant", sem_entercrit_mount(), BAD},
        {"leave", sem_leavecrit_mount(), 0},
        {"leave again", sem_leavecrit_mount(), BAD},
        {"nested attach", sem_attach(), 0},
        {"inner detach", sem_detach(), 0},
        {"enter, still attached", sem_entercrit_mount(), 0},
        {"detach while held", sem_detach(), 0},
        {"leave after detach", sem_leavecrit_mount(), NOTINIT},
    };
    for (const Call& c : calls) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    // The lock lives in the node's run directory, made when missing.
    EXPECT_EQ(access((home_ / "run/mount.lock").c_str(), F_OK), 0);
}

// ------------------------------------------------------------- status table

std::string get_text(const char* g, const char* t, const char* r)
{
    char buf[SHMRM_TEXT_SIZE];
    int rc = shmrm_getdescript(g, t, r, buf, sizeof(buf));
    return rc == SHMRM_SUCCESS ? std::string(buf) : "<rc " + std::to_string(rc) + ">";
}

TEST_F(IpcTest, StoresLatestTextCutAt127)
{
    ASSERT_EQ(shmrm_attach(), 0);
    struct timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    ASSERT_EQ(shmrm_setdescript("grp1", "disk", "fs1", "Success.", 128), 0);
    ASSERT_EQ(shmrm_setdescript("grp1", "nas", "fs1", "Mount was failed.", 128), 0);
    ASSERT_EQ(shmrm_setdescript("grp1", "disk", "fs1", "Unmount was failed.", 128), 0);
    EXPECT_EQ(get_text("grp1", "nas", "fs1"), "Mount was failed.");
    EXPECT_EQ(get_text("grp2", "disk", "fs1"), "<rc 4>");
    SHMRM_RECORD recs[4];
    int n = 0;
    ASSERT_EQ(shmrm_list(recs, 4, &n), 0);
    ASSERT_EQ(n, 2);
    EXPECT_STREQ(recs[0].text, "Unmount was failed.");
    EXPECT_GE(recs[0].updated_sec, before.tv_sec);
    EXPECT_LE(recs[0].updated_sec, before.tv_sec + 5);
    // It outlives the writer: a later attach finds the texts.
    ASSERT_EQ(shmrm_detach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    EXPECT_EQ(get_text("grp1", "disk", "fs1"), "Unmount was failed.");

    // The caller's buffer holds len bytes; the text ends at its first NUL or at 127.
    const std::string a127(127, 'a');
    const std::string b200(200, 'b');
    const struct {
        const char* text;
        int len;
        std::string want;
    } cases[] = {
        {"abc", 1, "a"},
        {"abc", 4, "abc"},
        {"ab\0cd", 5, "ab"},
        {a127.c_str(), 128, a127},
        {b200.c_str(), 201, std::string(127, 'b')},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(shmrm_setdescript("g", "disk", "r", c.text, c.len), 0) << c.len;
        EXPECT_EQ(get_text("g", "disk", "r"), c.want) << "len " << c.len;
    }
    // A reader's small buffer gets a cut text and says so.
    char small[4];
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", small, sizeof(small)), SHMRM_ERR_NOTENOUGH);
    EXPECT_STREQ(small, "bbb");
}

TEST_F(IpcTest, BadArguments)
{
    const std::string n31(31, 'n');
    const std::string n32(32, 'n');
    char buf[SHMRM_TEXT_SIZE];
    SHMRM_RECORD recs[2];
    int count = 0;
    const int BAD = SHMRM_ERR_INVALIDPARAM;
    const Call calls[] = {
        {"set before attach", shmrm_setdescript("g", "disk", "r", "t", 2), SHMRM_ERR_NOTINIT},
        {"get before attach", shmrm_getdescript("g", "disk", "r", buf, 8), SHMRM_ERR_NOTINIT},
        {"list before attach", shmrm_list(recs, 2, &count), SHMRM_ERR_NOTINIT},
        {"detach before attach", shmrm_detach(), SHMRM_ERR_NOTINIT},
        {"attach", shmrm_attach(), SHMRM_SUCCESS},
        {"31-byte names", shmrm_setdescript(n31.c_str(), n31.c_str(), n31.c_str(), "t", 2), SHMRM_SUCCESS},
        // An agent started under an unknown name has no type; its refusal must still show.
        {"empty type", shmrm_setdescript("g", "", "r", "t", 2), SHMRM_SUCCESS},
        {"empty group", shmrm_setdescript("", "disk", "r", "t", 2), BAD},
        {"null resource", shmrm_setdescript("g", "disk", nullptr, "t", 2), BAD},
        {"32-byte group", shmrm_setdescript(n32.c_str(), "disk", "r", "t", 2), BAD},
        {"32-byte type", shmrm_setdescript("g", n32.c_str(), "r", "t", 2), BAD},
        {"32-byte resource", shmrm_setdescript("g", "disk", n32.c_str(), "t", 2), BAD},
        {"null text", shmrm_setdescript("g", "disk", "r", nullptr, 2), BAD},
        {"len 0", shmrm_setdescript("g", "disk", "r", "t", 0), BAD},
        {"get null type", shmrm_getdescript("g", nullptr, "r", buf, 8), BAD},
        {"get len 0", shmrm_getdescript("g", "disk", "r", buf, 0), BAD},
        {"list max 0", shmrm_list(recs, 0, &count), BAD},
        {"list null count", shmrm_list(recs, 2, nullptr), BAD},
        {"tablename null", shmrm_tablename(nullptr, 64), BAD},
        {"tablename too small", shmrm_tablename(buf, 8), SHMRM_ERR_NOTENOUGH},
    };
    for (const Call& c : calls) {
        EXPECT_EQ(c.rc, c.want) << c.name;
    }
    // Only the two valid calls stored anything.
    ASSERT_EQ(shmrm_list(recs, 2, &count), 0);
    EXPECT_EQ(count, 2);
}

TEST_F(IpcTest, TableFull)
{
    ASSERT_EQ(shmrm_attach(), 0);
    int stored = 0;
    for (int rc = 0; rc == 0 && stored < 2000;) {
        std::string name = "r" + std::to_string(stored);
        rc = shmrm_setdescript("g", "disk", name.c_str(), name.c_str(), 32);
        ASSERT_TRUE(rc == 0 || rc == SHMRM_ERR_MAXRSC) << rc;
        stored += rc == 0 ? 1 : 0;
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
    std::string head = "w" + std::to_string(w) + " r" + std::to_string(r) + " u" + std::to_string(u) + "|";
    std::string s;
    while (s.size() < SHMRM_TEXT_SIZE - 1) {
        s += head;
    }
    return s.substr(0, SHMRM_TEXT_SIZE - 1);
}

// A record is whole when its text matches its own head and its names.
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
    // The reader checks every record it sees until the writers are done.
    pid_t reader = spawn(
        [&] {
            int rc = shmrm_attach();
            for (int passes = 0;; passes++) {
                if ((rc |= shmrm_list(recs.data(), 1024, &n)) != 0) {
                    return 2;
                }
                if (!std::all_of(recs.begin(), recs.begin() + n, whole)) {
                    return 3;
                }
                if (stop.wait(0)) {
                    return passes > 0 ? 0 : 4;
                }
            }
        },
        120);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++) {
        writers.push_back(spawn(
            [w] {
                int bad = shmrm_attach();
                for (int u = 0; u < kUpdates; u++) {
                    for (int r = 0; r < kResources; r++) {
                        bad |= shmrm_setdescript(("w" + std::to_string(w)).c_str(), "disk",
                                                 ("r" + std::to_string(r)).c_str(), pattern(w, r, u).c_str(),
                                                 128);
                    }
                }
                return bad;
            },
            120));
    }
    for (pid_t pid : writers) {
        EXPECT_EQ(wait_child(pid), 0);
    }
    stop.post();
    EXPECT_EQ(wait_child(reader), 0);

    ASSERT_EQ(shmrm_list(recs.data(), 1024, &n), 0);
    ASSERT_EQ(n, kWriters * kResources);
    for (int i = 0; i < n; i++) {
        int w, r;
        ASSERT_EQ(sscanf(recs[i].group, "w%d", &w) + sscanf(recs[i].resource, "r%d", &r), 2);
        EXPECT_EQ(recs[i].text, pattern(w, r, kUpdates - 1)) << recs[i].group << " " << recs[i].resource;
    }
}

// What an attach finds in place of a table: a blank object (a creator that
// died early) is taken over, anything else is left alone and reported.
TEST_F(IpcTest, ForeignObjectUnderTheTableName)
{
    struct stat sb;
    ASSERT_EQ(shmrm_attach(), 0);
    int fd = shm_open(table_, O_RDONLY, 0);
    ASSERT_EQ(fstat(fd, &sb), 0);
    close(fd);
    ASSERT_EQ(shmrm_detach(), 0);
    for (size_t size : {size_t{4096}, static_cast<size_t>(sb.st_size)}) {
        for (char fill : {'\0', 'A'}) {
            shm_unlink(table_);
            fd = shm_open(table_, O_RDWR | O_CREAT | O_EXCL, 0600);
            ASSERT_GE(fd, 0);
            std::string junk(size, fill);
            ASSERT_EQ(write(fd, junk.data(), size), static_cast<ssize_t>(size));
            close(fd);
            EXPECT_EQ(shmrm_attach(), fill == 0 ? SHMRM_SUCCESS : SHMRM_ERR_LOADINFO)
                << size << " " << int(fill);
            EXPECT_EQ(shmrm_setdescript("g", "disk", "r", "ok", 3), fill == 0 ? 0 : SHMRM_ERR_NOTINIT);
            while (shmrm_detach() == 0) {
            }
        }
    }
}

}  // namespace
