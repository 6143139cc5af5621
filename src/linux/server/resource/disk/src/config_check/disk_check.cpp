// The configuration check (--test): validates one resource of the new
// configuration file, examines the server's devices, and appends a report
// block to the result file. Also the switch to the configuration under check
// used by --dactive and --ddeactive.
#include "zor_check.h"

#include "check_report.h"

#include "../bounded.h"
#include "../command_exec/cmdline.h"
#include "../globals.h"
#include "../resource_config/zor_param.h"
#include "../tracersc.h"
#include "../value.h"

#include <zorxml.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

namespace {

const char* const kDefaultRdrctPath = "/webmgr/check_result.txt";
const char* const kDefaultChkConf = "/work/cfmgr/up/zor.conf";

// One value to validate. A key starting with "/" is a whole configuration
// path; any other key lies below the resource's parameters.
struct Rule {
    const char* key;
    void* buf;
    int size;
    int paramtype;
    int ismust;
    int gettype;
    int min;
    int max;
    int unquoted;  // -1, or how the value stands unquoted in a command line (ZA_WORD, ZA_WORDS)
};

template <size_t N>
Rule text(const char* key, char (&buf)[N], int gettype = 0)
{
    return Rule{key, buf, static_cast<int>(N), ZOR_XML_STRING, 0, gettype, 0, 0, -1};
}

// A text value that a command line takes unquoted: the action refuses
// characters the shell would interpret, so the check reports them.
template <size_t N>
Rule word(const char* key, char (&buf)[N], int kind = ZA_WORD)
{
    return Rule{key, buf, static_cast<int>(N), ZOR_XML_STRING, 0, 0, 0, 0, kind};
}

Rule number(const char* key, int* value, int min, int max, int ismust = 0)
{
    return Rule{key, value, static_cast<int>(sizeof(int)), ZOR_XML_INT, ismust, 0, min, max, -1};
}

// E [018] for a value that cannot stand unquoted in a command line. 0 or 1.
int check_word(const Rule& r, const char* resource)
{
    if (r.unquoted < 0 || cmd_word_ok(static_cast<const char*>(r.buf), r.unquoted)) {
        return 0;
    }
    char xmlpath[ZOR_PATH_SIZE];
    BPRINTF(xmlpath, "/root/resource/%s@%s/parameters/%s", type, resource, r.key);
    chk_report("E [018] %s has an invalid character.", xmlpath);
    return 1;
}

// Validates every rule, also after a failed one, so that the report lists
// every fault. Returns 0 or 1.
template <size_t N>
int check_rules(const Rule (&rules)[N], const char* resource, const char* hostname)
{
    int ret = 0;
    for (const Rule& r : rules) {
        if (r.key[0] == '/') {
            ret |= xmlparam_check(r.buf, r.size, r.paramtype, r.ismust, r.gettype, hostname, r.min, r.max,
                                  "%s", r.key);
        } else if (xmlparam_check(r.buf, r.size, r.paramtype, r.ismust, r.gettype, hostname, r.min, r.max,
                                  "/root/resource/%s@%s/parameters/%s", type, resource, r.key) != 0) {
            ret = 1;
        } else {
            ret |= check_word(r, resource);
        }
    }
    return ret;
}

// Bits of the parameter groups to validate.
enum {
    GRP_FSCK = 1,
    GRP_MOUNT = 2,
    GRP_RELPATH = 4,
    GRP_ROSET = 8,
    GRP_UMOUNT = 16,
    GRP_BIND = 32,
    GRP_UNBIND = 64,
};

// Standard output redirected to the result file, and back.
struct Redirect {
    bool active = false;  // freopen was tried
    int saved = -1;       // the process's own standard output
    FILE* fp = nullptr;
};

bool redirect_open(Redirect& rd, const char* path)
{
    fflush(stdout);
    rd.active = true;
    rd.saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    rd.fp = freopen(path, "a", stdout);
    return rd.fp != nullptr;
}

// Closes the result file and gives the process its own standard output back.
void redirect_close(Redirect& rd)
{
    fflush(stdout);
    if (rd.saved >= 0) {
        dup2(rd.saved, STDOUT_FILENO);
        close(rd.saved);
        rd.saved = -1;
    } else {
        close(STDOUT_FILENO);
    }
    rd.fp = nullptr;
    rd.active = false;
}

}  // namespace

