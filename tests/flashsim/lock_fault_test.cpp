// Lock control and injected faults: what a program sees, what persists from
// one process to the next, and what the log records.
#include "sim_board.h"

#include <gtest/gtest.h>

#include <algorithm>

using flashsimtest::SimBoard;
using Lines = std::vector<std::string>;

namespace {

TEST(Lock, ProtectedPartitionRefusesEraseAndWriteUntilUnlocked) {
    SimBoard board;  // "license" is protected: locked from the start
    EXPECT_EQ(board.client({"open", "license", "rw", "erase", "0", "65536", "write", "4", "0"}),
              (Lines{"open 0", "erase -1 EPERM", "write -1 EPERM"}));
    // Each step in a process of its own: the lock state lives in the board.
    EXPECT_EQ(board.client({"open", "license", "rw", "lockctl", "0", "0", "65536"}), (Lines{"open 0", "lockctl 0"}));
    EXPECT_EQ(board.client({"open", "license", "rw", "erase", "0", "65536", "write", "4", "0", "lockctl", "1", "0",
                            "65536"}),
              (Lines{"open 0", "erase 0", "write 4", "lockctl 0"}));
    EXPECT_EQ(board.client({"open", "license", "rw", "write", "4", "0"}), (Lines{"open 0", "write -1 EPERM"}));
    EXPECT_EQ(board.logLines("lockctl"), (Lines{"lockctl license lock=0 start=0 length=65536 result=0",
                                                "lockctl license lock=1 start=0 length=65536 result=0"}));
    const std::string counters = board.counters("license");
    EXPECT_NE(counters.find("locks=1 unlocks=1"), std::string::npos) << counters;
    EXPECT_NE(board.flashsim("show", {"license"}).out.find("locked=yes"), std::string::npos);
}

TEST(Lock, BadLockRequestsAndTheCommandLine) {
    SimBoard board({"--part", "kernel=128K:64K"});
    EXPECT_EQ(board.client({"open", "kernel", "rw", "lockctl", "2", "0", "131072", "lockctl", "1", "0", "131073"}),
              (Lines{"open 0", "lockctl -1 EINVAL", "lockctl -1 EINVAL"}));
    ASSERT_EQ(board.flashsim("lock", {"kernel"}).status, 0);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "write", "1", "0"}), (Lines{"open 0", "write -1 EPERM"}));
    ASSERT_EQ(board.flashsim("unlock", {"kernel"}).status, 0);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "write", "1", "0"}), (Lines{"open 0", "write 1"}));
}

struct FaultCase {
    const char* name;
    std::vector<std::string> fault;  // flashsim fault DIR kernel ...
    std::vector<std::string> operations;
    Lines expected;
    const char* logLine;  // one line the log must hold
};

class Faults : public testing::TestWithParam<FaultCase> {};

TEST_P(Faults, FailExactlyWhereInjected) {
    const FaultCase& c = GetParam();
    SimBoard board({"--part", "kernel=256K:64K"});
    std::vector<std::string> args = {"kernel"};
    args.insert(args.end(), c.fault.begin(), c.fault.end());
    ASSERT_EQ(board.flashsim("fault", args).status, 0);
    EXPECT_EQ(board.client(c.operations), c.expected);
    const Lines log = board.log();
    EXPECT_NE(std::find(log.begin(), log.end(), c.logLine), log.end()) << "missing log line: " << c.logLine;
}

const Lines kOpen = {"open", "kernel", "rw"};

Lines ops(std::initializer_list<std::string> more) {
    Lines all = kOpen;
    all.insert(all.end(), more);
    return all;
}

INSTANTIATE_TEST_SUITE_P(
    FlashModel, Faults,
    testing::Values(
        FaultCase{"Open", {"open"}, kOpen, {"open -1 EIO"}, "open kernel mode=rdwr result=-1 errno=EIO"},
        FaultCase{"Getinfo", {"getinfo"}, ops({"getinfo"}), {"open 0", "getinfo -1 EIO"},
                  "getinfo kernel result=-1 errno=EIO"},
        FaultCase{"EraseBlock", {"erase", "2"}, ops({"erase", "65536", "65536", "erase", "131072", "65536"}),
                  {"open 0", "erase 0", "erase -1 EIO"}, "erase kernel start=131072 length=65536 result=-1 errno=EIO"},
        FaultCase{"Unlock", {"unlock"}, ops({"lockctl", "1", "0", "262144", "lockctl", "0", "0", "262144"}),
                  {"open 0", "lockctl 0", "lockctl -1 EIO"},
                  "lockctl kernel lock=0 start=0 length=262144 result=-1 errno=EIO"},
        FaultCase{"Lock", {"lock"}, ops({"lockctl", "0", "0", "262144", "lockctl", "1", "0", "262144"}),
                  {"open 0", "lockctl 0", "lockctl -1 EIO"},
                  "lockctl kernel lock=1 start=0 length=262144 result=-1 errno=EIO"},
        FaultCase{"ShortWrite", {"short-write", "2"}, ops({"write", "100", "0", "write", "100", "0", "write", "100", "0"}),
                  {"open 0", "write 100", "write 50", "write 100"},
                  "write kernel offset=100 length=100 result=50 corrupt=0"},
        FaultCase{"FailWrite", {"fail-write", "1"}, ops({"write", "100", "0", "write", "100", "0"}),
                  {"open 0", "write -1 EIO", "write 100"}, "write kernel offset=0 length=100 result=-1 errno=EIO"}),
    [](const testing::TestParamInfo<FaultCase>& info) { return std::string(info.param.name); });

TEST(Faults, AnEraseOverTheFailingBlockErasesTheBlocksBeforeIt) {
    SimBoard board({"--part", "kernel=256K:64K", "--fault", "kernel:erase:2"});
    ASSERT_EQ(board.flashsim("fill", {"kernel", "0"}).status, 0);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "erase", "0", "262144"}), (Lines{"open 0", "erase -1 EIO"}));
    const std::vector<unsigned char> flash = board.dump("kernel");
    EXPECT_EQ(flash[131071], 0xFF);
    EXPECT_EQ(flash[131072], 0x00);
    EXPECT_NE(board.flashsim("show", {"kernel"}).out.find("faults erase=2"), std::string::npos);
    // A fault stays until cleared.
    ASSERT_EQ(board.flashsim("fault", {"kernel", "clear"}).status, 0);
    EXPECT_EQ(board.client({"open", "kernel", "rw", "erase", "0", "262144"}), (Lines{"open 0", "erase 0"}));
}

}  // namespace
