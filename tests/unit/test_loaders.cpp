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

namespace {

const std::string P = "resource/disk@fs1/parameters";
const std::string XP = "/root/" + P;

// A disk resource with a distinct value in every key, so that a field read
// can be told from a field left cleared.
ConfKeys disk_conf()
{
    ConfKeys k = {
        {"all/path", "/opt/c"},
        {"cluster/exclusion/mount", "2"},
        {"group@grp1/resource@disk@fs1", ""},
        {P + "/device", "/dev/zd0"},
        {P + "/rawdevice", "/dev/raw/raw1"},
        {P + "/fs", "ext4"},
        {P + "/disktype", "disk"},
        {P + "/mount/path", "/bin/mount"},
        {P + "/mount/point", "/mnt/fs1"},
        {P + "/mount/option", "noatime"},
        {P + "/mount/timeout", "61"},
        {P + "/mount/retry", "2"},
        {P + "/mount/action", "1"},
        {P + "/mount/xfsaction", "3"},
        {P + "/umount/path", "/bin/umount"},
        {P + "/umount/option", "-l"},
        {P + "/umount/timeout", "62"},
        {P + "/umount/retry", "4"},
        {P + "/umount/action", "kill"},
        {P + "/umount/interval", "7"},
        {P + "/umount/chkprcmnts", "1"},
        {P + "/fsck/path", "/sbin/fsck"},
        {P + "/fsck/reiserfs", "/sbin/reiserfsck"},
        {P + "/fsck/rebuildopt", "1"},
        {P + "/fsck/fixopt", "1"},
        {P + "/fsck/option", "-y"},
        {P + "/fsck/timeout", "600"},
        {P + "/fsck/timing", "2"},
        {P + "/fsck/interval", "10"},
        {P + "/fsck/xfs", "/sbin/xfs_repair"},
        {P + "/fsck/xfsoption", "-n"},
        {P + "/fsck/xfstimeout", "700"},
        {P + "/fsck/xfstiming", "1"},
        {P + "/fsck/xfsinterval", "20"},
        {P + "/roset/path", "bin/zorroset"},
        {P + "/roset/timeout", "11"},
        {P + "/relpath/path", "bin/zorrelpath"},
        {P + "/relpath/timeout", "31"},
    };
    return k;
}

const std::string NP = "resource/nas@share1/parameters";

ConfKeys nas_conf()
{
    ConfKeys k = {
        {"all/path", "/opt/c"},
        {"group@grp2/resource@nas@share1", ""},
        {NP + "/svname", "10.0.0.1"},
        {NP + "/share", "/srv/share1"},
        {NP + "/fs", "nfs"},
        {NP + "/ping/path", "bin/ping"},
        {NP + "/ping/timeout", "3"},
        {NP + "/mount/path", "/bin/mount"},
        {NP + "/mount/point", "/mnt/share1"},
        {NP + "/mount/option", "soft"},
        {NP + "/mount/timeout", "30"},
        {NP + "/mount/retry", "1"},
        {NP + "/umount/path", "/bin/umount"},
        {NP + "/umount/option", ""},
        {NP + "/umount/timeout", "30"},
        {NP + "/umount/retry", "2"},
        {NP + "/umount/action", "none"},
        {NP + "/relpath/path", "bin/zorrelpath"},
        {NP + "/relpath/timeout", "5"},
    };
    return k;
}

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
    // Writes the configuration and (re)loads it through the library.
    void load(const ConfKeys& keys)
    {
        xmlend();
        home.write("etc/zor.conf", ConfBuilder(keys).xml());
        ASSERT_EQ(xmlinit(), 0);
    }
    NodeHome home;
};

// One key of a loader's table: its path below the parameters, whether a
// failed read fails the load, and how to read the field back as text.
template <typename R>
struct FieldRow {
    std::string key;
    bool required;
    std::function<std::string(const R&)> get;
    std::string expected;  // the configured value as the field holds it
};

std::string num(int v)
{
    return std::to_string(v);
}

