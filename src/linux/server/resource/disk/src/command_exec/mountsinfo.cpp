// The mount table probe: is a mount point in /proc/mounts, and how often.
//
// grep selects the candidate lines; the mount-point field of each is then
// compared whole with the wanted path, so /mnt/data never matches /mnt/data2.
// No status text is written here: every problem is traced and answered with
// a safe default.
#include "../bounded.h"
#include "../disk.h"
#include "../tracersc.h"
#include "proc_runner.h"
#include "thread_wait.h"
#include "zor_exec.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr int kGrepTimeout = 10;
// Longest path handled (the flows pass at most 1023 characters; a canonical
// path may be longer) and the growth of its escaped forms.
constexpr size_t kPathMax = PATH_MAX;
constexpr size_t kGrepFormMax = kPathMax * 7 + 1;
constexpr size_t kFieldFormMax = kPathMax * 4 + 1;

// The kernel shows these characters of a mount point as a backslash and three
// octal digits.
bool mangled(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\\';
}

// Writes path as /proc/mounts shows it (field form: "\040" for a space), or
// as a grep pattern inside the double quotes of a shell command (grep form:
// "\\\040"; the shell leaves two backslashes, which grep reads as one literal
// backslash). Returns 0, or -1 when out is too small.
int escape_path(const char* path, char* out, size_t size, bool grep_form)
{
    size_t o = 0;
    for (const char* s = path; *s != '\0'; s++) {
        char enc[8];
        size_t n;
        if (mangled(*s)) {
            n = static_cast<size_t>(snprintf(enc, sizeof(enc), "%s%03o", grep_form ? "\\\\\\" : "\\",
                                             static_cast<unsigned>(static_cast<unsigned char>(*s))));
        } else {
            enc[0] = *s;
            n = 1;
        }
        if (o + n >= size) {
            out[0] = '\0';
            return -1;
        }
        memcpy(out + o, enc, n);
        o += n;
    }
    out[o] = '\0';
    return 0;
}

// The reverse of the field form, for resolving the path on the file system.
void unescape_field(const char* in, char* out, size_t size)
{
    size_t o = 0;
    while (*in != '\0' && o + 1 < size) {
        if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' && in[3] >= '0' &&
            in[3] <= '7') {
            out[o++] = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
            in += 4;
        } else {
            out[o++] = *in++;
        }
    }
    out[o] = '\0';
}

// Counts the lines of grep's output whose mount-point field equals want.
// Returns the count, or -1 when the run was stopped.
int count_entries(ZPROC* proc, const char* want)
{
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
        if (!whole_start) {
            continue;
        }
        char* field = strchr(piece, ' ');
        if (field == nullptr) {
            continue;
        }
        field++;
        char* end = strchr(field, ' ');
        if (end == nullptr) {
            continue;
        }
        *end = '\0';
        if (strcmp(field, want) == 0) {
            count++;
        }
    }
    return n < 0 ? -1 : count;
}

int start_grep(ZPROC* proc, const char* cmdline)
{
    int err = 0;
    if (zproc_spawn(proc, cmdline, 1, &err) != 0) {
        trace2(TR_ERROR, ZOR_SRC, "popen(%s, r) failed. (errno=%d)", "grep", err);
        return -1;
    }
    trace2(TR_DETAIL, ZOR_SRC, "popen(%s, r) success.", "grep");
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
    int count = count_entries(&proc, pminfo->mntpt);
    if (count == 0) {
        // Not found as written: try the canonical path (trailing "/", "..",
        // symbolic links). A path that cannot be resolved has no entry.
        char raw[kPathMax];
        char canon[kPathMax];
        char canon_grep[kGrepFormMax];
        char canon_field[kFieldFormMax];
        unescape_field(pminfo->mntpt, raw, sizeof(raw));
        if (zor_point_path(raw, canon) == nullptr) {
            trace(TR_INFO, ZOR_SRC, "realpath(%s) failed, no second search. (errno=%d)", raw, errno);
        } else if (escape_path(canon, canon_grep, sizeof(canon_grep), true) != 0 ||
                   escape_path(canon, canon_field, sizeof(canon_field), false) != 0 ||
                   BPRINTF(pminfo->cmdline, "/bin/grep \"%s\" /proc/mounts 2>&1", canon_grep) != 0) {
            trace(TR_INFO, ZOR_SRC, "realpath use, path:<%s> too long, no second search.", canon);
        } else if (strcmp(canon_field, pminfo->mntpt) == 0) {
            // The canonical path is the one just searched: a second grep would
            // select the same lines and compare them with the same text.
            // Activation pays for every process it starts, so save this one.
            trace(TR_INFO, ZOR_SRC, "realpath use, path:<%s> already searched.", canon);
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
            count = count_entries(&proc, canon_field);
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
    if ((st & 0x7f) != 0) {
        trace(TR_ERROR, ZOR_SRC, "pclose(%s) error. (ret=%d,errno=%d)", "grep", 0, 0);
        ret = -1;
    } else {
        int code = (st >> 8) & 0xff;
        if (code == 0) {
            trace(TR_DETAIL, ZOR_SRC, "%s : success.", "grep");
        } else if (code == 1) {
            trace(TR_DETAIL, ZOR_SRC, "%s : can't grep.", "grep");
        } else {
            trace(TR_ERROR, ZOR_SRC, "%s : failed. (ret=%d)", "grep", code);
            ret = -1;
        }
    }
    return end_worker(pminfo, ret);
}

int mountsinfo(const char* pdirpath, int fcheck)
{
    const char* title = fcheck == MNT_PREMOUNT ? "mounts(pre-mount)" : "mounts(pre-umount)";
    trace(TR_DETAIL, ZOR_SRC, "<<< %s >>>", title);

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
    if (pdirpath == nullptr || escape_path(pdirpath, pattern, sizeof(pattern), true) != 0 ||
        escape_path(pdirpath, field, sizeof(field), false) != 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpath is too long ignore.");
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }
    trace(TR_DETAIL, ZOR_SRC, "mntpath=%s", pattern);
    trace(TR_DETAIL, ZOR_SRC, "minfo.mntpt=%s", field);
    // The field form is never longer than the pattern, so it fits mntpt
    // whenever the pattern fits the command line.
    if (BPRINTF(minfo.cmdline, "/bin/grep \"%s\" /proc/mounts 2>&1", pattern) != 0 ||
        BCOPY(minfo.mntpt, field) != 0) {
        trace(TR_ERROR, ZOR_SRC, "mntpath is too long ignore. (%zu)", strlen(pattern));
        trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>>");
        return 0;
    }
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
    int answer = fcheck == MNT_PREUMOUNT ? minfo.ret : (minfo.ret > 0 ? 1 : 0);
    TRACE_EXIT(answer);
    return answer;
}
