// The device capability record: a self-describing block in the flash
// partition "/dev/flash/capability" (and inside package parts of kind "cap1")
// that holds, among other sections, the device's manufacturer and model IDs.
//
// Record header (big-endian): magic "Korvalen" at 0, version byte at 8,
// 16-bit length at 10 (header included), a link at 12, the app link at 14,
// CRC-32 at 16 (checked for versions 17 and later). A link is a 16-bit offset
// from the record start; 0 means absent. The app section (48 bytes) holds
// links at 12..46, the manf section link at 28. The manf section (336 bytes)
// holds the manufacturer ID at 4, the model ID at 12 and two 128-byte names
// at 20 and 148.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "qim/qim_id.h"
#include "support/errors.h"

enum : std::size_t {
    CAP_HEADER_SIZE = 20,
    CAP_RECORD_MAX = 65536,
    CAP_APP_SECTION_SIZE = 48,
    CAP_MANF_SECTION_SIZE = 336,
    CAP_NAME_SIZE = 128,
    CAP_NUM_SECTIONS = 28,
    // Offsets inside the record header, the app section and the manf section.
    CAP_OFF_VERSION = 8,
    CAP_OFF_LENGTH = 10,
    CAP_OFF_LINK = 12,
    CAP_OFF_APP_LINK = 14,
    CAP_OFF_CRC = 16,
    CAP_APP_OFF_MANF_LINK = 28,
    CAP_MANF_OFF_MFGC_ID = 4,
    CAP_MANF_OFF_MODEL_ID = 12,
    CAP_MANF_OFF_MFGC_NAME = 20,
    CAP_MANF_OFF_MODEL_NAME = 148,
};

// Versions with meaning to readers.
enum : uint8_t {
    CAP_MIN_VERSION = 2,        // 0 and 1 are refused by the record reader
    CAP_MANF_LINK_VERSION = 12,  // the upgrade flow follows the manf link from here on
    CAP_CRC_VERSION = 17,        // the CRC field is tested from here on
};

extern const char CAP_MAGIC[8];           // "Korvalen"
extern const char CAP_CRC_OK_MARKER[];    // "/tmp/crc_ok"

// The 28 section references of a record read into memory, in their fixed
// order. Names give the path of links that leads to each: APP_12_14 is the
// link at 14 inside the section that app link 12 leads to.
enum cap_section_ref {
    CAP_REF_RECORD,
    CAP_REF_APP,
    CAP_REF_APP_12,
    CAP_REF_APP_12_12,
    CAP_REF_APP_34,
    CAP_REF_APP_32,
    CAP_REF_APP_36,
    CAP_REF_HEADER_12,
    CAP_REF_APP_12_14,
    CAP_REF_APP_12_22,
    CAP_REF_APP_14,
    CAP_REF_APP_20,
    CAP_REF_APP_22,
    CAP_REF_APP_30,
    CAP_REF_APP_16,
    CAP_REF_APP_18,
    CAP_REF_APP_12_16,
    CAP_REF_MANF,  // app link 28
    CAP_REF_APP_40,
    CAP_REF_APP_42,
    CAP_REF_APP_38,
    CAP_REF_APP_38_8,
    CAP_REF_APP_38_10,
    CAP_REF_APP_44,
    CAP_REF_APP_44_4,
    CAP_REF_APP_44_6,
    CAP_REF_APP_46,
    CAP_REF_APP_46_2,
};

// A record read into memory: the references point into `data`, null when a
// link is 0, when the section holding the link is absent, or when the link
// (or the links read inside the section it leads to) lies outside the record.
// About 64 KiB: allocate it on the heap.
struct cap_record {
    uint8_t* sections[CAP_NUM_SECTIONS];
    uint8_t data[CAP_RECORD_MAX];
};

// Opens a capability record: open, CRC test, create the marker "/tmp/crc_ok"
// (the record passed the CRC test; nothing reads or removes it), read the
// 20-byte header into `header`, test the magic. On 0 `*out` is an open stream
// positioned behind the header that the caller closes. Otherwise the code of
// the failed open (zel_error_from_errno), or 4 (CRC, short header, magic);
// 3 for null arguments. Note: the marker is created before the magic is tested.
zel_error_t cap_open(FILE** out, uint8_t header[CAP_HEADER_SIZE], const char* path);
// cap_open with the marker file given (null: no marker), for callers that
// must not touch the fixed path.
zel_error_t cap_open_with_marker(FILE** out, uint8_t header[CAP_HEADER_SIZE], const char* path,
                                 const char* marker_path);

