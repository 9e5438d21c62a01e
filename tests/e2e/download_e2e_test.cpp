// tftp:// upgrades: the real brivlo downloads from Debian's in.tftpd (or a
// scripted server for silence) into the board's /tmp/flashit and writes the
// file as a raw image.
#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

#include "brivlo_board.h"
#include "common/fake_tftp_server.h"
#include "common/tftpd.h"

namespace {

using e2e::Board;
using e2e::dots;

std::string tftpUrl(uint16_t port) {
    return "tftp://127.0.0.1:" + std::to_string(port);
}

TEST(Download, FileFromTftpdIsWrittenIntoTheRawPartition) {
    testutil::Tftpd tftpd;
    const std::string firmware = e2e::randomBytes(1000000, 21);
    tftpd.addFile("fw.bin", firmware);
    Board board;

    const testutil::ProcessResult r = board.brivlo({tftpUrl(tftpd.port()), "fw.bin", "fpga"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    // One dot per 150 blocks; 1000000 bytes fill 16 erase blocks, 15 whole chunks.
    EXPECT_EQ(r.out, "Starting file download\n" + dots(13) + " 1000000 bytes transferred\n" +
                         "Erasing Flash (wait 4s)\n" + dots(17) + "\n" +
                         "Writing file to flash partition 'fpga'\n" + dots(15) + "\n" +
                         "\nFlash write complete.\n\nBrivlo done\n");
    EXPECT_EQ(board.partition("fpga").substr(0, firmware.size()), firmware);
    EXPECT_EQ(testutil::readFile(board.downloadPath()), firmware) << "downloaded into /tmp/flashit";
    EXPECT_FALSE(board.statusExists());
}

TEST(Download, EmptyRemoteFileWritesAnEmptyImage) {
    testutil::Tftpd tftpd;
    tftpd.addFile("empty.bin", "");
    Board board;
    const testutil::ProcessResult r = board.brivlo({tftpUrl(tftpd.port()), "empty.bin", "config"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "Starting file download\n 0 bytes transferred\n"
                     "Erasing Flash (wait 0s)\n.\nWriting file to flash partition 'config'\n\n"
                     "\nFlash write complete.\n\nBrivlo done\n");
    EXPECT_EQ(testutil::readFile(board.downloadPath()), "");
    EXPECT_TRUE(board.logLines("erase config ").empty());
}

TEST(Download, MissingRemoteFileEndsWithStatusTwo) {
    testutil::Tftpd tftpd;
    Board board;
    const testutil::ProcessResult r = board.brivlo({tftpUrl(tftpd.port()), "no-such-file.bin", "fpga"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "Starting file download\n");
    EXPECT_EQ(r.err, "Request Error: object or item not found: (0x000b=NOTFOUND)\nTFTP download error\n");
    EXPECT_FALSE(board.statusExists());
    EXPECT_TRUE(board.logLines("open fpga ").empty()) << "nothing is flashed after a failed download";
}

TEST(Download, UnresolvableHostEndsTheProcessWith255AndKeepsPhaseOne) {
    Board board;
    board.writeStatus("status=2\ntotal=10\ncurrent=5");
    // The lookup runs in a network namespace of its own, so the resolver's
    // query never leaves this machine; with no name server reachable, the
    // .invalid name cannot resolve.
    const testutil::ProcessResult r =
        testutil::runProcess({"/usr/bin/unshare", "--net", FLASHSIM_BIN, "run", board.dir(), "--", BRIVLO_BIN,
                              "tftp://brivlo-e2e.invalid:69", "fw.bin", "fpga"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    const std::string prefix = "Error parsing server address: ";
    EXPECT_EQ(r.err.compare(0, prefix.size(), prefix), 0) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    ASSERT_TRUE(board.statusExists());
    EXPECT_EQ(testutil::readFile(board.statusPath()), "status=1");
}

TEST(Download, SilentServerTimesOutAfterAboutFiveSeconds) {
    testutil::FakeTftpScript script;
    script.content = "never sent";
    script.silentFromBlock = 1;
    testutil::FakeTftpServer server(script);
    Board board;

    const testutil::ProcessResult r = board.brivlo({tftpUrl(server.port()), "fw.bin", "fpga"}, 30);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "Starting file download\n");
    EXPECT_EQ(r.err, "Request Error: operation timed out: (0x000a=TIMEDOUT)\nTFTP download error\n");
    EXPECT_GE(r.seconds, 4.5) << "the abort timer allows 5 seconds without an answer";
    EXPECT_FALSE(server.readRequests().empty());
    EXPECT_FALSE(board.statusExists());
}

// Failures before any datagram is exchanged: the download reports and main
// ends with 2 after removing the status file.
struct EarlyFailureCase {
    const char* name;
    std::string url;
    std::string remoteName;
    bool flashitIsDirectory;
    std::string errPrefix;
};

class DownloadEarlyFailure : public ::testing::TestWithParam<EarlyFailureCase> {};

TEST_P(DownloadEarlyFailure, ReportsAndEndsWithStatusTwo) {
    const EarlyFailureCase& c = GetParam();
    Board board;
    if (c.flashitIsDirectory) {
        ASSERT_EQ(::mkdir(board.downloadPath().c_str(), 0755), 0);
    }
    const testutil::ProcessResult r = board.brivlo({c.url, c.remoteName, "fpga"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.compare(0, c.errPrefix.size(), c.errPrefix), 0) << r.err;
    const std::string tail = "\nTFTP download error\n";
    EXPECT_EQ(r.err.substr(r.err.find('\n')), tail) << r.err;
    EXPECT_FALSE(board.statusExists());
}

const EarlyFailureCase kEarlyFailures[] = {
    {"LocalFileCannotBeOpened", "tftp://127.0.0.1:9", "fw.bin", true, "Error opening local file "},
    {"EmptyRemoteName", "tftp://127.0.0.1:9", "", false,
     "Error initiating recv: invalid data: (0x0004=INVALIDDATA)"},
    {"ServerAddressZero", "tftp://0.0.0.0:9", "fw.bin", false,
     "Error initiating recv: invalid data: (0x0004=INVALIDDATA)"},
};

INSTANTIATE_TEST_SUITE_P(Table, DownloadEarlyFailure, ::testing::ValuesIn(kEarlyFailures),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
