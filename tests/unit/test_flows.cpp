// The flows' retry and recovery matrix with scripted outcomes: every command,
// mount-table probe and pause goes through the seam, so each row states what
// the machine answers and what the flow must do about it (result code, status
// text, the commands in order). The real runners and probes are tested on
// their own; the configuration is read through the real library.
#include "conf_builder.h"
#include "node_home.h"

#include "bounded.h"
#include "command_exec/seam.h"
#include "disk.h"
#include "flows/zor_flows.h"
#include "tracersc.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
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
constexpr Out FAIL{13, false};
constexpr Out TIMEOUT{12, false};
constexpr Out FAIL_BUT_DONE{13, true};

// The machine as the flows see it.
struct Machine {
    std::map<std::string, std::deque<Out>> outs;  // by command: mount, umount, fsck, roset, relpath, ping
    std::deque<int> unknown_probes;               // 1: the next probe cannot decide
    int entries = 0;                              // mount-table entries on the point
    std::vector<std::string> calls;

    Out next(const std::string& cmd)
    {
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

// What the real runner leaves in the status text for these outcomes.
int finish(const char* name, Out o, int* exit_code)
{
    if (o.rc == 13) {
        *exit_code = 32;
        setshmbuf("Command failed. (%s, ret=%d)", name, 32);
    } else if (o.rc == 12) {
        setshmbuf("Command timeout. (%s, timeout=%d)", name, 60);
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
    m->calls.push_back(call);
    Out o = m->next(name);
    if (o.effect && name == "mount") {
        m->entries++;
    } else if (o.effect && name == "umount" && m->entries > 0) {
        m->entries--;
    }
    return finish(f->cmdname, o, &f->cmdretval);
}

int fake_fsck(PDISK_FSCK_INFO f, const char*)
{
    m->calls.push_back("fsck");
    return finish(f->cmdname, m->next("fsck"), &f->cmdret);
}

int fake_system(const char*, int*)
{
    m->calls.push_back("ping");
    return m->next("ping").rc == 0 ? 0 : 1 << 8;
}

int fake_probe(const char*, int fcheck, bool* known)
{
    if (!m->unknown_probes.empty() && m->unknown_probes.front() != 0) {
        m->unknown_probes.pop_front();
        *known = false;
        return fcheck == MNT_PREUMOUNT ? 1 : 0;
    }
    if (!m->unknown_probes.empty()) {
        m->unknown_probes.pop_front();
    }
    *known = true;
    return fcheck == MNT_PREMOUNT ? (m->entries > 0 ? 1 : 0) : m->entries;
}

int fake_device(const char*, char* where, size_t size)
{
    zor_bcopy(where, size, "");
    return 0;
}

void fake_pause(int seconds)
{
    m->calls.push_back("pause " + std::to_string(seconds));
}

std::string joined(const std::vector<std::string>& v)
{
    std::string s;
    for (const std::string& x : v) {
        s += (s.empty() ? "" : ", ") + x;
    }
    return s;
}

// "key=value" words as keys below base; a key that begins with "/" is below <root>.
ConfKeys keys(const std::string& base, const std::string& words)
{
    ConfKeys out;
    for (size_t start = 0, end = 0; start < words.size(); start = end + 1) {
        end = std::min(words.find(' ', start), words.size());
        const std::string word = words.substr(start, end - start);
        const size_t eq = word.find('=');
        if (eq != std::string::npos) {
            const std::string key = word.substr(0, eq);
            out.emplace_back(key[0] == '/' ? key.substr(1) : base + "/" + key, word.substr(eq + 1));
        }
    }
    return out;
}

enum Flow { DISK_ACT, DISK_DEACT, VX_ACT, VX_DEACT, NAS_ACT, NAS_DEACT };
const char* const flow_names[] = {"disk_act",    "disk_deact", "vxvol_act",
                                  "vxvol_deact", "nas_act",    "nas_deact"};

struct Row {
    const char* what;
    Flow flow;
    const char* settings;  // "key=value" words over the defaults
    int entries;           // mount-table entries before the run
    std::map<std::string, std::deque<Out>> outs;
    std::deque<int> unknown_probes;
    int ret;
    const char* text;   // status text afterwards: a failed step's text stays until the driver's "Success."
    const char* calls;  // commands and pauses in order
};

class FlowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        home.script("zorroset", "exit 0");
        home.script("zorrelpath", "exit 0");
        home.script("ping", "exit 0");
        BCOPY(ipath, home.path().c_str());
        _xmlstep = 0;
        zor_seam = {fake_cmd, fake_fsck, fake_system, fake_probe, fake_device, fake_pause};
    }
    void TearDown() override
    {
        zor_seam = zor_real_seam;
        xmlend();
        traceclose();
        m = nullptr;
    }

    int run(const Row& r)
    {
        const bool nas = r.flow == NAS_ACT || r.flow == NAS_DEACT;
        const bool vx = r.flow == VX_ACT || r.flow == VX_DEACT;
        BCOPY(type, nas ? "nas" : "disk");
        traceclose();
        traceopen(type, 8, 0, nullptr);
        trace_mark = home.messages(type).size();
        xmlend();
        const std::string point = home / "mnt";
        const std::string base = nas ? "resource/nas@r1/parameters" : "resource/disk@r1/parameters";
        const std::string common =
            "mount/path=/bin/mount mount/point=" + point +
            " mount/option= mount/timeout=60 mount/retry=2 umount/path=/bin/umount umount/option= "
            "umount/timeout=60 umount/retry=2 umount/action=kill umount/interval=7 umount/chkprcmnts=0 "
            "relpath/path=bin/zorrelpath relpath/timeout=30 ";
        std::string words =
            nas ? "/group@g1/resource@nas@r1= svname=srv1 share=/srv/s1 fs=nfs ping/path=bin/ping "
                  "ping/timeout=0 " +
                      common
                : std::string(
                      "/group@g1/resource@disk@r1= device=/dev/zd0 rawdevice=/dev/raw/raw1 fs=ext4 ") +
                      "disktype=" + (vx ? "vxvm" : "disk") +
                      " mount/action=1 mount/xfsaction=0 fsck/path=/sbin/fsck fsck/reiserfs=/sbin/reiserfsck "
                      "fsck/rebuildopt=0 fsck/fixopt=0 fsck/option=-y fsck/timeout=600 fsck/timing=0 "
                      "fsck/interval=10 fsck/xfs=/sbin/xfs_repair fsck/xfsoption=-n fsck/xfstimeout=600 "
                      "fsck/xfstiming=0 fsck/xfsinterval=10 roset/path=bin/zorroset roset/timeout=10 " +
                      common;
        ConfKeys k = keys(base, words);
        for (const auto& [key, value] : keys(base, r.settings)) {
            k = with(k, key, value);
        }
        home.write("etc/zor.conf", conf_xml(k));
        EXPECT_EQ(xmlinit(), 0);

        Machine machine;
        machine.outs = r.outs;
        machine.unknown_probes = r.unknown_probes;
        machine.entries = r.entries;
        m = &machine;
        shmbuf[0] = '\0';
        int ret = 0;
        switch (r.flow) {
            case DISK_ACT:
                ret = disk_act("r1", "g1");
                break;
            case DISK_DEACT:
                ret = disk_deact("r1", "g1");
                break;
            case VX_ACT:
                ret = vxvol_act("r1", "g1");
                break;
            case VX_DEACT:
                ret = vxvol_deact("r1", "g1");
                break;
            case NAS_ACT:
                ret = nas_act("r1", "g1");
                break;
            case NAS_DEACT:
                ret = nas_deact("r1", "g1");
                break;
        }
        calls = joined(machine.calls);
        traceclose();  // flushed, so the trace can be read back
        return ret;
    }

    // The trace lines the last run added.
    std::vector<std::string> new_messages() const
    {
        const std::vector<std::string> all = home.messages(type);
        return {all.begin() + static_cast<long>(std::min(trace_mark, all.size())), all.end()};
    }

    NodeHome home;
    std::string calls;
    size_t trace_mark = 0;
};

std::string with_point(const char* text, const std::string& point)
{
    std::string s = text;
    size_t at = s.find("@P");
    return at == std::string::npos ? s : s.replace(at, 2, point);
}

TEST_F(FlowTest, RetryAndRecoveryMatrix)
{
    const Out F = FAIL;
    // clang-format off
    const Row rows[] = {
        // Activation of a disk: read-write, mount, recovery check, retries, read-only again on failure.
        {"first mount", DISK_ACT, "", 0, {}, {}, 0, "", "roset rw, mount"},
        {"mount fails twice then succeeds", DISK_ACT, "mount/action=0", 0, {{"mount", {F, F}}}, {}, 0, "Command failed. (mount, ret=32)",
         "roset rw, mount, mount, mount"},
        {"retries used up", DISK_ACT, "mount/action=0", 0, {{"mount", {F, F, F}}}, {}, 9,
         "Max recover retry over. (mount, retry=2)", "roset rw, mount, mount, mount, roset ro"},
        {"retries 0: the mount's text stands", DISK_ACT, "mount/retry=0", 0, {{"mount", {F}}}, {}, 1,
         "Command failed. (mount, ret=32)", "roset rw, mount, roset ro"},
        {"recovery check, then the retry mounts", DISK_ACT, "", 0, {{"mount", {F}}}, {}, 0, "Command failed. (mount, ret=32)",
         "roset rw, mount, fsck, mount"},
        {"recovery check fails", DISK_ACT, "", 0, {{"mount", {F}}, {"fsck", {F}}}, {}, 13,
         "Command failed. (/sbin/fsck, ret=32)", "roset rw, mount, fsck, roset ro"},
        {"mount fails but the table shows it mounted", DISK_ACT, "", 0, {{"mount", {FAIL_BUT_DONE}}}, {}, 0, "Command failed. (mount, ret=32)",
         "roset rw, mount"},
        {"mount times out, retry mounts", DISK_ACT, "mount/action=0", 0, {{"mount", {TIMEOUT}}}, {}, 0, "Command timeout. (mount, timeout=60)",
         "roset rw, mount, mount"},
        {"point already mounted: nothing touched", DISK_ACT, "", 1, {}, {}, 5,
         "Mount point was already mounted. (@P)", ""},
        {"check before the mount fails", DISK_ACT, "fsck/timing=1", 0, {{"fsck", {F}}}, {}, 13,
         "Command failed. (/sbin/fsck, ret=32)", "roset rw, fsck, roset ro"},
        {"a check that passed is not repeated", DISK_ACT, "fsck/timing=1", 0, {{"mount", {F}}}, {}, 0, "Command failed. (mount, ret=32)",
         "roset rw, fsck, mount, mount"},
        {"unquotable option refused before anything runs", DISK_ACT, "mount/option=a;b", 0, {}, {}, 64,
         "Parameter was invalid. (mount/option)", ""},

        // Deactivation of a disk: unmount, paused retries with release, read-only at the end.
        {"unmount", DISK_DEACT, "", 1, {}, {}, 0, "", "umount, roset ro"},
        {"not mounted: device left alone", DISK_DEACT, "", 0, {}, {}, 0, "", ""},
        {"stacked mounts all removed", DISK_DEACT, "", 2, {}, {}, 0, "", "umount, umount, roset ro"},
        {"unmount fails once, release and retry", DISK_DEACT, "", 1, {{"umount", {F}}}, {}, 0, "Command failed. (umount, ret=32)",
         "umount, pause 7, relpath, umount, roset ro"},
        {"action none: no release", DISK_DEACT, "umount/action=none", 1, {{"umount", {F}}}, {}, 0, "Command failed. (umount, ret=32)",
         "umount, pause 7, umount, roset ro"},
        {"unmount fails and the probe shows count-1", DISK_DEACT, "", 1, {{"umount", {FAIL_BUT_DONE}}}, {}, 0, "Command failed. (umount, ret=32)",
         "umount, pause 7, roset ro"},
        {"retries used up: device stays read-write", DISK_DEACT, "", 1, {{"umount", {F, F, F}}}, {}, 9,
         "Max recover retry over. (umount, retry=2)",
         "umount, pause 7, relpath, umount, pause 7, relpath, umount"},
        {"retries 0", DISK_DEACT, "umount/retry=0", 1, {{"umount", {F}}}, {}, 9,
         "Max recover retry over. (umount, retry=0)", "umount"},
        {"unknown action taken as none", DISK_DEACT, "umount/action=stop", 1, {{"umount", {F}}}, {}, 0,
         "Command failed. (umount, ret=32)", "umount, pause 7, umount, roset ro"},
        {"status unreadable", DISK_DEACT, "", 1, {}, {1}, 23, "Check of mount status has failed. (@P)", ""},
        {"status unreadable during the retries", DISK_DEACT, "", 1, {{"umount", {F}}}, {0, 1}, 23,
         "Check of mount status has failed. (@P)", "umount, pause 7"},

        // Volumes: no read-only switch; the check runs before the point is looked at.
        {"volume mounted", VX_ACT, "", 0, {}, {}, 0, "", "mount"},
        {"volume retries used up", VX_ACT, "mount/action=0", 0, {{"mount", {F, F, F}}}, {}, 9,
         "Max recover retry over. (mount, retry=2)", "mount, mount, mount"},
        {"zfs on a volume refused", VX_ACT, "fs=zfs", 0, {}, {}, 21, "Internal error. (status=21)", ""},
        {"volume point already mounted", VX_ACT, "", 1, {}, {}, 5, "Mount point was already mounted. (@P)", ""},
        {"volume checked before the mount, not again", VX_ACT, "fsck/timing=1 mount/action=1", 0,
         {{"mount", {F, F, F}}}, {}, 9, "Max recover retry over. (mount, retry=2)", "fsck, mount, mount, mount"},
        {"volume recovery check fails", VX_ACT, "", 0, {{"mount", {F}}, {"fsck", {F}}}, {}, 13,
         "Command failed. (/sbin/fsck, ret=32)", "mount, fsck"},
        {"volume unmounted", VX_DEACT, "", 1, {}, {}, 0, "", "umount"},
        {"volume not mounted", VX_DEACT, "", 0, {}, {}, 6, "Mount point was not mounted. (@P)", ""},
        {"volume emptied by someone else, seen with chkprcmnts", VX_DEACT, "umount/chkprcmnts=1", 1,
         {{"umount", {FAIL_BUT_DONE}}}, {}, 0, "Command failed. (umount, ret=32)", "umount, pause 7"},
        {"volume emptied during the last attempt", VX_DEACT, "umount/chkprcmnts=1 umount/retry=1", 1,
         {{"umount", {F, FAIL_BUT_DONE}}}, {}, 0, "Command failed. (umount, ret=32)", "umount, pause 7, relpath, umount"},
        {"without chkprcmnts the table is not trusted", VX_DEACT, "", 1, {{"umount", {FAIL_BUT_DONE, F, F}}}, {},
         9, "Max recover retry over. (umount, retry=2)",
         "umount, pause 7, relpath, umount, pause 7, relpath, umount"},

        // NAS shares: ping first when asked, retries without pause, no check.
        {"share mounted", NAS_ACT, "", 0, {}, {}, 0, "", "mount"},
        {"ping first", NAS_ACT, "ping/timeout=3", 0, {}, {}, 0, "", "ping, mount"},
        {"server down: nothing created", NAS_ACT, "ping/timeout=3", 0, {{"ping", {F}}}, {}, 13,
         "Command failed. (ping, ret=1)", "ping"},
        {"share mounts on the last retry", NAS_ACT, "", 0, {{"mount", {F, F}}}, {}, 0, "Command failed. (mount, ret=32)",
         "mount, mount, mount"},
        {"share retries used up", NAS_ACT, "", 0, {{"mount", {F, F, F}}}, {}, 9,
         "Max recover retry over. (mount, retry=2)", "mount, mount, mount"},
        {"share point already mounted", NAS_ACT, "ping/timeout=3", 1, {}, {}, 5,
         "Mount point was already mounted. (@P)", ""},
        {"share not mounted", NAS_DEACT, "ping/timeout=3", 0, {}, {}, 6, "Mount point was not mounted. (@P)", ""},
        {"share emptied by someone else, seen with chkprcmnts", NAS_DEACT, "umount/chkprcmnts=1 umount/action=none",
         1, {{"umount", {FAIL_BUT_DONE}}}, {}, 0, "Command failed. (umount, ret=32)", "umount, pause 7"},
        {"share unmounted", NAS_DEACT, "", 1, {}, {}, 0, "", "umount"},
        {"share stuck: forced, then lazy", NAS_DEACT, "umount/action=none", 1, {{"umount", {F, F, F, F, OK}}}, {},
         9, "Max recover retry over. (umount, retry=2)",
         "umount, pause 7, umount, pause 7, umount, umount, umount"},
    };
    // The key trace line of a row, where the operator reads why ("@P": the point).
    const std::map<std::string, const char*> lines = {
        {"mount fails twice then succeeds", "break mount retry. (count=2)"},
        {"retries used up", "mount max recover retry(2) over."},
        {"retries 0: the mount's text stands", "return because of mount retry=0."},
        {"recovery check, then the retry mounts", "break mount retry. (count=1)"},
        {"mount fails but the table shows it mounted", "actually, mntpoint=@P mounted."},
        {"a check that passed is not repeated", "break mount retry. (count=1)"},
        {"unmount fails and the probe shows count-1", "unmounted, break umount retry. count=1 mntpoint=@P"},
        {"retries used up: device stays read-write", "umount max recover retry(2) over."},
        {"retries 0", "umount max recover retry(0) over."},
        {"unknown action taken as none", "umntact=stop invalid."},
        {"zfs on a volume refused", "Setting of Disktype=vxvm and Filesystem=zfs can't be combined."},
        {"volume point already mounted", "mntpoint=@P already mounted."},
        {"volume checked before the mount, not again", "mount max recover retry(2) over."},
        {"share point already mounted", "mntpoint=@P already mounted."},
        {"share not mounted", "mntpoint=@P not mounted."},
        {"share emptied by someone else, seen with chkprcmnts", "actually, mntpoint=@P umounted."},
    };
    // clang-format on
    size_t lines_checked = 0;
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(flow_names[r.flow]) + ": " + r.what);
        const int ret = run(r);
        EXPECT_EQ(ret, r.ret);
        EXPECT_EQ(std::string(shmbuf), with_point(r.text, home / "mnt"));
        EXPECT_EQ(calls, r.calls);
        const auto line = lines.find(r.what);
        if (line != lines.end()) {
            const std::vector<std::string> msgs = new_messages();
            const std::string want = with_point(line->second, home / "mnt");
            EXPECT_NE(std::find(msgs.begin(), msgs.end(), want), msgs.end()) << want;
            lines_checked++;
        }
    }
    EXPECT_EQ(lines_checked, lines.size());  // no line keyed by a row name that is not there
}

}  // namespace
