// The main thread's wait for the one worker thread.
//
// The wait wakes as soon as the worker ends, but counts like a poll of thend
// every 10 ms: the count is the number of started slices, and an end seen in
// the last slice is a time-out. A run of several commands therefore does not
// pay up to 10 ms per command.
#include "thread_wait.h"

#include "../disk.h"
#include "../tracersc.h"
#include "proc_runner.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <pthread.h>

namespace {

std::mutex wait_mutex;
std::condition_variable wait_cond;

// The thread handle as the trace shows it; it only identifies the run.
unsigned int handle_id(pthread_t th)
{
    uintptr_t v = 0;
    memcpy(&v, &th, sizeof(th) < sizeof(v) ? sizeof(th) : sizeof(v));
    return static_cast<unsigned int>(v);
}

}  // namespace

void thend_reset(void)
{
    std::lock_guard<std::mutex> lock(wait_mutex);
    thend.store(0);
}

void thend_signal(void)
{
    std::lock_guard<std::mutex> lock(wait_mutex);
    thend.store(1);
    wait_cond.notify_all();
}

long long thend_wait(int timeout, long long* plimit)
{
    long long limit = timeout > 0 ? static_cast<long long>(timeout) * 100 : 0;
    if (plimit != nullptr) {
        *plimit = limit;
    }
    if (limit <= 0) {
        return 0;
    }
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    // An end after limit - 1 full slices falls into the last slice: a time-out
    // whatever happens later, so there is no need to wait past that point.
    const auto deadline = start + std::chrono::milliseconds((limit - 1) * 10);
    std::unique_lock<std::mutex> lock(wait_mutex);
    if (thend.load() != 0) {
        return 0;  // seen at the first look, before any slice
    }
    if (!wait_cond.wait_until(lock, deadline, [] { return thend.load() != 0; })) {
        return limit;
    }
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(clock::now() - start).count();
    long long slices = (us + 9999) / 10000;  // a slice once started is counted
    return slices < limit ? slices : limit;
}

int thend_run(void* (*fn)(void*), void* arg, const char* fnname, int timeout, const char* tmoname, int ignore,
              int* perr, const char* file, int line, const char* func)
{
    thend_reset();
    zproc_stop_reset();
    pthread_t th{};
    int rc = pthread_create(&th, nullptr, fn, arg);
    tracesys(rc, rc, file, line, func, "pthread_create(%#x, %s)", handle_id(th), fnname);
    if (rc != 0) {
        if (perr != nullptr) {
            *perr = rc;
        }
        return ZW_NOTHREAD;
    }
    trace2(TR_DETAIL, file, line, func, "thread start timeout:%d", timeout);
    long long limit = 0;
    long long counted = thend_wait(timeout, &limit);
    trace2(TR_DETAIL, file, line, func, "thread end time:%f", static_cast<double>(counted) / 100.0);
    if (counted < limit) {
        rc = pthread_join(th, nullptr);
        tracesys(rc, rc, file, line, func, "pthread_join(%#x)", handle_id(th));
        return ZW_DONE;
    }
    if (ignore) {
        trace(TR_ERROR, file, line, func, "%s : thread timeout ignore.", tmoname);
    } else {
        trace(TR_ERROR, file, line, func, "%s : thread timeout.", tmoname);
    }
    // The worker is never cancelled: the stop request kills the command's
    // process group and ends every wait of the worker, which then returns.
    rc = zproc_stop();
    tracesys(rc, rc != 0 ? errno : 0, file, line, func, "pthread_cancel(%#x)", handle_id(th));
    rc = pthread_join(th, nullptr);
    tracesys(rc, rc, file, line, func, "pthread_join(%#x)", handle_id(th));
    return ZW_TIMEOUT;
}

int thend_run_cmd(void* (*fn)(void*), void* arg, const char* fnname, int timeout, const char* cmdname,
                  const int* pret, const char* file, int line, const char* func)
{
    int rc = thend_run(fn, arg, fnname, timeout, cmdname, 0, nullptr, file, line, func);
    if (rc == ZW_NOTHREAD) {
        setshmbuf("Internal error. (status=%d)", 32);
        return 32;
    }
    if (rc == ZW_TIMEOUT) {
        // Written after the join: the worker's own text must not replace it.
        setshmbuf("Command timeout. (%s, timeout=%d)", cmdname, timeout);
        return 12;
    }
    return *pret;
}
