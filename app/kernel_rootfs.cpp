// The combined Linux image: the kernel partition's content followed by the
// root file system. The split point comes from the U-Boot legacy header that
// sits one kernel erase block into the file:
//   kernelLength = E + 0x700 + (header data size, big-endian at header + 12)
// The first kernelLength bytes go to /dev/flash/kernel, the rest to
// /dev/flash/rootfs, both unchanged and from offset 0.
#include "app/flash_upgrader.h"

#include <iostream>

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

// A look at the rootfs partition's geometry ahead of its phase. A device
// that cannot be opened or asked is left to the rootfs phase, which reports
// it in its place.
bool rootfsWriteUnitFits() {
    UniqueFd rootfs = mtd::openDevice("/dev/flash/rootfs");
    mtd_info_user info{};
    if (!rootfs.valid() || mtd::getInfo(rootfs.get(), &info) != ZEL_SUCCESS) {
        return true;
    }
    return write_unit::fits(info);
}

}  // namespace

int FlashUpgrader::eraseAndWriteKernelRootFs(uint32_t size, int current, const uint8_t* image) {
    // Kernel phase.
    UniqueFd kernel = mtd::openDevice("/dev/flash/kernel");
    if (!kernel.valid()) {
        std::cerr << kName << ": Error opening kernel flash partition " << std::endl;
        return ZEL_ACCES;
    }
    mtd_info_user kernelInfo{};
    if (mtd::getInfo(kernel.get(), &kernelInfo) != ZEL_SUCCESS) {
        std::cerr << kName << ": Error getting kernel flash partition " << std::endl;
        return ZEL_INVALIDDATA;
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
    const uint32_t dataSize = readBigEndian32(image + headerOffset + kUbootDataSizeOffset);
    const uint32_t kernelLength = headerOffset + kKernelFixedPart + dataSize;
    if (kernelLength > kernelInfo.size) {
        std::cerr << kName << "Image size too big for kernel partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (headerOffset == 0) {
        std::cerr << kName << ": Invalid erase size kernel partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (!write_unit::fits(kernelInfo)) {
        std::cerr << kName << ": Invalid write size kernel partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    // The rootfs half is padded to its own partition's write unit: a unit it
    // cannot be written in must be refused now, before the kernel is erased.
    if (!rootfsWriteUnitFits()) {
        std::cerr << kName << ": Invalid write size rootfs partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    // The header may promise more than the file holds (or a length that wraps
    // in 32 bits): refuse before anything is erased.
    const uint64_t fullKernelLength = uint64_t{headerOffset} + kKernelFixedPart + dataSize;
    if (fullKernelLength > size) {
        std::cerr << kName << ": Error - image of size " << size << " shorter than kernel length "
                  << fullKernelLength << std::endl;
        return ZEL_INVALIDDATA;
    }

    int rc = eraseBlocks(kernel.get(), headerOffset, progress::blocksFor(kernelLength, headerOffset),
                         &current, std::string(kName) + ": Error erasing kernel partition");
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    std::cout << "Writing file to kernel flash partition" << std::endl;
    rc = writeToFlash(kernel.get(), image, kernelLength, kernelInfo, &current);
    kernel.reset();
    if (rc != ZEL_SUCCESS) {
        return rc;
    }

    // Root file system phase; a failure here leaves the new kernel in place.
    UniqueFd rootfs = mtd::openDevice("/dev/flash/rootfs");
    if (!rootfs.valid()) {
        std::cerr << kName << ": Error opening rootfs flash partition " << std::endl;
        return ZEL_ACCES;
    }
    mtd_info_user rootfsInfo{};
    if (mtd::getInfo(rootfs.get(), &rootfsInfo) != ZEL_SUCCESS) {
        std::cerr << kName << ": Error getting rootfs flash partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    const uint32_t rootfsLength = size - kernelLength;
    if (rootfsLength > rootfsInfo.size) {
        std::cerr << kName << "Image size too big for rootfs partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (rootfsInfo.erasesize == 0) {
        std::cerr << kName << ": Invalid erase size rootfs partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (!write_unit::fits(rootfsInfo)) {
        // Changed since the look before the kernel phase.
        std::cerr << kName << ": Invalid write size rootfs partition" << std::endl;
        return ZEL_INVALIDDATA;
    }
    rc = eraseBlocks(rootfs.get(), rootfsInfo.erasesize,
                     progress::blocksFor(rootfsLength, rootfsInfo.erasesize), &current,
                     std::string(kName) + ": Error erasing rootfs flash partition");
    if (rc != ZEL_SUCCESS) {
        return rc;
    }
    std::cout << "Writing file to rootfs flash partition" << std::endl;
    return writeToFlash(rootfs.get(), image + kernelLength, rootfsLength, rootfsInfo, &current);
}
