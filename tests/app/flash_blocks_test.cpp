// The flash writers' two pure steps: the good-block walk that decides where
// each block of an image goes, and the read-back comparison.
#include "app/good_blocks.h"
#include "app/read_back.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct WalkCase {
    const char* name;
    uint32_t partitionBlocks;
    uint32_t imageBlocks;
    std::vector<uint32_t> bad;        // known before the walk
    std::vector<uint32_t> failAt;     // image blocks whose block then fails, in order
    bool fits;                        // false: place() runs out (before or after a failure)
    std::vector<uint32_t> where;      // where the image blocks end up
};
void PrintTo(const WalkCase& c, std::ostream* os) { *os << c.name; }

class GoodBlockWalk : public ::testing::TestWithParam<WalkCase> {};

TEST_P(GoodBlockWalk, PlacesTheImageOnGoodBlocksInOrder) {
    const WalkCase& c = GetParam();
    GoodBlocks blocks(c.partitionBlocks, c.imageBlocks);
    for (const uint32_t b : c.bad) blocks.setBad(b);
    bool fits = blocks.place(0);
    for (const uint32_t index : c.failAt) {
        if (!fits) break;
        blocks.setBad(blocks.where(index));
        fits = blocks.place(index);
    }
    EXPECT_EQ(fits, c.fits);
    if (!c.fits) return;
    std::vector<uint32_t> where;
    for (uint32_t i = 0; i < blocks.imageBlocks(); ++i) where.push_back(blocks.where(i));
    EXPECT_EQ(where, c.where);
    EXPECT_EQ(blocks.goodCount(), c.partitionBlocks - blocks.badCount());
}

const WalkCase kWalkCases[] = {
    {"NothingBad", 6, 4, {}, {}, true, {0, 1, 2, 3}},
    {"BadFirst", 6, 4, {0}, {}, true, {1, 2, 3, 4}},
    {"BadInside", 6, 4, {2}, {}, true, {0, 1, 3, 4}},
    {"BadAfterTheImage", 6, 4, {5}, {}, true, {0, 1, 2, 3}},
    {"FillsTheGoodBlocksExactly", 6, 4, {1, 4}, {}, true, {0, 2, 3, 5}},
    {"OneTooMany", 4, 4, {3}, {}, false, {}},
    {"MarkedTwiceCountsOnce", 6, 4, {2, 2}, {}, true, {0, 1, 3, 4}},
    {"FailureMovesTheRestOn", 6, 4, {}, {1}, true, {0, 2, 3, 4}},
    {"FailureSkipsAKnownBadBlock", 7, 4, {3}, {1}, true, {0, 2, 4, 5}},
    {"TwoFailuresOnTheSameImageBlock", 8, 3, {}, {1, 1}, true, {0, 3, 4}},
    {"FailureOfTheLastImageBlock", 5, 4, {}, {3}, true, {0, 1, 2, 4}},
    {"FailureWithNoGoodBlockLeft", 4, 4, {}, {2}, false, {}},
    {"EmptyImage", 3, 0, {0, 1, 2}, {}, true, {}},
};
INSTANTIATE_TEST_SUITE_P(Table, GoodBlockWalk, ::testing::ValuesIn(kWalkCases),
                         [](const ::testing::TestParamInfo<WalkCase>& i) { return std::string(i.param.name); });

struct CompareCase {
    const char* name;
    std::string flash;
    std::string image;
    uint32_t expected;  // read_back::kSame, or the first differing offset
};
void PrintTo(const CompareCase& c, std::ostream* os) { *os << c.name; }

class ReadBack : public ::testing::TestWithParam<CompareCase> {};

TEST_P(ReadBack, FindsTheFirstDifference) {
    const CompareCase& c = GetParam();
    EXPECT_EQ(read_back::firstDifference(reinterpret_cast<const uint8_t*>(c.flash.data()),
                                         static_cast<uint32_t>(c.flash.size()),
                                         reinterpret_cast<const uint8_t*>(c.image.data()),
                                         static_cast<uint32_t>(c.image.size())),
              c.expected);
}

const std::string kFF(5, '\xff');
const CompareCase kCompareCases[] = {
    {"Same", "abcdef", "abcdef", read_back::kSame},
    {"FirstByte", "xbcdef", "abcdef", 0},
    {"LastByte", "abcdex", "abcdef", 5},
    {"FirstOfTwo", "axcdxf", "abcdef", 1},
    {"PaddingErased", "abc" + kFF, "abc", read_back::kSame},
    {"PaddingWritten", std::string("abc\xff\xff\x00\xff\xff", 8), "abc", 5},
    {"ImageByteThatIsFFStillCompared", std::string("ab\x00", 3) + kFF, "ab\xff", 2},
    {"ImageLongerThanTheRangeLooked", "abc", "abcdef", read_back::kSame},
    {"NothingWritten", kFF, "", read_back::kSame},
    {"DroppedWrite", kFF + kFF, "abcdefghij", 0},
};
INSTANTIATE_TEST_SUITE_P(Table, ReadBack, ::testing::ValuesIn(kCompareCases),
                         [](const ::testing::TestParamInfo<CompareCase>& i) { return std::string(i.param.name); });

}  // namespace
