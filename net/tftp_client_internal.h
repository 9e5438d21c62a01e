// Steps shared by the two halves of the TFTP client: tftp_client.cpp (public
// operations and the request's lifecycle) and tftp_request_events.cpp (the
// event-loop callbacks). Not for callers of the client.
#pragma once

#include "net/tftp_client.h"

// The one send helper: sends `outgoing` to `outgoing.address`, or pretends to
// when a simulated failure is drawn. A real failure is logged, formatted into
// the client's error_text and returned.
zel_error_t zel_tftp_client_request__send_message(zel_tftp_client_request* request);
// Builds the read request into `outgoing`, addressed to the server: with the
// request's options when `with_options` and they fit within 512 bytes
// (negotiation ASKED), else plain (negotiation NONE). The read request's
// refusals (INVALIDDATA for a name of 1463 bytes or more) are returned.
zel_error_t zel_tftp_client_request__build_request(zel_tftp_client_request* request, bool with_options);
// Removes both timers and the socket interest and closes the socket; the
// fields become null / -1. Safe to call again.
void zel_tftp_client_request__close(zel_tftp_client_request* request);
// Unless already ERROR: state ERROR with `code`, close, call the callback.
void zel_tftp_client_request__fail(zel_tftp_client_request* request, zel_error_t code);
// Calls the client's callback, if any.
void zel_tftp_client_request__notify(zel_tftp_client_request* request);

// The environment's log (may be null: logging then does nothing).
zel_log* zel_tftp_client_request__log(const zel_tftp_client_request* request);
// Formats `code` into the client's error_text and returns it.
const char* zel_tftp_client_request__error_text(zel_tftp_client_request* request, zel_error_t code);

// Addresses are printed into buffers of this size.
enum : unsigned { ZEL_TFTP_ADDRESS_TEXT_SIZE = 32 };
