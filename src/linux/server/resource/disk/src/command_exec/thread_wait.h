// The wait of the main thread for the one worker thread, counted in 10 ms
// slices of the completion flag thend.
//
// The waiter wakes as soon as the worker signals its end, but the counting is
// that of a poll every 10 ms: a limit of 0 or less times out at once, and a
// worker that ends during the last slice is a time-out.
#pragma once

#include <cstddef>

// Clears thend before a worker starts.
void thend_reset(void);
// Sets thend to 1 and wakes the waiter; the worker's last act.
void thend_signal(void);
// Waits for thend at most timeout * 100 slices of 10 ms. Returns the number
// of slices counted; the run ended in time when it is below *plimit, which
// receives timeout * 100 computed without overflow (0 for timeout <= 0).
long long thend_wait(int timeout, long long* plimit);

// One worker run as every timed runner makes it: thend and the stop request
// cleared, the worker created ("pthread_create(%#x, %s)" with fnname), waited
// for ("thread start timeout:%d", "thread end time:%f") and joined
// ("pthread_join(%#x)"). On time-out it traces "%s : thread timeout." with
// tmoname ("%s : thread timeout ignore." when ignore is set), stops the
// worker's command ("pthread_cancel(%#x)") and joins it. Records carry the
// caller's source location (ZOR_SRC).
//
// The worker runs on its own copy of the argsize bytes at arg, copied back
// once it has been joined. A worker that does not end within a short grace
// after the stop request is given up: it is detached, and the caller's
// descriptor (on the caller's stack) is never touched again; its later
// writes go to its own copy, which it frees, and the text it would write as
// status is dropped.
#define ZW_DONE 0      // the worker ended in time and was joined
#define ZW_TIMEOUT 1   // time-out; the worker was stopped and joined, or given up
#define ZW_NOTHREAD 2  // the worker could not be created; *perr holds the error
int thend_run_sized(void* (*fn)(void*), void* arg, size_t argsize, const char* fnname, int timeout,
                    const char* tmoname, int ignore, int* perr, const char* file, int line, const char* func);
template <typename T>
int thend_run(void* (*fn)(void*), T* arg, const char* fnname, int timeout, const char* tmoname, int ignore,
              int* perr, const char* file, int line, const char* func)
{
    return thend_run_sized(fn, arg, sizeof(T), fnname, timeout, tmoname, ignore, perr, file, line, func);
}

// How long a stopped worker is waited for before it is given up.
#define ZW_JOIN_GRACE_MS 1000

// thend_run() for a command runner (time-out not ignored), its outcome as the
// runner's result: *pret, the worker's own result, when it ended in time;
// else the time-out or the missing worker told by cmd_decode for cmdname.
int thend_run_cmd_sized(void* (*fn)(void*), void* arg, size_t argsize, const char* fnname, int timeout,
                        const char* cmdname, const int* pret, const char* file, int line, const char* func);
template <typename T>
int thend_run_cmd(void* (*fn)(void*), T* arg, const char* fnname, int timeout, const char* cmdname,
                  const int* pret, const char* file, int line, const char* func)
{
    return thend_run_cmd_sized(fn, arg, sizeof(T), fnname, timeout, cmdname, pret, file, line, func);
}
