#include "net/tftp_packet.h"

#include <cctype>
#include <initializer_list>
#include <cstring>

namespace {

constexpr char kOctetMode[] = "octet";

uint16_t get16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v & 0xFF);
}

// Length of the terminated string at `p` within `n` bytes, or -1 without terminator.
long terminated_length(const uint8_t* p, uint32_t n) {
    const void* nul = std::memchr(p, 0, n);
    return nul ? static_cast<const uint8_t*>(nul) - p : -1;
}

// RRQ and WRQ: file name and mode, each followed by a zero byte.
zel_tftp_packet_view decode_request(zel_tftp_packet_view view, const uint8_t* packet, uint32_t length) {
    const uint8_t* name = packet + 2;
    const uint32_t left = length - 2;
    const long name_length = terminated_length(name, left);
    if (name_length < 0) {
        view.kind = ZEL_TFTP_PACKET_MALFORMED;
        return view;
    }
    const uint8_t* mode = name + name_length + 1;
    const uint32_t mode_room = left - static_cast<uint32_t>(name_length) - 1;
    if (terminated_length(mode, mode_room) < 0) {
        view.kind = ZEL_TFTP_PACKET_MALFORMED;
        return view;
    }
    view.payload = name;
    view.payload_length = static_cast<uint32_t>(name_length);
    view.mode = reinterpret_cast<const char*>(mode);
    return view;
}

// Appends the terminated names and values of `options` at `*at` within
// `end`; false (nothing promised about the bytes) when they do not fit.
bool put_options(uint8_t* packet, uint32_t* at, uint32_t end, const zel_tftp_option* options, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        for (const char* text : {options[i].name, options[i].value}) {
            const size_t size = std::strlen(text) + 1;
            if (size > end - *at) return false;
            std::memcpy(packet + *at, text, size);
            *at += static_cast<uint32_t>(size);
        }
    }
    return true;
}

bool options_valid(const zel_tftp_option* options, uint32_t count) {
    if (count > 0 && options == nullptr) return false;
    for (uint32_t i = 0; i < count; ++i) {
        if (options[i].name == nullptr || options[i].value == nullptr) return false;
    }
    return true;
}

bool same_name(const uint8_t* name, size_t length, const char* known) {
    if (std::strlen(known) != length) return false;
    for (size_t i = 0; i < length; ++i) {
        if (std::tolower(name[i]) != known[i]) return false;
    }
    return true;
}

// A decimal number of 1 to 19 digits (fits in 64 bits unsigned).
bool parse_number(const uint8_t* text, size_t length, uint64_t* value) {
    if (length == 0 || length > 19) return false;
    uint64_t v = 0;
    for (size_t i = 0; i < length; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        v = v * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    *value = v;
    return true;
}

}  // namespace

zel_error_t zel_tftp_oack_parse(const uint8_t* options, uint32_t length, zel_tftp_oack* out) {
    if (out == nullptr || (options == nullptr && length > 0)) return ZEL_INVALIDPARAMETER;
    static const struct {
        const char* name;
        uint32_t bit;
        uint64_t zel_tftp_oack::*field;
    } kKnown[] = {
        {"blksize", ZEL_TFTP_OACK_BLKSIZE, &zel_tftp_oack::blksize},
        {"windowsize", ZEL_TFTP_OACK_WINDOWSIZE, &zel_tftp_oack::windowsize},
        {"tsize", ZEL_TFTP_OACK_TSIZE, &zel_tftp_oack::tsize},
    };
    zel_tftp_oack parsed{};
    uint32_t at = 0;
    while (at < length) {
        const long name_length = terminated_length(options + at, length - at);
        if (name_length <= 0) return ZEL_INVALIDDATA;
        const uint8_t* name = options + at;
        at += static_cast<uint32_t>(name_length) + 1;
        const long value_length = terminated_length(options + at, length - at);
        if (value_length < 0) return ZEL_INVALIDDATA;
        const uint8_t* value = options + at;
        at += static_cast<uint32_t>(value_length) + 1;

        bool known = false;
        for (const auto& k : kKnown) {
            if (!same_name(name, static_cast<size_t>(name_length), k.name)) continue;
            known = true;
            if ((parsed.present & k.bit) != 0 ||
                !parse_number(value, static_cast<size_t>(value_length), &(parsed.*k.field))) {
                return ZEL_INVALIDDATA;
            }
            parsed.present |= k.bit;
        }
        if (!known) parsed.present |= ZEL_TFTP_OACK_UNKNOWN;
    }
    *out = parsed;
    return ZEL_SUCCESS;
}

