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
        CodecCase{"EmptyOack", {0, 6}, ZEL_TFTP_PACKET_OACK, 6, 0, 0, nullptr},
        CodecCase{"HighByteOpcode", {1, 3, 0, 1}, ZEL_TFTP_PACKET_UNKNOWN, 259, 0, 0, nullptr}),
    [](const testing::TestParamInfo<CodecCase>& info) { return std::string(info.param.name); });

}  // namespace

namespace {

// ---- OACK option lists ----

struct OackCase {
    const char* name;
    std::string bytes;  // after the opcode
    zel_error_t result;
    zel_tftp_oack parsed;  // when result is SUCCESS
};
void PrintTo(const OackCase& c, std::ostream* os) { *os << c.name; }

class TftpOackParse : public testing::TestWithParam<OackCase> {};

TEST_P(TftpOackParse, ReadsOrRefuses) {
    const OackCase& c = GetParam();
    zel_tftp_oack out = {0xDEAD, 1, 2, 3};
    const zel_tftp_oack before = out;
    EXPECT_EQ(zel_tftp_oack_parse(reinterpret_cast<const uint8_t*>(c.bytes.data()),
                                  static_cast<uint32_t>(c.bytes.size()), &out),
              c.result);
    const zel_tftp_oack& want = c.result == ZEL_SUCCESS ? c.parsed : before;
    EXPECT_EQ(out.present, want.present);
    EXPECT_EQ(out.blksize, want.blksize);
    EXPECT_EQ(out.windowsize, want.windowsize);
    EXPECT_EQ(out.tsize, want.tsize);
}

using std::string_literals::operator""s;
constexpr uint32_t kAll = ZEL_TFTP_OACK_BLKSIZE | ZEL_TFTP_OACK_WINDOWSIZE | ZEL_TFTP_OACK_TSIZE;

INSTANTIATE_TEST_SUITE_P(
    Options, TftpOackParse,
    testing::Values(
        OackCase{"AllThreeAnyCase", "BlkSize\0" "1468\0WINDOWSIZE\0" "8\0tsize\0" "67108864\0"s, ZEL_SUCCESS,
                 {kAll, 1468, 8, 67108864}},
        OackCase{"NoOptions", "", ZEL_SUCCESS, {0, 0, 0, 0}},
        OackCase{"UnknownOptionIsFlagged", "timeout\0" "3\0blksize\0" "512\0"s, ZEL_SUCCESS,
                 {ZEL_TFTP_OACK_UNKNOWN | ZEL_TFTP_OACK_BLKSIZE, 512, 0, 0}},
        OackCase{"NamedTwice", "blksize\0" "512\0BLKSIZE\0" "512\0"s, ZEL_INVALIDDATA, {}},
        OackCase{"NotANumber", "blksize\0" "0x200\0"s, ZEL_INVALIDDATA, {}},
        OackCase{"EmptyValue", "tsize\0\0"s, ZEL_INVALIDDATA, {}},
        OackCase{"TwentyDigits", "tsize\0" "10000000000000000000\0"s, ZEL_INVALIDDATA, {}},
        OackCase{"UnterminatedValue", "blksize\0" "512"s, ZEL_INVALIDDATA, {}},
        OackCase{"NameWithoutValue", "blksize\0"s, ZEL_INVALIDDATA, {}},
        OackCase{"EmptyName", "\0" "512\0"s, ZEL_INVALIDDATA, {}}),
    [](const testing::TestParamInfo<OackCase>& info) { return std::string(info.param.name); });

TEST(TftpRrqOptions, AppendedWithin512BytesOnly) {
    const zel_tftp_option options[] = {{"blksize", "1468"}, {"windowsize", "8"}, {"tsize", "0"}};
    uint8_t out[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 7;
    ASSERT_EQ(zel_tftp_packet_encode_rrq_options(out, sizeof out, "fw", options, 3, &length), ZEL_SUCCESS);
    const std::string want = "\0\1fw\0octet\0blksize\0" "1468\0windowsize\0" "8\0tsize\0" "0\0"s;
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), length), want);
    // 469 + 9 + 34 = 512 bytes exactly; one more byte of name is too many.
    EXPECT_EQ(zel_tftp_packet_encode_rrq_options(out, sizeof out, std::string(469, 'n').c_str(), options, 3, &length),
              ZEL_SUCCESS);
    EXPECT_EQ(length, 512u);
    EXPECT_EQ(zel_tftp_packet_encode_rrq_options(out, sizeof out, std::string(470, 'n').c_str(), options, 3, &length),
              ZEL_MSGSIZE);
    EXPECT_EQ(length, 512u) << "failed encoders leave the length alone";
}

}  // namespace
