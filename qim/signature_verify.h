// Checking a detached signature (qim/signature_file.h) with a release key
// (qim/signature_key.h) over the exact bytes that are about to be flashed.
// The cryptography is libsodium's: Ed25519 (crypto_sign_verify_detached) and
// BLAKE2b-512 (crypto_generichash) for minisign's prehashed signatures.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qim/signature_file.h"
#include "qim/signature_key.h"
#include "support/errors.h"

// Why a signature was refused.
enum qim_signature_verdict : uint32_t {
    QIM_SIGNATURE_VERIFIED = 0,
    QIM_SIGNATURE_OTHER_KEY = 1,        // made with another key number
    QIM_SIGNATURE_BAD = 2,              // does not match the bytes
    QIM_SIGNATURE_BAD_COMMENT = 3,      // trusted comment changed
    QIM_SIGNATURE_UNREADABLE = 4,       // the bytes could not be read
    QIM_SIGNATURE_LEGACY_REFUSED = 5,   // minisign's legacy "Ed" form
    QIM_SIGNATURE_NEEDS_COMMENT = 6,    // minisign key, signature without trusted comment
    QIM_SIGNATURE_NEEDS_SIGNIFY = 7,    // signify key, minisign signature
};

// The key decides the format: a minisign key takes only prehashed
// signatures ("ED") with their trusted comment, a signify key only signify's
// own. Anything else could be one signature passed off as another: the same
// Ed25519 signature of a prehashed file, relabelled "Ed", verifies over the
// 64 bytes of the file's hash, and a legacy signature without its comment
// reads as signify's. Legacy minisign signatures are refused with either key.
//
// Checks `signature` with `key` over `size` bytes at `data` (null allowed
// when `size` is 0). Returns 0 when the signature holds; 14 (POLICY) when it
// does not, with `*verdict` saying why; 3 for a null pointer; 9 when the
// cryptography library cannot start. `*verdict` is set on 0 and 14.
zel_error_t qim_signature_verify_buffer(const qim_signature_key* key, const qim_signature* signature,
                                        const uint8_t* data, std::size_t size,
                                        qim_signature_verdict* verdict);

// The same over the whole file open on `fd`, read from offset 0 with pread
// (the descriptor's offset is left alone). A prehashed signature hashes the
// file as it is read, in a fixed buffer; the other two map it. 14 with
// QIM_SIGNATURE_UNREADABLE when the file cannot be read or mapped
// (errno tells why).
zel_error_t qim_signature_verify_fd(const qim_signature_key* key, const qim_signature* signature, int fd,
                                    qim_signature_verdict* verdict);

// A short phrase for the verdict ("signature does not match the file", ...).
const char* qim_signature_verdict_text(uint32_t verdict);

// Why a check that did not return 0 refused, as one phrase: the verdict's
// text, with the two key numbers for another key and the system's text (from
// `error`, the errno the check left) for a file that could not be read;
// "cannot check the signature: " and the code's message when `rc` is not 14.
// Returns `out`.
char* qim_signature_refusal_text(zel_error_t rc, uint32_t verdict, const qim_signature_key* key,
                                 const qim_signature* signature, int error,
                                 char out[QIM_SIGNATURE_REASON_SIZE]);
