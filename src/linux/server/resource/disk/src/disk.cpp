// The agent's driver: one run performs one action on one resource.
//
// Start-up order: resource type from the program name, options, caller,
// configuration library, trace log, installation path and disk type,
// semaphores, the routine of the resource, and the end of the run through
// diskend, which stores the status text for the cluster.
#include "disk.h"

#include "bounded.h"
#include "command_exec/proc_runner.h"
#include "config_check/zor_check.h"
#include "flows/identity.h"
#include "flows/zor_flows.h"
#include "flows/zor_monitor.h"
#include "resource_config/zor_loader.h"
#include "storage_ops/mount_record.h"
#include "tracersc.h"

#include <zorhome.h>
#include <zoripc.h>
#include <zorxml.h>

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int _xmlstep = 0;
int monlevel = 0;

namespace {

// Action options; matched case-insensitively.
struct ActionOption {
    const char* name;
    int code;
};

constexpr ActionOption action_options[] = {
    {"--active", OPT_ACTIVE},   {"--deactive", OPT_DEACTIVE},   {"--test", OPT_TEST},
    {"--dactive", OPT_DACTIVE}, {"--ddeactive", OPT_DDEACTIVE}, {"--monitor", OPT_MONITOR},
};

// A monitor's answer of 0 or 7 is routine and must not replace the text that
// the last action, or the last failure, left for the operator.
bool keep_status_text = false;

// The name the program was started under, for its messages on stderr.
const char* progname = "zordisk";
// The run's failure is already on stderr (a usage error, a caller that is not
// root): diskend does not add the status text.
bool reported = false;

int action_code(const char* arg)
{
    for (const ActionOption& o : action_options) {
        if (strcasecmp(arg, o.name) == 0) {
            return o.code;
        }
    }
    return OPT_NONE;
}

int refuse_option(void)
{
    trace(TR_ERROR, ZOR_SRC, "invalid option.");
    setshmbuf("Option was invalid.");
    return 1;
}

// Options that take a value, beside the names. Each adds two arguments to the
// counts of 6 and 3; none goes with --test. The cluster engine's description
// of the resource comes as texts (not empty, not beginning with "-", fitting
// their place); the monitor's depth and the engine's time-outs (ms) as numbers
// of at most `digits` digits.
enum : unsigned {
    FOR_DISK = 1,     // zordisk
    FOR_NAS = 2,      // zornas
    FOR_MONITOR = 4,  // the monitor alone; counted only beside --monitor
};
constexpr unsigned kBoth = FOR_DISK | FOR_NAS;

struct ValueOption {
    const char* name;
    const char* traced;  // the value's name in the trace
    unsigned use;
    char* text;  // where a text goes, `size` bytes; nullptr for a number
    size_t size;
    long* number;
    int digits;
};

long level_value = 0;

const ValueOption value_options[] = {
    {"--level", "level", kBoth | FOR_MONITOR, nullptr, 0, &level_value, 2},
    {"--device", "device", FOR_DISK, engine_view.device, sizeof(engine_view.device), nullptr, 0},
    {"--directory", "directory", kBoth, engine_view.directory, sizeof(engine_view.directory), nullptr, 0},
    {"--uuid", "uuid", FOR_DISK, engine_view.uuid, sizeof(engine_view.uuid), nullptr, 0},
    {"--label", "label", FOR_DISK, engine_view.label, sizeof(engine_view.label), nullptr, 0},
    {"--server", "server", FOR_NAS, engine_view.server, sizeof(engine_view.server), nullptr, 0},
    {"--share", "share", FOR_NAS, engine_view.share, sizeof(engine_view.share), nullptr, 0},
    {"--start-timeout", "timeout", kBoth, nullptr, 0, &engine_view.start_timeout_ms, 9},
    {"--stop-timeout", "timeout", kBoth, nullptr, 0, &engine_view.stop_timeout_ms, 9},
};

// The option named `arg` that serves the program's resource type (any, while
// the type is unknown: such a run ends before it acts), or nullptr. The
// monitor's own only beside --monitor.
const ValueOption* value_option(const char* arg, bool monitor)
{
    const unsigned kind = strcmp(type, "disk") == 0 ? FOR_DISK : strcmp(type, "nas") == 0 ? FOR_NAS : kBoth;
    for (const ValueOption& o : value_options) {
        if (strcasecmp(arg, o.name) == 0) {
            return (o.use & kind) != 0 && (monitor || (o.use & FOR_MONITOR) == 0) ? &o : nullptr;
        }
    }
    return nullptr;
}

bool known_value_option(const char* arg)
{
    for (const ValueOption& o : value_options) {
        if (strcasecmp(arg, o.name) == 0) {
            return true;
        }
    }
    return false;
}

// Whether `value` fits the option.
bool value_fits(const ValueOption& o, const char* value)
{
    const size_t n = strlen(value);
    if (o.number != nullptr) {
        return n > 0 && n <= static_cast<size_t>(o.digits) && strspn(value, "0123456789") == n;
    }
    return n > 0 && value[0] != '-' && n < o.size;
}

// Takes the value after argv[*pi] into the option's place.
int take_value(int argc, char** argv, int* pi, const ValueOption& o)
{
    if (*pi + 1 >= argc) {
        return refuse_option();
    }
    const char* value = argv[++*pi];
    if (!value_fits(o, value)) {
        trace(TR_ERROR, ZOR_SRC, "option  : %s %s=%s invalid.", o.name, o.traced, value);
        setshmbuf("Option was invalid.");
        return 1;
    }
    if (o.number != nullptr) {
        *o.number = atol(value);
    } else {
        zor_bcopy(o.text, o.size, value);
    }
    return 0;
}

bool has_monitor(int argc, char** argv)
{
    for (int i = 1; i < argc; i++) {
        if (strcasecmp(argv[i], "--monitor") == 0) {
            return true;
        }
    }
    return false;
}

// Takes the value that follows argv[*pi] into dst (ZOR_NAME_SIZE bytes).
// A name of 32 characters or more would not fit with its terminator, and a
// cut name would address another resource: it is refused.
int take_name(int argc, char** argv, int* pi, char* dst, const char* optname, bool group)
{
    if (*pi + 1 >= argc || argv[*pi + 1][0] == '-') {
        return refuse_option();
    }
    ++*pi;
    const char* value = argv[*pi];
    if (strlen(value) >= ZOR_NAME_SIZE) {
        if (group) {
            trace(TR_ERROR, ZOR_SRC, "option  : %s grpname=%s invalid.", optname, value);
            setshmbuf("Group name was invalid. (%s)", value);
        } else {
            trace(TR_ERROR, ZOR_SRC, "option  : %s rscname=%s invalid.", optname, value);
            setshmbuf("Resource name was invalid. (%s)", value);
        }
        return 1;
    }
    zor_bcopy(dst, ZOR_NAME_SIZE, value);
    return 0;
}

// Reads one configuration value and reports the call; 0 or the library's code.
// A failed read reports "Loading config was failed.", also after a failed
// set-up: the last failure's text is the one reported.
int read_value(const char* file, int line, const char* func, const char* xmlpath, int vtype, void* value,
               int size)
{
    int ret = xmllib_get_value(xmlpath, vtype, value, &size);
    tracexml(ret, file, line, func, "xmllib_get_value(%s, %d)", xmlpath, vtype);
    if (ret != 0) {
        setshmbuf("Loading config was failed.");
    }
    return ret;
}

// Runs the routine of the resource type, disk type and option.
int dispatch(int option, const char* disktype, const char* resource, const char* group)
{
    const bool activate = option == OPT_ACTIVE || option == OPT_DACTIVE;
    if (strcmp(type, "nas") == 0) {
        return activate ? nas_act(resource, group) : nas_deact(resource, group);
    }
    if (strcmp(type, "disk") == 0) {
        if (strcasecmp(disktype, "disk") == 0 || strcasecmp(disktype, "lvm") == 0) {
            return activate ? disk_act(resource, group) : disk_deact(resource, group);
        }
        if (strcasecmp(disktype, "vxvm") == 0) {
            return activate ? vxvol_act(resource, group) : vxvol_deact(resource, group);
        }
        trace(TR_ERROR, ZOR_SRC, "invalid disk resource disktype:%s.", disktype);
        setshm_status(ZR_INTERNAL);
        return ZR_RESOURCE_UNKNOWN;  // no routine serves this disk type
    }
    // Unreachable: an unknown program name ends the run before the dispatch.
    trace(TR_ERROR, ZOR_SRC, "invalid resource type:%s.", type);
    setshm_status(ZR_INTERNAL);
    return ZR_INTERNAL;
}

int dispatch_monitor(const char* disktype, const char* resource, const char* group)
{
    if (strcmp(type, "nas") == 0) {
        return nas_monitor(resource, group, monlevel);
    }
    if (strcasecmp(disktype, "disk") == 0 || strcasecmp(disktype, "lvm") == 0 ||
        strcasecmp(disktype, "vxvm") == 0) {
        // The device found read-write, for the caller that switches it.
        char device[ZOR_PATH_SIZE] = {};
        const int ret = disk_monitor(resource, group, disktype, monlevel, device);
        if (ret == MON_READWRITE) {
            printf("device=%s\n", device);
        }
        return ret;
    }
    trace(TR_ERROR, ZOR_SRC, "invalid disk resource disktype:%s.", disktype);
    setshm_status(ZR_INTERNAL);
    return monitor_unconfigured(resource, MON_CONFIG);
}

// The monitor's answer when the configuration stopped the run before it:
// a node without a configuration file, or one that does not list the
// resource, lacks the resource; any other fault is the configuration's.
int monitor_config_fault(const char* resource, const char* group)
{
    char conf[ZOR_PATH_SIZE];
    struct stat sb;
    if (zor_home_path(conf, sizeof(conf), "etc/zor.conf") == 0 && stat(conf, &sb) != 0 && errno == ENOENT) {
        return MON_ABSENT;
    }
    if (_xmlstep < 5) {
        return MON_CONFIG;
    }
    int ret = ckgrpexist(group);
    if (ret == 0) {
        ret = ckrscexist(resource, group);
    }
    if (ret == ZR_RESOURCE_UNKNOWN || ret == ZR_GROUP_UNKNOWN) {
        mkshm_getinfo(ret, resource, group);
        return MON_ABSENT;
    }
    return MON_CONFIG;
}

// Names what is wrong with a command line that ckopt refused, in one line for
// the operator (ckopt's own texts go to the status table and the trace). Walks
// the arguments by ckopt's rules and says what ckopt tripped on: an argument
// it does not know, a missing or unfit value, a missing action or name, or
// else the count.
void usage_problem(int argc, char** argv, char* out, size_t size)
{
    const bool monitor = has_monitor(argc, argv);
    int code = OPT_NONE;
    bool resource = false;
    bool group = false;
    bool values = false;
    for (int i = 1; i < argc; i++) {
        const char* arg = argv[i];
        const int action = action_code(arg);
        const bool rsc = action == OPT_TEST || strcasecmp(arg, "-r") == 0;
        const bool grp = strcasecmp(arg, "-g") == 0;
        const ValueOption* opt = value_option(arg, monitor);
        if (action == OPT_NONE && !rsc && !grp && opt == nullptr) {
            if (strcasecmp(arg, "--level") == 0) {
                zor_bprintf(out, size, "option '%s' is only for --monitor", arg);
            } else if (known_value_option(arg)) {
                zor_bprintf(out, size, "option '%s' is not for zor%s", arg, type);
            } else {
                zor_bprintf(out, size,
                            arg[0] == '-' ? "unrecognized option '%s'" : "unexpected argument '%s'", arg);
            }
            return;
        }
        code = action != OPT_NONE ? action : code;
        if (!rsc && !grp && opt == nullptr) {
            continue;
        }
        if (i + 1 >= argc || (opt == nullptr && argv[i + 1][0] == '-')) {
            zor_bprintf(out, size, "option '%s' requires an argument", arg);
            return;
        }
        const char* value = argv[++i];
        const size_t n = strlen(value);
        if (opt != nullptr && !value_fits(*opt, value)) {
            if (opt->number != nullptr) {
                zor_bprintf(out, size, "invalid value '%s' of '%s' (at most %d digits)", value, arg,
                            opt->digits);
            } else {
                zor_bprintf(out, size,
                            "invalid value '%s' of '%s' (not empty, no leading '-', at most %zu "
                            "characters)",
                            value, arg, opt->size - 1);
            }
            return;
        }
        if (opt == nullptr && n >= ZOR_NAME_SIZE) {
            zor_bprintf(out, size, "%s name '%s' is longer than %d characters", grp ? "group" : "resource",
                        value, ZOR_NAME_SIZE - 1);
            return;
        }
        resource = rsc ? n > 0 : resource;
        group = grp ? n > 0 : group;
        values = values || opt != nullptr;
    }
    if (code == OPT_NONE) {
        zor_bprintf(out, size, "no action given (--active, --deactive, --monitor, --test, ...)");
    } else if (!resource) {
        zor_bprintf(out, size, "no resource given (-r RESOURCE)");
    } else if (code != OPT_TEST && !group) {
        zor_bprintf(out, size, "no group given (-g GROUP)");
    } else if (values && code == OPT_TEST) {
        zor_bprintf(out, size, "--test takes no further options");
    } else if (values && monitor && code != OPT_MONITOR) {
        zor_bprintf(out, size, "option '--level' is only for --monitor");
    } else {
        zor_bprintf(out, size, "wrong number of arguments");
    }
}

}  // namespace

