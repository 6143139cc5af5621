// The one decoder of a command's end (see cmd_result.h).
#include "cmd_result.h"

#include "../globals.h"
#include "proc_runner.h"

namespace {

bool writes_status(CmdVoice voice)
{
    return voice != CV_PROBE && voice != CV_QUERY;
}

// Ended without an exit code: the shell route knows only that system() failed,
// the pipe routes tell the start from the close.
int abnormal(const CmdEnd& end, const CmdRules& r, const char* file, int line, const char* func)
{
    const char* via = nullptr;
    if (r.voice == CV_QUERY) {
        if (end.kind == CMD_NOT_STARTED) {
            trace(TR_ERROR, file, line, func, "popen(%s, r) failed ignore. (errno=%d)", r.name, end.value);
        } else {
            trace(TR_ERROR, file, line, func, "pclose(%s) error ignore. (ret=%d,errno=%d)", r.name, 0,
                  end.value);
        }
    } else if (r.voice == CV_SHELL) {
        trace(TR_ERROR, file, line, func, "system(%s) error. (ret=%d,errno=%d)", r.name, 0, end.value);
        via = "system";
    } else if (end.kind == CMD_NOT_STARTED) {
        trace2(TR_ERROR, file, line, func, "popen(%s, r) failed. (errno=%d)", r.name, end.value);
        via = "popen";
    } else {
        trace(TR_ERROR, file, line, func, "pclose(%s) error. (ret=%d,errno=%d)", r.name, 0, end.value);
        via = "pclose";
    }
    if (via != nullptr && writes_status(r.voice)) {
        setshmbuf("Command failed. (%s(%s), errno=%d)", via, r.name, end.value);
    }
    return ZR_CMD_ABNORMAL;
}

int exited(int code, const CmdRules& r, const char* file, int line, const char* func)
{
    if (code == 0 || (code == 1 && r.one_ok)) {
        if (r.voice == CV_CHECK) {
            trace(r.ok_level, file, line, func, "%s : clean file system. (ret=%d)", r.name, code);
        } else if (code == 0) {
            trace(r.ok_level, file, line, func, "%s : success.", r.name);
        } else if (r.voice == CV_PROBE) {
            trace(r.ok_level, file, line, func, "%s : can't grep.", r.name);
        } else {
            trace(r.ok_level, file, line, func, "%s : kill some process.", r.name);
        }
        return 0;
    }
    if (r.voice == CV_QUERY) {
        trace(TR_ERROR, file, line, func, "%s : failed ignore. (ret=%d)", r.name, code);
    } else {
        trace(TR_ERROR, file, line, func, "%s : failed. (ret=%d)", r.name, code);
    }
    if (writes_status(r.voice)) {
        setshmbuf("Command failed. (%s, ret=%d)", r.name, code);
    }
    return ZR_CMD_FAILED;
}

}  // namespace

CmdEnd cmd_end_of(int status, int err)
{
    const int code = zproc_exit_code(status);
    return code < 0 ? CmdEnd{CMD_SIGNALED, err} : CmdEnd{CMD_EXITED, code};
}

int cmd_decode(CmdEnd end, const CmdRules& rules, const char* file, int line, const char* func)
{
    switch (end.kind) {
        case CMD_EXITED:
            return exited(end.value, rules, file, line, func);
        case CMD_SIGNALED:
        case CMD_NOT_STARTED:
            return abnormal(end, rules, file, line, func);
        case CMD_STOPPED:
            return ZR_CMD_ABNORMAL;
        case CMD_TIMED_OUT:
            if (writes_status(rules.voice)) {
                setshmbuf("Command timeout. (%s, timeout=%d)", rules.name, end.value);
            }
            return ZR_TIMEOUT;
        case CMD_NO_WORKER:
            // Most often a process limit: the operator must see that nothing ran.
            if (writes_status(rules.voice)) {
                setshmbuf("Creating of thread was failed. (%s, errno=%d)", rules.name, end.value);
            }
            return ZR_NO_THREAD;
    }
    return ZR_INTERNAL;
}
