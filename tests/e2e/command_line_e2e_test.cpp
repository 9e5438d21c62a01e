// The command line of the real brivlo on a simulated board: usage, option
// positions, exit statuses, messages, and which runs remove the status file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/command_line.h"
#include "brivlo_board.h"

namespace {

using e2e::Board;

// Placeholders in a case's arguments, replaced per test.
const char* const kImage = "@IMAGE";  // a 1000-byte file in the test's directory

// 1000 bytes into "fpga" (64 KiB erase blocks): one block, no whole chunk.
const std::string kRawWriteOut = e2e::partitionWriteOut("fpga", 1000) + "\nBrivlo done\n";

// What printUsage writes on standard error for the real program's name; its
// text is held by tests/app's usage test.
std::string usageText() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    command_line::printUsage(BRIVLO_BIN);
    testing::internal::GetCapturedStdout();
    return testing::internal::GetCapturedStderr();
}

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
void PrintTo(const CommandCase& c, std::ostream* os) { *os << c.name; }

class CommandLine : public ::testing::TestWithParam<CommandCase> {};

TEST_P(CommandLine, ExitStatusMessagesAndStatusFile) {
    const CommandCase& c = GetParam();
    Board board;
    const std::string image = board.scratch("img.bin");
    testutil::writeFile(image, e2e::randomBytes(1000, 1));
    board.writeStatus("status=1");

    std::vector<std::string> args;
    for (const std::string& a : c.args) args.push_back(a == kImage ? image : a);
    const testutil::ProcessResult r = board.brivlo(args);

    const bool usage = c.usage == Usage::Printed;
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, (usage ? "Brivlo \n" : "") + c.out);
    EXPECT_EQ(r.err, c.errBeforeUsage + (usage ? usageText() : ""));
    if (c.statusFile == StatusFile::Removed) {
        EXPECT_FALSE(board.statusExists());
    } else {
        EXPECT_EQ(testutil::readFile(board.statusPath()), "status=1");
    }
    if (c.out == kRawWriteOut) {
        EXPECT_EQ(board.partition("fpga").substr(0, 1000), e2e::randomBytes(1000, 1));
    }
}

// A few runs of the real program for each way out; the grammar's own table
// is tests/app's.
const CommandCase kCommandCases[] = {
    // Usage and help: 5; help keeps the status file, too few arguments remove it.
    {"HelpAlone", {"-?"}, 5, "", "", Usage::Printed, StatusFile::Kept},
    {"TwoPositionals", {"a", "b"}, 5, "", "", Usage::Printed, StatusFile::Removed},
    {"InvalidModelOverride", {"local", kImage, "fpga", "-O", "zz"}, 5, "", "main: Invalid Model ID\n",
     Usage::Printed, StatusFile::Kept},
    // -S after a valid override queries: 1 for "status=1", nothing removed.
    {"StatusQueryAfterValidOverride", {"-O", "0011223344556677", "-S"}, 1, "",
     "main: Model ID override valid\n", Usage::None, StatusFile::Kept},
    {"UnknownPartition", {"local", kImage, "nosuchpart"}, 6, "",
     "main: Error - file is not of type qim or missing partition name\n", Usage::None, StatusFile::Removed},
    {"ModelArgumentNotHex", {"local", "/nowhere/fw.qim", "nothex"}, 4, "",
     "main: Invalid argument \"nothex\"\n", Usage::Printed, StatusFile::Removed},
    // -K: an unusable key file ends the run with 14 before anything is read.
    {"KeyFileMissing", {"local", kImage, "fpga", "-K", "/nowhere/k.pub"}, 14, "",
     "Release key /nowhere/k.pub cannot be used: file not found\n", Usage::None, StatusFile::Removed},
    // Raw images end with 0 even when nothing could be written; overrides
    // have no effect on them.
    {"RawImageCannotBeOpened", {"local", "/nowhere/x.bin", "fpga"}, 0, "\nBrivlo done\n",
     "Error reading from file /nowhere/x.bin\n", Usage::None, StatusFile::Removed},
    {"BothOverridesValid",
     {"ftp://10.1.2.3:69", kImage, "fpga", "-O", "0x0011223344556677", "-A", "8899aabbccddeeff"}, 0,
     kRawWriteOut, "main: Model ID override valid\nmain: Manf ID override valid\n", Usage::None,
     StatusFile::Removed},
};

INSTANTIATE_TEST_SUITE_P(Table, CommandLine, ::testing::ValuesIn(kCommandCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- brivlo -S on every status file the program writes, one damaged value and
// one the program never writes; the line rules are tests/app's table.

struct QueryCase {
    const char* name;
    bool present;
    std::string content;
    int status;
};
void PrintTo(const QueryCase& c, std::ostream* os) { *os << c.name; }

class StatusQuery : public ::testing::TestWithParam<QueryCase> {};

TEST_P(StatusQuery, ExitsWithTheComputedStatusAndLeavesTheFile) {
    const QueryCase& c = GetParam();
    Board board;
    if (c.present) board.writeStatus(c.content);
    const testutil::ProcessResult r = board.brivlo({"-S"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out + r.err, "");
    if (c.present) {
        EXPECT_EQ(testutil::readFile(board.statusPath()), c.content);
    } else {
        EXPECT_FALSE(board.statusExists());
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
    // Damaged values count as absent lines (the parser's own table: tests/app).
    {"TotalNotANumber", true, "status=2\ntotal=x\ncurrent=500", 0},
    // Values the program never writes still answer modulo 256.
    {"NegativeStatus", true, "status=-1", 255},
};

INSTANTIATE_TEST_SUITE_P(Table, StatusQuery, ::testing::ValuesIn(kQueryCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
