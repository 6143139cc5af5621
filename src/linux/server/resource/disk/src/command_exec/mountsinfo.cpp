// The mount table probe: is a mount point in /proc/mounts, and how often.
//
// grep selects the candidate lines; the mount-point field of each is then
// compared whole with the wanted path, so /mnt/data never matches /mnt/data2.
// The path reaches grep as text: escaped for the shell and for the regular
// expression, so that no character of a mount point is read as syntax.
// No status text is written here: every problem is traced and answered with
// a safe default.
#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"
#include "cmd_result.h"
#include "cmdline.h"
#include "pipe_worker.h"
#include "proc_runner.h"
#include "seam.h"
#include "thread_wait.h"
#include "zor_exec.h"

#include <sys/stat.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kGrepTimeout = 10;
// Longest path handled (the flows pass at most 1023 characters; a canonical
// path may be longer) and the growth of its escaped forms.
constexpr size_t kPathMax = PATH_MAX;
constexpr size_t kGrepFormMax = kPathMax * 5 + 1;
constexpr size_t kFieldFormMax = kPathMax * 4 + 1;

// The probe's command line: the pattern is taken as text by the shell and
// matches only the point's own escaped form for grep. 0, or -1 when it does
// not fit.
int grep_cmdline(char (&cmdline)[1024], const char* path, char* pattern, size_t size)
{
    int bad = 0;
    if (mounts_grep_pattern(path, pattern, size) != 0 ||
        cmdline_build(cmdline, sizeof(cmdline), "/bin/grep \"%s\" /proc/mounts 2>&1",
                      {zarg(nullptr, pattern)}, &bad) != ZCMD_OK) {
        return -1;
    }
    return 0;
}

// Counts the lines of grep's output whose mount-point field, unescaped,
// equals want; *pseen counts the lines that hold the escaped form at all.
// Returns the count, or -1 when the run was stopped.
int count_entries(ZPROC* proc, const char* want, int* pseen)
{
    char form[kFieldFormMax];
    if (mounts_escape_field(want, form, sizeof(form)) != 0) {
        form[0] = '\0';
    }
    *pseen = 0;
    char piece[1023];
    char shown[1023];
    int count = 0;
    bool line_start = true;
    int n;
    while ((n = zproc_gets(proc, piece, sizeof(piece))) > 0) {
        // A line longer than the buffer arrives in pieces; only the first
        // piece holds the fields.
        bool whole_start = line_start;
        line_start = piece[n - 1] == '\n';
        if (line_start) {
            piece[n - 1] = '\0';
        }
        // The comparison sees the line as read; only the trace shows "#".
        BCOPY(shown, piece);
        mask_percent(shown);
        trace(TR_DETAIL, ZOR_SRC, "msg<%s>", shown);
        if (strstr(piece, form) != nullptr) {
            ++*pseen;
        }
        if (whole_start && mounts_line_matches(piece, want)) {
            count++;
        }
    }
    return n < 0 ? -1 : count;
}

// grep answers 1 when it found no line; it writes no status text.
constexpr CmdRules kGrep = {"grep", CV_PROBE, true, TR_DETAIL};

int start_grep(ZPROC* proc, const char* cmdline)
{
    CmdEnd end{};
    if (!pipe_start(proc, cmdline, "grep", &end)) {
        cmd_decode(end, kGrep, ZOR_SRC);
        return -1;
    }
    return 0;
}

void* end_worker(PDISK_MOUNTS_INFO pminfo, int ret)
{
    pminfo->ret = ret;
    thend_signal();
    return nullptr;
}

}  // namespace

