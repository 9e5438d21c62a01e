// Package upgrades that end in one run of brivlo: which parts are written
// (device identity from the capability record, positional identifiers, -O
// and -A), the part loop (skips, kinds without partition, write failures),
// the Linux release against the board's PHY, and refusals before the first
// write (device code, manufacturer, damaged files), which leave every
// partition byte-identical and the log without an erase.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "package_fixture.h"
#include "qim/byte_order.h"
#include "qim/crc32.h"

namespace {

using e2e::PackageSpec;
using e2e::PartSpec;
using e2e::partOutput;
using Damage = std::function<void(std::string&)>;

const std::string kModel1 = e2e::textId("TER100");  // the default record's model
const std::string kModel2 = e2e::textId("MODEL2");
const std::string kModel3 = e2e::textId("MODEL3");
const std::string kOther = e2e::textId("OTHER");
const std::string kPkgMfgc = e2e::textId("PKGMFG");
const std::string kSkip = "Model ID mismatch. Skipping to next partition.\n";
const std::string kFound = "extractLinuxVerFromQim Found Linux partition and version - 0x";
const std::string kModelValid = "main: Model ID override valid\n";
const std::string kMfgcValid = "main: Manf ID override valid\n";
const std::string kChecksum = "CHECKSUM";  // the reader's checksum line for the damaged file

const PartSpec kConfig{"config", "1.0.0.0", e2e::randomBytes(1000, 31)};
const PartSpec kBoot{"boot", "1.0.0.0", e2e::randomBytes(70000, 32)};
const PartSpec kUser{"user", "1.0.0.0", e2e::randomBytes(300, 33)};
const std::string kBootStart = "\nQIM partition = boot\n" + e2e::partitionEraseOut("boot", 70000);

// Three parts, one per model (config: model 1, boot: 2, userarea: 3).
PackageSpec byModel(const std::string& mfgc = "") {
    return {e2e::kLocalDeviceCode, mfgc, {kConfig, kBoot, kUser}, {kModel1 + ":0", kModel2 + ":1", kModel3 + ":2"}};
}
// A Linux image of `release` for another model and config for any: the
// release is checked although only config is written.
PackageSpec linuxRelease(const std::string& release) {
    return {e2e::kLocalDeviceCode, "", {{"image", release, "not a kernel"}, kConfig},
            {kOther + ":0", "0000000000000000:1"}};
}
PackageSpec parts(std::vector<PartSpec> list, std::vector<std::string> models = {}, bool v2 = false) {
    if (v2) {
        for (PartSpec& p : list) p.release = "0.0.0.0";
    }
    return {e2e::kLocalDeviceCode, "", list, models, v2};
}
PackageSpec withHeader(const std::string& code, const std::string& mfgc) {
    return {code, mfgc, {kConfig, kBoot}, {}};
}

std::string mismatch(const std::string& device) {
    return "writeQimToFlash: Device manufacturer ID " + device + " does not match QIM manufacturer ID " +
           kPkgMfgc + ".\n";
}
std::string phyRefusal(const std::string& hex, const std::string& chip) {
    return kFound + hex + "\nvalidateFirmwareSupport Current Net deivce is " + chip +
           ". Can`t apply the given QIM file include linux ver 0x" + hex + "\n";
}
const std::string kPhyAccepted = "\nQIM partition = image\n" + kSkip + partOutput("config", 1000) + e2e::kDone;

// Byte sum of a version-2 package as its header stores it.
uint32_t byteSum(const uint8_t* p, std::size_t size) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (i < 20 || i > 23) sum += p[i];
    }
    return (sum >> 16) + (sum & 0xFFFF);
}

// The reader's line for a version-3 file whose stored CRC does not match.
std::string checksumLine(std::string bytes) {
    uint8_t* p = reinterpret_cast<uint8_t*>(&bytes[0]);
    const uint32_t expected = qim_get_be32(p + 24);
    qim_put_be32(p + 24, 0);
    const uint32_t calculated = crc32_compute(p, bytes.size());
    char line[96];
    std::snprintf(line, sizeof line, "error: bad checksum: calculated %x, expected %x\n", calculated, expected);
    return line;
}

Damage setWord(std::size_t offset, uint32_t value) {
    return [offset, value](std::string& b) { qim_put_be32(reinterpret_cast<uint8_t*>(&b[offset]), value); };
}
const Damage kFlipLastByte = [](std::string& b) { b.back() ^= 0x40; };
// The last part (seq 2) of a version-2 package promises one byte more than
// the file holds; the byte sum is fixed so the package still loads.
const Damage kOverrunThirdPart = [](std::string& b) {
    uint8_t* p = reinterpret_cast<uint8_t*>(&b[0]);
    qim_put_be32(p + 28 + 12 * 2 + 8, qim_get_be32(p + 28 + 12 * 2 + 8) + 1);
    qim_put_be32(p + 20, byteSum(p, b.size()));
};

