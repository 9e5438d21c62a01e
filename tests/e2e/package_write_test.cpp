// Packages written end to end: every selected part lands in the partition of
// its kind, the Linux image is split into kernel and rootfs, the FPGA kinds
// share one partition, and the progress count runs on across parts.
#include <gtest/gtest.h>

#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::dots;
using e2e::kDone;
using e2e::partOutput;
using e2e::randomBytes;

std::string erased(std::size_t n) {
    return std::string(n, '\xff');
}

TEST(PackageWrite, EverySelectedPartLandsInItsPartition) {
    Board board;
    // kernelLength = 65536 + 0x700 + 1000 = 68328: two blocks, one whole chunk.
    const e2e::CombinedImage image = e2e::makeCombinedImage(board, 1000, 5000);
    PackageSpec spec;
    spec.parts = {{"image", "4.3.1.0", image.bytes},
                  {"config", "1.0.0.0", randomBytes(1000, 1)},
                  {"boot", "1.0.0.0", randomBytes(70000, 2)},
                  {"user", "1.0.0.0", randomBytes(300, 3)}};
    const std::string pkg = e2e::buildPackage(board, spec);

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "extractLinuxVerFromQim Found Linux partition and version - 0x4030100\n");
    EXPECT_EQ(r.out, e2e::report(pkg) + "\nQIM partition = image\nErasing Flash (wait 0s)\n" + dots(3) +
                         "\nWriting file to kernel flash partition\n" + dots(1) + "\nErasing Flash (wait 0s)\n" +
                         dots(2) + "\nWriting file to rootfs flash partition\n\n\nFlash write complete.\n" +
                         partOutput("config", 1000) + partOutput("boot", 70000) + partOutput("userarea", 300) +
                         kDone);

    const std::string kernel = board.partition("kernel");
    EXPECT_EQ(kernel.substr(0, 131072), image.bytes.substr(0, image.kernelLength) + erased(131072 - 68328));
    EXPECT_EQ(board.partition("rootfs").substr(0, 65536), image.bytes.substr(image.kernelLength) + erased(60536));
    EXPECT_EQ(board.partition("config").substr(0, 65536), spec.parts[1].data + erased(64536));
    EXPECT_EQ(board.partition("boot").substr(0, 131072), spec.parts[2].data + erased(61072));
    EXPECT_EQ(board.partition("userarea").substr(0, 65536), spec.parts[3].data + erased(65236));
    // "image" is only opened for its checks; nothing is erased or written there.
    EXPECT_TRUE(board.logLines("erase image ").empty());
    EXPECT_TRUE(board.logLines("write image ").empty());
    EXPECT_EQ(board.logLines("erase kernel ").size(), 2u);
    EXPECT_EQ(board.logLines("erase rootfs ").size(), 1u);
    EXPECT_EQ(board.logLines("erase boot ").size(), 2u);
    EXPECT_FALSE(board.statusExists());
}

TEST(PackageWrite, ThreeFpgaKindsShareTheFpgaPartition) {
    Board board;
    PackageSpec spec;
    // Shrinking sizes: each write erases only the blocks it needs, so what an
    // earlier, larger part left behind those blocks stays.
    spec.parts = {{"fpga", "1.0.0.0", randomBytes(150000, 4)},
                  {"fpgar3", "1.0.0.0", randomBytes(70000, 5)},
                  {"fpgar4", "1.0.0.0", randomBytes(1000, 6)}};
    const std::string pkg = e2e::buildPackage(board, spec);

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, e2e::report(pkg) + partOutput("fpga", 150000) + partOutput("fpga", 70000) +
                         partOutput("fpga", 1000) + kDone);

    const std::string& first = spec.parts[0].data;
    const std::string& second = spec.parts[1].data;
    EXPECT_EQ(board.partition("fpga").substr(0, 196608),
              spec.parts[2].data + erased(64536) + second.substr(65536) + erased(131072 - 70000) +
                  first.substr(131072) + erased(196608 - 150000));
    EXPECT_EQ(board.logLines("erase fpga ").size(), 3u + 2u + 1u);
    EXPECT_EQ(board.logLines("write fpga ").size(), 3u + 2u + 1u);
}

TEST(PackageWrite, ProgressRunsOnAcrossParts) {
    Board board;
    PackageSpec spec;
    spec.parts = {{"fpga", "1.0.0.0", randomBytes(150000, 7)}, {"config", "1.0.0.0", randomBytes(1000, 8)}};
    const std::string pkg = e2e::buildPackage(board, spec);

    const e2e::TracedRun run = e2e::runTraced(board, {"local", pkg, "qim"});
    EXPECT_EQ(run.result.status, 0) << run.result.err;
    // fpga: three erases show the count before each block (0, 65536, 131072);
    // the write phase updates after chunk 0 (196608 + 65536) and at its end
    // (196608 + 150000). config continues from there: its erase shows
    // 346608, its write ends at 346608 + 65536 + 1000.
    const std::string head = "status=2\ntotal=302000\ncurrent=";
    std::vector<std::string> expected;
    for (int current : {0, 65536, 131072, 262144, 346608, 346608, 413144}) {
        expected.push_back(head + std::to_string(current));
    }
    std::vector<std::string> updates;
    for (std::size_t i = 0; i + 1 < run.snapshots.size(); ++i) {
        EXPECT_FALSE(run.snapshots[i].removal);
        updates.push_back(run.snapshots[i].content);
    }
    EXPECT_EQ(updates, expected);
    ASSERT_FALSE(run.snapshots.empty());
    EXPECT_TRUE(run.snapshots.back().removal);
    EXPECT_EQ(run.snapshots.back().content, head + "413144");
    EXPECT_FALSE(board.statusExists());
}

}  // namespace
