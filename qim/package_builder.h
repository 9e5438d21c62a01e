// Assembling and writing packages (host tools). A package being built is an
// ordinary qim_package: the builder gives it a header, parts that point at
// whole files, and model entries; the writers lay them out on disk.
#pragma once

#include <cstdint>
#include <cstdio>

#include "qim/package.h"

// Gives a package its header: version 3.1, both checksums 0. 0; 3 for a null
// package or ID; 5 when the package already has a header (a package takes
// one header); 6 when memory is short.
zel_error_t qim_package_init_header(qim_package* pkg, uint32_t device_code, uint32_t product_version,
                                    const qim_id* mfgc_id);
// Sets the header's manufacturer ID; nothing happens without a header.
void qim_package_set_mfgc_id(qim_package* pkg, const qim_id* mfgc_id);
// 0, or 5 without a header.
zel_error_t qim_package_set_product_version(qim_package* pkg, uint32_t product_version);

// Appends a part whose data is the whole of file `path` (measured now by
// reading it). 0 with the sequence number in *seq_out (when given); 3 for null
// arguments or a file that cannot be opened or read; 13 for a file of 4 GiB
// or more; 6 when memory is short.
zel_error_t qim_package_add_part_file(qim_package* pkg, uint32_t part_id, uint32_t release_version,
                                      const char* path, int* seq_out);

// Appends a model entry with an empty mask: 0, 4 when an entry with that ID
// exists (nothing changes), 6 when memory is short, 3 for null arguments.
zel_error_t qim_package_add_model(qim_package* pkg, const qim_id* model_id);
// Sets bit `seq` in the first entry with that ID (no change for seq outside
// 0..31): 0, or 3 when no entry has that ID.
zel_error_t qim_package_set_model_part(qim_package* pkg, const qim_id* model_id, int seq);
// Unlinks and frees the first entry with that ID: 0, or 3 when none has it.
zel_error_t qim_package_remove_model(qim_package* pkg, const qim_id* model_id);
// Gives the single all-zero model entry (such as a version-2 package's) a
// real ID: 0, or 4 unless there is exactly one entry and its ID is all zero.
zel_error_t qim_package_set_model_id(qim_package* pkg, const qim_id* model_id);

// Writes a version-3.1 package to `out` (opened for writing and seeking, at
// its start): header, part table, model table, part data, then the header
// CRC and the file CRC written back into the header. The package's
// header_checksum and checksum record the values written.
// 0; 3 for null arguments or a part whose file cannot be read; 5 without a
// header; 4 when header and tables would pass the 512 bytes a reader takes
// (more than 28 parts and models together); 8 when a part's file ends early;
// 13 when the packed part data passes 4 GiB (32-bit offsets); 2 when writing
// fails (including the final flush). On failure the stream
// holds an incomplete file that the caller discards.
zel_error_t qim_package_write(qim_package* pkg, FILE* out);

// Writes the legacy version-1 layout (no checksum, no release versions, no
// models). Codes as for qim_package_write, without the 512-byte limit.
zel_error_t qim_package_write_v1(const qim_package* pkg, FILE* out);

// Writes a version-2 package: 28-byte header, 12-byte part entries, part data,
// and the folded byte sum. Model entries and release versions are not part of
// that format. Codes as for qim_package_write (a part table past 512 bytes,
// more than 40 parts, gives 4).
zel_error_t qim_package_write_v2(qim_package* pkg, FILE* out);
