#include "support/strings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

namespace {

struct BoundedCase {
    bool cat;            // zel_strlcat, else zel_strlcpy
    std::string before;  // the first bytes of the 8-byte buffer (the rest is 'x')
    const char* src;
    size_t size, result;
    std::string after;  // the first bytes of the buffer afterwards
};

TEST(BoundedCopy, CutsReportsTheFullLengthAndRespectsTheSize) {
    const BoundedCase cases[] = {
        {false, "", "abcdef", 4, 6, std::string("abc\0x", 5)},  // cut
        {false, "", "abc", 4, 3, std::string("abc\0", 4)},      // exactly fills
        {false, "", nullptr, 4, 0, std::string("\0", 1)},  // null source counts as empty
        {false, "q", "abc", 0, 3, "qx"},                   // size 0 writes nothing
        {true, std::string("ab\0", 3), "cd", 8, 4, std::string("abcd\0", 5)},
        {true, std::string("abcd\0", 5), "efghij", 8, 10, std::string("abcdefg\0", 8)},  // cut
        {true, "abcd", "xy", 4, 4, "abcdx"},  // no terminator within size: left alone
        {true, "abcd", "xy", 0, 0, "abcdx"},
    };
    for (const BoundedCase& c : cases) {
        char buf[8];
        std::memset(buf, 'x', sizeof buf);
        std::memcpy(buf, c.before.data(), c.before.size());
        const size_t got = c.cat ? zel_strlcat(buf, c.src, c.size) : zel_strlcpy(buf, c.src, c.size);
        EXPECT_EQ(got, c.result) << "case " << &c - cases;
        EXPECT_EQ(std::string(buf, c.after.size()), c.after) << "case " << &c - cases;
    }
    EXPECT_EQ(zel_strlcpy(nullptr, "abc", 5), 3u);
}

// No product path parses versions or copies names with these two: the cases
// their contract names, and one of each kind of refusal.
// A failure leaves the triple at 7.7.7 and prints one diagnostic line, given
// here without its "strings.cpp:<n> - " lead.
struct VersionCase {
    const char *name, *text;
    unsigned major, minor, patch;
    const char* line;
};
void PrintTo(const VersionCase& c, std::ostream* os) { *os << c.name; }

class VersionParse : public ::testing::TestWithParam<VersionCase> {};

TEST_P(VersionParse, ResultAndDiagnostic) {
    const VersionCase& c = GetParam();
    zel_version v{7, 7, 7};
    ::testing::internal::CaptureStdout();
    const bool ok = c.line[0] == '\0';
    EXPECT_EQ(zel_version_parse(c.text, &v), ok);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ((std::vector<unsigned>{v.major, v.minor, v.patch}), (std::vector<unsigned>{c.major, c.minor, c.patch}));
    if (ok) {
        EXPECT_EQ(out, "");
    } else {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(out, m, std::regex("strings\\.cpp:[0-9]+ - ([^\n]*\n)"))) << out;
        EXPECT_EQ(m[1].str(), c.line);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, VersionParse,
    ::testing::Values(
        VersionCase{"Typical", "4.2.65535", 4, 2, 65535, ""},
        VersionCase{"TwoNumbers", "1.2", 7, 7, 7, "sscanf(1.2) failed.\n"},
        VersionCase{"MajorTooLarge", "256.0.0", 7, 7, 7, "not 8-8-16 bits.\n"}),

    [](const ::testing::TestParamInfo<VersionCase>& i) { return std::string(i.param.name); });

struct CopyNameCase {
    const char* name;
    std::string src;  // "<null>" for a null source
    unsigned flags;
    zel_error_t result;
    std::string expected;  // content of dst afterwards
};
void PrintTo(const CopyNameCase& c, std::ostream* os) { *os << c.name; }

class CopyName : public ::testing::TestWithParam<CopyNameCase> {};

TEST_P(CopyName, ResultAndField) {
    const CopyNameCase& c = GetParam();
    char dst[ZEL_LONG_NAME_SIZE + 8] = "old";
    EXPECT_EQ(zel_copy_name(dst, c.src == "<null>" ? nullptr : c.src.c_str(), c.flags), c.result);
    EXPECT_EQ(std::string(dst), c.expected);
}

const std::string k40(40, 'n'), k39(39, 'n'), k31(31, 'n');

INSTANTIATE_TEST_SUITE_P(
    Flags, CopyName,
    ::testing::Values(CopyNameCase{"DotRefused", "a.b", 0, ZEL_INVALIDDATA, "old"},
                      CopyNameCase{"TooLongUntouched", k40, 0, ZEL_TRUNCATED, "old"},
                      CopyNameCase{"CutTo31", k40, 4, ZEL_TRUNCATED, k31},
                      CopyNameCase{"LongCutTo39", k40, 4 | 8, ZEL_TRUNCATED, k39}),
    [](const ::testing::TestParamInfo<CopyNameCase>& i) { return std::string(i.param.name); });

}  // namespace
