// The lock fallback of app/partition_lock against flashsim's kernels: which
// request is sent after which answer. The test binary runs itself on a
// private board as a child (`flashsim run DIR -- test_app` with
// BRIVLO_LOCK_CHILD set), unlocks and locks "license" again there, and
// prints what partition_lock answered; the board's log shows the requests.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "app/mtd_device.h"
#include "app/partition_lock.h"
#include "common/process.h"
#include "common/tempdir.h"

namespace {

constexpr const char* kChildVariable = "BRIVLO_LOCK_CHILD";

const char* requestsName(partition_lock::Requests r) {
    switch (r) {
    case partition_lock::Requests::kBoard: return "board";
    case partition_lock::Requests::kMainline: return "mainline";
    case partition_lock::Requests::kNone: return "none";
    }
    return "?";
}

// Ends the child; its line must reach the pipe first.
[[noreturn]] void endChild(int status) {
    std::fflush(stdout);
    std::_Exit(status);
}

// The child's whole run, before GoogleTest starts: one line of answers.
struct ChildOnBoard {
    ChildOnBoard() {
        const char* partition = std::getenv(kChildVariable);
        if (partition == nullptr) return;
        UniqueFd fd = mtd::openDevice(std::string("/dev/flash/") + partition);
        mtd_info_user info{};
        if (!fd.valid() || mtd::getInfo(fd.get(), &info) != ZEL_SUCCESS) {
            std::printf("no device\n");
            endChild(1);
        }
        partition_lock::Requests used = partition_lock::Requests::kBoard;
        if (!partition_lock::unlock(fd.get(), info.size, &used)) {
            std::printf("unlock failed\n");
            endChild(0);
        }
        const bool relocked = partition_lock::relock(fd.get(), info.size, used);
        std::printf("unlocked by %s, relock %s\n", requestsName(used), relocked ? "done" : "failed");
        endChild(0);
    }
} childOnBoard;

struct LockCase {
    const char* name;
    std::vector<std::string> init;  // flashsim init options
    std::string answer;             // the child's line
    std::vector<std::string> log;   // the board's log lines about lock requests
};
void PrintTo(const LockCase& c, std::ostream* os) { *os << c.name; }

std::string selfPath() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

std::vector<std::string> lockLog(const std::string& board) {
    std::vector<std::string> lines;
    std::istringstream in(testutil::readFile(board + "/log"));
    std::string line;
    while (std::getline(in, line)) {
        for (const char* op : {"lockctl ", "unlock ", "lock ", "ioctl "}) {
            if (line.rfind(op, 0) == 0) lines.push_back(line);
        }
    }
    return lines;
}

class PartitionLock : public ::testing::TestWithParam<LockCase> {};

TEST_P(PartitionLock, FallsBackOnlyWhereTheKernelSaysSo) {
    const LockCase& c = GetParam();
    testutil::TempDir temp("partition-lock");
    const std::string board = temp.file("board");
    std::vector<std::string> init = {FLASHSIM_BIN, "init", board, "--part", "license=64K", "--lock", "license"};
    init.insert(init.end(), c.init.begin(), c.init.end());
    ASSERT_EQ(testutil::runProcess(init).status, 0);

    testutil::ProcessOptions options;
    options.env = {std::string(kChildVariable) + "=license"};
    const testutil::ProcessResult r =
        testutil::runProcess({FLASHSIM_BIN, "run", board, "--", selfPath()}, options);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.answer + "\n");
    EXPECT_EQ(lockLog(board), c.log);
}

const std::string kCtlUnknown = "ioctl license request=0xc00c4d41 result=-1 errno=ENOTTY";
const std::string kUnlocked = "unlock license start=0 length=65536 result=0";

const LockCase kCases[] = {
    // The board's own kernel: exactly MEMLOCKCTL unlock and lock.
    {"BoardKernel", {}, "unlocked by board, relock done",
     {"lockctl license lock=0 start=0 length=65536 result=0", "lockctl license lock=1 start=0 length=65536 result=0"}},
    // Only ENOTTY leads to the mainline requests.
    {"BoardKernelUnlockFails", {"--fault", "license:unlock"}, "unlock failed",
     {"lockctl license lock=0 start=0 length=65536 result=-1 errno=EIO"}},
    {"BoardKernelLockFails", {"--fault", "license:lock"}, "unlocked by board, relock failed",
     {"lockctl license lock=0 start=0 length=65536 result=0",
      "lockctl license lock=1 start=0 length=65536 result=-1 errno=EIO"}},
    {"Mainline", {"--lock-requests", "mainline"}, "unlocked by mainline, relock done",
     {kCtlUnknown, kUnlocked, "lock license start=0 length=65536 result=0"}},
    {"MainlineUnlockFails", {"--lock-requests", "mainline", "--fault", "license:unlock"}, "unlock failed",
     {kCtlUnknown, "unlock license start=0 length=65536 result=-1 errno=EIO"}},
    {"MainlineLockFails", {"--lock-requests", "mainline", "--fault", "license:lock"},
     "unlocked by mainline, relock failed",
     {kCtlUnknown, kUnlocked, "lock license start=0 length=65536 result=-1 errno=EIO"}},
    // No locking in the driver: nothing to unlock, nothing sent to lock again.
    {"MainlineWithoutLocking", {"--lock-requests", "mainline-eopnotsupp"}, "unlocked by none, relock done",
     {kCtlUnknown, "unlock license start=0 length=65536 result=-1 errno=EOPNOTSUPP"}},
    {"MainlineLeaking524", {"--lock-requests", "mainline-enotsupp"}, "unlocked by none, relock done",
     {kCtlUnknown, "unlock license start=0 length=65536 result=-1 errno=ENOTSUPP"}},
};

INSTANTIATE_TEST_SUITE_P(Table, PartitionLock, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
