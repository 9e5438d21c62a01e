#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <string>
#include <sys/mman.h>
#include <utility>
#include <vector>

#include "support/system.h"
#include "support/system_internal.h"

namespace {

constexpr std::size_t kGiB = std::size_t{1} << 30;

// A scripted kernel: each pread takes the next step (a byte count to deliver,
// or -errno; 0, the end of the file, when the script is used up). Delivered
// bytes are the low byte of their file offset, written for small requests only
// (the rows above 1 GiB read into memory nobody touches).
std::deque<long long> g_steps;
std::vector<std::pair<std::uint64_t, std::size_t>> g_requests;

ssize_t scripted_pread(int, void* buf, std::size_t count, off_t offset) {
    g_requests.emplace_back(static_cast<std::uint64_t>(offset), count);
    const long long step = g_steps.empty() ? 0 : g_steps.front();
    if (!g_steps.empty()) g_steps.pop_front();
    if (step < 0) {
        errno = static_cast<int>(-step);
        return -1;
    }
    const std::size_t given = std::min(static_cast<std::size_t>(step), count);
    if (count <= 4096) {
        for (std::size_t i = 0; i < given; ++i) {
            static_cast<unsigned char*>(buf)[i] = static_cast<unsigned char>(static_cast<std::uint64_t>(offset) + i);
        }
    }
    return static_cast<ssize_t>(given);
}

struct ReadCase {
    const char* name;
    std::uint64_t position;
    std::size_t length;
    std::deque<long long> steps;
    zel_error_t rc;
    std::size_t done;  // 7 (untouched) unless the read succeeded
    std::vector<std::pair<std::uint64_t, std::size_t>> requests;  // offset and count asked, in order
};
void PrintTo(const ReadCase& c, std::ostream* os) { *os << c.name; }

class ReadAt : public ::testing::TestWithParam<ReadCase> {
protected:
    const zel_read_system saved = zel_read_system_calls;
    void SetUp() override {
        g_requests.clear();
        zel_read_system_calls = {scripted_pread};
    }
    void TearDown() override { zel_read_system_calls = saved; }
};

TEST_P(ReadAt, CountRequestsAndBytes) {
    const ReadCase& c = GetParam();
    g_steps = c.steps;
    // Address space only: pages the script does not write are never touched.
    const std::size_t mapped = c.length + 1;
    void* map = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (map == MAP_FAILED) GTEST_SKIP() << "no address space for " << c.length << " bytes";
    auto* data = static_cast<unsigned char*>(map);
    std::size_t done = 7;
    errno = 0;
    const zel_error_t rc = zel_read_at(3, c.position, data, c.length, &done);
    const int err = errno;
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(done, c.done);
    if (c.rc == ZEL_SYSTEM) {
        EXPECT_EQ(err, EIO);
    }
    EXPECT_EQ(g_requests, c.requests);
    if (c.rc == ZEL_SUCCESS && c.length <= 4096) {
        for (std::size_t i = 0; i < done; ++i) {
            ASSERT_EQ(data[i], static_cast<unsigned char>(c.position + i)) << "byte " << i;
        }
    }
    munmap(map, mapped);
}

const std::uint64_t kTop = static_cast<std::uint64_t>(INT64_MAX);

INSTANTIATE_TEST_SUITE_P(
    Kernels, ReadAt,
    ::testing::Values(
        ReadCase{"WholeInOneRead", 100, 10, {10}, ZEL_SUCCESS, 10, {{100, 10}}},
        ReadCase{"SplitByTheKernel", 100, 10, {3, 4, 3}, ZEL_SUCCESS, 10, {{100, 10}, {103, 7}, {107, 3}}},
        ReadCase{"InterruptedReadIsRepeated", 5, 8, {-EINTR, 2, -EINTR, 6}, ZEL_SUCCESS, 8,
                 {{5, 8}, {5, 8}, {7, 6}, {7, 6}}},
        ReadCase{"FileEndsFirst", 0, 10, {4, 0}, ZEL_SUCCESS, 4, {{0, 10}, {4, 6}}},
        ReadCase{"PositionPastTheEnd", 1000, 10, {0}, ZEL_SUCCESS, 0, {{1000, 10}}},
        ReadCase{"FailureAfterSomeBytes", 0, 10, {4, -EIO}, ZEL_SYSTEM, 7, {{0, 10}, {4, 6}}},
        ReadCase{"NothingAsked", 0, 0, {}, ZEL_SUCCESS, 0, {}},
        ReadCase{"RangeBeyondTheLargestOffset", kTop - 4, 10, {}, ZEL_INVALIDPARAMETER, 7, {}},
        ReadCase{"EndsAtTheLargestOffset", kTop - 10, 10, {10}, ZEL_SUCCESS, 10, {{kTop - 10, 10}}},
        // No request asks for more than 1 GiB, however much is wanted.
        ReadCase{"LargeReadAsksAGibAtATime", 0, kGiB + 16, {static_cast<long long>(kGiB), 16}, ZEL_SUCCESS,
                 kGiB + 16, {{0, kGiB}, {kGiB, 16}}},
        ReadCase{"KernelShortOfAGib", 0, kGiB + 16, {100, static_cast<long long>(kGiB)}, ZEL_SUCCESS,
                 kGiB + 16, {{0, kGiB}, {100, kGiB - 84}}}),
    [](const ::testing::TestParamInfo<ReadCase>& i) { return std::string(i.param.name); });

TEST(ReadAtArguments, NullCountOrBufferIsRefused) {
    unsigned char byte = 0;
    std::size_t done = 7;
    EXPECT_EQ(zel_read_at(0, 0, &byte, 1, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_read_at(0, 0, nullptr, 1, &done), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(done, 7u);
}

}  // namespace
