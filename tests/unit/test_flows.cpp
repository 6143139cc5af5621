// The flows' retry and recovery matrix with scripted outcomes: every command,
// mount-table probe and pause goes through the seam, so each row states what
// the machine answers and what the flow must do about it (result code, status
// text, the commands in order, the trace line that tells the operator why).
// The real runners and probes are tested on their own; the configuration is
// read through the real library.
#include "node_home.h"

#include "command_exec/seam.h"
#include "flows/zor_flows.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

// One scripted answer of a command: its result code, and whether it changed
// the mount table all the same (a mount that failed but mounted, an unmount
// that failed but someone else unmounted).
struct Out {
    int rc;
    bool effect;
};
constexpr Out OK{0, true};
constexpr Out F{ZR_CMD_FAILED, false};  // failed
constexpr Out FD{ZR_CMD_FAILED, true};  // failed, but done all the same

// The machine as the flows see it.
struct Machine {
    std::map<std::string, std::deque<Out>> outs;  // by command: mount, umount, fsck, roset, relpath, ping
    std::deque<int> unknown_probes;               // 1: the next probe cannot decide
    int entries = 0;                              // mount-table entries on the point
    std::string calls;                            // commands and pauses, in order

    Out step(const std::string& cmd, const std::string& call)
    {
        calls += (calls.empty() ? "" : ", ") + call;
        std::deque<Out>& q = outs[cmd];
        if (q.empty()) {
            return OK;
        }
        Out o = q.front();
        q.pop_front();
        return o;
    }
};
Machine* m = nullptr;

// What the real runner leaves in the status text for a failure.
int finish(const char* name, Out o, int* exit_code)
{
    if (o.rc == ZR_CMD_FAILED) {
        *exit_code = 32;
        setshmbuf("Command failed. (%s, ret=%d)", name, 32);
    }
    return o.rc;
}

int fake_cmd(PDISK_FUNC_INFO f)
{
    std::string name = f->cmdname;
    std::string call = name;
    if (name == "roset") {
        call += strstr(f->cmdline, " -w ") != nullptr ? " rw" : " ro";
    }
    Out o = m->step(name, call);
    if (o.effect && name == "mount") {
        m->entries++;
    } else if (o.effect && name == "umount" && m->entries > 0) {
        m->entries--;
    }
    return finish(f->cmdname, o, &f->cmdretval);
}

// A check of a volume's raw device (vxfs) shows as "fsck raw".
int fake_fsck(PDISK_FSCK_INFO f, const char*)
{
    return finish(f->cmdname, m->step("fsck", strcmp(f->devname, "/dev/raw/raw1") == 0 ? "fsck raw" : "fsck"),
                  &f->cmdret);
}

int fake_probe(const char*, int fcheck, bool* known)
{
    const bool unknown = !m->unknown_probes.empty() && m->unknown_probes.front() != 0;
    if (!m->unknown_probes.empty()) {
        m->unknown_probes.pop_front();
    }
    *known = !unknown;
    if (unknown) {
        return fcheck == MNT_PREUMOUNT ? 1 : 0;
    }
    return fcheck == MNT_PREMOUNT ? (m->entries > 0 ? 1 : 0) : m->entries;
}

// The resource's own file system is what the entries are; a look without a
// point sees them as mounts elsewhere.
int fake_where(const char* point, const char*, const char*, PMNT_WHERE w)
{
    memset(w, 0, sizeof(*w));
    w->device = 1;
    (point != nullptr ? w->on_point : w->elsewhere) = m->entries;
    w->on_point_own = w->on_point;
    w->lowest_own = w->top_own = w->on_point > 0 ? 1 : 0;
    return 0;
}

void fake_pause(int seconds)
{
    m->step("pause", "pause " + std::to_string(seconds));
}

struct Flow {
    const char* name;
    int (*run)(const char* resource, const char* group);
    const char* disktype;  // null: a NAS share
};
const Flow DISK_ACT{"disk_act", disk_act, "disk"}, DISK_DEACT{"disk_deact", disk_deact, "disk"},
    VX_ACT{"vxvol_act", vxvol_act, "vxvm"}, VX_DEACT{"vxvol_deact", vxvol_deact, "vxvm"},
    NAS_ACT{"nas_act", nas_act, nullptr}, NAS_DEACT{"nas_deact", nas_deact, nullptr};

struct Row {
    const char* what;
    Flow flow;
    const char* settings;  // "key=value" words over the defaults ("@P": the point)
    int entries;           // mount-table entries before the run
    std::map<std::string, std::deque<Out>> outs;
    std::deque<int> unknown_probes;
    int ret;
    const char* text;  // status text afterwards: a failed step's text stays until the driver's "Success."
    const char* calls;
    const char* line = nullptr;  // a trace line the run must leave ("@P": the point)
};

