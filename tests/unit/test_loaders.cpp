// The parameter loaders and existence checks against real configuration files,
// read through the real configuration library in a temporary ZOR_HOME.
#include "conf_builder.h"
#include "node_home.h"

#include "bounded.h"
#include "disk.h"
#include "resource_config/zor_loader.h"
#include "tracersc.h"

#include <sched.h>
#include <sys/wait.h>
#include <functional>
#include <sstream>
#include <tuple>

namespace {

const std::string P = "resource/disk@fs1/parameters";
const std::string XP = "/root/" + P;
const std::string NP = "resource/nas@share1/parameters";

// "key=value" words as keys below base.
ConfKeys keys_below(const std::string& base, const std::string& words)
{
    ConfKeys k;
    std::istringstream in(words);
    for (std::string w; in >> w;) {
        k.emplace_back(base + "/" + w.substr(0, w.find('=')), w.substr(w.find('=') + 1));
    }
    return k;
}

// A distinct value in every key, so that a field read can be told from a field left cleared.
ConfKeys disk_conf()
{
    ConfKeys k = keys_below(
        P,
        "device=/dev/zd0 rawdevice=/dev/raw/raw1 fs=ext4 disktype=disk mount/path=/bin/mount "
        "mount/point=/mnt/fs1 mount/option=noatime mount/timeout=61 mount/retry=2 mount/action=1 "
        "mount/xfsaction=3 umount/path=/bin/umount umount/option=-l umount/timeout=62 umount/retry=4 "
        "umount/action=kill umount/interval=7 umount/chkprcmnts=1 fsck/path=/sbin/fsck "
        "fsck/reiserfs=/sbin/reiserfsck fsck/rebuildopt=1 fsck/fixopt=1 fsck/option=-y fsck/timeout=600 "
        "fsck/timing=2 fsck/interval=10 fsck/xfs=/sbin/xfs_repair fsck/xfsoption=-n fsck/xfstimeout=700 "
        "fsck/xfstiming=1 fsck/xfsinterval=20 roset/path=bin/zorroset roset/timeout=11 "
        "relpath/path=bin/zorrelpath relpath/timeout=31");
    k.insert(
        k.begin(),
        {{"all/path", "/opt/c"}, {"cluster/exclusion/mount", "2"}, {"group@grp1/resource@disk@fs1", ""}});
    return k;
}

// No mount/action nor mount/xfsaction: a share has no recovery check.
ConfKeys nas_conf()
{
    ConfKeys k = keys_below(
        NP,
        "svname=10.0.0.1 share=/srv/share1 fs=nfs ping/path=bin/ping ping/timeout=3 mount/path=/bin/mount "
        "mount/point=/mnt/share1 mount/option=soft mount/timeout=30 mount/retry=1 umount/path=/bin/umount "
        "umount/option= umount/timeout=30 umount/retry=2 umount/action=none relpath/path=bin/zorrelpath "
        "relpath/timeout=5");
    k.insert(k.begin(), {{"all/path", "/opt/c"}, {"group@grp2/resource@nas@share1", ""}});
    return k;
}

#define STR(f) [](const auto& r) { return std::string(r.f); }
#define NUM(f) [](const auto& r) { return std::to_string(r.f); }

// One key of a loader's table: its path below the parameters (absolute when it
// begins with "/"), whether it is required, the field as text and its value.
template <typename R>
struct Field {
    std::string key;
    bool required;
    std::function<std::string(const R&)> get;
    std::string want;
};

class LoaderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        BCOPY(type, "disk");
        BCOPY(ipath, "/opt/c");
        _xmlstep = 0;
        traceopen("disk", 8, 0, nullptr);
    }
    void TearDown() override
    {
        xmlend();
        traceclose();
    }
    void load(const ConfKeys& keys)
    {
        xmlend();
        home.write("etc/zor.conf", conf_xml(keys));
        ASSERT_EQ(xmlinit(), 0);
    }

    // All keys present: every field filled. Each required key missing in turn:
    // 4, the fields before it filled, none after it read.
    template <typename R>
    void each_required_key(const std::vector<Field<R>>& rows, int (*loader)(R*))
    {
        for (size_t gap = 0; gap <= rows.size(); gap++) {
            if (gap < rows.size() && !rows[gap].required) {
                continue;
            }
            const std::string& key = gap < rows.size() ? rows[gap].key : "";
            SCOPED_TRACE("without " + key);
            load(key.empty() ? disk_conf()
                             : without(disk_conf(), key[0] == '/' ? key.substr(6) : P + "/" + key));
            R rec{};
            EXPECT_EQ(loader(&rec), gap < rows.size() ? 4 : 0);
            for (size_t j = 0; j < rows.size(); j++) {
                const std::string got = rows[j].get(rec);
                if (j < gap) {
                    EXPECT_EQ(got, rows[j].want) << rows[j].key;
                } else {
                    EXPECT_TRUE(got.empty() || got == "0")
                        << "read after the gap: " << rows[j].key << "=" << got;
                }
            }
        }
    }
    NodeHome home;
};

