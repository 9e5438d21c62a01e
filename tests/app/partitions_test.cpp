// The partition vocabulary held together: the driver's table, the package
// library's part-kind map and the board flashsim makes by default must name
// the same partitions with the same kinds and protection.
#include "app/partitions.h"

#include <gtest/gtest.h>

#include <string>

#include "app/flash_upgrader.h"
#include "qim/names.h"
#include "qim/partition_map.h"
#include "tools/flashsim/cli/default_board.h"

namespace {

struct PartitionCase {
    const char* name;
    int kind;  // 28: no package part goes there
    bool isProtected;
    bool onCommandLine;
};
void PrintTo(const PartitionCase& c, std::ostream* os) { *os << c.name; }

const flashsim::DefaultPartition* onDefaultBoard(const std::string& name) {
    for (std::size_t i = 0; i < flashsim::kDefaultPartitionCount; ++i) {
        if (name == flashsim::kDefaultPartitions[i].name) return &flashsim::kDefaultPartitions[i];
    }
    return nullptr;
}

class Partitions : public ::testing::TestWithParam<PartitionCase> {};

TEST_P(Partitions, DriverPackageLibraryAndSimulatorAgree) {
    const PartitionCase& c = GetParam();
    testing::internal::CaptureStderr();
    EXPECT_EQ(FlashUpgrader::flashPartNameToPartId(c.name), c.kind);
    EXPECT_EQ(FlashUpgrader::isPartitionProtected(c.name), c.isProtected ? 1 : 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "a known partition is no error";
    EXPECT_EQ(FlashUpgrader::isValidPartitionName(c.name), c.onCommandLine);
    if (c.kind != QIM_PART_ID_UNKNOWN) {
        EXPECT_EQ(FlashUpgrader::partIdToPartitionName(static_cast<uint32_t>(c.kind)), c.name);
    }
    const flashsim::DefaultPartition* simulated = onDefaultBoard(c.name);
    ASSERT_NE(simulated, nullptr) << "flashsim's default board lacks it";
    EXPECT_EQ(simulated->locked, c.isProtected);
}

const PartitionCase kPartitionCases[] = {
    {"boot", 6, false, true},        {"bootenv", 10, false, true},   {"brdinfo", 16, true, true},
    {"capability", 9, false, true},  {"config", 4, false, true},     {"flashall", 0, true, true},
    {"fpga", 2, false, true},        {"fsbl", 28, true, true},       {"image", 1, false, true},
    {"kernel", 28, false, true},     {"license", 3, true, true},     {"rootfs", 28, false, true},
    {"safeboot", 28, true, true},    {"safebootenv", 28, true, true}, {"safefpga", 13, true, true},
    {"skd", 28, true, true},         {"safelicense", 28, true, true}, {"userarea", 11, false, true},
    {"imxrt", 21, false, false},     {"vcodec", 22, false, false},   {"sii9777s", 23, false, false},
    {"vconfig", 25, false, false},   {"safeall", 28, true, true},
};

INSTANTIATE_TEST_SUITE_P(Table, Partitions, ::testing::ValuesIn(kPartitionCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PartitionTables, HoldTheSameNames) {
    const std::size_t rows = sizeof kPartitionCases / sizeof kPartitionCases[0];
    EXPECT_EQ(partitions::kCount, rows);
    EXPECT_EQ(flashsim::kDefaultPartitionCount, rows);
    // Every kind the package library places has a partition of that kind;
    // three FPGA kinds share "fpga".
    for (uint32_t kind = 0; kind < QIM_PART_ID_UNKNOWN; ++kind) {
        const std::string name = qim_part_partition_name(kind);
        if (name.empty()) continue;
        const bool fpga = kind == 12 || kind == 27;
        EXPECT_EQ(FlashUpgrader::flashPartNameToPartId(name), fpga ? 2 : static_cast<int>(kind)) << name;
    }
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(12), "fpga");
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(27), "fpga");
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(7), "");
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(28), "");
    EXPECT_EQ(FlashUpgrader::partIdToPartitionName(4096), "");
}

// Names outside the table: "qim" selects the package path, and the lookups
// that need a partition report it and answer "unknown" and "protected".
TEST(PartitionTables, NamesOutsideTheTable) {
    EXPECT_TRUE(FlashUpgrader::isValidPartitionName("qim"));
    for (const char* name : {"Image", "image ", ""}) {
        EXPECT_FALSE(FlashUpgrader::isValidPartitionName(name)) << '"' << name << '"';
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(FlashUpgrader::flashPartNameToPartId("qim"), 28);
    EXPECT_EQ(FlashUpgrader::isPartitionProtected("qim"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "flashPartNameToPartId: Error - unknown flash partition qim. Assuming to be protected.\n"
              "isPartitionProtected: Error - unknown flash partition qim. Assuming to be protected.\n");
}

}  // namespace
