// The timed command runner: one shell command line on a worker thread under
// a time limit, its wait status turned into the agent's result codes.
#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"
#include "pipe_worker.h"
#include "proc_runner.h"
#include "thread_wait.h"
#include "zor_exec.h"

#include <cstring>

void mask_percent(char* piece)
{
    size_t n = strlen(piece);
    for (size_t i = 0; i + 1 < n; i++) {
        if (piece[i] == '%') {
            piece[i] = '#';
        }
    }
}

int system_result(int st, int err, const char* name, int oklevel)
{
    const int code = zproc_exit_code(st);
    if (code < 0) {
        // Ended by a signal, or the shell never ran.
        trace(TR_ERROR, ZOR_SRC, "system(%s) error. (ret=%d,errno=%d)", name, 0, err);
        setshmbuf("Command failed. (%s(%s), errno=%d)", "system", name, err);
        return 14;
    }
    if (code == 0) {
        trace(oklevel, ZOR_SRC, "%s : success.", name);
        return 0;
    }
    if (code == 1 && strcmp(name, "relpath") == 0) {
        // The release command answers 1 when it had processes to end.
        trace(TR_INFO, ZOR_SRC, "%s : kill some process.", name);
        return 0;
    }
    return command_failed(name, code);
}

int cmd_thread(PDISK_FUNC_INFO pfinfo)
{
    TRACE_ENTER();
    bool shell_route = strcmp(pfinfo->cmdname, "roset") == 0 || strcmp(pfinfo->cmdname, "relpath") == 0;
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
    int st = -1;
    if (zproc_spawn(&proc, pfinfo->cmdline, 0, &err) == 0) {
        if (wait_end(&proc, false, pfinfo->cmdname, &st) != 0) {
            pfinfo->ret = 14;
            thend_signal();
            return nullptr;
        }
    }
    pfinfo->ret = system_result(st, err, pfinfo->cmdname, TR_INFO);
    TRACE_EXIT(pfinfo->ret);
    thend_signal();
    return nullptr;
}

void* exec_cmd_popen(void* parg)
{
    PDISK_FUNC_INFO pfinfo = static_cast<PDISK_FUNC_INFO>(parg);
    TRACE_ENTER();
    size_t kept = strlen(pfinfo->cmdret);
    int code = 0;
    const char* fn = __func__;
    const int outcome = pipe_run(
        pfinfo->cmdline, pfinfo->cmdname, &code, [] {},
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
        [] {}, pfinfo->childfn);
    if (pipe_failed(outcome, &pfinfo->ret))
        return nullptr;
    if (outcome == PIPE_EXITED) {
        pfinfo->cmdretval = code;
        if (code == 0) {
            trace(TR_INFO, ZOR_SRC, "%s : success.", pfinfo->cmdname);
            pfinfo->ret = 0;
        } else {
            pfinfo->ret = command_failed(pfinfo->cmdname, code);
        }
    }
    TRACE_EXIT(pfinfo->ret);
    thend_signal();
    return nullptr;
}
