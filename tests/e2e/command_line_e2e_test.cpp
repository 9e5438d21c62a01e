// The command line of the real brivlo on a simulated board: usage, option
// positions, exit statuses, messages, and which runs remove the status file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brivlo_board.h"

namespace {

using e2e::Board;

// Placeholders in a case's arguments, replaced per test.
const char* const kImage = "@IMAGE";  // a 1000-byte file in the test's directory

// 1000 bytes into "fpga" (64 KiB erase blocks): one block, no whole chunk.
const std::string kRawWriteOut =
    "Erasing Flash (wait 0s)\n"
    "..\n"
    "Writing file to flash partition 'fpga'\n"
    "\n"
    "\nFlash write complete.\n"
    "\nBrivlo done\n";

enum class Usage { None, Printed };
enum class StatusFile { Kept, Removed };

struct CommandCase {
    const char* name;
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string errBeforeUsage;  // standard error before the usage text (or all of it)
    Usage usage;
    StatusFile statusFile;  // a file holding "status=1" was there before the run
};

class CommandLine : public ::testing::TestWithParam<CommandCase> {};

TEST_P(CommandLine, ExitStatusMessagesAndStatusFile) {
    const CommandCase& c = GetParam();
    Board board;
    const std::string image = board.scratch("img.bin");
    testutil::writeFile(image, e2e::randomBytes(1000, 1));
    board.writeStatus("status=1");

    std::vector<std::string> args;
    for (const std::string& a : c.args) {
        args.push_back(a == kImage ? image : a);
    }
    const testutil::ProcessResult r = board.brivlo(args);

    EXPECT_EQ(r.status, c.status);
    const std::string usageOut = c.usage == Usage::Printed ? "Brivlo \n" : "";
    EXPECT_EQ(r.out, usageOut + c.out);
    EXPECT_EQ(r.err, c.errBeforeUsage + (c.usage == Usage::Printed ? e2e::usageText(BRIVLO_BIN) : ""));
    EXPECT_EQ(board.statusExists(), c.statusFile == StatusFile::Kept);
    if (c.statusFile == StatusFile::Kept && board.statusExists()) {
        EXPECT_EQ(testutil::readFile(board.statusPath()), "status=1");
    }
    if (c.out.find("Flash write complete.") != std::string::npos) {
        EXPECT_EQ(board.partition("fpga").substr(0, 1000), e2e::randomBytes(1000, 1));
    }
}

const CommandCase kCommandCases[] = {
    // Usage and help: 5; help keeps the status file, too few arguments remove it.
    {"HelpAlone", {"-?"}, 5, "", "", Usage::Printed, StatusFile::Kept},
    {"LongHelpAfterPositionals", {"x", "y", "z", "--help"}, 5, "", "", Usage::Printed, StatusFile::Kept},
    {"HelpWinsOverLaterStatusQuery", {"--help", "-S"}, 5, "", "", Usage::Printed, StatusFile::Kept},
    {"NoArguments", {}, 5, "", "", Usage::Printed, StatusFile::Removed},
    {"TwoPositionals", {"a", "b"}, 5, "", "", Usage::Printed, StatusFile::Removed},
    // The argument count includes options: "-O" here stands as the partition.
    {"OptionCountsAsPositional", {"a", "b", "-O"}, 6, "",
     "main: Error - file is not of type qim or missing partition name\n", Usage::None, StatusFile::Removed},

    // Invalid -O / -A identifiers: 5 with usage, the status file stays.
    {"InvalidModelOverride", {"local", kImage, "fpga", "-O", "zz"}, 5, "", "main: Invalid Model ID\n",
     Usage::Printed, StatusFile::Kept},
    {"InvalidMfgcOverride", {"local", kImage, "fpga", "-A", "0011"}, 5, "", "main: Invalid Manf ID\n",
     Usage::Printed, StatusFile::Kept},
    {"InvalidOverrideStopsBeforeStatusQuery", {"-O", "zz", "-S"}, 5, "", "main: Invalid Model ID\n",
     Usage::Printed, StatusFile::Kept},
    {"InvalidOverrideAloneStillChecked", {"-A", "nothex"}, 5, "", "main: Invalid Manf ID\n",
     Usage::Printed, StatusFile::Kept},

    // Valid overrides in every documented position; no effect on a raw image.
    {"BothOverridesValid",
     {"local", kImage, "fpga", "-O", "0x0011223344556677", "-A", "8899aabbccddeeff"}, 0, kRawWriteOut,
     "main: Model ID override valid\nmain: Manf ID override valid\n", Usage::None, StatusFile::Removed},
    {"ModelOverrideLast", {"local", kImage, "fpga", "-O"}, 0, kRawWriteOut, "", Usage::None,
     StatusFile::Removed},
    {"MfgcOverrideLast", {"local", kImage, "fpga", "-A"}, 0, kRawWriteOut, "", Usage::None,
     StatusFile::Removed},
    {"ModelOverrideFollowedByMfgcOverride", {"local", kImage, "fpga", "-O", "-A", "0011223344556677"}, 0,
     kRawWriteOut, "main: Manf ID override valid\n", Usage::None, StatusFile::Removed},
    {"MfgcOverrideFollowedByModelOverride", {"local", kImage, "fpga", "-A", "-O"}, 0, kRawWriteOut, "",
     Usage::None, StatusFile::Removed},
    {"OverrideWithBlanksInIdentifier", {"local", kImage, "fpga", "-O", " 00 11 22 33 44 55 66 77"}, 0,
     kRawWriteOut, "main: Model ID override valid\n", Usage::None, StatusFile::Removed},

    // -S after an override without identifier, or after a valid one, still
    // queries; the query answers 1 for "status=1" and removes nothing.
    {"ModelOverrideFollowedByStatusQuery", {"local", kImage, "fpga", "-O", "-S"}, 1, "", "", Usage::None,
     StatusFile::Kept},
    {"MfgcOverrideFollowedByStatusQuery", {"-A", "-S"}, 1, "", "", Usage::None, StatusFile::Kept},
    {"StatusQueryAfterValidOverride", {"-O", "0011223344556677", "-S"}, 1, "",
     "main: Model ID override valid\n", Usage::None, StatusFile::Kept},

    // Neither a partition nor a package: 6.
    {"UnknownPartition", {"local", kImage, "nosuchpart"}, 6, "",
     "main: Error - file is not of type qim or missing partition name\n", Usage::None, StatusFile::Removed},
    {"PackageExtensionIsCaseSensitive", {"local", "/nowhere/fw.QIM", "qim"}, 6, "",
     "main: Error - file is not of type qim or missing partition name\n", Usage::None, StatusFile::Removed},
    {"PartitionNamesAreCaseSensitive", {"local", kImage, "Image"}, 6, "",
     "main: Error - file is not of type qim or missing partition name\n", Usage::None, StatusFile::Removed},
    {"PackageFlasherOnlyPartitionRefused", {"local", kImage, "imxrt"}, 6, "",
     "main: Error - file is not of type qim or missing partition name\n", Usage::None, StatusFile::Removed},

    // A model identifier in place of the partition that does not parse: 4.
    {"ModelArgumentNotHex", {"local", "/nowhere/fw.qim", "nothex"}, 4, "",
     "main: Invalid argument \"nothex\"\n", Usage::Printed, StatusFile::Removed},
    {"ModelArgumentTooShort", {"local", "/nowhere/fw.qim", "00112233"}, 4, "",
     "main: Invalid argument \"00112233\"\n", Usage::Printed, StatusFile::Removed},

    // Raw images end with 0 even when nothing could be written.
    {"RawImageWritten", {"local", kImage, "fpga"}, 0, kRawWriteOut, "", Usage::None, StatusFile::Removed},
    {"RawImageCannotBeOpened", {"local", "/nowhere/x.bin", "fpga"}, 0, "\nBrivlo done\n",
     "Error reading from file /nowhere/x.bin\n", Usage::None, StatusFile::Removed},
    {"RawImageIsADirectory", {"local", "/", "fpga"}, 0, "\nBrivlo done\n", "Error reading from file /\n",
     Usage::None, StatusFile::Removed},
    {"UnknownProtocolReadsLocally", {"ftp://10.1.2.3:69", kImage, "fpga"}, 0, kRawWriteOut, "", Usage::None,
     StatusFile::Removed},
    {"LocalWordAnywhereMeansNoDownload", {"tftp://127.0.0.1:1", kImage, "fpga", "local"}, 0, kRawWriteOut,
     "", Usage::None, StatusFile::Removed},
    {"EmptyPartitionNameIsRawPath", {"local", kImage, ""}, 0, "\nBrivlo done\n",
     "isPartitionProtected: Error - unknown flash partition . Assuming to be protected.\n"
     "flashPartNameToPartId: Error - unknown flash partition . Assuming to be protected.\n"
     "writeImageToFlash: Error opening flash partition \n"
     "Error writing to flash\n",
     Usage::None, StatusFile::Removed},
};

INSTANTIATE_TEST_SUITE_P(Table, CommandLine, ::testing::ValuesIn(kCommandCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The package path's own failures belong to the package flasher; here only
// main's part: its message, a non-zero status, and the status file removed.
TEST(CommandLinePackage, FailedPackageEndsWithItsCodeAndRemovesTheStatusFile) {
    Board board;
    board.writeStatus("status=1");
    const testutil::ProcessResult r = board.brivlo({"local", "/nowhere/fw.qim", "qim"});
    EXPECT_NE(r.status, 0);
    const std::string tail = "Failed to write QIM file. Exiting.\n";
    ASSERT_GE(r.err.size(), tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
    EXPECT_EQ(r.out.find("Brivlo done"), std::string::npos);
    EXPECT_FALSE(board.statusExists());
}

// ---- brivlo -S on every status file the program writes, and damaged ones.

struct QueryCase {
    const char* name;
    bool present;
    std::string content;
    int status;
};

class StatusQuery : public ::testing::TestWithParam<QueryCase> {};

TEST_P(StatusQuery, ExitsWithTheComputedStatusAndLeavesTheFile) {
    const QueryCase& c = GetParam();
    Board board;
    if (c.present) {
        board.writeStatus(c.content);
    }
    const testutil::ProcessResult r = board.brivlo({"-S"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(board.statusExists(), c.present);
    if (c.present) {
        EXPECT_EQ(testutil::readFile(board.statusPath()), c.content);
    }
}

const QueryCase kQueryCases[] = {
    // The five shapes the program produces.
    {"NoFile", false, "", 0},
    {"Downloading", true, "status=1", 1},
    {"RawAfterDownload", true, "status=1\n", 1},
    {"RawFromLocalFile", true, "", 0},
    {"PackageStarted", true, "status=2\ntotal=1000\ncurrent=0", 0},
    {"PackageHalfway", true, "status=2\ntotal=1000\ncurrent=500", 225},
    {"PackageComplete", true, "status=2\ntotal=1000\ncurrent=1000", 250},
    {"PackageWithoutParts", true, "status=2", 0},
    {"ProductBeyond32Bits", true, "status=2\ntotal=200000000\ncurrent=100000000", 225},
    // Damaged values count as absent lines.
    {"StatusNotANumber", true, "status=two", 0},
    {"StatusOutOfRange", true, "status=4294967297", 0},
    {"TotalNotANumber", true, "status=2\ntotal=x\ncurrent=500", 0},
    {"CurrentDamagedKeepsEarlierLine", true, "status=2\ntotal=1000\ncurrent=500\ncurrent=?", 225},
    {"TrailingCharactersIgnored", true, "status=2\ntotal=1000\ncurrent=250kB", 212},
    {"BinaryGarbage", true, std::string("\xff\x00status=1\n", 11), 0},
    // Values the program never writes still answer modulo 256.
    {"NegativeStatus", true, "status=-1", 255},
    {"LargeStatus", true, "status=300", 44},
};

INSTANTIATE_TEST_SUITE_P(Table, StatusQuery, ::testing::ValuesIn(kQueryCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
