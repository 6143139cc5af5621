// The IPC library for real: the mount lock between processes, the status
// table under concurrent writers, its limits and bad arguments.
#include "node_home.h"
#include "zoripc.h"
#include "zorsafe.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <algorithm>
#include <csignal>
#include <ctime>
#include <fstream>
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

constexpr uid_t kUser = 65534;  // nobody

// What zor_safe_dir makes of a path through each kind of directory and link, and zor_safe_open of each kind
// of file: only what no one but root (here: the caller) can have chosen is used.
TEST_F(IpcTest, TrustedPathsAndFiles)
{
    ZOR_REQUIRE_ROOT();
    const std::string d = home_ / "t";
    // Each kind of directory, link and file that the tables below name.
    const std::string sh =
        "mkdir -m 0755 root && mkdir -m 0777 open && mkdir -m 1777 sticky && mkdir users && "
        "ln -s root link && ln -s root userlink && chown -h 65534 users userlink && "
        "echo x | tee f644 f666 fuser hard >/dev/null && chmod 644 f644 && chmod 666 f666 && "
        "chown 65534 fuser && mkfifo -m 600 fifo && ln hard hard2 && ln -s f644 flink";
    ASSERT_EQ(mkdir(d.c_str(), 0755) || system(("cd '" + d + "' && " + sh).c_str()), 0);
    // (path below t, mode to make it with, errno; 0: opened)
    const std::tuple<std::string, unsigned, int> dirs[] = {
        {"root", 0, 0},         {"open/x", 0755, EPERM}, {"sticky/new/deeper", 0755, 0},
        {"users", 0, EPERM},    {"link/x", 0755, 0},     {"userlink", 0, EPERM},
        {"root/../root", 0, 0}, {"missing", 0, ENOENT},  {"f644/x", 0755, ENOTDIR},
    };
    for (const auto& [rel, mode, err] : dirs) {
        errno = 0;
        const int fd = zor_safe_dir((d + "/" + rel).c_str(), mode);
        EXPECT_EQ(fd >= 0 ? 0 : errno, err) << rel;
        if (fd >= 0) {
            close(fd);
        }
    }
    // (name, errno; 0: opened, and then 0600)
    const std::pair<std::string, int> files[] = {{"f644", 0},       {"f666", EPERM}, {"fuser", EPERM},
                                                 {"fifo", EPERM},   {"hard", EPERM}, {"flink", ELOOP},
                                                 {"absent", ENOENT}};
    const int dfd = zor_safe_dir(d.c_str(), 0);
    ASSERT_GE(dfd, 0);
    for (const auto& [name, err] : files) {
        errno = 0;
        const int fd = zor_safe_open(dfd, name.c_str(), O_RDONLY);
        struct stat st = {};
        EXPECT_EQ(std::pair(fd >= 0 ? 0 : errno, fd >= 0 && fstat(fd, &st) == 0 ? st.st_mode & 07777 : 0),
                  std::pair(err, err == 0 ? 0600u : 0u))
            << name;
        if (fd >= 0) {
            close(fd);
        }
    }
    close(dfd);
}

