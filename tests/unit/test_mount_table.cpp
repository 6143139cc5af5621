// The mount tables as data: lines of both tables, the point resolved as the
// mount command resolves it, and where a resource is, against real tmpfs
// mounts made in a private mount namespace of a forked child (so that nothing
// outside the test sees them), side by side with the mount probe of the
// actions, which asks grep. Block devices (device numbers, a device held by a
// lazily detached mount) are the end-to-end tests' part.
#include "test_support.h"

#include "command_exec/mount_table.h"
#include "command_exec/zor_exec.h"
#include "disk.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <cerrno>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string entry_text(const MNT_ENTRY& e)
{
    return std::to_string(e.id) + " " + std::to_string(e.parent) + " " + std::to_string(e.major) + ":" +
           std::to_string(e.minor) + " [" + e.point + "] [" + e.source + "] " + e.fstype;
}

TEST(MountTable, LinesOfBothTables)
{
    const std::string longest(PATH_MAX - 1, 'x');
    // (mountinfo line or not, line, entry or "no")
    const std::vector<std::tuple<bool, std::string, std::string>> cases = {
        {true, "36 35 7:3 / /mnt/a\\040b rw,noatime shared:1 - ext4 /dev/loop3 rw",
         "36 35 7:3 [/mnt/a b] [/dev/loop3] ext4"},
        {true, "36 35 7:3 /sub /mnt/x ro - ext4 /dev/loop3 rw", "36 35 7:3 [/mnt/x] [/dev/loop3] ext4"},
        {true, "36 35 0:52 / /t\\011a\\012b\\134 rw - tmpfs zor\\040src rw",
         "36 35 0:52 [/t\ta\nb\\] [zor src] tmpfs"},
        {true, "36 35 0:52 / /t rw master:1 propagate_from:2 - tmpfs  rw",
         "36 35 0:52 [/t] [] tmpfs"},  // source ""
        {true, "36 35 0:52 / /" + longest + " rw - tmpfs s rw",
         "36 35 0:52 [] [s] tmpfs"},                     // point does not fit
        {true, "36 35 7:3 / /mnt rw", "no"},             // no "-"
        {true, "36 35 7-3 / /mnt rw - ext4 d r", "no"},  // no device numbers
        {true, "36 35 7:3 / /mnt rw - ext4", "no"},      // no source
        {true, "", "no"},
        {false, "/dev/sdb1 /mnt/data ext4 rw 0 0", "0 0 0:0 [/mnt/data] [/dev/sdb1] ext4"},
        {false, "/dev/sdb1 /mnt/a\\134040b ext4 ro 0 0", "0 0 0:0 [/mnt/a\\040b] [/dev/sdb1] ext4"},
        {false, "/dev/sdb1 /mnt/\\0 ext4", "0 0 0:0 [/mnt/\\0] [/dev/sdb1] ext4"},  // a cut escape stands
        {false, "/dev/sdb1 /mnt/\\400 x", "0 0 0:0 [/mnt/\\400] [/dev/sdb1] x"},    // no byte
        {false, "a  b", "0 0 0:0 [] [a] b"},
        {false, "/dev/sdb1 /mnt/data", "no"},  // no blank after the point
    };
    for (const auto& [info, line, want] : cases) {
        MNT_ENTRY e;
        const bool ok = info ? mnt_parse_mountinfo(line.c_str(), &e) : mnt_parse_mounts(line.c_str(), &e);
        EXPECT_EQ(ok ? entry_text(e) : "no", want) << line.substr(0, 80);
    }
}

