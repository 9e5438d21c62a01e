// Internal to the CRC-32 code: the two ways crc32_update computes, exposed so
// that tests can check each against the reference on any machine. Not part
// of the library's interface.
#pragma once

#include <cstddef>
#include <cstdint>

// True when this build and the running processor can use crc32_clmul_fold.
bool crc32_clmul_available();

// Continues the running value `crc` over `len` bytes; `len` is at least 64 and
// a multiple of 16. Only to be called when crc32_clmul_available() is true.
uint32_t crc32_clmul_fold(uint32_t crc, const unsigned char* buf, std::size_t len);

// The table-driven path every processor runs (four lanes of slicing by 8).
uint32_t crc32_update_tables(uint32_t crc, const unsigned char* buf, std::size_t len);
