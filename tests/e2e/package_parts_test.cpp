// The part loop: parts for another model are skipped, a kind without a
// partition ends the loop, a failing part ends the package with its code
// while the parts before it stay written.
#include <gtest/gtest.h>

#include <functional>

#include "package_fixture.h"
#include "qim/byte_order.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::PartSpec;
using e2e::kFailed;
using e2e::partOutput;

const std::string kThisModel = e2e::textId("TER100");  // the default board's model
const std::string kOtherModel = e2e::textId("OTHER");
const std::string kSkip = "Model ID mismatch. Skipping to next partition.\n";

const PartSpec kConfig{"config", "1.0.0.0", e2e::randomBytes(1000, 31)};
const PartSpec kBoot{"boot", "1.0.0.0", e2e::randomBytes(70000, 32)};
const PartSpec kUser{"user", "1.0.0.0", e2e::randomBytes(300, 33)};
const PartSpec kTemp{"_temp", "1.0.0.0", "temp"};
const PartSpec kFpga96{"fpga96", "1.0.0.0", "fpga96"};

std::string partitionOf(const std::string& kind) {
    return kind == "user" ? "userarea" : kind;
}

// Makes the last part, `seq`, of a version-2 package one byte longer than
// the file holds, and fixes the byte-sum checksum so the package still loads.
void overrunPart(std::string& bytes, int seq) {
    uint8_t* p = reinterpret_cast<uint8_t*>(&bytes[0]);
    uint8_t* size = p + 28 + 12 * seq + 8;
    qim_put_be32(size, qim_get_be32(size) + 1);
    uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i < 20 || i > 23) sum += p[i];
    }
    qim_put_be32(p + 20, (sum >> 16) + (sum & 0xFFFF));
}

struct LoopCase {
    std::string name;
    std::vector<PartSpec> parts;
    std::vector<std::string> models;
    std::vector<std::string> board;  // flashsim init options (faults)
    std::function<void(std::string&)> damage;  // applied to a version-2 package
    int status;
    std::string out;  // after the report
    std::string err;
    std::vector<std::string> written;    // partitions that hold their part
    std::vector<std::string> untouched;  // never erased nor written
};

void PrintTo(const LoopCase& c, std::ostream* os) {
    *os << c.name;
}

class PackageParts : public testing::TestWithParam<LoopCase> {};

TEST_P(PackageParts, Loop) {
    const LoopCase& c = GetParam();
    Board board(c.board);
    PackageSpec spec;
    spec.parts = c.parts;
    spec.models = c.models;
    // Version 2 has no releases; its byte sum is easy to fix after damage.
    spec.v2 = static_cast<bool>(c.damage);
    for (PartSpec& part : spec.parts) {
        if (spec.v2) part.release = "0.0.0.0";
    }
    const std::string pkg = e2e::buildPackage(board, spec);
    if (c.damage) {
        std::string bytes = testutil::readFile(pkg);
        c.damage(bytes);
        testutil::writeFile(pkg, bytes);
    }

    const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, e2e::report(pkg) + c.out);
    EXPECT_EQ(r.err, c.err);
    for (const std::string& name : c.written) {
        std::string data;
        for (const PartSpec& part : c.parts) {
            if (partitionOf(part.kind) == name) data = part.data;
        }
        EXPECT_TRUE(board.partition(name).substr(0, data.size()) == data) << name;
    }
    for (const std::string& name : c.untouched) {
        EXPECT_TRUE(board.logLines("erase " + name + " ").empty()) << name;
        EXPECT_TRUE(board.logLines("write " + name + " ").empty()) << name;
    }
}

const std::string kBootStart = "\nQIM partition = boot\nErasing Flash (wait 0s)\n...\n"
                               "Writing file to flash partition 'boot'\n";

INSTANTIATE_TEST_SUITE_P(
    E2e, PackageParts,
    testing::Values(
        LoopCase{"OtherModelsPartIsSkipped", {kConfig, kBoot}, {kOtherModel + ":0", kThisModel + ":1"}, {}, {},
                 0, "\nQIM partition = config\n" + kSkip + partOutput("boot", 70000) + e2e::kDone, "",
                 {"boot"}, {"config"}},
        LoopCase{"NothingForThisModel", {kConfig}, {kOtherModel + ":0"}, {}, {}, 15,
                 "\nQIM partition = config\n" + kSkip, "writeQimToFlashNo matching partitions to flash\n" + std::string(kFailed),
                 {}, {"config"}},
        LoopCase{"KindWithoutPartitionFirst", {kTemp, kConfig}, {}, {}, {}, 15, "",
                 "writeQimToFlashQIM Part ID 5not found\nwriteQimToFlashNo matching partitions to flash\n" +
                     std::string(kFailed),
                 {}, {"config"}},
        LoopCase{"KindWithoutPartitionEndsTheLoop", {kConfig, kBoot, kFpga96, kUser}, {}, {}, {}, 0,
                 partOutput("config", 1000) + partOutput("boot", 70000) + e2e::kDone,
                 "writeQimToFlashQIM Part ID 7not found\n", {"config", "boot"}, {"userarea"}},
        LoopCase{"WriteFailureKeepsEarlierParts", {kConfig, kBoot, kUser}, {}, {"--fault", "boot:fail-write:1"}, {},
                 4, partOutput("config", 1000) + kBootStart,
                 "writeToFlash: Error writing blocks to flash \nwriteQimToFlashFlash write failed\n" +
                     std::string(kFailed),
                 {"config"}, {"userarea"}},
        LoopCase{"OpenFailureKeepsEarlierParts", {kConfig, kBoot, kUser}, {}, {"--fault", "boot:open"}, {}, 18,
                 partOutput("config", 1000) + "\nQIM partition = boot\n",
                 "writeImageToFlash: Error opening flash partition boot\nwriteQimToFlashFlash write failed\n" +
                     std::string(kFailed),
                 {"config"}, {"boot", "userarea"}},
        // The part table promises a byte more than the file has: the package
        // is damaged, that part is not written, the loop ends with 4.
        LoopCase{"PartBeyondTheFileEndsThePackage", {kConfig, kBoot, kUser}, {}, {},
                 [](std::string& b) { overrunPart(b, 2); }, 4,
                 partOutput("config", 1000) + partOutput("boot", 70000) + "\nQIM partition = userarea\n",
                 "writeQimToFlashError reading from file\n" + std::string(kFailed), {"config", "boot"},
                 {"userarea"}}),
    [](const testing::TestParamInfo<LoopCase>& info) { return info.param.name; });

}  // namespace
