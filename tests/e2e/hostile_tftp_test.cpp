// tftp:// upgrades from hostile or broken TFTP peers: duplicate floods, blocks
// out of order, datagrams larger than the client takes, answers from another
// host, errors and silence in the middle of a transfer. The real brivlo runs
// on a flashsim board; each case checks the exit status, the exact output and
// that a failed download never reaches the flash.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <sstream>
#include <memory>
#include <string>
#include <vector>

#include "brivlo_board.h"
#include "common/fake_tftp_server.h"
#include "qim/byte_order.h"
#include "qim/crc32.h"
#include "qim/package.h"
#include "qim/package_builder.h"

namespace {

using e2e::Board;
using testutil::FakeTftpScript;
using testutil::TftpDatagram;
using testutil::TftpFrom;

const std::string kStart = "Starting file download\n";
const std::vector<std::string> kTimedOut = {"Request Error: operation timed out: (0x000a=TIMEDOUT)",
                                            "TFTP download error"};
const std::string kDataLog = "@Error zel_tftp_client_request__handle_data_message: ";
const std::string kErrorLog = "@Error zel_tftp_client_request__handle_error_message: ";

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Standard error line by line. An expected line that begins with "@" is a log
// record of the TFTP client: a 15-character local time stamp ("Nov 22
// 20:39:10"), a blank, then the rest of the expected line.
void expectErrLines(const std::string& err, const std::vector<std::string>& expected) {
    const std::vector<std::string> actual = lines(err);
    ASSERT_EQ(actual.size(), expected.size()) << err;
    EXPECT_TRUE(err.empty() || err.back() == '\n') << err;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (expected[i].empty() || expected[i][0] != '@') {
            EXPECT_EQ(actual[i], expected[i]);
            continue;
        }
        const std::string& a = actual[i];
        ASSERT_GT(a.size(), 16u) << a;
        EXPECT_TRUE(a[3] == ' ' && a[6] == ' ' && a[9] == ':' && a[12] == ':' && a[15] == ' ') << "time stamp: " << a;
        EXPECT_EQ(a.substr(16), expected[i].substr(1));
    }
}

std::string url(const testutil::FakeTftpServer& server) {
    return "tftp://127.0.0.1:" + std::to_string(server.port());
}

std::vector<TftpDatagram> copies(const TftpDatagram& d, int n) {
    return std::vector<TftpDatagram>(static_cast<std::size_t>(n), d);
}

// Standard output of a downloaded raw image of `size` bytes (under 150 blocks,
// so no progress dots) written into the 64 KiB-block partition `name`.
std::string rawSuccessOut(std::size_t size, const std::string& name) {
    const std::size_t blocks = (size + 65535) / 65536;
    const std::size_t chunks = size / 65536;
    return kStart + " " + std::to_string(size) + " bytes transferred\n" + "Erasing Flash (wait " +
           std::to_string(blocks * 65536 / 220000) + "s)\n" + e2e::dots(blocks + 1) + "\n" +
           "Writing file to flash partition '" + name + "'\n" + e2e::dots(chunks) + "\n" +
           "\nFlash write complete.\n\nBrivlo done\n";
}

// A failed download leaves the target partition as it was: the flashsim log
// has no erase and no write of it, and the run removed its status file.
void expectNothingFlashed(const Board& board, const std::string& partition) {
    EXPECT_TRUE(board.logLines("erase " + partition + " ").empty()) << "erased after a failed download";
    EXPECT_TRUE(board.logLines("write " + partition + " ").empty()) << "written after a failed download";
    EXPECT_FALSE(board.statusExists());
}

enum class Outcome { Flashed, TimedOut, ServerError };

// Every case serves kFile (below) and writes it into "fpga".
struct HostileCase {
    const char* name;
    std::function<void(FakeTftpScript&)> script;
    Outcome outcome;
    std::vector<std::string> err;  // standard error (see expectErrLines)
    // For TimedOut: what the partial /tmp/flashit holds (the client writes
    // every block it accepted, an oversized one whole up to 1468 bytes).
    std::string partial;
};

std::string block(const std::string& content, int k) { return content.substr((k - 1) * 512, 512); }

const std::string kFile = e2e::randomBytes(5 * 512 + 300, 7);  // blocks 1..5 full, 6 short
const std::string kBig(2000, 'X');                                // an oversized block's data

