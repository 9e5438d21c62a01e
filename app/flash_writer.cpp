// Writing one in-memory image into one flash partition: geometry checks,
// unlock, erase, write in erase-block-sized chunks, lock, with progress dots
// on the console and the running byte count in the status file.
#include "app/flash_upgrader.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <vector>

#include "app/flash_target.h"
#include "app/mtd_device.h"
#include "app/partition_lock.h"
#include "app/progress_count.h"
#include "app/read_back.h"
#include "app/status_file.h"
#include "app/write_unit.h"

namespace {

constexpr int kPartImage = 1;

// Status updates during the write phase: after the 1st chunk and every 30th
// after it; rewriting the file per chunk would cost more than the write.
constexpr uint32_t kChunksPerStatusUpdate = 30;

// After a failed write the descriptor's position is unknown: seek first.
constexpr uint64_t kPositionUnknown = UINT64_MAX;

// Whether nothing uncorrectable was read on the target since the last look:
// the `failed` counter of a NAND partition's ECC statistics has not risen.
// Corrected bit flips are fine. Nothing is asked on NOR, or when the driver
// keeps no statistics.
bool eccClean(FlashTarget& target) {
    if (!target.eccWatching) {
        return true;
    }
    mtd_ecc_stats now{};
    if (mtd::eccStats(target.fd, &now) != 0) {
        return true;
    }
    const bool same = now.failed == target.ecc.failed;
    target.ecc = now;
    return same;
}

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
    skippedBlocks = 0;
    FlashTarget target(device.get(), info, kind == kPartImage ? 0 : size, name, "writeImageToFlash");
    if (kind != kPartImage) {
        const int rc = prepareBlocks(target, image, size);
        if (rc != ZEL_SUCCESS) {
            return rc;
        }
    }
    // With -D, a protected partition that already holds the image is not
    // unlocked at all.
    const bool unlockNeeded = isProtected && (kind == kPartImage || target.unchangedCount < target.imageBlocks);
    partition_lock::Requests lockRequests = partition_lock::Requests::kBoard;
    if (unlockNeeded && !partition_lock::unlock(device.get(), info.size, &lockRequests)) {
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
        target.eraseFailure = "writeImageToFlash: Error erasing flash partition '" + name + "'";
        target.writing = "Writing file to flash partition '" + name + "'";
        const int rc = eraseWriteVerify(target, image, size, &current);
        if (rc != ZEL_SUCCESS) {
            return rc;
        }
    }

    if (skipUnchanged) {
        std::cout << "Unchanged blocks skipped: " << skippedBlocks << std::endl;
    }
    if (unlockNeeded && !partition_lock::relock(device.get(), info.size, lockRequests)) {
        // The image is written; only the protection could not be restored.
        std::cout << "Error: license partition lock failed" << std::endl;
        std::cerr << "writeImageToFlashError locking flash '" << name << "'" << std::endl;
        return ZEL_FAULT;
    }
    std::cout << std::endl << "Flash write complete." << std::endl;
    return ZEL_SUCCESS;
}

int FlashUpgrader::placeOnGoodBlocks(FlashTarget& target, uint32_t size) {
    const uint32_t erasesize = target.info.erasesize;
    target.nand = mtd::isNand(target.info);
    // NOR knows no bad blocks: the walk then covers the image's blocks only.
    const uint32_t partitionBlocks =
        target.nand ? progress::blocksFor(target.info.size, erasesize) : target.imageBlocks;
    target.blocks = GoodBlocks(partitionBlocks, target.imageBlocks);
    if (target.nand) {
        for (uint32_t block = 0; block < partitionBlocks; ++block) {
            int bad = 0;
            if (mtd::isBadBlock(target.fd, uint64_t{block} * erasesize, &bad) != 0) {
                // A driver that cannot say has no bad blocks to skip.
                target.blocks = GoodBlocks(partitionBlocks, target.imageBlocks);
                break;
            }
            if (bad != 0) {
                target.blocks.setBad(block);
            }
        }
    }
    if (!target.blocks.place(0)) {
        std::cerr << target.who << ": Error - image of size " << size << " does not fit the good blocks of flash partition "
                  << target.name << " (" << target.blocks.badCount() << " bad blocks)" << std::endl;
        return ZEL_INVALIDDATA;
    }
    target.eccWatching = target.nand && mtd::eccStats(target.fd, &target.ecc) == 0;
    return ZEL_SUCCESS;
}

