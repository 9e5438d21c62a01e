// The TFTP request's event-loop callbacks: receiving and handling datagrams,
// and the retry and abort timers. Byte parsing is left to tftp_packet and the
// lock-step decisions to tftp_state; this file only ties them to the socket,
// the timers and the log.
#include "net/tftp_client.h"

#include "net/log.h"
#include "net/tftp_client_internal.h"

namespace {

zel_tftp_client_request* request_of_timer(const zel_event_timer* timer) {
    return static_cast<zel_tftp_client_request*>(zel_event_timer__context(timer));
}

}  // namespace

// Receives one datagram into `incoming`; a drawn simulated loss empties it.
static zel_error_t zel_tftp_client_request__recv_message(zel_tftp_client_request* request) {
    zel_tftp_message* in = &request->incoming;
    in->length = ZEL_TFTP_PACKET_SIZE;
    const zel_error_t err = zel_socket__recv(request->socket, in->packet, &in->length, &in->address);
    zel_log* log = zel_tftp_client_request__log(request);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_WARNING, "%s: Error recving message (will continue): %s\n", __func__,
                       zel_tftp_client_request__error_text(request, err));
        return err;
    }
    const uint32_t probability = request->client->failure_probability;
    if (probability != 0 && static_cast<unsigned>(zel_random()) % 100u < probability) {
        zel_log_printf(log, ZEL_LOG_DEBUG, "%s: simulated recv failure\n", __func__);
        in->length = 0;
    }
    return ZEL_SUCCESS;
}

static void zel_tftp_client_request__handle_error_message(zel_tftp_client_request* request,
                                                          const zel_tftp_packet_view& view) {
    zel_log* log = zel_tftp_client_request__log(request);
    if (view.kind == ZEL_TFTP_PACKET_MALFORMED) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: ignoring invalid error packet (only %u bytes long)\n", __func__,
                       static_cast<unsigned>(request->incoming.length));
        return;
    }
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: got an ERROR packet, switching to ERROR state\n", __func__);
    zel_tftp_client_request__fail(request, zel_tftp_error_from_code(view.number));
}

// The steps of a DATA packet. Their log lines carry the name of the DATA
// handler (`step`), which is what readers of the log know them by.

// Restarts both clocks on progress: the next retry and the abort deadline
// count from this block. False (request failed) when a timer cannot change.
static bool zel_tftp_client_request__restart_timers(zel_tftp_client_request* request, const char* step) {
    zel_log* log = zel_tftp_client_request__log(request);
    zel_error_t err = zel_event_timer__reschedule_periodic(request->retry_timer, nullptr, &request->retry_timeout);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: Error updating retry timer: %s\n", step,
                       zel_tftp_client_request__error_text(request, err));
        zel_tftp_client_request__fail(request, err);
        return false;
    }
    err = zel_event_timer__reschedule(request->abort_timer, nullptr, &request->abort_timeout);
    if (err != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: Error updating abort timer: %s\n", step,
                       zel_tftp_client_request__error_text(request, err));
        zel_tftp_client_request__fail(request, err);
        return false;
    }
    return true;
}

// Takes in a new block, lets a repeated one through to be acknowledged again,
// drops any other. True when the block is to be acknowledged; `wrote` tells
// whether data went into the file.
static bool zel_tftp_client_request__accept_block(zel_tftp_client_request* request,
                                                  const zel_tftp_packet_view& view, bool* wrote,
                                                  const char* step) {
    *wrote = false;
    switch (zel_tftp_classify_block(request->block, view.number)) {
    case ZEL_TFTP_BLOCK_NEW:
        if (view.payload_length > 0) {
            request->write(view.payload, view.payload_length, 1, request->file);
            request->bytes_transferred += view.payload_length;
            *wrote = true;
        }
        request->block = view.number;
        return zel_tftp_client_request__restart_timers(request, step);
    case ZEL_TFTP_BLOCK_REPEAT:
        // Our ACK was lost: acknowledge again, but a repeat is no progress.
        return true;
    case ZEL_TFTP_BLOCK_INVALID:
        break;
    }
    zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_ERROR,
                   "%s: ignoring data packet with invalid block %d (current=%d)\n", step,
                   static_cast<int>(view.number), static_cast<int>(request->block));
    return false;
}

// Acknowledges the current block to the port it came from: the server's
// transfer port. False when the ACK could not be sent (the retry timer sends
// it again).
static bool zel_tftp_client_request__send_ack(zel_tftp_client_request* request, const char* step) {
    zel_tftp_message* out = &request->outgoing;
    zel_tftp_packet_encode_ack(out->packet, sizeof out->packet, request->block, &out->length);
    out->address = request->incoming.address;
    if (zel_tftp_client_request__send_message(request) != ZEL_SUCCESS) {
        zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_WARNING,
                       "%s: error sending ack for block %d, will wait for retry\n", step,
                       static_cast<int>(request->block));
        return false;
    }
    return true;
}

// Moves the request on after an ACK went out. Nothing may touch `request`
// after the callback ran: the callback may reset it.
static void zel_tftp_client_request__advance_after_ack(zel_tftp_client_request* request, uint32_t data_length,
                                                       bool wrote) {
    switch (zel_tftp_after_ack(request->state, data_length, wrote)) {
    case ZEL_TFTP_AFTER_ACK_COMPLETE:
        request->state = ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED;
        zel_tftp_client_request__close(request);
        zel_tftp_client_request__notify(request);
        return;
    case ZEL_TFTP_AFTER_ACK_RECEIVE:
        request->state = ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING;
        zel_tftp_client_request__notify(request);
        return;
    case ZEL_TFTP_AFTER_ACK_PROGRESS:
        zel_tftp_client_request__notify(request);
        return;
    case ZEL_TFTP_AFTER_ACK_NOTHING:
        return;
    }
}