// clang-format off
TEST_F(LoaderTest, RequiredKeyMissingAtEachPosition)
{
    const std::string ex = "/root/cluster/exclusion/mount";
    std::vector<Field<ZOR_MOUNT>> mount = {
        {"mount/path", 1, STR(path), "/bin/mount"}, {"mount/point", 1, STR(point), "/mnt/fs1"},
        {"mount/option", 1, STR(opt), "noatime"}, {"mount/timeout", 1, NUM(to), "61"},
        {"mount/retry", 1, NUM(retry), "2"}, {"mount/action", 1, NUM(act), "1"},
        {ex, 0, NUM(lock), "2"}, {"mount/xfsaction", 1, NUM(xfsact), "3"}};
    each_required_key<ZOR_MOUNT>(mount, [](ZOR_MOUNT* r) { return get_mount(XP.c_str(), r, "node1"); });
    std::vector<Field<ZOR_MOUNT>> mount_nas(mount.begin(), mount.begin() + 5);
    mount_nas.push_back(mount[6]);
    each_required_key<ZOR_MOUNT>(mount_nas, [](ZOR_MOUNT* r) { return get_mount_nas(XP.c_str(), r); });
    each_required_key<ZOR_UMOUNT>({
        {"umount/path", 1, STR(path), "/bin/umount"}, {"umount/option", 1, STR(opt), "-l"},
        {"umount/timeout", 1, NUM(to), "62"}, {"umount/retry", 1, NUM(retry), "4"},
        {"umount/action", 1, STR(act), "kill"}, {ex, 0, NUM(lock), "2"},
        {"umount/interval", 0, NUM(interval), "7"}, {"umount/chkprcmnts", 0, NUM(chkprcmnts), "1"}},
        [](ZOR_UMOUNT* r) { return get_umount(XP.c_str(), r); });
    each_required_key<ZOR_FSCK>({
        {"fsck/path", 1, STR(path), "/sbin/fsck"}, {"fsck/reiserfs", 1, STR(reiserpath), "/sbin/reiserfsck"},
        {"fsck/rebuildopt", 1, NUM(rebuildopt), "1"}, {"fsck/fixopt", 1, NUM(fixopt), "1"},
        {"fsck/option", 1, STR(opt), "-y"}, {"fsck/timeout", 1, NUM(to), "600"},
        {"fsck/timing", 1, NUM(timing), "2"}, {"fsck/interval", 1, NUM(interval), "10"},
        {"fsck/xfs", 1, STR(xfspath), "/sbin/xfs_repair"}, {"fsck/xfsoption", 1, STR(xfsopt), "-n"},
        {"fsck/xfstimeout", 1, NUM(xfsto), "700"}, {"fsck/xfstiming", 1, NUM(xfstiming), "1"},
        {"fsck/xfsinterval", 1, NUM(xfsinterval), "20"}},
        [](ZOR_FSCK* r) { return get_fsck(XP.c_str(), r); });
    each_required_key<ZOR_ROSET>(
        {{"roset/path", 1, STR(path), "/opt/c/bin/zorroset"}, {"roset/timeout", 1, NUM(to), "11"}},
        [](ZOR_ROSET* r) { return get_roset(XP.c_str(), r); });
    each_required_key<ZOR_RELPATH>(
        {{"relpath/path", 1, STR(path), "/opt/c/bin/zorrelpath"}, {"relpath/timeout", 1, NUM(to), "31"}},
        [](ZOR_RELPATH* r) { return get_relpath(XP.c_str(), r); });
}
// clang-format on

TEST_F(LoaderTest, OptionalKeysTakeTheirDefaults)
{
    load(without(without(without(disk_conf(), "cluster/exclusion/mount"), P + "/umount/interval"),
                 P + "/umount/chkprcmnts"));
    ZOR_MOUNT m{}, mn{};
    ZOR_UMOUNT u{};
    ASSERT_EQ(get_mount(XP.c_str(), &m, nullptr), 0);
    ASSERT_EQ(get_mount_nas(XP.c_str(), &mn), 0);
    ASSERT_EQ(get_umount(XP.c_str(), &u), 0);
    EXPECT_EQ(std::vector<int>({m.lock, mn.lock, u.lock, u.interval, u.chkprcmnts}),
              std::vector<int>({1, 1, 1, 5, 0}));
    EXPECT_TRUE(home.has_message(
        "  xmllib_get_value(/root/cluster/exclusion/mount, 1) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"));

    // Configured as off, the lock is off: the default is only for a missing key.
    load(with(disk_conf(), "cluster/exclusion/mount", "0"));
    ASSERT_EQ(get_mount(XP.c_str(), &m, nullptr), 0);
    EXPECT_EQ(m.lock, 0);
}

