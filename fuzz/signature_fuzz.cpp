// The release key and signature file parsers (minisign and signify formats)
// over any bytes, and the check of whatever parses: outputs untouched on
// failure, a parsed signature always one of the three kinds with its trusted
// comment copied from the input, and the buffer check and the text of its verdict
// defined for every parsed signature.
// Input: one byte choosing key (odd) or signature (even), then the file text.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_util.h"
#include "qim/signature_file.h"
#include "qim/signature_key.h"
#include "qim/signature_verify.h"

namespace {

using fuzzutil::require;

// The key of the seeds (made by `minisign -G -W`).
const char kKey[] =
    "untrusted comment: minisign public key 57170AD0F66E77D2\n"
    "RWTSd2720AoXV6Ilww42nqTHGjlNxn2caKoH7b9jWKHjDObjM89XD09t\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 1 || size - 1 > QIM_SIGNATURE_TEXT_MAX) return 0;
    const char* text = reinterpret_cast<const char*>(data + 1);
    const std::size_t length = size - 1;

    if (data[0] & 1) {
        qim_signature_key key;
        std::memset(&key, 0xA5, sizeof key);
        const qim_signature_key poison = key;
        const zel_error_t rc = qim_signature_key_parse(text, length, &key);
        require(rc == ZEL_SUCCESS || rc == ZEL_INVALIDDATA);
        if (rc != ZEL_SUCCESS) require(std::memcmp(&key, &poison, sizeof key) == 0);
        char hex[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
        require(std::strlen(qim_signature_key_id_to_hex(key.key_id, hex)) == 16);
        return 0;
    }

    qim_signature sig;
    sig.kind = 0xA5A5A5A5u;
    const zel_error_t rc = qim_signature_parse(text, length, &sig);
    require(rc == ZEL_SUCCESS || rc == ZEL_INVALIDDATA);
    if (rc != ZEL_SUCCESS) {
        require(sig.kind == 0xA5A5A5A5u);
        return 0;
    }
    require(sig.kind == QIM_SIGNATURE_PREHASHED || sig.kind == QIM_SIGNATURE_LEGACY ||
            sig.kind == QIM_SIGNATURE_SIGNIFY);
    require(sig.trusted_comment_length < length);
    // The trusted comment is a copy of bytes of the input.
    require(sig.kind != QIM_SIGNATURE_SIGNIFY || sig.trusted_comment_length == 0);
    require(sig.trusted_comment_length == 0 ||
            memmem(text, length, sig.trusted_comment, sig.trusted_comment_length) != nullptr);
    require(std::strcmp(qim_signature_kind_name(sig.kind), "unknown") != 0);

    qim_signature_key key;
    require(qim_signature_key_parse(kKey, sizeof kKey - 1, &key) == ZEL_SUCCESS);
    qim_signature_verdict verdict = QIM_SIGNATURE_UNREADABLE;
    const zel_error_t checked = qim_signature_verify_buffer(&key, &sig, data, size, &verdict);
    require(checked == ZEL_SUCCESS || checked == ZEL_POLICY);
    require((checked == ZEL_SUCCESS) == (verdict == QIM_SIGNATURE_VERIFIED));
    require(std::strcmp(qim_signature_verdict_text(verdict), "unknown verdict") != 0);
    return 0;
}
