// The engine's description of the resource against this node's configuration
// (see identity.h).
#include "identity.h"

#include "../bounded.h"
#include "../command_exec/mount_table.h"
#include "../storage_ops/zor_ops.h"
#include "../tracersc.h"
#include "../value.h"

#include <sys/stat.h>
#include <cstdio>
#include <cstring>

ZOR_ENGINE_VIEW engine_view;

ZOR_IDENTITY identity_of(PZOR_DISK_PARAM p)
{
    return {p->devname, p->mount.point, nullptr, nullptr};
}

ZOR_IDENTITY identity_of(PZOR_VXVOL_PARAM p)
{
    return {p->devname, p->mount.point, nullptr, nullptr};
}

ZOR_IDENTITY identity_of(PZOR_NAS_PARAM p)
{
    return {nullptr, p->mount.point, p->server, p->share};
}

bool same_device(const char* a, const char* b)
{
    if (strcmp(a, b) == 0) {
        return true;
    }
    // A name that is no path (a dataset) is only a name.
    struct stat sa, sb;
    const bool ea = a[0] == '/' && stat(a, &sa) == 0;
    const bool eb = b[0] == '/' && stat(b, &sb) == 0;
    if (!ea || !eb) {
        return false;  // the same text was the only way left
    }
    if (S_ISBLK(sa.st_mode) && S_ISBLK(sb.st_mode)) {
        return sa.st_rdev == sb.st_rdev;
    }
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool same_point(const char* a, const char* b)
{
    if (strcmp(a, b) == 0) {
        return true;
    }
    char ra[PATH_MAX], rb[PATH_MAX];
    mnt_point_resolve(a, ra);
    mnt_point_resolve(b, rb);
    return strcmp(ra, rb) == 0;
}

namespace {

// One value the engine may give: its name in the status text and the trace,
// the engine's value, this node's, and how the two are compared.
struct Field {
    const char* shown;
    const char* traced;
    const char* given;
    char* mine;
    size_t size;
    bool (*same)(const char*, const char*);
};

bool same_text(const char* a, const char* b)
{
    return strcmp(a, b) == 0;
}

// The fields of `id` that the engine gave, in the order they are compared.
template <typename F>
int each_given(const ZOR_IDENTITY& id, F&& fn)
{
    const Field fields[] = {
        {"Device", "device", engine_view.device, id.device, ZOR_PATH_SIZE, same_device},
        {"Mount point", "mntpoint", engine_view.directory, id.point, ZOR_PATH_SIZE, same_point},
        {"Server", "svname", engine_view.server, id.server, ZOR_HOST_SIZE, same_text},
        {"Share", "share", engine_view.share, id.share, ZOR_PATH_SIZE, same_text},
    };
    for (const Field& f : fields) {
        if (f.mine != nullptr && f.given[0] != '\0') {
            int ret = fn(f);
            if (ret != 0) {
                return ret;
            }
        }
    }
    return 0;
}

}  // namespace

int engine_disagrees(const ZOR_IDENTITY& id)
{
    return each_given(id, [](const Field& f) {
        if (f.same(f.mine, f.given)) {
            return 0;
        }
        char host[ZOR_HOST_SIZE] = {};
        if (get_hostname(host) != 0) {
            BCOPY(host, "this node");
        }
        trace(TR_ERROR, ZOR_SRC, "%s=%s differs from the engine's %s on %s.", f.traced, f.mine, f.given,
              host);
        setshmbuf("%s differed from the engine's. (%s: %s, engine: %s)", f.shown, host, f.mine, f.given);
        return static_cast<int>(ZR_DISAGREES);
    });
}

void engine_take(const ZOR_IDENTITY& id)
{
    each_given(id, [](const Field& f) {
        if (strcmp(f.mine, f.given) != 0) {
            trace(TR_WARNING, ZOR_SRC, "%s=%s taken from the engine instead of %s.", f.traced, f.given,
                  f.mine);
            zor_bcopy(f.mine, f.size, f.given);
        }
        return 0;
    });
}

int engine_settle(const ZOR_IDENTITY& id, bool activate)
{
    char saved[ZOR_SHMBUF_SIZE];
    BCOPY(saved, shmbuf);
    const int ret = engine_disagrees(id);
    if (ret == 0 || activate) {
        return ret;
    }
    BCOPY(shmbuf, saved);
    engine_take(id);
    return 0;
}

namespace {

long at_least_0(int n)
{
    return n > 0 ? n : 0;
}

long mounts_s(const ZOR_MOUNT& m)
{
    return at_least_0(m.to) * (1 + at_least_0(m.retry));
}

long unmounts_s(const ZOR_UMOUNT& u, const ZOR_RELPATH& r)
{
    const long release = strcmp(u.act, "kill") == 0 ? at_least_0(r.to) : 0;
    return at_least_0(u.to) * (1 + at_least_0(u.retry)) +
           at_least_0(u.retry) * (at_least_0(u.interval) + release);
}

// One check: before the mount when its timing asks for one (xfs is only
// repaired), or as the recovery after a failed mount.
long check_s(const ZOR_FSCK& f, const ZOR_MOUNT& m, const char* fstype)
{
    const bool before = f.timing != 0 && strcmp(fstype, "xfs") != 0;
    const bool recovery = m.retry > 0 && m.act != 0;
    const bool rerun = strcmp(fstype, "reiserfs") == 0 && (f.rebuildopt != 0 || f.fixopt != 0);
    return before || recovery ? at_least_0(f.to) * (rerun ? 2 : 1) : 0;
}

}  // namespace

long worst_case_s(const ZOR_DISK_PARAM& p, bool start)
{
    const long roset =
        strcmp(p.disktype, "disk") == 0 && strcmp(p.fstype, "zfs") != 0 ? at_least_0(p.roset.to) : 0;
    if (start) {
        return 2 * roset + check_s(p.fsck, p.mount, p.fstype) + mounts_s(p.mount);
    }
    return unmounts_s(p.umount, p.relpath) + roset;
}

long worst_case_s(const ZOR_VXVOL_PARAM& p, bool start)
{
    return start ? check_s(p.fsck, p.mount, p.fstype) + mounts_s(p.mount) : unmounts_s(p.umount, p.relpath);
}

long worst_case_s(const ZOR_NAS_PARAM& p, bool start)
{
    const long ping = p.pingto != 0 ? at_least_0(p.pingto) + ZOR_PING_MARGIN : 0;
    if (start) {
        return ping + mounts_s(p.mount);
    }
    return ping + unmounts_s(p.umount, p.relpath) + 2 * at_least_0(p.umount.to);
}

void engine_timeout_check(bool start, long worst_s)
{
    const long given = start ? engine_view.start_timeout_ms : engine_view.stop_timeout_ms;
    const char* action = start ? "start" : "stop";
    if (given <= 0 || given >= worst_s * 1000) {
        return;
    }
    char host[ZOR_HOST_SIZE] = {};
    if (get_hostname(host) != 0) {
        BCOPY(host, "this node");
    }
    char timeout[32];
    char limits[32];
    BPRINTF(timeout, "%ldms", given);
    BPRINTF(limits, "%lds", worst_s);
    tracemess3(TR_EVENT, ZOR_EV_TIMEOUT_SHORT, ZOR_SRC, nullptr, action, timeout, limits);
    fprintf(stderr,
            "zor%s: warning: the %s's time-out (%ld ms) is shorter than the %ld s that the limits in "
            "zor.conf allow it on %s\n",
            type, action, given, worst_s, host);
}
