// zorroset: switches a block device between read-only and read-write.
//
// The agent makes a device read-write before it mounts it and read-only after
// it has unmounted it, so that nothing on this node writes to a disk that the
// other node may be taking over. The switch is the kernel's own read-only flag
// of the block device (BLKROSET), which also stops writes through the page cache.
#include <fcntl.h>
#include <getopt.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// Exit codes; docs/tools.md lists them for operators.
enum Exit {
    EXIT_DONE = 0,
    EXIT_DEVICE = 1,  // missing, not a block device, or cannot be opened
    EXIT_USAGE = 2,
    EXIT_REFUSED = 3,  // the kernel refused the switch, or the flag did not change
};

void usage(FILE* out)
{
    fputs(
        "Usage: zorroset -w|-o -d DEVICE\n"
        "Switches the block device DEVICE to read-write (-w) or read-only (-o).\n"
        "  -h, --help     this text\n"
        "      --version  the version of zor\n"
        "Exit status: 0 switched, 1 no such block device (or it cannot be opened),\n"
        "2 usage error, 3 the kernel refused the switch.\n",
        out);
}

__attribute__((format(printf, 1, 2))) void fail(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("zorroset: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

// A usage error: what is wrong, then where to read more; exit status 2.
__attribute__((format(printf, 1, 2))) int usage_error(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("zorroset: ", stderr);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputs("\nTry 'zorroset --help'.\n", stderr);
    return EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv)
{
    int mode = -1;  // 0 read-write, 1 read-only
    const char* dev = nullptr;
    static const struct option opts[] = {
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "+:wod:h", opts, nullptr)) != -1) {
        switch (c) {
            case 'w':
            case 'o': {
                int want = c == 'o' ? 1 : 0;
                if (mode != -1 && mode != want) {
                    return usage_error("-w and -o exclude each other");
                }
                mode = want;
                break;
            }
            case 'd':
                dev = optarg;
                break;
            case 'h':
                usage(stdout);
                return EXIT_DONE;
            case 'V':
                printf("zorroset (zor) %s\n", ZOR_VERSION);
                return EXIT_DONE;
            case ':':
                return usage_error("option '%s' requires an argument", argv[optind - 1]);
            default:
                return usage_error("unrecognized option '%s'", argv[optind - 1]);
        }
    }
    if (mode == -1) {
        return usage_error("no action given (-w or -o)");
    }
    if (dev == nullptr || dev[0] == '\0') {
        return usage_error("no device given (-d DEVICE)");
    }
    if (optind != argc) {
        return usage_error("unexpected argument '%s'", argv[optind]);
    }

    // O_NONBLOCK: a drive without a medium must not make the open wait or fail.
    int fd = open(dev, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        fail("%s: cannot open: %s", dev, strerror(errno));
        return EXIT_DEVICE;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISBLK(st.st_mode)) {
        fail("%s: not a block device", dev);
        close(fd);
        return EXIT_DEVICE;
    }
    int flag = mode;
    if (ioctl(fd, BLKROSET, &flag) != 0) {
        fail("%s: cannot make it %s: %s", dev, mode ? "read-only" : "read-write", strerror(errno));
        close(fd);
        return EXIT_REFUSED;
    }
    // Trust the kernel's view rather than the ioctl's return alone.
    int now = -1;
    if (ioctl(fd, BLKROGET, &now) != 0 || (now != 0) != (mode != 0)) {
        fail("%s: the read-only flag is still %d", dev, now);
        close(fd);
        return EXIT_REFUSED;
    }
    close(fd);
    return EXIT_DONE;
}
