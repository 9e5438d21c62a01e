#include "support/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>

namespace {

std::string text(zel_error_t code) {
    char buf[ZEL_ERROR_TEXT_SIZE];
    return zel_error_text(code, buf);
}

TEST(ErrorText, SuccessHasItsOwnForm) { EXPECT_EQ(text(0), "success"); }

TEST(ErrorText, TableCodesShowMessageCodeAndName) {
    EXPECT_EQ(text(6), "out of memory: (0x0006=NOMEMORY)");
    EXPECT_EQ(text(10), "operation timed out: (0x000a=TIMEDOUT)");
    EXPECT_EQ(text(53), "data too long: (0x0035=DATATOOLONG)");
    EXPECT_EQ(text(1), "operation done: (0x0001=DONE)");
}

TEST(ErrorText, SystemReportsCurrentErrno) {
    ASSERT_EQ(open("/nonexistent/brivlo-test", O_RDONLY), -1);
    EXPECT_EQ(text(ZEL_SYSTEM), "System error: No such file or directory: (0x0002)");
    errno = EACCES;
    EXPECT_EQ(text(ZEL_SYSTEM), "System error: Permission denied: (0x000d)");
}

TEST(ErrorText, CodesOutsideTheTableGetAFixedMarker) {
    EXPECT_EQ(zel_error_name(54), nullptr);
    EXPECT_EQ(zel_error_message(54), nullptr);
    EXPECT_EQ(text(54), "unknown error: (0x0036=UNKNOWN)");
    EXPECT_EQ(text(0xFFFFFFFFu), "unknown error: (0xffffffff=UNKNOWN)");
}

TEST(ErrorNames, EveryCodeHasNameAndMessage) {
    for (zel_error_t c = 0; c <= 53; ++c) {
        ASSERT_NE(zel_error_name(c), nullptr) << c;
        ASSERT_NE(zel_error_message(c), nullptr) << c;
    }
    EXPECT_STREQ(zel_error_name(0), "SUCCESS");
    EXPECT_STREQ(zel_error_name(51), "BANDWIDTH_EXCEEDED");
    EXPECT_STREQ(zel_error_message(18), "access");
}

TEST(ErrorFromErrno, FirstRowWinsAndUnknownIsSystem) {
    EXPECT_EQ(zel_error_from_errno(0), 0u);
    EXPECT_EQ(zel_error_from_errno(EINVAL), 3u);
    EXPECT_EQ(zel_error_from_errno(EAGAIN), 10u);
    EXPECT_EQ(zel_error_from_errno(EEXIST), 22u);
    EXPECT_EQ(zel_error_from_errno(EPERM), 18u);
    EXPECT_EQ(zel_error_from_errno(ENAMETOOLONG), 53u);
    EXPECT_EQ(zel_error_from_errno(ENOTSOCK), 44u);
    EXPECT_EQ(zel_error_from_errno(EIO), 2u);
    EXPECT_EQ(zel_error_from_errno(-1), 2u);
}

}  // namespace
