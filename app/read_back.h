// What flash must hold after an image was written: its bytes, then 0xFF
// (erased flash, and the padding of a partial write unit) up to the end of
// the range looked at.
#pragma once

#include <cstdint>

namespace read_back {

constexpr uint32_t kSame = 0xFFFFFFFFu;

// Offset of the first byte of `flash` (`length` bytes) that differs from
// `image` (its first `imageBytes` bytes, then 0xFF); kSame when none does.
// `imageBytes` may exceed `length`: only `length` bytes are compared.
uint32_t firstDifference(const uint8_t* flash, uint32_t length, const uint8_t* image, uint32_t imageBytes);

}  // namespace read_back
