// The IPC library for real: the mount lock between processes, the status
// table under concurrent writers, its limits and bad arguments.
#include "node_home.h"
#include "zoripc.h"

#include <ctime>
#include <set>

namespace {

std::string get_text(const char* g, const char* t, const char* r)
{
    char buf[SHMRM_TEXT_SIZE];
    int rc = shmrm_getdescript(g, t, r, buf, sizeof(buf));
    return rc == SHMRM_SUCCESS ? std::string(buf) : "<rc " + std::to_string(rc) + ">";
}

// Every test is a node of its own: a fresh ZOR_HOME and its own status table.
class IpcTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        while (shmrm_detach() == SHMRM_SUCCESS) {
        }
        while (sem_detach() == SHMRM_SUCCESS) {
        }
    }
    NodeHome home_;
};

// A forked child does not share its parent's hold, and detach frees a lock
// still held. That another process waits while the lock is held, and that the
// lock is a flock(2) (which the kernel drops when its holder dies), the mount
// commands' tests check with flock(1).
TEST_F(IpcTest, MountLockAcrossFork)
{
    ASSERT_EQ(sem_attach(), 0);
    ASSERT_EQ(sem_entercrit_mount(), 0);
    pid_t child = spawn([] { return sem_attach() == 0 && sem_entercrit_mount() == 0 ? 0 : 1; }, 10);
    usleep(300 * 1000);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "a forked child shared its parent's hold";
    ASSERT_EQ(sem_detach(), 0);
    EXPECT_EQ(wait_child(child), 0) << "detach did not free the lock";
}

// Rows are calls made in order. The table keeps one record per (group, type,
// resource) with its latest text; refused calls store nothing.
TEST_F(IpcTest, CallOrderRecordsAndBadArguments)
{
    const std::string n31(31, 'n'), n32(32, 'n');
    char buf[SHMRM_TEXT_SIZE];
    SHMRM_RECORD recs[5];
    int count = 0;
    const int BAD = SHMRM_ERR_INVALIDPARAM, NOTINIT = SHMRM_ERR_NOTINIT;
    const time_t before = time(nullptr);
    expect_calls({
        {"enter without attach", sem_entercrit_mount(), NOTINIT},
        {"attach", sem_attach(), 0},
        {"leave without enter", sem_leavecrit_mount(), BAD},
        {"enter", sem_entercrit_mount(), 0},
        {"enter again: not re-entrant", sem_entercrit_mount(), BAD},
        {"leave", sem_leavecrit_mount(), 0},
        {"nested attach", sem_attach(), 0},
        {"inner detach", sem_detach(), 0},
        {"enter, still attached", sem_entercrit_mount(), 0},
        {"set before attach", shmrm_setdescript("g", "disk", "r", "t", 2), NOTINIT},
        {"attach table", shmrm_attach(), 0},
        {"set", shmrm_setdescript("grp1", "disk", "fs1", "Success.", 128), 0},
        {"another type", shmrm_setdescript("grp1", "nas", "fs1", "Mount was failed.", 128), 0},
        {"update", shmrm_setdescript("grp1", "disk", "fs1", "Unmount was failed.", 128), 0},
        {"another group", shmrm_getdescript("grp2", "disk", "fs1", buf, 8), SHMRM_ERR_NOTFOUND},
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
    });
    ASSERT_EQ(shmrm_list(recs, 5, &count), 0);
    const bool stamped = recs[0].updated_sec >= before && recs[0].updated_sec <= before + 5;
    EXPECT_EQ(std::tuple(get_text("g", "", "r"), count, std::string(recs[0].text), stamped),
              std::tuple("t", 4, "Unmount was failed.", true));
}

// The caller's buffer holds len bytes; the text ends at its first NUL or at 127.
TEST_F(IpcTest, TextCutAt127)
{
    ASSERT_EQ(shmrm_attach(), 0);
    auto stored = [](const char* text, int len) {
        return shmrm_setdescript("g", "disk", "r", text, len) == 0 ? get_text("g", "disk", "r")
                                                                   : "<set failed>";
    };
    const std::string a127(127, 'a'), b200(200, 'b');
    EXPECT_EQ(stored("abc", 1), "a");
    EXPECT_EQ(stored("ab\0cd", 5), "ab");
    EXPECT_EQ(stored(a127.c_str(), 128), a127);
    EXPECT_EQ(stored(b200.c_str(), 201), b200.substr(0, 127));
    char small[4];
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", small, sizeof(small)), SHMRM_ERR_NOTENOUGH);
    EXPECT_STREQ(small, "bbb");
}

// Four processes, each re-opening the table it inherited, race to create and
// update the same 1024 records: each record is made once and ends with a
// writer's last text, and the full table refuses a new record but still takes
// updates.
TEST_F(IpcTest, ConcurrentWritersFillTheTable)
{
    constexpr int kWriters = 4, kUpdates = 8;
    ASSERT_EQ(shmrm_attach(), 0);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++) {
        writers.push_back(spawn(
            [w] {
                int bad = shmrm_attach();
                for (int u = 0; u < kUpdates; u++) {
                    for (int r = 0; r < 1024; r++) {
                        const std::string rsc = "r" + std::to_string(r);
                        const std::string text =
                            "w" + std::to_string(w) + " " + rsc + " u" + std::to_string(u);
                        bad |= shmrm_setdescript("g", "disk", rsc.c_str(), text.c_str(), 128);
                    }
                }
                return bad;
            },
            120));
    }
    for (pid_t pid : writers) {
        EXPECT_EQ(wait_child(pid), 0);
    }
    std::vector<SHMRM_RECORD> recs(1024);
    int n = 0;
    EXPECT_EQ(shmrm_list(recs.data(), 1023, &n), SHMRM_ERR_NOTENOUGH);
    EXPECT_EQ(n, 1023);
    ASSERT_EQ(shmrm_list(recs.data(), 1024, &n), 0);
    std::set<std::string> names;
    const std::string last = " u" + std::to_string(kUpdates - 1);
    for (int i = 0; i < n; i++) {
        names.insert(recs[i].resource);
        EXPECT_EQ(std::string(recs[i].text).substr(2), std::string(" ") + recs[i].resource + last);
    }
    EXPECT_EQ(names.size(), 1024u) << "a record made twice";
    EXPECT_EQ(shmrm_setdescript("g", "nas", "r0", "new", 4), SHMRM_ERR_MAXRSC);
    EXPECT_EQ(shmrm_setdescript("g", "disk", "r0", "again", 6), 0);
    EXPECT_EQ(get_text("g", "disk", "r0"), "again");
    // A removed record is gone from every read, and its place takes the next new one.
    EXPECT_EQ(shmrm_remove("g", "disk", "r5"), 0);
    EXPECT_EQ(shmrm_remove("g", "disk", "r5"), SHMRM_ERR_NOTFOUND);
    EXPECT_EQ(shmrm_list(recs.data(), 1023, &n), 0);
    EXPECT_EQ(std::pair(n, get_text("g", "disk", "r5")), std::pair(1023, std::string("<rc 4>")));
    EXPECT_EQ(shmrm_setdescript("g", "nas", "r0", "new", 4), 0);
    EXPECT_EQ(get_text("g", "nas", "r0"), "new");
    EXPECT_EQ(shmrm_setdescript("g", "disk", "r5", "back", 5), SHMRM_ERR_MAXRSC);
}

}  // namespace
