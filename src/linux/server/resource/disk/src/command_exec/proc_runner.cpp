// The one process runner: spawning, reading, waiting for and killing the
// agent's child commands.
//
// Waiting is done with poll() on the output pipe, a pidfd of the child and
// the stop eventfd, so that a stop request from the waiting thread ends every
// blocking call of the worker at once, without thread cancellation.
#include "proc_runner.h"

#include "cmdline_argv.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

extern char** environ;

#ifndef PIDFD_SIGNAL_PROCESS_GROUP
#define PIDFD_SIGNAL_PROCESS_GROUP (1U << 2)
#endif

namespace {

// How long a killed child gets to be reaped before it is left to init.
constexpr int kGraceMs = 200;
// Without a pidfd the wait falls back to polling waitpid at this period.
constexpr int kPollMs = 5;
// After the child has exited, at most this much output still in the pipe is
// read; a descendant that keeps writing must not hold the worker forever.
constexpr long kDrainMax = 1L << 20;

std::atomic<int> stop_flag{0};

// The stop eventfd lives for the whole process; it stays readable from
// zproc_stop until the next zproc_stop_reset, so every poll of the run sees it.
int stop_fd()
{
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void close_fd(int* fd)
{
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

// Reaps the child if it has ended (block: wait for it). Returns 1 when the
// child is reaped (p->status valid), 0 when it still runs.
int reap(ZPROC* p, int block)
{
    if (p->exited) {
        return 1;
    }
    if (p->pid <= 0) {
        return 1;
    }
    for (;;) {
        int st = 0;
        pid_t r = waitpid(p->pid, &st, block ? 0 : WNOHANG);
        if (r == p->pid) {
            p->exited = 1;
            p->status = st;
            return 1;
        }
        if (r == 0) {
            return 0;
        }
        if (errno == EINTR) {
            continue;
        }
        // ECHILD: someone else reaped it (SIGCHLD ignored); no status to give.
        p->exited = 1;
        p->status = -1;
        return 1;
    }
}

// SIGKILL to the child's whole process group. Through the pidfd the group is
// the one of our child even after it was reaped and its number reused.
void kill_group(ZPROC* p)
{
    if (p->pid <= 0) {
        return;
    }
    if (p->pidfd >= 0 &&
        syscall(SYS_pidfd_send_signal, p->pidfd, SIGKILL, nullptr, PIDFD_SIGNAL_PROCESS_GROUP) == 0) {
        return;
    }
    if (!p->exited) {
        // Older kernel: the child is not reaped, so its number still names its group.
        killpg(p->pid, SIGKILL);
    }
}

// A descendant that leaves the command's process group (setsid, a daemon's
// double fork) is out of reach of the group kill; as the agent is the
// subreaper of its descendants, it becomes the agent's child as soon as its
// parent is gone, and can be ended then. A process-wide setting, made once.
void become_subreaper()
{
    static const int done = prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    (void)done;
}

// The agent's children (of all its threads: an orphan goes to any of them).
// Returns their number, or -1 when they cannot all be listed.
int list_children(pid_t* out, int max)
{
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) {
        return -1;
    }
    int n = 0;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') {
            continue;
        }
        char path[sizeof(e->d_name) + 32];
        snprintf(path, sizeof(path), "/proc/self/task/%s/children", e->d_name);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) {
            continue;  // a thread that just ended, or a kernel without the list
        }
        if (fd < 0) {
            n = -1;
            break;
        }
        char buf[4096];
        ssize_t len = read(fd, buf, sizeof(buf) - 1);
        close(fd);
        if (len < 0 || len == static_cast<ssize_t>(sizeof(buf) - 1)) {
            n = -1;
            break;
        }
        buf[len] = '\0';
        for (char* s = buf; *s != '\0';) {
            char* end = nullptr;
            long v = strtol(s, &end, 10);
            if (end == s) {
                break;
            }
            if (n >= max) {
                closedir(d);
                return -1;
            }
            out[n++] = static_cast<pid_t>(v);
            s = end;
        }
    }
    closedir(d);
    return n;
}

