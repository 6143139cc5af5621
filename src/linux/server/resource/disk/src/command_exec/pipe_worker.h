// Steps that the workers of the command runner and the check runner share.
// Each step traces and sets the status text itself; the worker keeps its own
// order, sets its result and signals the waiting thread.
#pragma once

#include "proc_runner.h"

#include <functional>

// Starts cmdline (or fn with cmdline as its argument) with its output on a
// pipe. 0, or 14 when it could not be started.
int pipe_start(ZPROC* proc, const char* cmdline, const char* cmdname, ZPROC_FN fn = nullptr);

// Waits for the command (not when its output could not be read to the end,
// `stopped`) and lets go of it. 0 with *st its wait status, or -1 when the run
// was stopped at its time-out: the waiting thread reports that.
int wait_end(ZPROC* proc, bool stopped, const char* cmdname, int* st);

// A pipe command's wait status: 0 with *code its exit code, or 14 when it was
// ended by a signal.
int pipe_exit_code(int st, const char* cmdname, int* code);

// Outcomes of pipe_run.
enum PipeOutcome {
    PIPE_EXITED = 0,   // *code holds the exit code
    PIPE_NOT_STARTED,  // status text set; the worker ends at once
    PIPE_STOPPED,      // stopped at its time-out; the waiting thread reports it
    PIPE_SIGNALED,     // ended by a signal; status text set
};

// The pipe loop of the workers: starts cmdline, calls on_start once it runs,
// hands each piece of output (NUL-terminated, n characters, at most 1022) to
// on_piece, calls on_output_end at the end of the output, then waits.
int pipe_run(const char* cmdline, const char* cmdname, int* code, const std::function<void()>& on_start,
             const std::function<void(char*, int)>& on_piece, const std::function<void()>& on_output_end,
             ZPROC_FN fn = nullptr);

// The end of a worker whose command did not exit normally: *ret 14. True when
// it never ran or was stopped: the waiting thread is then signalled at once
// and the worker ends without another trace.
bool pipe_failed(int outcome, int* ret);

// A command that exited with a non-zero `code`: traced, status text set.
// Returns 13.
int command_failed(const char* name, int code);