int ckopt(int argc, char** argv, int* poption, char* pgrpname, char* prscname)
{
    // Every option with a value adds two arguments to the counts of 6 and 3.
    const bool monitor = has_monitor(argc, argv);
    monlevel = 0;
    level_value = 0;
    memset(&engine_view, 0, sizeof(engine_view));
    int pairs = 0;
    for (int i = 1; i < argc; i++) {
        pairs += value_option(argv[i], monitor) != nullptr ? 1 : 0;
    }
    const int count = argc - 2 * pairs;
    if (count != 6 && count != 3) {
        trace(TR_ERROR, ZOR_SRC, "option is invalid.");
        setshmbuf("Option was invalid.");
        return 1;
    }
    int code = OPT_NONE;
    int last = 1;
    bool values = false;
    for (int i = 1; i < argc; i++) {
        const char* arg = argv[i];
        const int action = action_code(arg);
        const ValueOption* opt = value_option(arg, monitor);
        if (action != OPT_NONE) {
            code = action;
            *poption = action;
            last = i;
            // The name given with --test stays even when a later action replaces the code.
            if (action == OPT_TEST && take_name(argc, argv, &i, prscname, "--test", false) != 0) {
                return 1;
            }
        } else if (strcasecmp(arg, "-r") == 0) {
            if (take_name(argc, argv, &i, prscname, "-r", false) != 0) {
                return 1;
            }
        } else if (strcasecmp(arg, "-g") == 0) {
            if (take_name(argc, argv, &i, pgrpname, "-g", true) != 0) {
                return 1;
            }
        } else if (opt != nullptr) {
            if (take_value(argc, argv, &i, *opt) != 0) {
                return 1;
            }
            values = true;
        } else {
            return refuse_option();
        }
    }
    if (code == OPT_NONE || prscname[0] == '\0') {
        return refuse_option();
    }
    if (code != OPT_TEST && pgrpname[0] == '\0') {
        return refuse_option();
    }
    // The check of a new configuration takes none. (A depth beside a monitor
    // that a later action replaced cannot pass the counts: the two actions,
    // the names and the depth are one argument too many.)
    if (code == OPT_TEST && values) {
        return refuse_option();
    }
    monlevel = static_cast<int>(level_value);
    trace(TR_INFO, ZOR_SRC, "%s rsc:%s grp:%s", argv[last], prscname, pgrpname);
    return 0;
}

