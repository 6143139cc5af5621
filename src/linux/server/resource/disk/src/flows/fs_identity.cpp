// The file system's identity before an activation touches the device (see
// fs_identity.h).
#include "fs_identity.h"

#include "../bounded.h"
#include "../command_exec/fs_probe.h"
#include "../globals.h"
#include "../tracersc.h"
#include "identity.h"

#include <zorxml.h>

#include <strings.h>
#include <cerrno>
#include <cstring>

namespace {

// An optional text of the resource: a key that is not there is an empty one,
// traced as a detail (most resources do without it).
void read_optional(const char* resource, const char* key, char* out)
{
    char xmlpath[ZOR_PATH_SIZE];
    int size = ZOR_FSID_SIZE;
    out[0] = '\0';
    if (BPRINTF(xmlpath, "/root/resource/%s@%s/parameters/%s", type, resource, key) != 0) {
        return;
    }
    const int ret = xmllib_get_value(xmlpath, ZOR_XML_STRING, out, &size);
    if (ret != 0) {
        out[0] = '\0';
        trace(TR_DETAIL, ZOR_SRC, "xmllib_get_value(%s, %d) not set. (ret=%d)", xmlpath, ZOR_XML_STRING, ret);
    }
}

// One expected value against the file system's: 0 or ZR_FS_OTHER.
int compare(const char* shown, const FS_IDENTITY& found, const char* what, const char* expected)
{
    const char* have = strcmp(what, "uuid") == 0 ? found.uuid : found.label;
    // UUIDs are written in either case; a label is compared as it stands.
    const bool same =
        strcmp(what, "uuid") == 0 ? strcasecmp(have, expected) == 0 : strcmp(have, expected) == 0;
    if (expected[0] == '\0' || same) {
        return 0;
    }
    trace(TR_ERROR, ZOR_SRC, "device=%s holds %s %s=%s, not %s.", shown, found.type[0] ? found.type : "no fs",
          what, have, expected);
    // The device last: a long name is what a full text cuts.
    setshmbuf("File system was another. (%s=%s, expected %s, %s)", what, have, expected, shown);
    return ZR_FS_OTHER;
}

}  // namespace

void fs_identity_configured(const char* resource, char* uuid, char* label)
{
    read_optional(resource, "uuid", uuid);
    read_optional(resource, "label", label);
}

int fs_identity_check(const char* resource, const char* dev, const char* shown, const char* fstype)
{
    char uuid[ZOR_FSID_SIZE];
    char label[ZOR_FSID_SIZE];
    fs_identity_configured(resource, uuid, label);
    const char* expected[][2] = {
        {"uuid", engine_view.uuid}, {"uuid", uuid}, {"label", engine_view.label}, {"label", label}};
    bool any = false;
    for (const auto& e : expected) {
        any = any || e[1][0] != '\0';
    }
    if (!any) {
        return 0;
    }
    FS_IDENTITY found;
    if (fs_probe(dev, fstype, &found) < 0) {
        trace(TR_ERROR, ZOR_SRC, "device=%s (%s) cannot be read. (errno=%d)", shown, dev, errno);
        setshmbuf("Device was invalid. (%s)", shown);
        return ZR_DEVICE_INVALID;
    }
    trace(TR_INFO, ZOR_SRC, "device=%s holds %s uuid=%s label=%s.", shown, found.type, found.uuid,
          found.label);
    for (const auto& e : expected) {
        const int ret = compare(shown, found, e[0], e[1]);
        if (ret != 0) {
            return ret;
        }
    }
    return 0;
}
