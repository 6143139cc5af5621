// The mount point's canonical form made without looking at what is mounted
// on it: the same answer as realpath() wherever the two can agree.
#include "test_support.h"

#include "command_exec/zor_exec.h"

#include <sys/stat.h>
#include <cerrno>
#include <climits>
#include <string>

namespace {

TEST(PointPath, AgreesWithRealpathWithoutLookingIntoTheLastComponent)
{
    TempDir tmp;
    char canon_tmp[PATH_MAX];
    ASSERT_NE(realpath(tmp.path().c_str(), canon_tmp), nullptr);
    const std::string t = canon_tmp;
    ASSERT_EQ(mkdir((t + "/a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((t + "/a/b").c_str(), 0755), 0);
    ASSERT_EQ(symlink("a/b", (t + "/rel").c_str()), 0);               // relative target
    ASSERT_EQ(symlink((t + "/a").c_str(), (t + "/abs").c_str()), 0);  // absolute target
    ASSERT_EQ(symlink("rel", (t + "/chain").c_str()), 0);             // link to a link
    ASSERT_EQ(symlink("loop", (t + "/loop").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (t + "/dangling").c_str()), 0);

    const std::string enoent = "errno " + std::to_string(ENOENT);
    const std::pair<std::string, std::string> cases[] = {
        {t + "/a/b", t + "/a/b"},
        {t + "//a/./b//", t + "/a/b"},
        {t + "/a/b/..", t + "/a"},
        {t + "/rel", t + "/a/b"},
        {t + "/chain/", t + "/a/b"},
        {t + "/abs/b", t + "/a/b"},  // a link in the parent
        {t + "/rel/..", t},          // ".." taken lexically, before the link (realpath: t/a)
        {t + "/a/missing", enoent},
        {t + "/missing/b", enoent},
        {t + "/loop", "errno " + std::to_string(ELOOP)},
        {t + "/dangling", enoent},
        {"/", "/"},
        {"/..", "/"},
        {"", enoent},
    };
    for (const auto& [path, want] : cases) {
        char out[PATH_MAX] = "untouched";
        errno = 0;
        const char* got = zor_point_path(path.c_str(), out);
        EXPECT_EQ(got == nullptr ? "errno " + std::to_string(errno)
                  : got == out   ? out
                                 : "another buffer",
                  want)
            << path;
    }
}

}  // namespace
