// The agent's own time per command run and per mount table probe.
//
//   bench_exec runs N            cmd_thread("true") against a bare fork/exec
//   bench_exec mounts M N        mountsinfo with M extra bind mounts (root;
//                                made in a private mount namespace)
#include "command_exec/zor_exec.h"
#include "disk.h"

#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

using clock_type = std::chrono::steady_clock;

double us_since(clock_type::time_point t0)
{
    return std::chrono::duration<double, std::micro>(clock_type::now() - t0).count();
}

struct Stats {
    double median;
    double p10;
    double p90;
};

Stats stats(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    auto at = [&](double q) { return v[static_cast<size_t>(q * static_cast<double>(v.size() - 1))]; };
    return {at(0.5), at(0.1), at(0.9)};
}

void print(const char* what, const Stats& s)
{
    printf("%-44s median %9.1f us   p10 %9.1f   p90 %9.1f\n", what, s.median, s.p10, s.p90);
}

double fork_exec(const char* path, char* const argv[])
{
    auto t0 = clock_type::now();
    pid_t pid = fork();
    if (pid == 0) {
        execv(path, argv);
        _exit(127);
    }
    int st;
    waitpid(pid, &st, 0);
    return us_since(t0);
}

int bench_runs(int n)
{
    std::vector<double> agent;
    std::vector<double> bare_true;
    std::vector<double> bare_sh;
    char t[] = "/bin/true";
    char sh[] = "/bin/sh";
    char dc[] = "-c";
    char tr[] = "true";
    char* argv_true[] = {t, nullptr};
    char* argv_sh[] = {sh, dc, tr, nullptr};
    for (int i = 0; i < n; i++) {
        DISK_FUNC_INFO finfo;
        memset(&finfo, 0, sizeof(finfo));
        strcpy(finfo.cmdname, "mount");
        strcpy(finfo.cmdline, "true");
        finfo.timeout = 10;
        auto t0 = clock_type::now();
        int ret = cmd_thread(&finfo);
        agent.push_back(us_since(t0));
        if (ret != 0) {
            fprintf(stderr, "cmd_thread failed: %d\n", ret);
            return 1;
        }
        bare_true.push_back(fork_exec(t, argv_true));
        bare_sh.push_back(fork_exec(sh, argv_sh));
    }
    Stats a = stats(agent);
    Stats b = stats(bare_true);
    Stats c = stats(bare_sh);
    printf("command runs: %d each, interleaved\n", n);
    print("cmd_thread(\"true\") (thread, sh -c, pipe)", a);
    print("bare fork/exec /bin/true", b);
    print("bare fork/exec /bin/sh -c true", c);
    printf("overhead over bare /bin/true: %.1f us; over bare sh -c true: %.1f us (medians)\n",
           a.median - b.median, a.median - c.median);
    return 0;
}

int bench_mounts(int m, int n)
{
    char tmpl[] = "/tmp/zorbench.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    std::string top = tmpl;
    int fds[2];
    if (pipe(fds) != 0) {
        return 1;
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        FILE* out = fdopen(fds[1], "w");
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            fprintf(out, "unshare/private mount failed (root needed)\n");
            _exit(1);
        }
        if (mount("zorbench", top.c_str(), "tmpfs", 0, "size=16m") != 0) {
            fprintf(out, "tmpfs failed\n");
            _exit(1);
        }
        std::string src = top + "/src";
        mkdir(src.c_str(), 0755);
        auto t0 = clock_type::now();
        for (int i = 0; i < m; i++) {
            std::string d = top + "/m" + std::to_string(i);
            mkdir(d.c_str(), 0755);
            if (mount(src.c_str(), d.c_str(), nullptr, MS_BIND, nullptr) != 0) {
                fprintf(out, "bind mount %d failed\n", i);
                _exit(1);
            }
        }
        fprintf(out, "made %d bind mounts in %.1f s\n", m, us_since(t0) / 1e6);
        std::string hit = top + "/m" + std::to_string(m / 2);
        std::string hit_slash = hit + "/";
        std::string miss = top + "/src";
        struct {
            const char* what;
            const char* path;
            int mode;
        } probes[] = {
            {"mountsinfo, mounted point (one grep)", hit.c_str(), MNT_PREUMOUNT},
            {"mountsinfo, trailing \"/\" (two greps)", hit_slash.c_str(), MNT_PREMOUNT},
            {"mountsinfo, point not mounted (two greps)", miss.c_str(), MNT_PREMOUNT},
        };
        for (const auto& p : probes) {
            std::vector<double> v;
            int answer = -1;
            for (int i = 0; i < n; i++) {
                auto t1 = clock_type::now();
                answer = mountsinfo(p.path, p.mode);
                v.push_back(us_since(t1));
            }
            Stats s = stats(v);
            fprintf(out, "%-44s median %9.1f us   p10 %9.1f   p90 %9.1f   (answer %d)\n", p.what, s.median,
                    s.p10, s.p90, answer);
        }
        std::vector<double> g;
        for (int i = 0; i < n; i++) {
            auto t1 = clock_type::now();
            // Not to /dev/null: grep stops at the first match when it sees that.
            if (system(("/bin/grep \"" + hit + "\" /proc/mounts > " + top + "/grep.out").c_str()) != 0) {
                fprintf(out, "grep found nothing\n");
            }
            g.push_back(us_since(t1));
        }
        Stats s = stats(g);
        fprintf(out, "%-44s median %9.1f us   p10 %9.1f   p90 %9.1f\n",
                "system(\"grep ... /proc/mounts > file\")", s.median, s.p10, s.p90);
        fclose(out);
        _exit(0);
    }
    close(fds[1]);
    char buf[4096];
    ssize_t r;
    while ((r = read(fds[0], buf, sizeof(buf))) > 0) {
        fwrite(buf, 1, static_cast<size_t>(r), stdout);
    }
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    rmdir(top.c_str());  // the mounts went with the namespace; the directory is empty here
    return WIFEXITED(st) ? WEXITSTATUS(st) : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    strcpy(type, "disk");
    if (argc >= 3 && strcmp(argv[1], "runs") == 0) {
        return bench_runs(atoi(argv[2]));
    }
    if (argc >= 4 && strcmp(argv[1], "mounts") == 0) {
        return bench_mounts(atoi(argv[2]), atoi(argv[3]));
    }
    fprintf(stderr, "usage: %s runs N | mounts M N\n", argv[0]);
    return 2;
}