int disk_main(int argc, char** argv)
{
    int option = OPT_NONE;
    char resource[ZOR_NAME_SIZE] = {};
    char group[ZOR_NAME_SIZE] = {};
    char shmwbuf[ZOR_SHMBUF_SIZE] = {};
    char xmlpath[ZOR_PATH_SIZE] = {};
    char disktype[ZOR_NAME_SIZE] = {};
    unsigned int loglevel = 0;
    unsigned int logsize = 0;
    void* newconf_handle = nullptr;
    int ret = 0;

    signal(SIGPIPE, SIG_DFL);
    memset(shmbuf, 0, sizeof(shmbuf));

    const char* argv0 = (argc > 0 && argv[0] != nullptr) ? argv[0] : "";
    const char* slash = strrchr(argv0, '/');
    const char* pname = slash != nullptr ? slash + 1 : argv0;
    progname = pname;
    reported = false;
    if (strcasecmp(pname, "zordisk") == 0) {
        BCOPY(type, "disk");
    } else if (strcasecmp(pname, "zornas") == 0) {
        BCOPY(type, "nas");
    } else {
        // Held back: the options and the caller are judged first.
        BCOPY(type, "");
        status_text(ZR_PROGRAM_NAME, nullptr, shmwbuf, sizeof(shmwbuf));
    }

    ret = ckopt(argc, argv, &option, group, resource);
    tracetell(resource);
    if (ret != 0) {
        char problem[ZOR_PATH_SIZE];
        usage_problem(argc, argv, problem, sizeof(problem));
        fprintf(stderr, "%s: %s\nTry '%s --help'.\n", pname, problem, pname);
        reported = true;
        diskend(ZOR_SRC, 1, group, resource);
        return 1;
    }

    const uid_t uid = getuid();
    if (uid != 0) {
        trace(TR_ERROR, ZOR_SRC, "not root user. (uid=%d)", static_cast<int>(uid));
        setshmbuf("User was not superuser.");
        fprintf(stderr, "%s: must be run as root (uid %d)\n", pname, static_cast<int>(uid));
        reported = true;
        diskend(ZOR_SRC, 1, group, resource);
        return 1;
    }

    if (xmlinit() != 0) {
        setshmbuf("Getting of config was failed.");
    }

    if (option == OPT_DACTIVE || option == OPT_DDEACTIVE) {
        if (disk_load_newconf(&newconf_handle) != 0) {
            ret = 1;
            goto end;
        }
    }

    BPRINTF(xmlpath, "/root/%s/log/level", type);
    read_value(ZOR_SRC, xmlpath, ZOR_XML_INT, &loglevel, sizeof(loglevel));
    BPRINTF(xmlpath, "/root/%s/log/size", type);
    read_value(ZOR_SRC, xmlpath, ZOR_XML_INT, &logsize, sizeof(logsize));

    traceopen(type, static_cast<int>(loglevel), static_cast<int>(logsize), nullptr);
    {
        // Errors and events also reach syslog, as zordisk or zornas, naming
        // the group and resource.
        char ident[ZOR_NAME_SIZE + 4];
        char who[2 * ZOR_NAME_SIZE];
        BPRINTF(ident, "zor%s", type);
        if (group[0] != '\0') {
            BPRINTF(who, "%s/%s", group, resource);
        } else {
            BCOPY(who, resource);
        }
        tracesyslog(ident, who);
    }
    trace(TR_DETAIL, ZOR_SRC, "loglevel: %d", static_cast<int>(loglevel));
    trace(TR_DETAIL, ZOR_SRC, "logsize : %d", static_cast<int>(logsize));

    if (option == OPT_TEST) {
        // The check reports on its own; configuration faults above do not stop it.
        ret = disk_check(resource);
        if (ret != 0 && shmbuf[0] == '\0') {
            fprintf(stderr, "%s: the check of %s failed; its report is in the result file\n", pname,
                    resource);
            reported = true;
        }
        goto end;
    }

    read_value(ZOR_SRC, "/root/all/path", ZOR_XML_STRING, ipath, sizeof(ipath));
    trace(TR_DETAIL, ZOR_SRC, "inspath : %s", ipath);

    BPRINTF(xmlpath, "/root/resource/%s@%s/parameters/disktype", type, resource);
    read_value(ZOR_SRC, xmlpath, ZOR_XML_STRING, disktype, sizeof(disktype));
    trace(TR_DETAIL, ZOR_SRC, "disktype: %s", disktype);

    if (shmwbuf[0] != '\0') {
        BCOPY(shmbuf, shmwbuf);
    }
    if (shmbuf[0] != '\0') {
        ret = option == OPT_MONITOR && shmwbuf[0] == '\0'
                  ? monitor_unconfigured(resource, monitor_config_fault(resource, group))
                  : 1;
        diskend(ZOR_SRC, 1, group, resource);
        return ret;
    }

    if (option == OPT_MONITOR) {
        // The monitor mounts nothing: no semaphores, and its own exit codes.
        ret = dispatch_monitor(disktype, resource, group);
        keep_status_text = ret == MON_RUNNING || ret == MON_STOPPED;
        diskend(ZOR_SRC, keep_status_text ? 0 : 1, group, resource);
        return ret;
    }

    disk_sem_attach();
    ret = dispatch(option, disktype, resource, group);
    disk_sem_detach();
    if (ret == 0 && (option == OPT_DEACTIVE || option == OPT_DDEACTIVE)) {
        mount_record_settle(type, resource);
    }

end:
    if ((option == OPT_DACTIVE || option == OPT_DDEACTIVE) && newconf_handle != nullptr) {
        disk_unload_newconf(newconf_handle);
    }
    if (ret != 0) {
        diskend(ZOR_SRC, 1, group, resource);
        return 1;
    }
    setshmbuf("Success.");
    diskend(ZOR_SRC, 0, group, resource);
    return 0;
}

