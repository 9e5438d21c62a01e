// Byte-level TFTP codec, without any socket.
#include "net/tftp_packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Encoder = zel_error_t (*)(uint8_t* packet, uint32_t capacity, uint32_t* length);

struct CodecCase {
    const char* name;
    Bytes packet;
    unsigned kind;
    uint16_t opcode, number;
    uint32_t payload_length;
    Encoder encode;  // builds `packet`, or null for a packet only decoded
};
void PrintTo(const CodecCase& c, std::ostream* os) { *os << c.name; }

class TftpCodec : public testing::TestWithParam<CodecCase> {};

TEST_P(TftpCodec, EncodesExactlyAndDecodes) {
    const CodecCase& c = GetParam();
    if (c.encode != nullptr) {
        uint8_t out[ZEL_TFTP_PACKET_SIZE];
        uint32_t length = 7;
        const uint32_t size = static_cast<uint32_t>(c.packet.size());
        EXPECT_EQ(c.encode(out, size - 1, &length), ZEL_NOBUFS);
        EXPECT_EQ(length, 7u) << "failed encoders leave the length alone";
        ASSERT_EQ(c.encode(out, size, &length), ZEL_SUCCESS);
        EXPECT_EQ(Bytes(out, out + length), c.packet);
    }
    const zel_tftp_packet_view view = zel_tftp_packet_decode(c.packet.data(), static_cast<uint32_t>(c.packet.size()));
    EXPECT_EQ(view.kind, c.kind);
    EXPECT_EQ(view.opcode, c.opcode);
    EXPECT_EQ(view.number, c.number);
    EXPECT_EQ(view.payload_length, c.payload_length);
    const bool request = c.kind == ZEL_TFTP_PACKET_RRQ || c.kind == ZEL_TFTP_PACKET_WRQ;
    if (c.payload_length > 0) {
        EXPECT_EQ(view.payload, c.packet.data() + (request ? 2 : 4));
    }
    if (request) {
        EXPECT_STREQ(view.mode, reinterpret_cast<const char*>(c.packet.data()) + 3 + c.payload_length);
    }
}

const Bytes kRrq = {0, 1, 'f', 'w', '.', 'q', 'i', 'm', 0, 'o', 'c', 't', 'e', 't', 0};

INSTANTIATE_TEST_SUITE_P(
    Packets, TftpCodec,
    testing::Values(
        CodecCase{"Rrq", kRrq, ZEL_TFTP_PACKET_RRQ, 1, 0, 6,
                  [](uint8_t* p, uint32_t n, uint32_t* l) { return zel_tftp_packet_encode_rrq(p, n, "fw.qim", l); }},
        CodecCase{"Ack", {0, 4, 0xAB, 0xCD}, ZEL_TFTP_PACKET_ACK, 4, 0xABCD, 0,
                  [](uint8_t* p, uint32_t n, uint32_t* l) { return zel_tftp_packet_encode_ack(p, n, 0xABCD, l); }},
        CodecCase{"Data", {0, 3, 1, 2, 7, 8, 9}, ZEL_TFTP_PACKET_DATA, 3, 258, 3,
                  [](uint8_t* p, uint32_t n, uint32_t* l) {
                      const uint8_t data[3] = {7, 8, 9};
                      return zel_tftp_packet_encode_data(p, n, 258, data, 3, l);
                  }},
        CodecCase{"Error", {0, 5, 0, 1, 'n', 'f', 0}, ZEL_TFTP_PACKET_ERROR, 5, 1, 3,
                  [](uint8_t* p, uint32_t n, uint32_t* l) { return zel_tftp_packet_encode_error(p, n, 1, "nf", l); }},
        CodecCase{"Empty", {}, ZEL_TFTP_PACKET_RUNT, 0, 0, 0, nullptr},
        CodecCase{"EmptyData", {0, 3, 0, 1}, ZEL_TFTP_PACKET_DATA, 3, 1, 0, nullptr},
        CodecCase{"LastBlockNumber", {0, 3, 0xFF, 0xFF, 1, 2}, ZEL_TFTP_PACKET_DATA, 3, 65535, 2, nullptr},
        CodecCase{"ThreeByteData", {0, 3, 0}, ZEL_TFTP_PACKET_MALFORMED, 3, 0, 0, nullptr},
        CodecCase{"ThreeByteError", {0, 5, 0}, ZEL_TFTP_PACKET_MALFORMED, 5, 0, 0, nullptr},
        CodecCase{"RrqWithoutMode", {0, 1, 'a', 0, 'o', 'c'}, ZEL_TFTP_PACKET_MALFORMED, 1, 0, 0, nullptr},
        CodecCase{"Wrq", {0, 2, 'a', 0, 0}, ZEL_TFTP_PACKET_WRQ, 2, 0, 1, nullptr},
        CodecCase{"OpcodeSix", {0, 6}, ZEL_TFTP_PACKET_UNKNOWN, 6, 0, 0, nullptr},
        CodecCase{"HighByteOpcode", {1, 3, 0, 1}, ZEL_TFTP_PACKET_UNKNOWN, 259, 0, 0, nullptr}),
    [](const testing::TestParamInfo<CodecCase>& info) { return std::string(info.param.name); });

}  // namespace
