#include "support/strings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(Strlcpy, CutsAndReportsTheSourceLength) {
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(zel_strlcpy(buf, "abcdef", sizeof buf), 6u);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(zel_strlcpy(buf, "abc", sizeof buf), 3u);  // exactly fills
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(zel_strlcpy(buf, "", sizeof buf), 0u);
    EXPECT_STREQ(buf, "");
}

TEST(Strlcpy, SizeZeroAndNullsWriteNothing) {
    char buf[2] = {'q', 0};
    EXPECT_EQ(zel_strlcpy(buf, "abc", 0), 3u);
    EXPECT_EQ(buf[0], 'q');
    EXPECT_EQ(zel_strlcpy(nullptr, "abc", 5), 3u);
    EXPECT_EQ(zel_strlcpy(buf, nullptr, sizeof buf), 0u);
    EXPECT_STREQ(buf, "");
}

TEST(Strlcat, AppendsWithinTheBuffer) {
    char buf[8] = "ab";
    EXPECT_EQ(zel_strlcat(buf, "cd", sizeof buf), 4u);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(zel_strlcat(buf, "efghij", sizeof buf), 10u);
    EXPECT_STREQ(buf, "abcdefg");
}

TEST(Strlcat, UnterminatedBufferIsLeftAlone) {
    char buf[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(zel_strlcat(buf, "xy", sizeof buf), 4u);
    EXPECT_EQ(std::memcmp(buf, "abcd", 4), 0);
    EXPECT_EQ(zel_strlcat(buf, "xy", 0), 0u);
}

TEST(Wcslcpy, CountsCharactersNotBytes) {
    wchar_t buf[4];
    EXPECT_EQ(zel_wcslcpy(buf, L"abcdef", 4), 6u);
    EXPECT_EQ(std::wstring(buf), L"abc");
    wchar_t cat[6] = L"ab";
    EXPECT_EQ(zel_wcslcat(cat, L"cdef", 6), 6u);
    EXPECT_EQ(std::wstring(cat), L"abcde");
}

TEST(Strcaseeq, NullsAndCase) {
    const char* same = "x";
    EXPECT_TRUE(zel_strcaseeq(nullptr, nullptr));
    EXPECT_TRUE(zel_strcaseeq(same, same));
    EXPECT_FALSE(zel_strcaseeq(nullptr, "a"));
    EXPECT_FALSE(zel_strcaseeq("a", nullptr));
    EXPECT_TRUE(zel_strcaseeq("DeBuG", "debug"));
    EXPECT_FALSE(zel_strcaseeq("debug", "debugx"));
    EXPECT_FALSE(zel_strcaseeq("debu", "debug"));
}

struct VersionCase {
    const char* name;
    const char* text;
    bool ok;
    unsigned major, minor, patch;
    const char* line;  // expected diagnostic after "strings.cpp:<n> - ", or ""
};

// The text after the "<file>:<line> - " lead of a diagnostic; "?" when the
// lead is malformed.
std::string diagnostic(const std::string& out) {
    const std::string lead = "strings.cpp:";
    if (out.compare(0, lead.size(), lead) != 0) return "?";
    std::size_t i = lead.size();
    const std::size_t digits = i;
    while (i < out.size() && out[i] >= '0' && out[i] <= '9') ++i;
    if (i == digits || out.compare(i, 3, " - ") != 0) return "?";
    return out.substr(i + 3);
}

class VersionParse : public ::testing::TestWithParam<VersionCase> {};

TEST_P(VersionParse, ResultAndDiagnostic) {
    const VersionCase& c = GetParam();
    zel_version v{7, 7, 7};
    ::testing::internal::CaptureStdout();
    const bool ok = zel_version_parse(c.text, &v);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, c.ok);
    if (c.ok) {
        EXPECT_EQ(out, "");
        EXPECT_EQ(v.major, c.major);
        EXPECT_EQ(v.minor, c.minor);
        EXPECT_EQ(v.patch, c.patch);
    } else {
        EXPECT_EQ(v.major, 7);
        EXPECT_EQ(v.minor, 7);
        EXPECT_EQ(v.patch, 7);
        EXPECT_EQ(diagnostic(out), c.line);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, VersionParse,
    ::testing::Values(
        VersionCase{"Typical", "4.2.65535", true, 4, 2, 65535, ""},
        VersionCase{"Extremes", "255.255.0", true, 255, 255, 0, ""},
        VersionCase{"TrailingTextIgnored", "1.2.3-rc1", true, 1, 2, 3, ""},
        VersionCase{"Null", nullptr, false, 0, 0, 0, "No buffer.\n"},
        VersionCase{"TwoNumbers", "1.2", false, 0, 0, 0, "sscanf(1.2) failed.\n"},
        VersionCase{"Letters", "a.b.c", false, 0, 0, 0, "sscanf(a.b.c) failed.\n"},
        VersionCase{"MajorTooLarge", "256.0.0", false, 0, 0, 0, "not 8-8-16 bits.\n"},
        VersionCase{"PatchTooLarge", "1.2.65536", false, 0, 0, 0, "not 8-8-16 bits.\n"},
        // %u would wrap these into small numbers; they must still be refused.
        VersionCase{"Negative", "-1.0.0", false, 0, 0, 0, "not 8-8-16 bits.\n"},
        VersionCase{"WrapsTo0", "4294967296.0.0", false, 0, 0, 0, "not 8-8-16 bits.\n"}),
    [](const ::testing::TestParamInfo<VersionCase>& i) { return std::string(i.param.name); });

struct CopyNameCase {
    const char* name;
    const char* src;
    unsigned flags;
    zel_error_t result;
    const char* expected;  // content of dst afterwards
};

const std::string k40(40, 'n');
const std::string k39(39, 'n');
const std::string k31(31, 'n');

class CopyName : public ::testing::TestWithParam<CopyNameCase> {};

TEST_P(CopyName, ResultAndField) {
    const CopyNameCase& c = GetParam();
    char dst[ZEL_LONG_NAME_SIZE + 8];
    std::memset(dst, 0, sizeof dst);
    std::strcpy(dst, "old");
    EXPECT_EQ(zel_copy_name(dst, c.src, c.flags), c.result);
    EXPECT_EQ(std::string(dst), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Flags, CopyName,
    ::testing::Values(
        CopyNameCase{"Plain", "eth0-name", 0, ZEL_SUCCESS, "eth0-name"},
        CopyNameCase{"NullSourceEmpties", nullptr, 0, ZEL_SUCCESS, ""},
        CopyNameCase{"EmptySourceEmpties", "", 0, ZEL_SUCCESS, ""},
        CopyNameCase{"DotRefused", "a.b", 0, ZEL_INVALIDDATA, "old"},
        CopyNameCase{"EqualsRefused", "a=b", 0, ZEL_INVALIDDATA, "old"},
        CopyNameCase{"AtRefusedAndCleared", "a@b", 2, ZEL_INVALIDDATA, ""},
        CopyNameCase{"NoCheckAcceptsDot", "a.b", 1, ZEL_SUCCESS, "a.b"},
        CopyNameCase{"LongAcceptsDot", "a.b", 8, ZEL_SUCCESS, "a.b"},
        CopyNameCase{"ThirtyOneFits", "1234567890123456789012345678901", 0, ZEL_SUCCESS,
                     "1234567890123456789012345678901"},
        CopyNameCase{"TooLongUntouched", k40.c_str(), 0, ZEL_TRUNCATED, "old"},
        CopyNameCase{"TooLongCleared", k40.c_str(), 2, ZEL_TRUNCATED, ""},
        CopyNameCase{"CutTo31", k40.c_str(), 4, ZEL_TRUNCATED, k31.c_str()},
        CopyNameCase{"CutKeptDespiteClear", k40.c_str(), 4 | 2, ZEL_TRUNCATED,
                     k31.c_str()},
        CopyNameCase{"LongCutTo39", k40.c_str(), 4 | 8, ZEL_TRUNCATED, k39.c_str()},
        CopyNameCase{"LongFits39", k39.c_str(), 8, ZEL_SUCCESS,
                     k39.c_str()}),
    [](const ::testing::TestParamInfo<CopyNameCase>& i) { return std::string(i.param.name); });

TEST(CopyNameNull, NullDestination) { EXPECT_EQ(zel_copy_name(nullptr, "a", 0), ZEL_INVALIDPARAMETER); }

}  // namespace