template <typename R>
void check_each_required_key(const char* loader, const std::vector<FieldRow<R>>& rows,
                             const std::function<int(R*)>& load_fn,
                             const std::function<void(const ConfKeys&)>& reload)
{
    // Everything present: every field filled.
    {
        reload(disk_conf());
        R rec{};
        ASSERT_EQ(load_fn(&rec), 0) << loader;
        for (const auto& row : rows) {
            EXPECT_EQ(row.get(rec), row.expected) << loader << " " << row.key;
        }
    }
    for (size_t k = 0; k < rows.size(); k++) {
        if (!rows[k].required) {
            continue;
        }
        SCOPED_TRACE(std::string(loader) + " without " + rows[k].key);
        const std::string path = rows[k].key[0] == '/' ? rows[k].key.substr(6) : P + "/" + rows[k].key;
        reload(without(disk_conf(), path));
        R rec{};
        EXPECT_EQ(load_fn(&rec), 4);
        for (size_t j = 0; j < rows.size(); j++) {
            const std::string got = rows[j].get(rec);
            if (j < k) {
                EXPECT_EQ(got, rows[j].expected) << "read before the gap: " << rows[j].key;
            } else {
                EXPECT_TRUE(got.empty() || got == "0")
                    << "not read after the gap: " << rows[j].key << "=" << got;
            }
        }
    }
}

TEST_F(LoaderTest, RequiredKeyMissingAtEachPosition)
{
    auto reload = [this](const ConfKeys& k) { load(k); };
    const std::string ex = "/root/cluster/exclusion/mount";

    std::vector<FieldRow<ZOR_MOUNT>> mount = {
        {"mount/path", true, [](const ZOR_MOUNT& r) { return std::string(r.path); }, "/bin/mount"},
        {"mount/point", true, [](const ZOR_MOUNT& r) { return std::string(r.point); }, "/mnt/fs1"},
        {"mount/option", true, [](const ZOR_MOUNT& r) { return std::string(r.opt); }, "noatime"},
        {"mount/timeout", true, [](const ZOR_MOUNT& r) { return num(r.to); }, "61"},
        {"mount/retry", true, [](const ZOR_MOUNT& r) { return num(r.retry); }, "2"},
        {"mount/action", true, [](const ZOR_MOUNT& r) { return num(r.act); }, "1"},
        {ex, false, [](const ZOR_MOUNT& r) { return num(r.lock); }, "2"},
        {"mount/xfsaction", true, [](const ZOR_MOUNT& r) { return num(r.xfsact); }, "3"},
    };
    check_each_required_key<ZOR_MOUNT>(
        "get_mount", mount, [](ZOR_MOUNT* r) { return get_mount(XP.c_str(), r, "node1"); }, reload);

    std::vector<FieldRow<ZOR_MOUNT>> mount_nas(mount.begin(), mount.begin() + 5);
    mount_nas.push_back(mount[6]);
    check_each_required_key<ZOR_MOUNT>(
        "get_mount_nas", mount_nas, [](ZOR_MOUNT* r) { return get_mount_nas(XP.c_str(), r); }, reload);

    std::vector<FieldRow<ZOR_UMOUNT>> umount = {
        {"umount/path", true, [](const ZOR_UMOUNT& r) { return std::string(r.path); }, "/bin/umount"},
        {"umount/option", true, [](const ZOR_UMOUNT& r) { return std::string(r.opt); }, "-l"},
        {"umount/timeout", true, [](const ZOR_UMOUNT& r) { return num(r.to); }, "62"},
        {"umount/retry", true, [](const ZOR_UMOUNT& r) { return num(r.retry); }, "4"},
        {"umount/action", true, [](const ZOR_UMOUNT& r) { return std::string(r.act); }, "kill"},
        {ex, false, [](const ZOR_UMOUNT& r) { return num(r.lock); }, "2"},
        {"umount/interval", false, [](const ZOR_UMOUNT& r) { return num(r.interval); }, "7"},
        {"umount/chkprcmnts", false, [](const ZOR_UMOUNT& r) { return num(r.chkprcmnts); }, "1"},
    };
    check_each_required_key<ZOR_UMOUNT>(
        "get_umount", umount, [](ZOR_UMOUNT* r) { return get_umount(XP.c_str(), r); }, reload);

    std::vector<FieldRow<ZOR_FSCK>> fsck = {
        {"fsck/path", true, [](const ZOR_FSCK& r) { return std::string(r.path); }, "/sbin/fsck"},
        {"fsck/reiserfs", true, [](const ZOR_FSCK& r) { return std::string(r.reiserpath); },
         "/sbin/reiserfsck"},
        {"fsck/rebuildopt", true, [](const ZOR_FSCK& r) { return num(r.rebuildopt); }, "1"},
        {"fsck/fixopt", true, [](const ZOR_FSCK& r) { return num(r.fixopt); }, "1"},
        {"fsck/option", true, [](const ZOR_FSCK& r) { return std::string(r.opt); }, "-y"},
        {"fsck/timeout", true, [](const ZOR_FSCK& r) { return num(r.to); }, "600"},
        {"fsck/timing", true, [](const ZOR_FSCK& r) { return num(r.timing); }, "2"},
        {"fsck/interval", true, [](const ZOR_FSCK& r) { return num(r.interval); }, "10"},
        {"fsck/xfs", true, [](const ZOR_FSCK& r) { return std::string(r.xfspath); }, "/sbin/xfs_repair"},
        {"fsck/xfsoption", true, [](const ZOR_FSCK& r) { return std::string(r.xfsopt); }, "-n"},
        {"fsck/xfstimeout", true, [](const ZOR_FSCK& r) { return num(r.xfsto); }, "700"},
        {"fsck/xfstiming", true, [](const ZOR_FSCK& r) { return num(r.xfstiming); }, "1"},
        {"fsck/xfsinterval", true, [](const ZOR_FSCK& r) { return num(r.xfsinterval); }, "20"},
    };
    check_each_required_key<ZOR_FSCK>(
        "get_fsck", fsck, [](ZOR_FSCK* r) { return get_fsck(XP.c_str(), r); }, reload);

    std::vector<FieldRow<ZOR_ROSET>> roset = {
        {"roset/path", true, [](const ZOR_ROSET& r) { return std::string(r.path); }, "/opt/c/bin/zorroset"},
        {"roset/timeout", true, [](const ZOR_ROSET& r) { return num(r.to); }, "11"},
    };
    check_each_required_key<ZOR_ROSET>(
        "get_roset", roset, [](ZOR_ROSET* r) { return get_roset(XP.c_str(), r); }, reload);

    std::vector<FieldRow<ZOR_RELPATH>> relpath = {
        {"relpath/path", true, [](const ZOR_RELPATH& r) { return std::string(r.path); },
         "/opt/c/bin/zorrelpath"},
        {"relpath/timeout", true, [](const ZOR_RELPATH& r) { return num(r.to); }, "31"},
    };
    check_each_required_key<ZOR_RELPATH>(
        "get_relpath", relpath, [](ZOR_RELPATH* r) { return get_relpath(XP.c_str(), r); }, reload);
}

