// The pure decisions of a request with options: which OACK is taken, and
// where a received block stands in the window.
#include "net/tftp_state.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct NegotiationCase {
    const char* name;
    zel_tftp_oack oack;
    zel_error_t result;
    uint16_t blockSize, windowSize;  // on success
    const char* why;                 // on refusal
};
void PrintTo(const NegotiationCase& c, std::ostream* os) { *os << c.name; }

class TftpNegotiation : public testing::TestWithParam<NegotiationCase> {};

TEST_P(TftpNegotiation, TakesOnlyWhatWasAsked) {
    const NegotiationCase& c = GetParam();
    const zel_tftp_options asked = {1468, 8, true, true, 0};
    zel_tftp_transfer transfer = {7, 7};
    const char* why = "";
    EXPECT_EQ(zel_tftp_negotiate(&asked, &c.oack, &transfer, &why), c.result);
    EXPECT_EQ(transfer.block_size, c.result == ZEL_SUCCESS ? c.blockSize : 7);
    EXPECT_EQ(transfer.window_size, c.result == ZEL_SUCCESS ? c.windowSize : 7);
    EXPECT_STREQ(why, c.result == ZEL_SUCCESS ? "" : c.why);
}

constexpr uint32_t kB = ZEL_TFTP_OACK_BLKSIZE, kW = ZEL_TFTP_OACK_WINDOWSIZE, kT = ZEL_TFTP_OACK_TSIZE;

INSTANTIATE_TEST_SUITE_P(
    Oacks, TftpNegotiation,
    testing::Values(NegotiationCase{"AllAsked", {kB | kW | kT, 1468, 8, 5}, ZEL_SUCCESS, 1468, 8, nullptr},
                    NegotiationCase{"SmallestValues", {kB | kW, 8, 1, 0}, ZEL_SUCCESS, 8, 1, nullptr},
                    NegotiationCase{"NothingMeans512AndLockStep", {0, 0, 0, 0}, ZEL_SUCCESS, 512, 1, nullptr},
                    NegotiationCase{"BlksizeBelowEight", {kB, 7, 0, 0}, ZEL_INVALIDDATA, 0, 0, "blksize out of range"},
                    NegotiationCase{"BlksizeAboveAsked", {kB, 1469, 0, 0}, ZEL_INVALIDDATA, 0, 0,
                                    "blksize out of range"},
                    NegotiationCase{"WindowZero", {kW, 0, 0, 0}, ZEL_INVALIDDATA, 0, 0, "windowsize out of range"},
                    NegotiationCase{"WindowAboveAsked", {kW, 0, 9, 0}, ZEL_INVALIDDATA, 0, 0,
                                    "windowsize out of range"},
                    NegotiationCase{"Unknown", {ZEL_TFTP_OACK_UNKNOWN, 0, 0, 0}, ZEL_INVALIDDATA, 0, 0,
                                    "an option that was not asked for"}),
    [](const testing::TestParamInfo<NegotiationCase>& info) { return std::string(info.param.name); });

struct WindowCase {
    const char* name;
    uint16_t last, received, window;
    zel_tftp_window_relation relation;
};
void PrintTo(const WindowCase& c, std::ostream* os) { *os << c.name; }

class TftpWindowBlock : public testing::TestWithParam<WindowCase> {};

TEST_P(TftpWindowBlock, Classifies) {
    const WindowCase& c = GetParam();
    EXPECT_EQ(zel_tftp_classify_window_block(c.last, c.received, c.window), c.relation);
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, TftpWindowBlock,
    testing::Values(WindowCase{"Next", 4, 5, 8, ZEL_TFTP_WINDOW_NEW},
                    WindowCase{"ZeroFollows65535", 65535, 0, 8, ZEL_TFTP_WINDOW_NEW},
                    WindowCase{"Repeat", 4, 4, 8, ZEL_TFTP_WINDOW_REPEAT},
                    WindowCase{"GapAtWindowEnd", 4, 12, 8, ZEL_TFTP_WINDOW_GAP},
                    WindowCase{"GapAcrossRollover", 65534, 1, 8, ZEL_TFTP_WINDOW_GAP},
                    WindowCase{"BeyondWindow", 4, 13, 8, ZEL_TFTP_WINDOW_INVALID},
                    WindowCase{"LockStepHasNoGap", 4, 6, 1, ZEL_TFTP_WINDOW_INVALID},
                    WindowCase{"Behind", 4, 3, 8, ZEL_TFTP_WINDOW_DUPLICATE},
                    WindowCase{"BehindAcrossRollover", 2, 65530, 8, ZEL_TFTP_WINDOW_DUPLICATE}),
    [](const testing::TestParamInfo<WindowCase>& info) { return std::string(info.param.name); });

}  // namespace
