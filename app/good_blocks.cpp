#include "app/good_blocks.h"

GoodBlocks::GoodBlocks(uint32_t partitionBlocks, uint32_t imageBlocks)
    : bad_(partitionBlocks, 0), erased_(partitionBlocks, 0), where_(imageBlocks, 0) {}

void GoodBlocks::setBad(uint32_t block) {
    if (block < bad_.size() && bad_[block] == 0) {
        bad_[block] = 1;
        ++badCount_;
    }
}

bool GoodBlocks::isBad(uint32_t block) const { return block < bad_.size() && bad_[block] != 0; }

bool GoodBlocks::place(uint32_t from) {
    uint32_t block = from == 0 ? 0 : where_[from - 1] + 1;
    const uint32_t partitionBlocks = static_cast<uint32_t>(bad_.size());
    for (uint32_t index = from; index < where_.size(); ++index, ++block) {
        while (block < partitionBlocks && bad_[block] != 0) {
            ++block;
        }
        if (block >= partitionBlocks) {
            return false;
        }
        where_[index] = block;
    }
    return true;
}
