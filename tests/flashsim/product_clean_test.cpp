// The product must stay unmodified: the simulator works from outside, so the
// built brivlo carries no trace of it (no hook, no variable, no path).
#include <gtest/gtest.h>

#include "common/tempdir.h"

#include <algorithm>
#include <string>

TEST(ProductClean, BrivloBinaryHasNoSimulatorNames) {
#ifndef BRIVLO_BIN
    GTEST_SKIP() << "brivlo is not built in this tree yet";
#else
    const std::vector<unsigned char> binary = testutil::readBytes(BRIVLO_BIN);
    ASSERT_GT(binary.size(), 1000u);
    for (const std::string needle : {"flashsim", "FLASHSIM", "FLASHSIM_BOARD", "flashsim_preload", "/flash/board"}) {
        EXPECT_EQ(std::search(binary.begin(), binary.end(), needle.begin(), needle.end()), binary.end())
            << "brivlo contains \"" << needle << "\"";
    }
#endif
}