std::string with_point(const char* text, const std::string& point)
{
    return std::regex_replace(text, std::regex("@P"), point);
}

class FlowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        home.script("zorroset", "exit 0");
        home.script("zorrelpath", "exit 0");
        home.script("ping", "exit 0");
        BCOPY(ipath, home.path().c_str());
        _xmlstep = 0;
        zor_seam = {fake_cmd, fake_fsck, fake_probe, fake_where, fake_pause};
    }
    void TearDown() override
    {
        zor_seam = zor_real_seam;
        xmlend();
        traceclose();
        m = nullptr;
    }

    // Runs the row's flow; returns its result, the machine's calls in `calls`.
    int run(const Row& r)
    {
        const bool nas = r.flow.disktype == nullptr;
        BCOPY(type, nas ? "nas" : "disk");
        traceclose();
        traceopen(type, 8, 0, nullptr);
        home.take(type);
        xmlend();
        // The shared resources with this table's defaults: two retries each way, no check before the
        // mount, and the table trusted only with chkprcmnts.
        const std::string point = " mount/point=" + (home / "mnt");
        const ConfKeys conf =
            nas ? with(NAS, keys(NAS_P,
                                 "ping/timeout=0 mount/retry=2 umount/action=kill umount/interval=7" + point))
                : with(DISK, keys(DISK_P, "disktype=" + std::string(r.flow.disktype) +
                                              " umount/retry=2 umount/chkprcmnts=0 fsck/timing=0" + point));
        home.write("etc/zor.conf",
                   conf_xml(with(conf, keys(nas ? NAS_P : DISK_P, with_point(r.settings, home / "mnt")))));
        EXPECT_EQ(xmlinit(), 0);

        Machine machine{r.outs, r.unknown_probes, r.entries, ""};
        m = &machine;
        shmbuf[0] = '\0';
        const int ret = nas ? r.flow.run("share1", "grp2") : r.flow.run("fs1", "grp1");
        calls = machine.calls;
        traceclose();  // flushed, so the trace can be read back
        return ret;
    }

    NodeHome home;
    std::string calls;
};

