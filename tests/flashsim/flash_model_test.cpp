// The flash chip as a program on the board sees it: the MTD requests with
// their exact numbers and layouts (the test client issues them with the
// target's numbers), erase to 0xFF, NOR programming, lock control that
// persists from one process to the next, and injected faults.
#include "sim_board.h"

#include <gtest/gtest.h>

#include <algorithm>

using flashsimtest::Lines;
using flashsimtest::SimBoard;

namespace {

// kernel: 4 blocks of 64 KiB.
const Lines kSmallBoard = {"--part", "kernel=256K:64K"};

TEST(FlashModel, GetinfoFillsEveryFieldOfTheKernelLayout) {
    SimBoard board(kSmallBoard);
    // The client fills the record with 0xA5 first, so a field left unwritten shows.
    EXPECT_EQ(board.client({"open", "kernel", "rw", "getinfo", "close"}),
              (Lines{"open 0", "getinfo 0 type=3 flags=0xc00 size=262144 erasesize=65536 writesize=1 oobsize=0",
                     "close 0"}));
}

TEST(FlashModel, EraseSetsExactlyTheNamedBlockTo0xFF) {
    SimBoard board(kSmallBoard);
    ASSERT_EQ(board.flashsim("fill", {"kernel", "0x00"}).status, 0);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "erase", "65536", "65536", "erase", "4096", "65536"}),
              (Lines{"open 0", "erase 0", "erase -1 EINVAL"}));
    std::vector<unsigned char> expected(262144, 0x00);
    std::fill(expected.begin() + 65536, expected.begin() + 131072, 0xFF);
    EXPECT_EQ(board.dump("kernel"), expected);
}

TEST(FlashModel, WritesProgramLikeNorAndCountCorruption) {
    SimBoard board(kSmallBoard);
    // 0x0F onto erased flash, then 0xF0 over it without an erase: 0x0F & 0xF0.
    EXPECT_EQ(board.client({"open", "kernel", "rw", "write", "100", "0x0f", "seek", "0", "write", "100", "0xf0"}),
              (Lines{"open 0", "write 100", "seek 0", "write 100"}));
    const std::vector<unsigned char> flash = board.dump("kernel");
    EXPECT_EQ(std::vector<unsigned char>(flash.begin(), flash.begin() + 101), [] {
        std::vector<unsigned char> v(101, 0x00);
        v[100] = 0xFF;
        return v;
    }());
    EXPECT_EQ(board.logLines("write"), (Lines{"write kernel offset=0 length=100 result=100 corrupt=0",
                                              "write kernel offset=0 length=100 result=100 corrupt=100"}));
}

TEST(FlashModel, ProtectedPartitionRefusesUntilUnlockedAndTheStatePersists) {
    SimBoard board;  // "license" is protected: locked from the start
    // Each step in a process of its own: the lock state lives in the board.
    const struct { Lines ops; Lines expected; } steps[] = {
        {{"erase", "0", "65536", "write", "4", "0"}, {"erase -1 EPERM", "write -1 EPERM"}},
        {{"lockctl", "0", "0", "65536"}, {"lockctl 0"}},
        {{"erase", "0", "65536", "write", "4", "0", "lockctl", "1", "0", "65536"}, {"erase 0", "write 4", "lockctl 0"}},
        {{"write", "4", "0"}, {"write -1 EPERM"}}};
    for (const auto& s : steps) {
        Lines ops = {"open", "license", "rw"}, expected = {"open 0"};
        ops.insert(ops.end(), s.ops.begin(), s.ops.end());
        expected.insert(expected.end(), s.expected.begin(), s.expected.end());
        EXPECT_EQ(board.client(ops), expected);
    }
    EXPECT_EQ(board.logLines("lockctl"), (Lines{"lockctl license lock=0 start=0 length=65536 result=0",
                                                "lockctl license lock=1 start=0 length=65536 result=0"}));
}

