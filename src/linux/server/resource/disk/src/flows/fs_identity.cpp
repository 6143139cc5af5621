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
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// An optional text of the resource: a key that is not there is an empty one,
// traced as a detail (most resources do without it). -1 when it is there but
// cannot be read.
int read_optional(const char* resource, const char* key, char* out)
{
    char xmlpath[ZOR_PATH_SIZE];
    int size = ZOR_FSID_SIZE;
    out[0] = '\0';
    if (BPRINTF(xmlpath, "/root/resource/%s@%s/parameters/%s", type, resource, key) != 0) {
        return -1;
    }
    const int ret = xmllib_get_value(xmlpath, ZOR_XML_STRING, out, &size);
    if (ret == ZOR_XMLERR_SUCCESS) {
        return 0;
    }
    out[0] = '\0';
    if (ret == ZOR_XMLERR_NOTEXIST_PATH || ret == ZOR_XMLERR_NOTEXIST_VALUE) {
        trace(TR_DETAIL, ZOR_SRC, "xmllib_get_value(%s, %d) not set. (ret=%d)", xmlpath, ZOR_XML_STRING, ret);
        return 0;
    }
    trace(TR_ERROR, ZOR_SRC, "xmllib_get_value(%s, %d) failed. (ret=%d)", xmlpath, ZOR_XML_STRING, ret);
    return -1;
}

}  // namespace

int fs_identity_configured(const char* resource, char* uuid, char* label)
{
    const int u = read_optional(resource, "uuid", uuid);
    return read_optional(resource, "label", label) != 0 ? -1 : u;
}

const char* fs_identity_differs(const FS_IDENTITY& found, const char* uuid, const char* label)
{
    if (uuid[0] != '\0' && strcasecmp(found.uuid, uuid) != 0) {
        return "uuid";
    }
    return label[0] != '\0' && strcmp(found.label, label) != 0 ? "label" : nullptr;
}

int fs_identity_check(const char* resource, const char* dev, const char* shown, const char* fstype)
{
    char uuid[ZOR_FSID_SIZE];
    char label[ZOR_FSID_SIZE];
    if (fs_identity_configured(resource, uuid, label) != 0) {
        setshm_status(ZR_CONFIG);
        return ZR_CONFIG;
    }
    // The engine's and this node's values: the file system must have both.
    const char* expected[][2] = {{engine_view.uuid, engine_view.label}, {uuid, label}};
    if (std::all_of(&expected[0][0], &expected[0][0] + 4, [](const char* v) { return v[0] == '\0'; })) {
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
        const char* what = fs_identity_differs(found, e[0], e[1]);
        if (what != nullptr) {
            const bool u = strcmp(what, "uuid") == 0;
            trace(TR_ERROR, ZOR_SRC, "device=%s holds %s %s=%s, not %s.", shown,
                  found.type[0] != '\0' ? found.type : "no fs", what, u ? found.uuid : found.label,
                  u ? e[0] : e[1]);
            // The device last: a long name is what a full text cuts.
            setshmbuf("File system was another. (%s=%s, expected %s, %s)", what, u ? found.uuid : found.label,
                      u ? e[0] : e[1], shown);
            return ZR_FS_OTHER;
        }
    }
    return 0;
}
