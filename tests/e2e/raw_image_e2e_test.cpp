// Local raw images written by the real brivlo into simulated partitions:
// console output, flash contents, erase and lock calls from the flashsim log,
// the injected device faults (which still end with exit status 0), the status
// file at every update, and the combined Linux image split at the U-Boot
// header (made by Debian's mkimage) into kernel and rootfs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "package_fixture.h"

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
void PrintTo(const RawCase& c, std::ostream* os) { *os << c.name; }

const std::string kDone = "\nBrivlo done\n";

std::string completeOut(const std::string& name, uint32_t size, uint32_t eraseSize = 65536) {
    return e2e::partitionWriteOut(name, size, eraseSize) + kDone;
}
const std::string kWriteFailed = "Error writing to flash\n";
const std::string kUnlock = "lockctl license lock=0 start=0 length=65536 result=0";
const std::string kLock = "lockctl license lock=1 start=0 length=65536 result=0";

class RawImage : public ::testing::TestWithParam<RawCase> {};

TEST_P(RawImage, WritesOrFailsAsTheDeviceAllows) {
    const RawCase& c = GetParam();
    Board board(c.init);
    if (!c.fault.empty()) {
        ASSERT_EQ(board.flashsim("fault", c.fault).status, 0);
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
    EXPECT_FALSE(board.statusExists());
    const std::string after = board.partition(c.partition);
    if (c.content == Content::Written) {
        EXPECT_EQ(after, image + std::string(before.size() - image.size(), '\xff'));
    } else if (c.content == Content::Untouched) {
        EXPECT_TRUE(after == before) << "the partition changed";
    }
}

const RawCase kRawCases[] = {
    {"FullChunksAndRemainder", {"--part", "fpga=1M:4K"}, {}, "fpga", 100 * 4096 + 10,
     completeOut("fpga", 100 * 4096 + 10, 4096), "", 101, {}, Content::Written, "no"},
    {"ExactlyPartitionSize", {"--part", "fpga=256K"}, {}, "fpga", 262144, completeOut("fpga", 262144), "", 4, {},
     Content::Written, "no"},
    {"FortyBlocksEstimate", {}, {}, "fpga", 2621440, completeOut("fpga", 2621440), "", 40, {}, Content::Written,
     "no"},
    {"EmptyImage", {}, {}, "fpga", 0, completeOut("fpga", 0), "", 0, {}, Content::Written, "no"},
    {"ProtectedPartitionFull", {}, {}, "license", 65536, completeOut("license", 65536), "", 1, {kUnlock, kLock},
     Content::Written, "yes"},
    // Refusals before anything is unlocked or erased.
    {"OneByteTooLarge", {"--part", "fpga=256K"}, {}, "fpga", 262145, kDone,
     "writeImageToFlash: Error - image of size 262145 too large for flash partition fpga of size 262144\n" +
         kWriteFailed, 0, {}, Content::Untouched, "no"},
    {"TooLargeForProtectedPartition", {}, {}, "license", 65537, kDone,
     "writeImageToFlash: Error - image of size 65537 too large for flash partition license of size 65536\n" +
         kWriteFailed, 0, {}, Content::Untouched, "yes"},
    {"ZeroEraseSizeRefusedBeforeUnlock", {"--part", "license=64K:0"}, {}, "license", 1000, kDone,
     "writeImageToFlash: Invalid erase size license\n" + kWriteFailed, 0, {}, Content::Untouched, "yes"},
    // Partitions with a write unit (NAND pages): the odd tail is padded
    // with 0xFF to a whole 2 KiB unit; a unit it cannot be written in is
    // refused before anything is unlocked or erased.
    {"OddLengthOn2KPages", {"--part", "fpga=1M:128K:2K"}, {}, "fpga", 131072 + 3001, completeOut("fpga", 131072 + 3001, 131072), "",
     2, {}, Content::Written, "no"},
    {"WholePagesOn2KPages", {"--part", "fpga=1M:128K:2K"}, {}, "fpga", 4096, completeOut("fpga", 4096, 131072), "", 1, {},
     Content::Written, "no"},
    {"WriteSizeZero", {"--part", "fpga=1M:128K:0"}, {}, "fpga", 1000, kDone,
     "writeImageToFlash: Invalid write size fpga\n" + kWriteFailed, 0, {}, Content::Untouched, "no"},
    {"WriteSizeNotDividingEraseBlock", {"--part", "license=64K:64K:3000"}, {}, "license", 1000, kDone,
     "writeImageToFlash: Invalid write size license\n" + kWriteFailed, 0, {}, Content::Untouched, "yes"},
    // Injected device faults.
    {"OpenFault", {}, {"fpga", "open"}, "fpga", 1000, kDone,
     "writeImageToFlash: Error opening flash partition fpga\n" + kWriteFailed, 0, {}, Content::Untouched, "no"},
    {"UnlockFault", {}, {"license", "unlock"}, "license", 1000, "Error: license partition unlock failed\n" + kDone,
     "writeImageToFlashError unlocking flash 'license'\n" + kWriteFailed, 0,
     {"lockctl license lock=0 start=0 length=65536 result=-1 errno=EIO"}, Content::Untouched, "yes"},
    {"LockFaultLeavesImageWritten", {}, {"license", "lock"}, "license", 1000,
     e2e::partitionEraseOut("license", 1000) + "\nError: license partition lock failed\n" + kDone,
     "writeImageToFlashError locking flash 'license'\n" + kWriteFailed, 1,
     {kUnlock, "lockctl license lock=1 start=0 length=65536 result=-1 errno=EIO"}, Content::Written, "no"},
    {"EraseFaultOnThirdBlock", {}, {"fpga", "erase", "2"}, "fpga", 300000, "Erasing Flash (wait 1s)\n.." + kDone,
     "writeImageToFlash: Error erasing flash partition 'fpga'\n" + kWriteFailed, 3, {}, Content::NotChecked, "no"},
    {"ShortWriteOfSecondChunk", {}, {"fpga", "short-write", "2"}, "fpga", 300000,
     e2e::partitionEraseOut("fpga", 300000) + "." + kDone,
     "writeToFlash: Error writing blocks to flash \n" + kWriteFailed, 5, {}, Content::NotChecked, "no"},
    {"FailedWriteOfRemainder", {}, {"fpga", "fail-write", "5"}, "fpga", 300000,
     e2e::partitionEraseOut("fpga", 300000) + "....\n" + kDone,
     "writeToFlash: Error writing to flash\n" + kWriteFailed, 5, {}, Content::NotChecked, "no"},
    {"ShortWriteOnProtectedPartitionLeavesItUnlocked", {}, {"license", "short-write", "1"}, "license", 65536,
     e2e::partitionEraseOut("license", 65536) + kDone,
     "writeToFlash: Error writing blocks to flash \n" + kWriteFailed, 1, {kUnlock}, Content::NotChecked, "no"},
};

INSTANTIATE_TEST_SUITE_P(Table, RawImage, ::testing::ValuesIn(kRawCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The status file at every change while 150000 bytes go into "fpga" (three
// erased blocks, one whole chunk): without a file the first update leaves an
// empty one, which the later updates leave in place; a package's record left
// behind continues its count from "current=" (the first update, at that
// count, changes nothing).
TEST(RawImageStatus, EveryUpdateAndTheRemoval) {
    const std::string head = "status=2\ntotal=900000000\ncurrent=";
    for (const bool record : {false, true}) {
        Board board;
        if (record) board.writeStatus(head + "5000");
        const std::string path = board.scratch("image.bin");
        testutil::writeFile(path, e2e::randomBytes(150000, 3));
        const testutil::ProcessResult r = board.brivlo({"local", path, "fpga"});
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<std::string> expected;
        if (record) {
            for (int current : {65536, 131072, 196608 + 65536, 196608 + 150000}) {
                expected.push_back(head + std::to_string(5000 + current));
            }
        } else {
            expected.push_back("");
        }
        expected.push_back(e2e::kRemoved);
        EXPECT_EQ(e2e::statusHistory(board), expected) << (record ? "with a record" : "without a file");
        EXPECT_FALSE(board.statusExists());
    }
}

// ---- "image": split into kernel and rootfs. The split counts E + 0x700 +
// data size bytes as kernel (E = 65536, the kernel's first block).

enum class Header { AfterFirstBlock, AtOffsetZero };

struct SplitCase {
    const char* name;
    std::vector<std::string> init;
    Header header;
    uint32_t dataSize;
    uint32_t rootfsSize;
    uint32_t cut;  // the image is shortened to this many bytes (0: kept)
    std::string out;
    std::string err;
    bool kernelWritten;
    bool rootfsWritten;
};
void PrintTo(const SplitCase& c, std::ostream* os) { *os << c.name; }

class KernelRootfs : public ::testing::TestWithParam<SplitCase> {};

TEST_P(KernelRootfs, SplitsAtTheUbootHeaderOrRefuses) {
    const SplitCase& c = GetParam();
    Board board(c.init);
    const e2e::CombinedImage image = e2e::makeCombinedImage(board, c.dataSize, c.rootfsSize);
    std::string bytes = c.header == Header::AtOffsetZero ? image.bytes.substr(e2e::kEraseSize) : image.bytes;
    if (c.cut != 0) bytes.resize(c.cut);
    const std::string path = board.scratch("combined.bin");
    testutil::writeFile(path, bytes);

    const testutil::ProcessResult r = board.brivlo({"local", path, "image"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
    if (c.kernelWritten) {
        // Whatever follows the kernel is erased flash: a padded tail is 0xFF.
        const std::string kernel = board.partition("kernel");
        EXPECT_EQ(kernel.substr(0, image.kernelLength), image.bytes.substr(0, image.kernelLength));
        EXPECT_EQ(kernel.substr(image.kernelLength), std::string(kernel.size() - image.kernelLength, '\xff'));
    } else {
        EXPECT_TRUE(board.logLines("erase kernel ").empty()) << "refused after erasing";
    }
    if (c.rootfsWritten) {
        const std::string rootfs = board.partition("rootfs");
        EXPECT_EQ(rootfs.substr(0, c.rootfsSize), image.bytes.substr(image.kernelLength));
        EXPECT_EQ(rootfs.substr(c.rootfsSize), std::string(rootfs.size() - c.rootfsSize, '\xff'));
    } else {
        EXPECT_TRUE(board.logLines("erase rootfs ").empty());
    }
    EXPECT_TRUE(board.logLines("erase image ").empty()) << "\"image\" is opened for its geometry only";
}

const std::vector<std::string> kSmall = {"--part", "image=3M", "--part", "kernel=1M", "--part", "rootfs=1M"};
const std::vector<std::string> kKernel256K = {"--part", "image=3M", "--part", "kernel=256K", "--part", "rootfs=1M"};
const std::vector<std::string> kPages2K = {"--part", "image=3M:64K:2K", "--part", "kernel=1M:64K:2K", "--part",
                                           "rootfs=1M:64K:2K"};
// What precedes the kernel's data in a combined image (makeCombinedImage):
// a block, then the U-Boot header and the rest of 0x700 bytes.
const uint32_t kKernelHead = 65536 + 0x700;
const uint32_t kFillsKernel256K = 262144 - kKernelHead;
const std::string kRefused = "Error writing to flash\n";

const SplitCase kSplitCases[] = {
    // kernelLength 267328: 5 blocks, 4 whole chunks; rootfs 300000: 5 blocks.
    {"KernelAndRootfs", kSmall, Header::AfterFirstBlock, 200000, 300000, 0,
     e2e::splitWriteOut(kKernelHead + 200000, 300000) + kDone, "", true, true},
    {"KernelExactlyFillingItsPartition", kKernel256K, Header::AfterFirstBlock, kFillsKernel256K, 1000, 0,
     e2e::splitWriteOut(kKernelHead + kFillsKernel256K, 1000) + kDone, "", true, true},
    {"HeaderAtOffsetZero", kSmall, Header::AtOffsetZero, 1000, 100000, 0, kDone,
     "eraseAndWriteKernelRootFsU-boot header magic incorrect\n" + kRefused, false, false},
    {"KernelOneByteTooBig", kKernel256K, Header::AfterFirstBlock, kFillsKernel256K + 1, 1000, 0, kDone,
     "eraseAndWriteKernelRootFsImage size too big for kernel partition\n" + kRefused, false, false},
    {"RootfsTooBigAfterKernelWritten", {"--part", "image=3M", "--part", "kernel=1M", "--part", "rootfs=256K"},
     Header::AfterFirstBlock, 1000, 262145, 0,
     e2e::halfWriteOut("kernel", kKernelHead + 1000) + kDone,
     "eraseAndWriteKernelRootFsImage size too big for rootfs partition\n" + kRefused, true, false},
    // 2 KiB write units: both halves end in a partial unit, each padded to
    // its own partition's unit; a rootfs unit that does not divide its erase
    // block is refused before the kernel is erased.
    {"OddHalvesOn2KPages", kPages2K, Header::AfterFirstBlock, 200001, 300001, 0,
     e2e::splitWriteOut(kKernelHead + 200001, 300001) + kDone, "", true, true},
    {"RootfsWriteUnitRefusedBeforeKernelErase",
     {"--part", "image=3M", "--part", "kernel=1M", "--part", "rootfs=1M:64K:3000"}, Header::AfterFirstBlock, 1000,
     1000, 0, kDone, "eraseAndWriteKernelRootFs: Invalid write size rootfs partition\n" + kRefused, false, false},
    // Images too short for what they announce.
    {"TooShortForHeaderFields", kSmall, Header::AfterFirstBlock, 1000, 0, 65536 + 15, kDone,
     "eraseAndWriteKernelRootFs: Error - image of size 65551 too short for U-Boot header at offset 65536\n" +
         kRefused, false, false},
    {"ShorterThanKernelLength", kSmall, Header::AfterFirstBlock, 1000, 0, 65536 + 0x700 + 999, kDone,
     "eraseAndWriteKernelRootFs: Error - image of size 68327 shorter than kernel length 68328\n" + kRefused, false,
     false},
};

INSTANTIATE_TEST_SUITE_P(Table, KernelRootfs, ::testing::ValuesIn(kSplitCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
