// A command line gives the same argv, output and exit status whether the
// runner splits it itself or hands it to /bin/sh -c. The program run is this
// test binary again, which prints its arguments, writes one line to stderr
// and exits with its argument count.
#include "node_home.h"

#include "command_exec/cmdline_argv.h"
#include "command_exec/proc_runner.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <string>

namespace {

const char* const kArgvEnv = "ZOR_TEST_ARGV_CHILD";

const bool argv_child = [] {
    if (getenv(kArgvEnv) == nullptr) {
        return false;
    }
    // Runs before gtest's main: the arguments after argv[0] come from /proc,
    // one per line in brackets, bytes outside printable ASCII as \xNN.
    std::ifstream cmdline("/proc/self/cmdline");
    std::string out, arg;
    int argc = 1;
    for (std::getline(cmdline, arg, '\0'); std::getline(cmdline, arg, '\0'); argc++) {
        out += "[";
        for (const unsigned char c : arg) {
            char hex[8];
            snprintf(hex, sizeof(hex), c < 32 || c > 126 ? "\\x%02x" : "%c", c);
            out += hex;
        }
        out += "]\n";
    }
    if (write(1, out.data(), out.size()) < 0 || write(2, "stderr line\n", 12) < 0) {
        _exit(99);
    }
    _exit(argc);
}();

// The same line through the agent's runner: its output and wait status.
std::pair<std::string, int> through_runner(const std::string& line)
{
    std::pair<std::string, int> o("", -1);
    ZPROC proc;
    int err = 0;
    zproc_stop_reset();
    if (zproc_spawn(&proc, line.c_str(), 1, &err) != 0) {
        return o;
    }
    char piece[1023];
    int n;
    while ((n = zproc_gets(&proc, piece, sizeof(piece))) > 0) {
        o.first.append(piece, n);
    }
    zproc_wait(&proc, &o.second);
    zproc_abandon(&proc);
    return o;
}

TEST(CmdlineArgv, RunnerAndShellAgree)
{
    setenv(kArgvEnv, "1", 1);
    TempDir dir;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    // The build path is made of plain characters, so it may stand unquoted too.
    ASSERT_EQ(self.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-"),
              std::string::npos);

    std::ofstream(dir / "script") << "echo \"script ran: $1\"\nexit 7\n";  // no "#!": the shell runs it
    ASSERT_EQ(chmod((dir / "script").c_str(), 0755), 0);

    // {P} is the argv-printing program, {D} the temporary directory.
    const std::pair<const char*, bool> cases[] = {
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
        {"exec \"/nonexistent/prog\" a 2>&1", true},
        {"exec \"{D}/script\" arg 2>&1", true},
        // The shell's business: expansions, globbing, operators, other redirections.
        {"exec \"{P}\" $HOME 2>&1", false},
        {"exec \"{P}\" \"$HOME\" 2>&1", false},
        {"exec \"{P}\" \"`echo x`\" 2>&1", false},
        {"exec \"{P}\" {D}/* 2>&1", false},
        {"exec \"{P}\" ~ 2>&1", false},
        {"exec \"{P}\" a", false},
        {"exec \"{P}\" a 2>&1 ", false},
        {"exec \"{P}\" a2>&1", false},  // "a2" and ">&1"
        {"exec \"{P}\" \"open 2>&1", false},
        {"exec \"{P}\" \"cont\\\nline\" 2>&1", false},
        {" exec \"{P}\" a 2>&1", false},
        {"exec -- \"{P}\" a 2>&1", false},
        {"A=b \"{P}\" a 2>&1", false},
        {"exec 2>&1", false},
        {"exec\"{P}\" 2>&1", true},  // one word "exec/...": not found, as in sh
    };
    for (const auto& [pattern, direct] : cases) {
        std::string line = pattern;
        for (const auto& [mark, text] :
             {std::pair<std::string, std::string>{"{P}", self}, {"{D}", dir.path()}}) {
            for (size_t at; (at = line.find(mark)) != std::string::npos;) {
                line.replace(at, mark.size(), text);
            }
        }
        SCOPED_TRACE(line);
        ZARGV av;
        EXPECT_EQ(cmdline_argv(line.c_str(), &av) == 1, direct);
        int status = -1;
        const std::string want = sh_output(line, &status);
        ASSERT_NE(status, -1);
        EXPECT_EQ(through_runner(line), std::pair(want, status));
    }
    unsetenv(kArgvEnv);
}

}  // namespace