// The table is root's and readable by all, the writers' lock and the mount lock root's alone, whatever the
// umask. A table that a user made first, with a text of theirs, is not adopted: it makes way for one of
// root's, which the user's descriptor never sees. A user who opens the table and holds every lock on it
// that a read allows (an exclusive flock, an OFD and a POSIX read lock) delays no writer; the user reads
// every text, and can neither write nor open the writers' lock.
TEST_F(IpcTest, NoUserCanHoldUpAWriter)
{
    ZOR_REQUIRE_ROOT();
    char name[64];
    ASSERT_EQ(shmrm_tablename(name, sizeof(name)), 0);
    const std::string table = std::string("/dev/shm") + name;
    const int squat = open(table.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    ASSERT_EQ(fchown(squat, kUser, kUser) | fchmod(squat, 0666) | (write(squat, "Success.", 8) != 8), 0);
    const mode_t old = umask(0);
    const int stored =
        sem_attach() || shmrm_attach() || shmrm_setdescript("g", "disk", "r", "Mount was failed.", 128);
    umask(old);
    char seen[9] = {};
    const ssize_t got = pread(squat, seen, 8, 0);
    EXPECT_EQ(std::tuple(stored, got, std::string(seen)), std::tuple(0, 8, "Success."));
    close(squat);
    for (const auto& [path, mode] : {std::pair(table, 0644u), std::pair(home_ / "run/status.lock", 0600u),
                                     std::pair(home_ / "run/mount.lock", 0600u)}) {
        struct stat st = {};
        const int rc = stat(path.c_str(), &st);
        EXPECT_EQ(std::tuple(rc, st.st_uid, st.st_mode & 07777), std::tuple(0, 0u, mode)) << path;
    }
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = spawn([&] {
        static const struct flock kRead = {F_RDLCK, SEEK_SET, 0, 0, 0};
        const int fd = setgid(kUser) == 0 && setuid(kUser) == 0 ? open(table.c_str(), O_RDONLY) : -1;
        return fd >= 0 && flock(fd, LOCK_EX) == 0 && fcntl(fd, F_OFD_SETLK, &kRead) == 0 &&
                       fcntl(fd, F_SETLK, &kRead) == 0 && write(ready[1], "x", 1) == 1
                   ? pause()
                   : 1;
    });
    close(ready[1]);
    ASSERT_EQ(read(ready[0], seen, 1), 1) << "the user could not lock the table";
    close(ready[0]);
    // An agent's store from scratch; the alarm ends one that waits. Then the user's view.
    const pid_t writer =
        spawn([&] { return shmrm_attach() || shmrm_setdescript("g", "disk", "r", "t2", 3); }, 5);
    EXPECT_EQ(wait_child(writer), 0) << "a user's lock held up a writer";
    kill(holder, SIGKILL);
    wait_child(holder);
    const pid_t reader = spawn([&] {
        return setgid(kUser) || setuid(kUser) || shmrm_attach_read() || get_text("g", "disk", "r") != "t2" ||
               shmrm_setdescript("g", "disk", "r", "mine", 5) != SHMRM_ERR_SHMAT || shmrm_detach() ||
               shmrm_attach() != SHMRM_ERR_SHMGET || sem_attach() != SHMRM_ERR_SHMGET;
    });
    EXPECT_EQ(wait_child(reader), 0);
}

// A writer hammers one record, and swaps two others in one place (removed, and taken by the other); a
// reader in another process never copies a record that mixes two changes: a text of one letter, as long
// as that letter says, and the text that goes with the record's name. The two overlap only while both
// run at once, which on a busy machine is seldom: the writer's rounds are enough to meet it there too.
TEST_F(IpcTest, ReaderRacingAWriterNeverSeesATornRecord)
{
    auto whole = [](const SHMRM_RECORD& r) {
        const std::string t = r.text, rsc = r.resource;
        return rsc == "r" ? t.size() == 1 + 4 * static_cast<size_t>(t[0] - 'a') &&
                                t.find_first_not_of(t[0]) == std::string::npos
                          : t == rsc + " text";
    };
    ASSERT_EQ(shmrm_attach() || shmrm_setdescript("g", "disk", "r", "a", 2) ||
                  shmrm_setdescript("g", "disk", "xa", "xa text", 8),
              0);
    const pid_t writer = spawn(
        [&] {
            int bad = shmrm_attach();
            for (int k = 0; k < 600000; k++) {
                bad |= shmrm_setdescript("g", "disk", "r",
                                         std::string(1 + 4 * (k % 26), 'a' + k % 26).c_str(), 128);
                const std::string from = k % 16 == 0 ? "xa" : "xb", to = k % 16 == 0 ? "xb" : "xa";
                if (k % 8 == 0) {
                    bad |= shmrm_setdescript("g", "disk", to.c_str(), (to + " text").c_str(), 128) ||
                           shmrm_remove("g", "disk", from.c_str());
                }
            }
            return bad;
        },
        120);
    int reads = 0, torn = 0, failed = 0;
    for (SHMRM_RECORD recs[4]; waitpid(writer, nullptr, WNOHANG) == 0; reads++) {
        int n = 0;
        failed += shmrm_list(recs, 4, &n) != 0;
        torn +=
            static_cast<int>(std::count_if(recs, recs + n, [&](const SHMRM_RECORD& r) { return !whole(r); }));
    }
    EXPECT_EQ(std::tuple(torn, failed, reads > 1000), std::tuple(0, 0, true)) << reads << " reads";
}

// A table of the version before (readers and writers locked the table itself, so it was root's alone, under
// a name without "v2-"), which an upgrade may meet in /dev/shm: read while it is the only one, merged into
// ours by the next writer (the newer text wins) and removed.
TEST_F(IpcTest, TableOfTheVersionBeforeIsMerged)
{
    char name[64];
    ASSERT_EQ(shmrm_tablename(name, sizeof(name)), 0);
    const std::string ours = std::string("/dev/shm") + name, old = "/dev/shm/zor-status-" + ours.substr(23);
    // The layout both versions share: a 64-byte header, then records of 392 bytes: names, the slot in use, a
    // removed flag, and from byte 104 two slots of a text and its time, 144 bytes each; here slot 1 in use.
    std::string image(64 + 1024 * 392, '\0');
    const uint32_t header[] = {0x5a535431, 1, 1024, 392, 2};
    memcpy(&image[0], header, sizeof(header));
    for (const auto& [i, rsc, text, sec] :
         {std::tuple(0, "fs1", "Old text.", 2000000000L), {1, "fs2", "Older.", 1L}}) {
        char* r = &image[64 + i * 392];
        strcpy(r, "grp1"), strcpy(r + 32, "disk"), strcpy(r + 64, rsc), strcpy(r + 248, text);
        r[96] = 1;
        memcpy(r + 376, &sec, 8);
    }
    std::ofstream(old) << image;
    ASSERT_EQ(chmod(old.c_str(), 0600) || shmrm_attach_read(), 0);
    EXPECT_EQ(get_text("grp1", "disk", "fs1"), "Old text.");
    ASSERT_EQ(shmrm_detach() || access(ours.c_str(), F_OK) == 0, 0) << "a read made a table";
    // Ours, newer than the old fs2; then a writer merges.
    ASSERT_EQ(rename(old.c_str(), (old + ".aside").c_str()) || shmrm_attach() ||
                  shmrm_setdescript("grp1", "disk", "fs2", "Ours.", 6) || shmrm_detach() ||
                  rename((old + ".aside").c_str(), old.c_str()) || shmrm_attach(),
              0);
    EXPECT_EQ(std::tuple(get_text("grp1", "disk", "fs1"), get_text("grp1", "disk", "fs2"),
                         access(old.c_str(), F_OK)),
              std::tuple("Old text.", "Ours.", -1));
}

// Rows are calls made in order. The table keeps one record per (group, type,
// resource) with its latest text; refused calls store nothing. The mount lock
// they leave held a forked child does not share, and detach frees it. (That
// another process waits while the lock is held, and that the lock is a
// flock(2), which the kernel drops when its holder dies, the mount commands'
// tests check with flock(1).)
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
        {"null text", shmrm_setdescript("g", "disk", "r", nullptr, 2), BAD},
        {"len 0", shmrm_setdescript("g", "disk", "r", "t", 0), BAD},
        {"get null type", shmrm_getdescript("g", nullptr, "r", buf, 8), BAD},
        {"list max 0", shmrm_list(recs, 0, &count), BAD},
        {"tablename too small", shmrm_tablename(buf, 8), SHMRM_ERR_NOTENOUGH},
    });
    const pid_t child = spawn([] { return sem_attach() == 0 && sem_entercrit_mount() == 0 ? 0 : 1; }, 10);
    usleep(300 * 1000);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "a forked child shared its parent's hold";
    ASSERT_EQ(sem_detach(), 0);
    EXPECT_EQ(wait_child(child), 0) << "detach did not free the lock";
    ASSERT_EQ(shmrm_list(recs, 5, &count), 0);
    const bool stamped = recs[0].updated_sec >= before && recs[0].updated_sec <= before + 5;
    EXPECT_EQ(std::tuple(get_text("g", "", "r"), count, std::string(recs[0].text), stamped),
              std::tuple("t", 4, "Unmount was failed.", true));
    // The caller's buffer holds len bytes; the text ends at its first NUL or at 127.
    const std::string a127(127, 'a'), b200(200, 'b');
    for (const auto& [text, len, want] : {std::tuple(std::string("abc"), 1, std::string("a")),
                                          {std::string("ab\0cd", 5), 5, "ab"},
                                          {a127, 128, a127},
                                          {b200, 201, b200.substr(0, 127)}}) {
        ASSERT_EQ(shmrm_setdescript("g", "disk", "r", text.c_str(), len), 0);
        EXPECT_EQ(get_text("g", "disk", "r"), want) << len;
    }
    EXPECT_EQ(shmrm_getdescript("g", "disk", "r", buf, 4), SHMRM_ERR_NOTENOUGH);
    EXPECT_STREQ(buf, "bbb");
}

// Four processes, each re-opening the table it inherited, race to create and
// update the same 1024 records: each record is made once and ends with a
// writer's last text (written once the table was full), and the full table
// refuses a new record.
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
    // Meanwhile (while they make the records) a reader sees each new record whole: its text names it.
    std::vector<SHMRM_RECORD> recs(1024);
    int n = 0, torn = 0;
    for (int i = 0; i < 2000 && shmrm_list(recs.data(), 1024, &n) == 0; i++) {
        torn += static_cast<int>(std::count_if(recs.begin(), recs.begin() + n, [](const SHMRM_RECORD& r) {
            return std::string(r.text).find(std::string(" ") + r.resource + " ") == std::string::npos;
        }));
    }
    EXPECT_EQ(torn, 0);
    for (pid_t pid : writers) {
        EXPECT_EQ(wait_child(pid), 0);
    }
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