TEST(FlashModel, FaultsFailExactlyWhereInjected) {
    const struct { const char* name; Lines fault, ops, expected; const char* logLine; } cases[] = {
        {"Getinfo", {"getinfo"}, {"getinfo"}, {"getinfo -1 EIO"}, "getinfo kernel result=-1 errno=EIO"},
        {"EraseBlock2", {"erase", "2"}, {"erase", "65536", "65536", "erase", "131072", "65536"},
         {"erase 0", "erase -1 EIO"}, "erase kernel start=131072 length=65536 result=-1 errno=EIO"},
        {"Unlock", {"unlock"}, {"lockctl", "1", "0", "262144", "lockctl", "0", "0", "262144"},
         {"lockctl 0", "lockctl -1 EIO"}, "lockctl kernel lock=0 start=0 length=262144 result=-1 errno=EIO"},
        {"Lock", {"lock"}, {"lockctl", "0", "0", "262144", "lockctl", "1", "0", "262144"},
         {"lockctl 0", "lockctl -1 EIO"}, "lockctl kernel lock=1 start=0 length=262144 result=-1 errno=EIO"},
        {"ShortSecondWrite", {"short-write", "2"}, {"write", "100", "0", "write", "100", "0", "write", "100", "0"},
         {"write 100", "write 50", "write 100"}, "write kernel offset=100 length=100 result=50 corrupt=0"},
        {"DroppedSecondWrite", {"drop-write", "2"}, {"write", "100", "0", "write", "100", "0"}, {"write 100", "write 100"},
         "write kernel offset=100 length=100 result=100 corrupt=0 dropped=yes"},
        {"WornBlock1FailsOnce", {"worn-erase", "1"}, {"erase", "0", "131072", "erase", "65536", "65536"},
         {"erase -1 EIO", "erase 0"}, "erase kernel start=0 length=131072 result=-1 errno=EIO"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimBoard board(kSmallBoard);
        Lines args = {"kernel"}, ops = {"open", "kernel", "rw"}, expected = {"open 0"};
        args.insert(args.end(), c.fault.begin(), c.fault.end());
        ASSERT_EQ(board.flashsim("fault", args).status, 0);
        ops.insert(ops.end(), c.ops.begin(), c.ops.end());
        expected.insert(expected.end(), c.expected.begin(), c.expected.end());
        EXPECT_EQ(board.client(ops), expected);
        EXPECT_EQ(board.logLines(c.logLine), Lines{c.logLine});
    }
}

// NAND: bad blocks answered, refused and kept; ECC statistics. On NOR the
// same requests answer as the kernel does for a chip without bad blocks.
TEST(FlashModel, NandKnowsBadBlocksAndNorHasNone) {
    SimBoard board({"--part", "kernel=256K:64K:2K", "--nand", "kernel", "--bad", "kernel:1", "--part",
                    "fpga=256K:64K"});
    EXPECT_EQ(board.client({"open", "kernel", "rw", "getinfo", "isbad", "0", "isbad", "65536", "isbad", "262144",
                            "erase", "0", "131072", "write", "2048", "0", "seek", "65536", "write", "2048", "0",
                            "markbad", "131072", "eccstats"}),
              (Lines{"open 0", "getinfo 0 type=4 flags=0x400 size=262144 erasesize=65536 writesize=2048 oobsize=64",
                     "isbad 0", "isbad 1", "isbad -1 EINVAL", "erase -1 EIO", "write 2048", "seek 65536",
                     "write -1 EIO", "markbad 0", "eccstats 0 corrected=0 failed=0 badblocks=2 bbtblocks=0"}));
    // Kept for the next process, and the first block of the failed erase was erased.
    EXPECT_EQ(board.client({"open", "kernel", "rw", "isbad", "131072", "erase", "131072", "65536"}),
              (Lines{"open 0", "isbad 1", "erase -1 EIO"}));
    EXPECT_EQ(board.client({"open", "fpga", "rw", "isbad", "0", "markbad", "0"}),
              (Lines{"open 0", "isbad 0", "markbad -1 EOPNOTSUPP"}));
}

// A power cut does half of the operation, then the program is gone.
TEST(FlashModel, PowerCutHalfDoesTheOperationAndKills) {
    for (const bool erase : {true, false}) {
        SCOPED_TRACE(erase ? "erase" : "write");
        SimBoard board(kSmallBoard);
        ASSERT_EQ(board.flashsim("fill", {"kernel", "0x00"}).status, 0);
        ASSERT_EQ(board.flashsim("fault", {"kernel", "power-cut", erase ? "1" : "2"}).status, 0);
        Lines ops = {"--", FLASHSIM_TESTCLIENT, "open", "kernel", "rw", "erase", "0", "65536"};
        if (!erase) ops.insert(ops.end(), {"seek", "0", "write", "100", "0x0f", "write", "100", "0"});
        const testutil::ProcessResult r = board.flashsim("run", ops);
        EXPECT_TRUE(r.signaled && r.status == 128 + 9) << r.status;
        const std::vector<unsigned char> flash = board.dump("kernel");
        EXPECT_EQ(std::count(flash.begin(), flash.end(), 0xFF), erase ? 32768 : 65536 - 50);
        EXPECT_EQ(board.logLines("power-cut"), (Lines{erase ? "power-cut kernel op=erase offset=0 length=65536 done=32768"
                                                            : "power-cut kernel op=write offset=0 length=100 done=50"}));
    }
}

}  // namespace
