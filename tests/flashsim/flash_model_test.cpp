// The flash chip as a program on the board sees it: the MTD requests with
// their exact numbers and layouts, erase to 0xFF, NOR programming, the
// partition bounds and the access rules of a partition descriptor.
#include "sim_board.h"

#include <gtest/gtest.h>

using flashsimtest::SimBoard;
using Lines = std::vector<std::string>;

namespace {

// kernel: 4 blocks of 64 KiB; flat: an erase size of 0.
const std::vector<std::string> kSmallBoard = {"--part", "kernel=256K:64K", "--part", "flat=64K:0"};

TEST(FlashModel, GetinfoFillsEveryFieldOfTheKernelLayout) {
    SimBoard board(kSmallBoard);
    // The client fills the record with 0xA5 first, so a field left unwritten shows.
    EXPECT_EQ(board.client({"open", "kernel", "rw", "getinfo", "close"}),
              (Lines{"open 0", "getinfo 0 type=3 flags=0xc00 size=262144 erasesize=65536 writesize=1 oobsize=0",
                     "close 0"}));
    EXPECT_EQ(board.logLines("getinfo"), (Lines{"getinfo kernel result=0 size=262144 erasesize=65536"}));
}

TEST(FlashModel, EraseSetsExactlyTheNamedBlockTo0xFF) {
    SimBoard board(kSmallBoard);
    ASSERT_EQ(board.flashsim("fill", {"kernel", "0x00"}).status, 0);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "erase", "65536", "65536"}), (Lines{"open 0", "erase 0"}));
    const std::vector<unsigned char> flash = board.dump("kernel");
    ASSERT_EQ(flash.size(), 262144u);
    for (size_t i = 0; i < flash.size(); ++i) {
        ASSERT_EQ(flash[i], i >= 65536 && i < 131072 ? 0xFF : 0x00) << "offset " << i;
    }
    EXPECT_EQ(board.logLines("erase"), (Lines{"erase kernel start=65536 length=65536 result=0"}));
}

TEST(FlashModel, WritesProgramLikeNorAndCountCorruption) {
    SimBoard board(kSmallBoard);
    // 0x0F onto erased flash, then 0xF0 over it without an erase: 0x0F & 0xF0.
    EXPECT_EQ(board.client({"open", "kernel", "rw", "write", "100", "0x0f", "seek", "0", "write", "100", "0xf0"}),
              (Lines{"open 0", "write 100", "seek 0", "write 100"}));
    const std::vector<unsigned char> flash = board.dump("kernel");
    EXPECT_EQ(std::vector<unsigned char>(flash.begin(), flash.begin() + 100), std::vector<unsigned char>(100, 0x00));
    EXPECT_EQ(flash[100], 0xFF);
    EXPECT_EQ(board.logLines("write"), (Lines{"write kernel offset=0 length=100 result=100 corrupt=0",
                                              "write kernel offset=0 length=100 result=100 corrupt=100"}));
    EXPECT_NE(board.counters("kernel").find("writes=2 bytes=200 corrupt=100"), std::string::npos);
}

TEST(FlashModel, WritesFollowThePositionAndPwriteLeavesIt) {
    SimBoard board(kSmallBoard);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "write", "3", "0x11", "pwrite", "10", "2", "0x22", "write", "1",
                            "0x33", "read", "0", "12"}),
              (Lines{"open 0", "write 3", "pwrite 2", "write 1", "read 12 11111133ffffffffffff2222"}));
}

struct BadErase {
    const char* name;
    const char* partition;
    const char* start;
    const char* length;
};

class EraseRules : public testing::TestWithParam<BadErase> {};

TEST_P(EraseRules, RefusesWithEinvalAndErasesNothing) {
    SimBoard board(kSmallBoard);
    ASSERT_EQ(board.flashsim("fill", {GetParam().partition, "0"}).status, 0);
    EXPECT_EQ(board.client({"open", GetParam().partition, "rw", "erase", GetParam().start, GetParam().length}),
              (Lines{"open 0", "erase -1 EINVAL"}));
    const std::vector<unsigned char> flash = board.dump(GetParam().partition);
    EXPECT_EQ(flash, std::vector<unsigned char>(flash.size(), 0x00));
}

INSTANTIATE_TEST_SUITE_P(FlashModel, EraseRules,
                         testing::Values(BadErase{"MisalignedStart", "kernel", "4096", "65536"},
                                         BadErase{"PartialBlock", "kernel", "0", "4096"},
                                         BadErase{"ZeroLength", "kernel", "0", "0"},
                                         BadErase{"PastTheEnd", "kernel", "196608", "131072"},
                                         BadErase{"ZeroEraseSize", "flat", "0", "65536"}),
                         [](const testing::TestParamInfo<BadErase>& info) { return std::string(info.param.name); });

TEST(FlashModel, TheEndOfThePartitionShortensThenRefusesWrites) {
    SimBoard board(kSmallBoard);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "seek", "262134", "write", "20", "0", "write", "1", "0", "seek",
                            "262145"}),
              (Lines{"open 0", "seek 262134", "write 10", "write -1 ENOSPC", "seek -1 EINVAL"}));
}

TEST(FlashModel, ReadOnlyDescriptorsAndStdioBuffersCannotWrite) {
    SimBoard board(kSmallBoard);
    // stdio writes inside the C library, out of the simulator's reach: they
    // must fail rather than slip past the flash rules.
    EXPECT_EQ(board.client({"open", "kernel", "ro", "write", "4", "0", "erase", "0", "65536", "close", "stdio-write",
                            "kernel", "16", "0"}),
              (Lines{"open 0", "write -1 EBADF", "erase -1 EPERM", "close 0", "stdio-write -1 EBADF"}));
    const std::vector<unsigned char> flash = board.dump("kernel");
    EXPECT_EQ(flash, std::vector<unsigned char>(flash.size(), 0xFF));
}

TEST(FlashModel, WritevWritesEachPieceAndUnknownRequestsAreLogged) {
    SimBoard board(kSmallBoard);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "writev", "8", "0", "ioctl", "0x40084d05"}),
              (Lines{"open 0", "writev 16", "ioctl -1 ENOTTY"}));
    EXPECT_EQ(board.logLines("write").size(), 2u);
    EXPECT_EQ(board.logLines("ioctl"), (Lines{"ioctl kernel request=0x40084d05 result=-1 errno=ENOTTY"}));
}

}  // namespace
