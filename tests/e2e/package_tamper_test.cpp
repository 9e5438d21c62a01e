// A package file that changes after it was validated never reaches flash.
// brivlo is stopped by ptrace at its n-th open of the package file (1 header
// read, 2 checksum pass, 3 and on one per part written; a download's own
// open of /tmp/flashit comes first) or at the read after that open; the file
// is then rewritten, truncated, replaced or extended. The package ends with
// "Error reading from file" and 4 (a link at /tmp/flashit that the reader
// meets ends the load with the reader's refusal instead), and no partition
// gets a byte of the changed file.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/tftpd.h"
#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::SyscallEntry;
using e2e::randomBytes;

enum class Change { kRewrite, kTruncate, kRenameOver, kAppend, kSameBytesRenamedOver, kLinkToSameBytes };

// Who notices the change: a part read (4, after the report), or the reader
// refusing a link at /tmp/flashit at its header read (6, silent) or at its
// checksum pass (6, "cannot reopen"), before any report.
enum class Refuser { kPartRead, kReaderOpen, kReaderReopen };

struct TamperCase {
    std::string name;
    int open;     // the package's open at which the file changes
    bool atRead;  // at the first read after that open rather than before it
    Change change;
    std::size_t written;  // parts written before the change is noticed
    bool download = false;  // fetched over TFTP into /tmp/flashit rather than local
    Refuser refuser = Refuser::kPartRead;
};

void PrintTo(const TamperCase& c, std::ostream* os) {
    *os << c.name;
}

// Same kinds and sizes, other bytes: `other` is a valid package of the same size.
PackageSpec threeParts(unsigned seed) {
    PackageSpec plan;
    plan.parts = {{"config", "1.0.0.0", randomBytes(1000, seed)},
                  {"boot", "1.0.0.0", randomBytes(70000, seed + 1)},
                  {"user", "1.0.0.0", randomBytes(300, seed + 2)}};
    return plan;
}
const char* const kPartitions[] = {"config", "boot", "userarea"};

// Changes the package file at `path`; `spare` is a free name on the same file system.
void change(Change how, const std::string& path, const std::string& spare, const std::string& other) {
    if (how == Change::kTruncate) {
        ASSERT_EQ(truncate(path.c_str(), 40000), 0);
    } else if (how == Change::kRewrite || how == Change::kAppend) {
        // In place, same file: the rewrite keeps the size, the append adds 4 bytes.
        const std::string bytes = how == Change::kRewrite ? other : "tail";
        const int fd = ::open(path.c_str(), O_WRONLY | (how == Change::kAppend ? O_APPEND : 0));
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    } else {
        testutil::writeFile(spare, how == Change::kRenameOver ? other : testutil::readFile(path));
        if (how == Change::kLinkToSameBytes) {
            ASSERT_EQ(unlink(path.c_str()) | symlink(spare.c_str(), path.c_str()), 0);
        } else {
            ASSERT_EQ(std::rename(spare.c_str(), path.c_str()), 0);
        }
    }
}

class PackageTamper : public testing::TestWithParam<TamperCase> {};

