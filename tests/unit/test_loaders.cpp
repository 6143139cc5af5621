// The parameter loaders and existence checks against real configuration files,
// read through the real configuration library in a temporary ZOR_HOME.
#include "node_home.h"

#include "resource_config/zor_loader.h"

#include <sched.h>
#include <sys/wait.h>
#include <functional>
#include <tuple>

namespace {

const std::string XP = "/root/" + DISK_P;

#define STR(f) [](const auto& r) { return std::string(r.f); }
#define NUM(f) [](const auto& r) { return std::to_string(r.f); }

// A loader's key: path below the parameters (or from "/"), default (null: required), field as text, value.
template <typename R>
struct Field {
    std::string key;
    const char* dflt;
    std::function<std::string(const R&)> get;
    std::string want;
};

class LoaderTest : public AgentTest {
protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        BCOPY(ipath, "/opt/c");
        _xmlstep = 0;
    }
    void TearDown() override
    {
        xmlend();
        AgentTest::TearDown();
    }
    void load(const ConfKeys& keys)
    {
        xmlend();
        home_.write("etc/zor.conf", conf_xml(keys));
        ASSERT_EQ(xmlinit(), 0);
    }

    // All keys present: every field filled. Each key missing in turn: a required one fails the load
    // with 4, the fields before it filled, none after it read; an optional one takes its default.
    template <typename R>
    void each_key(const std::vector<Field<R>>& rows, int (*loader)(R*))
    {
        for (size_t gap = 0; gap <= rows.size(); gap++) {
            const std::string& key = gap < rows.size() ? rows[gap].key : "";
            const bool fails = !key.empty() && rows[gap].dflt == nullptr;
            SCOPED_TRACE("without " + key);
            load(key.empty() ? DISK : without(DISK, key[0] == '/' ? key.substr(6) : DISK_P + "/" + key));
            R rec{};
            EXPECT_EQ(loader(&rec), fails ? 4 : 0);
            // A field not read after the gap stays cleared, and a cleared number reads "0": "" here.
            const auto cleared = [](const std::string& v) { return v == "0" ? std::string() : v; };
            std::vector<std::string> got, want;
            for (size_t j = 0; j < rows.size(); j++) {
                got.push_back(cleared(rows[j].get(rec)));
                want.push_back(cleared(j == gap && !fails  ? rows[j].dflt
                                       : j < gap || !fails ? rows[j].want
                                                           : ""));
            }
            EXPECT_EQ(got, want);
        }
    }
};

// clang-format off
TEST_F(LoaderTest, EachKeyMissingInTurn)
{
    const std::string ex = "/root/cluster/exclusion/mount";
    std::vector<Field<ZOR_MOUNT>> mount = {
        {"mount/path", 0, STR(path), "/bin/mount"}, {"mount/point", 0, STR(point), "/mnt/fs1"},
        {"mount/option", 0, STR(opt), "noatime"}, {"mount/timeout", 0, NUM(to), "61"},
        {"mount/retry", 0, NUM(retry), "2"}, {"mount/action", 0, NUM(act), "1"},
        {ex, "1", NUM(lock), "2"}, {"mount/xfsaction", 0, NUM(xfsact), "3"}};
    each_key<ZOR_MOUNT>(mount, [](ZOR_MOUNT* r) { return get_mount(XP.c_str(), r, "node1"); });
    // A key with a default leaves a failure line all the same.
    EXPECT_TRUE(home_.has_message(
        "  xmllib_get_value(/root/cluster/exclusion/mount, 1) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"));
    std::vector<Field<ZOR_MOUNT>> mount_nas(mount.begin(), mount.begin() + 5);
    mount_nas.push_back(mount[6]);
    each_key<ZOR_MOUNT>(mount_nas, [](ZOR_MOUNT* r) { return get_mount_nas(XP.c_str(), r); });
    each_key<ZOR_UMOUNT>({
        {"umount/path", 0, STR(path), "/bin/umount"}, {"umount/option", 0, STR(opt), "-l"},
        {"umount/timeout", 0, NUM(to), "62"}, {"umount/retry", 0, NUM(retry), "4"},
        {"umount/action", 0, STR(act), "kill"}, {ex, "1", NUM(lock), "2"},
        {"umount/interval", "5", NUM(interval), "7"}, {"umount/chkprcmnts", "0", NUM(chkprcmnts), "1"}},
        [](ZOR_UMOUNT* r) { return get_umount(XP.c_str(), r); });
    each_key<ZOR_FSCK>({
        {"fsck/path", 0, STR(path), "/sbin/fsck"}, {"fsck/reiserfs", 0, STR(reiserpath), "/sbin/reiserfsck"},
        {"fsck/rebuildopt", 0, NUM(rebuildopt), "1"}, {"fsck/fixopt", 0, NUM(fixopt), "1"},
        {"fsck/option", 0, STR(opt), "-y"}, {"fsck/timeout", 0, NUM(to), "600"},
        {"fsck/timing", 0, NUM(timing), "2"}, {"fsck/interval", 0, NUM(interval), "10"},
        {"fsck/xfs", 0, STR(xfspath), "/sbin/xfs_repair"}, {"fsck/xfsoption", 0, STR(xfsopt), "-n"},
        {"fsck/xfstimeout", 0, NUM(xfsto), "700"}, {"fsck/xfstiming", 0, NUM(xfstiming), "1"},
        {"fsck/xfsinterval", 0, NUM(xfsinterval), "20"}},
        [](ZOR_FSCK* r) { return get_fsck(XP.c_str(), r); });
    each_key<ZOR_ROSET>(
        {{"roset/path", 0, STR(path), "/opt/c/bin/zorroset"}, {"roset/timeout", 0, NUM(to), "11"}},
        [](ZOR_ROSET* r) { return get_roset(XP.c_str(), r); });
    each_key<ZOR_RELPATH>(
        {{"relpath/path", 0, STR(path), "/opt/c/bin/zorrelpath"}, {"relpath/timeout", 0, NUM(to), "31"}},
        [](ZOR_RELPATH* r) { return get_relpath(XP.c_str(), r); });
}

