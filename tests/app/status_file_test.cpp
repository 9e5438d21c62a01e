#include "app/status_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include <sys/stat.h>

#include "common/tempdir.h"

namespace {

using status_file::Record;

// ---- The stoi-like conversion, including the damaged values it refuses.

struct DecimalCase {
    const char* name;
    const char* text;
    bool ok;
    int value;
};
void PrintTo(const DecimalCase& c, std::ostream* os) { *os << c.name; }

class ParseDecimal : public ::testing::TestWithParam<DecimalCase> {};

TEST_P(ParseDecimal, ReadsLikeStoiWithoutThrowing) {
    const DecimalCase& c = GetParam();
    int value = -77;
    EXPECT_EQ(status_file::parseDecimal(c.text, &value), c.ok);
    EXPECT_EQ(value, c.ok ? c.value : -77) << "refused input must leave the output alone";
}

const DecimalCase kDecimalCases[] = {
    {"Plain", "1234", true, 1234},
    {"Negative", "-15", true, -15},
    {"TrailingTextIgnored", "99abc", true, 99},
    {"Max", "2147483647", true, 2147483647},
    {"Min", "-2147483648", true, INT32_MIN},
    {"OneAboveMax", "2147483648", false, 0},
    {"OneBelowMin", "-2147483649", false, 0},
    {"Empty", "", false, 0},
    {"BlankBetweenSignAndDigit", "- 5", false, 0},
};

INSTANTIATE_TEST_SUITE_P(Table, ParseDecimal, ::testing::ValuesIn(kDecimalCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- The -S answer for every shape the program writes, plus damaged files.

struct QueryCase {
    const char* name;
    const char* content;
    int64_t answer;
};
void PrintTo(const QueryCase& c, std::ostream* os) { *os << c.name; }

class Query : public ::testing::TestWithParam<QueryCase> {};

TEST_P(Query, AnswersFromContent) {
    const QueryCase& c = GetParam();
    EXPECT_EQ(status_file::queryAnswer(status_file::parseRecord(c.content)), c.answer);
}

// The shapes the program writes are run end to end (tests/e2e); here the
// arithmetic and the line rules, damaged values among them.
const QueryCase kQueryCases[] = {
    // 50 * 100000000 does not fit in 32 bits.
    {"ProductNeeds64Bits", "status=2\ntotal=200000000\ncurrent=100000000", 225},
    {"TruncatesTowardZero", "status=2\ntotal=3\ncurrent=1", 216},
    {"NegativeCurrentTruncatesTowardZero", "status=2\ntotal=3\ncurrent=-1", 184},
    {"LaterLineWins", "status=1\nstatus=2\ntotal=10\ncurrent=5\ncurrent=10", 250},
    {"KeyMustStartLine", " status=1", 0},
    {"BlanksAndSignAfterEquals", "status= +2\ntotal=\t100\ncurrent=25xyz", 212},
    {"DamagedStatusKeepsEarlier", "status=1\nstatus=oops", 1},
    {"DamagedTotalAndCurrentKeepEarlier", "status=2\ntotal=1000\ncurrent=500\ntotal=x\ncurrent=?", 225},
    {"CurrentOutOfRange", "status=2\ntotal=1000\ncurrent=99999999999", 0},
};

INSTANTIATE_TEST_SUITE_P(Table, Query, ::testing::ValuesIn(kQueryCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(QueryExitStatus, KeepsTheLowEightBitsLikeExit) {
    EXPECT_EQ(status_file::answerToExitStatus(225), 225);
    EXPECT_EQ(status_file::answerToExitStatus(-1), 255);
    EXPECT_EQ(status_file::answerToExitStatus(256 + 3), 3);
    // 200 + 50 * INT32_MAX / 1 is far beyond an int.
    const Record huge{2, 1, INT32_MAX};
    EXPECT_EQ(status_file::queryAnswer(huge), 200 + int64_t{50} * INT32_MAX);
    EXPECT_EQ(status_file::answerToExitStatus(status_file::queryAnswer(huge)),
              static_cast<int>((200 + int64_t{50} * INT32_MAX) & 0xFF));
}

// ---- Writers on private files.

class StatusFileWriters : public ::testing::Test {
protected:
    testutil::TempDir dir;
    std::string status = dir.file("brivlo_status");
    std::string temp = dir.file("temp_brivlo_status");

    void replace(int current) { status_file::replaceCurrent(status.c_str(), temp.c_str(), current); }
};

// The rewrite of "current=" on files the program never writes itself. A file
// that already holds the result is left in place (same inode), so a raw
// image, whose status file has no "current=" line, does not churn /tmp once
// per erase block; any other content is replaced by rename.
TEST_F(StatusFileWriters, ReplaceCurrentOnUnusualFiles) {
    const struct {
        const char* before;  // nullptr: no file
        const char* after;
        bool kept;
    } cases[] = {
        {"status=2\ncurrent=1\ntotal=5\ncurrent=3", "status=2\ncurrent=9", false},  // lines after it are dropped
        {"status=1", "status=1\n", false},  // no such line: only a line feed
        {"status=1\n", "status=1\n", true},
        {"", "", true},
        {"status=2\ncurrent=9", "status=2\ncurrent=9", true},
        {"status=2\ncurrent=8", "status=2\ncurrent=9", false},
        {nullptr, "", false},
    };
    for (const auto& c : cases) {
        const std::string name = c.before ? c.before : "(none)";
        std::remove(status.c_str());
        struct stat before {};
        if (c.before) {
            testutil::writeFile(status, c.before);
            ASSERT_EQ(::stat(status.c_str(), &before), 0);
        }
        replace(9);
        EXPECT_EQ(testutil::readFile(status), c.after) << name;
        EXPECT_FALSE(testutil::fileExists(temp)) << "the temporary file is renamed, not copied";
        struct stat after {};
        ASSERT_EQ(::stat(status.c_str(), &after), 0) << name;
        EXPECT_EQ(after.st_ino == before.st_ino && c.before, c.kept) << name;
    }
}

}  // namespace
