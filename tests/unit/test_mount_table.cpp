// The monitor's in-place mount table reader against real tmpfs mounts, made in
// a private mount namespace of a forked child; and its unescaping as a table.
#include "test_support.h"

#include "command_exec/mount_table.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <string>
#include <utility>
#include <vector>

namespace {

TEST(MountTable, Unescape)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/mnt/with\\040space", "/mnt/with space"},
        {"tab\\011nl\\012bs\\134", "tab\tnl\nbs\\"},
        {"\\04", "\\04"},          // too short for an escape
        {"\\400x", "\\400x"},      // not a byte
        {"\\08x", "\\08x"},        // not octal
        {"plain", "plain"},
    };
    for (const auto& [in, want] : cases) {
        char out[64];
        mnttab_unescape(in.c_str(), out, sizeof(out));
        EXPECT_EQ(out, want) << in;
    }
    char small[4];
    mnttab_unescape("abcdef", small, sizeof(small));
    EXPECT_STREQ(small, "abc");
}

struct Mount {
    std::string source;
    std::string point;
    unsigned long flags;
};

// Mounts each of `mounts` in a new mount namespace and prints, for every
// wanted point, "count:source:readonly "; returns the child's output.
std::string lookup_in_namespace(const std::vector<Mount>& mounts, const std::vector<std::string>& points)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return "pipe failed";
    }
    pid_t pid = fork();
    if (pid == 0) {
        FILE* out = fdopen(fds[1], "w");
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            fprintf(out, "unshare failed");
            _exit(2);
        }
        for (const Mount& m : mounts) {
            if (mount(m.source.c_str(), m.point.c_str(), "tmpfs", m.flags, "size=64k") != 0) {
                fprintf(out, "mount %s failed", m.point.c_str());
                _exit(2);
            }
        }
        for (const std::string& p : points) {
            MNT_ENTRY top = {};
            int n = mnttab_lookup(p.c_str(), &top);
            fprintf(out, "%d:%s:%d ", n, n > 0 ? top.source : "", n > 0 ? top.readonly : -1);
        }
        fclose(out);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof(buf))) > 0;) {
        text.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return text;
}

TEST(MountTable, LooksUpPointsAsText)
{
    ZOR_REQUIRE_ROOT();
    TempDir tmp;
    const std::string t = tmp.path();
    for (const char* d : {"data", "data2", "with space", "stack", "ro"}) {
        ASSERT_EQ(mkdir((t + "/" + d).c_str(), 0755), 0) << d;
    }
    ASSERT_EQ(symlink((t + "/data2").c_str(), (t + "/link").c_str()), 0);
    const std::vector<Mount> mounts = {
        {"zor-data2", t + "/data2", 0},    {"zor space", t + "/with space", 0}, {"zor-first", t + "/stack", 0},
        {"zor-second", t + "/stack", 0}, {"zor-ro", t + "/ro", MS_RDONLY},
    };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {t + "/data", "0::-1"},                  // a prefix of data2 is not data2
        {t + "/data2", "1:zor-data2:0"},
        {t + "/data2//", "1:zor-data2:0"},       // trailing "/" ignored
        {t + "/link", "0::-1"},                  // symbolic links are not followed
        {t + "/with space", "1:zor space:0"},    // unescaped point and source
        {t + "/stack", "2:zor-second:0"},        // the topmost mount
        {t + "/ro", "1:zor-ro:1"},
        {t + "/nonexistent", "0::-1"},
        {t + "/" + std::string(1100, 'x'), "-1::-1"},  // longer than any configured point
    };
    std::vector<std::string> points;
    std::string want;
    for (const auto& [p, w] : cases) {
        points.push_back(p);
        want += w + " ";
    }
    EXPECT_EQ(lookup_in_namespace(mounts, points), want);
}

}  // namespace