// Signal to the command's process group, also after the command itself was
// reaped: the group's number stays taken while any member is left.
int signal_group(ZPROC* p, int sig)
{
    if (p->pidfd >= 0) {
        if (syscall(SYS_pidfd_send_signal, p->pidfd, sig, nullptr, PIDFD_SIGNAL_PROCESS_GROUP) == 0) {
            return 0;
        }
        if (errno == ESRCH) {
            return -1;
        }
    }
    return killpg(p->pid, sig);
}

// Waits up to ms for a process of ours to be reaped; returns 1 once it is.
int reap_pid_within(pid_t pid, int ms)
{
    long long end = now_ms() + ms;
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD)) {
            return 1;
        }
        if (now_ms() >= end) {
            return 0;
        }
        struct timespec ts = {0, 1000000L};
        nanosleep(&ts, nullptr);
    }
}

// Kills and reaps the agent's children that were not there when the command
// started: what is left of the command outside its group. Returns how many
// are still to be reaped.
int kill_new_children(ZPROC* p)
{
    // A worker given up earlier cannot tell its command's children from
    // those of the commands started since.
    if (p->nbefore < 0 || zproc_orphaned()) {
        return 0;
    }
    pid_t now[256];
    int n = list_children(now, 256);
    int left = 0;
    for (int i = 0; i < n; i++) {
        pid_t c = now[i];
        bool old = c == p->pid;
        for (int j = 0; j < p->nbefore && !old; j++) {
            old = p->before[j] == c;
        }
        if (old) {
            continue;
        }
        kill(c, SIGKILL);
        int st = 0;
        pid_t r = waitpid(c, &st, WNOHANG);
        if (r == c || (r < 0 && errno == ECHILD)) {
            if (c == p->keeper) {
                p->keeper = -1;
            }
        } else {
            left++;
        }
    }
    return left;
}

// After the group kill: until the command is reaped, its group is empty and
// no new child of the agent is left, kill again what shows up, for at most
// ms. A process stuck in the kernel is left behind.
void sweep(ZPROC* p, int ms)
{
    long long end = now_ms() + ms;
    for (;;) {
        reap(p, 0);
        bool group = p->pid > 0 && signal_group(p, 0) == 0;
        if (group) {
            signal_group(p, SIGKILL);  // a fork that was under way
        }
        int left = kill_new_children(p);
        if (p->exited && !group && left == 0) {
            return;
        }
        if (now_ms() >= end) {
            return;
        }
        struct timespec ts = {0, 1000000L};
        nanosleep(&ts, nullptr);
    }
}

void stop_run(ZPROC* p)
{
    if (p->killed) {
        return;
    }
    p->killed = 1;
    kill_group(p);
    sweep(p, kGraceMs);
}

// The keeper of a command run under the mount lock: a fork of the agent that
// keeps only the lock's descriptor and the command's pidfd, and ends when the
// command ends. It joins the command's process group, so that a time-out ends
// it with the command, while a kill of the agent's own group (the cluster
// giving up on the agent) leaves it holding the lock until the command ends.
void start_keeper(ZPROC* p, int lockfd)
{
    pid_t k = fork();
    if (k == 0) {
        // Only async-signal-safe calls from here: the agent has other threads.
        setpgid(0, p->pid);
        if (chdir("/") != 0) {
            // The keeper only waits; a working directory elsewhere is harmless.
        }
        int a = lockfd;
        int b = p->pidfd >= 0 ? p->pidfd : lockfd;
        int lo = a < b ? a : b;
        int hi = a < b ? b : a;
        if (lo > 0) {
            close_range(0, static_cast<unsigned>(lo - 1), 0);
        }
        if (hi > lo + 1) {
            close_range(static_cast<unsigned>(lo + 1), static_cast<unsigned>(hi - 1), 0);
        }
        close_range(static_cast<unsigned>(hi + 1), ~0U, 0);
        for (;;) {
            if (p->pidfd >= 0) {
                struct pollfd pfd = {p->pidfd, POLLIN, 0};
                if (poll(&pfd, 1, -1) > 0) {
                    _exit(0);
                }
            } else {
                if (kill(p->pid, 0) != 0 && errno == ESRCH) {
                    _exit(0);
                }
                struct timespec ts = {0, 20 * 1000000L};
                nanosleep(&ts, nullptr);
            }
        }
    }
    if (k > 0) {
        setpgid(k, p->pid);  // whichever of the two runs first
        p->keeper = k;
    }
}

