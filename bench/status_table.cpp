// Cost of the status table's calls, as the agent and zorstat make them.
//   status_table RUNS
// prints the median time in nanoseconds (and for updates the 90th percentile) of: an agent's store (attach
// from scratch, one update, detach), an update of one record on an attached table, a read of one record, and
// a list of 100 records; then the update again while another process lists the table without a pause; on a
// fresh table of a temporary ZOR_HOME, which it removes at the end. Run as root, it then times the store
// while a user (nobody) holds an exclusive flock on the table.
#include "zoripc.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace {

double now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Timings of runs batches of calls of fn, per call, sorted.
std::vector<double> timings(int runs, int batch, const std::function<void()>& fn)
{
    std::vector<double> t;
    for (int i = 0; i < runs; i++) {
        const double start = now_ns();
        for (int j = 0; j < batch; j++) {
            fn();
        }
        t.push_back((now_ns() - start) / batch);
    }
    std::sort(t.begin(), t.end());
    return t;
}

double median_ns(int runs, int batch, const std::function<void()>& fn)
{
    const std::vector<double> t = timings(runs, batch, fn);
    return t[t.size() / 2];
}

}  // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? atoi(argv[1]) : 200;
    char home[] = "/tmp/zorbench.XXXXXX";
    if (mkdtemp(home) == nullptr) {
        return 1;
    }
    setenv("ZOR_HOME", home, 1);
    const std::string run = std::string(home) + "/run";
    mkdir(run.c_str(), 0755);
    if (shmrm_attach() != 0) {
        fprintf(stderr, "status_table: attach failed\n");
        return 1;
    }
    for (int i = 0; i < 100; i++) {
        shmrm_setdescript("grp1", "disk", ("fs" + std::to_string(i)).c_str(), "Success.", 9);
    }
    bool ok = shmrm_detach() == 0;
    const double store = median_ns(runs, 10, [&] {
        ok &= shmrm_attach() == 0 && shmrm_setdescript("grp1", "disk", "fs50", "Success.", 9) == 0 &&
              shmrm_detach() == 0;
    });
    ok &= shmrm_attach() == 0;
    auto update_ns = [&] {
        return timings(runs, 100, [&] {
            ok &= shmrm_setdescript("grp1", "disk", "fs50", "Mount was failed.", 18) == 0;
        });
    };
    const std::vector<double> update = update_ns();
    char text[SHMRM_TEXT_SIZE];
    const double get = median_ns(
        runs, 100, [&] { ok &= shmrm_getdescript("grp1", "disk", "fs50", text, sizeof(text)) == 0; });
    std::vector<SHMRM_RECORD> recs(128);
    const double list = median_ns(runs, 10, [&] {
        int n = 0;
        ok &= shmrm_list(recs.data(), 128, &n) == 0 && n == 100;
    });
    printf("store %.0f ns, update %.0f ns (9 in 10 below %.0f), get %.0f ns, list of 100 %.0f ns\n", store,
           update[update.size() / 2], update[update.size() * 9 / 10], get, list);
    // A reader that never pauses: the writer's update beside it.
    const pid_t reader = fork();
    if (reader == 0) {
        std::vector<SHMRM_RECORD> mine(128);
        int n = 0;
        // Attached once, as zorstat lists (the attach of the version before is the only one).
        for (bool on = shmrm_attach() == 0; on;) {
            on = shmrm_list(mine.data(), 128, &n) == 0;
        }
        _exit(1);
    }
    struct timespec ms = {0, 50000000};
    nanosleep(&ms, nullptr);
    const std::vector<double> beside = update_ns();
    kill(reader, SIGKILL);
    waitpid(reader, nullptr, 0);
    printf("update while a reader lists without a pause %.0f ns (9 in 10 below %.0f)\n",
           beside[beside.size() / 2], beside[beside.size() * 9 / 10]);
    char name[64];
    shmrm_tablename(name, sizeof(name));
    shmrm_detach();
    int ready[2];
    if (geteuid() == 0 && pipe(ready) == 0) {
        const std::string table = std::string("/dev/shm") + name;
        pid_t user = fork();
        if (user == 0) {
            int fd = setgid(65534) == 0 && setuid(65534) == 0 ? open(table.c_str(), O_RDONLY) : -1;
            if (fd >= 0 && flock(fd, LOCK_EX) == 0 && write(ready[1], "x", 1) == 1) {
                pause();
            }
            _exit(1);
        }
        char c;
        close(ready[1]);
        if (read(ready[0], &c, 1) == 1) {
            // A writer that waited on the user would never come back: the alarm ends it.
            alarm(60);
            const double held = median_ns(runs, 10, [&] {
                ok &= shmrm_attach() == 0 && shmrm_setdescript("grp1", "disk", "fs50", "Success.", 9) == 0 &&
                      shmrm_detach() == 0;
            });
            alarm(0);
            printf("store while a user holds an flock on the table %.0f ns\n", held);
        } else {
            printf("the user could not open and lock the table\n");
        }
        kill(user, SIGKILL);
        waitpid(user, nullptr, 0);
    }
    shm_unlink(name);
    const std::string rm = std::string("rm -rf '") + home + "'";
    ok &= system(rm.c_str()) == 0;
    return ok ? 0 : 1;
}
