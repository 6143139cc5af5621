// The command line: accepted forms, refusals with their status text and trace.
#include "node_home.h"

#include "disk.h"
#include "tracersc.h"

#include <string>
#include <vector>

namespace {

struct OptCase {
    const char* name;
    std::vector<std::string> args;  // argv without the program name
    int ret;
    int option;            // checked when ret is 0
    const char* resource;  // what the buffers hold afterwards, also on failure
    const char* group;
    std::string status;  // status text; "" = untouched
    std::string trace;   // the one record ckopt writes
};

const std::string n31(31, 'r');
const std::string n32(32, 'r');
const std::string n33(33, 'r');
const std::string g32(32, 'g');

// One row per line reads better than what the formatter makes of it.
// clang-format off
std::vector<OptCase> cases()
{
    return {
        // Accepted forms.
        {"usual order", {"--active", "-r", "r1", "-g", "g1"}, 0, OPT_ACTIVE, "r1", "g1", "",
         "--active rsc:r1 grp:g1"},
        {"any order, upper case", {"-g", "g1", "-r", "r1", "--ACTIVE"}, 0, OPT_ACTIVE, "r1", "g1", "",
         "--ACTIVE rsc:r1 grp:g1"},
        {"deactive", {"--Deactive", "-R", "r1", "-G", "g1"}, 0, OPT_DEACTIVE, "r1", "g1", "",
         "--Deactive rsc:r1 grp:g1"},
        {"dactive", {"--dactive", "-r", "r1", "-g", "g1"}, 0, OPT_DACTIVE, "r1", "g1", "",
         "--dactive rsc:r1 grp:g1"},
        {"ddeactive", {"-r", "r1", "-g", "g1", "--ddeactive"}, 0, OPT_DDEACTIVE, "r1", "g1", "",
         "--ddeactive rsc:r1 grp:g1"},
        {"test without group", {"--test", "r1"}, 0, OPT_TEST, "r1", "", "", "--test rsc:r1 grp:"},
        {"test upper case", {"--TEST", "r1"}, 0, OPT_TEST, "r1", "", "", "--TEST rsc:r1 grp:"},
        // The last action option wins; the name given with --test stays.
        {"later action replaces test", {"--test", "r1", "-g", "g1", "--active"}, 0, OPT_ACTIVE, "r1", "g1",
         "", "--active rsc:r1 grp:g1"},
        {"test after deactive", {"--deactive", "--test", "r1", "-g", "g1"}, 0, OPT_TEST, "r1", "g1", "",
         "--test rsc:r1 grp:g1"},
        {"later -r replaces --test name", {"--test", "r1", "-r", "r2", "--active"}, 1, 0, "r2", "",
         "Option was invalid.", "invalid option."},
        {"31-character name", {"--active", "-r", n31, "-g", "g1"}, 0, OPT_ACTIVE, n31.c_str(), "g1", "",
         "--active rsc:" + n31 + " grp:g1"},
        // Count errors.
        {"no arguments", {}, 1, 0, "", "", "Option was invalid.", "option is invalid."},
        {"four elements", {"--active", "-r", "r1"}, 1, 0, "", "", "Option was invalid.",
         "option is invalid."},
        {"seven elements", {"--active", "--deactive", "-r", "r1", "-g", "g1"}, 1, 0, "", "",
         "Option was invalid.", "option is invalid."},
        // Refusals within a valid count.
        {"no action option", {"-r", "r1"}, 1, 0, "r1", "", "Option was invalid.", "invalid option."},
        {"unknown option", {"--active", "-r", "r1", "-x", "g1"}, 1, 0, "r1", "", "Option was invalid.",
         "invalid option."},
        {"unknown value alone", {"--active", "x"}, 1, 0, "", "", "Option was invalid.", "invalid option."},
        {"value begins with -", {"--active", "-r", "-g", "g1", "x"}, 1, 0, "", "", "Option was invalid.",
         "invalid option."},
        {"test value begins with -", {"--test", "-r"}, 1, 0, "", "", "Option was invalid.",
         "invalid option."},
        {"missing value at the end", {"--active", "-g", "g1", "--deactive", "-r"}, 1, 0, "", "g1",
         "Option was invalid.", "invalid option."},
        {"no group", {"--active", "-r", "r1", "-r", "r2"}, 1, 0, "r2", "", "Option was invalid.",
         "invalid option."},
        {"empty resource name", {"--active", "-r", "", "-g", "g1"}, 1, 0, "", "g1", "Option was invalid.",
         "invalid option."},
        // Names that do not fit the 32-byte buffers.
        {"32-character resource", {"--active", "-r", n32, "-g", "g1"}, 1, 0, "", "",
         "Resource name was invalid. (" + n32 + ")", "option  : -r rscname=" + n32 + " invalid."},
        {"33-character resource", {"-g", "g1", "-r", n33, "--active"}, 1, 0, "", "g1",
         "Resource name was invalid. (" + n33 + ")", "option  : -r rscname=" + n33 + " invalid."},
        {"32-character test name", {"--test", n32}, 1, 0, "", "", "Resource name was invalid. (" + n32 + ")",
         "option  : --test rscname=" + n32 + " invalid."},
        {"32-character group", {"--active", "-r", "r1", "-g", g32}, 1, 0, "r1", "",
         "Group name was invalid. (" + g32 + ")", "option  : -g grpname=" + g32 + " invalid."},
    };
}
// clang-format on

TEST(Ckopt, Table)
{
    for (const OptCase& c : cases()) {
        SCOPED_TRACE(c.name);
        NodeHome home;
        std::vector<std::string> store = {"zordisk"};
        store.insert(store.end(), c.args.begin(), c.args.end());
        std::vector<char*> argv;
        for (std::string& s : store) {
            argv.push_back(s.data());
        }
        argv.push_back(nullptr);
        int option = 0;
        char group[ZOR_NAME_SIZE] = {};
        char resource[ZOR_NAME_SIZE] = {};
        memset(shmbuf, 0, sizeof(shmbuf));

        traceopen("disk", 8, 0, nullptr);
        int ret = ckopt(static_cast<int>(store.size()), argv.data(), &option, group, resource);
        traceclose();

        EXPECT_EQ(ret, c.ret);
        if (c.ret == 0) {
            EXPECT_EQ(option, c.option);
        }
        EXPECT_STREQ(resource, c.resource);
        EXPECT_STREQ(group, c.group);
        EXPECT_EQ(std::string(shmbuf), c.status);
        EXPECT_EQ(home.messages(), std::vector<std::string>{c.trace});
    }
}

}  // namespace
