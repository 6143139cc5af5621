// The one builder of command lines: what a value turns into, checked
// through a real shell, and which values are refused. (The mount probe's
// pattern meets real grep in the mount-point names of the end-to-end tests.)
#include "node_home.h"

#include "command_exec/cmdline.h"
#include "command_exec/zor_exec.h"

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

// Unquoted values hold only what such a value needs; the first refused one
// is named by its position.
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
        EXPECT_EQ(cmd_word_ok(value, kind), ok);
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

}  // namespace