const std::vector<HostileCase> kHostileCases = {
    {"DuplicateFlood",
     [](FakeTftpScript& s) {
         // Every block arrives eight times; each copy is acknowledged, only
         // the first is written. Repeated ACKs are not answered, which keeps
         // the flood from growing.
         s.resendOnRepeat = false;
         for (int k = 1; k <= 6; ++k) s.instead[k] = copies(testutil::realBlock(), 8);
     },
     Outcome::Flashed, {}, ""},
    {"BlocksOutOfOrder",
     [](FakeTftpScript& s) {
         // Blocks 4 and 3 arrive before 2, and 6 before 5: dropped without an
         // ACK, the right block is taken when it comes.
         s.instead[2] = {testutil::packet(testutil::tftpData(4, block(kFile, 4))),
                         testutil::packet(testutil::tftpData(3, block(kFile, 3))), testutil::realBlock()};
         s.instead[5] = {testutil::packet(testutil::tftpData(6, "the end")), testutil::realBlock()};
     },
     Outcome::Flashed,
     {kDataLog + "ignoring data packet with invalid block 4 (current=1)",
      kDataLog + "ignoring data packet with invalid block 3 (current=1)",
      kDataLog + "ignoring data packet with invalid block 6 (current=4)"},
     ""},
    {"OnlyBlocksOutOfOrder",
     [](FakeTftpScript& s) {
         // Block 3 is never sent, only 4: the client keeps acknowledging 2
         // and gives up 5 seconds after the last new block.
         s.resendOnRepeat = false;
         s.instead[3] = {testutil::packet(testutil::tftpData(4, block(kFile, 4)))};
     },
     Outcome::TimedOut, std::vector<std::string>{kDataLog + "ignoring data packet with invalid block 4 (current=2)"} + kTimedOut,
     kFile.substr(0, 1024)},
    {"ForeignHostInterleaved",
     [](FakeTftpScript& s) {
         // A second host sends the next block with other data, and an ERROR,
         // before every real block: all of it is ignored.
         for (int k = 1; k <= 6; ++k) {
             s.instead[k] = {testutil::fromOtherHost(testutil::tftpData(static_cast<uint16_t>(k), kBig.substr(0, 512))),
                             testutil::fromOtherHost(testutil::tftpError(2, "go away")), testutil::realBlock()};
         }
     },
     Outcome::Flashed, {}, ""},
    {"AnswersOnlyFromAnotherHost",
     [](FakeTftpScript& s) {
         // The transfer comes from 127.0.0.2, which the client does not talk to.
         s.resendOnRepeat = false;
         s.instead[1] = {testutil::realBlock(TftpFrom::OtherHost)};
     },
     Outcome::TimedOut, kTimedOut, ""},
    {"OversizedLastBlock",
     [](FakeTftpScript& s) {
         // 2004 bytes instead of the short last block: the client takes the
         // first 1472 bytes as a full block (1468 data bytes) and waits for a
         // block 7 that never comes.
         s.instead[6] = {testutil::packet(testutil::tftpData(6, kBig))};
     },
     Outcome::TimedOut, kTimedOut, kFile.substr(0, 5 * 512) + kBig.substr(0, 1468)},
    {"SilentMidTransfer",
     [](FakeTftpScript& s) { s.silentFromBlock = 4; },
     Outcome::TimedOut, kTimedOut, kFile.substr(0, 3 * 512)},
    {"ErrorMidTransfer",
     [](FakeTftpScript& s) { s.instead[3] = {testutil::packet(testutil::tftpError(3, "disk full"))}; },
     Outcome::ServerError, {"Request Error: no buffers: (0x0025=NOBUFS)", "TFTP download error"}, ""},
    {"ShortErrorPacketIgnored",
     [](FakeTftpScript& s) {
         // Three bytes are no ERROR packet; the real block follows.
         s.instead[2] = {testutil::packet({0, 5, 0}), testutil::realBlock()};
     },
     Outcome::Flashed, {kErrorLog + "ignoring invalid error packet (only 3 bytes long)"}, ""},
};

class HostileTftp : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileTftp, RawImageEndsAsSpecifiedAndNeverFlashesAFailedDownload) {
    const HostileCase& c = GetParam();
    FakeTftpScript script;
    script.content = kFile;
    c.script(script);
    testutil::FakeTftpServer server(script);
    Board board;
    const std::string before = board.partition("fpga");

    const testutil::ProcessResult r = board.brivlo({url(server), "fw.bin", "fpga"}, 60);

    expectErrLines(r.err, c.err);
    switch (c.outcome) {
    case Outcome::Flashed:
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, rawSuccessOut(kFile.size(), "fpga"));
        EXPECT_EQ(testutil::readFile(board.downloadPath()), kFile) << "each block written exactly once";
        EXPECT_EQ(board.partition("fpga").substr(0, kFile.size()), kFile);
        EXPECT_FALSE(board.statusExists());
        break;
    case Outcome::TimedOut:
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, kStart);
        EXPECT_EQ(testutil::readFile(board.downloadPath()), c.partial);
        expectNothingFlashed(board, "fpga");
        break;
    case Outcome::ServerError:
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, kStart);
        expectNothingFlashed(board, "fpga");
        break;
    }
    if (c.outcome != Outcome::Flashed) {
        EXPECT_TRUE(board.partition("fpga") == before) << "the partition changed";
    }
}

