// The board around the flash: the fixed files resolve inside the board
// directory and nowhere else, the PHY answers only when configured, and
// `show` reports a partition's state and log.
#include "sim_board.h"

#include <gtest/gtest.h>

#include <chrono>
#include <unistd.h>

using flashsimtest::Lines;
using flashsimtest::SimBoard;

namespace {

TEST(Board, FixedTmpFilesLiveInTheBoardNotInTheRealTmp) {
    SimBoard board;
    // Text no other test or program writes, to recognise our own writes.
    const std::string text = "status=" + std::to_string(getpid()) + "-" +
                             std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    EXPECT_EQ(board.client({"ofstream", "/tmp/temp_brivlo_status", text, "rename", "/tmp/temp_brivlo_status",
                            "/tmp/brivlo_status", "ifstream", "/tmp/brivlo_status", "ofstream", "/tmp/flashit",
                            "image", "ofstream", "/tmp/crc_ok", ""}),
              (Lines{"ofstream 0", "rename 0", "ifstream 0 [" + text + "]", "ofstream 0", "ofstream 0"}));
    EXPECT_EQ(testutil::readFile(board.file("tmp/brivlo_status")), text);
    EXPECT_EQ(testutil::readFile(board.file("tmp/flashit")), "image");
    EXPECT_TRUE(testutil::fileExists(board.file("tmp/crc_ok")));
    // Only read here: the real file may belong to someone else, but never holds our text.
    if (testutil::fileExists("/tmp/brivlo_status")) {
        EXPECT_NE(testutil::readFile("/tmp/brivlo_status"), text);
    }
    // Without a board the library stops the program: carrying on would touch the real /tmp.
    testutil::TempDir empty;
    const testutil::ProcessResult preload = testutil::runProcess(
        {FLASHSIM_TESTCLIENT, "exists", "/tmp/brivlo_status"},
        {{std::string("LD_PRELOAD=") + FLASHSIM_LIB, "FLASHSIM_BOARD=" + empty.path(),
          "ASAN_OPTIONS=verify_asan_link_order=0"}, "", "", 30});
    EXPECT_EQ(preload.status, 125);
    EXPECT_EQ(preload.out, "");
}

TEST(Board, PhyAnswersOnlyWhenConfiguredAndOnlyOnEth0) {
    EXPECT_EQ(SimBoard().client({"phy"}), (Lines{"phy -1 EOPNOTSUPP id=0xbeef"}));
    SimBoard phy({"--phy", "0x0770"});
    EXPECT_EQ(phy.client({"phy", "phy", "if=eth1"}), (Lines{"phy 0 id=0x0770", "phy -1 ENODEV id=0xbeef"}));
}

TEST(Board, ShowReportsStateExtentsAndThePartitionsLog) {
    SimBoard board({"--part", "kernel=256K:64K"});
    board.client({"open", "kernel", "rw", "getinfo", "erase", "0", "65536", "write", "100", "0", "close"});
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
}

}  // namespace