namespace {

// The configuration set-up, step by step, with the call that undoes each
// step. A null argument stands for the resource type; an empty one for a
// call without argument.
struct SetupStep {
    int (*load)(const char* arg);
    const char* load_name;
    int (*unload)(const char* arg);
    const char* unload_name;
    const char* load_arg;
    const char* unload_arg;
};

const SetupStep setup_steps[] = {
    {xmllib_init, "xmllib_init", [](const char*) { return xmllib_term(); }, "xmllib_term", nullptr, ""},
    {xmllib_load_policy, "xmllib_load_policy", xmllib_unload_policy, "xmllib_unload_policy", "all", "all"},
    {xmllib_load_policy, "xmllib_load_policy", xmllib_unload_policy, "xmllib_unload_policy", "rc", "rc"},
    {xmllib_load_policy, "xmllib_load_policy", xmllib_unload_policy, "xmllib_unload_policy", nullptr,
     nullptr},
    {[](const char*) { return xmllib_load_config(); }, "xmllib_load_config",
     [](const char*) { return xmllib_unload_config(); }, "xmllib_unload_config", "", ""},
};

// Runs one call of a step and traces it as "name(arg)" or "name()".
int setup_call(int (*call)(const char*), const char* name, const char* arg, const char* caller)
{
    const char* value = arg != nullptr ? arg : type;
    int ret = call(value);
    if (value[0] == '\0') {
        tracexml(ret, ZOR_SRC_IN(caller), "%s()", name);
    } else {
        tracexml(ret, ZOR_SRC_IN(caller), "%s(%s)", name, value);
    }
    return ret;
}

}  // namespace