TEST_F(LoaderTest, ComposedCommandPaths)
{
    // The installation path and the value each fit; together they must fit 1023 characters.
    const std::string ip = "/" + std::string(999, 'i'), v22(22, 'v'), v23(23, 'v'), full = ip + "/" + v22;
    const std::tuple<std::string, std::string, int, std::string> rows[] = {
        {"/opt/c", "", 0, "/opt/c/"}, {ip, v22, 0, full}, {ip, v23, 4, ""}};
    for (const auto& [inst, value, ret, path] : rows) {
        SCOPED_TRACE("value length " + std::to_string(value.size()));
        BCOPY(ipath, inst.c_str());
        load(with(DISK, keys(DISK_P, "roset/path=" + value + " relpath/path=" + value)));
        ZOR_ROSET ro{};
        ZOR_RELPATH rp{};
        EXPECT_EQ(std::pair(get_roset(XP.c_str(), &ro), get_relpath(XP.c_str(), &rp)), std::pair(ret, ret));
        EXPECT_EQ(std::string(ro.path) + "|" + rp.path, path + "|" + path);
        EXPECT_EQ(ro.to, ret == 0 ? 11 : 0);  // a refused path stops the load before the time-out
    }
}
// clang-format on

// Each key a disk or a volume needs fails its load: mount/xfsaction whatever the file system, the read-only
// switch for a disk (of ext4), the raw device for a volume only. (What a loader fills before its first
// missing key is the table above's; a group or resource not listed, the existence checks' below.)
TEST_F(LoaderTest, DiskAndVolumeNeedTheirKeys)
{
    const std::tuple<const char*, int, int> rows[] = {{"device", 4, 4},   {"fs", 4, 4},
                                                      {"disktype", 4, 0}, {"mount/xfsaction", 4, 4},
                                                      {"roset", 4, 0},    {"rawdevice", 0, 4}};
    for (const auto& [missing, disk, volume] : rows) {
        load(without(DISK, DISK_P + "/" + missing));
        ZOR_DISK_PARAM d{};
        ZOR_VXVOL_PARAM v{};
        EXPECT_EQ(std::pair(getinfo_disk("fs1", "grp1", &d), getinfo_vxvol("fs1", "grp1", &v)),
                  std::pair(disk, volume))
            << missing;
    }
}