zel_tftp_packet_view zel_tftp_packet_decode(const uint8_t* packet, uint32_t length) {
    zel_tftp_packet_view view{};
    if (packet == nullptr || length < 2) {
        view.kind = ZEL_TFTP_PACKET_RUNT;
        return view;
    }
    view.opcode = get16(packet);
    switch (view.opcode) {
    case ZEL_TFTP_OPCODE_RRQ:
    case ZEL_TFTP_OPCODE_WRQ:
        view.kind = view.opcode == ZEL_TFTP_OPCODE_RRQ ? ZEL_TFTP_PACKET_RRQ : ZEL_TFTP_PACKET_WRQ;
        return decode_request(view, packet, length);
    case ZEL_TFTP_OPCODE_DATA:
    case ZEL_TFTP_OPCODE_ACK:
    case ZEL_TFTP_OPCODE_ERROR:
        break;
    case ZEL_TFTP_OPCODE_OACK:
        view.kind = ZEL_TFTP_PACKET_OACK;
        view.payload_length = length - 2;
        view.payload = view.payload_length ? packet + 2 : nullptr;
        return view;
    default:
        view.kind = ZEL_TFTP_PACKET_UNKNOWN;
        return view;
    }
    if (length < ZEL_TFTP_HEADER_SIZE) {
        view.kind = ZEL_TFTP_PACKET_MALFORMED;
        return view;
    }
    view.number = get16(packet + 2);
    if (view.opcode == ZEL_TFTP_OPCODE_ACK) {
        view.kind = ZEL_TFTP_PACKET_ACK;
        return view;
    }
    view.kind = view.opcode == ZEL_TFTP_OPCODE_DATA ? ZEL_TFTP_PACKET_DATA : ZEL_TFTP_PACKET_ERROR;
    view.payload_length = length - ZEL_TFTP_HEADER_SIZE;
    view.payload = view.payload_length ? packet + ZEL_TFTP_HEADER_SIZE : nullptr;
    return view;
}

