#include "qim/byte_sum.h"
#include "qim/crc32.h"
#include "qim/crc32_paths.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

std::vector<unsigned char> random_bytes(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> b(n);
    for (auto& c : b) c = static_cast<unsigned char>(rng());
    return b;
}

struct Paths {
    uint32_t dispatch, portable, bytewise;
};

Paths all_paths(const unsigned char* p, std::size_t len) {
    return {~crc32_update(CRC32_INIT, p, len), ~crc32_update_portable(CRC32_INIT, p, len),
            ~crc32_update_bytewise(CRC32_INIT, p, len)};
}

void expect_all(const unsigned char* p, std::size_t len) {
    const auto expect = static_cast<uint32_t>(crc32(0L, p, static_cast<uInt>(len)));
    const Paths got = all_paths(p, len);
    EXPECT_EQ(got.dispatch, expect);
    EXPECT_EQ(got.portable, expect);
    EXPECT_EQ(got.bytewise, expect);
}

// Every short length at every offset from a 16-byte boundary, on every path:
// the braided path's alignment bytes, its two-block minimum and its tail, and
// the carry-less folding's 64-byte minimum.
TEST(Crc32, ShortBuffersMatchZlibOnEveryPath) {
    EXPECT_EQ(crc32_compute("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(crc32_update(CRC32_INIT, nullptr, 0), CRC32_INIT);
    alignas(16) static unsigned char data[16 + 64];
    const auto bytes = random_bytes(sizeof data, 1);
    std::copy(bytes.begin(), bytes.end(), data);
    for (std::size_t align = 0; align < 16; ++align) {
        for (std::size_t len = 0; len <= 64; ++len) {
            SCOPED_TRACE(testing::Message() << len << "@" << align);
            expect_all(data + align, len);
        }
    }
}

// Longer buffers at odd alignments, whole and split in two (the running value
// carries over), and one large random buffer cut at random points.
TEST(Crc32, LongBuffersMatchZlibWholeAndSplit) {
    const auto data = random_bytes(5000, 2);
    for (std::size_t len : {99u, 100u, 101u, 127u, 2047u, 2048u, 2049u, 4096u, 4500u}) {
        for (std::size_t align = 0; align < 4; ++align) {
            SCOPED_TRACE(testing::Message() << len << "@" << align);
            const unsigned char* p = data.data() + align;
            expect_all(p, len);
            const auto expect = static_cast<uint32_t>(crc32(0L, p, static_cast<uInt>(len)));
            EXPECT_EQ(~crc32_update(crc32_update(CRC32_INIT, p, len / 3), p + len / 3, len - len / 3), expect);
        }
    }

    const auto big = random_bytes((4u << 20) + 13, 3);
    const auto expect = static_cast<uint32_t>(crc32(0L, big.data() + 1, static_cast<uInt>(big.size() - 1)));
    expect_all(big.data() + 1, big.size() - 1);
    std::mt19937 rng(5);
    uint32_t running = CRC32_INIT;
    for (std::size_t at = 1; at < big.size();) {
        const std::size_t n = std::min<std::size_t>(rng() % 70000, big.size() - at);
        running = crc32_update_portable(running, big.data() + at, n);
        at += n;
    }
    EXPECT_EQ(~running, expect);
}

TEST(ByteSum, FoldKeepsTheCarryAndIgnoresOrder) {
    EXPECT_EQ(qim_byte_sum_fold(0xFFFFFFFFu), 0x1FFFEu);
    auto data = random_bytes(100000, 3);  // sums past 16 bits
    uint32_t plain = 0;
    for (unsigned char c : data) plain += c;
    const uint32_t before = qim_byte_sum_update(qim_byte_sum_update(0, data.data(), 999), data.data() + 999,
                                                data.size() - 999);  // a running sum, continued
    EXPECT_EQ(before, plain);
    std::shuffle(data.begin(), data.end(), std::mt19937(4));
    EXPECT_EQ(qim_byte_sum_fold(qim_byte_sum_update(0, data.data(), data.size())), qim_byte_sum_fold(before));
}

}  // namespace
