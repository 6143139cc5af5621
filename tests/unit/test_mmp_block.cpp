// The MMP block reader on image files made by mkfs.ext4, checked against
// e2fsprogs' own reading of them (dumpe2fs -h); and the
// verdict and wait that the activation draws from two reads.
#include "test_support.h"

#include "command_exec/mmp_block.h"

#include <map>
#include <regex>

namespace {

// "key: value" lines of a tool's report, keys without their leading blanks.
std::map<std::string, std::string> fields(const std::string& text)
{
    std::map<std::string, std::string> out;
    const std::regex line("(^|\n) *([^:\n]+): *([^\n]*)");
    for (std::sregex_iterator it(text.begin(), text.end(), line), end; it != end; ++it) {
        out[(*it)[2]] = (*it)[3];
    }
    return out;
}

TEST(MmpBlock, ReadsWhatE2fsprogsReads)
{
    TempDir dir;
    // Writes `bytes` (printf format, octal escapes) at byte `at` of the MMP block, found by dumpe2fs.
    auto poke = [](int at, const char* bytes) {
        return "off=$(( $(dumpe2fs -h IMG 2>/dev/null | sed -n 's/^MMP block number: *//p') * "
               "$(dumpe2fs -h IMG 2>/dev/null | sed -n 's/^Block size: *//p') + " +
               std::to_string(at) + " )) && printf '" + bytes +
               "' | dd of=IMG bs=1 seek=$off conv=notrunc status=none";
    };
    const struct {
        const char* name;
        std::string make;  // IMG: the image
        MmpRead want;
        int enabled;
    } cases[] = {
        // 1 KiB blocks: the MMP block does not start on an aligned chunk.
        {"1k", "mkfs.ext4 -q -F -O mmp -E mmp_update_interval=7 IMG", MMP_READ_OK, 1},
        {"4k", "mkfs.ext4 -q -F -b 4096 -O mmp IMG", MMP_READ_OK, 1},
        // A holder's running count and names; without checksums, which dumpe2fs would verify.
        {"held",
         "mkfs.ext4 -q -F -O mmp,^metadata_csum IMG && " + poke(4, "\\007\\000\\000\\000") + " && " +
             poke(0x10, "node-b\\000") + " && " + poke(0x50, "sdq\\000"),
         MMP_READ_OK, 1},
        {"plain", "mkfs.ext4 -q -F IMG", MMP_READ_OK, 0},
        {"bad magic", "mkfs.ext4 -q -F -O mmp IMG && " + poke(0, "\\000"), MMP_UNREADABLE, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string img = dir / (std::string(c.name) + ".img");
        const std::string make = std::regex_replace("truncate -s 16M IMG && (" + c.make + ") > /dev/null",
                                                    std::regex("IMG"), "'" + img + "'");
        ASSERT_EQ(system(make.c_str()), 0) << make;

        MMP_INFO info;
        EXPECT_EQ(mmp_read(img.c_str(), &info), c.want);
        EXPECT_EQ(info.enabled, c.enabled);
        if (c.want != MMP_READ_OK || c.enabled == 0)
            continue;
        // The superblock's report shows the MMP block as well.
        auto sb = fields(sh_output("dumpe2fs -h '" + img + "' 2>/dev/null"));
        EXPECT_EQ(strtoul(sb["mmp_sequence"].c_str(), nullptr, 16), info.seq);
        EXPECT_EQ(sb["mmp_update_time"], std::to_string(info.time));
        EXPECT_EQ(sb["mmp_check_interval"], std::to_string(info.check_interval));
        EXPECT_EQ(sb["mmp_node_name"], info.nodename);
        EXPECT_EQ(sb["mmp_device_name"], info.bdevname);
        EXPECT_EQ(sb["MMP update interval"], std::to_string(info.update_interval));
    }

    MMP_INFO info;
    EXPECT_EQ(mmp_read((dir / "missing").c_str(), &info), MMP_UNREADABLE);
    EXPECT_EQ(errno, ENOENT);
}

TEST(MmpBlock, RefusalOnlyWhenTheBlockMovedOnOrIsMarked)
{
    const MMP_INFO none{};
    auto seen = [](uint32_t seq) {
        MMP_INFO i{};
        i.enabled = 1;
        i.seq = seq;
        return i;
    };
    const struct {
        MMP_INFO before, after;
        MmpVerdict want;
    } cases[] = {
        {seen(MMP_SEQ_CLEAN), seen(MMP_SEQ_CLEAN), MMP_NOT_REFUSED},  // failed for another reason
        {seen(MMP_SEQ_CLEAN), seen(42), MMP_ACTIVE},                  // taken by another server meanwhile
        {seen(41), seen(42), MMP_ACTIVE},                             // a live holder
        {seen(41), seen(41), MMP_NOT_REFUSED},                        // a dead holder refuses nothing
        {seen(41), seen(MMP_SEQ_CLEAN), MMP_NOT_REFUSED},             // the holder let go
        {seen(41), seen(MMP_SEQ_FSCK), MMP_IN_FSCK},
        {none, seen(MMP_SEQ_FSCK), MMP_IN_FSCK},
        {none, seen(42), MMP_NOT_REFUSED},  // no look before: a count alone proves nothing
        {seen(41), none, MMP_NOT_REFUSED},  // unreadable after
    };
    for (const auto& c : cases)
        EXPECT_EQ(mmp_refusal(c.before, c.after), c.want) << c.before.seq << " -> " << c.after.seq;
}

TEST(MmpBlock, TakeoverWaitAsTheKernelCountsIt)
{
    const struct {
        unsigned update, check, want;
    } cases[] = {
        {5, 10, 42},    // the default interval once a holder has written: measured 45 s
        {5, 5, 42},     // the same, read from a block no holder has written yet
        {1, 0, 22},     // the shortest, at the kernel's lower bound of 5 s: measured 22 s
        {29, 0, 234},   // 2 x check + 1 up to a check interval of 59 s,
        {30, 0, 240},   // then check + 60
        {5, 300, 720},  // the holder's check interval counts when it is the longer
        {200, 0, 720},  // at most 300 s
    };
    for (const auto& c : cases) {
        MMP_INFO i{};
        i.enabled = 1;
        i.update_interval = c.update;
        i.check_interval = c.check;
        EXPECT_EQ(mmp_takeover_wait(i), c.want) << c.update << "/" << c.check;
    }
}

}  // namespace
