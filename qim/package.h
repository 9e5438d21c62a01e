// The QIM package object: loading and validating a package file, the
// accessors the upgrade flow reads, model matching and part extraction.
//
// Ownership: a qim_package owns its header, its parts (each with its `path`)
// and its models; qim_package_free releases all of them. Every record is
// allocated by the library. Nothing here keeps global state.
#pragma once

#include <cstdint>
#include <cstdio>

#include "qim/qim_id.h"
#include "support/errors.h"

struct qim_header {
    uint32_t device_code;
    uint32_t product_version;
    qim_id mfgc_id;            // all zero for version 2
    uint32_t checksum;         // stored whole-file checksum
    uint32_t header_checksum;  // 0 for version 2 and for version 3 with minor 0
    uint32_t version_major;
    uint32_t version_minor;  // 0 for version 2
};

struct qim_part {
    uint32_t part_id;
    uint32_t release_version;  // a.b.c.d from the most significant byte; 0 for version 2
    char* path;                // owned file holding the data; null when loaded without a name
    uint32_t offset;           // relative to data_start
    uint32_t data_start;       // header_length when loaded, 0 when added from a file
    uint32_t size;
    int32_t part_seq_num;  // position in the part list from 0
    qim_part* next;
};

struct qim_model {
    qim_id model_id;  // all zero: any model
    uint32_t part_mask;  // bit i selects the part with sequence number i
    qim_model* next;
};

struct qim_package {
    qim_header* header;  // null until a load (or the builder) gives it one
    qim_part* parts;     // in part-table order
    qim_model* models;   // in model-table order
    // The descriptor a successful load validated the file through, owned;
    // -1 for every other package. See qim_package_get_fd.
    int fd = -1;
};

// The device code of the board this build runs on.
enum : uint32_t { QIM_LOCAL_DEVICE_CODE = 40 };
uint32_t qim_local_device_code(void);

// New empty package in *out: 0, 3 for a null `out`, 6 when memory is short.
zel_error_t qim_package_create(qim_package** out);
// Frees the package and everything it owns; null is accepted.
void qim_package_free(qim_package* pkg);

// Loads and validates `path`: opens it once and hands the descriptor to
// qim_package_load_fd. Messages of refused files go to stderr.
//   6  the file cannot be opened or read
//   4  shorter than 64 bytes, tables outside the bytes read, bad checksums
//   3  wrong magic (also for null arguments)
//   6  the package already has a header
//   15 a version other than 2 and 3
// A failed load may leave a header (and parts) attached: such a package can
// only be freed.
zel_error_t qim_package_load(qim_package* pkg, const char* path);

// Loads and validates the file open on `fd` (read with pread from its start;
// the descriptor's position is neither used nor moved): header and tables
// from its first 512 bytes, then the whole-file checksum, with the codes and
// messages of qim_package_load. `path` names the file in messages and in the
// part records. The package takes `fd` over whatever the result: it keeps it
// after a successful load (qim_package_get_fd, closed by qim_package_free)
// and closes it at once otherwise (also for null arguments, 3).
zel_error_t qim_package_load_fd(qim_package* pkg, int fd, const char* path);

// The descriptor through which a successful load validated the package, or
// -1 (not loaded from a file, or the load failed). Whoever needs the
// validated bytes later (part data, a signature) reads them with pread from
// this descriptor, never by opening the name again: the name may meanwhile
// lead to another file, the descriptor cannot. Its file position means
// nothing (readers through a duplicate move it). Still owned by the package.
int qim_package_get_fd(const qim_package* pkg);

// The header-and-tables step of qim_package_load over the first `length`
// bytes of a file in `buf`. `path` (may be null) names the file for the
// version-2 byte sum and becomes every part's `path`. Version 3 header checks
// happen here; the version-3 whole-file CRC is qim_package_load's.
zel_error_t qim_package_parse_header(qim_package* pkg, const uint8_t* buf, std::size_t length,
                                     const char* path);

// Header accessors: the package must have a header (0 otherwise).
uint32_t qim_package_get_device_code(const qim_package* pkg);
uint32_t qim_package_get_version(const qim_package* pkg);
uint32_t qim_package_get_product_version(const qim_package* pkg);
// The header's manufacturer ID; QIM_MFGC_ID_ANY when there is no header.
const qim_id* qim_package_get_mfgc_id(const qim_package* pkg);

int qim_package_get_num_parts(const qim_package* pkg);
int qim_package_get_num_models(const qim_package* pkg);
// Sum of all part sizes (64-bit: many parts can pass 4 GiB); 0 without a
// header or without parts.
uint64_t qim_package_get_total_size(const qim_package* pkg);

// Facts of the part with sequence number `seq`; each output may be null.
// `position` is the file position of the data (data_start + offset).
// 0, or 3 when no part has that number (outputs untouched).
zel_error_t qim_package_get_part_info(const qim_package* pkg, int seq, uint32_t* part_id,
                                      const char** path, uint64_t* position, uint32_t* size,
                                      uint32_t* release_version);

// True when some model entry selects part `seq` for a device of model `model`
// (entry ID equal, or either all zero, and bit `seq` of the mask set). The
// output receives the ID of the last entry that counted.
bool qim_package_find_model_for_part(const qim_package* pkg, const qim_id* model, int seq,
                                     qim_id* found_model);
bool qim_package_part_matches_model(const qim_package* pkg, const qim_id* model, int seq);

// Model entries in table order.
const qim_model* qim_package_get_model(const qim_package* pkg, int index);
const qim_model* qim_model_get_next(const qim_model* model);
const qim_id* qim_model_get_id(const qim_model* model);

// Copies part `seq`'s data to `out` in chunks of at most 4096 bytes.
// 0 (also when no part has that number: nothing is copied); 3 for null
// arguments, a part without a file, or a file that cannot be opened or
// positioned; 8 when the file ends before the part does; 2 when reading the
// file or writing `out` fails. Failures with a part print "error: ..." on stderr.
zel_error_t qim_package_extract_part(const qim_package* pkg, int seq, FILE* out);