// Accepts, repeats or drops the block, acknowledges what it accepted, and
// moves the request on.
static void zel_tftp_client_request__handle_data_message(zel_tftp_client_request* request,
                                                         const zel_tftp_packet_view& view) {
    zel_log* log = zel_tftp_client_request__log(request);
    if (view.kind == ZEL_TFTP_PACKET_MALFORMED) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: ignoring invalid data packet (only %u bytes long)\n", __func__,
                       static_cast<unsigned>(request->incoming.length));
        return;
    }
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: got a DATA packet, block_id=%d (curr=%d) data_length=%u\n", __func__,
                   static_cast<int>(view.number), static_cast<int>(request->block),
                   static_cast<unsigned>(view.payload_length));
    bool wrote = false;
    if (!zel_tftp_client_request__accept_block(request, view, &wrote, __func__)) return;
    if (!zel_tftp_client_request__send_ack(request, __func__)) return;
    zel_tftp_client_request__advance_after_ack(request, view.payload_length, wrote);
}

void zel_tftp_client_request__socket_cb(unsigned cause, int descriptor, unsigned type, void* context) {
    (void)descriptor;
    auto* request = static_cast<zel_tftp_client_request*>(context);
    if (request == nullptr) return;
    zel_log* log = zel_tftp_client_request__log(request);
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: starting\n", __func__);
    if (cause != ZEL_EVENT_CAUSE_FIRED) {
        zel_log_printf(log, ZEL_LOG_NOTICE, "%s: ignoring non-FIRED event cause", __func__);
        return;
    }
    if (type != ZEL_EVENT_SOCKET_READ) {
        zel_log_printf(log, ZEL_LOG_NOTICE, "%s: ignoring non-READ event type", __func__);
        return;
    }
    if (zel_tftp_client_request__recv_message(request) != ZEL_SUCCESS) {
        // The text was formatted right after the failing receive.
        zel_log_printf(log, ZEL_LOG_WARNING, "%s: Error recving message (will continue): %s\n", __func__,
                       request->client->error_text);
        return;
    }
    // Host only: the server answers from a transfer port of its own choosing.
    if (!zel_sockaddr__same_host(&request->incoming.address, &request->server)) {
        char expected[ZEL_TFTP_ADDRESS_TEXT_SIZE];
        char source[ZEL_TFTP_ADDRESS_TEXT_SIZE];
        zel_log_printf(log, ZEL_LOG_DEBUG,
                       "%s: Ignoring message from unexpected source (expected '%s' but message source was '%s')",
                       __func__, zel_sockaddr__text(&request->server, expected, sizeof expected),
                       zel_sockaddr__text(&request->incoming.address, source, sizeof source));
        return;
    }
    const zel_tftp_packet_view view = zel_tftp_packet_decode(request->incoming.packet, request->incoming.length);
    if (view.kind == ZEL_TFTP_PACKET_RUNT) {
        zel_log_printf(log, ZEL_LOG_DEBUG, "%s: Ignoring invalid message (length %u < 2)", __func__,
                       static_cast<unsigned>(request->incoming.length));
        return;
    }
    switch (view.opcode) {
    case ZEL_TFTP_OPCODE_ERROR:
        zel_tftp_client_request__handle_error_message(request, view);
        return;
    case ZEL_TFTP_OPCODE_DATA:
        zel_tftp_client_request__handle_data_message(request, view);
        return;
    default:
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: ignoring message with opcode %d\n", __func__,
                       static_cast<int>(view.opcode));
        return;
    }
}

void zel_tftp_client_request__retry_timer_cb(unsigned cause, zel_event_timer* timer) {
    zel_tftp_client_request* request = request_of_timer(timer);
    if (request == nullptr) return;
    zel_log* log = zel_tftp_client_request__log(request);
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: starting\n", __func__);
    if (cause != ZEL_EVENT_CAUSE_FIRED) {
        zel_log_printf(log, ZEL_LOG_DEBUG, "%s: ignoring non-FIRED event\n", __func__);
        return;
    }
    if (request->state == ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING ||
        request->state == ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING) {
        // The read request until the first block arrives, later the last ACK.
        if (zel_tftp_client_request__send_message(request) != ZEL_SUCCESS) {
            zel_log_printf(log, ZEL_LOG_WARNING, "%s: error re-sending message, will wait for retry (error=%s)\n",
                           __func__, request->client->error_text);
        }
        return;
    }
    zel_log_printf(log, ZEL_LOG_ERROR, "%s: weird... retry timer fired while in state %s\n", __func__,
                   zel_tftp_client_request_state_name(request->state));
}

void zel_tftp_client_request__abort_timer_cb(unsigned cause, zel_event_timer* timer) {
    zel_tftp_client_request* request = request_of_timer(timer);
    if (request == nullptr) return;
    zel_log* log = zel_tftp_client_request__log(request);
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: starting\n", __func__);
    if (cause != ZEL_EVENT_CAUSE_FIRED) {
        zel_log_printf(log, ZEL_LOG_DEBUG, "%s: ignoring non-FIRED event\n", __func__);
        return;
    }
    // The loop releases a fired one-shot timer itself: drop the handle first
    // so that closing the request does not remove it a second time.
    request->abort_timer = nullptr;
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: switching to ERROR state\n", __func__);
    zel_tftp_client_request__fail(request, ZEL_TIMEDOUT);
}
