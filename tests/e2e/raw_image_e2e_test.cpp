// Local raw images written by the real brivlo into simulated partitions:
// console output, flash contents, erase/write/lock calls from the flashsim
// log, and the injected device faults (which still end with exit status 0).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brivlo_board.h"

namespace {

using e2e::Board;
using e2e::dots;

enum class Content { Written, Untouched, NotChecked };

struct RawCase {
    const char* name;
    std::vector<std::string> init;   // flashsim init options
    std::vector<std::string> fault;  // flashsim fault PARTITION KIND [ARG], empty for none
    const char* partition;
    uint32_t size;
    std::string out;
    std::string err;
    std::size_t eraseCalls;            // "erase P " log lines, failed ones included
    std::vector<std::string> lockctl;  // every "lockctl P " log line
    Content content;
    const char* lockedAfter;  // "yes"/"no"
};

// Standard output of a complete write: the numbers are the expectation.
std::string completeOut(unsigned estimate, std::size_t blocks, const std::string& name, std::size_t chunks) {
    return "Erasing Flash (wait " + std::to_string(estimate) + "s)\n" + dots(blocks + 1) + "\n" +
           "Writing file to flash partition '" + name + "'\n" + dots(chunks) + "\n" +
           "\nFlash write complete.\n\nBrivlo done\n";
}

const std::string kDone = "\nBrivlo done\n";
const std::string kWriteFailed = "Error writing to flash\n";

const std::string kLicenseUnlock = "lockctl license lock=0 start=0 length=65536 result=0";
const std::string kLicenseLock = "lockctl license lock=1 start=0 length=65536 result=0";

class RawImage : public ::testing::TestWithParam<RawCase> {};

TEST_P(RawImage, WritesOrFailsAsTheDeviceAllows) {
    const RawCase& c = GetParam();
    Board board(c.init);
    if (!c.fault.empty()) {
        board.flashsim("fault", c.fault);
    }
    const std::string image = e2e::randomBytes(c.size, c.size);
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, image);

    const std::string before = board.partition(c.partition);
    const testutil::ProcessResult r = board.brivlo({"local", path, c.partition});

    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
    const std::string prefix = std::string(c.partition) + " ";
    EXPECT_EQ(board.logLines("erase " + prefix).size(), c.eraseCalls);
    EXPECT_EQ(board.logLines("lockctl " + prefix), c.lockctl);
    EXPECT_EQ(board.lockedState(c.partition), c.lockedAfter);
    EXPECT_FALSE(board.statusExists()) << "a finished run removes the status file";

    const std::string after = board.partition(c.partition);
    switch (c.content) {
    case Content::Written:
        ASSERT_EQ(after.size(), before.size());
        EXPECT_TRUE(after.compare(0, image.size(), image) == 0) << "image not stored byte for byte";
        EXPECT_EQ(after.substr(image.size()), std::string(after.size() - image.size(), '\xff'));
        break;
    case Content::Untouched:
        EXPECT_TRUE(after == before) << "the partition changed";
        break;
    case Content::NotChecked:
        break;
    }
}

