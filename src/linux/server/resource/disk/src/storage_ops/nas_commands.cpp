// The commands only a NAS resource needs: ping the file server, mount its share.
#include "../bounded.h"
#include "../command_exec/cmdline.h"
#include "../command_exec/seam.h"
#include "../command_exec/zor_exec.h"
#include "../globals.h"
#include "../tracersc.h"
#include "zor_ops.h"

#include <cstring>

int ping_nas(PZOR_NAS_PARAM pparam)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< ping >>>");
    if (!cmdpath_valid(pparam->pingpath)) {
        TRACE_EXIT(ZR_CMDPATH_INVALID);
        return ZR_CMDPATH_INVALID;
    }
    // pingto is the number of echo requests.
    DISK_FUNC_INFO finfo;
    new_command(&finfo, "ping", (pparam->pingto > 0 ? pparam->pingto : 0) + ZOR_PING_MARGIN);
    CMDLINE_OR_RETURN(finfo.cmdline, "ping", "exec \"%s\" -c %d %s > /dev/null 2>&1",
                      zarg("ping/path", pparam->pingpath), zint("ping/timeout", pparam->pingto),
                      zarg("svname", pparam->server));
    return zor_seam.run_cmd(&finfo);
}

int mount_nas(PZOR_NAS_PARAM pparam)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< mount >>>");
    DISK_FUNC_INFO finfo;
    new_command(&finfo, "mount", pparam->mount.to);
    if (pparam->mount.opt[0] == '\0') {
        CMDLINE_OR_RETURN(finfo.cmdline, "mount", "exec \"%s\" -t %s \"%s:%s\" \"%s\" 2>&1",
                          zarg("mount/path", pparam->mount.path), zarg("fs", pparam->fstype),
                          zarg("svname", pparam->server), zarg("share", pparam->share),
                          zarg("mount/point", pparam->mount.point));
    } else {
        CMDLINE_OR_RETURN(finfo.cmdline, "mount", "exec \"%s\" -t %s -o %s \"%s:%s\" \"%s\" 2>&1",
                          zarg("mount/path", pparam->mount.path), zarg("fs", pparam->fstype),
                          zarg("mount/option", pparam->mount.opt), zarg("svname", pparam->server),
                          zarg("share", pparam->share), zarg("mount/point", pparam->mount.point));
    }
    int ret = run_locked(&finfo, pparam->mount.lock, "mount start.", "mount end.");
    trace(TR_INFO, ZOR_SRC, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ret));
    return ret;
}
