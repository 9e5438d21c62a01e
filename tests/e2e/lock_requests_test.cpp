// Unlocking and locking a protected partition again on the board's kernel
// (the platform driver's MEMLOCKCTL) and on mainline kernels (MEMUNLOCK and
// MEMLOCK, or no locking at all in the driver): which request brivlo sends
// after which answer, read from the flashsim log of the "license" partition.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "brivlo_board.h"
#include "common/tempdir.h"

namespace {

using e2e::Board;

struct LockCase {
    const char* name;
    std::vector<std::string> init;      // flashsim init options
    std::vector<std::string> requests;  // lock-related log lines of "license", in order
    bool written;
    std::string out;  // standard output before the last lines
    std::string err;
};
void PrintTo(const LockCase& c, std::ostream* os) { *os << c.name; }

// The log lines of the requests that lock or unlock "license".
std::vector<std::string> lockRequests(const Board& board) {
    std::vector<std::string> lines;
    std::istringstream in(testutil::readFile(board.dir() + "/log"));
    std::string line;
    while (std::getline(in, line)) {
        for (const char* op : {"lockctl license ", "unlock license ", "lock license ", "ioctl license "}) {
            if (line.rfind(op, 0) == 0) lines.push_back(line);
        }
    }
    return lines;
}

const std::string kBoardCtl = "ioctl license request=0xc00c4d41 result=-1 errno=ENOTTY";
const std::string kWritten = e2e::partitionWriteOut("license", 1000);
const std::string kUnlockFailed = "Error: license partition unlock failed\n";

class LockRequests : public ::testing::TestWithParam<LockCase> {};

TEST_P(LockRequests, FallBackOnlyWhereTheKernelSaysSo) {
    const LockCase& c = GetParam();
    Board board(c.init);
    const std::string image = e2e::randomBytes(1000, 5);
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, image);

    const testutil::ProcessResult r = board.brivlo({"local", path, "license"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.out + "\nBrivlo done\n");
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(lockRequests(board), c.requests);
    EXPECT_EQ(board.partition("license").substr(0, image.size()) == image, c.written);
}

const std::vector<std::string> kMainline = {"--lock-requests", "mainline"};
const std::vector<std::string> kMainlineUnlockFault = {"--lock-requests", "mainline", "--fault", "license:unlock"};

// The request sequences after every answer are in
// tests/app/partition_lock_test.cpp; these rows show what a whole upgrade
// prints and leaves on a mainline kernel.
const LockCase kLockCases[] = {
    {"MainlineUnlocksAndLocksAgain", kMainline,
     {kBoardCtl, "unlock license start=0 length=65536 result=0", "lock license start=0 length=65536 result=0"}, true,
     kWritten, ""},
    {"MainlineDriverWithoutLocking", {"--lock-requests", "mainline-eopnotsupp"},
     {kBoardCtl, "unlock license start=0 length=65536 result=-1 errno=EOPNOTSUPP"}, true, kWritten, ""},
    {"MainlineUnlockFails", kMainlineUnlockFault,
     {kBoardCtl, "unlock license start=0 length=65536 result=-1 errno=EIO"}, false, kUnlockFailed,
     "writeImageToFlashError unlocking flash 'license'\nError writing to flash\n"},
};

INSTANTIATE_TEST_SUITE_P(Table, LockRequests, ::testing::ValuesIn(kLockCases),
                         [](const auto& info) { return std::string(info.param.name); });

// A partition the mainline kernel keeps locked is locked again afterwards.
TEST(LockRequestsState, MainlineLockedPartitionIsLockedAgain) {
    Board board({"--lock-requests", "mainline"});
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, e2e::randomBytes(1000, 6));
    ASSERT_EQ(board.lockedState("license"), "yes");
    EXPECT_EQ(board.brivlo({"local", path, "license"}).status, 0);
    EXPECT_EQ(board.lockedState("license"), "yes");
}

}  // namespace
