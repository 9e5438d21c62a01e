#include "net/time.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct ArithCase {
    const char* name;
    char op;  // 'n' normalise, '+' add, '-' sub
    zel_utime t, d, expected;
};
void PrintTo(const ArithCase& c, std::ostream* os) { *os << c.name; }

class UtimeArith : public ::testing::TestWithParam<ArithCase> {};

TEST_P(UtimeArith, Result) {
    const ArithCase& c = GetParam();
    zel_utime t = c.t;
    EXPECT_EQ(c.op == 'n' ? zel_utime_normalise(&t) : c.op == '+' ? zel_utime_add(&t, &c.d) : zel_utime_sub(&t, &c.d),
              ZEL_SUCCESS);
    EXPECT_EQ(std::make_pair(t.sec, t.usec), std::make_pair(c.expected.sec, c.expected.usec));
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
    const zel_utime minus1{-1, 0}, zero{0, 0}, max{2147483647, 0}, min{-2147483647 - 1, 0}, u1{7, 1}, u2{7, 2};
    EXPECT_TRUE(zel_utime_before(&minus1, &zero) && !zel_utime_before(&zero, &minus1));
    EXPECT_TRUE(zel_utime_before(&max, &min) && !zel_utime_before(&min, &max));  // the counter wrapped
    EXPECT_TRUE(zel_utime_before(&u1, &u2) && !zel_utime_before(&u2, &u1));
    EXPECT_FALSE(zel_utime_before(&u1, &u1) || zel_utime_before(nullptr, &u1));
}

}  // namespace