int xmlparam_check(void* buffer, int size, int paramtype, int ismust, int gettype, const char* hostname,
                   int min, int max, const char* fmt, ...)
{
    char xmlpath[ZOR_PATH_SIZE];
    va_list ap;
    va_start(ap, fmt);
    zor_vbprintf(xmlpath, sizeof(xmlpath), fmt, ap);
    va_end(ap);

    int len = size;
    int ret;
    if (gettype == 0) {
        ret = xmllib_get_value(xmlpath, paramtype, buffer, &len);
        tracexml(ret, ZOR_SRC, "xmllib_get_value(%s, %d)", xmlpath, paramtype);
    } else {
        ret = xmllib_get_srvsep_value(hostname, xmlpath, paramtype, buffer, &len);
        tracexml(ret, ZOR_SRC, "xmllib_get_srvsep_value(%s, %d)", xmlpath, paramtype);
    }
    if (ret != ZOR_XMLERR_SUCCESS) {
        if (ismust == 0) {
            chk_report("E [002] %s not exists.", xmlpath);
            return 1;
        }
        return 0;
    }
    if (paramtype == ZOR_XML_INT) {
        int value = *static_cast<int*>(buffer);
        if (value < min || value > max) {
            chk_report("E [003] %s is out of range. (%d - %d)", xmlpath, min, max);
            return 1;
        }
    }
    return 0;
}

// A file of the check, named by the setting at xmlpath (dflt when unset), and
// the install path it lies below. 1 when the install path is not set.
static int read_check_paths(char (&file)[ZOR_PATH_SIZE], const char* xmlpath, const char* dflt,
                            char (&inspath)[ZOR_PATH_SIZE])
{
    xmlparam_check(file, sizeof(file), ZOR_XML_STRING, 1, 0, "", 0, 0, "%s", xmlpath);
    if (file[0] == '\0') {
        trace(TR_ERROR, ZOR_SRC, "xmlpath(%s) is not found. set default path(%s).", xmlpath, dflt);
        BCOPY(file, dflt);
    }
    xmlparam_check(inspath, sizeof(inspath), ZOR_XML_STRING, 0, 0, "", 0, 0, "/root/all/path");
    if (inspath[0] == '\0') {
        trace(TR_ERROR, ZOR_SRC, "xmlpath(/root/all/path) is not found.");
        return 1;
    }
    return 0;
}

int disk_load_newconf(void** handle)
{
    TRACE_ENTER();
    char chkconf[ZOR_PATH_SIZE] = {};
    char inspath[ZOR_PATH_SIZE] = {};
    char newconfpath[ZOR_PATH_SIZE];

    *handle = nullptr;
    if (read_check_paths(chkconf, "/root/cluster/check/chkconf", kDefaultChkConf, inspath) != 0) {
        TRACE_EXIT(1);
        return 1;
    }
    // Joined as they stand: the configured name carries its own separator.
    if (BPRINTF(newconfpath, "%s%s", inspath, chkconf) != 0) {
        trace(TR_ERROR, ZOR_SRC, "newconfpath:%s is too long.", newconfpath);
        TRACE_EXIT(1);
        return 1;
    }
    trace(TR_INFO, ZOR_SRC, "newconfpath:%s", newconfpath);

    int ret = xmllib_load_pathconfig(newconfpath, handle);
    tracexml(ret, ZOR_SRC, "xmllib_load_pathconfig(%s)", newconfpath);
    if (ret != ZOR_XMLERR_SUCCESS) {
        trace(TR_ERROR, ZOR_SRC, "xmllib_load_pathconfig(%s) failed(%d).", newconfpath, ret);
        TRACE_EXIT(1);
        return 1;
    }
    ret = xmllib_change_config(*handle);
    tracexml(ret, ZOR_SRC, "xmllib_change_config(%s)", newconfpath);
    if (ret != ZOR_XMLERR_SUCCESS) {
        // The handle stays set: the caller unloads it.
        trace(TR_ERROR, ZOR_SRC, "xmllib_change_config(%s) failed(%d).", newconfpath, ret);
        TRACE_EXIT(1);
        return 1;
    }
    TRACE_EXIT(0);
    return 0;
}

