#include <gtest/gtest.h>

#include <cstring>

#include <sys/stat.h>

#include "qim/file_identity.h"
#include "qim/package.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

const qim_file_identity kSentinel{1, 2, 3, 4, 5, 6, 7};

bool untouched(const qim_file_identity& id) {
    return std::memcmp(&id, &kSentinel, sizeof id) == 0;
}

TEST(FileIdentity, LoadRecordsTheFileItValidated) {
    for (const Bytes& b : {make_v3(two_parts()), make_v2({{1, 0, filled(600, 3)}})}) {
        SCOPED_TRACE(get32(b, 8));
        testutil::TempDir dir;
        LoadResult r = load_bytes(dir, b);
        ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
        qim_file_identity id = kSentinel;
        ASSERT_EQ(qim_package_get_file_identity(r.pkg.get(), &id), ZEL_SUCCESS);
        struct stat st;
        ASSERT_EQ(stat(dir.file("pkg.qim").c_str(), &st), 0);
        EXPECT_EQ(id.device, static_cast<uint64_t>(st.st_dev));
        EXPECT_EQ(id.inode, static_cast<uint64_t>(st.st_ino));
        EXPECT_EQ(id.size, b.size());
        EXPECT_EQ(std::make_pair(id.mtime_sec, id.mtime_nsec),
                  std::make_pair(int64_t{st.st_mtim.tv_sec}, int64_t{st.st_mtim.tv_nsec}));
        EXPECT_EQ(std::make_pair(id.ctime_sec, id.ctime_nsec),
                  std::make_pair(int64_t{st.st_ctim.tv_sec}, int64_t{st.st_ctim.tv_nsec}));
    }
}

TEST(FileIdentity, NoneWithoutASuccessfulLoad) {
    testutil::TempDir dir;
    qim_file_identity id = kSentinel;
    EXPECT_EQ(qim_package_get_file_identity(new_package().get(), &id), ZEL_NOTFOUND);
    EXPECT_EQ(qim_package_get_file_identity(nullptr, &id), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(qim_package_get_file_identity(new_package().get(), nullptr), ZEL_INVALIDPARAMETER);
    Bytes damaged = make_v3(two_parts());
    damaged.back() ^= 1;  // file CRC wrong
    EXPECT_EQ(qim_package_get_file_identity(load_bytes(dir, damaged).pkg.get(), &id), ZEL_NOTFOUND);
    // The header step alone reads a whole version-2 file, but only a load
    // brackets it with the header read.
    const Bytes v2 = make_v2({{1, 0, filled(100, 3)}});
    testutil::writeBytes(dir.file("v2.qim"), v2);
    PackagePtr parsed = new_package();
    ASSERT_EQ(qim_package_parse_header(parsed.get(), v2.data(), v2.size(), dir.file("v2.qim").c_str()), 0u);
    EXPECT_EQ(qim_package_get_file_identity(parsed.get(), &id), ZEL_NOTFOUND);
    EXPECT_TRUE(untouched(id));
}

TEST(FileIdentity, EveryFieldCountsAndFailuresLeaveTheOutputAlone) {
    int64_t qim_file_identity::*const times[] = {&qim_file_identity::mtime_sec, &qim_file_identity::mtime_nsec,
                                                 &qim_file_identity::ctime_sec, &qim_file_identity::ctime_nsec};
    uint64_t qim_file_identity::*const ids[] = {&qim_file_identity::device, &qim_file_identity::inode,
                                                &qim_file_identity::size};
    EXPECT_TRUE(qim_file_identity_equal(&kSentinel, &kSentinel));
    for (auto field : times) {
        qim_file_identity other = kSentinel;
        other.*field += 1;
        EXPECT_FALSE(qim_file_identity_equal(&kSentinel, &other));
    }
    for (auto field : ids) {
        qim_file_identity other = kSentinel;
        other.*field += 1;
        EXPECT_FALSE(qim_file_identity_equal(&other, &kSentinel));
    }
    EXPECT_FALSE(qim_file_identity_equal(&kSentinel, nullptr));
    qim_file_identity id = kSentinel;
    EXPECT_EQ(qim_file_identity_of(-1, &id), ZEL_SYSTEM);
    EXPECT_EQ(qim_file_identity_of(0, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_TRUE(untouched(id));
}

}  // namespace