TEST_F(FlowTest, RetryAndRecoveryMatrix)
{
    const char* const MOUNT_FAILED = "Command failed. (mount, ret=32)";
    const char* const UMOUNT_FAILED = "Command failed. (umount, ret=32)";
    const char* const FSCK_FAILED = "Command failed. (/sbin/fsck, ret=32)";
    const char* const MOUNT_OVER = "Max recover retry over. (mount, retry=2)";
    const char* const UMOUNT_OVER = "Max recover retry over. (umount, retry=2)";
    // clang-format off
    const Row rows[] = {
        // Activation of a disk: read-write, mount, recovery check, retries, read-only again on failure.
        {"mount fails twice then succeeds", DISK_ACT, "mount/action=0", 0, {{"mount", {F, F}}}, {}, 0,
         MOUNT_FAILED, "roset rw, mount, mount, mount", "break mount retry. (count=2)"},
        {"recovery check, then the retry mounts", DISK_ACT, "", 0, {{"mount", {F}}}, {}, 0, MOUNT_FAILED,
         "roset rw, mount, fsck, mount", "break mount retry. (count=1)"},
        {"recovery check fails", DISK_ACT, "", 0, {{"mount", {F}}, {"fsck", {F}}}, {}, 13, FSCK_FAILED,
         "roset rw, mount, fsck, roset ro"},
        {"mount fails but the table shows it mounted", DISK_ACT, "", 0, {{"mount", {FD}}}, {}, 0, MOUNT_FAILED,
         "roset rw, mount", "actually, mntpoint=@P mounted."},
        {"point already mounted: nothing touched", DISK_ACT, "", 1, {}, {}, 5,
         "Mount point was already mounted. (@P)", ""},
        {"check before the mount fails", DISK_ACT, "fsck/timing=1", 0, {{"fsck", {F}}}, {}, 13, FSCK_FAILED,
         "roset rw, fsck, roset ro"},
        {"a check that passed is not repeated", DISK_ACT, "fsck/timing=1", 0, {{"mount", {F}}}, {}, 0,
         MOUNT_FAILED, "roset rw, fsck, mount, mount", "break mount retry. (count=1)"},
        {"unquotable option refused before anything runs", DISK_ACT, "mount/option=a;b", 0, {}, {}, 64,
         "Parameter was invalid. (mount/option)", ""},
        {"more retries than any wait allows refused", DISK_ACT, "mount/retry=1000", 0, {}, {}, 64,
         "Parameter was invalid. (mount/retry)", ""},
        {"999 retries allowed", DISK_ACT, "mount/retry=999", 0, {}, {}, 0, "", "roset rw, mount"},
        {"relative point: read-only again", DISK_ACT, "mount/point=rel/fs1", 0, {}, {}, 7,
         "Mount point was invalid. (rel/fs1)", "roset ro"},
        {"point cannot be made", DISK_ACT, "mount/point=@P/../etc/zor.conf/fs1", 0, {}, {}, 8,
         "Creating of mount point was failed. (@P/../etc/zor.conf/fs1)", "roset ro"},
        {"zfs on lvm refused", DISK_ACT, "disktype=lvm fs=zfs", 0, {}, {}, 21, "Internal error. (status=21)", ""},
        {"retries 0: the mount's text outlives a failing switch back", DISK_ACT, "mount/retry=0", 0,
         {{"mount", {F}}, {"roset", {F, F}}}, {}, 1, MOUNT_FAILED, "roset rw, mount, roset ro",
         "return because of mount retry=0."},
        {"xfs repaired, then the retry mounts", DISK_ACT, "fs=xfs mount/retry=1 mount/xfsaction=1", 0,
         {{"mount", {F}}}, {}, 0, MOUNT_FAILED, "roset rw, mount, fsck, mount", "break mount retry. (count=1)"},
        {"xfs without a repair: retries only", DISK_ACT, "fs=xfs mount/xfsaction=0", 0, {{"mount", {F, F, F}}},
         {}, 9, MOUNT_OVER, "roset rw, mount, mount, mount, roset ro",
         "ZOR-16: xfs file system could not be mounted and no repair is configured. (device=/dev/zd0)"},
        // The periodic check: the first activation registers the device, the next one is due.
        {"schedule: first activation counts", DISK_ACT, "fsck/timing=2 fsck/interval=1", 0, {}, {}, 0, "",
         "roset rw, mount", "set fsckinterval->1."},
        {"schedule: check due", DISK_ACT, "fsck/timing=2 fsck/interval=1", 0, {}, {}, 0, "",
         "roset rw, fsck, mount", "execute fsck! fsckinterval over 1. (device:/dev/zd0)"},
        {"unknown timing: no check", DISK_ACT, "fsck/timing=7", 0, {}, {}, 0, "", "roset rw, mount",
         "fsck timing=7 invalid."},

        // Deactivation of a disk: unmount, paused retries with release, read-only at the end.
        {"not mounted: device left alone", DISK_DEACT, "", 0, {}, {}, 0, "", ""},
        {"stacked mounts all removed", DISK_DEACT, "", 2, {}, {}, 0, "", "umount, umount, roset ro"},
        {"unmount fails once, release and retry", DISK_DEACT, "", 1, {{"umount", {F}}}, {}, 0, UMOUNT_FAILED,
         "umount, pause 7, relpath, umount, roset ro"},
        {"unknown action taken as none: no release", DISK_DEACT, "umount/action=stop", 1, {{"umount", {F}}},
         {}, 0, UMOUNT_FAILED, "umount, pause 7, umount, roset ro", "umntact=stop invalid."},
        {"unmount fails and the probe shows count-1", DISK_DEACT, "", 1, {{"umount", {FD}}}, {}, 0,
         UMOUNT_FAILED, "umount, pause 7, roset ro", "unmounted, break umount retry. count=1 mntpoint=@P"},
        {"retries used up: device stays read-write", DISK_DEACT, "", 1, {{"umount", {F, F, F}}}, {}, 9,
         UMOUNT_OVER, "umount, pause 7, relpath, umount, pause 7, relpath, umount",
         "umount max recover retry(2) over."},
        {"retries -1: none, and not refused", DISK_DEACT, "umount/retry=-1", 1, {{"umount", {F}}}, {}, 9,
         "Max recover retry over. (umount, retry=-1)", "umount", "umount max recover retry(-1) over."},
        {"more retries than any wait allows refused", DISK_DEACT, "umount/retry=1000", 1, {}, {}, 64,
         "Parameter was invalid. (umount/retry)", ""},
        {"status unreadable", DISK_DEACT, "", 1, {}, {1}, 23, "Check of mount status has failed. (@P)", ""},
        {"status unreadable during the retries", DISK_DEACT, "", 1, {{"umount", {F}}}, {0, 1}, 23,
         "Check of mount status has failed. (@P)", "umount, pause 7"},

        // Volumes: no read-only switch; the check runs before the point is looked at.
        {"volume mounted", VX_ACT, "", 0, {}, {}, 0, "", "mount"},
        {"zfs on a volume refused", VX_ACT, "fs=zfs", 0, {}, {}, 21, "Internal error. (status=21)", "",
         "Setting of Disktype=vxvm and Filesystem=zfs can't be combined."},
        {"volume point already mounted", VX_ACT, "", 1, {}, {}, 5, "Mount point was already mounted. (@P)", "",
         "mntpoint=@P already mounted."},
        {"volume checked before the mount, not again", VX_ACT, "fsck/timing=1", 0, {{"mount", {F, F, F}}}, {},
         9, MOUNT_OVER, "fsck, mount, mount, mount", "mount max recover retry(2) over."},
        {"volume recovery check fails", VX_ACT, "", 0, {{"mount", {F}}, {"fsck", {F}}}, {}, 13, FSCK_FAILED,
         "mount, fsck"},
        {"vxfs recovery check on the raw volume", VX_ACT, "fs=vxfs", 0, {{"mount", {F}}}, {}, 0, MOUNT_FAILED,
         "mount, fsck raw, mount"},
        {"volume with a relative point: checked first", VX_ACT, "fs=vxfs fsck/timing=1 mount/point=rel/fs1", 0,
         {}, {}, 7, "Mount point was invalid. (rel/fs1)", "fsck raw"},
        {"volume: the failed check told, not the point", VX_ACT, "fs=vxfs fsck/timing=1 mount/point=rel/fs1", 0,
         {{"fsck", {F}}}, {}, 13, FSCK_FAILED, "fsck raw"},
        {"volume unmounted", VX_DEACT, "", 1, {}, {}, 0, "", "umount"},
        {"volume not mounted", VX_DEACT, "", 0, {}, {}, 6, "Mount point was not mounted. (@P)", ""},
        {"volume emptied during the last attempt", VX_DEACT, "umount/chkprcmnts=1 umount/retry=1", 1,
         {{"umount", {F, FD}}}, {}, 0, UMOUNT_FAILED, "umount, pause 7, relpath, umount"},
        {"without chkprcmnts the table is not trusted", VX_DEACT, "", 1, {{"umount", {FD, F, F}}}, {}, 9,
         UMOUNT_OVER, "umount, pause 7, relpath, umount, pause 7, relpath, umount"},

        // NAS shares: ping first when asked, retries without pause, no check.
        {"ping first", NAS_ACT, "ping/timeout=3", 0, {}, {}, 0, "", "ping, mount"},
        {"server down: nothing created", NAS_ACT, "ping/timeout=3", 0, {{"ping", {F}}}, {}, 13,
         "Command failed. (ping, ret=32)", "ping"},
        {"share retries used up", NAS_ACT, "", 0, {{"mount", {F, F, F}}}, {}, 9, MOUNT_OVER,
         "mount, mount, mount"},
        {"share point already mounted", NAS_ACT, "ping/timeout=3", 1, {}, {}, 5,
         "Mount point was already mounted. (@P)", "", "mntpoint=@P already mounted."},
        {"share not mounted", NAS_DEACT, "ping/timeout=3", 0, {}, {}, 6, "Mount point was not mounted. (@P)", "",
         "mntpoint=@P not mounted."},
        {"share emptied by someone else, seen with chkprcmnts", NAS_DEACT,
         "umount/chkprcmnts=1 umount/action=none", 1, {{"umount", {FD}}}, {}, 0, UMOUNT_FAILED,
         "umount, pause 7", "actually, mntpoint=@P umounted."},
        {"share unmounted", NAS_DEACT, "", 1, {}, {}, 0, "", "umount"},
        {"busy share released, then unmounted", NAS_DEACT, "", 1, {{"umount", {F}}}, {}, 0, UMOUNT_FAILED,
         "umount, pause 7, relpath, umount"},
        {"share stuck: forced, then lazy", NAS_DEACT, "umount/action=none", 1, {{"umount", {F, F, F, F, OK}}},
         {}, 9, UMOUNT_OVER, "umount, pause 7, umount, pause 7, umount, umount, umount"},
    };
    // clang-format on
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.flow.name) + ": " + r.what);
        EXPECT_EQ(run(r), r.ret);
        EXPECT_EQ(std::string(shmbuf), with_point(r.text, home / "mnt"));
        EXPECT_EQ(calls, r.calls);
        if (r.line != nullptr) {
            EXPECT_TRUE(has(home.take(type), with_point(r.line, home / "mnt"))) << r.line;
        }
    }
}

}  // namespace
