// A package file that is replaced by name after it was validated never
// reaches flash: the flasher reads every part through the descriptor the
// package was validated through. brivlo is stopped (SIGSTOP) as soon as the
// board's log shows the package phase of the status file, which is written
// after the checksum pass and before the first part is read; the file's name
// is then given to other bytes, and brivlo continued.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <thread>

#include <unistd.h>

#include "common/tftpd.h"
#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::randomBytes;

enum class Change { kRenameOver, kLinkToOther, kRemove };

struct TamperCase {
    const char* name;
    bool download;  // fetched over TFTP into /tmp/flashit rather than local
    Change change;
};

void PrintTo(const TamperCase& c, std::ostream* os) { *os << c.name; }

// Same kinds and sizes, other bytes: the other package is valid too. The
// first part is large, so the stop comes long before the second is read.
PackageSpec threeParts(unsigned seed) {
    PackageSpec plan;
    plan.parts = {{"fpga", "1.0.0.0", randomBytes(2 << 20, seed)},
                  {"config", "1.0.0.0", randomBytes(1000, seed + 1)},
                  {"user", "1.0.0.0", randomBytes(300, seed + 2)}};
    return plan;
}
const char* const kPartitions[] = {"fpga", "config", "userarea"};

bool packagePhaseLogged(const Board& board) {
    for (const std::string& line : board.logLines("rename brivlo_status ")) {
        if (line.find(" content=status=2") != std::string::npos) return true;
    }
    return false;
}

class PackageTamper : public testing::TestWithParam<TamperCase> {};

TEST_P(PackageTamper, ReplacedFileNeverReachesFlash) {
    const TamperCase& c = GetParam();
    Board board;
    const PackageSpec plan = threeParts(70);
    const std::string built = e2e::buildPackage(board, plan);
    const std::string other = e2e::buildPackage(board, threeParts(80), "other.qim");

    std::string pkg = built;  // the name brivlo reads the package from
    std::vector<std::string> args = {"local", built, "qim"};
    std::unique_ptr<testutil::Tftpd> tftpd;
    if (c.download) {
        tftpd = std::make_unique<testutil::Tftpd>();
        tftpd->addFile("fw.qim", testutil::readFile(built));
        args = {"tftp://127.0.0.1:" + std::to_string(tftpd->port()), "fw.qim", "qim"};
        pkg = board.downloadPath();
    }

    auto run = board.startBrivlo(args, 120);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(100);
    while (!packagePhaseLogged(board) && run->running() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    run->kill(SIGSTOP);
    ASSERT_TRUE(packagePhaseLogged(board)) << "the package phase never came";
    ASSERT_TRUE(board.logLines("erase config ").empty()) << "brivlo ran past the first part before it was stopped";
    if (c.change == Change::kRenameOver) {
        ASSERT_EQ(std::rename(other.c_str(), pkg.c_str()), 0);
    } else {
        ASSERT_EQ(::unlink(pkg.c_str()), 0);
        if (c.change == Change::kLinkToOther) {
            ASSERT_EQ(::symlink(other.c_str(), pkg.c_str()), 0);
        }
    }
    run->kill(SIGCONT);
    const testutil::ProcessResult r = run->wait();

    EXPECT_EQ(r.status, 0) << r.err;
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(board.partition(kPartitions[i]).substr(0, plan.parts[i].data.size()) == plan.parts[i].data)
            << kPartitions[i] << " holds other bytes than the validated part";
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

const TamperCase kCases[] = {
    {"LocalRenamedOver", false, Change::kRenameOver},
    {"LocalReplacedByLink", false, Change::kLinkToOther},
    {"DownloadRenamedOver", true, Change::kRenameOver},
    {"DownloadRemoved", true, Change::kRemove},
};

INSTANTIATE_TEST_SUITE_P(E2e, PackageTamper, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<TamperCase>& info) { return info.param.name; });

}  // namespace
