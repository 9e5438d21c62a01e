// Helpers shared by the event-loop tests: a watchdog and an owned loop.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include "net/event_loop_internal.h"

namespace evtest {

// Every test that turns a loop runs under this fixture: a turn that never
// returns ends the whole test process (SIGALRM's default action) instead of
// hanging the suite; loops in the tests are bounded by iteration counts too.
class LoopTest : public ::testing::Test {
protected:
    zel_event_loop* loop = nullptr;

    void SetUp() override {
        alarm(30);
        ASSERT_EQ(zel_event_loop__create(&loop), ZEL_SUCCESS);
    }
    void TearDown() override {
        if (loop != nullptr) {
            EXPECT_EQ(zel_event_loop__destroy(loop), ZEL_SUCCESS);
        }
        alarm(0);
    }

    zel_utime now() const {
        zel_utime t{};
        EXPECT_EQ(zel_utime_now(&t), ZEL_SUCCESS);
        return t;
    }
    static zel_utime plus(zel_utime t, std::int32_t sec, std::int32_t usec = 0) {
        const zel_utime d{sec, usec};
        zel_utime_add(&t, &d);
        return t;
    }
    static zel_utime minus(zel_utime t, std::int32_t sec) {
        t.sec -= sec;
        return t;
    }
};

}  // namespace evtest
