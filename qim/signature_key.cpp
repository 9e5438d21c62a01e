#include "qim/signature_key.h"

#include <cstring>

#include "qim/signature_text.h"

namespace {

constexpr const char* kMinisignComment = QIM_SIGNATURE_UNTRUSTED_PREFIX "minisign public key";
constexpr std::size_t kKeyRecordSize = 2 + QIM_SIGNATURE_KEY_ID_SIZE + QIM_SIGNATURE_PUBLIC_KEY_SIZE;

}  // namespace

zel_error_t qim_signature_key_parse(const char* text, std::size_t length, qim_signature_key* out) {
    if (text == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    qim_signature_lines lines;
    if (qim_signature_split_lines(text, length, &lines) != ZEL_SUCCESS || lines.count != 2 ||
        !qim_signature_line_has_prefix(lines.line[0], lines.length[0], QIM_SIGNATURE_UNTRUSTED_PREFIX)) {
        return ZEL_INVALIDDATA;
    }
    uint8_t record[kKeyRecordSize];
    if (qim_signature_decode_base64(lines.line[1], lines.length[1], record, sizeof record) != ZEL_SUCCESS ||
        record[0] != 'E' || record[1] != 'd') {
        return ZEL_INVALIDDATA;
    }
    out->kind = qim_signature_line_has_prefix(lines.line[0], lines.length[0], kMinisignComment)
                    ? QIM_SIGNATURE_KEY_MINISIGN
                    : QIM_SIGNATURE_KEY_SIGNIFY;
    std::memcpy(out->key_id, record + 2, QIM_SIGNATURE_KEY_ID_SIZE);
    std::memcpy(out->public_key, record + 2 + QIM_SIGNATURE_KEY_ID_SIZE, QIM_SIGNATURE_PUBLIC_KEY_SIZE);
    return ZEL_SUCCESS;
}

zel_error_t qim_signature_key_load(const char* path, qim_signature_key* out) {
    if (path == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    char text[QIM_SIGNATURE_TEXT_MAX];
    std::size_t length = 0;
    const zel_error_t rc = qim_signature_read_small_file(path, text, sizeof text, &length);
    if (rc != ZEL_SUCCESS) return rc;
    return qim_signature_key_parse(text, length, out);
}

char* qim_signature_key_id_to_hex(const uint8_t id[QIM_SIGNATURE_KEY_ID_SIZE],
                                  char out[QIM_SIGNATURE_KEY_ID_HEX_SIZE]) {
    static const char kDigits[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < QIM_SIGNATURE_KEY_ID_SIZE; ++i) {
        const uint8_t byte = id[QIM_SIGNATURE_KEY_ID_SIZE - 1 - i];
        out[2 * i] = kDigits[byte >> 4];
        out[2 * i + 1] = kDigits[byte & 0x0f];
    }
    out[2 * QIM_SIGNATURE_KEY_ID_SIZE] = '\0';
    return out;
}

const char* qim_signature_key_kind_name(uint32_t kind) {
    switch (kind) {
    case QIM_SIGNATURE_KEY_MINISIGN:
        return "minisign";
    case QIM_SIGNATURE_KEY_SIGNIFY:
        return "signify";
    default:
        return "unknown";
    }
}