void end_keeper(ZPROC* p)
{
    if (p->keeper > 0) {
        kill(p->keeper, SIGKILL);
        reap_pid_within(p->keeper, kGraceMs);
        p->keeper = -1;
    }
}

// Waits for something to happen: output readable (when want_out), the child
// ended, or a stop request (when stoppable). Returns -1 on a stop request,
// otherwise 0 once something may have changed.
int wait_event(ZPROC* p, int want_out, int stoppable)
{
    struct pollfd pfd[3];
    int n = 0;
    int ipid = -1;
    int istop = -1;
    if (want_out && p->outfd >= 0) {
        pfd[n++] = {p->outfd, POLLIN, 0};
    }
    if (!p->exited && p->pidfd >= 0) {
        ipid = n;
        pfd[n++] = {p->pidfd, POLLIN, 0};
    }
    if (stoppable && stop_fd() >= 0) {
        istop = n;
        pfd[n++] = {stop_fd(), POLLIN, 0};
    }
    // Without a pidfd the child's end is noticed by polling; without the stop
    // eventfd the stop flag is.
    int tmo = ((!p->exited && p->pidfd < 0) || (stoppable && stop_fd() < 0)) ? kPollMs : -1;
    int r = poll(pfd, n, tmo);
    if (r < 0 && errno != EINTR) {
        // Nothing sensible to wait on; do not spin at full speed.
        struct timespec ts = {0, kPollMs * 1000000L};
        nanosleep(&ts, nullptr);
    }
    if ((stoppable && zproc_stopped()) || (istop >= 0 && r > 0 && pfd[istop].revents != 0)) {
        return -1;
    }
    if (ipid >= 0 && r > 0 && pfd[ipid].revents != 0) {
        reap(p, 0);
    } else if (p->pidfd < 0) {
        reap(p, 0);
    }
    return 0;
}

// Reads what the pipe holds into the line buffer. Before the child ended it
// waits for output; after, it only takes what is already there.
// Returns -1 on a stop request, else 0.
int fill(ZPROC* p)
{
    if (p->bpos > 0) {
        memmove(p->buf, p->buf + p->bpos, p->blen - p->bpos);
        p->blen -= p->bpos;
        p->bpos = 0;
    }
    int room = static_cast<int>(sizeof(p->buf)) - p->blen;
    for (;;) {
        if (p->outfd < 0) {
            p->eof = 1;
            return 0;
        }
        if (p->exited) {
            // The child is gone: drain without waiting for descendants that
            // still hold the pipe open.
            if (p->drained >= kDrainMax) {
                p->eof = 1;
                return 0;
            }
            ssize_t r = read(p->outfd, p->buf + p->blen, room);
            if (r > 0) {
                p->blen += static_cast<int>(r);
                p->drained += r;
                return 0;
            }
            if (r < 0 && errno == EINTR) {
                continue;
            }
            p->eof = 1;  // end of output, or nothing left (EAGAIN)
            return 0;
        }
        ssize_t r = read(p->outfd, p->buf + p->blen, room);
        if (r > 0) {
            p->blen += static_cast<int>(r);
            return 0;
        }
        if (r == 0) {
            p->eof = 1;
            return 0;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            p->eof = 1;
            return 0;
        }
        if (wait_event(p, 1, 1) < 0) {
            return -1;
        }
    }
}

