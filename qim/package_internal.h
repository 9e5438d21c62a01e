// Shared by the package reader, accessors and writers; not part of the
// library's interface.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "qim/package.h"
#include "support/unique_handles.h"

namespace qim_internal {

using zel::UniqueFile;

// Moves to a 64-bit position (the target's long is 32 bits wide).
bool seek_to(FILE* f, uint64_t position);

// New part record with a copy of `path` (may be null); null when memory is short.
qim_part* new_part(uint32_t part_id, uint32_t release_version, const char* path, uint32_t offset,
                   uint32_t data_start, uint32_t size);
void free_part(qim_part* part);
// Appends at the end of the list and numbers the part by its position.
void append_part(qim_package* pkg, qim_part* part);

// New model record; null when memory is short.
qim_model* new_model(const qim_id* model_id, uint32_t part_mask);
void append_model(qim_package* pkg, qim_model* model);

// Copies a part's `size` bytes from its file (data_start + offset) to `out`
// in chunks of at most 4096 bytes, continuing the CRC *crc and the byte sum
// *sum over them when they are given. 0; 3 when the part has no file or the file cannot be opened or
// positioned; 8 when it ends early; 2 when reading it or writing `out` fails. Failures
// print one "error: ..." line on stderr.
zel_error_t copy_part_data(const qim_part* part, FILE* out, uint32_t* crc, uint32_t* sum);

// The whole-file CRC test of a loaded version-3 header: the first 64 bytes
// from `buf` (its checksum field is zeroed here), the rest read with pread
// from `fd` from byte 64 on. 0; 4 with the bad-checksum message; 6 with
// "error: cannot read PATH: ..." when reading fails.
zel_error_t check_version3_file_crc(const qim_package* pkg, uint8_t* buf, int fd, const char* path);

// qim_package_parse_header, with the version-2 byte sum read from `fd` when
// it is not -1 (a load), else from the file named `path`.
zel_error_t parse_header(qim_package* pkg, const uint8_t* buf, std::size_t length, const char* path,
                         int fd);

}  // namespace qim_internal
