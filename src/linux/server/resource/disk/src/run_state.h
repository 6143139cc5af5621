// The state of the command run in progress that every layer consults: the
// run's number, whether the calling worker thread was given up, and the
// descriptor of the node's mount lock while it is held. It sits below the
// globals and the trace log, which drop a given-up worker's late writes, and
// below the process runner, which starts commands under the held lock.
#pragma once

// Runs are numbered: zproc_next_run starts a new one (the runner does so
// before each worker starts). A worker thread adopts the current run when it
// starts; once the waiting thread has given the run up (zproc_give_up, after
// a bounded join failed) the worker is orphaned: every wait of it counts as
// stopped, it starts nothing more, and its late writes (status text,
// completion flag, trace) are dropped.
void zproc_next_run(void);
unsigned zproc_current_run(void);
void zproc_adopt_run(unsigned run);
void zproc_give_up(void);
int zproc_orphaned(void);

// The descriptor that holds the node's mount lock while the next commands
// run, or -1: set by the mount lock's owner, read by the runner for every
// command it starts.
void zproc_keep_lock(int fd);
int zproc_held_lock(void);
