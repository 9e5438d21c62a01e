// Detached signatures as the release tools write them beside a file:
//
//   minisign -S (default)   "untrusted comment: ..."
//                           base64("ED" | key number | Ed25519 signature of
//                                  the BLAKE2b-512 hash of the file)
//                           "trusted comment: TEXT"
//                           base64(Ed25519 signature of signature | TEXT)
//   minisign -S -l          the same with "Ed": the file itself is signed
//   signify -S              the first two lines only, "Ed", the file signed
//
// Only the trusted comment's text is kept from the comments: the untrusted
// one can be changed by anybody and means nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qim/signature_key.h"
#include "qim/signature_text.h"
#include "support/errors.h"

enum : std::size_t { QIM_SIGNATURE_SIZE = 64 };

enum qim_signature_kind : uint32_t {
    QIM_SIGNATURE_PREHASHED = 1,  // minisign "ED"
    QIM_SIGNATURE_LEGACY = 2,     // minisign "Ed"
    QIM_SIGNATURE_SIGNIFY = 3,    // signify: no trusted comment
};

struct qim_signature {
    uint32_t kind;  // qim_signature_kind
    uint8_t key_id[QIM_SIGNATURE_KEY_ID_SIZE];
    uint8_t signature[QIM_SIGNATURE_SIZE];
    // minisign only: the trusted comment (not terminated) and its signature.
    std::size_t trusted_comment_length;
    char trusted_comment[QIM_SIGNATURE_TEXT_MAX];
    uint8_t global_signature[QIM_SIGNATURE_SIZE];
};

// Parses the text of a signature file: 0; 4 (INVALIDDATA) when it is none of
// the three shapes above; 3 for a null pointer. `out` is untouched on failure.
zel_error_t qim_signature_parse(const char* text, std::size_t length, qim_signature* out);

// Reads and parses the signature file at `path`: 0; 11 missing; 2 unreadable
// (errno set); 53 larger than QIM_SIGNATURE_TEXT_MAX; 4 malformed.
zel_error_t qim_signature_load(const char* path, qim_signature* out);

// "minisign (prehashed)", "minisign (legacy)", "signify", or "unknown".
const char* qim_signature_kind_name(uint32_t kind);
