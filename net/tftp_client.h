// Event-driven TFTP read client (RFC 1350, octet mode, 512-byte blocks, lock
// step; on request the options of RFC 2347: blksize, windowsize, tsize, and
// block numbers that roll over). zel_tftp_client__recv_file opens a UDP socket, sends the read request
// and registers the socket and two timers on the environment's event loop;
// from then on the loop's callbacks do all the work, and the caller learns of
// progress, completion and failure through the client's one callback. The
// caller turns the loop until the request is COMPLETED or ERROR.
//
// Timing: the read request (later the last ACK) is sent again every
// retry_timeout; the request fails with TIMEDOUT abort_timeout after it was
// started or after the last new block. Both timers restart on each new block.
//
// A client holds one request at a time. It never writes files. Without
// options (the default) it never sends an ERROR packet and never negotiates.
// With options (zel_tftp_client__set_options) the read request carries them
// when it stays within 512 bytes; an OACK is checked and acknowledged with
// ACK 0, or refused with ERROR 8; an ERROR 8 answer makes it ask once more
// without options; DATA 1 instead of an OACK goes on at 512 bytes, window 1.
// With a window of W blocks the client acknowledges the last block of each
// full window, the short last block, and the last block received in order
// when one is missing (once per gap); duplicates are dropped, never stored
// twice. A file announced (tsize) above max_size is refused with ERROR 3
// before any byte is stored. Everything it reports goes to the
// environment's log. Single-threaded: use it on the thread that turns the loop.
#pragma once

#include "net/env.h"
#include "net/event_loop.h"
#include "net/socket.h"
#include "net/tftp_packet.h"
#include "net/tftp_state.h"
#include "net/time.h"
#include "support/errors.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct zel_tftp_client;
struct zel_tftp_client_request;

// Stores received data; shaped like fwrite. Called with size = the data length
// and count = 1; the result is not looked at (a short write goes unnoticed).
typedef size_t (*zel_tftp_write_fn)(const void* data, size_t size, size_t count, FILE* file);
// Progress, completion or failure of the client's request. Runs inside the
// event loop's dispatch and may reset the request.
typedef void (*zel_tftp_request_cb)(zel_tftp_client_request* request);

// {2, 0} and {5, 0}.
extern const zel_utime ZEL_TFTP_DEFAULT_RETRY_TIMEOUT;
extern const zel_utime ZEL_TFTP_DEFAULT_ABORT_TIMEOUT;

enum : size_t {
    // 1463 bytes and a terminator: a name of 1463 bytes survives the copy so
    // that the read request can refuse it.
    ZEL_TFTP_FILE_NAME_SIZE = 1464,
    ZEL_TFTP_ERROR_TEXT_SIZE = ZEL_ERROR_TEXT_SIZE,
};

// The fields are shown so that the record can live inside the client; use the
// functions below rather than touching them.
struct zel_tftp_client_request {
    zel_tftp_client* client;           // the owner
    int socket;                        // UDP socket, -1 when none
    zel_event_timer* retry_timer;      // periodic; null when none
    zel_event_timer* abort_timer;      // one-shot; null when none
    zel_sockaddr server;               // port 69 when given as 0
    char file_name[ZEL_TFTP_FILE_NAME_SIZE];
    FILE* file;                        // the caller's, not owned
    zel_tftp_write_fn write;
    zel_utime retry_timeout;
    zel_utime abort_timeout;
    uint32_t state;                    // ZEL_TFTP_CLIENT_REQUEST_STATE_*
    zel_error_t error;                 // why ERROR was entered, else 0
    uint16_t block;                    // last DATA block accepted, 0 before the first
    uint32_t bytes_transferred;        // sum of the data lengths handed to `write`
    zel_tftp_message outgoing;         // last packet sent (RRQ, later the last ACK)
    zel_tftp_message incoming;         // receive buffer
    // Options: a copy of the client's at recv_file, and where they stand.
    zel_tftp_options options;
    uint32_t negotiation;              // ZEL_TFTP_NEGOTIATION_*
    uint16_t block_size;               // 512 unless an OACK said otherwise
    uint16_t window_size;              // 1 unless an OACK said otherwise
    uint16_t window_received;          // new blocks since the last ACK went out
    bool gap_acknowledged;             // a missing block was reported since the last new block
};

