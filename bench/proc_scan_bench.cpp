// Cost of the agent's walk over /proc against the least a walk can cost.
//   proc_scan_bench RUNS
// prints "PROCS BARE_MS UMOUNT_MS": the number of processes, then the median
// time of a bare walk (readdir of /proc, open and read of every
// /proc/PID/cmdline) and of IsUmountRunning for a point nobody unmounts
// (a whole walk), both in milliseconds. Run it among the processes to count.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "flows/zor_flows.h"

namespace {

double now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// The plain way: the path of each file formatted and opened from the root.
int bare_walk()
{
    DIR* d = opendir("/proc");
    if (d == nullptr) {
        return -1;
    }
    int procs = 0;
    char path[300];
    char buf[4096];
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') {
            continue;
        }
        procs++;
        snprintf(path, sizeof(path), "/proc/%s/cmdline", e->d_name);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            // A process gone meanwhile reads nothing: that costs the same.
            ssize_t n = read(fd, buf, sizeof(buf));
            (void)n;
            close(fd);
        }
    }
    closedir(d);
    return procs;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv)
{
    int runs = argc > 1 ? atoi(argv[1]) : 15;
    if (runs < 1) {
        runs = 1;
    }
    std::vector<double> bare, agent;
    int procs = 0;
    for (int i = 0; i < runs; i++) {
        double t0 = now_ms();
        procs = bare_walk();
        double t1 = now_ms();
        bool running = true;
        if (!IsUmountRunning("/zor-bench/no such point", &running) || running) {
            fprintf(stderr, "proc_scan_bench: the walk failed\n");
            return 1;
        }
        double t2 = now_ms();
        bare.push_back(t1 - t0);
        agent.push_back(t2 - t1);
    }
    printf("%d %.3f %.3f\n", procs, median(bare), median(agent));
    return 0;
}