TEST_F(LoaderTest, ComposedCommandPaths)
{
    // The installation path and the value each fit; together they must fit 1023 characters.
    const std::string ip = "/" + std::string(999, 'i');
    const struct {
        std::string ipath, value;
        int ret;
        std::string path;
    } rows[] = {
        {"/opt/c", "bin/x", 0, "/opt/c/bin/x"},
        {"/opt/c", "", 0, "/opt/c/"},
        {"", "bin/x", 0, "/bin/x"},
        {ip, std::string(22, 'v'), 0, ip + "/" + std::string(22, 'v')},
        {ip, std::string(23, 'v'), 4, ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE("value length " + std::to_string(r.value.size()));
        BCOPY(ipath, r.ipath.c_str());
        load(with(with(disk_conf(), P + "/roset/path", r.value), P + "/relpath/path", r.value));
        ZOR_ROSET ro{};
        ZOR_RELPATH rp{};
        EXPECT_EQ(get_roset(XP.c_str(), &ro), r.ret);
        EXPECT_EQ(get_relpath(XP.c_str(), &rp), r.ret);
        EXPECT_EQ(ro.path, r.path);
        EXPECT_EQ(rp.path, r.path);
        EXPECT_EQ(ro.to, r.ret == 0 ? 11 : 0);  // a refused path stops the load before the time-out
    }
}

// Disks and volumes; xfs takes the xfs values in both, zfs needs no read-only switch.
TEST_F(LoaderTest, DiskAndVolumeResources)
{
    for (const std::string fs : {"ext4", "zfs", "xfs"}) {
        SCOPED_TRACE(fs);
        const bool xfs = fs == "xfs", zfs = fs == "zfs";
        load(with(zfs ? without(disk_conf(), P + "/roset") : disk_conf(), P + "/fs", fs));
        ZOR_DISK_PARAM d{};
        ZOR_VXVOL_PARAM v{};
        ASSERT_EQ(getinfo_disk("fs1", "grp1", &d), 0);
        ASSERT_EQ(getinfo_vxvol("fs1", "grp1", &v), 0);
        // The disk's raw device is a copy: "rawdevice" is for volumes.
        EXPECT_EQ(std::string(d.rscname) + "|" + d.rsctype + "|" + d.devname + "|" + d.rawdev + "|" +
                      d.fstype + "|" + d.disktype + "|" + d.roset.path + "|" + d.relpath.path,
                  "fs1|disk|/dev/zd0|/dev/zd0|" + fs + "|disk|" + (zfs ? "" : "/opt/c/bin/zorroset") +
                      "|/opt/c/bin/zorrelpath");
        EXPECT_EQ(d.roset.to, zfs ? 0 : 11);
        EXPECT_EQ(std::string(v.rawdev) + "|" + v.relpath.path, "/dev/raw/raw1|/opt/c/bin/zorrelpath");
        for (auto [act, to, timing, interval] :
             {std::tuple{d.mount.act, d.fsck.to, d.fsck.timing, d.fsck.interval},
              std::tuple{v.mount.act, v.fsck.to, v.fsck.timing, v.fsck.interval}}) {
            EXPECT_EQ(act, xfs ? 3 : 1);
            EXPECT_EQ(to, xfs ? 700 : 600);
            EXPECT_EQ(timing, xfs ? 1 : 2);
            EXPECT_EQ(interval, xfs ? 20 : 10);
        }
        EXPECT_EQ(home.has_message("filesystem is xfs. overwrite mount/act params."), xfs);
        EXPECT_EQ(home.has_message("filesystem is xfs. overwrite fsck params."), xfs);
    }
}

TEST_F(LoaderTest, DiskResourceStopsAtTheFirstUnreadableKey)
{
    const struct {
        const char* missing;
        const char* fields;  // devname|rawdev|fstype|mount.path
    } rows[] = {
        {"device", "|||"},
        {"fs", "/dev/zd0|/dev/zd0||"},
        {"disktype", "/dev/zd0|/dev/zd0|ext4|"},
        // Required for disks whatever the file system.
        {"mount/xfsaction", "/dev/zd0|/dev/zd0|ext4|/bin/mount"},
        {"roset", "/dev/zd0|/dev/zd0|ext4|/bin/mount"},  // ext4 needs the read-only switch
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.missing);
        load(without(disk_conf(), P + "/" + r.missing));
        ZOR_DISK_PARAM d{};
        EXPECT_EQ(getinfo_disk("fs1", "grp1", &d), 4);
        EXPECT_EQ(std::string(d.devname) + "|" + d.rawdev + "|" + d.fstype + "|" + d.mount.path, r.fields);
        EXPECT_STREQ(d.relpath.path, "");
    }
    load(without(disk_conf(), P + "/mount/xfsaction"));
    ZOR_VXVOL_PARAM v{};
    EXPECT_EQ(getinfo_vxvol("fs1", "grp1", &v), 4);
    load(without(disk_conf(), P + "/rawdevice"));
    EXPECT_EQ(getinfo_vxvol("fs1", "grp1", &v), 4);
}

