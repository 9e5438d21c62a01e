#include "app/image_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

// Each allocation hands out fresh zeroes (the raw path's buffer is zero-filled
// before the file is read into it), and a size that cannot be had leaves an
// empty buffer rather than a bogus pointer.
TEST(ImageBuffer, HoldsFreshZeroesOrNothing) {
    ImageBuffer buffer;
    EXPECT_EQ(buffer.data(), nullptr);
    for (std::size_t size : {std::size_t{1}, std::size_t{3 * 4096 + 5}}) {
        ASSERT_TRUE(buffer.allocate(size));
        ASSERT_EQ(buffer.size(), size);
        for (std::size_t i = 0; i < size; ++i) {
            ASSERT_EQ(buffer.data()[i], 0) << "byte " << i << " of " << size;
        }
        buffer.data()[size - 1] = 0xA5;
    }
    ASSERT_TRUE(buffer.allocate(0));
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_FALSE(buffer.allocate(std::numeric_limits<std::size_t>::max() - 4095));
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.data(), nullptr);
}

}  // namespace