TEST(MountTable, PointResolvedAsTheMountCommandResolvesIt)
{
    TempDir tmp;
    const std::string t = std::filesystem::canonical(tmp.path());
    ASSERT_EQ(mkdir((t + "/a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((t + "/a/b").c_str(), 0755), 0);
    ASSERT_EQ(symlink("a/b", (t + "/rel").c_str()), 0);               // relative target
    ASSERT_EQ(symlink((t + "/a").c_str(), (t + "/abs").c_str()), 0);  // absolute target
    ASSERT_EQ(symlink("rel", (t + "/chain").c_str()), 0);             // link to a link
    ASSERT_EQ(symlink("loop", (t + "/loop").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (t + "/dangling").c_str()), 0);

    const std::string err = "errno ";
    // (path, resolved form or "errno N: best guess")
    const std::pair<std::string, std::string> cases[] = {
        {t + "//a/./b//", t + "/a/b"},
        {t + "/a/b/..", t + "/a"},
        {t + "/rel", t + "/a/b"},
        {t + "/chain/", t + "/a/b"},
        {t + "/abs/b", t + "/a/b"},            // a link in the parent
        {t + "/rel/../b", t + "/a/b"},         // ".." after the link, as realpath() takes it
        {t + "/a/missing", t + "/a/missing"},  // activation makes it there
        {t + "/dangling", t + "/nowhere"},     // a link to a point still to be made
        {t + "/missing/b", err + std::to_string(ENOENT) + ": " + t + "/missing/b"},
        {t + "/x/.././missing/b/", err + std::to_string(ENOENT) + ": " + t + "/missing/b"},
        {t + "/loop", err + std::to_string(ELOOP) + ": " + t + "/loop"},
        {"rel/fs1", err + std::to_string(EINVAL) + ": rel/fs1"},
        {"/", "/"},
        {"/..", "/"},
        {"", err + std::to_string(EINVAL) + ": "},
    };
    for (const auto& [path, want] : cases) {
        char out[PATH_MAX] = "untouched";
        errno = 0;
        const int rc = mnt_point_resolve(path.c_str(), out);
        EXPECT_EQ(rc == 0 ? std::string(out) : err + std::to_string(errno) + ": " + out, want) << path;
    }
}

TEST(MountTable, SystemPoints)
{
    // The system's own, and what is left to data disks beside and below them.
    const char* system =
        "/ /proc /proc/sys/fs/binfmt_misc /sys/fs/cgroup /dev /dev/shm /run /run/user/0 /boot/efi "
        "/etc /usr /usr/local/data /bin /sbin /lib /lib64 /libx32/x /var /var/lib /tmp /root /opt";
    const char* data =
        "/srv /srv/data /home /home/share /var/lib/pgsql /var/log2 /mnt /mnt/fs1 /tmp/zor/fs1 "
        "/opt/zor/data /devices /media/usb /procs /root/data";
    for (const auto& [list, want] : {std::pair{system, true}, std::pair{data, false}}) {
        std::istringstream words(list);
        for (std::string point; words >> point;) {
            EXPECT_EQ(mnt_system_point(point.c_str()), want) << point;
        }
    }
}

// The probe's answer, with "?" when it could not decide and gave its default.
std::string probe(const std::string& path, int mode)
{
    bool known = false;
    const int answer = mountsinfo_known(path.c_str(), mode, &known);
    return std::to_string(answer) + (known ? "" : "?");
}

TEST(MountTable, WhereAndProbeAgainstRealMounts)
{
    ZOR_REQUIRE_ROOT();
    TempDir tmp;
    const std::string t = std::filesystem::canonical(tmp.path());
    for (const char* d : {"data", "data2", "with space", "pct%dir", "stack", "br[ack", "bin\xff", "bind"}) {
        ASSERT_EQ(mkdir((t + "/" + d).c_str(), 0755), 0) << d;
    }
    ASSERT_EQ(symlink((t + "/data2").c_str(), (t + "/link").c_str()), 0);
    const TmpfsMounts mounts = {
        {"zor-data2", t + "/data2"}, {"zor space", t + "/with space"}, {"zor-pct", t + "/pct%dir"},
        {"zor-first", t + "/stack"}, {"zor-second", t + "/stack"},     {"zor-third", t + "/stack"},
        {"zor-br", t + "/br[ack"},   {"zor-bin", t + "/bin\xff"},
    };
    const std::string data2 = t + "/data2";
    const std::string bind = t + "/bind";
    // Per point and share: where's "on the point:own there, top source, lowest own, elsewhere:first",
    // then the probe's answers before a mount and before an unmount.
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {t + "/data", "zor-data2", "0:0 [] 0 2:" + data2 + " | 0 0"},          // grep selects data2's line
        {data2, "zor-data2", "1:1 [zor-data2] 1 1:" + bind + " | 1 1"},        // also bound elsewhere
        {t + "/link", "zor-data2", "1:1 [zor-data2] 1 1:" + bind + " | 1 1"},  // a link, probed canonical
        {data2, "zor-other", "1:0 [zor-data2] 0 0: | 1 1"},                    // another's share on the point
        {bind, "zor-data2", "1:1 [zor-data2] 1 1:" + data2 + " | 1 1"},
        {t + "/with space/", "zor space", "1:1 [zor space] 1 0: | 1 1"},  // escaped again
        {t + "/pct%dir", "zor-pct", "1:1 [zor-pct] 1 0: | 1 1"},          // compared before "%" becomes "#"
        {t + "/stack", "zor-first", "3:1 [zor-third] 1 0: | 1 3"},        // own below two others
        {t + "/stack", "zor-third", "3:1 [zor-third] 0 0: | 1 3"},
        {t + "/nonexistent", "zor-pct", "0:0 [] 0 1:" + t + "/pct%dir | 0 0"},
        {t + "/br[ack", "zor-br", "1:1 [zor-br] 1 0: | 1 1"},       // taken as text, not as a pattern
        {t + "/bin\xff", "zor-bin", "1:1 [zor-bin] 1 0: | 0? 0?"},  // grep matched but did not show the line
        // The escaped form cannot fit the probe's command line: no answer, only the default.
        {t + "/" + std::string(300, ' '), "zor-x", "0:0 [] 0 0: | 0? 0?"},
    };
    std::string want;
    for (const auto& [p, share, w] : cases) {
        want += w + "\n";
    }
    const std::string got = in_mount_namespace(mounts, [&] {
        if (mount((t + "/data2").c_str(), (t + "/bind").c_str(), nullptr, MS_BIND, nullptr) != 0) {
            return std::string("bind mount failed");
        }
        // A UTF-8 locale, in which grep does not show a line it takes for binary data.
        setenv("LC_ALL", "C.UTF-8", 1);
        std::string out;
        for (const auto& [p, share, w] : cases) {
            MNT_WHERE where;
            if (mnt_where(p.c_str(), nullptr, share.c_str(), &where) != 0) {
                return "where failed: " + p;
            }
            out += std::to_string(where.on_point) + ":" + std::to_string(where.on_point_own) + " [" +
                   (where.on_point > 0 ? where.top.source : "") + "] " + std::to_string(where.lowest_own) +
                   " " + std::to_string(where.elsewhere) + ":" + where.where + " | " +
                   probe(p, MNT_PREMOUNT) + " " + probe(p, MNT_PREUMOUNT) + "\n";
        }
        return out;
    });
    EXPECT_EQ(got, want);
}

}  // namespace
