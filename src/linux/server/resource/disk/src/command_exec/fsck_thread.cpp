// The file system check runner: a checker on a worker thread under a time
// limit, its output in the fsck log, its exit code read by checker rules.
#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"
#include "cmd_result.h"
#include "pipe_worker.h"
#include "proc_runner.h"
#include "thread_wait.h"
#include "zor_exec.h"
#include "zorxml.h"

#include <cstring>

namespace {

void* run_checker(PDISK_FSCK_INFO pfinfo, bool xfs)
{
    TRACE_ENTER();
    const char* fn = __func__;
    const CmdEnd end = pipe_run(
        pfinfo->cmdline, pfinfo->cmdname,
        [&] {
            // A second reiserfs run keeps ret 13 and the exit code 4 or 6 of the first.
            if (!xfs && pfinfo->ret == ZR_CMD_FAILED && (pfinfo->cmdret == 4 || pfinfo->cmdret == 6)) {
                tracemess3(TR_EVENT, ZOR_EV_FSCK_START_OPT, ZOR_SRC_IN(fn), nullptr, pfinfo->cmdname,
                           pfinfo->devname, pfinfo->optname);
            } else {
                tracemess2(TR_EVENT, ZOR_EV_FSCK_START, ZOR_SRC_IN(fn), nullptr, pfinfo->cmdname,
                           pfinfo->devname);
            }
            fsck_log_init();  // unlogged check when the log cannot be opened
        },
        [fn](char* piece, int) {
            mask_percent(piece);
            trace_ex(TR_WARNING, ZOR_SRC_IN(fn), "%s", piece);
        },
        [] { fsck_log_term(); });
    // fsck: 1 means errors were corrected; xfs_repair knows no such code.
    const CmdRules rules = {pfinfo->cmdname, CV_CHECK, !xfs, TR_INFO};
    if (end.kind == CMD_EXITED) {
        const int code = end.value;
        pfinfo->cmdret = code;
        if (code == 0 || (rules.one_ok && code == 1)) {
            tracemess2(TR_EVENT, ZOR_EV_FSCK_CLEAN, ZOR_SRC, nullptr, pfinfo->cmdname, pfinfo->devname);
        } else {
            tracemess4(TR_EVENT, ZOR_EV_CMD_FAILED, ZOR_SRC, nullptr, pfinfo->cmdname, pfinfo->devname, code);
        }
    }
    pfinfo->ret = cmd_decode(end, rules, ZOR_SRC);
    if (pipe_cut_short(end)) {
        return nullptr;
    }
    TRACE_EXIT(pfinfo->ret);
    thend_signal();
    return nullptr;
}

// Reads /root/TYPE/log/KEY: the fsck log has the main log's level and size.
int read_log_int(const char* key, int* value)
{
    char path[ZOR_PATH_SIZE];
    BPRINTF(path, "/root/%s/log/%s", type, key);
    int size = sizeof(int);
    int rc = xmllib_get_value(path, ZOR_XML_INT, value, &size);
    tracexml(rc, ZOR_SRC, "xmllib_get_value(%s, %d)", path, ZOR_XML_INT);
    return rc;
}

}  // namespace

int fsck_thread(PDISK_FSCK_INFO pfinfo, const char* fstype)
{
    TRACE_ENTER();
    bool xfs = fstype != nullptr && strcmp(fstype, "xfs") == 0;
    int ret = thend_run_cmd(xfs ? exec_cmd_xfsrepair : exec_cmd_fsck, pfinfo, "exec_cmd_fsck",
                            pfinfo->timeout, pfinfo->cmdname, &pfinfo->ret, ZOR_SRC);
    TRACE_EXIT(ret);
    return ret;
}

void* exec_cmd_fsck(void* parg)
{
    return run_checker(static_cast<PDISK_FSCK_INFO>(parg), false);
}

void* exec_cmd_xfsrepair(void* parg)
{
    return run_checker(static_cast<PDISK_FSCK_INFO>(parg), true);
}

int fsck_log_init(void)
{
    TRACE_ENTER();
    char name[ZOR_NAME_SIZE];
    BPRINTF(name, "%s_fsck", type);
    int level = 0;
    int size = 0;
    if (read_log_int("level", &level) != 0 || read_log_int("size", &size) != 0) {
        TRACE_EXIT(ZR_CONFIG);
        return ZR_CONFIG;
    }
    traceopen_ex(name, level, size, nullptr);
    trace(TR_DETAIL, ZOR_SRC, "type: %s", name);
    trace(TR_DETAIL, ZOR_SRC, "loglevel: %d", level);
    trace(TR_DETAIL, ZOR_SRC, "logsize : %d", size);
    TRACE_EXIT(0);
    return 0;
}

int fsck_log_term(void)
{
    traceclose_ex();
    return 0;
}
