// tftp:// upgrades: the real brivlo downloads from Debian's in.tftpd (or a
// scripted server for silence) into the board's /tmp/flashit and writes the
// file as a raw image; `brivlo -S` polled from another process meanwhile.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "brivlo_board.h"
#include "common/fake_tftp_server.h"
#include "common/tftpd.h"

namespace {

using e2e::Board;
using e2e::dots;

std::string tftpUrl(uint16_t port) { return "tftp://127.0.0.1:" + std::to_string(port); }

TEST(Download, FileFromTftpdIsWrittenIntoTheRawPartition) {
    testutil::Tftpd tftpd;
    const std::string firmware = e2e::randomBytes(1000000, 21);
    tftpd.addFile("fw.bin", firmware);
    Board board;

    const testutil::ProcessResult r = board.brivlo({tftpUrl(tftpd.port()), "fw.bin", "fpga"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    // One dot per 150 blocks.
    EXPECT_EQ(r.out, "Starting file download\n" + dots(13) + " 1000000 bytes transferred\n" +
                         e2e::partitionWriteOut("fpga", 1000000) + "\nBrivlo done\n");
    EXPECT_EQ(board.partition("fpga").substr(0, firmware.size()), firmware);
    EXPECT_FALSE(board.statusExists());
}

// Failed downloads end with 2, remove the status file and flash nothing.
TEST(Download, MissingFileAndSilentServerEndWithStatusTwo) {
    testutil::Tftpd tftpd;
    testutil::FakeTftpScript script;
    script.content = "never sent";
    script.silentFromBlock = 1;
    testutil::FakeTftpServer silent(script);
    const struct {
        uint16_t port;
        std::string err;
    } cases[] = {
        {tftpd.port(), "Request Error: object or item not found: (0x000b=NOTFOUND)\nTFTP download error\n"},
        {silent.port(), "Request Error: operation timed out: (0x000a=TIMEDOUT)\nTFTP download error\n"},
    };
    for (const auto& c : cases) {
        Board board;
        const testutil::ProcessResult r = board.brivlo({tftpUrl(c.port), "no-such-file.bin", "fpga"}, 30);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "Starting file download\n");
        EXPECT_EQ(r.err, c.err);
        EXPECT_FALSE(board.statusExists());
        EXPECT_TRUE(board.logLines("open fpga ").empty()) << "nothing is flashed after a failed download";
        if (c.port == silent.port()) {
            EXPECT_GE(r.seconds, 4.5) << "the abort timer allows 5 seconds without an answer";
        }
    }
}

TEST(Download, UnresolvableHostEndsTheProcessWith255AndKeepsPhaseOne) {
    Board board;
    board.writeStatus("status=2\ntotal=10\ncurrent=5");
    // In a network namespace of its own the resolver's query never leaves
    // this machine; with no name server reachable, .invalid cannot resolve.
    const testutil::ProcessResult r =
        testutil::runProcess({"/usr/bin/unshare", "--net", FLASHSIM_BIN, "run", board.dir(), "--", BRIVLO_BIN,
                              "tftp://brivlo-e2e.invalid:69", "fw.bin", "fpga"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("Error parsing server address: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    EXPECT_EQ(testutil::readFile(board.statusPath()), "status=1");
}

// 0: not started yet, or the phase writer's truncation caught in the act;
// 1: downloading, or writing the downloaded raw image.
TEST(Download, StatusQueriesDuringDownloadAndRawWriteAnswerOnlyZeroOrOne) {
    testutil::Tftpd tftpd;
    const std::string firmware = e2e::randomBytes(6 * 1024 * 1024, 31);
    tftpd.addFile("big.bin", firmware);
    Board board;

    auto upgrade = board.startBrivlo({tftpUrl(tftpd.port()), "big.bin", "rootfs"}, 120);
    std::multiset<int> answers;
    // Bounded: the upgrade has its own time limit, and so does every query.
    for (int polls = 0; polls < 100000 && upgrade->running(); ++polls) {
        const testutil::ProcessResult q = board.brivlo({"-S"}, 30);
        answers.insert(q.status);
        EXPECT_EQ(q.out + q.err, "");
    }
    ASSERT_EQ(upgrade->wait().status, 0);
    for (int answer : answers) {
        EXPECT_TRUE(answer == 0 || answer == 1) << "unexpected -S answer " << answer;
    }
    EXPECT_GT(answers.count(1), 0u) << "a multi-megabyte download was never seen in progress";
    EXPECT_EQ(board.partition("rootfs").substr(0, firmware.size()), firmware);
}

}  // namespace
