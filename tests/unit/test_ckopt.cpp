// The command line: accepted forms, refusals with their status text and trace.
#include "node_home.h"

#include "bounded.h"
#include "disk.h"
#include "flows/identity.h"
#include "tracersc.h"

#include <string>
#include <vector>

namespace {

const std::string n31(31, 'r'), n32(32, 'r'), g32(32, 'g');
const std::string kBad = "Option was invalid.", kCount = "option is invalid.", kInv = "invalid option.";

struct OptCase {
    std::vector<std::string> args;  // argv without the program name
    int ret;
    int option;            // checked when ret is 0
    std::string resource;  // what the buffers hold afterwards, also on failure
    std::string group;
    std::string status;              // status text; "" = untouched
    std::string trace;               // the one record ckopt writes
    int level = 0;                   // the monitor's depth, checked when ret is 0
    std::string view = ",,,,,,0,0";  // the engine's description taken, checked when ret is 0
    std::string type = "disk";
};

// What ckopt took of the engine's description: device, directory, uuid, label, server, share, time-outs.
std::string view_of(const ZOR_ENGINE_VIEW& v)
{
    return std::string(v.device) + "," + v.directory + "," + v.uuid + "," + v.label + "," + v.server + "," +
           v.share + "," + std::to_string(v.start_timeout_ms) + "," + std::to_string(v.stop_timeout_ms);
}

// One row per line reads better than what the formatter makes of it.
// clang-format off
const std::vector<OptCase> kCases = {
    // Accepted orders and letter cases.
    {{"-g", "g1", "-r", "r1", "--ACTIVE"}, 0, OPT_ACTIVE, "r1", "g1", "", "--ACTIVE rsc:r1 grp:g1"},
    {{"--Deactive", "-R", "r1", "-G", "g1"}, 0, OPT_DEACTIVE, "r1", "g1", "", "--Deactive rsc:r1 grp:g1"},
    {{"--dactive", "-r", "r1", "-g", "g1"}, 0, OPT_DACTIVE, "r1", "g1", "", "--dactive rsc:r1 grp:g1"},
    {{"-r", "r1", "-g", "g1", "--ddeactive"}, 0, OPT_DDEACTIVE, "r1", "g1", "", "--ddeactive rsc:r1 grp:g1"},
    {{"--TEST", "r1"}, 0, OPT_TEST, "r1", "", "", "--TEST rsc:r1 grp:"},
    // The last action option wins; the name given with --test stays.
    {{"--test", "r1", "-g", "g1", "--active"}, 0, OPT_ACTIVE, "r1", "g1", "", "--active rsc:r1 grp:g1"},
    {{"--deactive", "--test", "r1", "-g", "g1"}, 0, OPT_TEST, "r1", "g1", "", "--test rsc:r1 grp:g1"},
    {{"--test", "r1", "-r", "r2", "--active"}, 1, 0, "r2", "", kBad, kInv},
    {{"--active", "-r", n31, "-g", "g1"}, 0, OPT_ACTIVE, n31, "g1", "", "--active rsc:" + n31 + " grp:g1"},
    // Refusals within a valid count (no action, or two: the driver's end-to-end tests).
    {{"-r", "r1"}, 1, 0, "r1", "", kBad, kInv},
    {{"--active", "-r", "r1", "-x", "g1"}, 1, 0, "r1", "", kBad, kInv},
    {{"--active", "-r", "-g", "g1", "x"}, 1, 0, "", "", kBad, kInv},
    {{"--test", "-r"}, 1, 0, "", "", kBad, kInv},
    {{"--active", "-g", "g1", "--deactive", "-r"}, 1, 0, "", "g1", kBad, kInv},
    {{"--active", "-r", "", "-g", "g1"}, 1, 0, "", "g1", kBad, kInv},
    // Names that do not fit the 32-byte buffers.
    {{"--active", "-r", n32, "-g", "g1"}, 1, 0, "", "",
     "Resource name was invalid. (" + n32 + ")", "option  : -r rscname=" + n32 + " invalid."},
    {{"--active", "-r", "r1", "-g", g32}, 1, 0, "r1", "",
     "Group name was invalid. (" + g32 + ")", "option  : -g grpname=" + g32 + " invalid."},
    // The monitor, with or without a depth; the depth belongs to it alone.
    {{"--monitor", "-r", "r1", "-g", "g1"}, 0, OPT_MONITOR, "r1", "g1", "", "--monitor rsc:r1 grp:g1"},
    {{"-g", "g1", "--level", "99", "-r", "r1", "--MONITOR"}, 0, OPT_MONITOR, "r1", "g1", "",
     "--MONITOR rsc:r1 grp:g1", 99},
    {{"--monitor", "-r", "r1", "-g", "g1", "--level", "07"}, 0, OPT_MONITOR, "r1", "g1", "",
     "--monitor rsc:r1 grp:g1", 7},
    {{"--active", "-r", "r1", "-g", "g1", "--level", "10"}, 1, 0, "", "", kBad, kCount},
    {{"--monitor", "-r", "r1", "-g", "g1", "--level", "-1"}, 1, 0, "r1", "g1", kBad,
     "option  : --level level=-1 invalid."},
    {{"--monitor", "-r", "r1", "-g", "g1", "--level", "100"}, 1, 0, "r1", "g1", kBad,
     "option  : --level level=100 invalid."},
    {{"--monitor", "-r", "r1", "-g", "g1", "--level"}, 1, 0, "", "", kBad, kCount},
    // The cluster engine's description and time-outs: two more arguments each, for the program's own type.
    {{"--active", "-r", "r1", "-g", "g1", "--device", "/dev/d", "--Directory", "/m", "--uuid", "u-1", "--label",
      "L", "--start-timeout", "999999999"}, 0, OPT_ACTIVE, "r1", "g1", "", "--active rsc:r1 grp:g1", 0,
     "/dev/d,/m,u-1,L,,,999999999,0"},
    {{"--stop-timeout", "20000", "--deactive", "--share", "/s", "-r", "r1", "-g", "g1", "--server", "h", "--directory",
      "/m"}, 0, OPT_DEACTIVE, "r1", "g1", "", "--deactive rsc:r1 grp:g1", 0, ",/m,,,h,/s,0,20000",
     "nas"},
    {{"--monitor", "--level", "10", "-r", "r1", "-g", "g1", "--device", "/dev/d"}, 0, OPT_MONITOR, "r1", "g1", "",
     "--monitor rsc:r1 grp:g1", 10, "/dev/d,,,,,,0,0"},
    {{"--active", "-r", "r1", "-g", "g1", "--device", "h"}, 1, 0, "", "", kBad, kCount, 0, "", "nas"},
    {{"--active", "-r", "r1", "-g", "g1", "--device", "-x"}, 1, 0, "r1", "g1", kBad, "option  : --device device=-x invalid."},
    {{"--active", "-r", "r1", "-g", "g1", "--uuid", std::string(256, 'u')}, 1, 0, "r1", "g1", kBad,
     "option  : --uuid uuid=" + std::string(256, 'u') + " invalid."},
    {{"--active", "-r", "r1", "-g", "g1", "--stop-timeout", "1234567890"}, 1, 0, "r1", "g1", kBad,
     "option  : --stop-timeout timeout=1234567890 invalid."},
    {{"--active", "-r", "r1", "-g", "g1", "--start-timeout", "2s"}, 1, 0, "r1", "g1", kBad,
     "option  : --start-timeout timeout=2s invalid."},
    {{"--test", "r1", "--device", "/dev/d"}, 1, 0, "r1", "", kBad, kInv},
};
// clang-format on

TEST(Ckopt, Table)
{
    for (const OptCase& c : kCases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        std::vector<std::string> store = {"zordisk"};
        store.insert(store.end(), c.args.begin(), c.args.end());
        NodeHome home;
        int option = 0;
        char group[ZOR_NAME_SIZE] = {};
        char resource[ZOR_NAME_SIZE] = {};
        memset(shmbuf, 0, sizeof(shmbuf));
        monlevel = 55;
        BCOPY(type, c.type.c_str());

        traceopen("disk", 8, 0, nullptr);
        int ret = ckopt(static_cast<int>(store.size()), argv_of(store).data(), &option, group, resource);
        traceclose();

        std::string view = view_of(engine_view);
        if (ret != 0) {  // option, depth and description are not looked at after a refusal
            option = monlevel = 0;
            view = c.view;
        }
        EXPECT_EQ(std::tuple(ret, option, monlevel, std::string(resource), std::string(group),
                             std::string(shmbuf), view),
                  std::tuple(c.ret, c.option, c.level, c.resource, c.group, c.status, c.view));
        EXPECT_EQ(home.messages(), std::vector<std::string>{c.trace});
    }
}

}  // namespace
