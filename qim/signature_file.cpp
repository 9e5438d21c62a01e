#include "qim/signature_file.h"

#include <cstring>

namespace {

constexpr const char* kTrustedPrefix = QIM_SIGNATURE_TRUSTED_PREFIX;
constexpr std::size_t kSignatureRecordSize = 2 + QIM_SIGNATURE_KEY_ID_SIZE + QIM_SIGNATURE_SIZE;

}  // namespace

zel_error_t qim_signature_parse(const char* text, std::size_t length, qim_signature* out) {
    if (text == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    qim_signature_lines lines;
    if (qim_signature_split_lines(text, length, &lines) != ZEL_SUCCESS ||
        (lines.count != 2 && lines.count != 4) ||
        !qim_signature_line_has_prefix(lines.line[0], lines.length[0], QIM_SIGNATURE_UNTRUSTED_PREFIX)) {
        return ZEL_INVALIDDATA;
    }
    uint8_t record[kSignatureRecordSize];
    if (qim_signature_decode_base64(lines.line[1], lines.length[1], record, sizeof record) != ZEL_SUCCESS) {
        return ZEL_INVALIDDATA;
    }
    const bool prehashed = record[0] == 'E' && record[1] == 'D';
    const bool plain = record[0] == 'E' && record[1] == 'd';
    // A prehashed signature always comes with a trusted comment; a plain one
    // with a comment is minisign's legacy form, without one signify's.
    if (!(prehashed && lines.count == 4) && !plain) return ZEL_INVALIDDATA;

    qim_signature parsed{};
    parsed.kind = prehashed ? QIM_SIGNATURE_PREHASHED
                            : (lines.count == 4 ? QIM_SIGNATURE_LEGACY : QIM_SIGNATURE_SIGNIFY);
    std::memcpy(parsed.key_id, record + 2, QIM_SIGNATURE_KEY_ID_SIZE);
    std::memcpy(parsed.signature, record + 2 + QIM_SIGNATURE_KEY_ID_SIZE, QIM_SIGNATURE_SIZE);
    if (lines.count == 4) {
        if (!qim_signature_line_has_prefix(lines.line[2], lines.length[2], kTrustedPrefix) ||
            qim_signature_decode_base64(lines.line[3], lines.length[3], parsed.global_signature,
                                        QIM_SIGNATURE_SIZE) != ZEL_SUCCESS) {
            return ZEL_INVALIDDATA;
        }
        const std::size_t prefixLength = std::strlen(kTrustedPrefix);
        // The split bounds every line by the text, and the text by the
        // callers' buffers of QIM_SIGNATURE_TEXT_MAX; checked all the same.
        parsed.trusted_comment_length = lines.length[2] - prefixLength;
        if (parsed.trusted_comment_length > sizeof parsed.trusted_comment) return ZEL_INVALIDDATA;
        std::memcpy(parsed.trusted_comment, lines.line[2] + prefixLength, parsed.trusted_comment_length);
    }
    *out = parsed;
    return ZEL_SUCCESS;
}

zel_error_t qim_signature_load(const char* path, qim_signature* out) {
    if (path == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    char text[QIM_SIGNATURE_TEXT_MAX];
    std::size_t length = 0;
    const zel_error_t rc = qim_signature_read_small_file(path, text, sizeof text, &length);
    if (rc != ZEL_SUCCESS) return rc;
    return qim_signature_parse(text, length, out);
}

const char* qim_signature_kind_name(uint32_t kind) {
    switch (kind) {
    case QIM_SIGNATURE_PREHASHED:
        return "minisign (prehashed)";
    case QIM_SIGNATURE_LEGACY:
        return "minisign (legacy)";
    case QIM_SIGNATURE_SIGNIFY:
        return "signify";
    default:
        return "unknown";
    }
}
