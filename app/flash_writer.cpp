// Writing one in-memory image into one flash partition: geometry checks,
// unlock, erase, write in erase-block-sized chunks, lock, with progress dots
// on the console and the running byte count in the status file.
#include "app/flash_upgrader.h"

#include <cstring>
#include <iostream>
#include <vector>

#include "app/mtd_device.h"
#include "app/partition_lock.h"
#include "app/progress_count.h"
#include "app/status_file.h"
#include "app/write_unit.h"

namespace {

constexpr int kPartImage = 1;

// Status updates during the write phase: after the 1st chunk and every 30th
// after it; rewriting the file per chunk would cost more than the write.
constexpr uint32_t kChunksPerStatusUpdate = 30;

// The refusal of an image larger than its partition, with the image's true
// size (a local file may be larger than 32 bits can count).
bool imageFits(const std::string& name, uint64_t size, const mtd_info_user& info) {
    if (info.size >= size) {
        return true;
    }
    std::cerr << "writeImageToFlash: Error - image of size " << size << " too large for flash partition "
              << name << " of size " << info.size << std::endl;
    return false;
}

}  // namespace

int FlashUpgrader::checkImageFits(const std::string& name, uint64_t size) {
    UniqueFd device = mtd::openDevice("/dev/flash/" + name);
    mtd_info_user info{};
    if (!device.valid() || mtd::getInfo(device.get(), &info) != ZEL_SUCCESS) {
        return ZEL_SUCCESS;
    }
    return imageFits(name, size, info) ? ZEL_SUCCESS : ZEL_INVALIDDATA;
}

int FlashUpgrader::eraseBlocks(int fd, uint32_t erasesize, uint32_t blocks, int* count,
                               const std::string& failureLine) {
    std::cout << "Erasing Flash (wait " << progress::eraseEstimateSeconds(erasesize, blocks) << "s)"
              << std::endl;
    for (uint32_t block = 0; block < blocks; ++block) {
        if (mtd::erase(fd, block * erasesize, erasesize) != ZEL_SUCCESS) {
            std::cerr << failureLine << std::endl;
            return ZEL_INVALIDDATA;
        }
        std::cout << '.' << std::flush;
        // The file shows the count from before this block; the next update
        // (or the write phase) catches up.
        updateStatusCurrent(*count);
        progress::advance(count, erasesize);
    }
    std::cout << '.' << std::endl;
    return ZEL_SUCCESS;
}

int FlashUpgrader::writeImageToFlash(std::string name, uint32_t size, int isProtected,
                                     const uint8_t* image) {
    const std::string path = "/dev/flash/" + name;
    const int kind = flashPartNameToPartId(name);

    UniqueFd device = mtd::openDevice(path);
    if (!device.valid()) {
        std::cerr << "writeImageToFlash: Error opening flash partition " << name << std::endl;
        return ZEL_ACCES;
    }
    mtd_info_user info{};
    if (mtd::getInfo(device.get(), &info) != ZEL_SUCCESS) {
        std::cerr << "writeImageToFlash: Error getting flash partition info for " << name
                  << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (!imageFits(name, size, info)) {
        return ZEL_INVALIDDATA;
    }
    if (info.erasesize == 0) {
        std::cerr << "writeImageToFlash: Invalid erase size " << name << std::endl;
        return ZEL_INVALIDDATA;
    }
    if (!write_unit::fits(info)) {
        std::cerr << "writeImageToFlash: Invalid write size " << name << std::endl;
        return ZEL_INVALIDDATA;
    }
    partition_lock::Requests lockRequests = partition_lock::Requests::kBoard;
    if (isProtected && !partition_lock::unlock(device.get(), info.size, &lockRequests)) {
        // The driver's lock control exists for the license partitions, hence
        // the wording, whichever protected partition it is.
        std::cout << "Error: license partition unlock failed" << std::endl;
        std::cerr << "writeImageToFlashError unlocking flash '" << name << "'" << std::endl;
        return ZEL_ACCES;
    }

    // Each image continues the count the previous one left, so the parts of
    // one package add up to the package's total.
    int current = status_file::readStartCount(status_file::kStatusPath);

    if (kind == kPartImage) {
        // "image" is no device of its own: the split writer fills kernel and
        // rootfs, while this device stays open only for the lock step.
        int rc = eraseAndWriteKernelRootFs(size, current, image);
        if (rc != ZEL_SUCCESS) {
            return rc;
        }
    } else {
        const uint32_t blocks = progress::blocksFor(size, info.erasesize);
        int rc = eraseBlocks(device.get(), info.erasesize, blocks, &current,
                             "writeImageToFlash: Error erasing flash partition '" + name + "'");
        if (rc != ZEL_SUCCESS) {
            return rc;
        }
        std::cout << "Writing file to flash partition '" << name << "'" << std::endl;
        rc = writeToFlash(device.get(), image, size, info, &current);
        if (rc != ZEL_SUCCESS) {
            return rc;
        }
    }

    if (isProtected && !partition_lock::relock(device.get(), info.size, lockRequests)) {
        // The image is written; only the protection could not be restored.
        std::cout << "Error: license partition lock failed" << std::endl;
        std::cerr << "writeImageToFlashError locking flash '" << name << "'" << std::endl;
        return ZEL_FAULT;
    }
    std::cout << std::endl << "Flash write complete." << std::endl;
    return ZEL_SUCCESS;
}

int FlashUpgrader::writeToFlash(int fd, const uint8_t* data, uint32_t size,
                                const mtd_info_user& info, int* count) {
    const uint32_t chunk = info.erasesize;
    if (chunk == 0) {
        // Callers refuse such a geometry first; never divide by it here.
        std::cerr << "writeToFlash: Error writing blocks to flash " << std::endl;
        return ZEL_INVALIDDATA;
    }
    const uint32_t remainder = size % chunk;
    const uint32_t whole = size - remainder;

    // The device is written sequentially from its start: one write per chunk,
    // straight from the caller's buffer.
    uint32_t chunkNumber = 0;
    for (uint32_t offset = 0; offset < whole; offset += chunk, ++chunkNumber) {
        long written = mtd::write(fd, data + offset, chunk);
        if (written != static_cast<long>(chunk)) {
            std::cerr << "writeToFlash: Error writing blocks to flash " << std::endl;
            return ZEL_INVALIDDATA;
        }
        progress::advance(count, chunk);
        if (chunkNumber % kChunksPerStatusUpdate == 0) {
            updateStatusCurrent(*count);
        }
        std::cout << '.' << std::flush;
    }
    std::cout << std::endl;

    if (remainder != 0) {
        // The tail goes out in whole write units, padded with 0xFF. The
        // chunk is a whole number of units, so the padded tail still ends
        // inside the last erased block.
        const uint32_t length = write_unit::padded(remainder, info.writesize);
        const uint8_t* tail = data + whole;
        std::vector<uint8_t> padded;
        if (length != remainder) {
            padded.assign(length, 0xFF);
            std::memcpy(padded.data(), tail, remainder);
            tail = padded.data();
        }
        long written = mtd::write(fd, tail, length);
        if (written != static_cast<long>(length)) {
            std::cerr << "writeToFlash: Error writing to flash" << std::endl;
            return ZEL_INVALIDDATA;
        }
        progress::advance(count, remainder);
    }
    updateStatusCurrent(*count);
    return ZEL_SUCCESS;
}