void* mntinfo_popen(void* parg)
{
    PDISK_MOUNTS_INFO pminfo = static_cast<PDISK_MOUNTS_INFO>(parg);
    TRACE_ENTER();
    ZPROC proc;
    if (start_grep(&proc, pminfo->cmdline) != 0) {
        return end_worker(pminfo, -1);
    }
    // The wanted path itself: fields are compared unescaped.
    char raw[kPathMax];
    mounts_unescape(pminfo->mntpt, raw, sizeof(raw));
    int seen = 0;
    int count = count_entries(&proc, raw, &seen);
    if (count == 0) {
        // Not found as written: try the canonical path (trailing "/", "..",
        // symbolic links). A path that cannot be resolved has no entry.
        char canon[kPathMax];
        char canon_grep[kGrepFormMax];
        if (zor_point_path(raw, canon) == nullptr) {
            trace(TR_DETAIL, ZOR_SRC, "realpath(%s) failed, no second search. (errno=%d)", raw, errno);
        } else if (grep_cmdline(pminfo->cmdline, canon, canon_grep, sizeof(canon_grep)) != 0) {
            trace(TR_DETAIL, ZOR_SRC, "realpath use, path:<%s> too long, no second search.", canon);
        } else if (strcmp(canon, raw) == 0) {
            // The canonical path is the one just searched: a second grep would
            // select the same lines and compare them with the same text.
            // Activation pays for every process it starts, so save this one.
            trace(TR_DETAIL, ZOR_SRC, "realpath use, path:<%s> already searched.", canon);
        } else {
            trace(TR_INFO, ZOR_SRC, "realpath use, path:<%s>", canon);
            int st = 0;
            if (zproc_wait(&proc, &st) != 0) {
                zproc_abandon(&proc);
                return end_worker(pminfo, -1);
            }
            zproc_abandon(&proc);
            if (start_grep(&proc, pminfo->cmdline) != 0) {
                return end_worker(pminfo, -1);
            }
            count = count_entries(&proc, canon, &seen);
        }
    }
    if (count < 0) {
        zproc_abandon(&proc);
        return end_worker(pminfo, -1);
    }
    if (count != 0) {
        trace(TR_INFO, ZOR_SRC, "msg<entry num:%d>", count);
    } else {
        trace(TR_INFO, ZOR_SRC, "msg<no entry>");
    }
    int ret = count;
    int st = -1;
    if (zproc_wait(&proc, &st) != 0) {
        zproc_abandon(&proc);
        return end_worker(pminfo, -1);
    }
    zproc_abandon(&proc);
    const CmdEnd end = cmd_end_of(st, 0);
    if (end.kind == CMD_EXITED && end.value == 0 && seen == 0) {
        // grep found a line but did not show it (a line it takes for binary
        // data, in a UTF-8 locale): nothing can be told.
        trace(TR_ERROR, ZOR_SRC, "%s : matched line not shown. (ret=%d)", "grep", end.value);
        ret = -1;
    } else if (cmd_decode(end, kGrep, ZOR_SRC) != 0) {
        ret = -1;
    }
    return end_worker(pminfo, ret);
}

int mountsinfo(const char* pdirpath, int fcheck)
{
    bool known = false;
    return zor_seam.mount_count(pdirpath, fcheck, &known);
}

int mountsinfo_known(const char* pdirpath, int fcheck, bool* pknown)
{
    const char* title = fcheck == MNT_PREMOUNT ? "mounts(pre-mount)" : "mounts(pre-umount)";
    trace(TR_DETAIL, ZOR_SRC, "<<< %s >>>", title);
    *pknown = false;

    DISK_MOUNTS_INFO minfo;
    memset(&minfo, 0, sizeof(minfo));
    struct stat sb;
    if (stat("/proc/mounts", &sb) != 0) {
        trace(TR_ERROR, ZOR_SRC, "/proc/mounts not exist ignore. (errno=%d)", errno);
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }
    if (stat("/bin/grep", &sb) != 0) {
        trace(TR_ERROR, ZOR_SRC, "invalid cmdpath ignore. %s (errno=%d)", "/bin/grep", errno);
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }

    // Escaped forms of any path the flows pass fit here; only a form that
    // cannot fit the command line is refused.
    char pattern[kGrepFormMax];
    char field[kFieldFormMax];
    if (pdirpath == nullptr || mounts_escape_field(pdirpath, field, sizeof(field)) != 0 ||
        BCOPY(minfo.mntpt, field) != 0 ||
        grep_cmdline(minfo.cmdline, pdirpath, pattern, sizeof(pattern)) != 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpath is too long ignore.");
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }
    trace(TR_DETAIL, ZOR_SRC, "mntpath=%s", pattern);
    trace(TR_DETAIL, ZOR_SRC, "minfo.mntpt=%s", minfo.mntpt);
    trace(TR_INFO, ZOR_SRC, "(%s)", minfo.cmdline);

    int err = 0;
    int rc = thend_run(mntinfo_popen, &minfo, "mntinfo_popen", kGrepTimeout, "grep", 1, &err, ZOR_SRC);
    if (rc == ZW_NOTHREAD) {
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }
    if (rc == ZW_TIMEOUT) {
        // Unknown: before an unmount assume mounted, before a mount not.
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return fcheck == MNT_PREUMOUNT ? 1 : 0;
    }
    if (minfo.ret == -1) {
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }
    *pknown = true;
    int answer = fcheck == MNT_PREUMOUNT ? minfo.ret : (minfo.ret > 0 ? 1 : 0);
    TRACE_EXIT(answer);
    return answer;
}
