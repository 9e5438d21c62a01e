#include "net/time.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <sys/time.h>

namespace {

bool same(const zel_utime& a, const zel_utime& b) { return a.sec == b.sec && a.usec == b.usec; }

std::string show(const zel_utime& t) { return "{" + std::to_string(t.sec) + ", " + std::to_string(t.usec) + "}"; }

struct ArithCase {
    const char* name;
    char op;  // 'n' normalise, '+' add, '-' sub
    zel_utime t, d, expected;
};

class UtimeArith : public ::testing::TestWithParam<ArithCase> {};

TEST_P(UtimeArith, Result) {
    const ArithCase& c = GetParam();
    zel_utime t = c.t;
    zel_error_t rc = ZEL_SUCCESS;
    if (c.op == 'n') rc = zel_utime_normalise(&t);
    if (c.op == '+') rc = zel_utime_add(&t, &c.d);
    if (c.op == '-') rc = zel_utime_sub(&t, &c.d);
    EXPECT_EQ(rc, ZEL_SUCCESS);
    EXPECT_TRUE(same(t, c.expected)) << show(t);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UtimeArith,
    ::testing::Values(ArithCase{"NormaliseCarries", 'n', {1, 2500000}, {}, {3, 500000}},
                      ArithCase{"NormaliseKeepsNegative", 'n', {1, -5}, {}, {1, -5}},
                      ArithCase{"NormaliseWrapsSeconds", 'n', {2147483647, 1000000}, {}, {-2147483647 - 1, 0}},
                      ArithCase{"AddCarries", '+', {0, 1}, {0, 999999}, {1, 0}},
                      ArithCase{"AddHugeMicroseconds", '+', {0, 2147483647}, {0, 2147483647}, {4294, 967294}},
                      ArithCase{"AddWraps", '+', {2147483647, 500000}, {0, 600000}, {-2147483647 - 1, 100000}},
                      ArithCase{"SubBorrows", '-', {5, 0}, {3, 999999}, {1, 1}},
                      ArithCase{"SubPlain", '-', {5, 700}, {2, 200}, {3, 500}},
                      ArithCase{"SubAcrossWrap", '-', {-2147483647 - 1, 0}, {2147483647, 0}, {1, 0}}),
    [](const ::testing::TestParamInfo<ArithCase>& i) { return std::string(i.param.name); });

TEST(UtimeBefore, OrderAndWrap) {
    const zel_utime a{-1, 0}, zero{0, 0}, max{2147483647, 0}, min{-2147483647 - 1, 0};
    EXPECT_TRUE(zel_utime_before(&a, &zero));
    EXPECT_FALSE(zel_utime_before(&zero, &a));
    EXPECT_TRUE(zel_utime_before(&max, &min));  // the counter wrapped
    EXPECT_FALSE(zel_utime_before(&min, &max));
    const zel_utime u1{7, 1}, u2{7, 2};
    EXPECT_TRUE(zel_utime_before(&u1, &u2));
    EXPECT_FALSE(zel_utime_before(&u2, &u1));
    EXPECT_FALSE(zel_utime_before(&u1, &u1));
    EXPECT_FALSE(zel_utime_before(nullptr, &u1));
}

TEST(UtimeClocks, MonotonicNeverGoesBack) {
    zel_utime a{}, b{};
    ASSERT_EQ(zel_utime_now(&a), ZEL_SUCCESS);
    ASSERT_EQ(zel_utime_now(&b), ZEL_SUCCESS);
    EXPECT_FALSE(zel_utime_before(&b, &a));
    EXPECT_GE(a.usec, 0);
    EXPECT_LE(a.usec, 999999);
    EXPECT_EQ(zel_utime_now(nullptr), ZEL_INVALIDPARAMETER);
    zel_utime w{};
    ASSERT_EQ(zel_utime_wallclock(&w), ZEL_SUCCESS);
    EXPECT_GT(w.sec, 1600000000);
}

TEST(UtimeSleep, ArgumentsAndShortSleeps) {
    const zel_utime zero{0, 0}, neg_usec{0, -1}, neg_sec{-1, 0}, short_sleep{0, 1000};
    EXPECT_EQ(zel_utime_sleep(&zero), ZEL_SUCCESS);
    EXPECT_EQ(zel_utime_sleep(&neg_usec), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_utime_sleep(&neg_sec), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_utime_sleep(nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_utime_sleep(&short_sleep), ZEL_SUCCESS);
}

void on_alarm(int) {}

TEST(UtimeSleep, SignalCutsTheSecondsShort) {
    struct sigaction sa, old;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_alarm;  // no SA_RESTART: the sleep must end early
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    itimerval timer{}, old_timer{};
    timer.it_value.tv_usec = 50000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, &old_timer), 0);
    const zel_utime long_sleep{30, 0};
    EXPECT_EQ(zel_utime_sleep(&long_sleep), ZEL_INTERRUPTED);
    setitimer(ITIMER_REAL, &old_timer, nullptr);
    sigaction(SIGALRM, &old, nullptr);
}

TEST(UtimeCtime, TextOfAGivenSecondAndOfNow) {
    char buf[ZEL_UTIME_CTIME_SIZE];
    const zel_utime t{0, 0};
    ASSERT_EQ(zel_utime_ctime(&t, buf), buf);
    EXPECT_EQ(std::strlen(buf), 25u);
    EXPECT_EQ(buf[24], '\n');
    const std::string year = std::string(buf).substr(20);
    EXPECT_TRUE(year == "1970\n" || year == "1969\n") << buf;  // depends on the local zone
    ASSERT_EQ(zel_utime_ctime(nullptr, buf), buf);
    EXPECT_EQ(std::strlen(buf), 25u);
    EXPECT_EQ(zel_utime_ctime(&t, nullptr), nullptr);
}

}  // namespace
