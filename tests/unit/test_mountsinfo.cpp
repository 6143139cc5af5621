// The mount table probe against real tmpfs mounts, made in a private mount
// namespace of a forked child so that nothing outside the test sees them.
#include "test_support.h"

#include "command_exec/zor_exec.h"
#include "disk.h"

#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

namespace {

struct ProbeCase {
    std::string path;
    int mode;
    int expected;
};

bool mount_tmpfs(const std::string& dir)
{
    return mount("zortest", dir.c_str(), "tmpfs", 0, "size=64k") == 0;
}

// Runs every case in a new mount namespace; returns the answers, one per
// case, or an empty list when the set-up failed (message in *why).
std::vector<int> probe_in_namespace(const std::vector<std::string>& mounts,
                                    const std::vector<ProbeCase>& cases, std::string* why)
{
    int fds[2];
    if (pipe(fds) != 0) {
        *why = "pipe";
        return {};
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        FILE* out = fdopen(fds[1], "w");
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            fprintf(out, "setup unshare\n");
            _exit(2);
        }
        for (const std::string& m : mounts) {
            if (!mount_tmpfs(m)) {
                fprintf(out, "setup mount %s\n", m.c_str());
                _exit(2);
            }
        }
        for (const ProbeCase& c : cases) {
            fprintf(out, "%d\n", mountsinfo(c.path.c_str(), c.mode));
        }
        fclose(out);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[512];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) {
        text.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
        *why = text;
        return {};
    }
    std::vector<int> answers;
    std::istringstream in(text);
    int v;
    while (in >> v) {
        answers.push_back(v);
    }
    return answers;
}

TEST(MountsInfo, FindsMountPointsInTheRealMountTable)
{
    ZOR_REQUIRE_ROOT();
    TempDir tmp;
    const std::string t = tmp.path();
    // A mount point of exactly the longest length whose grep command still
    // fits 1023 characters; its /proc/mounts line is longer than one piece.
    std::string longdir = t;
    const size_t longmax = 1023 - std::string("/bin/grep \"\" /proc/mounts 2>&1").size();
    while (longdir.size() < longmax) {
        size_t seg = std::min<size_t>(200, longmax - longdir.size() - 1);
        if (seg == 0) {
            longdir += "z";  // cannot happen with a short temp dir, keeps the loop finite
            break;
        }
        longdir += "/" + std::string(seg, 'd');
        mkdir(longdir.c_str(), 0755);
    }
    ASSERT_EQ(longdir.size(), longmax);
    for (const char* d : {"data", "data2", "with space", "pct%dir", "stack", "plain", "br[ack"}) {
        ASSERT_EQ(mkdir((t + "/" + d).c_str(), 0755), 0) << d;
    }
    ASSERT_EQ(symlink((t + "/data2").c_str(), (t + "/link").c_str()), 0);
    const std::vector<std::string> mounts = {t + "/data2", t + "/with space", t + "/pct%dir", t + "/stack",
                                             t + "/stack", t + "/br[ack",     longdir};
    const std::string spaces(300, ' ');
    const std::vector<ProbeCase> cases = {
        {t + "/data", MNT_PREMOUNT, 0},  // grep selects the data2 line, the field differs
        {t + "/data", MNT_PREUMOUNT, 0},
        {t + "/data2", MNT_PREMOUNT, 1},
        {t + "/with space", MNT_PREMOUNT, 1},  // \040 in the table
        {t + "/with space", MNT_PREUMOUNT, 1},
        {t + "/with space/", MNT_PREUMOUNT, 1},  // canonical path, escaped again
        {t + "/data2/", MNT_PREMOUNT, 1},        // second search under the canonical path
        {t + "/data2///", MNT_PREUMOUNT, 1},
        {t + "/link", MNT_PREMOUNT, 1},
        {t + "/pct%dir", MNT_PREMOUNT, 1},  // compared before "%" becomes "#"
        {t + "/stack", MNT_PREUMOUNT, 2},
        {t + "/stack", MNT_PREMOUNT, 1},
        {t + "/plain", MNT_PREUMOUNT, 0},
        {t + "/nonexistent", MNT_PREMOUNT, 0},
        {t + "/nonexistent", MNT_PREUMOUNT, 0},
        {t + "/br[ack", MNT_PREUMOUNT, 0},  // not a valid pattern: grep fails, answer 0
        {longdir, MNT_PREUMOUNT, 1},
        {longdir + "/", MNT_PREUMOUNT, 0},     // one character more: refused, not cut
        {t + "/" + spaces, MNT_PREUMOUNT, 0},  // escaped form cannot fit the command line
    };
    std::string why;
    std::vector<int> got = probe_in_namespace(mounts, cases, &why);
    ASSERT_EQ(got.size(), cases.size()) << why;
    for (size_t i = 0; i < cases.size(); i++) {
        EXPECT_EQ(got[i], cases[i].expected)
            << "case " << i << ": " << cases[i].path.substr(0, 80) << " mode " << cases[i].mode;
    }
}

}  // namespace
