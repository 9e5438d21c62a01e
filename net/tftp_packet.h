// TFTP (RFC 1350) packets as bytes: encoding of the packets a reading client
// sends (RRQ, ACK, ERROR) and a server sends (DATA, ERROR, OACK), decoding of
// all of them, the option list of an OACK (RFC 2347), and the mapping of TFTP
// error codes to zel_error_t. Pure functions over
// caller buffers: no I/O, no allocation, safe on any input (fuzzable).
//
// Every 16-bit field on the wire is big-endian. Encoders leave `*length`
// untouched when they fail.
#pragma once

#include "net/socket.h"
#include "support/errors.h"

#include <cstdint>

enum : uint16_t {
    ZEL_TFTP_OPCODE_RRQ = 1,
    ZEL_TFTP_OPCODE_WRQ = 2,
    ZEL_TFTP_OPCODE_DATA = 3,
    ZEL_TFTP_OPCODE_ACK = 4,
    ZEL_TFTP_OPCODE_ERROR = 5,
    ZEL_TFTP_OPCODE_OACK = 6,  // RFC 2347
};

// TFTP error codes the client sends.
enum : uint16_t {
    ZEL_TFTP_ERROR_DISK_FULL = 3,
    ZEL_TFTP_ERROR_OPTION_REFUSED = 8,  // RFC 2347: the client refuses the OACK
};

enum : uint32_t {
    // An Ethernet payload less the IPv4 and UDP headers: the largest datagram
    // the client builds or receives.
    ZEL_TFTP_PACKET_SIZE = 1472,
    // Data bytes of a full block; a shorter block ends the transfer.
    ZEL_TFTP_BLOCK_SIZE = 512,
    // Opcode (2) and block number or error code (2).
    ZEL_TFTP_HEADER_SIZE = 4,
    // Longest file name a read request can carry: 2 + 1462 + 1 + "octet" + 1 = 1471.
    ZEL_TFTP_MAX_FILE_NAME_LENGTH = 1462,
    ZEL_TFTP_DEFAULT_PORT = 69,
    // RFC 2347: a request that carries options stays within 512 bytes.
    ZEL_TFTP_MAX_OPTION_REQUEST_SIZE = 512,
};

// What a datagram is. MALFORMED: a known opcode whose fixed part is missing
// (DATA, ACK or ERROR of 3 bytes or fewer; RRQ/WRQ without both terminated
// strings). RUNT: fewer than 2 bytes, so not even an opcode.
enum zel_tftp_packet_kind : unsigned {
    ZEL_TFTP_PACKET_RUNT,
    ZEL_TFTP_PACKET_MALFORMED,
    ZEL_TFTP_PACKET_RRQ,
    ZEL_TFTP_PACKET_WRQ,
    ZEL_TFTP_PACKET_DATA,
    ZEL_TFTP_PACKET_ACK,
    ZEL_TFTP_PACKET_ERROR,
    ZEL_TFTP_PACKET_UNKNOWN,
    ZEL_TFTP_PACKET_OACK,  // payload: the option bytes after the opcode
};

// A decoded datagram. Pointers point into the decoded buffer and live as long
// as it does. Fields that the kind does not use are zero / null.
struct zel_tftp_packet_view {
    unsigned kind;            // zel_tftp_packet_kind
    uint16_t opcode;          // bytes 0-1; 0 for a RUNT
    uint16_t number;          // DATA/ACK: block number; ERROR: TFTP error code
    const uint8_t* payload;   // DATA: the data; ERROR: the message bytes (not
                              // necessarily terminated); RRQ/WRQ: the file name
    uint32_t payload_length;  // bytes at `payload` (RRQ/WRQ: name length)
    const char* mode;         // RRQ/WRQ: the terminated transfer mode
};

// One datagram with its peer: the destination of an outgoing packet or the
// source of a received one.
struct zel_tftp_message {
    zel_sockaddr address;
    uint8_t packet[ZEL_TFTP_PACKET_SIZE];
    uint32_t length;  // bytes of `packet` in use
};

