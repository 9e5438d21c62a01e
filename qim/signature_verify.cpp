#include "qim/signature_verify.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include <sodium.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/system.h"

namespace {

// Small enough to stay in the CPU's cache between the copy out of the page
// cache and the hash (the check then costs about what the hash alone costs),
// large enough that the system calls cost little next to the hash.
constexpr std::size_t kHashChunk = 64 * 1024;

bool startSodium() { return sodium_init() >= 0; }

bool keyMatches(const qim_signature_key& key, const qim_signature& signature) {
    return std::memcmp(key.key_id, signature.key_id, QIM_SIGNATURE_KEY_ID_SIZE) == 0;
}

bool ed25519Holds(const uint8_t* sig, const uint8_t* message, std::size_t length,
                  const qim_signature_key& key) {
    static const uint8_t kNothing = 0;
    return crypto_sign_verify_detached(sig, message != nullptr ? message : &kNothing, length,
                                       key.public_key) == 0;
}

// minisign signs the signature followed by the trusted comment's text, so a
// comment cannot be moved to another signature or changed.
bool commentHolds(const qim_signature_key& key, const qim_signature& signature) {
    if (signature.kind == QIM_SIGNATURE_SIGNIFY) return true;
    std::vector<uint8_t> signed_text(signature.signature, signature.signature + QIM_SIGNATURE_SIZE);
    signed_text.insert(signed_text.end(), signature.trusted_comment,
                       signature.trusted_comment + signature.trusted_comment_length);
    return ed25519Holds(signature.global_signature, signed_text.data(), signed_text.size(), key);
}

// The last step shared by both variants: the message is the file (legacy,
// signify) or its BLAKE2b-512 hash (prehashed).
zel_error_t conclude(const qim_signature_key& key, const qim_signature& signature, const uint8_t* message,
                     std::size_t length, qim_signature_verdict* verdict) {
    if (!ed25519Holds(signature.signature, message, length, key)) {
        *verdict = QIM_SIGNATURE_BAD;
    } else if (!commentHolds(key, signature)) {
        *verdict = QIM_SIGNATURE_BAD_COMMENT;
    } else {
        *verdict = QIM_SIGNATURE_VERIFIED;
        return ZEL_SUCCESS;
    }
    return ZEL_POLICY;
}

zel_error_t refuse(qim_signature_verdict why, qim_signature_verdict* verdict) {
    *verdict = why;
    return ZEL_POLICY;
}

// The first refusal before any cryptography: another key number, or a
// signature format the key does not take. VERIFIED when there is none.
qim_signature_verdict screen(const qim_signature_key& key, const qim_signature& signature) {
    if (!keyMatches(key, signature)) return QIM_SIGNATURE_OTHER_KEY;
    if (signature.kind == QIM_SIGNATURE_LEGACY) return QIM_SIGNATURE_LEGACY_REFUSED;
    if (key.kind == QIM_SIGNATURE_KEY_SIGNIFY) {
        return signature.kind == QIM_SIGNATURE_SIGNIFY ? QIM_SIGNATURE_VERIFIED : QIM_SIGNATURE_NEEDS_SIGNIFY;
    }
    return signature.kind == QIM_SIGNATURE_PREHASHED ? QIM_SIGNATURE_VERIFIED : QIM_SIGNATURE_NEEDS_COMMENT;
}

// BLAKE2b-512 of the whole file on `fd`, read in chunks.
bool hashFile(int fd, uint8_t hash[crypto_generichash_BYTES_MAX]) {
    std::vector<uint8_t> chunk(kHashChunk);
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, crypto_generichash_BYTES_MAX);
    uint64_t position = 0;
    for (;;) {
        std::size_t got = 0;
        if (zel_read_at(fd, position, chunk.data(), chunk.size(), &got) != ZEL_SUCCESS) return false;
        if (got == 0) break;
        crypto_generichash_update(&state, chunk.data(), got);
        position += got;
    }
    crypto_generichash_final(&state, hash, crypto_generichash_BYTES_MAX);
    return true;
}

struct Mapping {
    void* address = MAP_FAILED;
    std::size_t length = 0;
    ~Mapping() {
        if (address != MAP_FAILED) munmap(address, length);
    }
};

}  // namespace

