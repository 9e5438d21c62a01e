// States of a TFTP read request and the rules that move it: lock step as RFC
// 1350 has it, and, when the request asked for options, the negotiation of
// RFC 2347 and the windows of RFC 7440. Pure decisions, kept apart from the
// socket and timer plumbing of tftp_client so that they can be tested on
// their own.
#pragma once

#include "net/tftp_packet.h"
#include "support/errors.h"

#include <cstdint>

// States of a client (reading) request; the value is the index into
// ZEL_TFTP_CLIENT_REQUEST_STATE_NAMES.
enum : uint32_t {
    ZEL_TFTP_CLIENT_REQUEST_STATE_NONE = 0,
    ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING = 1,
    ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING = 2,
    ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED = 3,
    ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR = 4,
};

// "NONE", "CONNECTING", "RECVING", "COMPLETED", "ERROR".
extern const char* const ZEL_TFTP_CLIENT_REQUEST_STATE_NAMES[5];
// States of a sending request: "NONE", "SENDING", "COMPLETED", "ERROR".
// Nothing in this system sends files; only the names exist.
extern const char* const ZEL_TFTP_REQUEST_STATE_NAMES[4];

// The name of a client request state, or "???" above ERROR.
const char* zel_tftp_client_request_state_name(unsigned state);

// How a received DATA block number relates to the last accepted one.
enum zel_tftp_block_relation : unsigned {
    ZEL_TFTP_BLOCK_NEW,      // the next block: write it, restart the timers
    ZEL_TFTP_BLOCK_REPEAT,   // the block last accepted (block 0 before any): acknowledge only
    ZEL_TFTP_BLOCK_INVALID,  // anything else: drop it, no acknowledgement
};

// `last` + 1 is formed in 32 bits, so once block 65535 has been accepted no
// block is ever new again: the block counter does not roll over.
zel_tftp_block_relation zel_tftp_classify_block(uint16_t last, uint16_t received);

// Options a read request asks for. All zero (the default) asks for none: the
// request and everything after it are RFC 1350's, block numbers included.
struct zel_tftp_options {
    uint16_t blksize;     // RFC 2348, 8 to 1468 (what one datagram holds); 0: not asked
    uint16_t windowsize;  // RFC 7440, 1 to 65535; 0: not asked
    bool tsize;           // RFC 2349: ask for the file's size
    bool rollover;        // block 0 follows block 65535, so files of any length complete
    uint64_t max_size;    // a file the server announces as larger is refused; 0: no limit
};

// The largest blksize the client can take: a DATA packet fills its buffer.
enum : uint16_t { ZEL_TFTP_MAX_BLKSIZE = ZEL_TFTP_PACKET_SIZE - ZEL_TFTP_HEADER_SIZE };

// True when `options` asks for anything at all (any option, or rollover).
bool zel_tftp_options_any(const zel_tftp_options* options);
// INVALIDPARAMETER unless each asked value lies in its range above.
zel_error_t zel_tftp_options_check(const zel_tftp_options* options);

// Where a request stands with its options.
enum : uint32_t {
    ZEL_TFTP_NEGOTIATION_NONE = 0,     // nothing asked: plain RFC 1350
    ZEL_TFTP_NEGOTIATION_ASKED = 1,    // the read request carries options; no answer yet
    ZEL_TFTP_NEGOTIATION_ACCEPTED = 2, // an OACK was accepted and acknowledged with ACK 0
    ZEL_TFTP_NEGOTIATION_IGNORED = 3,  // DATA 1 came instead: 512 bytes, window 1
    ZEL_TFTP_NEGOTIATION_DROPPED = 4,  // the server refused the options (ERROR 8); asked again without
};

// The transfer an accepted OACK sets up.
struct zel_tftp_transfer {
    uint16_t block_size;
    uint16_t window_size;
};

// Checks an OACK against what was asked: an option not asked for, a blksize
// above the request or below 8, a windowsize above the request or below 1
// are refused with INVALIDDATA and `*why` names the offence; otherwise
// `*transfer` holds the block size (512 when the OACK has none) and the
// window (1 when it has none). `transfer` is untouched on refusal.
zel_error_t zel_tftp_negotiate(const zel_tftp_options* asked, const zel_tftp_oack* oack,
                               zel_tftp_transfer* transfer, const char** why);

// A received block seen from a request with options (rollover on): the
// distance from the last block accepted in order, modulo 65536.
enum zel_tftp_window_relation : unsigned {
    ZEL_TFTP_WINDOW_NEW,        // the next block
    ZEL_TFTP_WINDOW_REPEAT,     // the last block accepted again: acknowledge it again
    ZEL_TFTP_WINDOW_GAP,        // ahead within the window: blocks are missing
    ZEL_TFTP_WINDOW_DUPLICATE,  // behind: already stored, dropped without an ACK
    ZEL_TFTP_WINDOW_INVALID,    // ahead beyond any window the server may send
};
zel_tftp_window_relation zel_tftp_classify_window_block(uint16_t last, uint16_t received, uint16_t window_size);

// What a request does once the ACK of an accepted block has gone out.
enum zel_tftp_ack_outcome : unsigned {
    ZEL_TFTP_AFTER_ACK_COMPLETE,  // short block: COMPLETED, close, callback
    ZEL_TFTP_AFTER_ACK_RECEIVE,   // first full block: CONNECTING -> RECVING, callback
    ZEL_TFTP_AFTER_ACK_PROGRESS,  // a full block brought data: callback
    ZEL_TFTP_AFTER_ACK_NOTHING,   // a repeated full block
};

// `data_length` is the block's data size (more than `block_size` counts as a
// full block); `wrote` says whether the block was new and carried data.
zel_tftp_ack_outcome zel_tftp_after_ack(uint32_t state, uint32_t data_length, uint32_t block_size, bool wrote);
