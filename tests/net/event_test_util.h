// Helpers shared by the event-loop tests: a watchdog, an owned loop and a
// firing log.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

#include "net/event_loop_internal.h"

namespace evtest {

// Every test that turns a loop runs under this fixture: a turn that never
// returns ends the whole test process (SIGALRM's default action) instead of
// hanging the suite; loops in the tests are bounded by iteration counts too.
class LoopTest : public ::testing::Test {
public:
    zel_event_loop* loop = nullptr;
    std::string log;  // names of the callbacks run, each followed by a blank

    void SetUp() override {
        alarm(30);
        ASSERT_EQ(zel_event_loop__create(&loop), ZEL_SUCCESS);
    }
    void TearDown() override {
        EXPECT_TRUE(loop == nullptr || zel_event_loop__destroy(loop) == ZEL_SUCCESS);
        alarm(0);
    }
};

}  // namespace evtest