zel_error_t qim_signature_verify_buffer(const qim_signature_key* key, const qim_signature* signature,
                                        const uint8_t* data, std::size_t size,
                                        qim_signature_verdict* verdict) {
    if (key == nullptr || signature == nullptr || verdict == nullptr || (data == nullptr && size != 0)) {
        return ZEL_INVALIDPARAMETER;
    }
    if (!startSodium()) return ZEL_NOTSUPPORTED;
    const qim_signature_verdict screened = screen(*key, *signature);
    if (screened != QIM_SIGNATURE_VERIFIED) return refuse(screened, verdict);
    if (signature->kind != QIM_SIGNATURE_PREHASHED) return conclude(*key, *signature, data, size, verdict);
    static const uint8_t kNothing = 0;
    uint8_t hash[crypto_generichash_BYTES_MAX];
    crypto_generichash(hash, sizeof hash, data != nullptr ? data : &kNothing,
                       static_cast<unsigned long long>(size), nullptr, 0);
    return conclude(*key, *signature, hash, sizeof hash, verdict);
}

zel_error_t qim_signature_verify_fd(const qim_signature_key* key, const qim_signature* signature, int fd,
                                    qim_signature_verdict* verdict) {
    if (key == nullptr || signature == nullptr || verdict == nullptr) return ZEL_INVALIDPARAMETER;
    if (!startSodium()) return ZEL_NOTSUPPORTED;
    const qim_signature_verdict screened = screen(*key, *signature);
    if (screened != QIM_SIGNATURE_VERIFIED) return refuse(screened, verdict);
    if (signature->kind == QIM_SIGNATURE_PREHASHED) {
        uint8_t hash[crypto_generichash_BYTES_MAX];
        if (!hashFile(fd, hash)) return refuse(QIM_SIGNATURE_UNREADABLE, verdict);
        return conclude(*key, *signature, hash, sizeof hash, verdict);
    }
    // Ed25519 reads the message twice, so the whole file must be at hand:
    // mapped, it costs no memory of ours.
    struct stat st;
    if (fstat(fd, &st) != 0) return refuse(QIM_SIGNATURE_UNREADABLE, verdict);
    if (!S_ISREG(st.st_mode) || st.st_size < 0 ||
        static_cast<uint64_t>(st.st_size) > std::numeric_limits<std::size_t>::max()) {
        errno = EINVAL;
        return refuse(QIM_SIGNATURE_UNREADABLE, verdict);
    }
    Mapping map;
    map.length = static_cast<std::size_t>(st.st_size);
    if (map.length == 0) return conclude(*key, *signature, nullptr, 0, verdict);
    map.address = mmap(nullptr, map.length, PROT_READ, MAP_PRIVATE, fd, 0);
    if (map.address == MAP_FAILED) return refuse(QIM_SIGNATURE_UNREADABLE, verdict);
    return conclude(*key, *signature, static_cast<const uint8_t*>(map.address), map.length, verdict);
}

const char* qim_signature_verdict_text(uint32_t verdict) {
    switch (verdict) {
    case QIM_SIGNATURE_VERIFIED:
        return "signature verified";
    case QIM_SIGNATURE_OTHER_KEY:
        return "signed with another key";
    case QIM_SIGNATURE_BAD:
        return "signature does not match the file";
    case QIM_SIGNATURE_BAD_COMMENT:
        return "trusted comment does not match its signature";
    case QIM_SIGNATURE_UNREADABLE:
        return "file cannot be read for the signature check";
    case QIM_SIGNATURE_LEGACY_REFUSED:
        return "legacy minisign signature (minisign -l) refused: sign with minisign's default prehashed "
               "signatures";
    case QIM_SIGNATURE_NEEDS_COMMENT:
        return "signature without a trusted comment refused: a minisign key takes only minisign's "
               "prehashed signatures";
    case QIM_SIGNATURE_NEEDS_SIGNIFY:
        return "minisign signature refused: a signify key takes only signify signatures";
    default:
        return "unknown verdict";
    }
}

char* qim_signature_refusal_text(zel_error_t rc, uint32_t verdict, const qim_signature_key* key,
                                 const qim_signature* signature, int error,
                                 char out[QIM_SIGNATURE_REASON_SIZE]) {
    if (rc != ZEL_POLICY) {
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "cannot check the signature: %s", zel_error_message(rc));
    } else if (verdict == QIM_SIGNATURE_OTHER_KEY && key != nullptr && signature != nullptr) {
        char signer[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
        char trusted[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "%s (key number %s, release key %s)",
                      qim_signature_verdict_text(verdict), qim_signature_key_id_to_hex(signature->key_id, signer),
                      qim_signature_key_id_to_hex(key->key_id, trusted));
    } else if (verdict == QIM_SIGNATURE_UNREADABLE) {
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "%s: %s", qim_signature_verdict_text(verdict),
                      std::strerror(error));
    } else {
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "%s", qim_signature_verdict_text(verdict));
    }
    return out;
}
