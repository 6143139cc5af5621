// The one place where the agent starts, reads, waits for and kills child
// processes.
//
// A child runs "/bin/sh -c CMDLINE" in a process group of its own, with
// stdin from /dev/null and every other inherited descriptor close-on-exec.
// A worker thread drives one child; the waiting thread can stop it at any
// time (zproc_stop), which kills the child's whole process group, and every
// descendant that left it, and makes every blocking call of the worker return
// at once. The worker never blocks on a child that cannot die (a mount stuck
// in the kernel): after the kill it waits a short while and then leaves the
// child behind, for init to reap once the agent is gone.
#pragma once

#include "../run_state.h"

#include <sys/types.h>

typedef struct {
    pid_t pid;
    int outfd;   // read end of the output pipe, -1 without capture
    int pidfd;   // pidfd of the child, -1 when unsupported
    int exited;  // child reaped; status holds its wait status
    int status;
    char buf[4096];  // line reader
    int blen;
    int bpos;
    int eof;
    int killed;    // the process group was sent SIGKILL
    long drained;  // bytes read after the child exited
    pid_t keeper;  // lock keeper of a command run under the mount lock, or -1
    int nbefore;   // the agent's children when the command started (-1: too many to list)
    pid_t before[32];
} ZPROC;

// Starts cmdline. capture 1: stdout goes to a pipe read with zproc_gets
// (stderr is inherited, as with popen); capture 0: stdout and stderr are
// inherited, as with system. Returns 0, or -1 with *err = errno.
//
// A command started while the node's mount lock is held (zproc_held_lock)
// gets a keeper: a small process that shares the lock's open file and ends
// with the command, so that a command started under the lock never runs
// without it, even when the agent is killed. The command itself does not get
// the descriptor: a daemon it leaves behind (a FUSE server) must not hold the
// lock for its lifetime.
int zproc_spawn(ZPROC* p, const char* cmdline, int capture, int* err);

// Reads one piece of output like fgets: at most size - 1 characters, up to
// and including a newline. Returns the number of characters read, 0 at the
// end of the output, -1 when the run was stopped. Once the child has exited,
// output still in the pipe is drained without waiting for descendants that
// keep the pipe open (a daemon started by the command).
int zproc_gets(ZPROC* p, char* buf, int size);

// Waits for the child; *status receives the wait status. Returns 0, or -1
// when the run was stopped (the process group is then killed).
int zproc_wait(ZPROC* p, int* status);

// The one decoder of a wait status: the exit code (0 to 255) of a child that
// exited, or -1 for one that did not (ended by a signal, or no status, -1).
int zproc_exit_code(int status);

// Kills the child's process group, reaps the child if it dies within a short
// grace, and closes the descriptors. After a stop request the kill reaches
// every descendant, also those that left the group (setsid): the agent is
// their subreaper, so they become its children once their parent is gone.
void zproc_abandon(ZPROC* p);

// Stop request for the run in progress (the agent runs one worker at a time):
// zproc_stop_reset before the worker starts, zproc_stop from the waiting
// thread on time-out. zproc_stop returns 0 when the worker was woken, -1 when
// only the flag could be set (the worker then sees it at its next poll).
void zproc_stop_reset(void);
int zproc_stop(void);
int zproc_stopped(void);