TEST_F(LoaderTest, OptionalKeysTakeTheirDefaults)
{
    ConfKeys k = without(disk_conf(), "cluster/exclusion/mount");
    k = without(k, P + "/umount/interval");
    k = without(k, P + "/umount/chkprcmnts");
    load(k);
    ZOR_MOUNT m{};
    ZOR_MOUNT mn{};
    ZOR_UMOUNT u{};
    ASSERT_EQ(get_mount(XP.c_str(), &m, nullptr), 0);
    ASSERT_EQ(get_mount_nas(XP.c_str(), &mn), 0);
    ASSERT_EQ(get_umount(XP.c_str(), &u), 0);
    EXPECT_EQ(m.lock, 1);
    EXPECT_EQ(mn.lock, 1);
    EXPECT_EQ(u.lock, 1);
    EXPECT_EQ(u.interval, 5);
    EXPECT_EQ(u.chkprcmnts, 0);
    // A default still leaves the failed read in the trace.
    EXPECT_TRUE(home.has_message(
        "  xmllib_get_value(/root/cluster/exclusion/mount, 1) failed. (0x4 ZOR_XMLERR_NOTEXIST_PATH)"));
    EXPECT_TRUE(home.has_message("umount:to=62,retry=4,act=kill,lock=1,interval=5,chkprcmnts=0"));

    // Configured as off, the lock is off: the default is only for a missing key.
    load(with(disk_conf(), "cluster/exclusion/mount", "0"));
    ZOR_MOUNT m0{};
    ASSERT_EQ(get_mount(XP.c_str(), &m0, nullptr), 0);
    EXPECT_EQ(m0.lock, 0);
}

