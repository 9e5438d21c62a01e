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

static bool zel_tftp_client_request__restart_timers(zel_tftp_client_request* request, const char* step);
static bool zel_tftp_client_request__send_ack(zel_tftp_client_request* request, const char* step);

// Sends an ERROR packet to the peer of the datagram just received (the
// server's transfer port) and fails the request with `code`. The server
// learns why the transfer ends; nothing is sent after this.
static void zel_tftp_client_request__refuse(zel_tftp_client_request* request, uint16_t tftp_code,
                                            const char* message, zel_error_t code) {
    zel_tftp_message* out = &request->outgoing;
    zel_tftp_packet_encode_error(out->packet, sizeof out->packet, tftp_code, message, &out->length);
    out->address = request->incoming.address;
    zel_tftp_client_request__send_message(request);
    zel_tftp_client_request__fail(request, code);
}

// ERROR 8: the server will not talk options. Ask once more with the plain
// read request, from the same socket, to the server's own port.
static void zel_tftp_client_request__ask_without_options(zel_tftp_client_request* request, const char* step) {
    zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_DEBUG,
                   "%s: the server refused the options, asking again without them\n", step);
    zel_tftp_client_request__build_request(request, false);
    request->negotiation = ZEL_TFTP_NEGOTIATION_DROPPED;
    if (!zel_tftp_client_request__restart_timers(request, step)) return;
    if (zel_tftp_client_request__send_message(request) != ZEL_SUCCESS) {
        zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_WARNING,
                       "%s: error sending the read request, will wait for retry\n", step);
    }
}

// The server's answer to the options: checked against what was asked, then
// acknowledged with ACK 0 (which the retry timer repeats until DATA 1
// comes), or refused with ERROR 8. A file announced larger than the room
// the caller has is refused with ERROR 3 before a byte arrives.
static void zel_tftp_client_request__handle_oack_message(zel_tftp_client_request* request,
                                                         const zel_tftp_packet_view& view) {
    zel_log* log = zel_tftp_client_request__log(request);
    if (request->negotiation == ZEL_TFTP_NEGOTIATION_ACCEPTED && request->block == 0) {
        // Our ACK 0 was lost and the server repeats its OACK.
        zel_tftp_client_request__send_ack(request, __func__);
        return;
    }
    if (request->negotiation != ZEL_TFTP_NEGOTIATION_ASKED) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: ignoring an option acknowledgement nobody asked for\n", __func__);
        return;
    }
    zel_tftp_oack oack{};
    zel_tftp_transfer transfer{};
    const char* why = "options that do not parse";
    if (zel_tftp_oack_parse(view.payload, view.payload_length, &oack) != ZEL_SUCCESS ||
        zel_tftp_negotiate(&request->options, &oack, &transfer, &why) != ZEL_SUCCESS) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: refusing the server's options: %s\n", __func__, why);
        zel_tftp_client_request__refuse(request, ZEL_TFTP_ERROR_OPTION_REFUSED, "option refused", ZEL_INVALIDDATA);
        return;
    }
    if ((oack.present & ZEL_TFTP_OACK_TSIZE) != 0 && request->options.max_size != 0 &&
        oack.tsize > request->options.max_size) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: the file of %llu bytes does not fit into %llu bytes\n", __func__,
                       static_cast<unsigned long long>(oack.tsize),
                       static_cast<unsigned long long>(request->options.max_size));
        zel_tftp_client_request__refuse(request, ZEL_TFTP_ERROR_DISK_FULL, "file too large", ZEL_DATATOOLONG);
        return;
    }
    zel_log_printf(log, ZEL_LOG_DEBUG, "%s: options accepted, blksize=%u windowsize=%u\n", __func__,
                   static_cast<unsigned>(transfer.block_size), static_cast<unsigned>(transfer.window_size));
    request->negotiation = ZEL_TFTP_NEGOTIATION_ACCEPTED;
    request->block_size = transfer.block_size;
    request->window_size = transfer.window_size;
    if (!zel_tftp_client_request__restart_timers(request, __func__)) return;
    zel_tftp_client_request__send_ack(request, __func__);
}

