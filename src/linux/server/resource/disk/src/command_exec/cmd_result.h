// The one decoder from what became of a command to the agent's result code,
// with the trace records and the status text that tell the operator why.
// Every worker that runs a command, and the wait for it, report its end here.
#pragma once

#include "../tracersc.h"

// What became of one command.
enum CmdEndKind {
    CMD_EXITED,       // value: its exit code
    CMD_SIGNALED,     // ended by a signal, or no status to be had; value: the errno shown
    CMD_NOT_STARTED,  // value: the errno of the failed start
    CMD_STOPPED,      // stopped by the stop request: the waiting thread tells why
    CMD_TIMED_OUT,    // the waiting thread's view of it; value: the time limit in seconds
    CMD_NO_WORKER,    // the worker thread could not be created; value: its error
};

struct CmdEnd {
    CmdEndKind kind;
    int value;
};

// A reaped child's wait status (-1: none) as its end; err is the errno shown
// for one that did not exit.
CmdEnd cmd_end_of(int status, int err);

// How the end of a command is told.
enum CmdVoice {
    CV_SHELL,  // output not read (roset, relpath, ping): "system(%s) error."
    CV_PIPE,   // output read (mount, umount, the monitor's checks): "popen", "pclose"
    CV_CHECK,  // a file system checker: as CV_PIPE, a success is a clean file system
    CV_PROBE,  // the mount-table search: traced as CV_PIPE, no status text
    CV_QUERY,  // the raw binding query: traced as ignored, no status text
};

struct CmdRules {
    const char* name;  // names the command in traces and status texts
    CmdVoice voice;
    // Exit code 1 is a success too: the release command ended processes,
    // grep found no line, fsck corrected errors.
    bool one_ok;
    int ok_level;  // level of the success record
};

// The result code of the end: 0, ZR_TIMEOUT, ZR_CMD_FAILED, ZR_CMD_ABNORMAL or
// ZR_NO_THREAD, with its records under the caller's source location (ZOR_SRC).
// A stopped command and the waiting thread's view (time-out, no worker) leave
// no trace here: the wait traces them.
int cmd_decode(CmdEnd end, const CmdRules& rules, const char* file, int line, const char* func);
