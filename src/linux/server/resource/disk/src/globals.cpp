// The globals every module of the agent shares, the status text writer, the
// cluster semaphores and the mount lock.
#include "globals.h"
#include "bounded.h"
#include "run_state.h"
#include "tracersc.h"

#include <zoripc.h>

#include <cstdarg>

char type[ZOR_NAME_SIZE];
char ipath[ZOR_PATH_SIZE];
char shmbuf[ZOR_SHMBUF_SIZE];
std::atomic<int> thend{0};
int semflag = 0;
int sementmoflag = 0;

void setshmbuf(const char* fmt, ...)
{
    // The text of a worker given up at its time-out would replace the
    // time-out's own, or a later step's.
    if (zproc_orphaned()) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    zor_vbprintf(shmbuf, sizeof(shmbuf), fmt, ap);
    va_end(ap);
}

namespace {

// Result codes with a text of their own; every other code is reported as an
// internal error with its number.
struct StatusText {
    int code;
    const char* text;
    bool named;  // followed by " (name)"
};

constexpr StatusText status_texts[] = {
    {ZR_RESOURCE_UNKNOWN, "Resource was not in config.", true},
    {ZR_GROUP_UNKNOWN, "Group was not in config.", true},
    {ZR_CONFIG, "Getting of config was failed.", false},
};

}  // namespace

void status_text(int code, const char* name, char* out, size_t size)
{
    for (const StatusText& e : status_texts) {
        if (e.code == code) {
            if (e.named) {
                zor_bprintf(out, size, "%s (%s)", e.text, name != nullptr ? name : "");
            } else {
                zor_bcopy(out, size, e.text);
            }
            return;
        }
    }
    zor_bprintf(out, size, "Internal error. (status=%d)", code);
}

void setshm_status(int code, const char* name)
{
    char text[ZOR_SHMBUF_SIZE];
    status_text(code, name, text, sizeof(text));
    setshmbuf("%s", text);
}

void mkshm_getinfo(int ret, const char* resource, const char* group)
{
    if (ret != 0) {
        setshm_status(ret, ret == ZR_GROUP_UNKNOWN ? group : resource);
    }
}

namespace {

// Traces the cluster library's answer to `call`; a success moves *flag by
// `step`. Returns the library's code.
int sem_result(int ret, const char* call, int* flag, int step)
{
    if (ret != 0) {
        trace(TR_WARNING, ZOR_SRC, "%s failed. (ret=%d)", call, ret);
        return ret;
    }
    trace(TR_DETAIL, ZOR_SRC, "%s succeeded.", call);
    *flag += step;
    return 0;
}

}  // namespace

int disk_sem_attach(void)
{
    trace(TR_DETAIL, ZOR_SRC, "disk_sem_attach()  ENTRY...");
    sem_result(sem_attach(), "sem_attach()", &semflag, 1);
    return 0;
}

int disk_sem_detach(void)
{
    trace(TR_DETAIL, ZOR_SRC, "disk_sem_detach()  ENTRY...");
    if (semflag > 0) {
        sem_result(sem_detach(), "sem_detach()", &semflag, -1);
    }
    return 0;
}

int disk_entercrit_mount(void)
{
    trace(TR_DETAIL, ZOR_SRC, "disk_entercrit_mount()  ENTRY...");
    // Without the semaphores the mount runs unlocked.
    if (semflag != 0) {
        if (sem_result(sem_entercrit_mount(), "sem_entercrit_mount()", &sementmoflag, 1) == 0) {
            // A command started from now on never runs without the lock.
            zproc_keep_lock(sem_mount_lock_fd());
        }
    }
    return 0;
}

int disk_leavecrit_mount(void)
{
    trace(TR_DETAIL, ZOR_SRC, "disk_leavecrit_mount()  ENTRY...");
    // A leave after a failed enter must not release another process's lock.
    if (semflag > 0 && sementmoflag > 0) {
        zproc_keep_lock(-1);
        sem_result(sem_leavecrit_mount(), "sem_leavecrit_mount()", &sementmoflag, -1);
    }
    return 0;
}