TEST_P(PackageTamper, ChangedFileNeverReachesFlash) {
    if (!e2e::canTrace()) GTEST_SKIP() << "tracing children is not available here (qemu-user)";
    const TamperCase& c = GetParam();
    Board board;
    const PackageSpec plan = threeParts(70);
    const std::string built = e2e::buildPackage(board, plan);
    const std::string bytes = testutil::readFile(built);
    const std::string other = testutil::readFile(e2e::buildPackage(board, threeParts(80), "other.qim"));
    ASSERT_EQ(other.size(), bytes.size());
    // An hour back, so an in-place rewrite gives a new time even where the
    // file system keeps whole seconds.
    const timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, built.c_str(), times, 0), 0);
    const std::string report = e2e::report(built);  // of the file as it was validated
    std::string head;  // what comes before the report

    std::string pkg = built;  // the file brivlo reads the package from
    std::vector<std::string> args = {"local", built, "qim"};
    std::unique_ptr<testutil::Tftpd> tftpd;
    if (c.download) {
        tftpd = std::make_unique<testutil::Tftpd>();
        tftpd->addFile("fw.qim", bytes);
        args = {"tftp://127.0.0.1:" + std::to_string(tftpd->port()), "fw.qim", "qim"};
        pkg = board.downloadPath();
        head = "Starting file download\n " + std::to_string(bytes.size()) + " bytes transferred\n";
    }

    int opens = 0;
    bool done = false;
    const e2e::TracedRun run = e2e::runTraced(board, args, false, [&](const SyscallEntry& e) {
        if (e.kind == SyscallEntry::Kind::kOpen && e.path == pkg) ++opens;
        const bool now = c.atRead ? e.kind == SyscallEntry::Kind::kRead && opens == c.open
                                  : e.kind == SyscallEntry::Kind::kOpen && e.path == pkg && opens == c.open;
        if (now && !done) {
            done = true;
            change(c.change, pkg, built + ".spare", other);
        }
    });
    ASSERT_TRUE(done) << "the package was opened " << opens << " times";

    const std::size_t n = c.written;  // the part that found the file changed
    if (c.refuser == Refuser::kPartRead) {
        std::string out = head + report;
        for (std::size_t i = 0; i < n; ++i) out += e2e::partOutput(kPartitions[i], plan.parts[i].data.size());
        EXPECT_EQ(run.result.status, 4);
        EXPECT_EQ(run.result.out, out + "\nQIM partition = " + kPartitions[n] + "\n");
        EXPECT_EQ(run.result.err, "writeQimToFlashError reading from file\n" + std::string(e2e::kFailed));
    } else {
        const std::string reader = c.refuser == Refuser::kReaderReopen
                                       ? "error: cannot reopen /tmp/flashit: " + std::string(std::strerror(ELOOP)) + "\n"
                                       : "";
        EXPECT_EQ(run.result.status, 6);
        EXPECT_EQ(run.result.out, head);
        EXPECT_EQ(run.result.err, reader + e2e::kFailed);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        if (i < n) {
            EXPECT_TRUE(board.partition(kPartitions[i]).substr(0, plan.parts[i].data.size()) == plan.parts[i].data)
                << kPartitions[i] << " holds other bytes than the validated part";
        } else {
            EXPECT_TRUE(board.logLines(std::string("erase ") + kPartitions[i] + " ").empty()) << kPartitions[i];
            EXPECT_TRUE(board.logLines(std::string("write ") + kPartitions[i] + " ").empty()) << kPartitions[i];
        }
    }
}

// An operator's local path is followed as given, by the reader and the part
// reads alike (a raw image's too): a package named through a link is flashed.
TEST(PackageLink, LocalPackageNamedThroughALinkIsFlashed) {
    Board board;
    const PackageSpec plan = threeParts(90);
    const std::string link = board.scratch("latest.qim");
    ASSERT_EQ(symlink(e2e::buildPackage(board, plan).c_str(), link.c_str()), 0);
    const testutil::ProcessResult r = board.brivlo({"local", link, "qim"});
    EXPECT_EQ(r.status, 0) << r.err;
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(board.partition(kPartitions[i]).substr(0, plan.parts[i].data.size()) == plan.parts[i].data)
            << kPartitions[i];
    }
}

INSTANTIATE_TEST_SUITE_P(
    E2e, PackageTamper,
    testing::Values(
        // Validated bytes, but not one state of one file: no part is trusted.
        TamperCase{"SameBytesRenamedOverDuringValidation", 2, false, Change::kSameBytesRenamedOver, 0},
        TamperCase{"RewrittenBeforeFirstPart", 3, false, Change::kRewrite, 0},
        TamperCase{"TruncatedBeforeFirstPart", 3, false, Change::kTruncate, 0},
        TamperCase{"ReplacedBeforeSecondPart", 4, false, Change::kRenameOver, 1},
        TamperCase{"AppendedBeforeSecondPart", 4, false, Change::kAppend, 1},
        TamperCase{"RewrittenWhileSecondPartIsRead", 4, true, Change::kRewrite, 1},
        // The open descriptor still reads the validated bytes, but the rename
        // unlinked that file, which changes its status-change time.
        TamperCase{"ReplacedWhileSecondPartIsRead", 4, true, Change::kRenameOver, 1},
        // Neither the reader nor the part reads follow a link at
        // /tmp/flashit: there it can only have been planted. Open 1 is the
        // download's own, 2 the reader's header read, 3 its checksum pass.
        TamperCase{"DownloadReplacedByLinkBeforeValidation", 2, false, Change::kLinkToSameBytes, 0, true,
                   Refuser::kReaderOpen},
        TamperCase{"DownloadReplacedByLinkBeforeChecksumPass", 3, false, Change::kLinkToSameBytes, 0, true,
                   Refuser::kReaderReopen}),
    [](const testing::TestParamInfo<TamperCase>& info) { return info.param.name; });

}  // namespace
