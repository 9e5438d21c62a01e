// One image on its way into one open partition: the device, its geometry,
// the words its messages use, and the walk of its blocks. Made by the
// writers (flash_writer.cpp, kernel_rootfs.cpp) and passed through
// FlashUpgrader's erase, write and verify steps.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <mtd/mtd-user.h>

#include "app/good_blocks.h"
#include "app/progress_count.h"

struct FlashTarget {
    FlashTarget(int device, const mtd_info_user& geometry, uint32_t imageSize, std::string partition,
                std::string method)
        : fd(device),
          info(geometry),
          name(std::move(partition)),
          who(std::move(method)),
          imageBlocks(progress::blocksFor(imageSize, geometry.erasesize)),
          blocks(0, 0),
          unchanged(imageBlocks, 0) {}

    int fd;
    mtd_info_user info;
    std::string name;          // the partition, as messages name it
    std::string who;           // the method whose name begins the messages
    std::string eraseFailure;  // the line for an erase that fails
    std::string writing;       // the line between the erase and the write phase
    uint32_t imageBlocks;
    bool nand = false;
    GoodBlocks blocks;
    std::vector<uint8_t> unchanged;  // per image block: already holds its bytes (-D)
    uint32_t unchangedCount = 0;
    // NAND: the ECC statistics as last seen, when the driver keeps them.
    bool eccWatching = false;
    mtd_ecc_stats ecc{};
    std::vector<uint8_t> readBuffer;  // one erase block read back

    bool isUnchanged(uint32_t index) const { return unchanged[index] != 0; }
};
