// The process runner underlies every end-to-end test; a fault in it would
// hide faults in the product, so its contract is checked here.
#include "common/process.h"
#include "common/tempdir.h"

#include <gtest/gtest.h>

using testutil::runProcess;

TEST(ProcessRunner, CapturesStreamsStatusAndEnvironment) {
    const auto r = runProcess({"/bin/sh", "-c", "echo out; echo err >&2; echo \"$FOO\"; exit 7"},
                              {{"FOO=bar"}, "", "", 10});
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(r.out, "out\nbar\n");
    EXPECT_EQ(r.err, "err\n");
    EXPECT_FALSE(r.timedOut);
}

TEST(ProcessRunner, KillsAChildPastItsTimeLimit) {
    const auto r = runProcess({"/bin/sleep", "30"}, {{}, "", "", 0.3});
    EXPECT_TRUE(r.timedOut);
    EXPECT_EQ(r.status, 128 + 9);
}

TEST(ProcessRunner, FeedsStandardInput) {
    const auto r = runProcess({"/bin/cat"}, {{}, "", "abc", 10});
    EXPECT_EQ(r.out, "abc");
}

TEST(TempDir, IsRemovedWithItsContents) {
    std::string path;
    {
        testutil::TempDir dir;
        path = dir.path();
        testutil::writeFile(dir.file("a"), "x");
        EXPECT_EQ(testutil::readFile(dir.file("a")), "x");
    }
    EXPECT_FALSE(testutil::fileExists(path));
}
