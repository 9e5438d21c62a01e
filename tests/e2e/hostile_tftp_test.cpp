// tftp:// upgrades from hostile or broken TFTP peers: a block that never
// comes, datagrams larger than the client takes, answers only from another
// host, errors and silence in the middle of a transfer (duplicates, blocks out
// of order and datagrams from another host mixed in are the client's scripted
// table in tests/net). Each case checks the exit status, the exact output,
// the downloaded file and that the failed download never reaches the flash.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "common/fake_tftp_server.h"
#include "package_fixture.h"

namespace {

using testutil::FakeTftpScript;
using testutil::TftpDatagram;

const std::string kStart = "Starting file download\n";
const std::string kTimedOut = "Request Error: operation timed out: (0x000a=TIMEDOUT)";
const std::string kDataLog = "@Error zel_tftp_client_request__handle_data_message: ";

// Standard error line by line. An expected line that begins with "@" is a log
// record of the TFTP client: a 15-character local time stamp ("Nov 22
// 20:39:10"), a blank, then the rest of the expected line.
void expectErrLines(const std::string& err, std::vector<std::string> expected) {
    std::istringstream in(err);
    std::string a;
    for (const std::string& e : expected) {
        ASSERT_TRUE(std::getline(in, a)) << "missing line " << e << " in " << err;
        if (e.empty() || e[0] != '@') {
            EXPECT_EQ(a, e);
            continue;
        }
        ASSERT_GT(a.size(), 16u) << a;
        EXPECT_TRUE(a[3] == ' ' && a[6] == ' ' && a[9] == ':' && a[12] == ':' && a[15] == ' ') << "time stamp: " << a;
        EXPECT_EQ(a.substr(16), e.substr(1));
    }
    EXPECT_FALSE(std::getline(in, a)) << "unexpected line " << a;
    EXPECT_TRUE(err.empty() || err.back() == '\n') << err;
}

std::string url(const testutil::FakeTftpServer& s) { return "tftp://127.0.0.1:" + std::to_string(s.port()); }

TftpDatagram dataPacket(int k, const std::string& data) {
    return testutil::packet(testutil::tftpData(static_cast<uint16_t>(k), data));
}

const std::string kFile = e2e::randomBytes(5 * 512 + 300, 7);  // blocks 1..5 full, 6 short
const std::string kBig(2000, 'X');                                // an oversized block's data
std::string block(int k) { return kFile.substr((k - 1) * 512, 512); }

struct HostileCase {
    const char* name;
    std::function<void(FakeTftpScript&)> script;
    std::vector<std::string> err;  // standard error (see expectErrLines)
    std::string partial;           // what /tmp/flashit holds after the failed download
};
void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

const std::vector<HostileCase> kHostileCases = {
    // Block 3 never comes, only 4: the client gives up 5 s after block 2.
    {"OnlyBlocksOutOfOrder",
     [](FakeTftpScript& s) {
         s.resendOnRepeat = false;
         s.instead[3] = {dataPacket(4, block(4))};
     },
     {kDataLog + "ignoring data packet with invalid block 4 (current=2)", kTimedOut, "TFTP download error"},
     kFile.substr(0, 1024)},
    // The transfer comes from 127.0.0.2, which the client does not talk to.
    {"AnswersOnlyFromAnotherHost",
     [](FakeTftpScript& s) {
         s.resendOnRepeat = false;
         s.instead[1] = {testutil::realBlock(testutil::TftpFrom::OtherHost)};
     },
     {kTimedOut, "TFTP download error"}, ""},
    // 2004 bytes instead of the short last block: the client takes 1468 data
    // bytes as a full block and waits for a block 7 that never comes.
    {"OversizedLastBlock", [](FakeTftpScript& s) { s.instead[6] = {dataPacket(6, kBig)}; },
     {kTimedOut, "TFTP download error"}, kFile.substr(0, 5 * 512) + kBig.substr(0, 1468)},
    {"SilentMidTransfer", [](FakeTftpScript& s) { s.silentFromBlock = 4; },
     {kTimedOut, "TFTP download error"}, kFile.substr(0, 3 * 512)},
    {"ErrorMidTransfer",
     [](FakeTftpScript& s) { s.instead[3] = {testutil::packet(testutil::tftpError(3, "disk full"))}; },
     {"Request Error: no buffers: (0x0025=NOBUFS)", "TFTP download error"}, kFile.substr(0, 1024)},
};

class HostileTftp : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileTftp, RawImageDownloadFailsAndNeverReachesTheFlash) {
    const HostileCase& c = GetParam();
    FakeTftpScript script;
    script.content = kFile;
    c.script(script);
    testutil::FakeTftpServer server(script);
    e2e::Board board;
    const std::string before = board.partition("fpga");

    const testutil::ProcessResult r = board.brivlo({url(server), "fw.bin", "fpga"}, 60);

    expectErrLines(r.err, c.err);
    EXPECT_FALSE(board.statusExists());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, kStart);
    EXPECT_EQ(testutil::readFile(board.downloadPath()), c.partial);
    EXPECT_TRUE(board.logLines("erase fpga ").empty()) << "erased after a failed download";
    EXPECT_TRUE(board.partition("fpga") == before) << "the partition changed";
}

INSTANTIATE_TEST_SUITE_P(Table, HostileTftp, ::testing::ValuesIn(kHostileCases),
                         [](const ::testing::TestParamInfo<HostileCase>& i) { return std::string(i.param.name); });

// Block 2 of a package carries 2000 bytes: the client keeps 1468 of them as
// one full block, the file grows past the package and its checksum catches it.
TEST(HostileTftpPackage, OversizedBlockIsCaughtByThePackageChecksum) {
    e2e::Board board;
    e2e::PackageSpec plan;
    plan.parts = {{"fpga", "1.0.0.0", e2e::randomBytes(3000, 11)}};
    const std::string package = testutil::readFile(e2e::buildPackage(board, plan));
    FakeTftpScript script;
    script.content = package;
    script.instead[2] = {dataPacket(2, kBig)};
    testutil::FakeTftpServer server(script);

    const testutil::ProcessResult r = board.brivlo({url(server), "fw.qim", "qim"}, 60);

    const std::string received = package.substr(0, 512) + kBig.substr(0, 1468) + package.substr(1024);
    EXPECT_EQ(testutil::readFile(board.downloadPath()), received);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, kStart + " " + std::to_string(received.size()) + " bytes transferred\n");
    // The reader's own line for that file, as qimtool shows it.
    std::string checksum = testutil::runProcess({QIMTOOL_BIN, "info", board.downloadPath()}).err;
    checksum.resize(checksum.find('\n') + 1);
    EXPECT_EQ(checksum.rfind("error: bad checksum: calculated ", 0), 0u) << checksum;
    EXPECT_EQ(r.err, checksum + e2e::kFailed);
    EXPECT_TRUE(board.logLines("erase ").empty()) << "nothing is erased for a refused package";
}

}  // namespace