TEST_F(LoaderTest, ComposedCommandPaths)
{
    // The installation path and the value each fit; together they must fit 1023 characters.
    const std::string ip1000 = "/" + std::string(999, 'i');
    struct Row {
        std::string ipath;
        std::string value;
        int ret;
        std::string path;
    };
    const std::vector<Row> rows = {
        {"/opt/c", "bin/x", 0, "/opt/c/bin/x"},
        {"/opt/c", "", 0, "/opt/c/"},
        {"", "bin/x", 0, "/bin/x"},
        {ip1000, std::string(22, 'v'), 0, ip1000 + "/" + std::string(22, 'v')},
        {ip1000, std::string(23, 'v'), 4, ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE("value length " + std::to_string(r.value.size()));
        BCOPY(ipath, r.ipath.c_str());
        ConfKeys k = with(disk_conf(), P + "/roset/path", r.value);
        k = with(k, P + "/relpath/path", r.value);
        load(k);
        ZOR_ROSET ro{};
        ZOR_RELPATH rp{};
        EXPECT_EQ(get_roset(XP.c_str(), &ro), r.ret);
        EXPECT_EQ(get_relpath(XP.c_str(), &rp), r.ret);
        EXPECT_EQ(ro.path, r.path);
        EXPECT_EQ(rp.path, r.path);
        // A refused path stops the load before the time-out is read.
        EXPECT_EQ(ro.to, r.ret == 0 ? 11 : 0);
    }
}

TEST_F(LoaderTest, DiskResource)
{
    load(disk_conf());
    ZOR_DISK_PARAM d{};
    ASSERT_EQ(getinfo_disk("fs1", "grp1", &d), 0);
    EXPECT_STREQ(d.rscname, "fs1");
    EXPECT_STREQ(d.rsctype, "disk");
    EXPECT_STREQ(d.devname, "/dev/zd0");
    EXPECT_STREQ(d.rawdev, "/dev/zd0");  // copied, "rawdevice" is for volumes
    EXPECT_STREQ(d.fstype, "ext4");
    EXPECT_STREQ(d.disktype, "disk");
    EXPECT_EQ(d.mount.act, 1);
    EXPECT_EQ(d.fsck.to, 600);
    EXPECT_EQ(d.fsck.timing, 2);
    EXPECT_EQ(d.fsck.interval, 10);
    EXPECT_STREQ(d.roset.path, "/opt/c/bin/zorroset");
    EXPECT_STREQ(d.relpath.path, "/opt/c/bin/zorrelpath");
    EXPECT_FALSE(home.has_message("filesystem is xfs. overwrite mount/act params."));
}

TEST_F(LoaderTest, XfsTakesTheXfsValues)
{
    load(with(disk_conf(), P + "/fs", "xfs"));
    ZOR_DISK_PARAM d{};
    ASSERT_EQ(getinfo_disk("fs1", "grp1", &d), 0);
    EXPECT_EQ(d.mount.act, 3);
    EXPECT_EQ(d.fsck.to, 700);
    EXPECT_EQ(d.fsck.timing, 1);
    EXPECT_EQ(d.fsck.interval, 20);
    EXPECT_TRUE(home.has_message("filesystem is xfs. overwrite mount/act params."));
    EXPECT_TRUE(home.has_message("filesystem is xfs. overwrite fsck params."));

    ZOR_VXVOL_PARAM v{};
    ASSERT_EQ(getinfo_vxvol("fs1", "grp1", &v), 0);
    EXPECT_EQ(v.mount.act, 3);
    EXPECT_EQ(v.fsck.to, 700);
    EXPECT_EQ(v.fsck.interval, 20);
}

TEST_F(LoaderTest, ZfsNeedsNoReadOnlySwitch)
{
    ConfKeys k = without(disk_conf(), P + "/roset");
    load(with(k, P + "/fs", "zfs"));
    ZOR_DISK_PARAM d{};
    ASSERT_EQ(getinfo_disk("fs1", "grp1", &d), 0);
    EXPECT_STREQ(d.roset.path, "");
    EXPECT_EQ(d.roset.to, 0);
    EXPECT_STREQ(d.relpath.path, "/opt/c/bin/zorrelpath");

    load(k);  // ext4 without the switch: refused
    ZOR_DISK_PARAM e{};
    EXPECT_EQ(getinfo_disk("fs1", "grp1", &e), 4);
    EXPECT_STREQ(e.relpath.path, "");
}

TEST_F(LoaderTest, XfsActionIsRequiredForDisksAndVolumesWhateverTheFileSystem)
{
    load(without(disk_conf(), P + "/mount/xfsaction"));
    ZOR_DISK_PARAM d{};
    ZOR_VXVOL_PARAM v{};
    EXPECT_EQ(getinfo_disk("fs1", "grp1", &d), 4);
    EXPECT_EQ(getinfo_vxvol("fs1", "grp1", &v), 4);
    EXPECT_STREQ(d.umount.path, "");
}

TEST_F(LoaderTest, DiskResourceStopsAtTheFirstUnreadableKey)
{
    struct Row {
        const char* missing;
        const char* devname;
        const char* rawdev;
        const char* fstype;
    };
    const Row rows[] = {
        {"device", "", "", ""},
        {"fs", "/dev/zd0", "/dev/zd0", ""},
        {"disktype", "/dev/zd0", "/dev/zd0", "ext4"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.missing);
        load(without(disk_conf(), P + "/" + r.missing));
        ZOR_DISK_PARAM d{};
        EXPECT_EQ(getinfo_disk("fs1", "grp1", &d), 4);
        EXPECT_STREQ(d.devname, r.devname);
        EXPECT_STREQ(d.rawdev, r.rawdev);
        EXPECT_STREQ(d.fstype, r.fstype);
        EXPECT_STREQ(d.mount.path, "");
    }
}

TEST_F(LoaderTest, VolumeResource)
{
    load(disk_conf());
    ZOR_VXVOL_PARAM v{};
    ASSERT_EQ(getinfo_vxvol("fs1", "grp1", &v), 0);
    EXPECT_STREQ(v.devname, "/dev/zd0");
    EXPECT_STREQ(v.rawdev, "/dev/raw/raw1");
    EXPECT_STREQ(v.mount.point, "/mnt/fs1");
    EXPECT_STREQ(v.relpath.path, "/opt/c/bin/zorrelpath");

    load(without(disk_conf(), P + "/rawdevice"));
    ZOR_VXVOL_PARAM w{};
    EXPECT_EQ(getinfo_vxvol("fs1", "grp1", &w), 4);
}

TEST_F(LoaderTest, NasResource)
{
    BCOPY(type, "nas");
    // No mount/action nor mount/xfsaction: a share has no recovery check.
    load(nas_conf());
    ZOR_NAS_PARAM n{};
    ASSERT_EQ(getinfo_nas("share1", "grp2", &n), 0);
    EXPECT_STREQ(n.rsctype, "nas");
    EXPECT_STREQ(n.server, "10.0.0.1");
    EXPECT_STREQ(n.share, "/srv/share1");
    EXPECT_STREQ(n.pingpath, "/opt/c/bin/ping");
    EXPECT_EQ(n.pingto, 3);
    EXPECT_STREQ(n.mount.point, "/mnt/share1");
    EXPECT_EQ(n.mount.lock, 1);
    EXPECT_EQ(n.umount.interval, 5);
    EXPECT_TRUE(home.has_message("pingpath ; /opt/c/bin/ping"));

    // Configured all the same, they are not read.
    ConfKeys k = with(nas_conf(), NP + "/mount/action", "1");
    load(with(k, NP + "/mount/xfsaction", "1"));
    ZOR_NAS_PARAM m{};
    ASSERT_EQ(getinfo_nas("share1", "grp2", &m), 0);
    EXPECT_EQ(m.mount.act, 0);
    EXPECT_EQ(m.mount.xfsact, 0);

    // The ping path is composed like the other command paths.
    load(with(nas_conf(), NP + "/ping/path", ""));
    ZOR_NAS_PARAM e{};
    ASSERT_EQ(getinfo_nas("share1", "grp2", &e), 0);
    EXPECT_STREQ(e.pingpath, "/opt/c/");

    BCOPY(ipath, ("/" + std::string(1010, 'i')).c_str());
    load(with(nas_conf(), NP + "/ping/path", std::string(20, 'p')));
    ZOR_NAS_PARAM l{};
    EXPECT_EQ(getinfo_nas("share1", "grp2", &l), 4);
    EXPECT_EQ(l.pingto, 0);
}

// Existence checks: exact names, the resource type, empty lists.
TEST_F(LoaderTest, ExistenceChecks)
{
    ConfKeys k = {
        {"group@grp1/resource@disk@fs1", ""},
        {"group@grp1/resource@nas@fs2", ""},
        {"group@grp2", ""},
    };
    load(k);
    struct Row {
        const char* rtype;
        const char* resource;  // null: the group check only
        const char* group;
        int ret;
    };
    const Row rows[] = {
        {"disk", nullptr, "grp1", 0}, {"disk", nullptr, "grp9", 3},
        {"disk", nullptr, "GRP1", 3}, {"disk", "fs1", "grp1", 0},
        {"disk", "FS1", "grp1", 2},   {"disk", "fs2", "grp1", 2},  // listed as nas@fs2
        {"nas", "fs2", "grp1", 0},    {"nas", "fs1", "grp1", 2},   // listed as disk@fs1
        {"disk", "fs1", "grp2", 2},                                // a group without resources
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.rtype) + " " + (r.resource ? r.resource : "-") + " in " + r.group);
        BCOPY(type, r.rtype);
        int ret = r.resource == nullptr ? ckgrpexist(r.group) : ckrscexist(r.resource, r.group);
        EXPECT_EQ(ret, r.ret);
    }
    EXPECT_TRUE(home.has_message("group=grp9 not exist in config."));
    EXPECT_TRUE(home.has_message("resource=FS1 not exist in config."));
    EXPECT_TRUE(home.has_message("group_num=2"));
}

