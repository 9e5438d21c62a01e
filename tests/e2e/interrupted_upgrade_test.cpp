// A board shared with a console that goes away, an operator who presses
// Ctrl-C, a supervisor that sends SIGTERM or SIGKILL, and a second upgrade
// started by mistake. flashsim's slow erase keeps brivlo inside a partition
// long enough for the test to act once the log shows the first erase.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "common/fake_tftp_server.h"
#include "package_fixture.h"

namespace {

using e2e::Board;

constexpr const char* kSlowErase = "500";      // ms per erased block
constexpr uint32_t kImageSize = 6 * 65536 - 1000;  // six blocks: 3 s of erasing
constexpr double kEventWait = 60.0;            // seconds; generous for a loaded machine

// Polls until `ready` holds; fails the test when it never does.
template <typename Ready>
bool waitFor(Ready ready, const char* what) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(kEventWait);
    while (std::chrono::steady_clock::now() < deadline) {
        if (ready()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ADD_FAILURE() << "never saw: " << what;
    return false;
}

bool firstErase(const Board& board, const std::string& partition) {
    return waitFor([&] { return !board.logLines("erase " + partition + " ").empty(); }, "the first erase");
}

std::string stoppedLine(int signal, const char* name) {
    return "main: Upgrade stopped by signal " + std::to_string(signal) + " (" + name + ")\n";
}

// ---- Signals and a lost console while a partition is being erased.

struct SignalCase {
    const char* name;
    const char* partition;
    int signal;        // 0: none
    bool closeOutput;  // the console goes away
    int status;
    std::string errTail;  // standard error ends with this
    std::vector<std::string> lockctl;
};
void PrintTo(const SignalCase& c, std::ostream* os) { *os << c.name; }

const std::string kUnlock = "lockctl license lock=0 start=0 length=524288 result=0";
const std::string kLock = "lockctl license lock=1 start=0 length=524288 result=0";

class SignalMidErase : public ::testing::TestWithParam<SignalCase> {};

TEST_P(SignalMidErase, PartitionIsCompletedByteExact) {
    const SignalCase& c = GetParam();
    Board board({"--part", "license=512K", "--part", "fpga=512K", "--fault",
                 std::string(c.partition) + ":slow-erase:" + kSlowErase});
    const std::string image = e2e::randomBytes(kImageSize, 7);
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, image);

    auto run = board.startBrivlo({"local", path, c.partition}, kEventWait);
    ASSERT_TRUE(firstErase(board, c.partition));
    if (c.closeOutput) run->closeOutput();
    if (c.signal != 0) run->kill(c.signal);
    const testutil::ProcessResult r = run->wait();

    EXPECT_EQ(r.status, c.status);
    EXPECT_FALSE(r.signaled) << "brivlo was killed by the signal";
    ASSERT_GE(r.err.size(), c.errTail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - c.errTail.size()), c.errTail);
    EXPECT_EQ(board.partition(c.partition).substr(0, image.size()), image);
    EXPECT_EQ(board.logLines("erase " + std::string(c.partition) + " ").size(), 6u);
    EXPECT_EQ(board.logLines("lockctl " + std::string(c.partition) + " "), c.lockctl);
    if (!c.lockctl.empty()) {
        EXPECT_EQ(board.lockedState(c.partition), "yes");
    }
    EXPECT_FALSE(board.statusExists());
}

const SignalCase kSignalCases[] = {
    {"Hangup", "fpga", SIGHUP, false, 0, "", {}},
    {"ConsoleClosed", "fpga", 0, true, 0, "", {}},
    {"HangupWithConsoleClosed", "license", SIGHUP, true, 0, "", {kUnlock, kLock}},
    {"TerminateLockedPartition", "license", SIGTERM, false, 143, stoppedLine(SIGTERM, "Terminated"),
     {kUnlock, kLock}},
    {"Interrupt", "fpga", SIGINT, false, 130, stoppedLine(SIGINT, "Interrupt"), {}},
};

INSTANTIATE_TEST_SUITE_P(Table, SignalMidErase, ::testing::ValuesIn(kSignalCases),
                         [](const auto& info) { return std::string(info.param.name); });

// SIGTERM while the download waits for a server that has stalled: the run
// ends at once (the stall would otherwise end it with status 2 after the
// client's 5 s abort time), nothing is erased, the status file goes.
TEST(SignalBeforeErase, TerminateDuringStalledDownload) {
    testutil::FakeTftpScript script;
    script.content = e2e::randomBytes(5000, 9);
    script.silentFromBlock = 3;
    testutil::FakeTftpServer server(script);
    Board board;

    auto run = board.startBrivlo({"tftp://127.0.0.1:" + std::to_string(server.port()), "fw.bin", "fpga"},
                                 kEventWait);
    // Block 2 acknowledged: brivlo now waits for a block 3 that never comes.
    ASSERT_TRUE(waitFor(
        [&] {
            const std::vector<uint16_t> acks = server.ackBlocks();
            return std::find(acks.begin(), acks.end(), 2) != acks.end();
        },
        "two blocks downloaded"));
    const auto killed = std::chrono::steady_clock::now();
    run->kill(SIGTERM);
    const testutil::ProcessResult r = run->wait();
    const double afterKill = std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count();

    EXPECT_EQ(r.status, 143);
    EXPECT_FALSE(r.signaled);
    EXPECT_EQ(r.err, stoppedLine(SIGTERM, "Terminated"));
    EXPECT_LT(afterKill, 4.0) << "waited for the download to time out";
    EXPECT_TRUE(board.logLines("open fpga ").empty());
    EXPECT_FALSE(board.statusExists());
}