struct PackageCase {
    std::string name;
    std::vector<std::string> board;  // flashsim init options
    PackageSpec plan;
    std::vector<std::string> args;  // after "local PACKAGE"
    int status;
    bool report;                       // the package report starts standard output
    std::string out;                   // after the report
    std::string err;                   // without the final kFailed line of a failed run
    std::vector<std::string> written;  // partitions holding their part; none: flash untouched
    Damage damage = nullptr;           // applied to the built file; an empty result removes it
    bool failSockets = false;          // socket() fails (x86-64 only)
};

void PrintTo(const PackageCase& c, std::ostream* os) { *os << c.name; }

class PackageRun : public testing::TestWithParam<PackageCase> {};

TEST_P(PackageRun, WritesTheSelectedPartsOrNothing) {
    const PackageCase& c = GetParam();
    if (c.failSockets && !e2e::canFailSockets()) GTEST_SKIP() << "socket failure injection needs x86-64";
    e2e::Board board(c.board);
    const std::string pkg = e2e::buildPackage(board, c.plan);
    std::string bytes = testutil::readFile(pkg);
    if (c.damage) {
        c.damage(bytes);
        if (bytes.empty()) std::remove(pkg.c_str());
        else testutil::writeFile(pkg, bytes);
    }
    const std::string report = c.report ? e2e::report(pkg) : "";
    const auto before = e2e::flashFiles(board);
    std::vector<std::string> args = {"local", pkg};
    args.insert(args.end(), c.args.begin(), c.args.end());

    const testutil::ProcessResult r =
        c.failSockets ? e2e::runWithoutSockets(board, args) : board.brivlo(args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, report + c.out);
    EXPECT_EQ(r.err, (c.err == kChecksum ? checksumLine(bytes) : c.err) + (c.status ? e2e::kFailed : ""));
    EXPECT_FALSE(board.statusExists());
    for (const std::string& name : c.written) {
        for (const PartSpec& part : c.plan.parts) {
            if (part.kind == name || (name == "userarea" && part.kind == "user")) {
                EXPECT_EQ(board.partition(name).substr(0, part.data.size()), part.data) << name;
            }
        }
    }
    if (c.written.empty()) {
        EXPECT_TRUE(e2e::flashFiles(board) == before) << "a refused package changed the flash";
        EXPECT_TRUE(board.logLines("erase ").empty());
    }
}

const std::string kOpenWarning = "parseCapabilityForIds: Warning - cannot open capability file\n";
const std::vector<std::string> kQim = {"qim"};
const std::vector<std::string> kAll = {"config", "boot", "userarea"};

