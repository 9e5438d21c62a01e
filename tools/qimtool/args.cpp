#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "qim/names.h"
#include "tools/qimtool/qimtool.h"

namespace qimtool {

int usage_error(const char* sub, const std::string& message) {
    std::fprintf(stderr, "qimtool %s: %s\n", sub, message.c_str());
    std::fprintf(stderr, "Try 'qimtool %s --help'.\n", sub);
    return QIMTOOL_USAGE;
}

int failure(const char* sub, const std::string& message) {
    std::fprintf(stderr, "qimtool %s: %s\n", sub, message.c_str());
    return QIMTOOL_FAILED;
}

bool parse_u32(const std::string& text, uint32_t* out) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

bool parse_id(const std::string& text, qim_id* out) {
    if (text.size() != 16) return false;
    for (char c : text) {
        if (qim_hex_digit_value(c) == 255) return false;
    }
    qim_id_from_hex16(text.c_str(), out);
    return true;
}

bool parse_release(const std::string& text, uint32_t* out) {
    uint32_t value = 0;
    std::size_t pos = 0;
    for (int i = 0; i < 4; ++i) {
        std::size_t end = text.find('.', pos);
        if ((i < 3) != (end != std::string::npos)) return false;
        std::string piece = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        uint32_t n;
        if (piece.empty() || piece.find_first_not_of("0123456789") != std::string::npos ||
            !parse_u32(piece, &n) || n > 255) {
            return false;
        }
        value = value << 8 | n;
        pos = end + 1;
    }
    *out = value;
    return true;
}

bool parse_part_kind(const std::string& text, uint32_t* out) {
    uint32_t kind = qim_part_id_from_name(text.c_str());
    if (kind != QIM_PART_ID_UNKNOWN) {
        *out = kind;
        return true;
    }
    return parse_u32(text, out);
}

bool parse_device_code(const std::string& text, uint32_t* out) {
    uint32_t code = qim_device_code_from_name(text.c_str());
    if (code != 0) {
        *out = code;
        return true;
    }
    return parse_u32(text, out);
}

bool take_value(const Args& args, std::size_t* i, std::string* value) {
    if (*i + 1 >= args.size()) return false;
    *value = args[++*i];
    return true;
}

bool wants_help(const Args& args) {
    for (const std::string& a : args) {
        if (a == "--help" || a == "-h") return true;
    }
    return false;
}

std::string hex_id(const qim_id& id) {
    char buf[QIM_ID_HEX_SIZE];
    return qim_id_to_hex(&id, buf);
}

std::string release_text(uint32_t r) {
    char buf[20];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", r >> 24, (r >> 16) & 0xffu, (r >> 8) & 0xffu, r & 0xffu);
    return buf;
}

}  // namespace qimtool
