// Steps that the workers of the command runner and the check runner share.
// What became of the command is told by the caller, through cmd_decode.
#pragma once

#include "cmd_result.h"
#include "proc_runner.h"

#include <functional>

// Starts cmdline with its output on a pipe: true, traced as
// "popen(%s, r) success.", or false with *end CMD_NOT_STARTED.
bool pipe_start(ZPROC* proc, const char* cmdline, const char* cmdname, CmdEnd* end);

// Waits for the command (not when its output could not be read to the end,
// `stopped`) and lets go of it. Its end, or CMD_STOPPED (traced) when the run
// was stopped at its time-out: the waiting thread reports that.
CmdEnd wait_end(ZPROC* proc, bool stopped, const char* cmdname);

// The pipe loop of the workers: starts cmdline, calls on_start once it runs,
// hands each piece of output (NUL-terminated, n characters, at most 1022) to
// on_piece, calls on_output_end at the end of the output, then waits.
// Returns the command's end.
CmdEnd pipe_run(const char* cmdline, const char* cmdname, const std::function<void()>& on_start,
                const std::function<void(char*, int)>& on_piece, const std::function<void()>& on_output_end);

// A pipe worker whose command never ran or was stopped signals the waiting
// thread at once and ends without its exit record.
bool pipe_cut_short(const CmdEnd& end);
