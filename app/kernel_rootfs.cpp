// The combined Linux image: the kernel partition's content followed by the
// root file system. The split point comes from the U-Boot legacy header that
// sits one kernel erase block into the file:
//   kernelLength = E + 0x700 + (header data size, big-endian at header + 12)
// The first kernelLength bytes go to /dev/flash/kernel, the rest to
// /dev/flash/rootfs, both unchanged and from offset 0.
#include "app/flash_upgrader.h"

#include <iostream>

#include "app/flash_target.h"
#include "app/mtd_device.h"
#include "app/progress_count.h"
#include "app/write_unit.h"

namespace {

constexpr uint32_t kUbootMagic = 0x27051956u;
constexpr uint32_t kUbootDataSizeOffset = 12;
// Bytes of the header the split reads: the magic up to the data size field.
constexpr uint32_t kUbootFieldsRead = 16;
constexpr uint32_t kKernelFixedPart = 0x700;

const char* const kName = "eraseAndWriteKernelRootFs";

uint32_t readBigEndian32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

// One half of the combined image and the partition it goes to. The two
// halves are handled alike; only a few of their messages differ in more
// than the partition's name.
struct Half {
    const char* partition;
    const char* infoError;
    const char* eraseError;
};
const Half kKernel = {"kernel", ": Error getting kernel flash partition ", ": Error erasing kernel partition"};
const Half kRootfs = {"rootfs", ": Error getting rootfs flash partition", ": Error erasing rootfs flash partition"};

// Opens the half's partition and reads its geometry: 0, or the code after
// the message.
int openHalf(const Half& half, UniqueFd* device, mtd_info_user* info) {
    *device = mtd::openDevice(std::string("/dev/flash/") + half.partition);
    if (!device->valid()) {
        std::cerr << kName << ": Error opening " << half.partition << " flash partition " << std::endl;
        return ZEL_ACCES;
    }
    if (mtd::getInfo(device->get(), info) != ZEL_SUCCESS) {
        std::cerr << kName << half.infoError << std::endl;
        return ZEL_INVALIDDATA;
    }
    return ZEL_SUCCESS;
}

// Whether `length` bytes can be written whole into the half's partition:
// they fit, and its erase block and write unit are usable. 0, or the code
// after the message.
int checkHalfFits(const Half& half, const mtd_info_user& info, uint64_t length) {
    if (length > info.size) {
        std::cerr << kName << "Image size too big for " << half.partition << " partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (info.erasesize == 0) {
        std::cerr << kName << ": Invalid erase size " << half.partition << " partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (!write_unit::fits(info)) {
        std::cerr << kName << ": Invalid write size " << half.partition << " partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    return ZEL_SUCCESS;
}

}  // namespace

namespace {

FlashTarget halfTarget(const Half& half, int fd, const mtd_info_user& info, uint32_t length) {
    FlashTarget target(fd, info, length, half.partition, kName);
    target.eraseFailure = std::string(kName) + half.eraseError;
    target.writing = std::string("Writing file to ") + half.partition + " flash partition";
    return target;
}

}  // namespace

// A look at the rootfs partition ahead of its phase, so that what would
// refuse it refuses the image before the kernel is erased: its half is padded
// to its own write unit, which must be usable, and on NAND it must fit the
// good blocks. A device that cannot be opened or asked, or a half too large
// for it, is left to the rootfs phase, which reports it in its place.
int FlashUpgrader::lookAheadAtRootfs(uint32_t length) {
    UniqueFd rootfs = mtd::openDevice("/dev/flash/rootfs");
    mtd_info_user info{};
    if (!rootfs.valid() || mtd::getInfo(rootfs.get(), &info) != ZEL_SUCCESS) {
        return ZEL_SUCCESS;
    }
    if (!write_unit::fits(info)) {
        std::cerr << kName << ": Invalid write size rootfs partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (!mtd::isNand(info) || info.erasesize == 0 || length > info.size) {
        return ZEL_SUCCESS;
    }
    FlashTarget target(rootfs.get(), info, length, kRootfs.partition, kName);
    return placeOnGoodBlocks(target, length);
}

int FlashUpgrader::writeHalf(FlashTarget& target, const uint8_t* data, uint32_t length, int* current) {
    const int rc = prepareBlocks(target, data, length);
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    return eraseWriteVerify(target, data, length, current);
}

int FlashUpgrader::eraseAndWriteKernelRootFs(uint32_t size, int current, const uint8_t* image) {
    UniqueFd kernel;
    mtd_info_user kernelInfo{};
    int rc = openHalf(kKernel, &kernel, &kernelInfo);
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    const uint32_t headerOffset = kernelInfo.erasesize;
    // Nothing past the end of the image may be read: the header fields must lie
    // inside it (64-bit sum, so a huge erase size cannot wrap around).
    if (uint64_t{headerOffset} + kUbootFieldsRead > size) {
        std::cerr << kName << ": Error - image of size " << size
                  << " too short for U-Boot header at offset " << headerOffset << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (readBigEndian32(image + headerOffset) != kUbootMagic) {
        std::cerr << kName << "U-boot header magic incorrect" << std::endl;
        return ZEL_INVALIDDATA;
    }
    // In 64 bits, so a header that announces more than 4 GiB is simply too
    // big for the partition instead of wrapping to a small length.
    const uint64_t kernelLength =
        uint64_t{headerOffset} + kKernelFixedPart + readBigEndian32(image + headerOffset + kUbootDataSizeOffset);
    rc = checkHalfFits(kKernel, kernelInfo, kernelLength);
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    // A header promising more than the file holds is refused just below.
    rc = lookAheadAtRootfs(kernelLength <= size ? static_cast<uint32_t>(size - kernelLength) : 0);
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    // The header may promise more than the file holds: refuse before
    // anything is erased.
    if (kernelLength > size) {
        std::cerr << kName << ": Error - image of size " << size << " shorter than kernel length "
                  << kernelLength << std::endl;
        return ZEL_INVALIDDATA;
    }
    // Fits the 32-bit image size from here on.
    const uint32_t kernelBytes = static_cast<uint32_t>(kernelLength);
    FlashTarget kernelTarget = halfTarget(kKernel, kernel.get(), kernelInfo, kernelBytes);
    rc = writeHalf(kernelTarget, image, kernelBytes, &current);
    kernel.reset();
    if (rc != ZEL_SUCCESS) {
        return rc;
    }

    // Root file system phase; a failure here leaves the new kernel in place.
    UniqueFd rootfs;
    mtd_info_user rootfsInfo{};
    rc = openHalf(kRootfs, &rootfs, &rootfsInfo);
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    const uint32_t rootfsBytes = size - kernelBytes;
    // Checked again: the geometry may have changed since the look before the
    // kernel phase.
    rc = checkHalfFits(kRootfs, rootfsInfo, rootfsBytes);
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    FlashTarget rootfsTarget = halfTarget(kRootfs, rootfs.get(), rootfsInfo, rootfsBytes);
    return writeHalf(rootfsTarget, image + kernelBytes, rootfsBytes, &current);
}