// 0 when the record at the start of `f` passes the CRC test, -1 otherwise.
// Versions 16 and below always pass. Otherwise every byte of the first read
// (up to 1024) counts, more is read up to the length field, and the count must
// equal the length: a record of version 17 or later shorter than 1024 bytes
// only passes as a file of its own, which is why cap_build_record makes such
// records at least 1024 bytes long.
int cap_verify_crc(FILE* f);

// Reads a record from the current position of `f` into `rec` and resolves its
// sections. 0, or 4 with a message on stderr: short header, version below 2,
// a length below the 20-byte header, short data, or a link outside the record.
// Neither the magic nor the CRC is tested.
zel_error_t cap_read_record(cap_record* rec, FILE* f);

// Fills rec->sections from rec->data, bounded by the record's length field.
void cap_resolve_sections(cap_record* rec);

// The app section of the record that starts at `record`, or null when the app
// link is 0 or the 48-byte section does not fit in the record's length.
uint8_t* cap_get_app_section(uint8_t* record);

// The record's length: 0 with *length set (0 for versions up to 16), -1 for a
// file shorter than 20 bytes, 4 for a length field of 0, 3 for null
// arguments, or the code of the failed open.
int cap_read_length(const char* path, uint32_t* length);

// Writes the record's length bytes: 0, or the code of the system error.
zel_error_t cap_write_record(const cap_record* rec, FILE* f);

// Zeroes the CRC field, computes the CRC-32 of the first length bytes and
// stores it big-endian at 16.
void cap_update_crc(cap_record* rec);

// What cap_build_record puts into a record.
struct cap_identity {
    uint8_t version;
    qim_id mfgc_id;
    qim_id model_id;
    const char* mfgc_name;   // may be null; cut to 127 characters
    const char* model_name;  // may be null; cut to 127 characters
};

// Builds a complete record in `rec`: header, app section at 20 whose manf
// link leads to the manf section at 68, 404 bytes in all; versions 17 and
// later are padded with zero bytes to 1024 bytes and get their CRC. Then
//     cap_write_record(rec, stream)
// writes it. 0, or 3 for null arguments.
zel_error_t cap_build_record(cap_record* rec, const cap_identity* identity);

// --- The second layout, carried in package parts of kind "capu" ---------------
//
// 324 bytes not interpreted, then a record: magic "VelmarMC" at 0, version at
// 8, length at 10 (at most 4096), CRC-32 at 12 (versions 17 and later), the
// link to section X at 16; X + 12 links to the identity section Y: model ID
// at 8, manufacturer name at 16, model name at 144.

enum : std::size_t {
    CAPU_SKIP = 324,
    CAPU_MAX_LENGTH = 4096,
    CAPU_OFF_CRC = 12,
    CAPU_OFF_X_LINK = 16,
    CAPU_X_OFF_Y_LINK = 12,
    CAPU_Y_OFF_MODEL_ID = 8,
    CAPU_Y_OFF_MFGC_NAME = 16,
    CAPU_Y_OFF_MODEL_NAME = 144,
    CAPU_Y_SIZE = 272,
};

extern const char CAPU_MAGIC[8];  // "VelmarMC"

struct capu_identity {
    qim_id model_id;
    char mfgc_name[CAP_NAME_SIZE];   // always terminated
    char model_name[CAP_NAME_SIZE];  // always terminated
};

// Reads a second-layout part from the current position of `f` (the start of
// the part's data), at most `avail` bytes. 0 with `out` filled, or 4 when the
// part is to be passed over (short, version 0 or 1, length above 4096 or
// beyond `avail`, wrong magic, wrong CRC, links outside the record, no Y).
zel_error_t capu_read_identity(FILE* f, uint64_t avail, capu_identity* out);

// Builds a second-layout part into `buf` (room for `size` bytes): the 324
// skipped bytes as zeros, then the record with X at 18 and Y at 32. Returns
// the number of bytes used, or 0 when `size` is too small.
std::size_t capu_build(uint8_t* buf, std::size_t size, uint8_t version, const qim_id* model_id,
                       const char* mfgc_name, const char* model_name);
