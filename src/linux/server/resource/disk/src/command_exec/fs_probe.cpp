// The file system's identity read with libblkid (see fs_probe.h). In a file
// of its own, so that only a program that asks for it links the library.
#include "fs_probe.h"

#include <blkid.h>
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// A value of the probe into out; empty when the file system has none.
void value_of(blkid_probe pr, const char* name, char* out, size_t size)
{
    const char* data = nullptr;
    size_t len = 0;
    out[0] = '\0';
    if (blkid_probe_lookup_value(pr, name, &data, &len) == 0 && data != nullptr) {
        snprintf(out, size, "%s", data);
    }
}

// One search of the device, limited to `types` when given: 0, 1 or -1.
int search(int fd, const char* const* types, PFS_IDENTITY id)
{
    blkid_probe pr = blkid_new_probe();
    if (pr == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    int ret = -1;
    if (blkid_probe_set_device(pr, fd, 0, 0) == 0 && blkid_probe_enable_superblocks(pr, 1) == 0 &&
        blkid_probe_set_superblocks_flags(pr, BLKID_SUBLKS_TYPE | BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL) ==
            0 &&
        (types == nullptr ||
         blkid_probe_filter_superblocks_type(pr, BLKID_FLTR_ONLYIN, const_cast<char**>(types)) == 0)) {
        // Ambivalent (two signatures) counts as none: the device is not what it should be.
        const int rc = blkid_do_safeprobe(pr);
        ret = rc == 0 ? 0 : rc < 0 && rc != -2 ? -1 : 1;
        if (ret == 0) {
            value_of(pr, "TYPE", id->type, sizeof(id->type));
            value_of(pr, "UUID", id->uuid, sizeof(id->uuid));
            value_of(pr, "LABEL", id->label, sizeof(id->label));
        }
    }
    blkid_free_probe(pr);
    return ret;
}

}  // namespace

int fs_probe(const char* dev, const char* fstype, PFS_IDENTITY id)
{
    memset(id, 0, sizeof(*id));
    int fd = open(dev, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    // Cached blocks of the device may predate another server's writes.
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    static const char* const ext[] = {"ext2", "ext3", "ext4", "ext4dev", nullptr};
    const char* const one[] = {fstype, nullptr};
    const char* const* family = strncmp(fstype, "ext", 3) == 0 ? ext : one;
    int ret = search(fd, fstype[0] != '\0' ? family : nullptr, id);
    if (ret == 1 && fstype[0] != '\0') {
        ret = search(fd, nullptr, id);
    }
    const int err = errno;
    close(fd);
    errno = err;
    return ret;
}
