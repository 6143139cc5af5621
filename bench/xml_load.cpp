// Times the configuration library on a large configuration: the load, one
// group enumeration and one read of every resource's mount point.
// Built and run by bench/xml_load.sh; not part of the test suite.
#include "zorxml.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

double ms_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv)
{
    int n = argc > 1 ? atoi(argv[1]) : 10000;
    auto t0 = std::chrono::steady_clock::now();
    if (xmllib_init("disk") != 0 || xmllib_load_policy("all") != 0 || xmllib_load_config() != 0) {
        fprintf(stderr, "xml_load: the configuration did not load\n");
        return 1;
    }
    double load = ms_since(t0);

    t0 = std::chrono::steady_clock::now();
    int size = 0;
    xmllib_enum_value("/root/group", nullptr, &size);
    std::vector<char> groups(static_cast<size_t>(size > 0 ? size : 1));
    int ret = xmllib_enum_value("/root/group", groups.data(), &size);
    double enumerate = ms_since(t0);

    t0 = std::chrono::steady_clock::now();
    int failed = 0;
    for (int i = 0; i < n; i++) {
        char path[256];
        char point[1024];
        int psize = sizeof(point);
        snprintf(path, sizeof(path), "/root/resource/disk@fs%d/parameters/mount/point", i);
        failed += xmllib_get_srvsep_value("node1", path, ZOR_XML_STRING, point, &psize) != 0;
    }
    double reads = ms_since(t0);
    xmllib_unload_config();
    xmllib_unload_policy("all");
    xmllib_term();

    printf("resources: %d\n", n);
    printf("load (init, policy, config): %.1f ms\n", load);
    printf("enumerate /root/group: %.2f ms (%d groups, ret %d)\n", enumerate, size / ZOR_XML_ENUM_SLOT, ret);
    printf("read every mount point: %.1f ms (%.1f us per read, %d failed)\n", reads, reads * 1000.0 / n,
           failed);
    return failed == 0 && ret == 0 ? 0 : 1;
}
