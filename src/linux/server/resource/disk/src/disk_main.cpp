#include "disk.h"

#include <strings.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef ZOR_VERSION
#error "ZOR_VERSION is set by the build"
#endif

namespace {

void usage(const char* prog)
{
    printf(
        "Usage: %s --active   -r RESOURCE -g GROUP\n"
        "       %s --deactive -r RESOURCE -g GROUP\n"
        "       %s --dactive | --ddeactive -r RESOURCE -g GROUP\n"
        "       %s --monitor -r RESOURCE -g GROUP [--level 0|10|20]\n"
        "       %s --test RESOURCE\n"
        "       %s --help | --version\n"
        "Brings a resource of group GROUP into service on this server (--active) or\n"
        "takes it out of service (--deactive); started as zordisk for a disk resource,\n"
        "as zornas for a NAS share. --dactive and --ddeactive do the same with the new\n"
        "configuration file; --test checks RESOURCE in it and appends a report to the\n"
        "result file. --monitor tells whether the resource is in service here (exit\n"
        "status 0 in service, 7 out of service and clean, 2 clean but the device\n"
        "read-write, 5 not on this server, 6 configuration unusable, 1 failed or\n"
        "half-way); --level 10 also reads the mount, --level 20 writes and reads back\n"
        "a file on it.\n"
        "Every action but --test also takes the cluster engine's description of the\n"
        "resource, which this server's configuration must agree with: --device DEV,\n"
        "--directory POINT, --uuid UUID, --label LABEL (zornas: --server HOST, --share\n"
        "PATH, --directory POINT), and the engine's time-outs --start-timeout MS and\n"
        "--stop-timeout MS (a warning when shorter than the configured limits allow).\n"
        "Options are matched without regard to case, in any order.\n"
        "\n"
        "The node is the one named by ZOR_HOME (default /opt/zor); its configuration\n"
        "is $ZOR_HOME/etc/zor.conf (/etc/opt/zor/zor.conf with the package). Must be\n"
        "run as root.\n"
        "Exit status (other than --monitor): 0 success, 1 any failure. A failure is\n"
        "told on stderr; once the resource and group are known, its status text is\n"
        "also stored (zorstat -g GROUP -r RESOURCE); the trace log holds the course\n"
        "of the run, and syslog its errors (journalctl -t zordisk).\n",
        prog, prog, prog, prog, prog, prog);
}

// Started by the OCF resource agent, the program dies with it: a cluster
// engine that kills the agent at its time-out must not leave the action
// running behind it (its command is then killed by the runner's watcher).
// ZOR_PARENT_PID names that process; one that is gone already (killed between
// its fork and this point) is found by its number, as the setting covers only
// a death to come.
void die_with_parent()
{
    const char* value = getenv("ZOR_PARENT_PID");
    if (value == nullptr || value[0] == '\0') {
        return;
    }
    char* end = nullptr;
    const long pid = strtol(value, &end, 10);
    if (*end != '\0' || pid <= 1) {
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A parent other than the named process: started from a subshell of it
    // (which the setting covers), or the process is gone.
    if (getppid() != pid && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
        kill(getpid(), SIGKILL);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    die_with_parent();
    // Looked at before anything else, and only as the sole argument: every
    // other command line goes to the driver unchanged, which opens no log,
    // reads no configuration and stores no status for these two.
    if (argc == 2) {
        const char* slash = strrchr(argv[0], '/');
        const char* prog = slash != nullptr ? slash + 1 : argv[0];
        if (strcasecmp(argv[1], "--help") == 0) {
            usage(prog);
            return 0;
        }
        if (strcasecmp(argv[1], "--version") == 0) {
            printf("%s (zor) %s\n", prog, ZOR_VERSION);
            return 0;
        }
    }
    return disk_main(argc, argv);
}
