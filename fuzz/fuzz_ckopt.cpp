// libFuzzer harness: the agent's option parser. The input is the command line
// after the program name, its arguments separated by NUL bytes.
#include "disk.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // More arguments than any valid command line has; ckopt must refuse them.
    constexpr size_t kMaxArgs = 16;
    std::vector<std::string> args{"zordisk"};
    std::string cur;
    for (size_t i = 0; i < size && args.size() < kMaxArgs; i++) {
        if (data[i] == '\0') {
            args.push_back(cur);
            cur.clear();
        } else {
            cur.push_back(static_cast<char>(data[i]));
        }
    }
    if (!cur.empty() && args.size() < kMaxArgs) {
        args.push_back(cur);
    }
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);

    int option = 0;
    char group[ZOR_NAME_SIZE] = "";
    char resource[ZOR_NAME_SIZE] = "";
    shmbuf[0] = '\0';
    int ret = ckopt(static_cast<int>(args.size()), argv.data(), &option, group, resource);
    // What the driver relies on: terminated names that fit, a known option
    // code on success, a status text on failure.
    if (strnlen(group, sizeof(group)) >= sizeof(group) ||
        strnlen(resource, sizeof(resource)) >= sizeof(resource) ||
        strnlen(shmbuf, sizeof(shmbuf)) >= sizeof(shmbuf)) {
        __builtin_trap();
    }
    if (ret == 0 && (option < OPT_ACTIVE || option > OPT_MONITOR || resource[0] == '\0')) {
        __builtin_trap();
    }
    if (ret != 0 && shmbuf[0] == '\0') {
        __builtin_trap();
    }
    return 0;
}
