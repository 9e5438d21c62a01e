// The rules for files whose content decides what is flashed (nobody but root
// and this process's user may have written them) and the moving aside of what
// cannot be removed at a fixed name. Rows with another owner need root.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/tempdir.h"
#include "support/tmp_file.h"

namespace {

constexpr uid_t kNobody = 65534;

enum class Shape { kFile, kDirectory };

struct GuardCase {
    const char* name;
    Shape shape;
    mode_t mode;
    bool foreign;       // owned by nobody (root only)
    const char* why;    // null: trusted
};
void PrintTo(const GuardCase& c, std::ostream* os) { *os << c.name; }

class Guard : public ::testing::TestWithParam<GuardCase> {};

TEST_P(Guard, OnlyFilesNobodyElseCanWrite) {
    const GuardCase& c = GetParam();
    if (c.foreign && ::geteuid() != 0) GTEST_SKIP() << "giving a file to another user needs root";
    testutil::TempDir dir;
    const std::string path = dir.file("f");
    if (c.shape == Shape::kDirectory) {
        ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    } else {
        testutil::writeFile(path, "key");
    }
    ASSERT_EQ(::chmod(path.c_str(), c.mode), 0);
    if (c.foreign) {
        ASSERT_EQ(::chown(path.c_str(), kNobody, kNobody), 0);
    }
    const int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char why[ZEL_FILE_GUARD_TEXT_SIZE] = "untouched";
    const zel_error_t rc = zel_file_check_guarded(fd, why);
    ::close(fd);
    if (c.why == nullptr) {
        EXPECT_EQ(rc, ZEL_SUCCESS);
        EXPECT_STREQ(why, "untouched");
    } else {
        EXPECT_EQ(rc, ZEL_POLICY);
        EXPECT_STREQ(why, c.why);
    }
}

INSTANTIATE_TEST_SUITE_P(
    TmpFile, Guard,
    ::testing::Values(GuardCase{"OwnFileReadableByAll", Shape::kFile, 0644, false, nullptr},
                      GuardCase{"OwnFilePrivate", Shape::kFile, 0600, false, nullptr},
                      GuardCase{"GroupWritable", Shape::kFile, 0664, false, "writable by group or others (mode 0664)"},
                      GuardCase{"OthersWritable", Shape::kFile, 0646, false, "writable by group or others (mode 0646)"},
                      GuardCase{"Directory", Shape::kDirectory, 0700, false, "not a regular file"},
                      GuardCase{"AnotherUsersFile", Shape::kFile, 0644, true, "owned by user 65534"}),
    [](const ::testing::TestParamInfo<GuardCase>& i) { return i.param.name; });

// A directory with a file in it: moved whole to "<name>.XXXXXX" beside it,
// so the name is free for a file of our own.
TEST(TmpFileMoveAside, MovesWhatCannotBeRemovedToAFreshName) {
    testutil::TempDir dir;
    const std::string path = dir.file("flashit");
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    testutil::writeFile(path + "/keep", "x");
    int fd = -1;
    ASSERT_EQ(zel_tmp_file_create(path.c_str(), 0600, &fd), ZEL_SYSTEM) << "a directory with files stays";

    char aside[ZEL_TMP_ASIDE_SIZE];
    ASSERT_EQ(zel_tmp_file_move_aside(path.c_str(), aside), ZEL_SUCCESS);
    const std::string moved(aside);
    EXPECT_EQ(moved.size(), path.size() + 7);
    EXPECT_EQ(moved.compare(0, path.size() + 1, path + "."), 0) << moved;
    EXPECT_EQ(moved.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789", path.size() + 1),
              std::string::npos)
        << moved;
    EXPECT_EQ(testutil::readFile(moved + "/keep"), "x") << "moved whole";
    ASSERT_EQ(zel_tmp_file_create(path.c_str(), 0600, &fd), ZEL_SUCCESS);
    ::close(fd);

    char again[ZEL_TMP_ASIDE_SIZE];
    EXPECT_EQ(zel_tmp_file_move_aside(dir.file("none").c_str(), again), ZEL_SYSTEM);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