// A share loads without mount/action and mount/xfsaction, and does not read them when configured.
TEST_F(LoaderTest, NasResource)
{
    BCOPY(type, "nas");
    for (const ConfKeys& k :
         {nas_conf(), with(with(nas_conf(), NP + "/mount/action", "1"), NP + "/mount/xfsaction", "1")}) {
        load(k);
        ZOR_NAS_PARAM n{};
        ASSERT_EQ(getinfo_nas("share1", "grp2", &n), 0);
        EXPECT_EQ(std::string(n.rsctype) + "|" + n.server + "|" + n.share + "|" + n.pingpath + "|" +
                      n.mount.point + "|" + n.relpath.path,
                  "nas|10.0.0.1|/srv/share1|/opt/c/bin/ping|/mnt/share1|/opt/c/bin/zorrelpath");
        EXPECT_EQ(std::vector<int>({n.pingto, n.mount.act, n.mount.xfsact, n.mount.lock, n.umount.interval}),
                  std::vector<int>({3, 0, 0, 1, 5}));
    }
}

TEST_F(LoaderTest, ExistenceChecks)
{
    load({{"group@grp1/resource@disk@fs1", ""}, {"group@grp1/resource@nas@fs2", ""}, {"group@grp2", ""}});
    const struct {
        const char* rtype;
        const char* resource;  // null: the group check only
        const char* group;
        int ret;
    } rows[] = {
        {"disk", nullptr, "grp1", 0}, {"disk", nullptr, "grp9", 3}, {"disk", nullptr, "GRP1", 3},
        {"disk", "fs1", "grp1", 0},   {"disk", "FS1", "grp1", 2},   {"disk", "fs2", "grp1", 2},  // nas@fs2
        {"nas", "fs2", "grp1", 0},    {"nas", "fs1", "grp1", 2},                                 // disk@fs1
        {"disk", "fs1", "grp2", 2},  // a group without resources
    };
    for (const auto& r : rows) {
        BCOPY(type, r.rtype);
        EXPECT_EQ(r.resource == nullptr ? ckgrpexist(r.group) : ckrscexist(r.resource, r.group), r.ret)
            << r.rtype << " " << (r.resource ? r.resource : "-") << " in " << r.group;
    }
    EXPECT_TRUE(home.has_message("group=grp9 not exist in config."));
    EXPECT_TRUE(home.has_message("resource=FS1 not exist in config."));

    // No group at all; the parameters are there, but the resource is listed elsewhere.
    BCOPY(type, "disk");
    load({{"all/path", "/opt/c"}});
    ZOR_DISK_PARAM d{};
    EXPECT_EQ(getinfo_disk("fs1", "grp1", &d), 3);
    EXPECT_TRUE(home.has_message("group_num=0"));
    load(with(without(disk_conf(), "group@grp1/resource@disk@fs1"), "group@grp1/resource@disk@other", ""));
    EXPECT_EQ(getinfo_disk("fs1", "grp1", &d), 2);
    EXPECT_STREQ(d.devname, "");
}

// The disk resource on a server named node1.example.com, in a UTS namespace of
// its own so that the machine's name is not touched.
TEST_F(LoaderTest, PerServerValuesUseTheShortHostName)
{
    ZOR_REQUIRE_ROOT();
    load(with(with(with(disk_conf(), P + "/server@node1/device", "/dev/node1dev"),
                   P + "/mount/server@node1/point", "/mnt/node1"),
              P + "/server@node2/device", "/dev/node2dev"));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::string out = "child failed";
        if (unshare(CLONE_NEWUTS) == 0 && sethostname("node1.example.com", 17) == 0) {
            ZOR_DISK_PARAM d{};
            int ret = getinfo_disk("fs1", "grp1", &d);
            out = std::to_string(ret) + "|" + d.devname + "|" + d.rawdev + "|" + d.mount.point;
        }
        home.write("out", out);
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(home.read("out"), "0|/dev/node1dev|/dev/node1dev|/mnt/node1");

    // Volumes read no per-server value.
    ZOR_VXVOL_PARAM v{};
    ASSERT_EQ(getinfo_vxvol("fs1", "grp1", &v), 0);
    EXPECT_EQ(std::string(v.devname) + "|" + v.mount.point, "/dev/zd0|/mnt/fs1");
}

}  // namespace