// Decodes `length` bytes at `packet` (null is taken as empty). Never fails:
// whatever the bytes are, the result says what they are.
zel_tftp_packet_view zel_tftp_packet_decode(const uint8_t* packet, uint32_t length);

// One option of a request: both texts terminated, neither null.
struct zel_tftp_option {
    const char* name;
    const char* value;
};

// The options an OACK carries, as far as this client knows them. Values are
// what the server wrote, unchecked against the request (tftp_state decides).
enum : uint32_t {
    ZEL_TFTP_OACK_BLKSIZE = 1u << 0,
    ZEL_TFTP_OACK_WINDOWSIZE = 1u << 1,
    ZEL_TFTP_OACK_TSIZE = 1u << 2,
    ZEL_TFTP_OACK_UNKNOWN = 1u << 3,  // some option this client never asks for
};
struct zel_tftp_oack {
    uint32_t present;  // ZEL_TFTP_OACK_* bits
    uint64_t blksize;
    uint64_t windowsize;
    uint64_t tsize;
};

// Reads the option bytes of an OACK (`length` bytes after the opcode):
// name/value pairs, each text terminated; names compared without regard to
// case; values decimal digits only (at most 19). INVALIDPARAMETER for a null
// `out` (or null `options` with a length); INVALIDDATA for an unterminated
// text, an empty name, a value that is not a number, or an option named
// twice. `*out` is untouched on failure. No option at all is a valid OACK.
zel_error_t zel_tftp_oack_parse(const uint8_t* options, uint32_t length, zel_tftp_oack* out);

// Read request for `file_name` in mode "octet": length = name length + 9.
// INVALIDPARAMETER for a null pointer or an empty name; INVALIDDATA for a name
// of 1463 bytes or more; NOBUFS when `capacity` is too small.
zel_error_t zel_tftp_packet_encode_rrq(uint8_t* packet, uint32_t capacity, const char* file_name,
                                       uint32_t* length);

// Read request for `file_name` in mode "octet" followed by `count` options.
// The same refusals as zel_tftp_packet_encode_rrq, and MSGSIZE when the whole
// request would exceed 512 bytes (the caller then asks without options).
zel_error_t zel_tftp_packet_encode_rrq_options(uint8_t* packet, uint32_t capacity, const char* file_name,
                                               const zel_tftp_option* options, uint32_t count, uint32_t* length);

// OACK with `count` options: test peers build them. INVALIDPARAMETER for a
// null pointer, NOBUFS when it does not fit.
zel_error_t zel_tftp_packet_encode_oack(uint8_t* packet, uint32_t capacity, const zel_tftp_option* options,
                                        uint32_t count, uint32_t* length);

// ACK of `block`: 4 bytes. INVALIDPARAMETER for a null pointer, NOBUFS when
// `capacity` is below 4.
zel_error_t zel_tftp_packet_encode_ack(uint8_t* packet, uint32_t capacity, uint16_t block,
                                       uint32_t* length);

// DATA block `block` carrying `data_length` bytes (any number: test peers
// also build oversized blocks). INVALIDPARAMETER for a null pointer (`data`
// may be null when `data_length` is 0), NOBUFS when it does not fit.
zel_error_t zel_tftp_packet_encode_data(uint8_t* packet, uint32_t capacity, uint16_t block,
                                        const uint8_t* data, uint32_t data_length, uint32_t* length);

// ERROR packet with TFTP error `code` and the terminated `message` (null =
// empty). INVALIDPARAMETER for a null pointer, NOBUFS when it does not fit.
zel_error_t zel_tftp_packet_encode_error(uint8_t* packet, uint32_t capacity, uint16_t code,
                                         const char* message, uint32_t* length);

// The zel_error_t that a TFTP error code received from a server stands for:
// 1 NOTFOUND, 2 ACCES, 3 NOBUFS, 4 NOTSUPPORTED, 5 INVALIDDATA, 6 ALREADY,
// 7 POLICY; 0 and every other code SYSTEM.
zel_error_t zel_tftp_error_from_code(uint16_t tftp_code);
