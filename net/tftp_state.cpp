#include "net/tftp_state.h"

#include "net/tftp_packet.h"

const char* const ZEL_TFTP_CLIENT_REQUEST_STATE_NAMES[5] = {"NONE", "CONNECTING", "RECVING", "COMPLETED", "ERROR"};
const char* const ZEL_TFTP_REQUEST_STATE_NAMES[4] = {"NONE", "SENDING", "COMPLETED", "ERROR"};

const char* zel_tftp_client_request_state_name(unsigned state) {
    return state <= ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR ? ZEL_TFTP_CLIENT_REQUEST_STATE_NAMES[state] : "???";
}

zel_tftp_block_relation zel_tftp_classify_block(uint16_t last, uint16_t received) {
    if (static_cast<uint32_t>(received) == static_cast<uint32_t>(last) + 1) return ZEL_TFTP_BLOCK_NEW;
    if (received == last) return ZEL_TFTP_BLOCK_REPEAT;
    return ZEL_TFTP_BLOCK_INVALID;
}

bool zel_tftp_options_any(const zel_tftp_options* options) {
    return options != nullptr && (options->blksize != 0 || options->windowsize != 0 || options->tsize ||
                                  options->rollover);
}

zel_error_t zel_tftp_options_check(const zel_tftp_options* options) {
    if (options == nullptr) return ZEL_INVALIDPARAMETER;
    if (options->blksize != 0 && (options->blksize < 8 || options->blksize > ZEL_TFTP_MAX_BLKSIZE)) {
        return ZEL_INVALIDPARAMETER;
    }
    return ZEL_SUCCESS;
}

zel_error_t zel_tftp_negotiate(const zel_tftp_options* asked, const zel_tftp_oack* oack,
                               zel_tftp_transfer* transfer, const char** why) {
    const char* refused = nullptr;
    if ((oack->present & ZEL_TFTP_OACK_UNKNOWN) != 0) {
        refused = "an option that was not asked for";
    } else if ((oack->present & ZEL_TFTP_OACK_BLKSIZE) != 0 &&
               (asked->blksize == 0 || oack->blksize < 8 || oack->blksize > asked->blksize)) {
        refused = asked->blksize == 0 ? "blksize was not asked for" : "blksize out of range";
    } else if ((oack->present & ZEL_TFTP_OACK_WINDOWSIZE) != 0 &&
               (asked->windowsize == 0 || oack->windowsize < 1 || oack->windowsize > asked->windowsize)) {
        refused = asked->windowsize == 0 ? "windowsize was not asked for" : "windowsize out of range";
    } else if ((oack->present & ZEL_TFTP_OACK_TSIZE) != 0 && !asked->tsize) {
        refused = "tsize was not asked for";
    }
    if (refused != nullptr) {
        if (why) *why = refused;
        return ZEL_INVALIDDATA;
    }
    transfer->block_size = (oack->present & ZEL_TFTP_OACK_BLKSIZE) != 0 ? static_cast<uint16_t>(oack->blksize)
                                                                         : static_cast<uint16_t>(ZEL_TFTP_BLOCK_SIZE);
    transfer->window_size =
        (oack->present & ZEL_TFTP_OACK_WINDOWSIZE) != 0 ? static_cast<uint16_t>(oack->windowsize) : 1;
    return ZEL_SUCCESS;
}

zel_tftp_window_relation zel_tftp_classify_window_block(uint16_t last, uint16_t received, uint16_t window_size) {
    const uint16_t ahead = static_cast<uint16_t>(received - last);
    if (ahead == 1) return ZEL_TFTP_WINDOW_NEW;
    if (ahead == 0) return ZEL_TFTP_WINDOW_REPEAT;
    if (ahead < 0x8000 && ahead <= window_size) return ZEL_TFTP_WINDOW_GAP;
    // Half the number space behind is what a server retransmitting an old
    // window can send; the other half cannot come from a correct server.
    if (ahead >= 0x8000) return ZEL_TFTP_WINDOW_DUPLICATE;
    return ZEL_TFTP_WINDOW_INVALID;
}

zel_tftp_ack_outcome zel_tftp_after_ack(uint32_t state, uint32_t data_length, uint32_t block_size, bool wrote) {
    if (data_length < block_size) return ZEL_TFTP_AFTER_ACK_COMPLETE;
    if (state == ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING) return ZEL_TFTP_AFTER_ACK_RECEIVE;
    return wrote ? ZEL_TFTP_AFTER_ACK_PROGRESS : ZEL_TFTP_AFTER_ACK_NOTHING;
}