// SIGINT while the first of two package parts is erased: that part is
// written whole, the second is never opened.
TEST(SignalMidPackage, InterruptDuringFirstPart) {
    Board board({"--part", "fpga=512K", "--fault", std::string("fpga:slow-erase:") + kSlowErase});
    e2e::PackageSpec plan;
    plan.parts = {{"fpga", "1.0.0.0", e2e::randomBytes(kImageSize, 11)},
                  {"config", "1.0.0.0", e2e::randomBytes(1000, 12)}};
    const std::string pkg = e2e::buildPackage(board, plan);

    auto run = board.startBrivlo({"local", pkg, "qim"}, kEventWait);
    ASSERT_TRUE(firstErase(board, "fpga"));
    run->kill(SIGINT);
    const testutil::ProcessResult r = run->wait();

    EXPECT_EQ(r.status, 130);
    EXPECT_FALSE(r.signaled);
    EXPECT_EQ(board.partition("fpga").substr(0, kImageSize), plan.parts[0].data);
    EXPECT_TRUE(board.logLines("open config ").empty()) << "the second part was started";
    EXPECT_EQ(r.out.find("QIM partition = config"), std::string::npos);
    EXPECT_FALSE(board.statusExists());
}

// ---- One upgrade at a time.

struct BusyCase {
    const char* name;
    std::vector<std::string> args;  // "IMAGE" stands for a valid image path
    int status;
    std::string err;  // exact, or the first line when `errFirstLineOnly`
    bool errFirstLineOnly;
};

const BusyCase kBusyCases[] = {
    {"SecondUpgrade", {"local", "IMAGE", "config"}, 22, "main: Error - another upgrade is already in progress\n",
     false},
    {"SecondDownload", {"tftp://127.0.0.1:9", "fw.bin", "config"}, 22,
     "main: Error - another upgrade is already in progress\n", false},
    {"UsageError", {"local", "IMAGE"}, 5, "Usage: \n", true},
    // The local raw upgrade's status file is empty: nothing to report.
    {"StatusQuery", {"-S"}, 0, "", false},
};

// While one slow upgrade runs, other commands on the same board touch neither
// flash, /tmp/flashit nor the status file; the first upgrade ends normally.
TEST(OneUpgradeAtATime, OthersWaitTheirTurn) {
    Board board({"--part", "fpga=1M", "--fault", std::string("fpga:slow-erase:") + kSlowErase});
    const std::string image = e2e::randomBytes(kImageSize, 13);
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, image);

    auto first = board.startBrivlo({"local", path, "fpga"}, kEventWait);
    ASSERT_TRUE(firstErase(board, "fpga"));
    ASSERT_TRUE(waitFor([&] { return board.statusExists(); }, "the status file"));
    const std::string status = testutil::readFile(board.statusPath());
    // Opens of anything but the partition being written, the first
    // upgrade's own reading of the capability record included.
    auto otherOpens = [&board] {
        std::vector<std::string> lines = board.logLines("open ");
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& l) { return l.rfind("open fpga ", 0) == 0; }),
                    lines.end());
        return lines;
    };
    const std::vector<std::string> opensBefore = otherOpens();
    for (const BusyCase& c : kBusyCases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> args = c.args;
        for (std::string& a : args) {
            if (a == "IMAGE") a = path;
        }
        const testutil::ProcessResult r = board.brivlo(args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(c.errFirstLineOnly ? r.err.substr(0, r.err.find('\n') + 1) : r.err, c.err);
        EXPECT_EQ(otherOpens(), opensBefore) << "a partition or the capability record was opened";
        EXPECT_FALSE(testutil::fileExists(board.downloadPath()));
        ASSERT_TRUE(board.statusExists());
        EXPECT_EQ(testutil::readFile(board.statusPath()), status);
    }
    EXPECT_TRUE(first->running()) << "the commands were not all run during the upgrade";
    const testutil::ProcessResult r = first->wait();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(board.partition("fpga").substr(0, image.size()), image);
    EXPECT_FALSE(board.statusExists());
}

// The kernel drops the lock of a killed upgrade: the next one runs.
TEST(OneUpgradeAtATime, KilledUpgradeDoesNotBlockTheNext) {
    Board board({"--part", "fpga=1M", "--fault", std::string("fpga:slow-erase:") + kSlowErase});
    const std::string path = board.scratch("image.bin");
    const std::string image = e2e::randomBytes(kImageSize, 14);
    testutil::writeFile(path, image);

    auto killed = board.startBrivlo({"local", path, "fpga"}, kEventWait);
    ASSERT_TRUE(firstErase(board, "fpga"));
    killed->kill(SIGKILL);
    EXPECT_TRUE(killed->wait().signaled);
    ASSERT_EQ(board.flashsim("fault", {"fpga", "clear"}).status, 0);

    const testutil::ProcessResult r = board.brivlo({"local", path, "fpga"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(board.partition("fpga").substr(0, image.size()), image);
}

}  // namespace
