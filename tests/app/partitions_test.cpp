#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "app/flash_upgrader.h"

namespace {

// One row per name: what each of the three name lookups answers.
struct PartitionCase {
    const char* name;
    bool valid;       // isValidPartitionName
    int kind;         // flashPartNameToPartId
    int isProtected;  // isPartitionProtected
    bool known;       // false: both lookups print the unknown-partition line
};

class PartitionLookups : public ::testing::TestWithParam<PartitionCase> {};

TEST_P(PartitionLookups, AnswerFromTheTable) {
    const PartitionCase& c = GetParam();
    EXPECT_EQ(FlashUpgrader::isValidPartitionName(c.name), c.valid);

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(FlashUpgrader::flashPartNameToPartId(c.name), c.kind);
    const std::string kindErr = ::testing::internal::GetCapturedStderr();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(FlashUpgrader::isPartitionProtected(c.name), c.isProtected);
    const std::string protErr = ::testing::internal::GetCapturedStderr();

    const std::string tail = std::string(": Error - unknown flash partition ") + c.name +
                             ". Assuming to be protected.\n";
    EXPECT_EQ(kindErr, c.known ? "" : "flashPartNameToPartId" + tail);
    EXPECT_EQ(protErr, c.known ? "" : "isPartitionProtected" + tail);
}

const PartitionCase kPartitionCases[] = {
    {"boot", true, 6, 0, true},        {"bootenv", true, 10, 0, true},
    {"brdinfo", true, 16, 1, true},    {"capability", true, 9, 0, true},
    {"config", true, 4, 0, true},      {"flashall", true, 0, 1, true},
    {"fpga", true, 2, 0, true},        {"fsbl", true, 28, 1, true},
    {"image", true, 1, 0, true},       {"kernel", true, 28, 0, true},
    {"license", true, 3, 1, true},     {"rootfs", true, 28, 0, true},
    {"safeboot", true, 28, 1, true},   {"safebootenv", true, 28, 1, true},
    {"safefpga", true, 13, 1, true},   {"skd", true, 28, 1, true},
    {"safelicense", true, 28, 1, true}, {"userarea", true, 11, 0, true},
    {"safeall", true, 28, 1, true},
    // Known to the package flasher but not accepted on the command line.
    {"imxrt", false, 21, 0, true},     {"vcodec", false, 22, 0, true},
    {"sii9777s", false, 23, 0, true},  {"vconfig", false, 25, 0, true},
    // "qim" selects the package path: a valid word, but no partition.
    {"qim", true, 28, 1, false},
    // Exact, case-sensitive comparison.
    {"Image", false, 28, 1, false},    {"image ", false, 28, 1, false},
    {"", false, 28, 1, false},         {"flash", false, 28, 1, false},
};

std::string caseName(const ::testing::TestParamInfo<PartitionCase>& info) {
    std::string name;
    for (const char* p = info.param.name; *p; ++p) {
        name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    }
    return "n" + std::to_string(info.index) + "_" + name;
}

INSTANTIATE_TEST_SUITE_P(Table, PartitionLookups, ::testing::ValuesIn(kPartitionCases), caseName);

TEST(PartitionLookups, CommandLineAcceptsExactlyTwentyNames) {
    int valid = 0;
    for (const PartitionCase& c : kPartitionCases) {
        valid += c.valid ? 1 : 0;
    }
    EXPECT_EQ(valid, 20);
}

TEST(PartIdToPartitionName, MapsEveryKind) {
    const char* expected[29] = {
        "flashall", "image", "fpga", "license", "config", "", "boot", "", "", "capability",
        "bootenv", "userarea", "fpga", "safefpga", "", "", "brdinfo", "", "", "",
        "", "imxrt", "vcodec", "sii9777s", "", "vconfig", "", "fpga", "",
    };
    for (uint32_t kind = 0; kind < 29; ++kind) {
        EXPECT_EQ(FlashUpgrader::partIdToPartitionName(kind), expected[kind]) << kind;
    }
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(4096), "");
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(0xFFFFFFFFu), "");
}

TEST(PartIdToPartitionName, InverseOfPartNameToIdExceptSharedFpga) {
    for (uint32_t kind = 0; kind < 28; ++kind) {
        const std::string name = FlashUpgrader::partIdToPartitionName(kind);
        if (name.empty() || kind == 12 || kind == 27) {
            continue;
        }
        EXPECT_EQ(FlashUpgrader::flashPartNameToPartId(name), static_cast<int>(kind)) << name;
    }
}

}  // namespace
