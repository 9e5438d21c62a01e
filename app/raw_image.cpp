// The raw path of an upgrade: the image read whole into memory, checked
// under -K, and written into one partition.
#include "app/raw_image.h"

#include <cstdint>
#include <iostream>
#include <limits>

#include <sys/stat.h>

#include "app/flash_upgrader.h"
#include "app/image_buffer.h"
#include "app/result_code.h"
#include "app/stop_signal.h"
#include "support/system.h"
#include "support/unique_handles.h"

namespace {

// Reads the whole raw image of `length` bytes from `file`. False when it
// cannot be read, is larger than the 32-bit size the writer takes, or memory
// runs out; no buffer is ever sized from a length that was not determined.
bool readRawImage(int file, uint64_t length, ImageBuffer* image) {
    if (length > std::numeric_limits<uint32_t>::max() || length > std::numeric_limits<std::size_t>::max() ||
        !image->allocate(static_cast<std::size_t>(length))) {
        return false;
    }
    // A file that ends early was changed under us: as unreadable as one
    // whose read fails.
    std::size_t got = 0;
    return zel_read_at(file, 0, image->data(), image->size(), &got) == ZEL_SUCCESS && got == image->size();
}

}  // namespace

int raw_image::flash(FlashUpgrader& upgrader, const std::string& path, const std::string& partition) {
    // The firmware file rules (app/firmware_file.h): a link swapped in at the
    // download path, a FIFO, a device or a directory is a file that cannot be
    // read; under -K one that others may write is refused.
    zel::UniqueFd file;
    const int opened = upgrader.openFirmware(path, &file);
    if (opened == result_code::kSignatureRefused) {
        return opened;
    }
    struct stat st;
    if (opened != ZEL_SUCCESS || ::fstat(file.get(), &st) != 0) {
        std::cerr << "Error reading from file " << path << std::endl;
        return 0;
    }
    // The partition's size is known before the file is read: an image that
    // cannot fit is refused without costing its size in memory.
    const uint64_t length = static_cast<uint64_t>(st.st_size);
    if (upgrader.checkImageFits(partition, length) != ZEL_SUCCESS) {
        std::cerr << "Error writing to flash" << std::endl;
        return 0;
    }
    ImageBuffer image;
    if (!readRawImage(file.get(), length, &image)) {
        std::cerr << "Error reading from file " << path << std::endl;
        return 0;
    }
    const int verified = upgrader.verifyRelease(image.data(), image.size());
    if (verified != ZEL_SUCCESS) {
        return verified;
    }
    // Reading a large image takes a while; a stop asked for meanwhile is
    // honoured before the partition is touched.
    if (stop_signal::pending() != 0) {
        return 0;
    }
    const int isProtected = FlashUpgrader::isPartitionProtected(partition);
    if (upgrader.writeImageToFlash(partition, static_cast<uint32_t>(image.size()), isProtected,
                                   image.data()) != ZEL_SUCCESS) {
        std::cerr << "Error writing to flash" << std::endl;
    }
    return 0;
}

