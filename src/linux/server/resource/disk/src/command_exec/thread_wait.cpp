// The main thread's wait for the one worker thread.
//
// The wait wakes as soon as the worker ends, but counts like a poll of thend
// every 10 ms: the count is the number of started slices, and an end seen in
// the last slice is a time-out. A run of several commands therefore does not
// pay up to 10 ms per command.
#include "thread_wait.h"

#include "../globals.h"
#include "../tracersc.h"
#include "cmd_result.h"
#include "proc_runner.h"

#include <pthread.h>
#include <time.h>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>

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

// One worker's run: its own copy of the caller's descriptor, shared by the
// waiting thread and the worker until the later of the two lets go.
struct WorkerRun {
    std::atomic<int> refs{2};
    void* (*fn)(void*) = nullptr;
    unsigned run = 0;
    size_t size = 0;
    std::max_align_t* copy = nullptr;
};

void release(WorkerRun* r)
{
    if (r->refs.fetch_sub(1) == 1) {
        delete[] r->copy;
        delete r;
    }
}

void* worker_main(void* arg)
{
    WorkerRun* r = static_cast<WorkerRun*>(arg);
    zproc_adopt_run(r->run);
    r->fn(r->copy);
    release(r);
    return nullptr;
}

// Joins the worker within ZW_JOIN_GRACE_MS. Returns pthread_timedjoin_np's
// result: 0 once joined, ETIMEDOUT when the worker is still running.
int join_within(pthread_t th)
{
    struct timespec abs;
    clock_gettime(CLOCK_REALTIME, &abs);
    abs.tv_sec += ZW_JOIN_GRACE_MS / 1000;
    abs.tv_nsec += (ZW_JOIN_GRACE_MS % 1000) * 1000000L;
    if (abs.tv_nsec >= 1000000000L) {
        abs.tv_sec++;
        abs.tv_nsec -= 1000000000L;
    }
    return pthread_timedjoin_np(th, nullptr, &abs);
}

}  // namespace

void thend_reset(void)
{
    std::lock_guard<std::mutex> lock(wait_mutex);
    thend.store(0);
}

void thend_signal(void)
{
    // A worker given up earlier must not end the wait for a later one.
    if (zproc_orphaned()) {
        return;
    }
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

int thend_run_sized(void* (*fn)(void*), void* arg, size_t argsize, const char* fnname, int timeout,
                    const char* tmoname, int ignore, int* perr, const char* file, int line, const char* func)
{
    thend_reset();
    zproc_stop_reset();
    WorkerRun* r = new WorkerRun;
    r->fn = fn;
    r->run = zproc_current_run();
    r->size = argsize;
    r->copy = new std::max_align_t[(argsize + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t) + 1];
    memcpy(r->copy, arg, argsize);
    pthread_t th{};
    int rc = pthread_create(&th, nullptr, worker_main, r);
    tracesys(rc, rc, file, line, func, "pthread_create(%#x, %s)", handle_id(th), fnname);
    if (rc != 0) {
        delete[] r->copy;
        delete r;
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
        memcpy(arg, r->copy, argsize);
        release(r);
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
    // The stop ends every wait of the runner at once, but a worker can still
    // be held elsewhere (a system call on a dead file server): the agent does
    // not wait for it beyond a short grace.
    rc = join_within(th);
    tracesys(rc, rc, file, line, func, "pthread_join(%#x)", handle_id(th));
    if (rc == 0) {
        memcpy(arg, r->copy, argsize);
    } else {
        zproc_give_up();
        pthread_detach(th);
        trace(TR_ERROR, file, line, func, "%s : worker did not end, left behind.", tmoname);
    }
    release(r);
    return ZW_TIMEOUT;
}

int thend_run_cmd_sized(void* (*fn)(void*), void* arg, size_t argsize, const char* fnname, int timeout,
                        const char* cmdname, const int* pret, const char* file, int line, const char* func)
{
    int err = 0;
    int rc = thend_run_sized(fn, arg, argsize, fnname, timeout, cmdname, 0, &err, file, line, func);
    const CmdRules rules = {cmdname, CV_PIPE, false, TR_INFO};
    if (rc == ZW_NOTHREAD) {
        return cmd_decode({CMD_NO_WORKER, err}, rules, file, line, func);
    }
    if (rc == ZW_TIMEOUT) {
        // Told after the join: the worker's own text must not replace it.
        return cmd_decode({CMD_TIMED_OUT, timeout}, rules, file, line, func);
    }
    return *pret;
}
