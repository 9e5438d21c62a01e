#include "qim/qim_id.h"

#include <cstdio>
#include <cstring>

const qim_id QIM_MODEL_ID_ANY = {{0, 0, 0, 0, 0, 0, 0, 0}};
const qim_id QIM_MFGC_ID_ANY = {{0, 0, 0, 0, 0, 0, 0, 0}};

namespace {

const char kHexDigits[] = "0123456789abcdef";

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool is_alnum(int c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Bytes up to and including the last non-zero one.
std::size_t significant_length(const qim_id* id) {
    std::size_t len = sizeof id->bytes;
    while (len > 0 && id->bytes[len - 1] == 0) {
        --len;
    }
    return len;
}

}  // namespace

bool qim_id_equal(const qim_id* a, const qim_id* b) {
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return std::memcmp(a->bytes, b->bytes, sizeof a->bytes) == 0;
}

bool qim_id_is_any(const qim_id* id) {
    return id == nullptr || significant_length(id) == 0;
}

zel_error_t qim_id_from_hex(qim_id* dst, const char* text) {
    if (dst == nullptr || text == nullptr) {
        return ZEL_INVALIDPARAMETER;
    }
    while (is_space(*text)) {
        ++text;
    }
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text += 2;
    }
    // The scan format is the command line's contract: each group skips white
    // space and takes at most two digits, so blanks between groups are fine.
    unsigned v[8];
    int n = std::sscanf(text, "%02x%02x%02x%02x%02x%02x%02x%02x", &v[0], &v[1], &v[2], &v[3],
                        &v[4], &v[5], &v[6], &v[7]);
    if (n != 8) {
        return ZEL_INVALIDDATA;
    }
    for (int i = 0; i < 8; ++i) {
        dst->bytes[i] = static_cast<uint8_t>(v[i] & 0xffu);
    }
    return ZEL_SUCCESS;
}