TEST_F(LoaderTest, MissingGroupOrResourceComesBeforeAnyKey)
{
    // No group at all.
    load({{"all/path", "/opt/c"}});
    ZOR_DISK_PARAM d{};
    EXPECT_EQ(getinfo_disk("fs1", "grp1", &d), 3);
    EXPECT_STREQ(d.rscname, "");
    EXPECT_TRUE(home.has_message("group_num=0"));
    EXPECT_TRUE(home.has_message("group=grp1 not exist in config."));

    // The parameters are there, but under another group.
    load(with(without(disk_conf(), "group@grp1"), "group@grp9/resource@disk@fs1", ""));
    ZOR_NAS_PARAM n{};
    ZOR_VXVOL_PARAM v{};
    EXPECT_EQ(getinfo_nas("share1", "grp1", &n), 3);
    EXPECT_EQ(getinfo_vxvol("fs1", "grp1", &v), 3);

    ConfKeys k = with(disk_conf(), "group@grp1/resource@disk@other", "");
    load(without(k, "group@grp1/resource@disk@fs1"));
    ZOR_DISK_PARAM e{};
    EXPECT_EQ(getinfo_disk("fs1", "grp1", &e), 2);
    EXPECT_STREQ(e.devname, "");
}

// Reads the disk resource on a server named node1.example.com, in a UTS
// namespace of its own so that the machine's name is not touched.
TEST_F(LoaderTest, PerServerValuesUseTheShortHostName)
{
    ZOR_REQUIRE_ROOT();
    ConfKeys k = with(disk_conf(), P + "/server@node1/device", "/dev/node1dev");
    k = with(k, P + "/mount/server@node1/point", "/mnt/node1");
    k = with(k, P + "/server@node2/device", "/dev/node2dev");
    load(k);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        std::string out = "child failed";
        if (unshare(CLONE_NEWUTS) == 0 && sethostname("node1.example.com", 17) == 0) {
            ZOR_DISK_PARAM d{};
            int ret = getinfo_disk("fs1", "grp1", &d);
            out = std::to_string(ret) + "|" + d.devname + "|" + d.rawdev + "|" + d.mount.point;
        }
        ssize_t w = write(fds[1], out.data(), out.size());
        _exit(w == static_cast<ssize_t>(out.size()) ? 0 : 1);
    }
    close(fds[1]);
    char buf[512] = {};
    ssize_t n = read(fds[0], buf, sizeof(buf) - 1);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_GT(n, 0);
    EXPECT_STREQ(buf, "0|/dev/node1dev|/dev/node1dev|/mnt/node1");

    // Volumes read no per-server value.
    ZOR_VXVOL_PARAM v{};
    ASSERT_EQ(getinfo_vxvol("fs1", "grp1", &v), 0);
    EXPECT_STREQ(v.devname, "/dev/zd0");
    EXPECT_STREQ(v.mount.point, "/mnt/fs1");
}

}  // namespace
