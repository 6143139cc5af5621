// The one walk over the processes of /proc, shared by the agent's check for
// a concurrent unmount and by zorrelpath's search for the holders of a mount.
//
// A walk on a busy server visits thousands of processes, so it costs what
// reading /proc costs and no more: one descriptor of /proc for the whole
// walk, directory entries read in large batches, no stdio, and each file of
// a process opened relative to that descriptor and read with one read().
// Processes come and go during a walk: one that has gone is skipped, one that
// appears may or may not be visited.
#pragma once

#include <sys/types.h>

// Called for each process: procfd is the descriptor of /proc, pid the
// process's directory name (digits only). Returns 0 to go on, anything else
// to end the walk.
typedef int (*proc_visit_fn)(void* arg, int procfd, const char* pid);

// Walks /proc. Returns 0 when the walk was made (to its end, or until visit
// asked to stop), -1 with errno when /proc could not be opened, 1 with errno
// when reading the list failed part way (what was read has been visited).
int proc_scan(proc_visit_fn visit, void* arg);

// The same with the caller's buffer for directory entries (the tests use a
// small one, so that the directory is read again between processes).
int proc_scan_buf(proc_visit_fn visit, void* arg, char* buf, size_t size);

// Reads /proc/PID/NAME (NAME relative to the process directory) with one
// read of at most size bytes; no NUL is added. Returns the bytes read, or -1
// when the file could not be opened or read (the process has gone).
ssize_t proc_read(int procfd, const char* pid, const char* name, char* buf, size_t size);
