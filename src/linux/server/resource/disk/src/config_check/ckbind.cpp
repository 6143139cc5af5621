// The raw binding check: asks the binding tool which block device a raw
// device is bound to, on a worker under a time limit.
#include "zor_check.h"

#include "../bounded.h"
#include "../command_exec/cmd_result.h"
#include "../command_exec/cmdline.h"
#include "../command_exec/proc_runner.h"
#include "../command_exec/thread_wait.h"
#include "../globals.h"
#include "../tracersc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#define THEXIT_SUCCESS nullptr

namespace {

constexpr CmdRules kRawQuery = {"raw", CV_QUERY, false, TR_INFO};

// A device number as the tool prints it: 1 to 3 decimal digits, the whole
// text [begin, end). Longer texts are refused rather than cut, so that a
// number is never taken for another.
bool parse_number(const char* begin, const char* end, int* value)
{
    long len = end - begin;
    if (len < 1 || len > 3) {
        return false;
    }
    int v = 0;
    for (const char* c = begin; c < end; c++) {
        if (*c < '0' || *c > '9') {
            return false;
        }
        v = v * 10 + (*c - '0');
    }
    *value = v;
    return true;
}

}  // namespace

// Where the number after "key " starts in s ("major 8"), or null when s
// has no such key with room for its separator.
static const char* after_key(const char* s, const char* key)
{
    const char* k = strstr(s, key);
    return k != nullptr && strnlen(k, 6) >= 6 ? k + 6 : nullptr;
}

int ckbind_parse_line(const char* line, const char* rawdev, int* pmajor, int* pminor)
{
    const char* colon = strchr(line, ':');
    if (colon == nullptr || static_cast<size_t>(colon - line) != strlen(rawdev)) {
        return 0;
    }
    if (strstr(line, rawdev) == nullptr) {
        return 0;
    }
    const char* majnum = after_key(colon, "major");
    const char* comma = majnum != nullptr ? strchr(majnum, ',') : nullptr;
    const char* minnum = comma != nullptr ? after_key(comma, "minor") : nullptr;
    if (minnum == nullptr) {
        return 0;
    }
    const char* minend = strchr(minnum, '\n');
    if (minend == nullptr) {
        minend = minnum + strlen(minnum);  // the last line may lack its newline
    }
    int rmajor = 0;
    int rminor = 0;
    if (!parse_number(majnum, comma, &rmajor) || !parse_number(minnum, minend, &rminor)) {
        return 0;
    }
    *pmajor = rmajor;
    *pminor = rminor;
    return 1;
}

int get_devnumber(PRAW_INFO pinfo)
{
    TRACE_ENTER();
    struct stat st;
    if (stat(pinfo->devname, &st) != 0) {
        trace(TR_ERROR, ZOR_SRC, "invalid path. %s (errno=%d)", pinfo->devname, errno);
        setshmbuf("Path was invalid. (%s)", pinfo->devname);
        TRACE_EXIT(ZR_PATH_INVALID);
        return ZR_PATH_INVALID;
    }
    if (!S_ISBLK(st.st_mode)) {
        trace(TR_ERROR, ZOR_SRC, "not block device(%s)", pinfo->devname);
        setshmbuf("Device was invalid. (%s)", pinfo->devname);
        TRACE_EXIT(ZR_DEVICE_INVALID);
        return ZR_DEVICE_INVALID;
    }
    pinfo->tmajor = static_cast<int>(major(st.st_rdev));
    pinfo->tminor = static_cast<int>(minor(st.st_rdev));
    if (pinfo->tmajor == 0 && pinfo->tminor == 0) {
        trace(TR_ERROR, ZOR_SRC, "invalid paramater.");
        setshm_status(ZR_INTERNAL);
        TRACE_EXIT(ZR_INTERNAL);
        return ZR_INTERNAL;
    }
    trace(TR_INFO, ZOR_SRC, "dev:%s maj:%d min:%d", pinfo->devname, pinfo->tmajor, pinfo->tminor);
    int fd = open(pinfo->devname, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        trace(TR_ERROR, ZOR_SRC, "  open(%s, O_RDONLY) failed. (errno=%d)", pinfo->devname, errno);
        setshmbuf("Device was invalid. (%s)", pinfo->devname);
        TRACE_EXIT(ZR_DEVICE_INVALID);
        return ZR_DEVICE_INVALID;
    }
    trace(TR_DETAIL, ZOR_SRC, "  open(%s, O_RDONLY) success.", pinfo->devname);
    close(fd);
    trace(TR_DETAIL, ZOR_SRC, "close(fd)");
    TRACE_EXIT(0);
    return 0;
}

