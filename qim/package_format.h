// On-disk layout of QIM package files. Every integer is unsigned 32-bit
// big-endian; identifiers are 8 raw bytes. Part data lies at file position
// header_length + offset in every version.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qimfmt {

// "KORV", compared as one 4-byte word at offset 0.
constexpr uint8_t kMagic[4] = {'K', 'O', 'R', 'V'};

// Fields every version shares.
constexpr std::size_t kOffMagic = 0;
constexpr std::size_t kOffHeaderLength = 4;
constexpr std::size_t kOffVersionMajor = 8;

// The reader takes header and tables from one read of this many bytes, and
// refuses files shorter than kMinFileSize.
constexpr std::size_t kReadLimit = 512;
constexpr std::size_t kMinFileSize = 64;
// Every checksum pass and data copy moves the file in chunks of this size.
constexpr std::size_t kChunk = 4096;

// Version 3 header (64 bytes).
namespace v3 {
constexpr std::size_t kHeaderSize = 64;
constexpr std::size_t kOffVersionMinor = 12;
constexpr std::size_t kOffDeviceCode = 16;
constexpr std::size_t kOffProductVersion = 20;
constexpr std::size_t kOffChecksum = 24;
constexpr std::size_t kOffMfgcId = 28;
constexpr std::size_t kOffPartTableOffset = 36;
constexpr std::size_t kOffNumParts = 40;
constexpr std::size_t kOffPartEntrySize = 44;
constexpr std::size_t kOffModelTableOffset = 48;
constexpr std::size_t kOffNumModels = 52;
constexpr std::size_t kOffModelEntrySize = 56;
constexpr std::size_t kOffHeaderChecksum = 60;

// Part entry: kind, release a.b.c.d, data offset, size.
constexpr std::size_t kPartEntrySize = 16;
constexpr std::size_t kPartOffId = 0;
constexpr std::size_t kPartOffRelease = 4;
constexpr std::size_t kPartOffOffset = 8;
constexpr std::size_t kPartOffSize = 12;

// Model entry: 8-byte model ID, 4 reserved bytes, part mask.
constexpr std::size_t kModelEntrySize = 16;
constexpr std::size_t kModelOffId = 0;
constexpr std::size_t kModelOffMask = 12;

constexpr uint32_t kVersionMinorWritten = 1;
}  // namespace v3

// Version 2 header (28 bytes) followed by 12-byte part entries.
namespace v2 {
constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kOffDeviceCode = 12;
constexpr std::size_t kOffProductVersion = 16;
constexpr std::size_t kOffChecksum = 20;
constexpr std::size_t kOffNumParts = 24;
constexpr std::size_t kPartEntrySize = 12;
// Stands for "could not be computed": no file to sum.
constexpr uint32_t kUnreadableSum = 0xbadc12c0u;
}  // namespace v2

// Legacy version 1 (written only): 24-byte header, 12-byte part entries.
namespace v1 {
constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kOffDeviceCode = 12;
constexpr std::size_t kOffProductVersion = 16;
constexpr std::size_t kOffNumParts = 20;
constexpr std::size_t kPartEntrySize = 12;
}  // namespace v1

// Shared by the 12-byte entries of versions 1 and 2.
constexpr std::size_t kShortPartOffId = 0;
constexpr std::size_t kShortPartOffOffset = 4;
constexpr std::size_t kShortPartOffSize = 8;

}  // namespace qimfmt