// Disks and volumes; xfs takes the xfs values in both, zfs needs no read-only switch.
TEST_F(LoaderTest, DiskAndVolumeResources)
{
    const auto checks = [](const auto& p) {
        return std::vector<int>{p.mount.act, p.fsck.to, p.fsck.timing, p.fsck.interval};
    };
    for (const std::string fs : {"ext4", "zfs", "xfs"}) {
        SCOPED_TRACE(fs);
        const bool xfs = fs == "xfs", zfs = fs == "zfs";
        load(with(zfs ? without(DISK, DISK_P + "/roset") : DISK, keys(DISK_P, "fs=" + fs)));
        ZOR_DISK_PARAM d{};
        ZOR_VXVOL_PARAM v{};
        ASSERT_EQ(std::pair(getinfo_disk("fs1", "grp1", &d), getinfo_vxvol("fs1", "grp1", &v)),
                  std::pair(0, 0));
        // The disk's raw device is a copy: "rawdevice" is for volumes.
        EXPECT_EQ(std::string(d.rscname) + "|" + d.rsctype + "|" + d.devname + "|" + d.rawdev + "|" +
                      d.fstype + "|" + d.disktype + "|" + d.roset.path + "|" + d.relpath.path,
                  "fs1|disk|/dev/zd0|/dev/zd0|" + fs + "|disk|" + (zfs ? "" : "/opt/c/bin/zorroset") +
                      "|/opt/c/bin/zorrelpath");
        EXPECT_EQ(d.roset.to, zfs ? 0 : 11);
        EXPECT_EQ(std::string(v.rawdev) + "|" + v.relpath.path, "/dev/raw/raw1|/opt/c/bin/zorrelpath");
        EXPECT_EQ(checks(d), (xfs ? std::vector<int>{3, 700, 1, 20} : std::vector<int>{1, 600, 2, 10}));
        EXPECT_EQ(checks(v), checks(d));
    }
}

// A share does not read mount/action and mount/xfsaction (the sample's share, without them, loads end to
// end). The lock configured off is off: its default is only for a missing key (the table above).
TEST_F(LoaderTest, NasResource)
{
    BCOPY(type, "nas");
    load(with(NAS, keys(NAS_P, "mount/action=1 mount/xfsaction=1 /cluster/exclusion/mount=0")));
    ZOR_NAS_PARAM n{};
    ASSERT_EQ(getinfo_nas("share1", "grp2", &n), 0);
    EXPECT_EQ(std::string(n.rsctype) + "|" + n.server + "|" + n.share + "|" + n.pingpath + "|" +
                  n.mount.point + "|" + n.relpath.path,
              "nas|10.0.0.1|/srv/share1|/opt/c/bin/ping|/mnt/share1|/opt/c/bin/zorrelpath");
    EXPECT_EQ(std::vector<int>({n.pingto, n.mount.act, n.mount.xfsact, n.mount.lock, n.umount.interval}),
              std::vector<int>({3, 0, 0, 0, 5}));
}

// Names compared exactly, each in its own list. (What a failed check traces, the driver's end-to-end
// tests read.)
TEST_F(LoaderTest, ExistenceChecks)
{
    load({{"group@grp1/resource@disk@fs1", ""}, {"group@grp1/resource@nas@fs2", ""}, {"group@grp2", ""}});
    // (type, resource (null: the group check only), group, result); fs2 is a share, fs1 a disk, grp2 empty.
    const std::tuple<const char*, const char*, const char*, int> rows[] = {
        {"disk", nullptr, "grp1", 0}, {"disk", nullptr, "grp9", 3}, {"disk", nullptr, "GRP1", 3},
        {"disk", "fs1", "grp1", 0},   {"disk", "FS1", "grp1", 2},   {"disk", "fs2", "grp1", 2},
        {"nas", "fs2", "grp1", 0},    {"nas", "fs1", "grp1", 2},    {"disk", "fs1", "grp2", 2}};
    for (const auto& [rtype, rsc, group, ret] : rows) {
        BCOPY(type, rtype);
        EXPECT_EQ(rsc == nullptr ? ckgrpexist(group) : ckrscexist(rsc, group), ret)
            << rtype << " " << (rsc ? rsc : "-") << " in " << group;
    }
}

// The disk resource on a server named node1.example.com, in a UTS namespace of its own so that the
// machine's name is not touched.
TEST_F(LoaderTest, PerServerValuesUseTheShortHostName)
{
    ZOR_REQUIRE_ROOT();
    load(with(DISK, keys(DISK_P,
                         "server@node1/device=/dev/node1dev mount/server@node1/point=/mnt/node1 "
                         "server@node2/device=/dev/node2dev")));
    const std::string got = in_child([] {
        ZOR_DISK_PARAM d{};
        if (unshare(CLONE_NEWUTS) != 0 || sethostname("node1.example.com", 17) != 0) {
            return std::string("no UTS namespace");
        }
        const int ret = getinfo_disk("fs1", "grp1", &d);
        return std::to_string(ret) + "|" + d.devname + "|" + d.rawdev + "|" + d.mount.point;
    });
    EXPECT_EQ(got, "0|/dev/node1dev|/dev/node1dev|/mnt/node1");

    // Volumes read no per-server value.
    ZOR_VXVOL_PARAM v{};
    ASSERT_EQ(getinfo_vxvol("fs1", "grp1", &v), 0);
    EXPECT_EQ(std::string(v.devname) + "|" + v.mount.point, "/dev/zd0|/mnt/fs1");
}

}  // namespace
