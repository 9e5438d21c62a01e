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

zel_tftp_ack_outcome zel_tftp_after_ack(uint32_t state, uint32_t data_length, bool wrote) {
    if (data_length < ZEL_TFTP_BLOCK_SIZE) return ZEL_TFTP_AFTER_ACK_COMPLETE;
    if (state == ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING) return ZEL_TFTP_AFTER_ACK_RECEIVE;
    return wrote ? ZEL_TFTP_AFTER_ACK_PROGRESS : ZEL_TFTP_AFTER_ACK_NOTHING;
}
