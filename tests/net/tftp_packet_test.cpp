// Byte-level TFTP codec and the lock-step rules, without any socket.
#include "net/tftp_packet.h"
#include "net/tftp_state.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes(std::initializer_list<int> list) {
    Bytes out;
    for (int b : list) out.push_back(static_cast<uint8_t>(b));
    return out;
}

zel_tftp_packet_view decode(const Bytes& b) {
    return zel_tftp_packet_decode(b.data(), static_cast<uint32_t>(b.size()));
}

TEST(TftpEncode, ReadRequestIsOpcodeNameOctet) {
    uint8_t packet[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 0;
    ASSERT_EQ(zel_tftp_packet_encode_rrq(packet, sizeof packet, "fw.qim", &length), ZEL_SUCCESS);
    const Bytes expected = bytes({0, 1, 'f', 'w', '.', 'q', 'i', 'm', 0, 'o', 'c', 't', 'e', 't', 0});
    EXPECT_EQ(Bytes(packet, packet + length), expected);
    EXPECT_EQ(length, 6u + 9u);
}

TEST(TftpEncode, ReadRequestNameLimit) {
    uint8_t packet[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 7;
    const std::string longest(1462, 'n');
    ASSERT_EQ(zel_tftp_packet_encode_rrq(packet, sizeof packet, longest.c_str(), &length), ZEL_SUCCESS);
    EXPECT_EQ(length, 1471u);
    const zel_tftp_packet_view view = zel_tftp_packet_decode(packet, length);
    EXPECT_EQ(view.kind, ZEL_TFTP_PACKET_RRQ);
    EXPECT_EQ(view.payload_length, 1462u);
    EXPECT_STREQ(view.mode, "octet");

    length = 7;
    const std::string too_long(1463, 'n');
    EXPECT_EQ(zel_tftp_packet_encode_rrq(packet, sizeof packet, too_long.c_str(), &length), ZEL_INVALIDDATA);
    EXPECT_EQ(zel_tftp_packet_encode_rrq(packet, sizeof packet, "", &length), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_tftp_packet_encode_rrq(packet, sizeof packet, nullptr, &length), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_tftp_packet_encode_rrq(packet, 14, "fw.qim", &length), ZEL_NOBUFS);
    EXPECT_EQ(length, 7u) << "failed encoders leave the length alone";
}

TEST(TftpEncode, AckDataAndErrorRoundTrip) {
    uint8_t packet[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 0;
    ASSERT_EQ(zel_tftp_packet_encode_ack(packet, sizeof packet, 0xABCD, &length), ZEL_SUCCESS);
    EXPECT_EQ(Bytes(packet, packet + length), bytes({0, 4, 0xAB, 0xCD}));
    EXPECT_EQ(zel_tftp_packet_encode_ack(packet, 3, 1, &length), ZEL_NOBUFS);

    const uint8_t data[3] = {7, 8, 9};
    ASSERT_EQ(zel_tftp_packet_encode_data(packet, sizeof packet, 258, data, 3, &length), ZEL_SUCCESS);
    EXPECT_EQ(Bytes(packet, packet + length), bytes({0, 3, 1, 2, 7, 8, 9}));
    EXPECT_EQ(zel_tftp_packet_encode_data(packet, 6, 1, data, 3, &length), ZEL_NOBUFS);

    ASSERT_EQ(zel_tftp_packet_encode_error(packet, sizeof packet, 1, "nf", &length), ZEL_SUCCESS);
    EXPECT_EQ(Bytes(packet, packet + length), bytes({0, 5, 0, 1, 'n', 'f', 0}));
    EXPECT_EQ(zel_tftp_packet_encode_error(packet, 6, 1, "nf", &length), ZEL_NOBUFS);
}

struct DecodeCase {
    const char* name;
    Bytes packet;
    unsigned kind;
    uint16_t opcode;
    uint16_t number;
    uint32_t payload_length;
};

class TftpDecode : public testing::TestWithParam<DecodeCase> {};

TEST_P(TftpDecode, Classifies) {
    const DecodeCase& c = GetParam();
    const zel_tftp_packet_view view = decode(c.packet);
    EXPECT_EQ(view.kind, c.kind);
    EXPECT_EQ(view.opcode, c.opcode);
    EXPECT_EQ(view.number, c.number);
    EXPECT_EQ(view.payload_length, c.payload_length);
    if (c.payload_length > 0) {
        const bool request = c.kind == ZEL_TFTP_PACKET_RRQ || c.kind == ZEL_TFTP_PACKET_WRQ;
        EXPECT_EQ(view.payload, c.packet.data() + (request ? 2 : 4));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Packets, TftpDecode,
    testing::Values(DecodeCase{"Empty", {}, ZEL_TFTP_PACKET_RUNT, 0, 0, 0},
                    DecodeCase{"OneByte", bytes({0}), ZEL_TFTP_PACKET_RUNT, 0, 0, 0},
                    DecodeCase{"EmptyData", bytes({0, 3, 0, 1}), ZEL_TFTP_PACKET_DATA, 3, 1, 0},
                    DecodeCase{"DataBlock", bytes({0, 3, 0xFF, 0xFF, 1, 2}), ZEL_TFTP_PACKET_DATA, 3, 65535, 2},
                    DecodeCase{"ThreeByteData", bytes({0, 3, 0}), ZEL_TFTP_PACKET_MALFORMED, 3, 0, 0},
                    DecodeCase{"Ack", bytes({0, 4, 0, 9}), ZEL_TFTP_PACKET_ACK, 4, 9, 0},
                    DecodeCase{"ErrorNotFound", bytes({0, 5, 0, 1, 'x', 0}), ZEL_TFTP_PACKET_ERROR, 5, 1, 2},
                    DecodeCase{"ThreeByteError", bytes({0, 5, 0}), ZEL_TFTP_PACKET_MALFORMED, 5, 0, 0},
                    DecodeCase{"Rrq", bytes({0, 1, 'a', 0, 'o', 'c', 't', 'e', 't', 0}), ZEL_TFTP_PACKET_RRQ, 1,
                               0, 1},
                    DecodeCase{"RrqWithoutMode", bytes({0, 1, 'a', 0, 'o', 'c'}), ZEL_TFTP_PACKET_MALFORMED, 1, 0,
                               0},
                    DecodeCase{"Wrq", bytes({0, 2, 'a', 0, 0}), ZEL_TFTP_PACKET_WRQ, 2, 0, 1},
                    DecodeCase{"OpcodeZero", bytes({0, 0, 0, 1}), ZEL_TFTP_PACKET_UNKNOWN, 0, 0, 0},
                    DecodeCase{"OpcodeSix", bytes({0, 6}), ZEL_TFTP_PACKET_UNKNOWN, 6, 0, 0},
                    DecodeCase{"HighByteOpcode", bytes({1, 3, 0, 1}), ZEL_TFTP_PACKET_UNKNOWN, 259, 0, 0}),
    [](const testing::TestParamInfo<DecodeCase>& info) { return std::string(info.param.name); });

TEST(TftpErrorCodes, MapToErrorCodes) {
    const zel_error_t expected[] = {ZEL_SYSTEM,       ZEL_NOTFOUND,    ZEL_ACCES,   ZEL_NOBUFS,
                                    ZEL_NOTSUPPORTED, ZEL_INVALIDDATA, ZEL_ALREADY, ZEL_POLICY};
    for (uint16_t code = 0; code < 8; ++code) EXPECT_EQ(zel_tftp_error_from_code(code), expected[code]) << code;
    EXPECT_EQ(zel_tftp_error_from_code(8), ZEL_SYSTEM);
    EXPECT_EQ(zel_tftp_error_from_code(65535), ZEL_SYSTEM);
}

TEST(TftpRules, BlockNumbersNeverRollOver) {
    EXPECT_EQ(zel_tftp_classify_block(0, 1), ZEL_TFTP_BLOCK_NEW);
    EXPECT_EQ(zel_tftp_classify_block(0, 0), ZEL_TFTP_BLOCK_REPEAT);
    EXPECT_EQ(zel_tftp_classify_block(1, 3), ZEL_TFTP_BLOCK_INVALID);
    EXPECT_EQ(zel_tftp_classify_block(2, 1), ZEL_TFTP_BLOCK_INVALID);
    EXPECT_EQ(zel_tftp_classify_block(65534, 65535), ZEL_TFTP_BLOCK_NEW);
    EXPECT_EQ(zel_tftp_classify_block(65535, 0), ZEL_TFTP_BLOCK_INVALID);
    EXPECT_EQ(zel_tftp_classify_block(65535, 65535), ZEL_TFTP_BLOCK_REPEAT);
}

TEST(TftpRules, WhatFollowsAnAck) {
    const uint32_t connecting = ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING;
    const uint32_t recving = ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING;
    EXPECT_EQ(zel_tftp_after_ack(connecting, 0, false), ZEL_TFTP_AFTER_ACK_COMPLETE);
    EXPECT_EQ(zel_tftp_after_ack(recving, 511, true), ZEL_TFTP_AFTER_ACK_COMPLETE);
    EXPECT_EQ(zel_tftp_after_ack(connecting, 512, true), ZEL_TFTP_AFTER_ACK_RECEIVE);
    EXPECT_EQ(zel_tftp_after_ack(connecting, 512, false), ZEL_TFTP_AFTER_ACK_RECEIVE);
    EXPECT_EQ(zel_tftp_after_ack(recving, 512, true), ZEL_TFTP_AFTER_ACK_PROGRESS);
    EXPECT_EQ(zel_tftp_after_ack(recving, 1468, true), ZEL_TFTP_AFTER_ACK_PROGRESS);
    EXPECT_EQ(zel_tftp_after_ack(recving, 512, false), ZEL_TFTP_AFTER_ACK_NOTHING);
}

TEST(TftpRules, StateNames) {
    EXPECT_STREQ(zel_tftp_client_request_state_name(0), "NONE");
    EXPECT_STREQ(zel_tftp_client_request_state_name(2), "RECVING");
    EXPECT_STREQ(zel_tftp_client_request_state_name(4), "ERROR");
    EXPECT_STREQ(zel_tftp_client_request_state_name(5), "???");
    EXPECT_STREQ(ZEL_TFTP_REQUEST_STATE_NAMES[1], "SENDING");
}

}  // namespace