int FlashUpgrader::prepareBlocks(FlashTarget& target, const uint8_t* image, uint32_t size) {
    const int rc = placeOnGoodBlocks(target, size);
    if (rc != ZEL_SUCCESS || !skipUnchanged) {
        return rc;
    }
    const uint32_t erasesize = target.info.erasesize;
    // -D: a block that already holds what the write would leave there (the
    // image's bytes, then 0xFF to the block's end) is left alone.
    std::vector<uint8_t>& flash = target.readBuffer;
    flash.resize(erasesize);
    for (uint32_t index = 0; index < target.imageBlocks; ++index) {
        const uint32_t offset = index * erasesize;
        const uint32_t imageBytes = size - offset < erasesize ? size - offset : erasesize;
        if (mtd::readAt(target.fd, uint64_t{target.blocks.where(index)} * erasesize, flash.data(), erasesize) == 0 &&
            read_back::firstDifference(flash.data(), erasesize, image + offset, imageBytes) == read_back::kSame &&
            eccClean(target)) {
            target.unchanged[index] = 1;
            ++target.unchangedCount;
        }
    }
    return ZEL_SUCCESS;
}

int FlashUpgrader::eraseWriteVerify(FlashTarget& target, const uint8_t* image, uint32_t size, int* count) {
    const uint32_t erasesize = target.info.erasesize;
    std::cout << "Erasing Flash (wait "
              << progress::eraseEstimateSeconds(erasesize, target.imageBlocks - target.unchangedCount) << "s)"
              << std::endl;
    for (uint32_t index = 0; index < target.imageBlocks; ++index) {
        // An unchanged block counts as erased (and later as written), so
        // the count reaches the same total.
        if (!target.isUnchanged(index)) {
            const int rc = eraseImageBlock(target, index);
            if (rc != ZEL_SUCCESS) {
                return rc;
            }
        }
        std::cout << '.' << std::flush;
        // The file shows the count from before this block; the next update
        // (or the write phase) catches up.
        updateStatusCurrent(*count);
        progress::advance(count, erasesize);
    }
    std::cout << '.' << std::endl;
    std::cout << target.writing << std::endl;
    const int rc = writeToFlash(target, image, size, count);
    skippedBlocks += target.unchangedCount;
    return rc;
}

int FlashUpgrader::eraseImageBlock(FlashTarget& target, uint32_t index) {
    const uint32_t erasesize = target.info.erasesize;
    for (;;) {
        const uint32_t block = target.blocks.where(index);
        const int rc = mtd::eraseErrno(target.fd, block * erasesize, erasesize);
        if (rc == 0) {
            target.blocks.setErased(block);
            return ZEL_SUCCESS;
        }
        if (!target.nand || rc != EIO) {
            std::cerr << target.eraseFailure << std::endl;
            return ZEL_INVALIDDATA;
        }
        if (!retireBlock(target, index)) {
            return ZEL_INVALIDDATA;
        }
    }
}

bool FlashUpgrader::retireBlock(FlashTarget& target, uint32_t index) {
    const uint32_t block = target.blocks.where(index);
    const bool marked = mtd::markBadBlock(target.fd, uint64_t{block} * target.info.erasesize) == 0;
    target.blocks.setBad(block);
    std::cerr << target.who << ": Block " << block << " of flash partition '" << target.name << "' failed"
              << (marked ? ", marked bad" : " and could not be marked bad") << std::endl;
    // The image blocks from here on move to other blocks: whatever -D found
    // in their old places no longer counts.
    for (uint32_t later = index; later < target.imageBlocks; ++later) {
        if (target.unchanged[later] != 0) {
            target.unchanged[later] = 0;
            --target.unchangedCount;
        }
    }
    if (!target.blocks.place(index)) {
        std::cerr << target.who << ": No good block left in flash partition '" << target.name << "'" << std::endl;
        return false;
    }
    return true;
}