void disk_unload_newconf(void* handle)
{
    TRACE_ENTER();
    int ret = xmllib_unload_pathconfig(handle);
    tracexml(ret, ZOR_SRC, "xmllib_unload_pathconfig()");
    ret = xmllib_change_config(nullptr);
    tracexml(ret, ZOR_SRC, "xmllib_change_config(NULL)");
    TRACE_EXIT(0);
}

int disk_check(const char* resource)
{
    TRACE_ENTER();
    trace(TR_INFO, ZOR_SRC, "--test rsc:%s", resource);

    int ret = 0;
    int getparam_flg = 0;
    int checkparam_flg = 0;
    void* newconf_handle = nullptr;
    Redirect rdrct;
    char hostname[ZOR_HOST_SIZE] = {};
    char devname[ZOR_PATH_SIZE] = {};
    char rawdev[ZOR_PATH_SIZE] = {};
    char fstype[ZOR_PATH_SIZE] = {};
    char rawpath[ZOR_PATH_SIZE] = {};
    char pingpath[ZOR_PATH_SIZE] = {};
    char share[ZOR_PATH_SIZE] = {};
    char logpath[ZOR_PATH_SIZE] = {};
    char rdrctpath[ZOR_PATH_SIZE] = {};
    char server[ZOR_HOST_SIZE] = {};
    char disktype[ZOR_NAME_SIZE] = {};
    int loglevel = 0;
    int logsize = 0;
    int rawto = 0;
    int pingto = 0;
    ZOR_MOUNT mount = {};
    ZOR_UMOUNT umount = {};
    ZOR_FSCK fsck = {};
    ZOR_ROSET roset = {};
    ZOR_RELPATH relpath = {};
    ZOR_BIND bind = {};
    ZOR_UNBIND unbind = {};
    memset(ipath, 0, sizeof(ipath));

    // Where the report goes comes from the running configuration.
    if (read_check_paths(rdrctpath, "/root/cluster/check/rdrctpath", kDefaultRdrctPath, ipath) != 0) {
        ret = 1;
        goto end;
    }
    // A cut path would name some other file: refuse it like one that cannot be opened.
    if (BPRINTF(logpath, "%s%s", ipath, rdrctpath) != 0) {
        trace(TR_ERROR, ZOR_SRC, "freopen(%s) failed.", logpath);
        ret = 1;
        goto end;
    }
    trace(TR_INFO, ZOR_SRC, "logpath:%s", logpath);
    if (!redirect_open(rdrct, logpath)) {
        trace(TR_ERROR, ZOR_SRC, "freopen(%s) failed.", logpath);
        ret = 1;
        goto end;
    }
    chk_report("***** START [type : %s][rscname : %s]", type, resource);

    if (disk_load_newconf(&newconf_handle) != 0) {
        ret = 1;
        goto end;
    }

    ret |= xmlparam_check(&loglevel, sizeof(loglevel), ZOR_XML_INT, 0, 0, "", 1, 32, "/root/%s/log/level",
                          type);
    ret |= xmlparam_check(&logsize, sizeof(logsize), ZOR_XML_INT, 0, 0, "", 0, INT_MAX, "/root/%s/log/size",
                          type);
    ret |= xmlparam_check(disktype, sizeof(disktype), ZOR_XML_STRING, 0, 0, "", 0, 0,
                          "/root/resource/%s@%s/parameters/disktype", type, resource);
    if (ret != 0) {
        goto end;
    }

    if (strcmp(type, "disk") == 0) {
        if (strcasecmp(disktype, "disk") == 0 || strcasecmp(disktype, "lvm") == 0 ||
            strcasecmp(disktype, "raw") == 0) {
            if (get_hostname(hostname) != 0) {
                chk_report("E [004] get hostname failed.");
                ret = 1;
                goto end;
            }
        }
        if (strcasecmp(disktype, "disk") == 0 || strcasecmp(disktype, "lvm") == 0) {
            const Rule rules[] = {text("device", devname), word("fs", fstype)};
            ret |= check_rules(rules, resource, hostname);
            getparam_flg = GRP_FSCK | GRP_MOUNT | GRP_UMOUNT | GRP_ROSET | GRP_RELPATH;
            checkparam_flg = CHK_BLOCKDEV | CHK_FSTAB | CHK_MNTPOINT;
        } else if (strcasecmp(disktype, "raw") == 0) {
            const Rule rules[] = {
                text("device", devname),
                word("rawdevice", rawdev),
                word("raw/path", rawpath),
                number("raw/timeout", &rawto, 0, INT_MAX),
            };
            ret |= check_rules(rules, resource, hostname);
            getparam_flg = GRP_BIND | GRP_UNBIND | GRP_ROSET;
            checkparam_flg = CHK_BLOCKDEV | CHK_FSTAB | CHK_RAWDEV;
        } else if (strcasecmp(disktype, "vxvm") == 0) {
            const Rule rules[] = {text("device", devname), text("rawdevice", rawdev), word("fs", fstype)};
            ret |= check_rules(rules, resource, hostname);
            getparam_flg = GRP_FSCK | GRP_MOUNT | GRP_UMOUNT | GRP_RELPATH;
            checkparam_flg = CHK_BLOCKDEV | CHK_FSTAB | CHK_RAWDEV | CHK_MNTPOINT;
        } else {
            chk_report("E [005] disktype is illegal.(%s)", disktype);
            ret = 1;
            goto end;
        }
    } else if (strcmp(type, "nas") == 0) {
        const Rule rules[] = {
            word("svname", server),
            text("share", share),
            word("fs", fstype),
            text("ping/path", pingpath),
            number("ping/timeout", &pingto, 0, 999),
        };
        ret |= check_rules(rules, resource, hostname);
        getparam_flg = GRP_MOUNT | GRP_UMOUNT | GRP_RELPATH;
        checkparam_flg = CHK_FSTAB | CHK_MNTPOINT;
    } else {
        chk_report("E [006] type is illegal.(%s)", type);
        ret = 1;
        goto end;
    }

    // The groups, in a fixed order: fsck, mount, umount, bind, unbind, relpath, roset.
    if (getparam_flg & GRP_FSCK) {
        const Rule rules[] = {
            text("fsck/path", fsck.path),
            text("fsck/reiserfs", fsck.reiserpath),
            number("fsck/rebuildopt", &fsck.rebuildopt, 0, 1),
            number("fsck/fixopt", &fsck.fixopt, 0, 1),
            word("fsck/option", fsck.opt, ZA_WORDS),
            number("fsck/timeout", &fsck.to, 1, 9999),
            number("fsck/timing", &fsck.timing, 0, 2),
            number("fsck/interval", &fsck.interval, 0, 999),
            text("fsck/xfs", fsck.xfspath),
            word("fsck/xfsoption", fsck.xfsopt, ZA_WORDS),
            number("fsck/xfstimeout", &fsck.xfsto, 1, 9999),
            number("fsck/xfstiming", &fsck.xfstiming, 0, 2),
            number("fsck/xfsinterval", &fsck.xfsinterval, 0, 999),
        };
        ret |= check_rules(rules, resource, hostname);
    }
    if (getparam_flg & GRP_MOUNT) {
        const Rule rules[] = {
            text("mount/path", mount.path),
            text("mount/point", mount.point, 1),
            word("mount/option", mount.opt),
            number("mount/timeout", &mount.to, 1, 999),
            number("mount/retry", &mount.retry, 0, 999),
            number("/root/cluster/exclusion/mount", &mount.lock, 0, 1, 1),
        };
        ret |= check_rules(rules, resource, hostname);
        // A NAS mount has no recovery check.
        if (strcmp(type, "nas") != 0) {
            const Rule acts[] = {
                number("mount/action", &mount.act, 0, 1),
                number("mount/xfsaction", &mount.xfsact, 0, 1),
            };
            ret |= check_rules(acts, resource, hostname);
        }
    }
    if (getparam_flg & GRP_UMOUNT) {
        const Rule rules[] = {
            text("umount/path", umount.path),
            word("umount/option", umount.opt, ZA_WORDS),
            number("umount/timeout", &umount.to, 1, 999),
            number("umount/retry", &umount.retry, 0, 999),
            text("umount/action", umount.act),
        };
        ret |= check_rules(rules, resource, hostname);
    }
    if (getparam_flg & GRP_BIND) {
        const Rule rules[] = {
            number("bind/timeout", &bind.to, 0, INT_MAX),
            number("bind/retry", &bind.retry, 0, INT_MAX),
            number("bind/check/execute", &bind.check.exec, 0, 1, 1),
            number("bind/check/option", &bind.check.opt, 0, 1, 1),
            number("bind/check/retry", &bind.check.retry, 0, INT_MAX, 1),
            number("bind/check/interval", &bind.check.interval, 0, INT_MAX, 1),
            number("bind/check/error", &bind.check.error, 0, 1, 1),
        };
        ret |= check_rules(rules, resource, hostname);
    }
    if (getparam_flg & GRP_UNBIND) {
        const Rule rules[] = {
            number("unbind/execute", &unbind.exec, 0, 1, 1),
            number("unbind/timeout", &unbind.to, 1, 999),
            number("unbind/retry", &unbind.retry, 1, 999),
            text("unbind/action", unbind.act),
        };
        ret |= check_rules(rules, resource, hostname);
    }
    if (getparam_flg & GRP_RELPATH) {
        const Rule rules[] = {
            text("relpath/path", relpath.path),
            number("relpath/timeout", &relpath.to, 0, INT_MAX),
        };
        ret |= check_rules(rules, resource, hostname);
    }
    if (getparam_flg & GRP_ROSET) {
        const Rule rules[] = {
            text("roset/path", roset.path),
            number("roset/timeout", &roset.to, 0, INT_MAX),
        };
        ret |= check_rules(rules, resource, hostname);
    }

    // The server is examined only for a configuration that is complete.
    if (ret == 0) {
        if (checkparam_flg & CHK_BLOCKDEV) {
            ret |= check_blockdev(devname, disktype);
        }
        if (checkparam_flg & CHK_FSTAB) {
            char specname[1281];
            if (strcmp(type, "nas") == 0) {
                BPRINTF(specname, "%s:%s", server, share);
            } else {
                BCOPY(specname, devname);
            }
            ret |= check_fstab(specname);
        }
        if (checkparam_flg & CHK_RAWDEV) {
            ret |= check_rawdev(disktype, devname, rawdev, rawpath, rawto);
        }
        if (checkparam_flg & CHK_MNTPOINT) {
            ret |= check_mntpoint(mount.point);
        }
    }

end:
    trace(TR_INFO, ZOR_SRC, "check end. ret = %d.", ret);
    if (newconf_handle != nullptr) {
        disk_unload_newconf(newconf_handle);
    }
    if (ret == 0) {
        chk_report("I [001] Success in a composition check.");
    }
    chk_report("***** END [type : %s][rscname : %s]", type, resource);
    if (rdrct.active) {
        redirect_close(rdrct);
    }
    TRACE_EXIT(ret);
    return ret;
}
