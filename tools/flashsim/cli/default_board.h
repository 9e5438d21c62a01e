// The board that `flashsim init` makes when no option says otherwise: every
// partition the product knows, with plausible sizes, a 64 KiB erase block,
// and the protected partitions locked.
#pragma once

#include <cstddef>
#include <cstdint>

namespace flashsim {

struct DefaultPartition {
    const char* name;
    uint32_t size;
    bool locked;  // protected partitions stay write-locked by the flash driver
};

constexpr uint32_t kDefaultEraseSize = 64 * 1024;

extern const DefaultPartition kDefaultPartitions[];
extern const size_t kDefaultPartitionCount;

}  // namespace flashsim