void qim_id_from_hex16(const char* text, qim_id* dst) {
    if (text == nullptr || dst == nullptr || std::strlen(text) != 16) {
        return;
    }
    for (int i = 0; i < 8; ++i) {
        uint8_t hi = qim_hex_digit_value(text[2 * i]);
        uint8_t lo = qim_hex_digit_value(text[2 * i + 1]);
        if (hi == 255) hi = 0;
        if (lo == 255) lo = 0;
        dst->bytes[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
}

zel_error_t qim_id_from_text(qim_id* dst, const char* text) {
    if (dst == nullptr || text == nullptr) {
        return ZEL_INVALIDPARAMETER;
    }
    std::memset(dst->bytes, 0, sizeof dst->bytes);
    for (std::size_t i = 0; i < sizeof dst->bytes && text[i] != '\0'; ++i) {
        dst->bytes[i] = static_cast<uint8_t>(text[i]);
    }
    return ZEL_SUCCESS;
}

bool qim_id_from_name(qim_id* dst, const char* text) {
    if (dst == nullptr || text == nullptr || text[0] == '\0') {
        return false;
    }
    return qim_id_from_name_n(dst, text, std::strlen(text), 0);
}

bool qim_id_from_name_n(qim_id* dst, const char* text, std::size_t len, unsigned flags) {
    if (dst == nullptr || text == nullptr) {
        return false;
    }
    if (len == 0) {
        len = QIM_ID_NAME_SIZE;
        flags |= QIM_ID_NAME_ALLOW_NUL;
    }
    std::size_t n = 0;
    while (n < len && text[n] != '\0') {
        ++n;
    }
    if (n < len && (flags & QIM_ID_NAME_ALLOW_NUL) == 0) {
        return false;
    }
    if (n == 0) {
        return false;
    }
    std::memset(dst->bytes, 0, sizeof dst->bytes);
    const bool keep_first_8 = (flags & QIM_ID_NAME_ALLOW_EXCESS) != 0;

    if (text[0] != '_') {
        std::size_t copy = n < sizeof dst->bytes ? n : sizeof dst->bytes;
        std::memcpy(dst->bytes, text, copy);
        return n <= sizeof dst->bytes || keep_first_8;
    }

    std::size_t pos = 1;
    std::size_t pairs = 0;
    if (pos == n) {
        return false;  // "_" without a pair
    }
    while (pos < n) {
        if (pairs == sizeof dst->bytes) {
            return keep_first_8;  // more than 8 pairs follow
        }
        if (pos + 1 >= n) {
            return false;  // an odd digit at the end
        }
        uint8_t hi = qim_hex_digit_value(text[pos]);
        uint8_t lo = qim_hex_digit_value(text[pos + 1]);
        if (hi == 255 || lo == 255) {
            return false;
        }
        dst->bytes[pairs++] = static_cast<uint8_t>(hi * 16 + lo);
        pos += 2;
    }
    return true;
}

char* qim_id_to_hex(const qim_id* id, char* dst) {
    qim_id_print_hex(dst, id);
    return dst;
}

int qim_id_print_hex(char* dst, const qim_id* id) {
    for (int i = 0; i < 8; ++i) {
        dst[2 * i] = kHexDigits[id->bytes[i] >> 4];
        dst[2 * i + 1] = kHexDigits[id->bytes[i] & 0x0f];
    }
    dst[16] = '\0';
    return 16;
}

char* qim_id_to_printable(const qim_id* id, char* dst, std::size_t size) {
    if (dst == nullptr || size == 0) {
        return dst;
    }
    char text[9];
    for (int i = 0; i < 8; ++i) {
        uint8_t b = id->bytes[i];
        text[i] = (b >= 0x20 && b <= 0x7e) ? static_cast<char>(b) : '.';
    }
    text[8] = '\0';
    std::snprintf(dst, size, "%s", text);
    return dst;
}

char* qim_id_to_name(const qim_id* id, char* dst, bool force_hex) {
    std::size_t len = significant_length(id);
    if (len == 0) {
        std::memcpy(dst, "_00", 4);
        return dst;
    }
    bool text_form = !force_hex && id->bytes[0] != '_';
    for (std::size_t i = 0; text_form && i < len; ++i) {
        text_form = qim_id_is_name_char(id->bytes[i]);
    }
    if (text_form) {
        std::memcpy(dst, id->bytes, len);
        dst[len] = '\0';
        return dst;
    }
    char* out = dst;
    *out++ = '_';
    for (std::size_t i = 0; i < len; ++i) {
        *out++ = kHexDigits[id->bytes[i] >> 4];
        *out++ = kHexDigits[id->bytes[i] & 0x0f];
    }
    *out = '\0';
    return dst;
}

char* qim_id_to_safe_name(const qim_id* id, char* dst) { return qim_id_to_name(id, dst, false); }

char* qim_id_to_hex_name(const qim_id* id, char* dst) { return qim_id_to_name(id, dst, true); }

char* qim_id_num_to_string(const qim_id_num* idn, char* dst) {
    const uint8_t* b = idn->id.bytes;
    std::snprintf(dst, QIM_ID_NUM_STRING_SIZE, "%02x%02x%02x%02x%02x%02x%02x%02x:%d", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], static_cast<int>(idn->num));
    return dst;
}

bool qim_id_num_from_string(qim_id_num* dst, const char* text) {
    if (dst == nullptr || text == nullptr) {
        return false;
    }
    unsigned v[8];
    int num = 0;
    int n = std::sscanf(text, "%02x%02x%02x%02x%02x%02x%02x%02x:%d", &v[0], &v[1], &v[2], &v[3],
                        &v[4], &v[5], &v[6], &v[7], &num);
    if (n != 9) {
        return false;
    }
    for (int i = 0; i < 8; ++i) {
        dst->id.bytes[i] = static_cast<uint8_t>(v[i] & 0xffu);
    }
    dst->num = static_cast<uint16_t>(num);
    return true;
}

bool qim_id_is_name_char(int c) { return is_alnum(c) || c == '_' || c == '-'; }

uint8_t qim_hex_digit_value(int c) {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    return 255;
}