static void zel_tftp_client_request__handle_error_message(zel_tftp_client_request* request,
                                                          const zel_tftp_packet_view& view) {
    zel_log* log = zel_tftp_client_request__log(request);
    if (view.kind == ZEL_TFTP_PACKET_MALFORMED) {
        zel_log_printf(log, ZEL_LOG_ERROR, "%s: ignoring invalid error packet (only %u bytes long)\n", __func__,
                       static_cast<unsigned>(request->incoming.length));
        return;
    }
    if (view.number == ZEL_TFTP_ERROR_OPTION_REFUSED && request->negotiation == ZEL_TFTP_NEGOTIATION_ASKED) {
        zel_tftp_client_request__ask_without_options(request, __func__);
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

// What became of a received DATA block.
enum class BlockFate {
    Dropped,   // nothing to do
    Accepted,  // new or repeated: move the request on; `ack` says whether an ACK is due
    GapAck,    // blocks are missing: acknowledge the last one received in order, nothing else
};

// Stores a new block. False when the timers could not restart (the request failed).
static bool zel_tftp_client_request__store_block(zel_tftp_client_request* request,
                                                 const zel_tftp_packet_view& view, bool* wrote, const char* step) {
    if (view.payload_length > 0) {
        request->write(view.payload, view.payload_length, 1, request->file);
        request->bytes_transferred += view.payload_length;
        *wrote = true;
    }
    request->block = view.number;
    ++request->window_received;
    request->gap_acknowledged = false;
    return zel_tftp_client_request__restart_timers(request, step);
}

// Takes in a new block, lets a repeated one through to be acknowledged again,
// and drops any other; with options, a block ahead within the window reports
// the gap once. `wrote` tells whether data went into the file; `ack` whether
// the block is to be acknowledged now.
static BlockFate zel_tftp_client_request__accept_block(zel_tftp_client_request* request,
                                                       const zel_tftp_packet_view& view, bool* wrote, bool* ack,
                                                       const char* step) {
    *wrote = false;
    *ack = true;
    if (!request->options.rollover) {
        switch (zel_tftp_classify_block(request->block, view.number)) {
        case ZEL_TFTP_BLOCK_NEW:
            return zel_tftp_client_request__store_block(request, view, wrote, step) ? BlockFate::Accepted
                                                                                     : BlockFate::Dropped;
        case ZEL_TFTP_BLOCK_REPEAT:
            // Our ACK was lost: acknowledge again, but a repeat is no progress.
            return BlockFate::Accepted;
        case ZEL_TFTP_BLOCK_INVALID:
            break;
        }
    } else {
        switch (zel_tftp_classify_window_block(request->block, view.number, request->window_size)) {
        case ZEL_TFTP_WINDOW_NEW:
            if (!zel_tftp_client_request__store_block(request, view, wrote, step)) return BlockFate::Dropped;
            // RFC 7440: the last block of a full window, and the short last block.
            *ack = request->window_received >= request->window_size || view.payload_length < request->block_size;
            return BlockFate::Accepted;
        case ZEL_TFTP_WINDOW_REPEAT:
            return BlockFate::Accepted;
        case ZEL_TFTP_WINDOW_GAP:
            // Once per gap: the server restarts its window after our ACK, and
            // every further block of the broken window would ask again.
            if (request->gap_acknowledged) return BlockFate::Dropped;
            request->gap_acknowledged = true;
            zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_DEBUG,
                           "%s: block %d is missing, acknowledging %d\n", step,
                           static_cast<int>(static_cast<uint16_t>(request->block + 1)),
                           static_cast<int>(request->block));
            return BlockFate::GapAck;
        case ZEL_TFTP_WINDOW_DUPLICATE:
            zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_DEBUG,
                           "%s: ignoring duplicate block %d (current=%d)\n", step, static_cast<int>(view.number),
                           static_cast<int>(request->block));
            return BlockFate::Dropped;
        case ZEL_TFTP_WINDOW_INVALID:
            break;
        }
    }
    zel_log_printf(zel_tftp_client_request__log(request), ZEL_LOG_ERROR,
                   "%s: ignoring data packet with invalid block %d (current=%d)\n", step,
                   static_cast<int>(view.number), static_cast<int>(request->block));
    return BlockFate::Dropped;
}

// Acknowledges the current block to the port it came from: the server's
// transfer port. False when the ACK could not be sent (the retry timer sends
// it again).
static bool zel_tftp_client_request__send_ack(zel_tftp_client_request* request, const char* step) {
    zel_tftp_message* out = &request->outgoing;
    request->window_received = 0;
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
    switch (zel_tftp_after_ack(request->state, data_length, request->block_size, wrote)) {
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
    if (request->negotiation == ZEL_TFTP_NEGOTIATION_ASKED) {
        // DATA instead of an OACK: the server ignored the options.
        request->negotiation = ZEL_TFTP_NEGOTIATION_IGNORED;
    }
    bool wrote = false;
    bool ack = true;
    const BlockFate fate = zel_tftp_client_request__accept_block(request, view, &wrote, &ack, __func__);
    if (fate == BlockFate::Dropped) return;
    if (ack && !zel_tftp_client_request__send_ack(request, __func__)) return;
    if (fate == BlockFate::Accepted) zel_tftp_client_request__advance_after_ack(request, view.payload_length, wrote);
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
    case ZEL_TFTP_OPCODE_OACK:
        // Only a request that asked for options hears of them; any other
        // treats the opcode as RFC 1350 does: unknown.
        if (request->negotiation != ZEL_TFTP_NEGOTIATION_NONE) {
            zel_tftp_client_request__handle_oack_message(request, view);
            return;
        }
        break;
    default:
        break;
    }
    zel_log_printf(log, ZEL_LOG_ERROR, "%s: ignoring message with opcode %d\n", __func__,
                   static_cast<int>(view.opcode));
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
