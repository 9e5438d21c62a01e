// Symbolic links planted at brivlo's fixed names in the board's /tmp, each
// pointing at a victim file in the test's own directory: whatever brivlo
// does, it never writes, creates or reads through the link. A name brivlo
// writes gets a new file of brivlo's own in the link's place.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <memory>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "brivlo_board.h"
#include "common/fake_tftp_server.h"

namespace {

using e2e::Board;

// Placeholders in a case's arguments, replaced per test.
const char* const kImage = "@IMAGE";  // a 1000-byte file in the test's directory
const char* const kUrl = "@URL";      // tftp:// URL of a fake server serving 1000 bytes as "fw.bin"

// A valid status record: a query that followed the link would answer 225.
const std::string kVictimContent = "status=2\ntotal=1000\ncurrent=500";

// 1000 bytes into "config" (64 KiB erase blocks): one block, no whole chunk.
const std::string kRawOut = e2e::partitionWriteOut("config", 1000) + "\nBrivlo done\n";
const std::string kDownloadOut = "Starting file download\n 1000 bytes transferred\n" + kRawOut;

enum class Victim { Existing, Missing };
// Gone: replaced by a file, then removed with it; Replaced: a regular file
// of brivlo's stands at the name.
enum class LinkAfter { Kept, Gone, Replaced };

struct SymlinkCase {
    const char* name;
    const char* planted;  // fixed name in the board's /tmp
    Victim victim;
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
    LinkAfter link;
};

// Failures name the row, not its bytes.
void PrintTo(const SymlinkCase& c, std::ostream* os) { *os << c.name; }

timespec modificationTime(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mtim;
}

class PlantedLink : public ::testing::TestWithParam<SymlinkCase> {};

TEST_P(PlantedLink, IsNeverFollowed) {
    const SymlinkCase& c = GetParam();
    Board board;
    const std::string victim = board.scratch("victim");
    const std::string link = board.dir() + "/tmp/" + c.planted;
    if (c.victim == Victim::Existing) {
        testutil::writeFile(victim, kVictimContent);
        // A time far in the past: any write through the link would move it.
        const timespec past[2] = {{1000000000, 0}, {1000000000, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, victim.c_str(), past, 0), 0);
    }
    ASSERT_EQ(::symlink(victim.c_str(), link.c_str()), 0);

    testutil::writeFile(board.scratch("image.bin"), e2e::randomBytes(1000, 7));
    std::unique_ptr<testutil::FakeTftpServer> server;
    std::vector<std::string> args = c.args;
    for (std::string& arg : args) {
        if (arg == kImage) {
            arg = board.scratch("image.bin");
        } else if (arg == kUrl) {
            testutil::FakeTftpScript script;
            script.content = e2e::randomBytes(1000, 8);
            server = std::make_unique<testutil::FakeTftpServer>(script);
            arg = "tftp://127.0.0.1:" + std::to_string(server->port());
        }
    }

    const testutil::ProcessResult r = board.brivlo(args, 30);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);

    if (c.victim == Victim::Existing) {
        EXPECT_EQ(testutil::readFile(victim), kVictimContent);
        const timespec after = modificationTime(victim);
        EXPECT_EQ(after.tv_sec, 1000000000);
        EXPECT_EQ(after.tv_nsec, 0);
    } else {
        EXPECT_FALSE(testutil::fileExists(victim)) << "created through the link";
    }
    if (c.link == LinkAfter::Kept) {
        char target[4096] = {};
        ASSERT_GT(::readlink(link.c_str(), target, sizeof target - 1), 0) << "the link was moved or replaced";
        EXPECT_EQ(std::string(target), victim);
    } else if (c.link == LinkAfter::Gone) {
        EXPECT_FALSE(testutil::fileExists(link));
    } else {
        struct stat st {};
        ASSERT_EQ(::lstat(link.c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode)) << "not replaced by a file of brivlo's";
    }
}

const std::vector<std::string> kRaw = {"local", kImage, "config"};

const SymlinkCase kCases[] = {
    // The progress updates find no readable status file and rename a fresh
    // one over the link, which the end of the run removes.
    {"StatusFileDuringRawWrite", "brivlo_status", Victim::Existing, kRaw, 0, kRawOut, "", LinkAfter::Gone},
    // Each progress update removes the link and creates its own file there,
    // which the rename then moves over the status file.
    {"TempFileDuringRawWrite", "temp_brivlo_status", Victim::Existing, kRaw, 0, kRawOut, "", LinkAfter::Gone},
    // The download's phase writer and the raw write's updates.
    {"StatusFileDuringDownload", "brivlo_status", Victim::Existing, {kUrl, "fw.bin", "config"}, 0, kDownloadOut,
     "", LinkAfter::Gone},
    // The download replaces the link with its own file and goes on.
    {"DownloadFile", "flashit", Victim::Existing, {kUrl, "fw.bin", "config"}, 0, kDownloadOut, "",
     LinkAfter::Replaced},
    // The raw read of the download path does not flash the link's target.
    {"DownloadPathReadAsRawImage", "flashit", Victim::Existing, {"local", "/tmp/flashit", "config"}, 0,
     "\nBrivlo done\n", "Error reading from file /tmp/flashit\n", LinkAfter::Kept},
    // A linked status file counts as missing: no upgrade running.
    {"StatusQuery", "brivlo_status", Victim::Existing, {"-S"}, 0, "", "", LinkAfter::Kept},
    // The capability record still opens (no warning); the marker is a new
    // file in the link's place.
    {"CrcMarkerToMissingFile", "crc_ok", Victim::Missing, kRaw, 0, kRawOut, "", LinkAfter::Replaced},
    {"CrcMarkerToExistingFile", "crc_ok", Victim::Existing, kRaw, 0, kRawOut, "", LinkAfter::Replaced},
};

INSTANTIATE_TEST_SUITE_P(Table, PlantedLink, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
