// Which lines of the raw binding tool's output the check believes, and the
// report of a resource type the check does not know.
#include "config_check/zor_check.h"
#include "disk.h"
#include "node_home.h"
#include "test_support.h"

#include <zorxml.h>

#include <cstring>
#include <sys/stat.h>

namespace {

struct ParseCase {
    const char* name;
    const char* line;
    const char* rawdev;
    int taken;
    int major;
    int minor;
};

const ParseCase kParseCases[] = {
    {"bound", "/dev/raw/raw1:  bound to major 8, minor 17\n", "/dev/raw/raw1", 1, 8, 17},
    {"not bound", "/dev/raw/raw1:  bound to major 0, minor 0\n", "/dev/raw/raw1", 1, 0, 0},
    {"last line without newline", "/dev/raw/raw1:  bound to major 8, minor 17", "/dev/raw/raw1", 1, 8, 17},
    {"three digits", "/dev/raw/raw1:  bound to major 259, minor 999\n", "/dev/raw/raw1", 1, 259, 999},
    {"leading zeros", "/dev/raw/raw1:  bound to major 007, minor 000\n", "/dev/raw/raw1", 1, 7, 0},
    {"name found later in the line", "/dev/raw/raw9: see /dev/raw/raw1 major 8, minor 1\n", "/dev/raw/raw1",
     1, 8, 1},
    // Refused: the number texts of a 4-byte buffer hold at most 3 digits.
    {"major of four digits", "/dev/raw/raw1:  bound to major 1234, minor 5\n", "/dev/raw/raw1", 0, 0, 0},
    {"minor of four digits", "/dev/raw/raw1:  bound to major 8, minor 1000\n", "/dev/raw/raw1", 0, 0, 0},
    {"huge number", "/dev/raw/raw1:  bound to major 99999999999999999999, minor 1\n", "/dev/raw/raw1", 0, 0,
     0},
    // Refused: the texts must convert whole.
    {"blank before comma", "/dev/raw/raw1:  bound to major 8 , minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"letter after minor", "/dev/raw/raw1:  bound to major 8, minor 17x\n", "/dev/raw/raw1", 0, 0, 0},
    {"carriage return", "/dev/raw/raw1:  bound to major 8, minor 17\r\n", "/dev/raw/raw1", 0, 0, 0},
    {"empty major", "/dev/raw/raw1:  bound to major , minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"empty minor", "/dev/raw/raw1:  bound to major 8, minor \n", "/dev/raw/raw1", 0, 0, 0},
    {"sign", "/dev/raw/raw1:  bound to major -8, minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    // Refused: not a line about this raw device.
    {"longer name", "/dev/raw/raw10:  bound to major 8, minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"same length other name", "/dev/raw/raw2:  bound to major 8, minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"no colon", "/dev/raw/raw1 bound to major 8, minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"shell error", "sh: 1: exec: /x: not found\n", "/dev/raw/raw1", 0, 0, 0},
    {"empty line", "\n", "/dev/raw/raw1", 0, 0, 0},
    // Refused: the words and their order.
    {"no major", "/dev/raw/raw1:  bound to 8, minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"no comma", "/dev/raw/raw1:  bound to major 8 minor 17\n", "/dev/raw/raw1", 0, 0, 0},
    {"minor first", "/dev/raw/raw1:  bound to minor 17, major 8\n", "/dev/raw/raw1", 0, 0, 0},
    {"major cut short", "/dev/raw/raw1: major", "/dev/raw/raw1", 0, 0, 0},
    {"minor cut short", "/dev/raw/raw1: major 8, minor", "/dev/raw/raw1", 0, 0, 0},
};

TEST(CkbindParse, Table)
{
    for (const ParseCase& c : kParseCases) {
        int major = -1;
        int minor = -1;
        int taken = ckbind_parse_line(c.line, c.rawdev, &major, &minor);
        EXPECT_EQ(taken, c.taken) << c.name;
        if (c.taken) {
            EXPECT_EQ(major, c.major) << c.name;
            EXPECT_EQ(minor, c.minor) << c.name;
        } else {
            // A refused line leaves the caller's numbers alone.
            EXPECT_EQ(major, -1) << c.name;
            EXPECT_EQ(minor, -1) << c.name;
        }
    }
}

// The program only ever runs as "disk" or "nas"; any other type reaches the
// check only through a caller that sets it, as here.
TEST(DiskCheck, OtherResourceTypeIsReportedAndStdoutComesBack)
{
    NodeHome home;
    home.write("etc/zor.conf", "<root><all><path>" + home.path() +
                                   "</path></all><cluster><check><rdrctpath>/log/r.txt</rdrctpath>"
                                   "<chkconf>/etc/new.conf</chkconf></check></cluster></root>");
    home.write("etc/new.conf",
               "<root><xyz><log><level>8</level><size>100</size></log></xyz>"
               "<resource><xyz name=\"r1\"><parameters><disktype>disk</disktype></parameters></xyz>"
               "</resource></root>");
    ASSERT_EQ(xmllib_init("xyz"), 0);
    ASSERT_EQ(xmllib_load_config(), 0);
    char saved_type[sizeof(type)];
    memcpy(saved_type, type, sizeof(type));
    strcpy(type, "xyz");

    struct stat before;
    ASSERT_EQ(fstat(1, &before), 0);
    int ret = disk_check("r1");
    struct stat after;
    ASSERT_EQ(fstat(1, &after), 0);

    memcpy(type, saved_type, sizeof(type));
    xmllib_unload_config();
    xmllib_term();

    EXPECT_EQ(ret, 1);
    EXPECT_EQ(home.read("log/r.txt"), "***** START [type : xyz][rscname : r1]\n"
                                      "E [006] type is illegal.(xyz)\n"
                                      "***** END [type : xyz][rscname : r1]\n");
    // The result file is closed and the process's own standard output is back.
    EXPECT_EQ(before.st_dev, after.st_dev);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

}  // namespace
