// Packages written end to end: every selected part lands byte-exact in the
// partition of its kind (version 3 and version 2), the Linux image is split
// into kernel and rootfs, the FPGA kinds share one partition, the progress
// count runs on across parts, and a package fetched from in.tftpd is flashed.
#include <gtest/gtest.h>

#include "common/tftpd.h"
#include "package_fixture.h"

namespace {

using e2e::PackageSpec;
using e2e::dots;
using e2e::kDone;
using e2e::partOutput;
using e2e::randomBytes;

std::string erased(std::size_t n) { return std::string(n, '\xff'); }

// A version-2 package has no releases, manufacturer or models: its Linux
// image reads as release 0 and needs no PHY answer on a bounded board.
TEST(PackageWrite, EverySelectedPartLandsInItsPartition) {
    for (const bool v2 : {false, true}) {
        SCOPED_TRACE(v2 ? "version 2" : "version 3");
        e2e::Board board({"--phy", "0x0770", "--cap-mfgc", "0011223344556677"});
        // kernelLength = 65536 + 0x700 + 1000 = 68328: two blocks, one whole chunk.
        const e2e::CombinedImage image = e2e::makeCombinedImage(board, 1000, 5000);
        const std::string release = v2 ? "0.0.0.0" : "1.0.0.0";
        PackageSpec plan;
        plan.v2 = v2;
        plan.parts = {{"image", v2 ? release : "4.3.1.0", image.bytes},
                      {"config", release, randomBytes(1000, 1)},
                      {"boot", release, randomBytes(70000, 2)},
                      {"user", release, randomBytes(300, 3)}};
        const std::string pkg = e2e::buildPackage(board, plan);

        const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, std::string("extractLinuxVerFromQim Found Linux partition and version - 0x") +
                             (v2 ? "0\n" : "4030100\n"));
        const uint32_t rootfsSize = static_cast<uint32_t>(image.bytes.size()) - image.kernelLength;
        EXPECT_EQ(r.out, e2e::report(pkg) + "\nQIM partition = image\n" +
                             e2e::splitWriteOut(image.kernelLength, rootfsSize) + partOutput("config", 1000) + partOutput("boot", 70000) + partOutput("userarea", 300) +
                             kDone);
        EXPECT_EQ(v2, r.out.find("qim file version: 2.0\n") != std::string::npos);
        EXPECT_EQ(board.partition("kernel").substr(0, 131072),
                  image.bytes.substr(0, image.kernelLength) + erased(131072 - 68328));
        EXPECT_EQ(board.partition("rootfs").substr(0, 65536), image.bytes.substr(image.kernelLength) + erased(60536));
        EXPECT_EQ(board.partition("config").substr(0, 65536), plan.parts[1].data + erased(64536));
        EXPECT_EQ(board.partition("boot").substr(0, 131072), plan.parts[2].data + erased(61072));
        EXPECT_EQ(board.partition("userarea").substr(0, 65536), plan.parts[3].data + erased(65236));
        // "image" is only opened for its checks.
        EXPECT_TRUE(board.logLines("erase image ").empty());
        EXPECT_TRUE(board.logLines("write image ").empty());
        EXPECT_EQ(board.logLines("phy ").empty(), v2);
        EXPECT_FALSE(board.statusExists());
    }
}

TEST(PackageWrite, ThreeFpgaKindsShareTheFpgaPartition) {
    e2e::Board board;
    PackageSpec plan;
    // Shrinking sizes: each write erases only the blocks it needs, so what an
    // earlier, larger part left behind those blocks stays.
    plan.parts = {{"fpga", "1.0.0.0", randomBytes(150000, 4)},
                  {"fpgar3", "1.0.0.0", randomBytes(70000, 5)},
                  {"fpgar4", "1.0.0.0", randomBytes(1000, 6)}};
    const std::string pkg = e2e::buildPackage(board, plan);

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, e2e::report(pkg) + partOutput("fpga", 150000) + partOutput("fpga", 70000) +
                         partOutput("fpga", 1000) + kDone);
    EXPECT_EQ(board.partition("fpga").substr(0, 196608),
              plan.parts[2].data + erased(64536) + plan.parts[1].data.substr(65536) + erased(131072 - 70000) +
                  plan.parts[0].data.substr(131072) + erased(196608 - 150000));
    EXPECT_EQ(board.logLines("erase fpga ").size(), 3u + 2u + 1u);
}

TEST(PackageWrite, ProgressRunsOnAcrossParts) {
    e2e::Board board;
    PackageSpec plan;
    plan.parts = {{"fpga", "1.0.0.0", randomBytes(150000, 7)}, {"config", "1.0.0.0", randomBytes(1000, 8)}};
    const std::string pkg = e2e::buildPackage(board, plan);

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, 0) << r.err;
    // total = 2 x (150000 + 1000), written whole at the start. fpga: the
    // count before each of three erased blocks (0, already there, 65536,
    // 131072), after chunk 0 (196608 + 65536) and at the end (196608 +
    // 150000); config continues: 346608 at its erase (already there), then
    // 346608 + 65536 + 1000. An update that changes nothing renames nothing.
    // Main removes the file at the end.
    const std::string head = "status=2\ntotal=302000\ncurrent=";
    std::vector<std::string> expected;
    for (int current : {0, 65536, 131072, 262144, 346608, 413144}) {
        expected.push_back(head + std::to_string(current));
    }
    expected.push_back(e2e::kRemoved);
    EXPECT_EQ(e2e::statusHistory(board), expected);
    EXPECT_FALSE(board.statusExists());
}

TEST(PackageWrite, PackageFetchedFromTftpd) {
    e2e::Board board;
    PackageSpec plan;
    plan.parts = {{"fpga", "1.0.0.0", randomBytes(70000, 62)}, {"config", "1.0.0.0", randomBytes(1000, 63)}};
    const std::string pkg = e2e::buildPackage(board, plan);
    const std::string bytes = testutil::readFile(pkg);
    testutil::Tftpd tftpd;
    tftpd.addFile("fw.qim", bytes);

    const testutil::ProcessResult r =
        board.brivlo({"tftp://127.0.0.1:" + std::to_string(tftpd.port()), "fw.qim", "qim"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    // 71,000-odd bytes are 140 blocks: fewer than the 150 a progress dot takes.
    EXPECT_EQ(r.out, "Starting file download\n " + std::to_string(bytes.size()) + " bytes transferred\n" +
                         e2e::report(pkg) + partOutput("fpga", 70000) + partOutput("config", 1000) + kDone);
    EXPECT_EQ(board.partition("fpga").substr(0, 70000), plan.parts[0].data);
    EXPECT_EQ(board.partition("config").substr(0, 1000), plan.parts[1].data);
}

}  // namespace
