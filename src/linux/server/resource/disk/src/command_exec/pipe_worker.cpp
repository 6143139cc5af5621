// Steps shared by the pipe-reading workers (cmd_thread's exec_cmd_popen and
// the file system check runner) and the shell-route worker.
#include "pipe_worker.h"

#include "../tracersc.h"
#include "thread_wait.h"

bool pipe_start(ZPROC* proc, const char* cmdline, const char* cmdname, CmdEnd* end)
{
    int err = 0;
    if (zproc_spawn(proc, cmdline, 1, &err) != 0) {
        *end = {CMD_NOT_STARTED, err};
        return false;
    }
    trace2(TR_DETAIL, ZOR_SRC, "popen(%s, r) success.", cmdname);
    return true;
}

CmdEnd wait_end(ZPROC* proc, bool stopped, const char* cmdname)
{
    int st = -1;
    if (stopped || zproc_wait(proc, &st) != 0) {
        trace(TR_WARNING, ZOR_SRC, "%s : stopped, process group killed.", cmdname);
        zproc_abandon(proc);
        return {CMD_STOPPED, 0};
    }
    zproc_abandon(proc);
    return cmd_end_of(st, 0);
}

CmdEnd pipe_run(const char* cmdline, const char* cmdname, const std::function<void()>& on_start,
                const std::function<void(char*, int)>& on_piece, const std::function<void()>& on_output_end)
{
    ZPROC proc;
    CmdEnd end{};
    if (!pipe_start(&proc, cmdline, cmdname, &end)) {
        return end;
    }
    on_start();
    char piece[1023];
    int n;
    while ((n = zproc_gets(&proc, piece, sizeof(piece))) > 0) {
        on_piece(piece, n);
    }
    on_output_end();
    return wait_end(&proc, n < 0, cmdname);
}

bool pipe_cut_short(const CmdEnd& end)
{
    if (end.kind != CMD_NOT_STARTED && end.kind != CMD_STOPPED) {
        return false;
    }
    thend_signal();
    return true;
}
