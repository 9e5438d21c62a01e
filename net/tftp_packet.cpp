#include "net/tftp_packet.h"

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

}  // namespace

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
