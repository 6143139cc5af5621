// A command line gives the same argv, output and exit status whether the
// runner splits it itself or hands it to /bin/sh -c. The program run is this
// test binary again, which prints its arguments, writes one line to stderr
// and exits with its argument count.
#include "test_support.h"

#include "command_exec/cmdline_argv.h"
#include "command_exec/proc_runner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>

extern char** environ;

namespace {

const char* const kArgvEnv = "ZOR_TEST_ARGV_CHILD";

const bool argv_child = [] {
    if (getenv(kArgvEnv) == nullptr) {
        return false;
    }
    // Runs before gtest's main: the arguments after argv[0] come from /proc,
    // one per line in brackets, bytes outside printable ASCII as \xNN.
    int fd = open("/proc/self/cmdline", O_RDONLY);
    char buf[8192];
    ssize_t n = fd >= 0 ? read(fd, buf, sizeof(buf)) : -1;
    std::string out;
    int argc = 0;
    for (ssize_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(buf[i]);
        if (argc > 0 && (i == 0 || buf[i - 1] == '\0')) {
            out += "[";
        }
        if (c == 0) {
            out += argc++ > 0 ? "]\n" : "";
        } else if (argc > 0) {
            char hex[8];
            snprintf(hex, sizeof(hex), c < 32 || c > 126 ? "\\x%02x" : "%c", c);
            out += hex;
        }
    }
    if (write(1, out.data(), out.size()) < 0 || write(2, "stderr line\n", 12) < 0) {
        _exit(99);
    }
    _exit(argc);
}();

struct Outcome {
    std::string output;
    int status = -1;
};

// The reference: the line as the shell runs it.
Outcome through_shell(const std::string& line)
{
    Outcome o;
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) {
        return o;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, p[1], 1);
    char sh[] = "/bin/sh", c[] = "-c";
    char* argv[] = {sh, c, const_cast<char*>(line.c_str()), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, "/bin/sh", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    close(p[1]);
    char buf[4096];
    ssize_t n;
    while (rc == 0 && (n = read(p[0], buf, sizeof(buf))) > 0) {
        o.output.append(buf, n);
    }
    close(p[0]);
    if (rc == 0) {
        waitpid(pid, &o.status, 0);
    }
    return o;
}

// The same line through the agent's runner.
Outcome through_runner(const std::string& line)
{
    Outcome o;
    ZPROC proc;
    int err = 0;
    zproc_stop_reset();
    if (zproc_spawn(&proc, line.c_str(), 1, &err) != 0) {
        return o;
    }
    char piece[1023];
    int n;
    while ((n = zproc_gets(&proc, piece, sizeof(piece))) > 0) {
        o.output.append(piece, n);
    }
    zproc_wait(&proc, &o.status);
    zproc_abandon(&proc);
    return o;
}

std::string self_path()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, n) : std::string();
}

std::string replace_all(std::string s, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) {
        s.replace(at, from.size(), to);
    }
    return s;
}