int spawn(ZPROC* p, const char* cmdline, int capture, int* err)
{
    memset(p, 0, sizeof(*p));
    p->pid = -1;
    p->outfd = -1;
    p->pidfd = -1;
    p->keeper = -1;
    *err = 0;
    become_subreaper();
    // Children that exist before the command are none of its descendants.
    p->nbefore = list_children(p->before, static_cast<int>(sizeof(p->before) / sizeof(p->before[0])));

    int pipefd[2] = {-1, -1};
    int devnull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devnull < 0) {
        *err = errno;
        return -1;
    }
    if (capture && pipe2(pipefd, O_CLOEXEC | O_NONBLOCK) != 0) {
        *err = errno;
        close(devnull);
        return -1;
    }
    // The child's end of the pipe must block like any stdout.
    if (capture) {
        fcntl(pipefd[1], F_SETFL, 0);
    }

    posix_spawn_file_actions_t fa;
    posix_spawnattr_t at;
    posix_spawn_file_actions_init(&fa);
    posix_spawnattr_init(&at);

    // dup2 onto 0 or 1 only clears close-on-exec when source and target differ;
    // that holds because the actions below never map a descriptor onto itself
    // (0 and 1 are taken when our own stdin/stdout are open; if they are not,
    // the descriptors are moved out of the way first).
    if (devnull <= 1) {
        int moved = fcntl(devnull, F_DUPFD_CLOEXEC, 3);
        close(devnull);
        devnull = moved;
    }
    if (capture && pipefd[1] <= 1) {
        int moved = fcntl(pipefd[1], F_DUPFD_CLOEXEC, 3);
        close(pipefd[1]);
        pipefd[1] = moved;
    }
    int rc = 0;
    if (devnull < 0 || (capture && pipefd[1] < 0)) {
        rc = EMFILE;
    }
    if (rc == 0) {
        rc = posix_spawn_file_actions_adddup2(&fa, devnull, 0);
    }
    if (rc == 0 && capture) {
        rc = posix_spawn_file_actions_adddup2(&fa, pipefd[1], 1);
    }
    // A line of the agent's own grammar runs without the shell, with the
    // redirections the shell would have made.
    ZARGV av;
    int direct = cmdline_argv(cmdline, &av);
    if (rc == 0 && direct) {
        rc = cmdline_redirect(&fa, &av);
    }
    // Nothing of the agent beyond stdio reaches the command (log files, the
    // mount lock, pipes of other runs), whoever opened it.
    if (rc == 0) {
        rc = posix_spawn_file_actions_addclosefrom_np(&fa, 3);
    }
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    if (rc == 0) {
        rc = posix_spawnattr_setflags(&at,
                                      POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    if (rc == 0) {
        rc = posix_spawnattr_setpgroup(&at, 0);
    }
    if (rc == 0) {
        rc = posix_spawnattr_setsigdefault(&at, &all);
    }
    if (rc == 0) {
        rc = posix_spawnattr_setsigmask(&at, &none);
    }
    pid_t pid = -1;
    int shell = rc == 0 && !direct;
    if (rc == 0 && direct) {
        rc = posix_spawn(&pid, av.argv[0], &fa, &at, av.argv, environ);
        // Through the shell also when the program could not be executed: the
        // shell then gives its own message and exit code (127 not found, 126
        // not executable) or runs a file without "#!" as a script.
        // Redirecting again over the same descriptors changes nothing.
        shell = rc != 0;
    }
    if (shell) {
        char sh[] = "/bin/sh";
        char dashc[] = "-c";
        char* argv[] = {sh, dashc, const_cast<char*>(cmdline), nullptr};
        rc = posix_spawn(&pid, "/bin/sh", &fa, &at, argv, environ);
    }
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&at);
    if (devnull >= 0) {
        close(devnull);
    }
    if (pipefd[1] >= 0) {
        close(pipefd[1]);
    }
    if (rc != 0) {
        if (pipefd[0] >= 0) {
            close(pipefd[0]);
        }
        *err = rc;
        return -1;
    }
    p->pid = pid;
    p->outfd = capture ? pipefd[0] : -1;
    // A pidfd is always close-on-exec; -1 on kernels without pidfds: polled instead.
    p->pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    return 0;
}