int FlashUpgrader::writeImageBlock(FlashTarget& target, uint32_t index, const uint8_t* bytes, uint32_t length,
                                   uint64_t* position, const char* failureLine) {
    const uint32_t erasesize = target.info.erasesize;
    for (;;) {
        const uint32_t block = target.blocks.where(index);
        if (!target.blocks.erased(block)) {
            // The image moved onto a block after a failure: erased now,
            // outside the progress count, which counted this block already.
            const int rc = eraseImageBlock(target, index);
            if (rc != ZEL_SUCCESS) {
                return rc;
            }
            continue;
        }
        const uint64_t at = uint64_t{block} * erasesize;
        if (at != *position) {
            if (mtd::seek(target.fd, at) != 0) {
                std::cerr << failureLine << std::endl;
                return ZEL_INVALIDDATA;
            }
            *position = at;
        }
        const int rc = mtd::writeErrno(target.fd, bytes, length);
        if (rc == 0) {
            *position += length;
            return verifyBlock(target, at, bytes, length);
        }
        if (!target.nand || rc != EIO) {
            std::cerr << failureLine << std::endl;
            return ZEL_INVALIDDATA;
        }
        *position = kPositionUnknown;
        if (!retireBlock(target, index)) {
            return ZEL_INVALIDDATA;
        }
    }
}

int FlashUpgrader::writeToFlash(FlashTarget& target, const uint8_t* data, uint32_t size, int* count) {
    const uint32_t chunk = target.info.erasesize;
    if (chunk == 0) {
        // Callers refuse such a geometry first; never divide by it here.
        std::cerr << "writeToFlash: Error writing blocks to flash " << std::endl;
        return ZEL_INVALIDDATA;
    }
    const uint32_t remainder = size % chunk;
    const uint32_t whole = size - remainder;

    // One write per chunk, straight from the caller's buffer; the device is
    // written sequentially from its start unless a block is skipped.
    uint64_t position = 0;
    uint32_t chunkNumber = 0;
    for (uint32_t offset = 0; offset < whole; offset += chunk, ++chunkNumber) {
        if (!target.isUnchanged(chunkNumber)) {
            const int rc = writeImageBlock(target, chunkNumber, data + offset, chunk, &position,
                                           "writeToFlash: Error writing blocks to flash ");
            if (rc != ZEL_SUCCESS) {
                return rc;
            }
        }
        progress::advance(count, chunk);
        if (chunkNumber % kChunksPerStatusUpdate == 0) {
            updateStatusCurrent(*count);
        }
        std::cout << '.' << std::flush;
    }
    std::cout << std::endl;

    if (remainder != 0) {
        if (!target.isUnchanged(chunkNumber)) {
            // The tail goes out in whole write units, padded with 0xFF. The
            // chunk is a whole number of units, so the padded tail still
            // ends inside the last erased block.
            const uint32_t length = write_unit::padded(remainder, target.info.writesize);
            const uint8_t* tail = data + whole;
            std::vector<uint8_t> padded;
            if (length != remainder) {
                padded.assign(length, 0xFF);
                std::memcpy(padded.data(), tail, remainder);
                tail = padded.data();
            }
            const int rc =
                writeImageBlock(target, chunkNumber, tail, length, &position, "writeToFlash: Error writing to flash");
            if (rc != ZEL_SUCCESS) {
                return rc;
            }
        }
        progress::advance(count, remainder);
    }
    updateStatusCurrent(*count);
    return ZEL_SUCCESS;
}

int FlashUpgrader::verifyBlock(FlashTarget& target, uint64_t at, const uint8_t* bytes, uint32_t length) {
    // Read back at once, while the bytes are still in the cache: a second
    // pass over the whole image would cost as much again as the comparison.
    std::vector<uint8_t>& flash = target.readBuffer;
    flash.resize(target.info.erasesize);
    uint32_t difference = 0;
    if (mtd::readAt(target.fd, at, flash.data(), length) == 0) {
        difference = read_back::firstDifference(flash.data(), length, bytes, length);
        // An uncorrectable ECC error reads back as a difference even when
        // the bytes happen to compare equal.
        if (difference == read_back::kSame && !eccClean(target)) {
            difference = 0;
        }
    }
    if (difference != read_back::kSame) {
        std::cerr << target.who << ": Error verifying flash partition '" << target.name << "' at offset "
                  << at + difference << std::endl;
        return ZEL_INVALIDDATA;
    }
    return ZEL_SUCCESS;
}