INSTANTIATE_TEST_SUITE_P(
    Identity, PackageRun,
    testing::Values(
        PackageCase{"RecordVersion17", {}, byModel(), kQim, 0, true,
                    partOutput("config", 1000) + "\nQIM partition = boot\n" + kSkip + "\nQIM partition = userarea\n" +
                        kSkip + e2e::kDone,
                    "", {"config"}},
        PackageCase{"RecordVersion12", {"--cap-version", "12", "--cap-model", kModel2}, byModel(), kQim, 0, true,
                    "\nQIM partition = config\n" + kSkip + partOutput("boot", 70000) + "\nQIM partition = userarea\n" +
                        kSkip + e2e::kDone,
                    "", {"boot"}},
        PackageCase{"RecordVersion11IsNotFollowed", {"--cap-version", "11", "--cap-model", kModel2}, byModel(), kQim,
                    0, true, partOutput("config", 1000) + partOutput("boot", 70000) + partOutput("userarea", 300) +
                    e2e::kDone, "", kAll},
        PackageCase{"NoRecordWarnsAndAcceptsAnyManufacturer", {"--no-cap"}, byModel(kPkgMfgc), kQim, 0, true,
                    partOutput("config", 1000) + partOutput("boot", 70000) + partOutput("userarea", 300) +
                    e2e::kDone, kOpenWarning, kAll},
        PackageCase{"RecordManufacturerMismatch", {}, byModel(kPkgMfgc), kQim, 15, true, "",
                    mismatch(e2e::textId("TESTMFG")), {}},
        PackageCase{"PositionalModelAndManufacturer", {}, byModel(kPkgMfgc), {kModel3, kPkgMfgc}, 0, true,
                    "\nQIM partition = config\n" + kSkip + "\nQIM partition = boot\n" + kSkip +
                        partOutput("userarea", 300) + e2e::kDone,
                    "", {"userarea"}},
        // An unreadable manufacturer argument leaves "any".
        PackageCase{"PositionalManufacturerUnreadable", {}, byModel(kPkgMfgc), {kModel3, "zz"}, 0, true,
                    "\nQIM partition = config\n" + kSkip + "\nQIM partition = boot\n" + kSkip +
                        partOutput("userarea", 300) + e2e::kDone,
                    "", {"userarea"}},
        PackageCase{"PositionalManufacturerMismatch", {}, byModel(kPkgMfgc), {kModel1, kOther}, 15, true, "",
                    mismatch(kOther), {}},
        PackageCase{"OverrideModelOverPositional", {}, byModel(), {kModel2, "-O", kModel3}, 0, true,
                    "\nQIM partition = config\n" + kSkip + "\nQIM partition = boot\n" + kSkip +
                        partOutput("userarea", 300) + e2e::kDone,
                    kModelValid, {"userarea"}},
        PackageCase{"OverrideModelWithoutIdMeansAny", {}, byModel(), {"qim", "-O"}, 0, true,
                    partOutput("config", 1000) + partOutput("boot", 70000) + partOutput("userarea", 300) +
                    e2e::kDone, "", kAll},
        PackageCase{"OverrideManufacturerOverPositional", {}, byModel(kPkgMfgc), {kModel1, kOther, "-A", kModel2},
                    15, true, "", kMfgcValid + mismatch(kModel2), {}},
        PackageCase{"OverrideManufacturerOverRecord", {}, byModel(kPkgMfgc), {"qim", "-A", kPkgMfgc}, 0, true,
                    partOutput("config", 1000) + "\nQIM partition = boot\n" + kSkip + "\nQIM partition = userarea\n" +
                        kSkip + e2e::kDone,
                    kMfgcValid, {"config"}}),
    [](const testing::TestParamInfo<PackageCase>& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    PartLoop, PackageRun,
    testing::Values(
        PackageCase{"NothingForThisModel", {}, parts({kConfig}, {kOther + ":0"}), kQim, 15, true,
                    "\nQIM partition = config\n" + kSkip, "writeQimToFlashNo matching partitions to flash\n", {}},
        PackageCase{"KindWithoutPartitionFirst", {}, parts({{"_temp", "1.0.0.0", "t"}, kConfig}), kQim, 15, true, "",
                    "writeQimToFlashQIM Part ID 5not found\nwriteQimToFlashNo matching partitions to flash\n", {}},
        PackageCase{"KindWithoutPartitionEndsTheLoop", {}, parts({kConfig, kBoot, {"fpga96", "1.0.0.0", "f"}, kUser}),
                    kQim, 0, true, partOutput("config", 1000) + partOutput("boot", 70000) + e2e::kDone,
                    "writeQimToFlashQIM Part ID 7not found\n", {"config", "boot"}},
        PackageCase{"WriteFailureKeepsEarlierParts", {"--fault", "boot:fail-write:1"}, parts({kConfig, kBoot, kUser}),
                    kQim, 4, true, partOutput("config", 1000) + kBootStart,
                    "writeToFlash: Error writing blocks to flash \nwriteQimToFlashFlash write failed\n", {"config"}},
        PackageCase{"OpenFailureKeepsEarlierParts", {"--fault", "boot:open"}, parts({kConfig, kBoot, kUser}), kQim,
                    18, true, partOutput("config", 1000) + "\nQIM partition = boot\n",
                    "writeImageToFlash: Error opening flash partition boot\nwriteQimToFlashFlash write failed\n",
                    {"config"}},
        PackageCase{"PartBeyondTheFileEndsThePackage", {}, parts({kConfig, kBoot, kUser}, {}, true), kQim, 4, true,
                    partOutput("config", 1000) + partOutput("boot", 70000) + "\nQIM partition = userarea\n",
                    "writeQimToFlashError reading from file\n", {"config", "boot"}, kOverrunThirdPart}),
    [](const testing::TestParamInfo<PackageCase>& info) { return info.param.name; });

// Each chip refuses a Linux release at or below its bound; other identities
// (or none) accept anything.
INSTANTIATE_TEST_SUITE_P(
    Phy, PackageRun,
    testing::Values(
        PackageCase{"Vsc8541AtBound", {"--phy", "0x0770"}, linuxRelease("4.2.5.255"), kQim, 9, true, "",
                    phyRefusal("40205FF", "VSC8541"), {}},
        PackageCase{"Vsc8541Above", {"--phy", "0x0770"}, linuxRelease("4.2.6.0"), kQim, 0, true, kPhyAccepted,
                    kFound + "4020600\n", {"config"}},
        PackageCase{"Mv88e6361AtBound", {"--phy", "0x2610"}, linuxRelease("4.2.6.255"), kQim, 9, true, "",
                    phyRefusal("40206FF", "MV88E6361"), {}},
        PackageCase{"Mv88e6361Above", {"--phy", "0x2610"}, linuxRelease("4.2.7.0"), kQim, 0, true, kPhyAccepted,
                    kFound + "4020700\n", {"config"}},
        PackageCase{"Ksz9131AtBound", {"--phy", "0x1640"}, linuxRelease("4.2.7.255"), kQim, 9, true, "",
                    phyRefusal("40207FF", "KSZ9131"), {}},
        PackageCase{"Ksz9131Above", {"--phy", "0x1640"}, linuxRelease("4.2.8.0"), kQim, 0, true, kPhyAccepted,
                    kFound + "4020800\n", {"config"}},
        PackageCase{"Ksz9897AtBound", {"--phy", "0x9897"}, linuxRelease("4.3.0.255"), kQim, 9, true, "",
                    phyRefusal("40300FF", "KSZ9897"), {}},
        PackageCase{"Ksz9897Above", {"--phy", "0x9897"}, linuxRelease("4.3.1.0"), kQim, 0, true, kPhyAccepted,
                    kFound + "4030100\n", {"config"}},
        PackageCase{"OtherPhyHasNoBound", {"--phy", "0x1234"}, linuxRelease("0.0.0.1"), kQim, 0, true, kPhyAccepted,
                    kFound + "1\n", {"config"}},
        // Without a control socket the identity reads as 0: no bound.
        PackageCase{"NoControlSocketReadsAsZero", {"--phy", "0x0770"}, linuxRelease("4.2.5.0"), kQim, 0, true,
                    kPhyAccepted, kFound + "4020500\nCannot get control socket: Function not implemented\n",
                    {"config"}, nullptr, true}),
    [](const testing::TestParamInfo<PackageCase>& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Refusal, PackageRun,
    testing::Values(
        PackageCase{"DeviceCode39", {"--phy", "0x0770"}, withHeader("39", ""), kQim, 8, false, "",
                    "device type mismatch\n", {}},
        PackageCase{"ManufacturerMismatch", {"--cap-mfgc", "0011223344556677"}, withHeader("40", "8899aabbccddeeff"),
                    kQim, 15, true, "",
                    "writeQimToFlash: Device manufacturer ID 0011223344556677 does not match QIM manufacturer ID "
                    "8899aabbccddeeff.\n", {}},
        PackageCase{"MissingFile", {}, withHeader("40", ""), kQim, 6, false, "", "", {},
                    [](std::string& b) { b.clear(); }},
        PackageCase{"WrongMagic", {}, withHeader("40", ""), kQim, 3, false, "",
                    "error: qim header doesn't have correct magic number\n", {}, [](std::string& b) { b[0] = 'X'; }},
        PackageCase{"Version1", {}, withHeader("40", ""), kQim, 15, false, "", "unsupported qim version number: 1/0x1\n",
                    {}, setWord(8, 1)},
        PackageCase{"PartDataDamaged", {}, withHeader("40", ""), kQim, 4, false, "", kChecksum, {}, kFlipLastByte}),
    [](const testing::TestParamInfo<PackageCase>& info) { return info.param.name; });

}  // namespace

// A record whose app or manf section lies past the end of the 64 KiB
// partition warns and keeps the wildcards; one without a manf link keeps them
// silently. Either way a package for any manufacturer then goes through.
TEST(PackageIdentity, UnreadableRecordSectionsKeepTheWildcards) {
    struct Row {
        const char* name;
        uint16_t appLink, manfLink;
        std::string warning;
    };
    const Row rows[] = {
        {"AppPastTheEnd", 0xFFF0, 0, "parseCapabilityForIds: Warning - cannot read app section\n"},
        {"ManfPastTheEnd", 20, 0xFF00, "parseCapabilityForIds: Warning - cannot read manf section\n"},
        {"NoManfLink", 20, 0, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        e2e::Board board;
        std::string record(68, '\0');
        record.replace(0, 8, "Korvalen");
        record[8] = 16;  // below 17: no CRC to fill
        auto* p = reinterpret_cast<uint8_t*>(&record[0]);
        qim_put_be16(p + 10, 68);
        qim_put_be16(p + 14, row.appLink);
        qim_put_be16(p + 20 + 28, row.manfLink);
        testutil::writeFile(board.scratch("cap"), record);
        ASSERT_EQ(board.flashsim("load", {"capability", board.scratch("cap")}).status, 0);
        const std::string pkg = e2e::buildPackage(board, byModel(kPkgMfgc));
        const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, row.warning);
        EXPECT_EQ(board.partition("userarea").substr(0, 300), kUser.data);
    }
}
