// The combined Linux image written to "image": split at the U-Boot legacy
// header into the kernel and rootfs partitions. The header is made by
// Debian's mkimage (u-boot-tools), an independent reference for its layout.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brivlo_board.h"

namespace {

using e2e::Board;
using e2e::dots;

constexpr const char* kMkimage = "/usr/bin/mkimage";
constexpr uint32_t kErase = 65536;
// Bytes between the header's end and the end of its data area the split
// counts as kernel: kernelLength = E + 0x700 + data size.
constexpr uint32_t kKernelFixed = 0x700;

// A legacy uImage (64-byte header + data) around `data`, made by mkimage.
std::string makeUImage(const Board& board, const std::string& data) {
    const std::string in = board.scratch("kernel.data");
    const std::string out = board.scratch("uImage");
    testutil::writeFile(in, data);
    const testutil::ProcessResult r =
        testutil::runProcess({kMkimage, "-A", "arm", "-O", "linux", "-T", "kernel", "-C", "none", "-a", "0x8000",
                              "-e", "0x8000", "-n", "brivlo-e2e", "-d", in, out});
    EXPECT_EQ(r.status, 0) << "mkimage (u-boot-tools, see scripts/deps.sh) failed: " << r.err;
    return testutil::fileExists(out) ? testutil::readFile(out) : std::string();
}

// First kernel block, the uImage, the rest of the kernel portion, rootfs.
struct Combined {
    std::string bytes;
    std::string uimage;
    uint32_t kernelLength;
};

Combined makeCombined(const Board& board, uint32_t dataSize, uint32_t rootfsSize) {
    Combined c;
    c.uimage = makeUImage(board, e2e::randomBytes(dataSize, 11));
    c.bytes = e2e::randomBytes(kErase, 12) + c.uimage + e2e::randomBytes(kKernelFixed - 64, 13);
    c.kernelLength = kErase + kKernelFixed + dataSize;
    EXPECT_EQ(c.bytes.size(), c.kernelLength);
    c.bytes += e2e::randomBytes(rootfsSize, 14);
    return c;
}

std::string erasedTail(const std::string& partition, std::size_t from) {
    return std::string(partition.size() - from, '\xff');
}

const std::vector<std::string> kSmallBoard = {"--part", "image=3M", "--part", "kernel=1M", "--part",
                                              "rootfs=1M"};

TEST(KernelRootfs, SplitsAtTheUbootHeader) {
    Board board(kSmallBoard);
    // kernelLength 267328: 5 blocks, 4 whole chunks; rootfs 300000: 5 blocks.
    const Combined c = makeCombined(board, 200000, 300000);
    ASSERT_EQ(c.uimage.size(), 64u + 200000u);
    ASSERT_EQ(c.uimage.substr(0, 4), std::string("\x27\x05\x19\x56", 4)) << "mkimage's magic";
    const std::string path = board.scratch("combined.bin");
    testutil::writeFile(path, c.bytes);

    const testutil::ProcessResult r = board.brivlo({"local", path, "image"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "Erasing Flash (wait 1s)\n" + dots(6) + "\nWriting file to kernel flash partition\n" +
                         dots(4) + "\n" + "Erasing Flash (wait 1s)\n" + dots(6) +
                         "\nWriting file to rootfs flash partition\n" + dots(4) + "\n" +
                         "\nFlash write complete.\n\nBrivlo done\n");

    const std::string kernel = board.partition("kernel");
    EXPECT_TRUE(kernel.compare(0, c.kernelLength, c.bytes, 0, c.kernelLength) == 0);
    EXPECT_TRUE(kernel.compare(kErase, c.uimage.size(), c.uimage) == 0) << "header and data where mkimage put them";
    EXPECT_EQ(kernel.substr(c.kernelLength), erasedTail(kernel, c.kernelLength));
    const std::string rootfs = board.partition("rootfs");
    EXPECT_TRUE(rootfs.compare(0, 300000, c.bytes, c.kernelLength, 300000) == 0);
    EXPECT_EQ(rootfs.substr(300000), erasedTail(rootfs, 300000));

    EXPECT_EQ(board.logLines("erase kernel ").size(), 5u);
    EXPECT_EQ(board.logLines("erase rootfs ").size(), 5u);
    // "image" is opened for its geometry only.
    EXPECT_TRUE(board.logLines("erase image ").empty());
    EXPECT_TRUE(board.logLines("write image ").empty());
    EXPECT_EQ(board.logLines("getinfo image ").size(), 1u);
}

// A kernel portion exactly as large as its partition is accepted.
TEST(KernelRootfs, KernelExactlyFillingItsPartition) {
    Board board({"--part", "image=3M", "--part", "kernel=256K", "--part", "rootfs=1M"});
    const Combined c = makeCombined(board, 262144 - kErase - kKernelFixed, 1000);
    ASSERT_EQ(c.kernelLength, 262144u);
    const std::string path = board.scratch("combined.bin");
    testutil::writeFile(path, c.bytes);
    const testutil::ProcessResult r = board.brivlo({"local", path, "image"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(board.partition("kernel"), c.bytes.substr(0, 262144));
    EXPECT_EQ(board.partition("rootfs").substr(0, 1000), c.bytes.substr(262144));
}

// ---- Refusals. `cut` shortens the combined image to that many bytes (0: keep).

enum class Header { AfterFirstBlock, AtOffsetZero };

struct RefusalCase {
    const char* name;
    std::vector<std::string> init;
    Header header;
    uint32_t dataSize;
    uint32_t rootfsSize;
    uint32_t cut;
    std::string err;
    bool kernelWritten;
};

class KernelRootfsRefusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(KernelRootfsRefusal, RefusesAndReports) {
    const RefusalCase& c = GetParam();
    Board board(c.init);
    Combined combined = makeCombined(board, c.dataSize, c.rootfsSize);
    std::string bytes = c.header == Header::AtOffsetZero ? combined.bytes.substr(kErase) : combined.bytes;
    if (c.cut != 0) {
        bytes.resize(c.cut);
    }
    const std::string path = board.scratch("combined.bin");
    testutil::writeFile(path, bytes);

    const testutil::ProcessResult r = board.brivlo({"local", path, "image"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, c.err + "Error writing to flash\n");
    EXPECT_TRUE(board.logLines("erase rootfs ").empty());
    EXPECT_TRUE(board.logLines("write rootfs ").empty());
    if (c.kernelWritten) {
        EXPECT_EQ(board.partition("kernel").substr(0, combined.kernelLength),
                  combined.bytes.substr(0, combined.kernelLength));
    } else {
        EXPECT_EQ(r.out, "\nBrivlo done\n");
        EXPECT_TRUE(board.logLines("erase kernel ").empty()) << "refused after erasing";
        EXPECT_TRUE(board.logLines("write kernel ").empty());
    }
}

const RefusalCase kRefusalCases[] = {
    {"HeaderAtOffsetZero", kSmallBoard, Header::AtOffsetZero, 1000, 100000, 0,
     "eraseAndWriteKernelRootFsU-boot header magic incorrect\n", false},
    {"KernelOneByteTooBig", {"--part", "image=3M", "--part", "kernel=256K", "--part", "rootfs=1M"},
     Header::AfterFirstBlock, 262145 - kErase - kKernelFixed, 1000, 0,
     "eraseAndWriteKernelRootFsImage size too big for kernel partition\n", false},
    {"RootfsTooBigAfterKernelWritten", {"--part", "image=3M", "--part", "kernel=1M", "--part", "rootfs=256K"},
     Header::AfterFirstBlock, 1000, 262145, 0, "eraseAndWriteKernelRootFsImage size too big for rootfs partition\n",
     true},
    // Left open by the format: images too short for what they announce.
    {"TooShortForHeaderFields", kSmallBoard, Header::AfterFirstBlock, 1000, 0, kErase + 15,
     "eraseAndWriteKernelRootFs: Error - image of size 65551 too short for U-Boot header at offset 65536\n",
     false},
    {"ShorterThanKernelLength", kSmallBoard, Header::AfterFirstBlock, 1000, 0, kErase + kKernelFixed + 999,
     "eraseAndWriteKernelRootFs: Error - image of size 68327 shorter than kernel length 68328\n", false},
};

INSTANTIATE_TEST_SUITE_P(Table, KernelRootfsRefusal, ::testing::ValuesIn(kRefusalCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