TEST(CmdlineArgv, RunnerAndShellAgree)
{
    setenv(kArgvEnv, "1", 1);
    TempDir dir;
    const std::string self = self_path();
    ASSERT_FALSE(self.empty());
    // The build path is made of plain characters, so it may stand unquoted too.
    ASSERT_EQ(self.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-"),
              std::string::npos);

    const std::string noexec = dir / "noexec";
    const std::string script = dir / "script";
    FILE* f = fopen(noexec.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("echo never\n", f);
    fclose(f);
    f = fopen(script.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("echo \"script ran: $1\"\nexit 7\n", f);  // no "#!": the shell runs it
    fclose(f);
    ASSERT_EQ(chmod(script.c_str(), 0755), 0);

    // {P} is the argv-printing program, {D} the temporary directory.
    const struct {
        const char* line;
        bool direct;
    } cases[] = {
        {"exec \"{P}\" a b c 2>&1", true},
        {"exec {P} unquoted-program 2>&1", true},
        {"exec \"{P}\" \"two words\" \"\" x 2>&1", true},
        {"exec \"{P}\" \"q\\\"uote\" \"d\\$ollar\" \"b\\`tick\" \"back\\\\slash\" 2>&1", true},
        {"exec \"{P}\" \"lit\\n\\a\\ z\\'\" 2>&1", true},
        {"exec \"{P}\" a\"b c\"d \"x\"y\"\" 2>&1", true},
        {"exec \"{P}\"\t tab \t sep  2>&1", true},
        {"exec \"{P}\" \"*?[x]\" \"~home\" \"'single'\" \"#hash\" \"a;b|c&d\" \"<>\" \"{a,b}!\" 2>&1", true},
        {"exec \"{P}\" -o rw,data=ordered,uid=0 -t ext4 /dev/x %s@h:p+1 2>&1", true},
        {"exec \"{P}\" \"line\nbreak\" \"\xc3\xbcnic\xc3\xb6"
         "de\" 2>&1",
         true},
        {"exec \"{P}\" \"\x81\x82\x83\x84\x85\x86\x87\x88\x89\xff\" 2>&1", true},  // the shell's own markers
        {"exec \"{P}\" -w -d \"/dev/loop0\" > /dev/null 2>&1", true},
        {"\"{P}\" \"\\\\\\040pattern\" /proc/mounts 2>&1", true},
        {"{P} without-exec > /dev/null 2>&1", true},
        {"\"/nonexistent/prog\" a 2>&1", true},
        {"exec \"/nonexistent/prog\" a 2>&1", true},
        {"exec \"{D}/noexec\" a 2>&1", true},
        {"exec \"{D}\" a 2>&1", true},
        {"exec \"{D}/script\" arg 2>&1", true},
        // The shell's business: expansions, globbing, operators, other redirections.
        {"exec \"{P}\" $HOME 2>&1", false},
        {"exec \"{P}\" \"$HOME\" 2>&1", false},
        {"exec \"{P}\" `echo x` 2>&1", false},
        {"exec \"{P}\" \"`echo x`\" 2>&1", false},
        {"exec \"{P}\" {D}/* 2>&1", false},
        {"exec \"{P}\" ~ 2>&1", false},
        {"exec \"{P}\" 'single' 2>&1", false},
        {"exec \"{P}\" a\\ b 2>&1", false},
        {"exec \"{P}\" a #comment 2>&1", false},
        {"exec \"{P}\" {a,b} 2>&1", false},
        {"exec \"{P}\" a; exec \"{P}\" b 2>&1", false},
        {"exec \"{P}\" a | exec \"{P}\" b 2>&1", false},
        {"exec \"{P}\" a>/dev/null 2>&1", false},
        {"exec \"{P}\" a 1>&2", false},
        {"exec \"{P}\" a", false},
        {"exec \"{P}\" a 2>&1 ", false},
        {"exec \"{P}\" \"open 2>&1", false},
        {"exec \"{P}\" \"cont\\\nline\" 2>&1", false},
        {" exec \"{P}\" a 2>&1", false},
        {"exec -- \"{P}\" a 2>&1", false},
        {"exec true 2>&1", false},
        {"true 2>&1", false},
        {"A=b \"{P}\" a 2>&1", false},
        {"! \"{P}\" a 2>&1", false},
        {"if \"{P}\" a; then :; fi 2>&1", false},
        {"exec A=\"{P}\" a 2>&1", false},
        {"exec 2>&1", false},
        {"exec\"{P}\" 2>&1", true},  // one word "exec/...": not found, as in sh
    };
    for (const auto& c : cases) {
        std::string line = replace_all(replace_all(c.line, "{P}", self), "{D}", dir.path());
        SCOPED_TRACE(line);
        ZARGV av;
        EXPECT_EQ(cmdline_argv(line.c_str(), &av) == 1, c.direct);
        Outcome want = through_shell(line);
        Outcome got = through_runner(line);
        ASSERT_NE(want.status, -1);
        EXPECT_EQ(got.output, want.output);
        EXPECT_EQ(got.status, want.status);
    }
    unsetenv(kArgvEnv);
}

// The shell's codes for a program it cannot execute, on the direct route too.
TEST(CmdlineArgv, ExecFailuresKeepTheShellsCodes)
{
    TempDir dir;
    const struct {
        std::string line;
        int code;
    } cases[] = {
        {"exec \"" + dir / "missing" + "\" 2>&1", 127},
        {"exec \"" + dir.path() + "\" 2>&1", 126},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Outcome got = through_runner(c.line);
        ASSERT_TRUE(WIFEXITED(got.status));
        EXPECT_EQ(WEXITSTATUS(got.status), c.code);
        EXPECT_NE(got.output.find("exec: "), std::string::npos);
    }
}

}  // namespace
