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

uint32_t zlib_crc(const unsigned char* p, std::size_t n) {
    return static_cast<uint32_t>(crc32(0L, p, static_cast<uInt>(n)));
}

TEST(Crc32, KnownAnswers) {
    EXPECT_EQ(crc32_compute("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(crc32_compute("", 0), 0u);
    EXPECT_EQ(crc32_update(CRC32_INIT, nullptr, 0), CRC32_INIT);
    EXPECT_EQ(crc32_table[0], 0u);
    EXPECT_EQ(crc32_table[1], 0x77073096u);
    EXPECT_EQ(crc32_table[255], 0x2D02EF8Du);
}

// Every length from 0 to past two lane blocks, at odd alignments, on both
// computation paths: the lengths cover the byte tail, the 16-byte steps, the
// four-lane blocks and the carry-less folding's 64-byte minimum.
TEST(Crc32, MatchesZlibOnBothPathsForManyLengthsAndAlignments) {
    const auto data = random_bytes(5000, 1);
    for (std::size_t len : {0u, 1u, 15u, 16u, 17u, 63u, 64u, 65u, 127u, 2047u, 2048u, 2049u,
                            4096u, 4111u, 4500u}) {
        for (std::size_t align = 0; align < 4; ++align) {
            const unsigned char* p = data.data() + align;
            const uint32_t expect = zlib_crc(p, len);
            EXPECT_EQ(~crc32_update(CRC32_INIT, p, len), expect) << len << "@" << align;
            EXPECT_EQ(~crc32_update_tables(CRC32_INIT, p, len), expect) << len << "@" << align;
        }
    }
}

TEST(Crc32, SplitComputationEqualsWhole) {
    const auto data = random_bytes(70000, 2);
    const uint32_t whole = zlib_crc(data.data(), data.size());
    for (std::size_t cut : {1u, 100u, 4096u, 33333u}) {
        uint32_t crc = crc32_update(CRC32_INIT, data.data(), cut);
        crc = crc32_update(crc, data.data() + cut, data.size() - cut);
        EXPECT_EQ(~crc, whole) << cut;
    }
}

TEST(Crc32, ReflectReversesTheLowBits) {
    EXPECT_EQ(crc_reflect(0x1, 32), 0x80000000u);
    EXPECT_EQ(crc_reflect(0x04C11DB7u, 32), CRC32_POLY_REFLECTED);
    EXPECT_EQ(crc_reflect(0xF0, 8), 0x0Fu);
    EXPECT_EQ(crc_reflect(0xF1, 8), 0x8Fu);
    EXPECT_EQ(crc_reflect(0x6, 3), 0x3u);
    EXPECT_EQ(crc_reflect(0xFF, 1), 1u);
    EXPECT_EQ(crc_reflect(0xFE, 0), 0u);
    EXPECT_EQ(crc_reflect(0x1, 40), 0x80000000u);
}

TEST(ByteSum, FoldKeepsTheCarry) {
    EXPECT_EQ(qim_byte_sum_fold(0xFFFFFFFFu), 0x1FFFEu);
    EXPECT_EQ(qim_byte_sum_fold(0x00012345u), 0x2346u);
    const unsigned char b[] = {0xff, 0xff, 0x01};
    EXPECT_EQ(qim_byte_sum_update(10, b, 3), 10u + 0xff + 0xff + 1);
}

TEST(ByteSum, InvariantUnderReordering) {
    auto data = random_bytes(10000, 3);
    const uint32_t before = qim_byte_sum_fold(qim_byte_sum_update(0, data.data(), data.size()));
    std::shuffle(data.begin(), data.end(), std::mt19937(4));
    EXPECT_EQ(qim_byte_sum_fold(qim_byte_sum_update(0, data.data(), data.size())), before);
}

}  // namespace
