// The status file seen from outside while an upgrade runs: `brivlo -S`
// started again and again from another process, and the file's content
// sampled directly. Every observation must be one the status file rules
// allow; the rename-based updates mean no half-written file is ever seen.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "brivlo_board.h"
#include "common/tftpd.h"

namespace {

using e2e::Board;

// The file's content, or false when it does not exist (the run is over).
bool sample(const std::string& path, std::string* content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    content->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

TEST(StatusPoll, QueriesDuringDownloadAndRawWriteAnswerOnlyZeroOrOne) {
    testutil::Tftpd tftpd;
    const std::string firmware = e2e::randomBytes(6 * 1024 * 1024, 31);
    tftpd.addFile("big.bin", firmware);
    Board board;

    auto upgrade = board.startBrivlo({"tftp://127.0.0.1:" + std::to_string(tftpd.port()), "big.bin", "rootfs"}, 120);
    std::multiset<int> answers;
    // Bounded: the upgrade has its own time limit, and so does every query.
    for (int polls = 0; polls < 100000 && upgrade->running(); ++polls) {
        const testutil::ProcessResult q = board.brivlo({"-S"}, 30);
        answers.insert(q.status);
        EXPECT_EQ(q.out, "");
        EXPECT_EQ(q.err, "");
    }
    const testutil::ProcessResult r = upgrade->wait();
    ASSERT_EQ(r.status, 0) << r.err;

    // 0: not started yet, or the phase writer's truncation caught in the act;
    // 1: downloading, or writing the downloaded raw image.
    for (int answer : answers) {
        EXPECT_TRUE(answer == 0 || answer == 1) << "unexpected -S answer " << answer;
    }
    EXPECT_GT(answers.count(1), 0u) << "a multi-megabyte download was never seen in progress";
    EXPECT_EQ(board.brivlo({"-S"}).status, 0) << "the finished run removed the file";
    EXPECT_EQ(board.partition("rootfs").substr(0, firmware.size()), firmware);
}

// A local raw image that finds a package's record left in the status file
// continues its count from "current=" and rewrites only that line.
TEST(StatusPoll, RawWriteContinuesTheCountOfAnEarlierRecord) {
    Board board;
    const uint32_t erase = 65536;
    const uint32_t size = 12 * 1024 * 1024 + 100;  // 193 blocks, 192 whole chunks
    const uint32_t blocks = 193;
    const int start = 5000;
    const std::string header = "status=2\ntotal=900000000\ncurrent=";
    board.writeStatus(header + std::to_string(start));
    const std::string path = board.scratch("big.bin");
    testutil::writeFile(path, e2e::randomBytes(size, 32));

    // Every value the run may publish: the count before each erased block,
    // after chunks 1, 31, 61, ... and after the last write.
    std::set<std::string> allowed;
    for (uint32_t i = 0; i < blocks; ++i) {
        allowed.insert(header + std::to_string(start + i * erase));
    }
    const uint32_t erased = blocks * erase;
    for (uint32_t chunk = 0; chunk < size / erase; chunk += 30) {
        allowed.insert(header + std::to_string(start + erased + (chunk + 1) * erase));
    }
    allowed.insert(header + std::to_string(start + erased + size));

    auto upgrade = board.startBrivlo({"local", path, "rootfs"}, 120);
    std::vector<std::string> seen;
    std::string content;
    for (int polls = 0; polls < 10000000 && upgrade->running(); ++polls) {
        if (sample(board.statusPath(), &content) && (seen.empty() || seen.back() != content)) {
            seen.push_back(content);
        }
    }
    const testutil::ProcessResult r = upgrade->wait();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(board.statusExists());

    ASSERT_FALSE(seen.empty());
    std::size_t progressSamples = 0;
    for (const std::string& s : seen) {
        EXPECT_TRUE(allowed.count(s) == 1) << "not a value this run may publish: " << s;
        progressSamples += s != header + std::to_string(start) ? 1 : 0;
    }
    EXPECT_GT(progressSamples, 0u) << "no progress update observed during a 12 MiB write";
    // Values only grow.
    for (std::size_t i = 1; i < seen.size(); ++i) {
        const long long previous = std::stoll(seen[i - 1].substr(header.size()));
        const long long next = std::stoll(seen[i].substr(header.size()));
        EXPECT_LT(previous, next);
    }
}

}  // namespace
