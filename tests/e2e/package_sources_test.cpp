// Version-2 packages, and a package fetched over TFTP from in.tftpd before it
// is flashed.
#include <gtest/gtest.h>

#include "common/tftpd.h"
#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::kDone;
using e2e::partOutput;
using e2e::randomBytes;

TEST(PackageSources, Version2WritesEveryPartWithoutReleaseCheck) {
    // A version-2 package has no releases, no manufacturer and no model
    // table: every part is for every device, and its Linux image reads as
    // release 0, which needs no PHY answer even on a board with a bounded PHY.
    Board board({"--phy", "0x0770", "--cap-mfgc", "0011223344556677"});
    const e2e::CombinedImage image = e2e::makeCombinedImage(board, 1000, 5000);
    PackageSpec spec;
    spec.v2 = true;
    spec.parts = {{"image", "0.0.0.0", image.bytes}, {"fpga", "0.0.0.0", randomBytes(5000, 61)}};
    const std::string pkg = e2e::buildPackage(board, spec);

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "extractLinuxVerFromQim Found Linux partition and version - 0x0\n");
    EXPECT_EQ(r.out, e2e::report(pkg) + "\nQIM partition = image\nErasing Flash (wait 0s)\n...\n"
                                        "Writing file to kernel flash partition\n.\nErasing Flash (wait 0s)\n..\n"
                                        "Writing file to rootfs flash partition\n\n\nFlash write complete.\n" +
                         partOutput("fpga", 5000) + kDone);
    EXPECT_NE(r.out.find("qim file version: 2.0\n"), std::string::npos);
    EXPECT_TRUE(board.partition("kernel").substr(0, image.kernelLength) == image.bytes.substr(0, image.kernelLength));
    EXPECT_TRUE(board.partition("rootfs").substr(0, 5000) == image.bytes.substr(image.kernelLength));
    EXPECT_TRUE(board.partition("fpga").substr(0, 5000) == spec.parts[1].data);
    EXPECT_TRUE(board.logLines("phy ").empty());
}

TEST(PackageSources, PackageFetchedOverTftp) {
    Board board;
    PackageSpec spec;
    spec.parts = {{"fpga", "1.0.0.0", randomBytes(70000, 62)}, {"config", "1.0.0.0", randomBytes(1000, 63)}};
    const std::string pkg = e2e::buildPackage(board, spec);
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
    EXPECT_TRUE(testutil::readFile(board.downloadPath()) == bytes) << "flashed from the downloaded copy";
    EXPECT_TRUE(board.partition("fpga").substr(0, 70000) == spec.parts[0].data);
    EXPECT_TRUE(board.partition("config").substr(0, 1000) == spec.parts[1].data);
    EXPECT_FALSE(board.statusExists());
}

}  // namespace
