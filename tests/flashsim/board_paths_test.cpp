// The board's fixed files and devices resolve inside the board directory and
// nowhere else; `flashsim run` prepares the environment and refuses a
// directory that is no board.
#include "sim_board.h"

#include <gtest/gtest.h>

#include <chrono>
#include <unistd.h>

using flashsimtest::SimBoard;
using Lines = std::vector<std::string>;

namespace {

// Text no other test or program writes, to recognise our own writes.
std::string uniqueText() {
    return "status=" + std::to_string(getpid()) + "-" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

TEST(BoardPaths, StatusFilesLiveInTheBoardNotInTheRealTmp) {
    SimBoard board;
    const std::string text = uniqueText();
    EXPECT_EQ(board.client({"ofstream", "/tmp/temp_brivlo_status", text, "rename", "/tmp/temp_brivlo_status",
                            "/tmp/brivlo_status", "ifstream", "/tmp/brivlo_status", "exists",
                            "/tmp/temp_brivlo_status"}),
              (Lines{"ofstream 0", "rename 0", "ifstream 0 [" + text + "]", "exists 0"}));
    EXPECT_EQ(testutil::readFile(board.file("tmp/brivlo_status")), text);
    // Only read here: the real file may belong to someone else, but never holds our text.
    if (testutil::fileExists("/tmp/brivlo_status")) {
        EXPECT_NE(testutil::readFile("/tmp/brivlo_status"), text);
    }

    EXPECT_EQ(board.client({"remove", "/tmp/brivlo_status", "exists", "/tmp/brivlo_status", "remove",
                            "/tmp/brivlo_status"}),
              (Lines{"remove 0", "exists 0", "remove -1 ENOENT"}));
    EXPECT_FALSE(testutil::fileExists(board.file("tmp/brivlo_status")));
}

TEST(BoardPaths, DownloadAndMarkerFilesToo) {
    SimBoard board;
    EXPECT_EQ(board.client({"ofstream", "/tmp/flashit", "image", "ofstream", "/tmp/crc_ok", ""}),
              (Lines{"ofstream 0", "ofstream 0"}));
    EXPECT_EQ(testutil::readFile(board.file("tmp/flashit")), "image");
    EXPECT_TRUE(testutil::fileExists(board.file("tmp/crc_ok")));
}

TEST(BoardPaths, OtherPathsAreLeftAlone) {
    SimBoard board;
    testutil::TempDir other;
    EXPECT_EQ(board.client({"ofstream", other.file("x"), "data"}), (Lines{"ofstream 0"}));
    EXPECT_EQ(testutil::readFile(other.file("x")), "data");
}

TEST(BoardPaths, PartitionsResolveToTheBoardOrDoNotExist) {
    SimBoard board({"--no-part", "fpga"});
    EXPECT_EQ(board.client({"fopen-read", "capability", "stat", "kernel", "open", "fpga", "rw", "open", "nonsense",
                            "rw", "remove", "/dev/flash/kernel"}),
              (Lines{"fopen-read 65536 4b6f7276616c656e", "stat 0 size=4194304", "open -1 ENOENT", "open -1 ENOENT",
                     "remove -1 EPERM"}));
    EXPECT_EQ(flashsimtest::maskFds(testutil::readFile(board.file("log"))),
              "open capability mode=rdonly result=FD\nclose capability fd=FD result=0\n");
}

TEST(BoardPaths, RunSetsTheEnvironmentForSanitizedPrograms) {
    SimBoard board;
    const testutil::ProcessResult r =
        testutil::runProcess({FLASHSIM_BIN, "run", board.dir(), "/bin/sh", "-c", "echo \"$ASAN_OPTIONS|$LD_PRELOAD\""},
                             {{"ASAN_OPTIONS=detect_leaks=1", "LD_PRELOAD="}, "", "", 30});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, std::string("detect_leaks=1:verify_asan_link_order=0|") + FLASHSIM_LIB + "\n");
}

TEST(BoardPaths, ADirectoryThatIsNoBoardIsRefusedLoudly) {
    testutil::TempDir empty;
    const testutil::ProcessResult run = testutil::runProcess({FLASHSIM_BIN, "run", empty.path(), "--", "/bin/true"});
    EXPECT_EQ(run.status, 125);
    EXPECT_NE(run.err.find("not a simulated board"), std::string::npos) << run.err;
    // The library checks on its own too: carrying on would touch the real /tmp.
    const testutil::ProcessResult preload = testutil::runProcess(
        {FLASHSIM_TESTCLIENT, "exists", "/tmp/brivlo_status"},
        {{std::string("LD_PRELOAD=") + FLASHSIM_LIB, "FLASHSIM_BOARD=" + empty.path(),
          "ASAN_OPTIONS=verify_asan_link_order=0"},
         "", "", 30});
    EXPECT_EQ(preload.status, 125);
    EXPECT_EQ(preload.out, "");
    EXPECT_NE(preload.err.find("FLASHSIM_BOARD=" + empty.path()), std::string::npos) << preload.err;
}

}  // namespace
