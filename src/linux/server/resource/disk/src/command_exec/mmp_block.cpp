// ext4's multi-mount protection read from the device: the superblock at byte
// 1024, then the MMP block it names. Layouts as e2fsprogs and the kernel's
// fs/ext4 define them (little-endian on disk).
#include "mmp_block.h"

#include <endian.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// O_DIRECT wants the buffer, the offset and the length aligned to the
// device's logical block size; 4096 serves every size up to a page.
constexpr size_t kChunk = 4096;

constexpr uint16_t kExtMagic = 0xEF53;
constexpr uint32_t kMmpMagic = 0x004D4D50;
constexpr uint32_t kIncompatMmp = 0x0100;
constexpr uint32_t kIncompat64bit = 0x0080;
constexpr unsigned kMinCheckInterval = 5;  // the kernel's bounds of the check interval
constexpr unsigned kMaxCheckInterval = 300;

// Superblock fields (offsets within the superblock).
constexpr size_t kSbBlocksLo = 0x04, kSbFirstDataBlock = 0x14, kSbLogBlockSize = 0x18, kSbMagic = 0x38,
                 kSbIncompat = 0x60, kSbBlocksHi = 0x150, kSbMmpInterval = 0x166, kSbMmpBlock = 0x168;
// MMP block fields.
constexpr size_t kMmpMagicOff = 0x00, kMmpSeq = 0x04, kMmpTime = 0x08, kMmpNode = 0x10, kMmpBdev = 0x50,
                 kMmpCheckInterval = 0x70;

uint16_t le16(const unsigned char* p)
{
    uint16_t v;
    memcpy(&v, p, sizeof(v));
    return le16toh(v);
}
uint32_t le32(const unsigned char* p)
{
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return le32toh(v);
}
uint64_t le64(const unsigned char* p)
{
    uint64_t v;
    memcpy(&v, p, sizeof(v));
    return le64toh(v);
}

// A name field of the block, not always NUL-terminated there.
template <size_t N>
void name_field(char (&out)[N], const unsigned char* p)
{
    memcpy(out, p, N - 1);
    out[N - 1] = '\0';
}

struct Device {
    int fd = -1;
    ~Device()
    {
        if (fd >= 0)
            close(fd);
    }
};

struct FreeDeleter {
    void operator()(void* p) const
    {
        free(p);
    }
};

// The aligned chunk that holds byte `offset`, into buf; the chunk's start.
bool read_chunk(int fd, uint64_t offset, unsigned char* buf, uint64_t* start)
{
    *start = offset - offset % kChunk;
    ssize_t n;
    while ((n = pread(fd, buf, kChunk, static_cast<off_t>(*start))) < 0 && errno == EINTR) {
    }
    if (n < 0)
        return false;
    if (static_cast<size_t>(n) < offset - *start + 1024) {
        errno = EIO;  // the device ends inside the structure
        return false;
    }
    return true;
}

}  // namespace

MmpRead mmp_read(const char* devname, PMMP_INFO info)
{
    *info = MMP_INFO{};
    Device dev;
    dev.fd = open(devname, O_RDONLY | O_DIRECT | O_CLOEXEC);
    // A file system that cannot do direct reads (an image file, in tests) is
    // read through the cache: nobody else writes to it behind our back.
    if (dev.fd < 0 && errno == EINVAL)
        dev.fd = open(devname, O_RDONLY | O_CLOEXEC);
    if (dev.fd < 0)
        return MMP_UNREADABLE;

    void* mem = nullptr;
    if (posix_memalign(&mem, kChunk, kChunk) != 0) {
        errno = ENOMEM;
        return MMP_UNREADABLE;
    }
    std::unique_ptr<unsigned char, FreeDeleter> buf(static_cast<unsigned char*>(mem));

    uint64_t start;
    if (!read_chunk(dev.fd, 1024, buf.get(), &start))
        return MMP_UNREADABLE;
    const unsigned char* sb = buf.get() + 1024;
    if (le16(sb + kSbMagic) != kExtMagic)
        return MMP_NOT_EXT;
    const uint32_t incompat = le32(sb + kSbIncompat);
    if ((incompat & kIncompatMmp) == 0)
        return MMP_READ_OK;

    const uint32_t log_block = le32(sb + kSbLogBlockSize);
    uint64_t blocks = le32(sb + kSbBlocksLo);
    if ((incompat & kIncompat64bit) != 0)
        blocks |= static_cast<uint64_t>(le32(sb + kSbBlocksHi)) << 32;
    const uint64_t mmp_block = le64(sb + kSbMmpBlock);
    // A block the kernel would refuse to read is not read here either.
    if (log_block > 6 || mmp_block < le32(sb + kSbFirstDataBlock) || mmp_block >= blocks) {
        errno = EUCLEAN;
        return MMP_UNREADABLE;
    }
    info->enabled = 1;
    info->update_interval = le16(sb + kSbMmpInterval);

    const uint64_t offset = mmp_block << (10 + log_block);
    if (!read_chunk(dev.fd, offset, buf.get(), &start))
        return MMP_UNREADABLE;
    const unsigned char* mmp = buf.get() + (offset - start);
    if (le32(mmp + kMmpMagicOff) != kMmpMagic) {
        errno = EUCLEAN;
        return MMP_UNREADABLE;
    }
    info->seq = le32(mmp + kMmpSeq);
    info->time = le64(mmp + kMmpTime);
    info->check_interval = le16(mmp + kMmpCheckInterval);
    name_field(info->nodename, mmp + kMmpNode);
    name_field(info->bdevname, mmp + kMmpBdev);
    return MMP_READ_OK;
}

MmpVerdict mmp_refusal(const MMP_INFO& before, const MMP_INFO& after)
{
    if (after.enabled == 0)
        return MMP_NOT_REFUSED;
    if (after.seq == MMP_SEQ_FSCK)
        return MMP_IN_FSCK;
    // Without a look before, a moved sequence cannot be told from one that stood.
    if (before.enabled != 0 && after.seq != MMP_SEQ_CLEAN && after.seq != before.seq)
        return MMP_ACTIVE;
    return MMP_NOT_REFUSED;
}

unsigned mmp_takeover_wait(const MMP_INFO& info)
{
    // A holder writes a check interval of twice its update interval (the
    // time an update takes it, doubled), what a fresh file system's block does
    // not show yet.
    const unsigned holders = std::min(2 * info.update_interval, kMaxCheckInterval);
    const unsigned check = std::max({info.update_interval, kMinCheckInterval, info.check_interval, holders});
    return 2 * std::min(2 * check + 1, check + 60);
}
