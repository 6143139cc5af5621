// The record of what this node brought into service (see mount_record.h).
//
// One registry text: "1 BOOT MAJOR:MINOR FSTYPE SOURCE POINT", the last three
// escaped as the mount tables escape their fields, so that no field holds a
// blank.
#include "mount_record.h"

#include "../bounded.h"
#include "../command_exec/mount_table.h"
#include "../globals.h"
#include "../tracersc.h"

#include <zorreg.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kKey = "mounted";
// Three escaped paths (at most four bytes a character) and the rest.
constexpr size_t kRecordSize = 3 * 4 * PATH_MAX + 128;

// This boot's id (36 characters); empty when it cannot be read.
void boot_id(char (&out)[40])
{
    out[0] = '\0';
    int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    ssize_t n = read(fd, out, sizeof(out) - 1);
    close(fd);
    out[n > 0 ? n : 0] = '\0';
    out[strcspn(out, "\n")] = '\0';
}

// The registry's calls for one use, opened and closed around it.
struct Registry {
    const char* rsctype;
    int ret;
    explicit Registry(const char* t) : rsctype(t), ret(reg_init(t))
    {
        if (ret != 0) {
            trace(TR_ERROR, ZOR_SRC, "reg_init(%s) failed. (ret=%d)", t, ret);
        }
    }
    ~Registry()
    {
        if (ret == 0) {
            reg_term(rsctype);
        }
    }
};

// The next blank-separated field of *p, unescaped into out; false when there is none or it does not fit.
bool field(const char** p, char* out, size_t size)
{
    const char* s = *p + strspn(*p, " ");
    const size_t n = strcspn(s, " ");
    if (n == 0) {
        return false;
    }
    *p = s + n;
    return mnt_unescape(s, n, out, size) == 0;
}

}  // namespace

int mount_record_write(const char* rsctype, const char* rsc, const char* device, const char* share,
                       const char* point, const char* fstype)
{
    char boot[40];
    boot_id(boot);
    char resolved[PATH_MAX];
    mnt_point_resolve(point, resolved);
    unsigned int maj = 0;
    unsigned int min = 0;
    struct stat sb;
    if (device != nullptr && stat(device, &sb) == 0 && S_ISBLK(sb.st_mode)) {
        maj = major(sb.st_rdev);
        min = minor(sb.st_rdev);
    }
    static char esc[3][4 * PATH_MAX];
    static char text[kRecordSize];
    if (mnt_escape(fstype, esc[0], sizeof(esc[0])) != 0 ||
        mnt_escape(device != nullptr ? device : share, esc[1], sizeof(esc[1])) != 0 ||
        mnt_escape(resolved, esc[2], sizeof(esc[2])) != 0 ||
        BPRINTF(text, "1 %s %u:%u %s %s %s", boot[0] != '\0' ? boot : "-", maj, min, esc[0], esc[1],
                esc[2]) != 0) {
        trace(TR_ERROR, ZOR_SRC, "record of %s too long ignore.", rsc);
        return REG_ERR_INVALIDPARAM;
    }
    Registry reg(rsctype);
    int ret = reg.ret != 0
                  ? reg.ret
                  : reg_set_value(rsctype, rsc, kKey, REG_TYPE_STRING, sizeof(text), text, REG_FLAG_BOOT);
    if (ret != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_set_value(%s) failed ignore. (ret=%d)", kKey, ret);
    } else {
        trace(TR_DETAIL, ZOR_SRC, "recorded %s: %s", rsc, text);
    }
    return ret;
}

int mount_record_read(const char* rsctype, const char* rsc, ZOR_MOUNT_RECORD* rec)
{
    memset(rec, 0, sizeof(*rec));
    static char text[kRecordSize];
    text[0] = '\0';
    {
        Registry reg(rsctype);
        int ret =
            reg.ret != 0 ? reg.ret : reg_get_value(rsctype, rsc, kKey, REG_TYPE_STRING, sizeof(text), text);
        if (ret != 0) {
            trace(TR_ERROR, ZOR_SRC, "reg_get_value(%s) failed. (ret=%d)", kKey, ret);
            return -1;
        }
    }
    if (text[0] == '\0') {
        return 0;
    }
    char boot[40];
    boot_id(boot);
    char version[8];
    char stored_boot[40];
    char numbers[32];
    const char* p = text;
    if (!field(&p, version, sizeof(version)) || strcmp(version, "1") != 0 ||
        !field(&p, stored_boot, sizeof(stored_boot)) || !field(&p, numbers, sizeof(numbers)) ||
        sscanf(numbers, "%u:%u", &rec->major, &rec->minor) != 2 ||
        !field(&p, rec->fstype, sizeof(rec->fstype)) || !field(&p, rec->source, sizeof(rec->source)) ||
        !field(&p, rec->point, sizeof(rec->point))) {
        trace(TR_ERROR, ZOR_SRC, "record of %s unreadable: %s", rsc, text);
        return -1;
    }
    if (strcmp(stored_boot, boot) != 0) {
        trace(TR_DETAIL, ZOR_SRC, "record of %s is of another boot ignore.", rsc);
        return 0;
    }
    return 1;
}

int mount_record_left(const ZOR_MOUNT_RECORD& rec)
{
    const bool share = rec.major == 0 && rec.minor == 0;
    MNT_WHERE w;
    const int ret = share ? mnt_where(rec.point, nullptr, rec.source, &w)
                          : mnt_where_devno(rec.point, rec.source, makedev(rec.major, rec.minor), &w);
    if (ret != 0) {
        trace(TR_ERROR, ZOR_SRC, "read(/proc/self/mountinfo) failed. (errno=%d)", errno);
        setshmbuf("Check of mount status has failed. (%s)", rec.point);
        return -1;
    }
    const char* where = w.on_point_own > 0 ? w.point : !share && w.elsewhere > 0 ? w.where : nullptr;
    // The device in use without a mount this namespace shows: only while it
    // is still the device recorded.
    struct stat sb;
    if (where == nullptr && !share && stat(rec.source, &sb) == 0 && S_ISBLK(sb.st_mode) &&
        sb.st_rdev == makedev(rec.major, rec.minor) && mnt_device_held(rec.source) == 1) {
        where = "in use";
    }
    if (where == nullptr) {
        return 0;
    }
    trace(TR_ERROR, ZOR_SRC, "recorded %s (%u:%u) still mounted on %s.", rec.source, rec.major, rec.minor,
          where);
    setshmbuf("Resource was still mounted. (%s, %s)", rec.source, where);
    return 1;
}

void mount_record_settle(const char* rsctype, const char* rsc)
{
    ZOR_MOUNT_RECORD rec;
    char saved[ZOR_SHMBUF_SIZE];
    BCOPY(saved, shmbuf);
    const int found = mount_record_read(rsctype, rsc, &rec);
    const bool left = found == 1 && mount_record_left(rec) != 0;
    BCOPY(shmbuf, saved);
    if (found < 0 || left) {
        return;  // kept: a later deactivation finds it again
    }
    Registry reg(rsctype);
    const int ret = reg.ret != 0 ? reg.ret : reg_delete_value(rsctype, rsc, kKey, REG_FLAG_BOOT);
    if (ret != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_delete_value(%s) failed ignore. (ret=%d)", kKey, ret);
    }
}
