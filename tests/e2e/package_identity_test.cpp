// Where the device identity comes from, later sources winning: the capability
// record (followed from version 12 on), the positional model and
// manufacturer identifiers, then -O and -A. The model shows in which of three
// model-specific parts gets written; the manufacturer in the mismatch line.
#include <gtest/gtest.h>

#include <set>

#include "package_fixture.h"
#include "qim/byte_order.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::textId;

const std::string kModel1 = textId("TER100");  // the default record's model
const std::string kModel2 = textId("MODEL2");
const std::string kModel3 = textId("MODEL3");
const std::string kBoardMfgc = textId("TESTMFG");  // the default record's manufacturer
const std::string kPackageMfgc = textId("PKGMFG");
const std::string kOtherMfgc = textId("OTHERMF");
const std::string kOtherMfgc2 = textId("OTHER2");

using Written = std::set<std::string>;
const Written kAll = {"config", "boot", "userarea"};

std::string mismatch(const std::string& device) {
    return "writeQimToFlash: Device manufacturer ID " + device + " does not match QIM manufacturer ID " +
           kPackageMfgc + ".\n" + e2e::kFailed;
}

// A hand-made record (versions below 17 carry no CRC): header, then an app
// section at 20 when `appLink` is 20.
std::string capRecord(uint8_t version, uint16_t appLink, uint16_t manfLink) {
    std::string bytes(68, '\0');
    uint8_t* p = reinterpret_cast<uint8_t*>(&bytes[0]);
    bytes.replace(0, 8, "Korvalen");
    p[8] = version;
    qim_put_be16(p + 10, 68);
    qim_put_be16(p + 14, appLink);
    qim_put_be16(p + 20 + 28, manfLink);
    return bytes;
}

struct IdentityCase {
    std::string name;
    std::vector<std::string> board;
    std::string capFile;  // raw capability partition content, when not empty
    std::vector<std::string> args;  // after "local PACKAGE"
    bool packageMfgc;     // the package names kPackageMfgc (otherwise any)
    int status;
    std::string err;
    Written written;
};

void PrintTo(const IdentityCase& c, std::ostream* os) {
    *os << c.name;
}

class PackageIdentity : public testing::TestWithParam<IdentityCase> {};

TEST_P(PackageIdentity, SelectsTheParts) {
    const IdentityCase& c = GetParam();
    testutil::TempDir files("brivlo-cap");
    std::vector<std::string> options = c.board;
    if (!c.capFile.empty()) {
        testutil::writeFile(files.file("cap.bin"), c.capFile);
        options.insert(options.end(), {"--cap-file", files.file("cap.bin")});
    }
    Board board(options);
    PackageSpec spec;
    spec.parts = {{"config", "1.0.0.0", "for model 1"}, {"boot", "1.0.0.0", "for model 2"},
                  {"user", "1.0.0.0", "for model 3"}};
    spec.models = {kModel1 + ":0", kModel2 + ":1", kModel3 + ":2"};
    if (c.packageMfgc) spec.mfgc = kPackageMfgc;
    const std::string pkg = e2e::buildPackage(board, spec);

    std::vector<std::string> args = {"local", pkg};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const testutil::ProcessResult r = board.brivlo(args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, c.err);
    Written written;
    for (const std::string& name : kAll) {
        if (!board.logLines("write " + name + " ").empty()) written.insert(name);
    }
    EXPECT_EQ(written, c.written);
}

const std::string kOpenWarning = "parseCapabilityForIds: Warning - cannot open capability file\n";
const std::string kModelValid = "main: Model ID override valid\n";
const std::string kMfgcValid = "main: Manf ID override valid\n";

INSTANTIATE_TEST_SUITE_P(
    E2e, PackageIdentity,
    testing::Values(
        IdentityCase{"RecordVersion17", {}, "", {"qim"}, false, 0, "", {"config"}},
        IdentityCase{"RecordVersion12", {"--cap-version", "12", "--cap-model", kModel2}, "", {"qim"}, false, 0, "",
                     {"boot"}},
        IdentityCase{"RecordVersion11IsNotFollowed", {"--cap-version", "11", "--cap-model", kModel2}, "", {"qim"},
                     false, 0, "", kAll},
        IdentityCase{"NoRecord", {"--no-cap"}, "", {"qim"}, false, 0, kOpenWarning, kAll},
        IdentityCase{"NoRecordAcceptsAnyManufacturer", {"--no-cap"}, "", {"qim"}, true, 0, kOpenWarning, kAll},
        IdentityCase{"AppSectionUnreadable", {}, capRecord(12, 0xFFF0, 0), {"qim"}, false, 0,
                     "parseCapabilityForIds: Warning - cannot read app section\n", kAll},
        IdentityCase{"ManfSectionUnreadable", {}, capRecord(12, 20, 0xFFF0), {"qim"}, false, 0,
                     "parseCapabilityForIds: Warning - cannot read manf section\n", kAll},
        IdentityCase{"NoManfLink", {}, capRecord(12, 20, 0), {"qim"}, false, 0, "", kAll},
        IdentityCase{"RecordManufacturer", {}, "", {"qim"}, true, 15, mismatch(kBoardMfgc), {}},
        IdentityCase{"PositionalModel", {}, "", {kModel2}, false, 0, "", {"boot"}},
        IdentityCase{"PositionalManufacturer", {}, "", {kModel3, kPackageMfgc}, true, 0, "", {"userarea"}},
        // An unreadable manufacturer argument leaves "any".
        IdentityCase{"PositionalManufacturerUnreadable", {}, "", {kModel3, "zz"}, true, 0, "", {"userarea"}},
        IdentityCase{"PositionalManufacturerMismatch", {}, "", {kModel1, kOtherMfgc}, true, 15,
                     mismatch(kOtherMfgc), {}},
        IdentityCase{"OverrideModelOverRecord", {}, "", {"qim", "-O", kModel2}, false, 0, kModelValid, {"boot"}},
        IdentityCase{"OverrideModelOverPositional", {}, "", {kModel2, "-O", kModel3}, false, 0, kModelValid,
                     {"userarea"}},
        IdentityCase{"OverrideModelWithoutId", {}, "", {"qim", "-O"}, false, 0, "", kAll},
        IdentityCase{"OverrideManufacturerOverRecord", {}, "", {"qim", "-A", kPackageMfgc}, true, 0, kMfgcValid,
                     {"config"}},
        IdentityCase{"OverrideManufacturerOverPositional", {}, "", {kModel1, kOtherMfgc, "-A", kOtherMfgc2}, true,
                     15, kMfgcValid + mismatch(kOtherMfgc2), {}},
        IdentityCase{"OverrideManufacturerWithoutId", {}, "", {"qim", "-A"}, true, 0, "", {"config"}},
        IdentityCase{"BothOverridesWithoutIds", {"--cap-model", kModel2}, "", {"qim", "-O", "-A"}, true, 0, "",
                     kAll}),
    [](const testing::TestParamInfo<IdentityCase>& info) { return info.param.name; });

}  // namespace