int xmlinit(void)
{
    TRACE_ENTER();
    // _xmlstep is the next step to do; a repeated call resumes where it stopped.
    while (_xmlstep < 5) {
        const SetupStep& step = setup_steps[_xmlstep];
        if (setup_call(step.load, step.load_name, step.load_arg, __func__) != 0) {
            TRACE_EXIT(ZR_CONFIG);
            return ZR_CONFIG;
        }
        _xmlstep++;
    }
    TRACE_EXIT(0);
    return 0;
}

int xmlend(void)
{
    TRACE_ENTER();
    int result = 0;
    // Undo exactly the steps that were done, last first; a failed tear-down
    // call does not stop the ones below it.
    while (_xmlstep > 0) {
        const SetupStep& step = setup_steps[_xmlstep - 1];
        if (setup_call(step.unload, step.unload_name, step.unload_arg, __func__) != 0) {
            result = ZR_CONFIG;
        }
        _xmlstep--;
    }
    TRACE_EXIT(result);
    return result;
}

void diskend(const char* pname, int line, const char* pfunc, int argret, const char* pgrpname,
             const char* prscname)
{
    trace(TR_DETAIL, pname, line, pfunc, "%s -> diskend", pfunc);
    TRACE_ENTER();

    xmlend();

    // Without both names there is no record to address.
    if (prscname[0] != '\0' && pgrpname[0] != '\0' && !keep_status_text) {
        int ret = shmrm_attach();
        traceshmrm(ret, ZOR_SRC, "shmrm_attach()");
        ret = shmrm_setdescript(pgrpname, type, prscname, shmbuf, ZOR_SHMBUF_SIZE);
        traceshmrm(ret, ZOR_SRC, "shmrm_setdescript(%s, %s, %s, %s, %d)", pgrpname, type, prscname, shmbuf,
                   ZOR_SHMBUF_SIZE);
        ret = shmrm_detach();
        traceshmrm(ret, ZOR_SRC, "shmrm_detach()");
    }

    if (argret != 0) {
        // The reason in the trace log too (and so in syslog): below level 8
        // the status store above is not written.
        if (shmbuf[0] != '\0') {
            trace(TR_ERROR, pname, line, pfunc, "status: %s", shmbuf);
        }
        trace(TR_ERROR, pname, line, pfunc, "%s resource failed.", type);
        // The status text on stderr too, which the cluster engine's log keeps.
        if (!reported && shmbuf[0] != '\0') {
            fprintf(stderr, "%s: %s\n", progname, shmbuf);
        }
    } else {
        trace(TR_INFO, pname, line, pfunc, "%s OK.", type);
    }
    traceclose();
}
