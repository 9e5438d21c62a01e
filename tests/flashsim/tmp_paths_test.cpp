// Everything a program does in /tmp happens in the board's /tmp: any name,
// folders, temporary-file makers, unnamed files and links; a path whose way
// there only the kernel knows (a ".." component) is refused and logged.
#include "sim_board.h"

#include <gtest/gtest.h>

#include <utility>

using flashsimtest::Lines;
using flashsimtest::SimBoard;

namespace {

struct TmpCase {
    const char* name;
    Lines operations;
    Lines out;
    std::vector<std::pair<std::string, std::string>> files;  // in the board directory, with their content
    Lines refused;                                           // the log's "refuse " lines
};
void PrintTo(const TmpCase& c, std::ostream* os) { *os << c.name; }

class TmpPaths : public ::testing::TestWithParam<TmpCase> {};

TEST_P(TmpPaths, LandInTheBoardOrAreRefused) {
    const TmpCase& c = GetParam();
    SimBoard board;
    EXPECT_EQ(board.client(c.operations), c.out);
    for (const auto& file : c.files) {
        EXPECT_EQ(testutil::readFile(board.file(file.first)), file.second) << file.first;
    }
    EXPECT_EQ(board.logLines("refuse "), c.refused);
}

INSTANTIATE_TEST_SUITE_P(
    Table, TmpPaths,
    ::testing::Values(
        TmpCase{"AnyName", {"ofstream", "/tmp/notes.txt", "hello"}, {"ofstream 0"}, {{"tmp/notes.txt", "hello"}}, {}},
        TmpCase{"FoldersAndOtherSpellings",
                {"mkdir", "/tmp/sub", "ofstream", "//tmp/./sub//f", "x", "ifstream", "/tmp/sub/f"},
                {"mkdir 0", "ofstream 0", "ifstream 0 [x]"},
                {{"tmp/sub/f", "x"}},
                {}},
        TmpCase{"Mkstemp", {"mkstemp", "/tmp/brivlo.XXXXXX", "where"},
                {"mkstemp 0 /tmp/brivlo.######", "where 0 board"}, {}, {}},
        TmpCase{"Tmpfile", {"tmpfile", "where"}, {"tmpfile 0", "where 0 board"}, {}, {}},
        TmpCase{"UnnamedFileLinkedIn",
                {"otmpfile", "/tmp", "write", "5", "65", "linkfd", "/tmp/linked", "where"},
                {"otmpfile 0", "write 5", "linkfd 0", "where 0 board"},
                {{"tmp/linked", "AAAAA"}},
                {}},
        TmpCase{"HardAndSymbolicLinks",
                {"ofstream", "/tmp/a", "1", "link", "/tmp/a", "/tmp/b", "symlink", "a", "/tmp/c", "ifstream",
                 "/tmp/c", "link", "/dev/flash/kernel", "/tmp/k"},
                {"ofstream 0", "link 0", "symlink 0", "ifstream 0 [1]", "link -1 EPERM"},
                {{"tmp/b", "1"}},
                {}},
        TmpCase{"DotDotIsRefused",
                {"ofstream", "/tmp/../tmp/x", "y", "exists", "/etc/../tmp/flashit", "mkstemp", "/tmp/../sXXXXXX"},
                {"ofstream -1 EPERM", "exists 0", "mkstemp -1 EPERM /tmp/../sXXXXXX"},
                {},
                {"refuse tmp path=/tmp/../tmp/x result=-1 errno=EPERM",
                 "refuse tmp path=/etc/../tmp/flashit result=-1 errno=EPERM",
                 "refuse tmp path=/tmp/../sXXXXXX result=-1 errno=EPERM"}}),
    [](const ::testing::TestParamInfo<TmpCase>& i) { return std::string(i.param.name); });

// The folder that holds a board below /tmp is the test's own (its images sit
// beside the board): left as it is.
TEST(TmpPathsHost, FolderHoldingTheBoardIsLeftAlone) {
    SimBoard board;
    const std::string beside = board.scratch("beside.txt");
    EXPECT_EQ(board.client({"ofstream", beside, "host"}), (Lines{"ofstream 0"}));
    EXPECT_EQ(testutil::readFile(beside), "host");
}

}  // namespace
