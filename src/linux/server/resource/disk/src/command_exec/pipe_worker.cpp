// Steps shared by the pipe-reading workers (cmd_thread's exec_cmd_popen and
// the file system check runner) and the shell-route worker.
#include "pipe_worker.h"

#include "../globals.h"
#include "../tracersc.h"
#include "thread_wait.h"

int pipe_start(ZPROC* proc, const char* cmdline, const char* cmdname, ZPROC_FN fn)
{
    int err = 0;
    if (zproc_spawn_fn(proc, fn, cmdline, 1, &err) != 0) {
        trace2(TR_ERROR, ZOR_SRC, "popen(%s, r) failed. (errno=%d)", cmdname, err);
        setshmbuf("Command failed. (%s(%s), errno=%d)", "popen", cmdname, err);
        return 14;
    }
    trace2(TR_DETAIL, ZOR_SRC, "popen(%s, r) success.", cmdname);
    return 0;
}

int wait_end(ZPROC* proc, bool stopped, const char* cmdname, int* st)
{
    if (stopped || zproc_wait(proc, st) != 0) {
        trace(TR_WARNING, ZOR_SRC, "%s : stopped, process group killed.", cmdname);
        zproc_abandon(proc);
        return -1;
    }
    zproc_abandon(proc);
    return 0;
}

int pipe_run(const char* cmdline, const char* cmdname, int* code, const std::function<void()>& on_start,
             const std::function<void(char*, int)>& on_piece, const std::function<void()>& on_output_end,
             ZPROC_FN fn)
{
    ZPROC proc;
    if (pipe_start(&proc, cmdline, cmdname, fn) != 0) {
        return PIPE_NOT_STARTED;
    }
    on_start();
    char piece[1023];
    int n;
    while ((n = zproc_gets(&proc, piece, sizeof(piece))) > 0) {
        on_piece(piece, n);
    }
    on_output_end();
    int st = -1;
    if (wait_end(&proc, n < 0, cmdname, &st) != 0) {
        return PIPE_STOPPED;
    }
    return pipe_exit_code(st, cmdname, code) != 0 ? PIPE_SIGNALED : PIPE_EXITED;
}

int pipe_exit_code(int st, const char* cmdname, int* code)
{
    const int exit_code = zproc_exit_code(st);
    if (exit_code < 0) {
        trace(TR_ERROR, ZOR_SRC, "pclose(%s) error. (ret=%d,errno=%d)", cmdname, 0, 0);
        setshmbuf("Command failed. (%s(%s), errno=%d)", "pclose", cmdname, 0);
        return 14;
    }
    *code = exit_code;
    return 0;
}

bool pipe_failed(int outcome, int* ret)
{
    if (outcome == PIPE_EXITED)
        return false;
    *ret = 14;
    if (outcome == PIPE_SIGNALED)
        return false;
    thend_signal();
    return true;
}

int command_failed(const char* name, int code)
{
    trace(TR_ERROR, ZOR_SRC, "%s : failed. (ret=%d)", name, code);
    setshmbuf("Command failed. (%s, ret=%d)", name, code);
    return 13;
}
