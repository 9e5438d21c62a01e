// Internal to the CRC-32 code: the ways crc32_update computes, exposed so
// that tests and benchmarks can check each against the others on any
// machine. Not part of the library's interface.
#pragma once

#include <cstddef>
#include <cstdint>

// True when this build and the running processor can use crc32_clmul_fold.
bool crc32_clmul_available();

// Continues the running value `crc` over `len` bytes; `len` is at least 64 and
// a multiple of 16. Only to be called when crc32_clmul_available() is true.
uint32_t crc32_clmul_fold(uint32_t crc, const unsigned char* buf, std::size_t len);

// The table-driven path every processor can run (five braided word chains,
// three lookups per word); what crc32_update uses without carry-less
// multiplication, and for what is left behind the folding.
uint32_t crc32_update_portable(uint32_t crc, const unsigned char* buf, std::size_t len);

// One byte at a time through crc32_table: the reference the others match.
uint32_t crc32_update_bytewise(uint32_t crc, const unsigned char* buf, std::size_t len);
