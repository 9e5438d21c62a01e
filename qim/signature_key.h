// Release public keys as minisign (`minisign -G`) and OpenBSD's signify
// (`signify -G`) write them: an "untrusted comment: " line, then one line of
// base64 holding the algorithm "Ed", an 8-byte key number and the 32-byte
// Ed25519 public key.
//
// The two tools' keys differ only in that comment, and the key decides which
// signatures it takes (qim/signature_verify.h): a key whose comment begins
// "minisign public key", as `minisign -G` writes it, is a minisign key; any
// other is a signify key (`signify -G` writes "signify public key", or the
// text given with -c). The comment of a signature proves nothing, but the
// key file is the release engineer's own: brivlo trusts it only when nobody
// else can write it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/errors.h"

enum : std::size_t {
    QIM_SIGNATURE_KEY_ID_SIZE = 8,
    QIM_SIGNATURE_PUBLIC_KEY_SIZE = 32,
    // 16 hexadecimal digits and a terminator.
    QIM_SIGNATURE_KEY_ID_HEX_SIZE = 17,
};

enum qim_signature_key_kind : uint32_t {
    QIM_SIGNATURE_KEY_MINISIGN = 1,
    QIM_SIGNATURE_KEY_SIGNIFY = 2,
};

struct qim_signature_key {
    uint32_t kind;  // qim_signature_key_kind
    uint8_t key_id[QIM_SIGNATURE_KEY_ID_SIZE];  // as stored: little-endian
    uint8_t public_key[QIM_SIGNATURE_PUBLIC_KEY_SIZE];
};

// Parses the text of a public key file: 0; 4 (INVALIDDATA) when it is not
// one; 3 for a null pointer. `out` is untouched on failure.
zel_error_t qim_signature_key_parse(const char* text, std::size_t length, qim_signature_key* out);

// Reads and parses the key file at `path`: 0; the codes of
// qim_signature_read_small_file (11 missing, 2 unreadable with errno set,
// 53 too large); 4 not a key file.
zel_error_t qim_signature_key_load(const char* path, qim_signature_key* out);

// The key number as both tools print it: the 8 bytes read as a
// little-endian number, in 16 upper-case hexadecimal digits. Returns `out`.
char* qim_signature_key_id_to_hex(const uint8_t id[QIM_SIGNATURE_KEY_ID_SIZE],
                                  char out[QIM_SIGNATURE_KEY_ID_HEX_SIZE]);

// "minisign", "signify", or "unknown".
const char* qim_signature_key_kind_name(uint32_t kind);
