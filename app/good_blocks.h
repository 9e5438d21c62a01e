// Where the erase blocks of an image go in a partition: block i of the image
// goes to the i-th good block, as readers that skip bad blocks (U-Boot, the
// kernel's) find it again. On NOR nothing is ever bad and block i goes to
// block i. A block that goes bad while it is written is marked here, and the
// blocks from it on move to the good blocks after it.
//
// Pure bookkeeping: the writers ask the device and decide; this only keeps
// the walk.
#pragma once

#include <cstdint>
#include <vector>

class GoodBlocks {
public:
    // A partition of `partitionBlocks` erase blocks receiving an image of
    // `imageBlocks` blocks; nothing bad yet.
    GoodBlocks(uint32_t partitionBlocks, uint32_t imageBlocks);

    // Marks `block` bad (a block outside the partition is ignored).
    void setBad(uint32_t block);
    bool isBad(uint32_t block) const;
    uint32_t badCount() const { return badCount_; }
    uint32_t goodCount() const { return static_cast<uint32_t>(bad_.size()) - badCount_; }

    // Places image blocks `from` onwards on the good blocks following the
    // one image block `from` - 1 sits on (from the partition's start for 0).
    // False when the good blocks run out before the image does.
    bool place(uint32_t from);

    // The partition block image block `index` sits on (after a place()).
    uint32_t where(uint32_t index) const { return where_[index]; }
    uint32_t imageBlocks() const { return static_cast<uint32_t>(where_.size()); }

    // Whether a partition block has been erased in this run.
    bool erased(uint32_t block) const { return erased_[block] != 0; }
    void setErased(uint32_t block) { erased_[block] = 1; }

private:
    std::vector<uint8_t> bad_;
    std::vector<uint8_t> erased_;
    std::vector<uint32_t> where_;
    uint32_t badCount_ = 0;
};