struct zel_tftp_client {
    zel_env* env;                      // not owned; supplies the log and the loop
    zel_tftp_request_cb callback;      // may be null
    void* context;
    zel_tftp_client_request request;   // the one request
    char error_text[ZEL_TFTP_ERROR_TEXT_SIZE];
    uint32_t failure_probability;      // percent 0..100; 0 = no simulated failures
    zel_tftp_options options;          // for the next recv_file; all zero: none
};

// Null when `env` is null, has no event loop, or memory runs out. The client
// has no callback or context, failure probability 0, and its request is NONE
// with no socket.
zel_tftp_client* zel_tftp_client__create(zel_env* env);
// Resets the request (closing its socket and timers) and frees the client.
// Null is ignored. Not from inside the client's own callback.
void zel_tftp_client__release(zel_tftp_client* client);

void zel_tftp_client__set_callback(zel_tftp_client* client, zel_tftp_request_cb callback);
void zel_tftp_client__set_context(zel_tftp_client* client, void* context);
void* zel_tftp_client__context(const zel_tftp_client* client);
// Percent of sends and receives to drop on purpose (testing); values above 100
// are stored as 100. Logged at Debug.
void zel_tftp_client__set_simulated_failure_probability(zel_tftp_client* client, unsigned percent);

// Options for the requests started from now on (copied by recv_file); null
// or all zero: none. INVALIDPARAMETER for a null client or a value out of
// range (zel_tftp_options_check); the client's options are then unchanged.
zel_error_t zel_tftp_client__set_options(zel_tftp_client* client, const zel_tftp_options* options);

// Starts downloading `file_name` from `server` (port 0 means 69) into `file`
// through `write`. Null timeouts take the defaults.
// INVALIDPARAMETER for a null client, server, file_name, write or out;
// INVALIDDATA for an empty name or a server that is not an IPv4 address other
// than 0.0.0.0; INVALIDSTATE unless the request
// is NONE. A failure after these checks (socket, loop registration, a name of
// 1463 bytes or more, timers: a retry timeout that is not positive gives
// INVALIDPARAMETER) leaves the request NONE with no socket and no timers and
// is returned. On success the request is CONNECTING and `*out` is it; `*out`
// is untouched on failure.
zel_error_t zel_tftp_client__recv_file(zel_tftp_client* client, const zel_sockaddr* server, const char* file_name,
                                       FILE* file, zel_tftp_write_fn write, const zel_utime* retry_timeout,
                                       const zel_utime* abort_timeout, zel_tftp_client_request** out);

// Request accessors; null gives null / 0.
zel_tftp_client* zel_tftp_client_request__client(const zel_tftp_client_request* request);
uint32_t zel_tftp_client_request__state(const zel_tftp_client_request* request);
zel_error_t zel_tftp_client_request__error(const zel_tftp_client_request* request);
uint32_t zel_tftp_client_request__bytes_transferred(const zel_tftp_client_request* request);
// Closes the request and clears it back to NONE, so that a new recv_file may
// follow. Allowed from inside the client's callback. Null is ignored.
void zel_tftp_client_request__reset(zel_tftp_client_request* request);

// Registered on the event loop by recv_file; the context / the timer's
// context is the request.
void zel_tftp_client_request__socket_cb(unsigned cause, int descriptor, unsigned type, void* context);
void zel_tftp_client_request__retry_timer_cb(unsigned cause, zel_event_timer* timer);
void zel_tftp_client_request__abort_timer_cb(unsigned cause, zel_event_timer* timer);