void* exec_ckbind(void* parg)
{
    PRAW_INFO pinfo = static_cast<PRAW_INFO>(parg);
    TRACE_ENTER();
    ZPROC proc;
    int err = 0;
    if (zproc_spawn(&proc, pinfo->cmdline, 1, &err) != 0) {
        cmd_decode({CMD_NOT_STARTED, err}, kRawQuery, ZOR_SRC);
        pinfo->ret = 0;
        thend_signal();
        return THEXIT_SUCCESS;
    }
    trace(TR_DETAIL, ZOR_SRC, "popen(%s, r) success.", "raw");
    pinfo->ret = 0;

    char line[1024];
    int n;
    // Only the first line that reports on the raw device counts.
    while ((n = zproc_gets(&proc, line, sizeof(line) - 1)) > 0) {
        int rmajor = 0;
        int rminor = 0;
        if (!ckbind_parse_line(line, pinfo->rawdev, &rmajor, &rminor)) {
            continue;
        }
        if (rmajor == pinfo->tmajor && rminor == pinfo->tminor) {
            trace(TR_INFO, ZOR_SRC, "rawdev=%s already bound by dev=%s ignore.", pinfo->rawdev,
                  pinfo->devname);
            pinfo->ret = ZR_RAW_BOUND_SAME;
        } else if (rmajor != 0 || rminor != 0) {
            trace(TR_ERROR, ZOR_SRC, "rawdev=%s already bound by other dev.", pinfo->rawdev);
            setshmbuf("Raw device was already bound. (%s)", pinfo->rawdev);
            pinfo->ret = ZR_RAW_BOUND_OTHER;
        } else {
            trace(TR_INFO, ZOR_SRC, "rawdev=%s not bound. rmajor = %d, rminor = %d.", pinfo->rawdev, rmajor,
                  rminor);
        }
        break;
    }
    if (pinfo->ret == 0) {
        trace(TR_INFO, ZOR_SRC, "rawdev=%s not bound.", pinfo->rawdev);
    }

    int status = 0;
    if (n < 0 || zproc_wait(&proc, &status) != 0) {
        // Stopped on time-out: the waiting thread ignores the verdict.
        zproc_abandon(&proc);
        TRACE_EXIT(pinfo->ret);
        thend_signal();
        return THEXIT_SUCCESS;
    }
    zproc_abandon(&proc);
    // The verdict stands whatever became of the tool.
    cmd_decode(cmd_end_of(status, errno), kRawQuery, ZOR_SRC);
    TRACE_EXIT(pinfo->ret);
    thend_signal();
    return THEXIT_SUCCESS;
}

int ckbind(PZOR_RAW_PARAM pparam)
{
    trace(TR_DETAIL, ZOR_SRC, "<<< bind check >>>");
    RAW_INFO info;
    memset(&info, 0, sizeof(info));
    BCOPY(info.devname, pparam->devname);
    BCOPY(info.rawdev, pparam->rawdev);

    int ret = get_devnumber(&info);
    if (ret != 0) {
        trace(TR_INFO, ZOR_SRC, "<<< EXIT >>> : 0x%08lx", static_cast<long>(ret));
        return ret;
    }
    // A value the shell would interpret is not asked about (the parameter
    // check has reported it already): a check error, never a pass.
    ret = CMDLINE(info.cmdline, "raw", "exec %s -q %s 2>&1", zarg("raw/path", pparam->rawpath),
                  zarg("rawdevice", pparam->rawdev));
    if (ret != 0) {
        TRACE_EXIT(ret);
        return ret;
    }
    trace(TR_INFO, ZOR_SRC, "(%s)", info.cmdline);

    int err = 0;
    int rc = thend_run(exec_ckbind, &info, "exec_ckbind", pparam->rawto, "raw", 1, &err, ZOR_SRC);
    if (rc != ZW_DONE) {
        // A query that could not be made, or did not answer in time, counts as
        // not bound: the check passes.
        TRACE_EXIT(0);
        return 0;
    }
    TRACE_EXIT(info.ret);
    return info.ret;
}
