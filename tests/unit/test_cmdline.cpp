// Command lines: what the one builder turns a value into, checked through a
// real shell, and which values it refuses (the mount probe's pattern meets real
// grep in the mount-point names of the end-to-end tests); and that a line gives
// the same argv, output and exit status whether the runner splits it itself or
// hands it to /bin/sh -c. The program run there is this test binary again,
// which prints its arguments, writes one line to stderr and exits with its
// argument count.
#include "test_support.h"

#include "command_exec/cmdline.h"
#include "command_exec/cmdline_argv.h"
#include "command_exec/proc_runner.h"
#include "command_exec/zor_exec.h"

#include <sys/stat.h>

#include <fstream>
#include <regex>
#include <string>

namespace {

std::string build(const char* fmt, std::initializer_list<ZCMD_ARG> args)
{
    char out[1024];
    int bad = -1;
    const int r = cmdline_build(out, sizeof(out), fmt, args, &bad);
    return r == ZCMD_OK ? std::string(out) : "refused " + std::to_string(r) + " at " + std::to_string(bad);
}

// Any text in a quoted field reaches the command unchanged: the shell runs
// nothing and expands nothing.
TEST(CmdLine, QuotedValuesReachTheCommandAsText)
{
    // A marker of this run only, removed again: one left by a fault must not fail later runs.
    const std::string never = "/tmp/zor-never." + std::to_string(getpid());
    // The four characters that keep a meaning in double quotes, a backslash before the closing quote,
    // printf's fields, and what the shell acts on outside quotes only.
    const std::string values[] = {"a\"b",
                                  "a\\\"b",
                                  "x\\",
                                  "\\\\",
                                  "%s %d",
                                  "a;b|c&d 'single' * ~ #x ! tab\there new\nline",
                                  "$(touch " + never + ")",
                                  "`touch " + never + "`"};
    for (const std::string& v : values) {
        SCOPED_TRACE(v);
        const std::string line = build("exec /bin/echo \"x%s\"", {zarg("mount/point", v.c_str())});
        EXPECT_EQ(sh_output(line), "x" + v + "\n") << line;
    }
    EXPECT_NE(access(never.c_str(), F_OK), 0);
    unlink(never.c_str());
}

// Unquoted values hold only what such a value needs (cmd_word_ok, which the
// builder asks); the first refused one is named by its position.
TEST(CmdLine, UnquotedValuesAreRefusedUnlessPlain)
{
    const std::tuple<const char*, int, bool> cases[] = {
        // clang-format off
        {"ext4", ZA_WORD, true}, {"fuse.sshfs", ZA_WORD, true}, {"", ZA_WORD, true},
        {"uid=0,gid=0,IdentityFile=/etc/k,vers=4.1", ZA_WORD, true}, {"user@host", ZA_WORD, true},
        {"-f -l", ZA_WORDS, true}, {"-y", ZA_WORDS, true}, {"-y", ZA_WORD, false}, {"a b", ZA_WORD, false},
        {"a;b", ZA_WORDS, false}, {"$x", ZA_WORDS, false}, {"a>b", ZA_WORDS, false}, {"'a'", ZA_WORDS, false},
        {"a\tb", ZA_WORDS, false}, {"a\\b", ZA_WORDS, false}, {"*", ZA_WORDS, false}, {"~root", ZA_WORDS, false},
        {"#", ZA_WORDS, false}, {"{a}", ZA_WORDS, false},
        // clang-format on
    };
    for (const auto& [value, kind, ok] : cases) {
        SCOPED_TRACE(std::string(value) + " kind " + std::to_string(kind));
        const std::string line =
            build("exec \"%s\" %s %s", {zarg("p", "/x"), zarg("fs", "ext4"), zarg("k", value, kind)});
        EXPECT_EQ(line, ok ? std::string("exec \"/x\" ext4 ") + value : "refused 2 at 2");
    }
}

TEST(CmdLine, LineThatDoesNotFitIsRefusedNotCut)
{
    // The format's 12 characters and 1011 more make the 1023 that fit with the terminator.
    const std::string big(1011, 'a'), refused = "refused " + std::to_string(ZCMD_LONG) + " at -1";
    EXPECT_EQ(build("exec \"%s\" 2>&1", {zarg("p", big.c_str())}), "exec \"" + big + "\" 2>&1");
    EXPECT_EQ(build("exec \"%s\" 2>&1", {zarg("p", (big + "a").c_str())}), refused);
    // Escapes count: 506 quotes need 1012 characters.
    EXPECT_EQ(build("exec \"%s\" 2>&1", {zarg("p", std::string(506, '"').c_str())}), refused);
    EXPECT_EQ(build("exec \"%s\" \"%s\"", {zarg("p", "x")}), refused);  // more fields than values
}

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
        const std::string line = std::regex_replace(std::regex_replace(pattern, std::regex("\\{P\\}"), self),
                                                    std::regex("\\{D\\}"), dir.path());
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