zel_error_t zel_tftp_packet_encode_rrq(uint8_t* packet, uint32_t capacity, const char* file_name,
                                       uint32_t* length) {
    if (packet == nullptr || file_name == nullptr || length == nullptr || file_name[0] == '\0') {
        return ZEL_INVALIDPARAMETER;
    }
    // Bounded scan: anything past the limit is refused, however long it is.
    const size_t name_length = strnlen(file_name, ZEL_TFTP_MAX_FILE_NAME_LENGTH + 1);
    if (name_length > ZEL_TFTP_MAX_FILE_NAME_LENGTH) return ZEL_INVALIDDATA;
    const uint32_t total = 2 + static_cast<uint32_t>(name_length) + 1 + sizeof kOctetMode;
    if (capacity < total) return ZEL_NOBUFS;
    put16(packet, ZEL_TFTP_OPCODE_RRQ);
    std::memcpy(packet + 2, file_name, name_length + 1);
    std::memcpy(packet + 2 + name_length + 1, kOctetMode, sizeof kOctetMode);
    *length = total;
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_packet_encode_rrq_options(uint8_t* packet, uint32_t capacity, const char* file_name,
                                               const zel_tftp_option* options, uint32_t count, uint32_t* length) {
    if (!options_valid(options, count)) return ZEL_INVALIDPARAMETER;
    uint32_t at = 0;
    const zel_error_t err = zel_tftp_packet_encode_rrq(packet, capacity, file_name, &at);
    if (err != ZEL_SUCCESS) return err;
    const uint32_t end = capacity < ZEL_TFTP_MAX_OPTION_REQUEST_SIZE ? capacity : ZEL_TFTP_MAX_OPTION_REQUEST_SIZE;
    if (at > end || !put_options(packet, &at, end, options, count)) {
        return capacity < ZEL_TFTP_MAX_OPTION_REQUEST_SIZE ? ZEL_NOBUFS : ZEL_MSGSIZE;
    }
    *length = at;
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_packet_encode_oack(uint8_t* packet, uint32_t capacity, const zel_tftp_option* options,
                                        uint32_t count, uint32_t* length) {
    if (packet == nullptr || length == nullptr || !options_valid(options, count)) return ZEL_INVALIDPARAMETER;
    if (capacity < 2) return ZEL_NOBUFS;
    put16(packet, ZEL_TFTP_OPCODE_OACK);
    uint32_t at = 2;
    if (!put_options(packet, &at, capacity, options, count)) return ZEL_NOBUFS;
    *length = at;
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_packet_encode_ack(uint8_t* packet, uint32_t capacity, uint16_t block, uint32_t* length) {
    if (packet == nullptr || length == nullptr) return ZEL_INVALIDPARAMETER;
    if (capacity < ZEL_TFTP_HEADER_SIZE) return ZEL_NOBUFS;
    put16(packet, ZEL_TFTP_OPCODE_ACK);
    put16(packet + 2, block);
    *length = ZEL_TFTP_HEADER_SIZE;
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_packet_encode_data(uint8_t* packet, uint32_t capacity, uint16_t block,
                                        const uint8_t* data, uint32_t data_length, uint32_t* length) {
    if (packet == nullptr || length == nullptr || (data == nullptr && data_length > 0)) {
        return ZEL_INVALIDPARAMETER;
    }
    if (capacity < ZEL_TFTP_HEADER_SIZE || capacity - ZEL_TFTP_HEADER_SIZE < data_length) return ZEL_NOBUFS;
    put16(packet, ZEL_TFTP_OPCODE_DATA);
    put16(packet + 2, block);
    if (data_length > 0) std::memcpy(packet + ZEL_TFTP_HEADER_SIZE, data, data_length);
    *length = ZEL_TFTP_HEADER_SIZE + data_length;
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_packet_encode_error(uint8_t* packet, uint32_t capacity, uint16_t code, const char* message,
                                         uint32_t* length) {
    if (packet == nullptr || length == nullptr) return ZEL_INVALIDPARAMETER;
    const char* text = message ? message : "";
    const size_t text_size = std::strlen(text) + 1;
    if (capacity < ZEL_TFTP_HEADER_SIZE || capacity - ZEL_TFTP_HEADER_SIZE < text_size) return ZEL_NOBUFS;
    put16(packet, ZEL_TFTP_OPCODE_ERROR);
    put16(packet + 2, code);
    std::memcpy(packet + ZEL_TFTP_HEADER_SIZE, text, text_size);
    *length = ZEL_TFTP_HEADER_SIZE + static_cast<uint32_t>(text_size);
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_error_from_code(uint16_t tftp_code) {
    // Index = TFTP error code of RFC 1350; 0 "not defined" has no better match than SYSTEM.
    static const zel_error_t kByCode[] = {
        ZEL_SYSTEM,   ZEL_NOTFOUND,    ZEL_ACCES,   ZEL_NOBUFS,
        ZEL_NOTSUPPORTED, ZEL_INVALIDDATA, ZEL_ALREADY, ZEL_POLICY,
    };
    return tftp_code < sizeof kByCode / sizeof kByCode[0] ? kByCode[tftp_code] : ZEL_SYSTEM;
}
