// CRC-32 of zlib and Ethernet (reflected polynomial 0xEDB88320). Package files
// and capability records are checked with it.
//
// crc32_update works on a running value without the start value or the final
// inversion, so a computation can be split over several buffers:
//     uint32_t crc = 0xFFFFFFFF;
//     crc = crc32_update(crc, a, na);
//     crc = crc32_update(crc, b, nb);
//     uint32_t checksum = ~crc;
#pragma once

#include <cstddef>
#include <cstdint>

enum : uint32_t { CRC32_INIT = 0xFFFFFFFFu, CRC32_POLY_REFLECTED = 0xEDB88320u };

// The byte-wise table: crc = crc32_table[(crc ^ byte) & 0xff] ^ (crc >> 8).
extern const uint32_t crc32_table[256];

// Continues `crc` over `len` bytes of `buf` (null allowed when len is 0).
uint32_t crc32_update(uint32_t crc, const void* buf, std::size_t len);

// The finished checksum of one buffer: ~crc32_update(CRC32_INIT, buf, len).
uint32_t crc32_compute(const void* buf, std::size_t len);

// The lowest `n` bits of `value` in reverse order; n of 0 or 1 gives the
// lowest bit alone, n above 32 counts as 32.
uint32_t crc_reflect(uint32_t value, unsigned n);
