// A package file that changes after it was validated never reaches flash.
// brivlo is stopped by ptrace at its n-th open of the package (1 header read,
// 2 checksum pass, 3 and on one per part written) or at the read after that
// open; the file is then rewritten, truncated, replaced or extended. The
// package ends with "Error reading from file" and 4, and no partition gets a
// byte of the changed file.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::SyscallEntry;
using e2e::randomBytes;

enum class Change { kRewrite, kTruncate, kRenameOver, kAppend, kSameBytesRenamedOver };

struct TamperCase {
    std::string name;
    int open;     // the package's open at which the file changes
    bool atRead;  // at the first read after that open rather than before it
    Change change;
    std::size_t written;  // parts written before the change is noticed
};

void PrintTo(const TamperCase& c, std::ostream* os) {
    *os << c.name;
}

// Same kinds and sizes, other bytes: `other` is a valid package of the same size.
PackageSpec threeParts(unsigned seed) {
    PackageSpec spec;
    spec.parts = {{"config", "1.0.0.0", randomBytes(1000, seed)},
                  {"boot", "1.0.0.0", randomBytes(70000, seed + 1)},
                  {"user", "1.0.0.0", randomBytes(300, seed + 2)}};
    return spec;
}
const char* const kPartitions[] = {"config", "boot", "userarea"};

void change(Change how, const std::string& pkg, const std::string& other) {
    if (how == Change::kTruncate) {
        ASSERT_EQ(truncate(pkg.c_str(), 40000), 0);
    } else if (how == Change::kRewrite || how == Change::kAppend) {
        // In place, same file: the rewrite keeps the size, the append adds 4 bytes.
        const std::string bytes = how == Change::kRewrite ? other : "tail";
        const int fd = ::open(pkg.c_str(), O_WRONLY | (how == Change::kAppend ? O_APPEND : 0));
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    } else {
        testutil::writeFile(pkg + ".new", how == Change::kRenameOver ? other : testutil::readFile(pkg));
        ASSERT_EQ(std::rename((pkg + ".new").c_str(), pkg.c_str()), 0);
    }
}

class PackageTamper : public testing::TestWithParam<TamperCase> {};

TEST_P(PackageTamper, ChangedFileNeverReachesFlash) {
    const TamperCase& c = GetParam();
    Board board;
    const PackageSpec spec = threeParts(70);
    const std::string pkg = e2e::buildPackage(board, spec);
    const std::string other = testutil::readFile(e2e::buildPackage(board, threeParts(80), "other.qim"));
    ASSERT_EQ(other.size(), testutil::readFile(pkg).size());
    // An hour back, so an in-place rewrite gives a new time even where the
    // file system keeps whole seconds.
    const timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, pkg.c_str(), times, 0), 0);
    const std::string report = e2e::report(pkg);

    int opens = 0;
    bool done = false;
    const e2e::TracedRun run = e2e::runTraced(board, {"local", pkg, "qim"}, false, [&](const SyscallEntry& e) {
        if (e.kind == SyscallEntry::Kind::kOpen && e.path == pkg) ++opens;
        const bool now = c.atRead ? e.kind == SyscallEntry::Kind::kRead && opens == c.open
                                  : e.kind == SyscallEntry::Kind::kOpen && e.path == pkg && opens == c.open;
        if (now && !done) {
            done = true;
            change(c.change, pkg, other);
        }
    });
    ASSERT_TRUE(done) << "the package was opened " << opens << " times";

    const std::size_t n = c.written;  // the part that found the file changed
    std::string out = report;
    for (std::size_t i = 0; i < n; ++i) out += e2e::partOutput(kPartitions[i], spec.parts[i].data.size());
    EXPECT_EQ(run.result.status, 4);
    EXPECT_EQ(run.result.out, out + "\nQIM partition = " + kPartitions[n] + "\n");
    EXPECT_EQ(run.result.err, "writeQimToFlashError reading from file\n" + std::string(e2e::kFailed));
    for (std::size_t i = 0; i < 3; ++i) {
        if (i < n) {
            EXPECT_TRUE(board.partition(kPartitions[i]).substr(0, spec.parts[i].data.size()) == spec.parts[i].data)
                << kPartitions[i] << " holds other bytes than the validated part";
        } else {
            EXPECT_TRUE(board.logLines(std::string("erase ") + kPartitions[i] + " ").empty()) << kPartitions[i];
            EXPECT_TRUE(board.logLines(std::string("write ") + kPartitions[i] + " ").empty()) << kPartitions[i];
        }
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
        TamperCase{"ReplacedWhileSecondPartIsRead", 4, true, Change::kRenameOver, 1}),
    [](const testing::TestParamInfo<TamperCase>& info) { return info.param.name; });

}  // namespace
