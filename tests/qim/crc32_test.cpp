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

// Every length class at odd alignments, on both computation paths: the byte
// tail, the 16-byte steps, the four-lane blocks and the carry-less folding's
// 64-byte minimum; each also split in two to check the running value.
TEST(Crc32, MatchesZlibOnBothPathsWholeAndSplit) {
    EXPECT_EQ(crc32_compute("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(crc32_update(CRC32_INIT, nullptr, 0), CRC32_INIT);
    const auto data = random_bytes(5000, 1);
    for (std::size_t len : {0u, 1u, 15u, 16u, 17u, 63u, 64u, 65u, 127u, 2047u, 2048u, 2049u, 4096u, 4500u}) {
        for (std::size_t align = 0; align < 4; ++align) {
            SCOPED_TRACE(testing::Message() << len << "@" << align);
            const unsigned char* p = data.data() + align;
            const auto expect = static_cast<uint32_t>(crc32(0L, p, static_cast<uInt>(len)));
            EXPECT_EQ(~crc32_update(CRC32_INIT, p, len), expect);
            EXPECT_EQ(~crc32_update_tables(CRC32_INIT, p, len), expect);
            EXPECT_EQ(~crc32_update(crc32_update(CRC32_INIT, p, len / 3), p + len / 3, len - len / 3), expect);
        }
    }
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
