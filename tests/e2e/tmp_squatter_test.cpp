// Files at brivlo's fixed names in the board's /tmp that brivlo did not make,
// and a board /tmp too small for the download. A FIFO or another user's file
// is never written through, never read as brivlo's own and never blocks it:
// names brivlo writes get a new file of its own, names it reads count as
// missing. A download that does not fit is a failed download.
//
// "Another user": the test runs as root and gives the file to nobody (65534),
// as a user of the board would own it; without root those rows are skipped.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "brivlo_board.h"
#include "common/tftpd.h"
#include "package_fixture.h"

namespace {

using e2e::Board;

constexpr uid_t kNobody = 65534;
// What the other user keeps writing into their file while brivlo runs.
const std::string kOwnerText = "status=2\ntotal=1000\ncurrent=500";

enum class Kind { kFifo, kForeignFile, kEmptyDirectory };
// What brivlo does in a row: a download of a raw image, or a status query.
enum class Run { kDownload, kQuery };

struct SquatCase {
    const char* name;
    Kind kind;
    const char* planted;  // fixed name in the board's /tmp
    Run run;
};

void PrintTo(const SquatCase& c, std::ostream* os) { *os << c.name; }

std::string tftpUrl(uint16_t port) { return "tftp://127.0.0.1:" + std::to_string(port); }

class Squatter : public testing::TestWithParam<SquatCase> {};

TEST_P(Squatter, NeverWrittenThroughReadOrWaitedOn) {
    const SquatCase& c = GetParam();
    if (c.kind == Kind::kForeignFile && geteuid() != 0) GTEST_SKIP() << "giving a file to another user needs root";
    Board board;
    const std::string path = board.dir() + "/tmp/" + c.planted;
    int ownerFd = -1;
    if (c.kind == Kind::kFifo) {
        ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
    } else if (c.kind == Kind::kEmptyDirectory) {
        ASSERT_EQ(::mkdir(path.c_str(), 0777), 0);
    } else {
        ownerFd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        ASSERT_GE(ownerFd, 0);
        ASSERT_EQ(::pwrite(ownerFd, kOwnerText.data(), kOwnerText.size(), 0), static_cast<ssize_t>(kOwnerText.size()));
        ASSERT_EQ(::fchown(ownerFd, kNobody, kNobody), 0);
    }

    if (c.run == Run::kQuery) {
        // A query that trusted the file would answer 225 (or hang on the FIFO).
        const testutil::ProcessResult r = board.brivlo({"-S"});
        EXPECT_EQ(r.status, 0);
    } else {
        testutil::Tftpd tftpd;
        const std::string firmware = e2e::randomBytes(300000, 31);
        tftpd.addFile("fw.bin", firmware);
        // The owner keeps writing into their file for as long as brivlo runs.
        std::atomic<bool> done{false};
        std::atomic<int> ownerWrites{0};
        std::thread owner([&] {
            while (ownerFd >= 0 && !done) {
                if (::pwrite(ownerFd, kOwnerText.data(), kOwnerText.size(), 0) > 0) ++ownerWrites;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        const testutil::ProcessResult r = board.brivlo({tftpUrl(tftpd.port()), "fw.bin", "fpga"});
        done = true;
        owner.join();
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_NE(r.out.find(" 300000 bytes transferred\n"), std::string::npos) << r.out;
        EXPECT_TRUE(board.partition("fpga").substr(0, firmware.size()) == firmware) << "flashed other bytes";
        EXPECT_TRUE(ownerFd < 0 || ownerWrites > 0);
    }

    if (ownerFd >= 0) {
        // Through the owner's own descriptor: only what they wrote is there.
        struct stat st {};
        ASSERT_EQ(::fstat(ownerFd, &st), 0);
        std::string content(static_cast<std::size_t>(st.st_size), '\0');
        ASSERT_EQ(::pread(ownerFd, &content[0], content.size(), 0), static_cast<ssize_t>(content.size()));
        EXPECT_EQ(content, kOwnerText) << "brivlo wrote into the other user's file";
        ::close(ownerFd);
    }
    // What stands at the name now: the planted file where brivlo only reads,
    // else nothing (the status files end removed) or a file of brivlo's own.
    struct stat st {};
    const bool present = ::lstat(path.c_str(), &st) == 0;
    if (c.run == Run::kQuery) {
        EXPECT_TRUE(present && (c.kind == Kind::kFifo ? S_ISFIFO(st.st_mode) : st.st_uid == kNobody));
    } else if (present) {
        EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == geteuid()) << "the planted file was not replaced";
    } else {
        EXPECT_TRUE(std::string(c.planted).find("status") != std::string::npos) << c.planted << " is missing";
    }
}

const SquatCase kSquatCases[] = {
    {"FifoAtStatusFileQuery", Kind::kFifo, "brivlo_status", Run::kQuery},
    {"FifoAtStatusFile", Kind::kFifo, "brivlo_status", Run::kDownload},
    {"FifoAtTempStatusFile", Kind::kFifo, "temp_brivlo_status", Run::kDownload},
    {"FifoAtDownloadFile", Kind::kFifo, "flashit", Run::kDownload},
    {"FifoAtCrcMarker", Kind::kFifo, "crc_ok", Run::kDownload},
    {"EmptyDirectoryAtDownloadFile", Kind::kEmptyDirectory, "flashit", Run::kDownload},
    {"ForeignStatusFileQuery", Kind::kForeignFile, "brivlo_status", Run::kQuery},
    {"ForeignStatusFile", Kind::kForeignFile, "brivlo_status", Run::kDownload},
    {"ForeignTempStatusFile", Kind::kForeignFile, "temp_brivlo_status", Run::kDownload},
    {"ForeignDownloadFile", Kind::kForeignFile, "flashit", Run::kDownload},
    {"ForeignCrcMarker", Kind::kForeignFile, "crc_ok", Run::kDownload},
};

INSTANTIATE_TEST_SUITE_P(Table, Squatter, testing::ValuesIn(kSquatCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Another user's status file is not where the flash writers continue their
// count from: a raw write counts from 0, as without a file.
TEST(SquatterStatus, ForeignRecordIsNoStartCount) {
    if (geteuid() != 0) GTEST_SKIP() << "giving a file to another user needs root";
    Board board;
    board.writeStatus("status=2\ntotal=900000000\ncurrent=5000");
    ASSERT_EQ(::chown(board.statusPath().c_str(), kNobody, kNobody), 0);
    const std::string image = board.scratch("image.bin");
    testutil::writeFile(image, e2e::randomBytes(1000, 5));
    const testutil::ProcessResult r = board.brivlo({"local", image, "config"});
    EXPECT_EQ(r.status, 0) << r.err;
    // Untrusted reads as missing: the first update replaces it with an empty
    // file of brivlo's own, which the second then leaves in place.
    EXPECT_EQ(e2e::statusHistory(board), (std::vector<std::string>{"", e2e::kRemoved}));
}

// A board /tmp of 128 KiB, as a small tmpfs: a download that does not fit is
// a failed download, and nothing is erased or written.
struct FullCase {
    const char* name;
    std::size_t size;  // bytes served
    const char* partition;
    bool fits;
};

void PrintTo(const FullCase& c, std::ostream* os) { *os << c.name; }

class SmallTmp : public testing::TestWithParam<FullCase> {};

TEST_P(SmallTmp, DownloadThatDoesNotFitFails) {
    const FullCase& c = GetParam();
    Board board({"--tmp-size", "128K"});
    testutil::Tftpd tftpd;
    std::string served = e2e::randomBytes(c.size, 41);
    const bool package = std::string(c.partition) == "qim";
    if (package) {
        e2e::PackageSpec plan;
        plan.parts = {{"fpga", "1.0.0.0", served}};
        served = testutil::readFile(e2e::buildPackage(board, plan));
    }
    const std::string name = package ? "fw.qim" : "fw.bin";
    tftpd.addFile(name, served);
    const testutil::ProcessResult r = board.brivlo({tftpUrl(tftpd.port()), name, c.partition});
    if (c.fits) {
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(board.partition(c.partition).substr(0, served.size()) == served);
        return;
    }
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "Error writing local file System error: No space left on device: (0x001c)\n"
                     "TFTP download error\n");
    EXPECT_TRUE(board.logLines("erase ").empty());
    EXPECT_TRUE(board.logLines("write ").empty());
    EXPECT_FALSE(board.statusExists());
}

const FullCase kFullCases[] = {
    {"RawImageLargerThanTmp", 200000, "fpga", false},
    {"PackageLargerThanTmp", 200000, "qim", false},
    {"RawImageThatFits", 100000, "fpga", true},
};

INSTANTIATE_TEST_SUITE_P(Table, SmallTmp, testing::ValuesIn(kFullCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
