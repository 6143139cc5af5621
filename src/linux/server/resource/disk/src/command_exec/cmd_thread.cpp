// The timed command runner: one shell command line on a worker thread under
// a time limit, its end turned into the agent's result codes.
#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"
#include "cmd_result.h"
#include "pipe_worker.h"
#include "proc_runner.h"
#include "thread_wait.h"
#include "zor_exec.h"

#include <cstring>

namespace {

// The commands whose output is not read, by short name; every other command
// takes the pipe route.
constexpr CmdRules shell_commands[] = {
    {"roset", CV_SHELL, false, TR_INFO},
    // The release command answers 1 when it had processes to end.
    {"relpath", CV_SHELL, true, TR_INFO},
    {"ping", CV_SHELL, false, TR_DETAIL},
};

CmdRules rules_for(const char* cmdname)
{
    for (const CmdRules& r : shell_commands) {
        if (strcmp(r.name, cmdname) == 0) {
            return {cmdname, r.voice, r.one_ok, r.ok_level};
        }
    }
    return {cmdname, CV_PIPE, false, TR_INFO};
}

}  // namespace

void mask_percent(char* piece)
{
    size_t n = strlen(piece);
    for (size_t i = 0; i + 1 < n; i++) {
        if (piece[i] == '%') {
            piece[i] = '#';
        }
    }
}

int cmd_thread(PDISK_FUNC_INFO pfinfo)
{
    TRACE_ENTER();
    bool shell_route = rules_for(pfinfo->cmdname).voice == CV_SHELL;
    int ret = thend_run_cmd(shell_route ? exec_cmd_system : exec_cmd_popen, pfinfo,
                            shell_route ? "exec_cmd_system" : "exec_cmd_popen", pfinfo->timeout,
                            pfinfo->cmdname, &pfinfo->ret, ZOR_SRC);
    TRACE_EXIT(ret);
    return ret;
}

void* exec_cmd_system(void* parg)
{
    PDISK_FUNC_INFO pfinfo = static_cast<PDISK_FUNC_INFO>(parg);
    TRACE_ENTER();
    ZPROC proc;
    int err = 0;
    CmdEnd end{CMD_NOT_STARTED, 0};
    if (zproc_spawn(&proc, pfinfo->cmdline, 0, &err) == 0) {
        end = wait_end(&proc, false, pfinfo->cmdname);
    } else {
        end.value = err;
    }
    pfinfo->ret = cmd_decode(end, rules_for(pfinfo->cmdname), ZOR_SRC);
    if (end.kind == CMD_STOPPED) {
        thend_signal();
        return nullptr;
    }
    TRACE_EXIT(pfinfo->ret);
    thend_signal();
    return nullptr;
}

void* exec_cmd_popen(void* parg)
{
    PDISK_FUNC_INFO pfinfo = static_cast<PDISK_FUNC_INFO>(parg);
    TRACE_ENTER();
    size_t kept = strlen(pfinfo->cmdret);
    const char* fn = __func__;
    const CmdEnd end = pipe_run(
        pfinfo->cmdline, pfinfo->cmdname, [] {},
        [&](char* piece, int n) {
            // cmdret keeps the first 1023 characters of the whole output.
            size_t room = sizeof(pfinfo->cmdret) - 1 - kept;
            size_t take = static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room;
            memcpy(pfinfo->cmdret + kept, piece, take);
            kept += take;
            pfinfo->cmdret[kept] = '\0';
            mask_percent(piece);
            trace(TR_WARNING, ZOR_SRC_IN(fn), "%s", piece);
        },
        [] {});
    if (end.kind == CMD_EXITED) {
        pfinfo->cmdretval = end.value;
    }
    pfinfo->ret = cmd_decode(end, rules_for(pfinfo->cmdname), ZOR_SRC);
    if (pipe_cut_short(end)) {
        return nullptr;
    }
    TRACE_EXIT(pfinfo->ret);
    thend_signal();
    return nullptr;
}