int wait_child(ZPROC* p, int* status, int stoppable)
{
    // Like pclose: the reader is gone, a child still writing gets SIGPIPE.
    close_fd(&p->outfd);
    while (!p->exited) {
        if (wait_event(p, 0, stoppable) < 0) {
            stop_run(p);
            return -1;
        }
    }
    *status = p->status;
    return 0;
}

}  // namespace

int zproc_spawn(ZPROC* p, const char* cmdline, int capture, int* err)
{
    if (zproc_stopped()) {
        // The run was stopped before its child existed: do not start one.
        memset(p, 0, sizeof(*p));
        p->pid = -1;
        p->outfd = -1;
        p->pidfd = -1;
        p->keeper = -1;
        *err = ECANCELED;
        return -1;
    }
    if (spawn(p, cmdline, capture, err) != 0) {
        return -1;
    }
    int lockfd = zproc_held_lock();
    if (lockfd >= 0) {
        start_keeper(p, lockfd);
    }
    return 0;
}

int zproc_gets(ZPROC* p, char* buf, int size)
{
    if (size <= 1) {
        if (size == 1) {
            buf[0] = '\0';
        }
        return 0;
    }
    int want = size - 1;
    for (;;) {
        int avail = p->blen - p->bpos;
        const char* start = p->buf + p->bpos;
        int scan = avail < want ? avail : want;
        const char* nl = static_cast<const char*>(memchr(start, '\n', scan));
        int take = 0;
        if (nl != nullptr) {
            take = static_cast<int>(nl - start) + 1;
        } else if (avail >= want || (p->eof && avail > 0)) {
            take = scan;
        } else if (p->eof) {
            buf[0] = '\0';
            return 0;
        }
        if (take > 0) {
            memcpy(buf, start, take);
            buf[take] = '\0';
            p->bpos += take;
            return take;
        }
        if (fill(p) < 0) {
            stop_run(p);
            buf[0] = '\0';
            return -1;
        }
    }
}

int zproc_wait(ZPROC* p, int* status)
{
    return wait_child(p, status, 1);
}

int zproc_exit_code(int status)
{
    // -1 has low bits set, so "no status" reads as "did not exit".
    return (status & 0x7f) != 0 ? -1 : (status >> 8) & 0xff;
}

void zproc_abandon(ZPROC* p)
{
    if (p->pid > 0 && !p->exited) {
        stop_run(p);
    }
    end_keeper(p);
    close_fd(&p->outfd);
    close_fd(&p->pidfd);
}

void zproc_stop_reset(void)
{
    zproc_next_run();
    stop_flag.store(0);
    int fd = stop_fd();
    if (fd >= 0) {
        uint64_t v;
        while (read(fd, &v, sizeof(v)) < 0 && errno == EINTR) {
        }
    }
}

int zproc_stop(void)
{
    stop_flag.store(1);
    int fd = stop_fd();
    if (fd < 0) {
        // The worker still sees the flag at its next wake-up (at most kPollMs
        // away only without a pidfd); report that the wake-up could not be sent.
        return -1;
    }
    uint64_t one = 1;
    ssize_t r;
    do {
        r = write(fd, &one, sizeof(one));
    } while (r < 0 && errno == EINTR);
    return r == static_cast<ssize_t>(sizeof(one)) ? 0 : -1;
}

int zproc_stopped(void)
{
    return stop_flag.load() || zproc_orphaned();
}