INSTANTIATE_TEST_SUITE_P(Table, HostileTftp, ::testing::ValuesIn(kHostileCases),
                         [](const ::testing::TestParamInfo<HostileCase>& i) { return std::string(i.param.name); });

struct PackageDeleter {
    void operator()(qim_package* p) const { qim_package_free(p); }
};

// A valid version-3 package for this device (code 40, any model) with one
// fpga part (kind 2) of `data`.
std::string fpgaPackage(const Board& board, const std::string& data) {
    qim_package* raw = nullptr;
    EXPECT_EQ(qim_package_create(&raw), ZEL_SUCCESS);
    std::unique_ptr<qim_package, PackageDeleter> pkg(raw);
    EXPECT_EQ(qim_package_init_header(pkg.get(), 40, 0x04030000, &QIM_MFGC_ID_ANY), ZEL_SUCCESS);
    const std::string partFile = board.scratch("part.bin");
    testutil::writeFile(partFile, data);
    EXPECT_EQ(qim_package_add_part_file(pkg.get(), 2, 0x04030000, partFile.c_str(), nullptr), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_add_model(pkg.get(), &QIM_MODEL_ID_ANY), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &QIM_MODEL_ID_ANY, 0), ZEL_SUCCESS);
    const std::string out = board.scratch("fw.qim");
    FILE* f = std::fopen(out.c_str(), "w+b");
    EXPECT_NE(f, nullptr);
    EXPECT_EQ(qim_package_write(pkg.get(), f), ZEL_SUCCESS);
    std::fclose(f);
    return testutil::readFile(out);
}

// The file CRC the reader computes over a package image (its field zeroed).
uint32_t packageFileCrc(std::string image) {
    for (int i = 24; i < 28; ++i) image[i] = '\0';
    return crc32_compute(image.data(), image.size());
}

TEST(HostileTftpPackage, OversizedBlockIsCaughtByThePackageChecksum) {
    Board board;
    const std::string package = fpgaPackage(board, e2e::randomBytes(3000, 11));
    ASSERT_GT(package.size(), 1024u);
    FakeTftpScript script;
    script.content = package;
    // Block 2 carries 2000 bytes: the client keeps 1468 of them as one full
    // block, so the downloaded file is longer than the package and its CRC
    // no longer matches.
    script.instead[2] = {testutil::packet(testutil::tftpData(2, kBig))};
    testutil::FakeTftpServer server(script);

    const testutil::ProcessResult r = board.brivlo({url(server), "fw.qim", "qim"}, 60);

    const std::string received = package.substr(0, 512) + kBig.substr(0, 1468) + package.substr(1024);
    char line[128];
    std::snprintf(line, sizeof line, "error: bad checksum: calculated %x, expected %x\n", packageFileCrc(received),
                  qim_get_be32(reinterpret_cast<const uint8_t*>(package.data()) + 24));
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, kStart + " " + std::to_string(received.size()) + " bytes transferred\n");
    EXPECT_EQ(r.err, std::string(line) + "Failed to write QIM file. Exiting.\n");
    EXPECT_EQ(testutil::readFile(board.downloadPath()), received);
    EXPECT_TRUE(board.logLines("erase ").empty()) << "nothing is erased for a refused package";
    EXPECT_TRUE(board.logLines("write ").empty()) << "nothing is written for a refused package";
    EXPECT_FALSE(board.statusExists());
}

TEST(HostileTftpPackage, DuplicatedAndReorderedPackageIsWrittenWhole) {
    Board board;
    const std::string part = e2e::randomBytes(3000, 12);
    const std::string package = fpgaPackage(board, part);
    FakeTftpScript script;
    script.content = package;
    script.resendOnRepeat = false;
    script.instead[1] = copies(testutil::realBlock(), 5);
    script.instead[2] = {testutil::packet(testutil::tftpData(3, std::string(512, 'Z'))), testutil::realBlock(),
                         testutil::realBlock()};
    testutil::FakeTftpServer server(script);

    const testutil::ProcessResult r = board.brivlo({url(server), "fw.qim", "qim"}, 60);

    EXPECT_EQ(r.status, 0) << r.err;
    expectErrLines(r.err, {kDataLog + "ignoring data packet with invalid block 3 (current=1)"});
    EXPECT_EQ(testutil::readFile(board.downloadPath()), package);
    EXPECT_EQ(board.partition("fpga").substr(0, part.size()), part);
    EXPECT_FALSE(board.statusExists());
}

}  // namespace
