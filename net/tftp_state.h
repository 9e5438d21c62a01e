// States of a TFTP read request and the lock-step rules that move it. Pure
// decisions, kept apart from the socket and timer plumbing of tftp_client so
// that they can be tested on their own.
#pragma once

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

// What a request does once the ACK of an accepted block has gone out.
enum zel_tftp_ack_outcome : unsigned {
    ZEL_TFTP_AFTER_ACK_COMPLETE,  // short block: COMPLETED, close, callback
    ZEL_TFTP_AFTER_ACK_RECEIVE,   // first full block: CONNECTING -> RECVING, callback
    ZEL_TFTP_AFTER_ACK_PROGRESS,  // a full block brought data: callback
    ZEL_TFTP_AFTER_ACK_NOTHING,   // a repeated full block
};

// `data_length` is the block's data size (more than 512 counts as a full
// block); `wrote` says whether the block was new and carried data.
zel_tftp_ack_outcome zel_tftp_after_ack(uint32_t state, uint32_t data_length, bool wrote);
