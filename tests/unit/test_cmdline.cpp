// The one builder of command lines and the mount table's line parsing: what
// a value turns into, checked through a real shell, and which values are
// refused; lines of /proc/mounts and /proc/self/mountinfo read as data.
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

// The probe's pattern matches exactly the escaped form of the point in
// grep's eyes, whatever its characters.
TEST(MountLine, GrepPatternIsLiteral)
{
    const std::pair<const char*, const char*> cases[] = {
        {"/mnt/fs1", "/mnt/fs1"},
        {"/mnt/a b", "/mnt/a\\\\040b"},
        {"/mnt/a.b*", "/mnt/a\\.b\\*"},
        {"/m[n]t^$", "/m\\[n]t\\^\\$"},
        {"-x", "[-]x"},
        {"/a\\b", "/a\\\\134b"},
        {"/a\tb\n", "/a\\\\011b\\\\012"},
    };
    for (const auto& [path, pattern] : cases) {
        char out[256];
        ASSERT_EQ(mounts_grep_pattern(path, out, sizeof(out)), 0);
        EXPECT_STREQ(out, pattern);
    }
    char small[8];
    EXPECT_EQ(mounts_grep_pattern("/mnt/a b", small, sizeof(small)), -1);
    EXPECT_STREQ(small, "");
}

TEST(MountLine, MountPointFieldIsComparedWholeAndUnescaped)
{
    const std::tuple<const char*, const char*, bool> cases[] = {
        // clang-format off
        {"/dev/sdb1 /mnt/data ext4 rw 0 0", "/mnt/data", true},
        {"/dev/sdb1 /mnt/data2 ext4 rw 0 0", "/mnt/data", false},
        {"/dev/sdb1 /mnt/dat ext4 rw 0 0", "/mnt/data", false},
        {"/dev/sdb1 /mnt/a\\040b ext4 rw 0 0", "/mnt/a b", true},
        {"/dev/sdb1 /mnt/a\\040b ext4 rw 0 0", "/mnt/a\\040b", false},
        {"/dev/sdb1 /mnt/a\\134040b ext4 rw 0 0", "/mnt/a\\040b", true},  // the text "\040" itself
        {"/dev/sdb1 /mnt/x\\040 ext4 rw 0 0", "/mnt/x ", true},
        {"/dev/sdb1 /mnt/x\\040 ext4 rw 0 0", "/mnt/x", false},
        {"/dev/sdb1 /mnt/p%d ext4 rw 0 0", "/mnt/p%d", true},
        {"/dev/sdb1 /mnt/\\0 ext4", "/mnt/\\0", true},  // a cut escape stands as it is
        {"/dev/sdb1 /mnt/data", "/mnt/data", false},    // no blank after the field
        {"", "", false},
        {"a  b", "", true},
        // clang-format on
    };
    for (const auto& [line, want, match] : cases) {
        EXPECT_EQ(mounts_line_matches(line, want), match) << line << " | " << want;
    }
}

TEST(MountLine, MountinfoLineGivesDeviceNumberAndPoint)
{
    unsigned maj = 0;
    unsigned min = 0;
    const char* point = nullptr;
    size_t len = 0;
    ASSERT_EQ(mountinfo_line_parse("36 35 7:3 / /mnt/a\\040b rw,noatime shared:1 - ext4 /dev/loop3 rw", &maj,
                                   &min, &point, &len),
              1);
    EXPECT_EQ(std::to_string(maj) + ":" + std::to_string(min) + " " + std::string(point, len),
              "7:3 /mnt/a\\040b");
    for (const char* bad :
         {"36 35 7:3 / /mnt", "36 35 7-3 / /mnt rw", "36 35 :3 / /mnt rw", "36 35 7: / /m rw", "36 35", ""}) {
        EXPECT_EQ(mountinfo_line_parse(bad, &maj, &min, &point, &len), 0) << bad;
    }
}

}  // namespace
