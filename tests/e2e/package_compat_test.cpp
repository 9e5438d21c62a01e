// The Linux release of a package against the board's Ethernet PHY: each of
// the four chips refuses a release at or below its bound, with its message
// after the report; other identities (or none) accept anything.
#include <gtest/gtest.h>

#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::PartSpec;

const std::string kFound = "extractLinuxVerFromQim Found Linux partition and version - 0x";
const std::string kOtherModel = e2e::textId("OTHER");
const PartSpec kConfig{"config", "1.0.0.0", e2e::randomBytes(1000, 51)};

// The Linux image is meant for another model, so an accepted package writes
// only its config part: the release is checked all the same.
PackageSpec withImages(const std::vector<std::string>& releases) {
    PackageSpec spec;
    std::string seqs;
    for (const std::string& release : releases) {
        seqs += (seqs.empty() ? "" : ",") + std::to_string(spec.parts.size());
        spec.parts.push_back({"image", release, "not a kernel"});
    }
    spec.parts.push_back(kConfig);
    spec.models = {kOtherModel + ":" + seqs, "0000000000000000:" + std::to_string(releases.size())};
    return spec;
}

std::string acceptedOutput(std::size_t images) {
    std::string out;
    for (std::size_t i = 0; i < images; ++i) {
        out += "\nQIM partition = image\nModel ID mismatch. Skipping to next partition.\n";
    }
    return out + e2e::partOutput("config", 1000) + e2e::kDone;
}

struct PhyCase {
    std::string name;
    std::string phy;      // flashsim --phy
    std::string release;  // of the image part
    std::string hex;      // the release as printed
    std::string chip;     // the refusing chip; empty: accepted
};

void PrintTo(const PhyCase& c, std::ostream* os) {
    *os << c.name;
}

class PackagePhy : public testing::TestWithParam<PhyCase> {};

TEST_P(PackagePhy, ReleaseAgainstBound) {
    const PhyCase& c = GetParam();
    Board board({"--phy", c.phy});
    const std::string pkg = e2e::buildPackage(board, withImages({c.release}));
    const auto before = e2e::flashFiles(board);

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(board.logLines("phy eth0 ").size(), 1u) << "asked once";
    if (c.chip.empty()) {
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, kFound + c.hex + "\n");
        EXPECT_EQ(r.out, e2e::report(pkg) + acceptedOutput(1));
        return;
    }
    EXPECT_EQ(r.status, 9);
    EXPECT_EQ(r.err, kFound + c.hex + "\nvalidateFirmwareSupport Current Net deivce is " + c.chip +
                         ". Can`t apply the given QIM file include linux ver 0x" + c.hex + "\n" + e2e::kFailed);
    EXPECT_EQ(r.out, e2e::report(pkg)) << "the report is printed for a refused package too";
    EXPECT_TRUE(e2e::flashFiles(board) == before);
    EXPECT_TRUE(board.logLines("erase ").empty());
}

INSTANTIATE_TEST_SUITE_P(
    E2e, PackagePhy,
    testing::Values(PhyCase{"Vsc8541AtBound", "0x0770", "4.2.5.255", "40205FF", "VSC8541"},
                    PhyCase{"Vsc8541FarBelow", "0x0770", "0.0.0.1", "1", "VSC8541"},
                    PhyCase{"Vsc8541Above", "0x0770", "4.2.6.0", "4020600", ""},
                    PhyCase{"Mv88e6361AtBound", "0x2610", "4.2.6.255", "40206FF", "MV88E6361"},
                    PhyCase{"Mv88e6361Above", "0x2610", "4.2.7.0", "4020700", ""},
                    PhyCase{"Ksz9131AtBound", "0x1640", "4.2.7.255", "40207FF", "KSZ9131"},
                    PhyCase{"Ksz9131Above", "0x1640", "4.2.8.0", "4020800", ""},
                    PhyCase{"Ksz9897Below", "0x9897", "4.3.0.0", "4030000", "KSZ9897"},
                    PhyCase{"Ksz9897AtBound", "0x9897", "4.3.0.255", "40300FF", "KSZ9897"},
                    PhyCase{"Ksz9897Above", "0x9897", "4.3.1.0", "4030100", ""},
                    PhyCase{"OtherPhyHasNoBound", "0x1234", "0.0.0.1", "1", ""},
                    // The driver does not answer: the identity reads as 0.
                    PhyCase{"NoAnswerHasNoBound", "none", "0.0.0.1", "1", ""}),
    [](const testing::TestParamInfo<PhyCase>& info) { return info.param.name; });

TEST(PackageCompat, TheLastLinuxImageDecides) {
    Board board({"--phy", "0x0770"});
    const std::string pkg = e2e::buildPackage(board, withImages({"4.2.6.0", "4.2.5.0"}));
    const testutil::ProcessResult refused = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(refused.status, 9);
    EXPECT_EQ(refused.err, kFound + "4020600\n" + kFound +
                               "4020500\nvalidateFirmwareSupport Current Net deivce is VSC8541. Can`t apply the "
                               "given QIM file include linux ver 0x4020500\n" + e2e::kFailed);

    const std::string reversed = e2e::buildPackage(board, withImages({"4.2.5.0", "4.2.6.0"}), "reversed.qim");
    const testutil::ProcessResult accepted = board.brivlo({"local", reversed, "qim"});
    EXPECT_EQ(accepted.status, 0);
    EXPECT_EQ(accepted.out, e2e::report(reversed) + acceptedOutput(2));
}

TEST(PackageCompat, WithoutLinuxImageThePhyIsNotAsked) {
    Board board({"--phy", "0x0770"});
    PackageSpec spec;
    spec.parts = {kConfig};
    const std::string pkg = e2e::buildPackage(board, spec);
    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, e2e::report(pkg) + e2e::partOutput("config", 1000) + e2e::kDone);
    EXPECT_TRUE(board.logLines("phy ").empty());
}

TEST(PackageCompat, WithoutControlSocketThePhyReadsAsZero) {
    if (!e2e::canFailSockets()) GTEST_SKIP() << "socket failure injection needs x86-64";
    Board board({"--phy", "0x0770"});
    const std::string pkg = e2e::buildPackage(board, withImages({"4.2.5.0"}));
    const e2e::TracedRun run = e2e::runTraced(board, {"local", pkg, "qim"}, true);
    EXPECT_EQ(run.result.status, 0);
    EXPECT_EQ(run.result.err, kFound + "4020500\nCannot get control socket: Function not implemented\n");
    EXPECT_EQ(run.result.out, e2e::report(pkg) + acceptedOutput(1));
    EXPECT_TRUE(board.logLines("phy ").empty());
}

}  // namespace
