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

    const struct {
        std::string path;
        std::string want;  // "" = fails with err
        int err;
    } cases[] = {
        {t + "/a/b", t + "/a/b", 0},
        {t + "//a/./b//", t + "/a/b", 0},
        {t + "/a/b/..", t + "/a", 0},
        {t + "/rel", t + "/a/b", 0},
        {t + "/chain/", t + "/a/b", 0},
        {t + "/abs/b", t + "/a/b", 0},  // a link in the parent
        {t + "/rel/..", t, 0},          // ".." taken lexically, before the link (realpath: t/a)
        {t + "/a/missing", "", ENOENT},
        {t + "/missing/b", "", ENOENT},
        {t + "/loop", "", ELOOP},
        {t + "/dangling", "", ENOENT},
        {"/", "/", 0},
        {"/..", "/", 0},
        {"", "", ENOENT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        char out[PATH_MAX] = "untouched";
        errno = 0;
        const char* got = zor_point_path(c.path.c_str(), out);
        if (c.want.empty()) {
            EXPECT_EQ(got, nullptr) << out;
            EXPECT_EQ(errno, c.err);
        } else {
            ASSERT_EQ(got, out);
            EXPECT_EQ(std::string(out), c.want);
        }
    }
}

}  // namespace
