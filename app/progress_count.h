// Arithmetic of the flash writers' progress: the signed 32-bit running byte
// count, block counts and the erase time estimate. Everything here is 32-bit
// on purpose: the numbers shown and stored are those of the 32-bit target.
#pragma once

#include <cstdint>

namespace progress {

// Adds `bytes` to the running count with 32-bit wrap-around instead of
// signed overflow (the count of a multi-gigabyte image may pass INT32_MAX).
inline void advance(int* count, uint32_t bytes) {
    *count = static_cast<int>(static_cast<uint32_t>(*count) + bytes);
}

// Erase blocks an image of `size` bytes occupies: ceil(size / erasesize),
// computed without the size + erasesize - 1 overflow. `erasesize` is not 0.
inline uint32_t blocksFor(uint32_t size, uint32_t erasesize) {
    return size / erasesize + (size % erasesize != 0 ? 1u : 0u);
}

// Seconds shown in "Erasing Flash (wait Ns)": 220000 bytes per second, the
// product taken in unsigned 32 bits as the target computes it.
inline uint32_t eraseEstimateSeconds(uint32_t erasesize, uint32_t blocks) {
    return (erasesize * blocks) / 220000u;
}

}  // namespace progress