const RawCase kRawCases[] = {
    {"FullChunksAndRemainder", {"--part", "fpga=1M:4K"}, {}, "fpga", 100 * 4096 + 10,
     completeOut(1, 101, "fpga", 100), "", 101, {}, Content::Written, "no"},
    {"ExactlyPartitionSize", {"--part", "fpga=256K"}, {}, "fpga", 262144, completeOut(1, 4, "fpga", 4), "",
     4, {}, Content::Written, "no"},
    {"FortyBlocksEstimate", {}, {}, "fpga", 2621440, completeOut(11, 40, "fpga", 40), "", 40, {},
     Content::Written, "no"},
    {"EmptyImage", {}, {}, "fpga", 0, completeOut(0, 0, "fpga", 0), "", 0, {}, Content::Written, "no"},
    {"OneByteIntoProtectedPartition", {}, {}, "license", 1, completeOut(0, 1, "license", 0), "", 1,
     {kLicenseUnlock, kLicenseLock}, Content::Written, "yes"},
    {"ProtectedPartitionFull", {}, {}, "license", 65536, completeOut(0, 1, "license", 1), "", 1,
     {kLicenseUnlock, kLicenseLock}, Content::Written, "yes"},

    // Refusals before anything is unlocked or erased.
    {"OneByteTooLarge", {"--part", "fpga=256K"}, {}, "fpga", 262145, kDone,
     "writeImageToFlash: Error - image of size 262145 too large for flash partition fpga of size 262144\n" +
         kWriteFailed,
     0, {}, Content::Untouched, "no"},
    {"TooLargeForProtectedPartition", {}, {}, "license", 65537, kDone,
     "writeImageToFlash: Error - image of size 65537 too large for flash partition license of size 65536\n" +
         kWriteFailed,
     0, {}, Content::Untouched, "yes"},
    {"ZeroEraseSize", {"--part", "fpga=1M:0"}, {}, "fpga", 1000, kDone,
     "writeImageToFlash: Invalid erase size fpga\n" + kWriteFailed, 0, {}, Content::Untouched, "no"},
    {"ZeroEraseSizeRefusedBeforeUnlock", {"--part", "license=64K:0"}, {}, "license", 1000, kDone,
     "writeImageToFlash: Invalid erase size license\n" + kWriteFailed, 0, {}, Content::Untouched, "yes"},

    // Injected device faults.
    {"OpenFault", {}, {"fpga", "open"}, "fpga", 1000, kDone,
     "writeImageToFlash: Error opening flash partition fpga\n" + kWriteFailed, 0, {}, Content::Untouched, "no"},
    {"GetinfoFault", {}, {"fpga", "getinfo"}, "fpga", 1000, kDone,
     "writeImageToFlash: Error getting flash partition info for fpga\n" + kWriteFailed, 0, {},
     Content::Untouched, "no"},
    {"UnlockFault", {}, {"license", "unlock"}, "license", 1000,
     "Error: license partition unlock failed\n" + kDone,
     "writeImageToFlashError unlocking flash 'license'\n" + kWriteFailed, 0,
     {"lockctl license lock=0 start=0 length=65536 result=-1 errno=EIO"}, Content::Untouched, "yes"},
    {"LockFaultLeavesImageWritten", {}, {"license", "lock"}, "license", 1000,
     "Erasing Flash (wait 0s)\n..\nWriting file to flash partition 'license'\n\n"
     "Error: license partition lock failed\n" + kDone,
     "writeImageToFlashError locking flash 'license'\n" + kWriteFailed, 1,
     {kLicenseUnlock, "lockctl license lock=1 start=0 length=65536 result=-1 errno=EIO"}, Content::Written,
     "no"},
    {"EraseFaultOnThirdBlock", {}, {"fpga", "erase", "2"}, "fpga", 300000,
     "Erasing Flash (wait 1s)\n.." + kDone,
     "writeImageToFlash: Error erasing flash partition 'fpga'\n" + kWriteFailed, 3, {}, Content::NotChecked,
     "no"},
    {"ShortWriteOfSecondChunk", {}, {"fpga", "short-write", "2"}, "fpga", 300000,
     "Erasing Flash (wait 1s)\n......\nWriting file to flash partition 'fpga'\n." + kDone,
     "writeToFlash: Error writing blocks to flash \n" + kWriteFailed, 5, {}, Content::NotChecked, "no"},
    {"FailedWriteOfRemainder", {}, {"fpga", "fail-write", "5"}, "fpga", 300000,
     "Erasing Flash (wait 1s)\n......\nWriting file to flash partition 'fpga'\n....\n" + kDone,
     "writeToFlash: Error writing to flash\n" + kWriteFailed, 5, {}, Content::NotChecked, "no"},
    {"ShortWriteOnProtectedPartitionLeavesItUnlocked", {}, {"license", "short-write", "1"}, "license", 65536,
     "Erasing Flash (wait 0s)\n..\nWriting file to flash partition 'license'\n" + kDone,
     "writeToFlash: Error writing blocks to flash \n" + kWriteFailed, 1, {kLicenseUnlock},
     Content::NotChecked, "no"},
};

INSTANTIATE_TEST_SUITE_P(Table, RawImage, ::testing::ValuesIn(kRawCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The device is written from offset 0 in erase-block-sized writes and the
// remainder in one more; erases cover exactly the blocks the image occupies.
TEST(RawImageRequests, EraseAndWriteRequestsFollowTheGeometry) {
    Board board({"--part", "fpga=64K:4K"});
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, e2e::randomBytes(2 * 4096 + 100, 7));
    ASSERT_EQ(board.brivlo({"local", path, "fpga"}).status, 0);
    EXPECT_EQ(board.logLines("erase fpga "),
              (std::vector<std::string>{"erase fpga start=0 length=4096 result=0",
                                        "erase fpga start=4096 length=4096 result=0",
                                        "erase fpga start=8192 length=4096 result=0"}));
    EXPECT_EQ(board.logLines("write fpga "),
              (std::vector<std::string>{"write fpga offset=0 length=4096 result=4096 corrupt=0",
                                        "write fpga offset=4096 length=4096 result=4096 corrupt=0",
                                        "write fpga offset=8192 length=100 result=100 corrupt=0"}));
    EXPECT_EQ(board.logLines("getinfo fpga ").size(), 1u);
}

}  // namespace
