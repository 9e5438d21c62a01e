// Making boards: the default partition table with its protection, the
// geometry and PHY options, the capability record, the cost of a fresh board,
// and what `show`, `dump` and `load` report.
#include "sim_board.h"

#include "qim/capability.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <map>
#include <set>
#include <sys/stat.h>

using flashsimtest::SimBoard;
using flashsimtest::splitLines;
using Lines = std::vector<std::string>;

namespace {

struct PartLine {
    std::string size, erasesize, locked;
};

// "partition NAME size=S erasesize=E locked=L" lines of `flashsim show DIR`.
std::map<std::string, PartLine> partitions(const SimBoard& board) {
    std::map<std::string, PartLine> out;
    for (const std::string& line : splitLines(board.flashsim("show").out)) {
        char name[64], size[32], erase[32], locked[8];
        if (std::sscanf(line.c_str(), "partition %63s size=%31s erasesize=%31s locked=%7s", name, size, erase, locked) == 4) {
            out[name] = PartLine{size, erase, locked};
        }
    }
    return out;
}

TEST(BoardSetup, DefaultBoardHasEveryPartitionAndLocksTheProtectedOnes) {
    SimBoard board;
    const std::set<std::string> all = {"boot",     "bootenv",     "brdinfo",  "capability",  "config",  "flashall",
                                       "fpga",     "fsbl",        "image",    "kernel",      "license", "rootfs",
                                       "safeboot", "safebootenv", "safefpga", "skd",         "safelicense",
                                       "userarea", "imxrt",       "vcodec",   "sii9777s",    "vconfig", "safeall"};
    const std::set<std::string> protectedOnes = {"brdinfo",  "flashall",    "fsbl", "license",     "safeboot",
                                                 "safebootenv", "safefpga", "skd",  "safelicense", "safeall"};
    const auto parts = partitions(board);
    ASSERT_EQ(parts.size(), all.size());
    for (const auto& [name, p] : parts) {
        EXPECT_EQ(all.count(name), 1u) << name;
        EXPECT_EQ(p.erasesize, "65536") << name;
        EXPECT_EQ(p.locked, protectedOnes.count(name) ? "yes" : "no") << name;
    }
    // A combined image must fit "image" when its pieces fit kernel and rootfs.
    EXPECT_GE(std::stoul(parts.at("image").size),
              std::stoul(parts.at("kernel").size) + std::stoul(parts.at("rootfs").size));
}

TEST(BoardSetup, GeometryOptions) {
    SimBoard board({"--erase-size", "128K", "--part", "kernel=1M:4K", "--part", "extra=0x2000:0", "--no-part",
                    "fpga", "--unlock", "license"});
    const auto parts = partitions(board);
    EXPECT_EQ(parts.count("fpga"), 0u);
    EXPECT_EQ(parts.at("kernel").size, "1048576");
    EXPECT_EQ(parts.at("kernel").erasesize, "4096");
    EXPECT_EQ(parts.at("extra").size, "8192");
    EXPECT_EQ(parts.at("extra").erasesize, "0");
    EXPECT_EQ(parts.at("rootfs").erasesize, "131072");
    EXPECT_EQ(parts.at("brdinfo").size, "131072");  // a default size grows to whole blocks
    EXPECT_EQ(parts.at("license").locked, "no");
}

TEST(BoardSetup, PhyAnswersOnlyWhenConfiguredAndOnlyOnEth0) {
    SimBoard silent;
    EXPECT_EQ(silent.client({"phy"}), (Lines{"phy -1 EOPNOTSUPP id=0xbeef"}));
    SimBoard phy({"--phy", "0x0770"});
    EXPECT_EQ(phy.client({"phy", "phy", "if=eth1"}), (Lines{"phy 0 id=0x0770", "phy -1 ENODEV id=0xbeef"}));
    EXPECT_EQ(phy.logLines("phy"), (Lines{"phy eth0 result=0 id=0x0770", "phy eth1 result=-1 errno=ENODEV"}));
}

struct CapCase {
    const char* name;
    const char* version;
};

class CapabilityRecord : public testing::TestWithParam<CapCase> {};

// Reads the identity the way the upgrade flow does: open (CRC and magic),
// app link, manf link, IDs at 4 and 12.
TEST_P(CapabilityRecord, HoldsTheIdentityAndPassesTheOpenChecks) {
    SimBoard board({"--cap-version", GetParam().version, "--cap-mfgc", "0011223344556677", "--cap-model",
                    "text:MOD1"});
    const std::vector<unsigned char> flash = board.dump("capability");
    ASSERT_EQ(flash.size(), 65536u);
    testutil::TempDir scratch;
    testutil::writeBytes(scratch.file("cap"), flash);
    FILE* f = nullptr;
    uint8_t header[CAP_HEADER_SIZE];
    ASSERT_EQ(cap_open_with_marker(&f, header, scratch.file("cap").c_str(), nullptr), 0);
    std::fclose(f);
    EXPECT_EQ(header[8], std::stoi(GetParam().version));
    const size_t app = (header[14] << 8) | header[15];
    const size_t manf = (flash[app + 28] << 8) | flash[app + 29];
    EXPECT_EQ(std::vector<unsigned char>(flash.begin() + manf + 4, flash.begin() + manf + 20),
              (std::vector<unsigned char>{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 'M', 'O', 'D', '1', 0, 0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(BoardSetup, CapabilityRecord,
                         testing::Values(CapCase{"V11", "11"}, CapCase{"V12", "12"}, CapCase{"V16", "16"},
                                         CapCase{"V17", "17"}),
                         [](const testing::TestParamInfo<CapCase>& info) { return std::string(info.param.name); });

// Tests make hundreds of boards: a fresh one holds no partition contents
// except the capability record.
TEST(BoardSetup, AFreshBoardIsSmallAndACapabilityFreeOneIsErased) {
    SimBoard board;
    uint64_t bytes = 0;
    for (const char* sub : {"", "/flash", "/tmp"}) {
        DIR* d = opendir((board.dir() + sub).c_str());
        ASSERT_NE(d, nullptr);
        while (dirent* e = readdir(d)) {
            struct stat st;
            if (lstat((board.dir() + sub + "/" + e->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                bytes += static_cast<uint64_t>(st.st_blocks) * 512;
            }
        }
        closedir(d);
    }
    EXPECT_LT(bytes, 256u * 1024);

    SimBoard none({"--no-cap"});
    EXPECT_FALSE(testutil::fileExists(none.file("flash/capability")));
    EXPECT_EQ(none.dump("capability"), std::vector<unsigned char>(65536, 0xFF));
}

TEST(BoardSetup, ShowReportsStateExtentsAndThePartitionsLog) {
    SimBoard board({"--part", "kernel=256K:64K"});
    board.client({"open", "kernel", "rw", "getinfo", "erase", "0", "65536", "write", "100", "0", "close", "phy"});
    EXPECT_EQ(flashsimtest::maskFds(board.flashsim("show", {"kernel"}).out),
              "partition kernel size=262144 erasesize=65536 locked=no\n"
              "  counters opens=1 closes=1 getinfo=1 erases=1 erased=65536 writes=1 bytes=100 corrupt=0 locks=0 "
              "unlocks=0 errors=0\n"
              "  faults none\n"
              "  extent 0 65536 written\n"
              "  extent 65536 196608 erased\n"
              "log\n"
              "open kernel mode=rdwr result=FD\n"
              "getinfo kernel result=0 size=262144 erasesize=65536\n"
              "erase kernel start=0 length=65536 result=0\n"
              "write kernel offset=0 length=100 result=100 corrupt=0\n"
              "close kernel fd=FD result=0\n");
    const std::string all = board.flashsim("show").out;
    EXPECT_EQ(all.compare(0, 6 + board.dir().size() + 1, "board " + board.dir() + "\n"), 0) << all;
    EXPECT_NE(all.find("\nphy none\nphy-requests 1\n"), std::string::npos) << all;
}

TEST(BoardSetup, LoadAndDumpAreByteExact) {
    SimBoard board({"--part", "kernel=128K:64K"});
    testutil::TempDir scratch;
    testutil::writeBytes(scratch.file("in"), {1, 2, 3});
    ASSERT_EQ(board.flashsim("load", {"kernel", scratch.file("in"), "--offset", "0x10"}).status, 0);
    ASSERT_EQ(board.flashsim("dump", {"kernel", "-o", scratch.file("out")}).status, 0);
    std::vector<unsigned char> expected(131072, 0xFF);
    expected[16] = 1;
    expected[17] = 2;
    expected[18] = 3;
    EXPECT_EQ(testutil::readBytes(scratch.file("out")), expected);
    EXPECT_EQ(board.log(), Lines{});  // changes from outside are not the program's operations
}

struct BadCommand {
    const char* name;
    std::vector<std::string> args;  // after "flashsim"; @ stands for the board directory
    int status;
    const char* message;
};

class CommandErrors : public testing::TestWithParam<BadCommand> {};

TEST_P(CommandErrors, FailCleanly) {
    SimBoard board;
    std::vector<std::string> argv = {FLASHSIM_BIN};
    for (const std::string& a : GetParam().args) argv.push_back(a == "@" ? board.dir() : a);
    const testutil::ProcessResult r = testutil::runProcess(argv);
    EXPECT_EQ(r.status, GetParam().status);
    EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    BoardSetup, CommandErrors,
    testing::Values(BadCommand{"InitTwice", {"init", "@"}, 1, "already holds a board"},
                    BadCommand{"SizeNotWholeBlocks", {"init", "@/x", "--part", "kernel=100K:64K"}, 2, "not a multiple"},
                    BadCommand{"UnknownFault", {"fault", "@", "kernel", "melt"}, 2, "unknown fault"},
                    BadCommand{"FaultWithoutBlock", {"fault", "@", "kernel", "erase"}, 2, "needs an argument"},
                    BadCommand{"UnknownPartition", {"show", "@", "nope"}, 1, "no partition nope"},
                    BadCommand{"CapWithoutPartition", {"init", "@/y", "--no-part", "capability", "--cap-version", "12"},
                               2, "no capability partition"},
                    BadCommand{"BadId", {"init", "@/z", "--cap-model", "12345"}, 2, "bad model ID"},
                    BadCommand{"NoCommand", {}, 2, "no command"}),
    [](const testing::TestParamInfo<BadCommand>& info) { return std::string(info.param.name); });

}  // namespace
