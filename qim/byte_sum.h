// The checksum of version-2 packages: a byte sum folded once.
#pragma once

#include <cstddef>
#include <cstdint>

// Adds every byte of `buf` (as unsigned 8-bit) to `sum`, wrapping modulo 2^32.
uint32_t qim_byte_sum_update(uint32_t sum, const void* buf, std::size_t len);

// (sum >> 16) + (sum & 0xFFFF); the carry is not folded again, so the value
// can reach 0x1FFFE.
uint32_t qim_byte_sum_fold(uint32_t sum);
