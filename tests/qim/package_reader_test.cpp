#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <tuple>

#include <fcntl.h>
#include <unistd.h>

#include "qim/package.h"
#include "qim/package_internal.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

std::string bad_checksum(uint32_t computed, uint32_t expected) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "error: bad checksum: calculated %x, expected %x\n", computed, expected);
    return buf;
}

using Pokes = std::vector<std::pair<std::size_t, uint32_t>>;  // 32-bit fields set at offsets

// A package image with some fields changed; `refix` recomputes its checksums.
// Bases: '3' two_parts(), 'M' 20 parts and 10 models (header_length 544),
// '2' version 2 with one 600-byte part.
Bytes image(char base, const Pokes& pokes, bool refix = true) {
    V3Layout many;
    many.parts.assign(20, {4, 0, filled(2, 0)});
    many.models.assign(10, {id_text("M"), 1});
    Bytes b = base == '2' ? make_v2({{1, 0, filled(600, 3)}}) : make_v3(base == 'M' ? many : two_parts());
    for (const auto& p : pokes) put32(b, p.first, p.second);
    if (refix && base == '2') put32(b, 20, v2_sum(b));
    if (refix && base != '2') fix_v3(b);
    return b;
}

TEST(Load, CodeAndMessageOfEachCheck) {
    // message null: the bad-checksum line with the image's values.
    const struct { const char* name; char base; Pokes pokes; bool refix; std::size_t cut; zel_error_t rc;
                   const char* message; } cases[] = {
        {"ShortFile", '3', {{0, 0}}, true, 63, ZEL_INVALIDDATA, ""},
        {"WrongMagic", '3', {{0, 0}}, true, 0, ZEL_INVALIDPARAMETER,
         "error: qim header doesn't have correct magic number\n"},
        {"Version1", '3', {{8, 1}}, true, 0, ZEL_VERSION, "unsupported qim version number: 1/0x1\n"},
        {"Version0x103", '3', {{8, 0x103}}, true, 0, ZEL_VERSION, "unsupported qim version number: 259/0x103\n"},
        {"Version2BadSum", '2', {{636, 0}}, false, 0, ZEL_INVALIDDATA, nullptr},
        {"Version3FileCrc", '3', {{1132, 0}}, false, 0, ZEL_INVALIDDATA, nullptr},
        {"Version3HeaderCrc", '3', {{60, 0}}, false, 0, ZEL_INVALIDDATA, ""},
        {"MinorZeroIgnoresHeaderCrc", '3', {{12, 0}, {60, 0xDEADBEEF}}, true, 0, ZEL_SUCCESS, ""},
        {"HeaderLengthBeyondRead", 'M', {}, true, 0, ZEL_INVALIDDATA, ""},
        {"PartTableOutsideRead", '3', {{36, 500}}, true, 0, ZEL_INVALIDDATA, ""},
        {"ModelTableOutsideRead", '3', {{52, 30}}, true, 0, ZEL_INVALIDDATA, ""},
        {"HugeCountOverflows", '3', {{40, 0x10000001}}, true, 0, ZEL_INVALIDDATA, ""},
        {"EntrySizeZero", '3', {{44, 0}}, true, 0, ZEL_INVALIDDATA, ""},
        {"MinorSetHeaderShorterThan64", '3', {{4, 48}}, true, 0, ZEL_INVALIDDATA, ""},
        {"Version2PartTableOutsideRead", '2', {{24, 41}}, true, 0, ZEL_INVALIDDATA, ""}};  // 28 + 41 * 12 > 512
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes b = image(c.base, c.pokes, c.refix);
        b.resize(c.cut != 0 ? c.cut : b.size());
        testutil::TempDir dir;
        LoadResult r = load_bytes(dir, b);
        EXPECT_EQ(r.rc, c.rc);
        const bool v2 = c.base == '2';
        EXPECT_EQ(r.err, c.message ? c.message : bad_checksum(v2 ? v2_sum(b) : zcrc(b, 24), get32(b, v2 ? 20 : 24)));
        EXPECT_TRUE(c.rc != 0 || r.pkg->header->header_checksum == 0);  // minor 0: no header CRC
    }
}

TEST(Load, MissingFileAndSecondLoad) {
    testutil::TempDir dir;
    PackagePtr pkg = new_package();
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qim_package_load(pkg.get(), dir.file("absent").c_str()), 6u); }), "");
    LoadResult r = load_bytes(dir, image('3', {{8, 7}}));
    testutil::writeBytes(dir.file("good.qim"), image('3', {}));
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qim_package_load(r.pkg.get(), dir.file("good.qim").c_str()), 6u); }),
              "error: loading qim into qim that already has a header\n");
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Header, tables and checksums come through the one descriptor, never from
// the name again: a package whose name is given to other bytes right after
// the open validates as the file that was opened, good or damaged. The
// package keeps the descriptor of a good file and closes that of a bad one.
TEST(LoadFd, EveryByteComesThroughTheOneDescriptor) {
    for (const Bytes& good : {make_v3(two_parts()), make_v2({{1, 0, filled(600, 3)}})}) {
        SCOPED_TRACE(get32(good, 8));
        Bytes damaged = good;
        damaged.back() ^= 0xFF;
        for (const bool openedGood : {true, false}) {
            testutil::TempDir dir;
            const std::string path = dir.file("pkg.qim");
            testutil::writeBytes(path, openedGood ? good : damaged);
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            ASSERT_GE(fd, 0);
            testutil::writeBytes(dir.file("other"), openedGood ? damaged : good);
            ASSERT_EQ(std::rename(dir.file("other").c_str(), path.c_str()), 0);
            PackagePtr pkg = new_package();
            std::string err = stderr_of([&] {
                EXPECT_EQ(qim_package_load_fd(pkg.get(), fd, path.c_str()), openedGood ? ZEL_SUCCESS : ZEL_INVALIDDATA);
            });
            EXPECT_EQ(err.empty(), openedGood) << err;
            EXPECT_EQ(qim_package_get_fd(pkg.get()), openedGood ? fd : -1);
            EXPECT_EQ(isOpen(fd), openedGood);
            pkg.reset();
            EXPECT_FALSE(isOpen(fd)) << "the package does not close its descriptor";
        }
    }
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(qim_package_load_fd(nullptr, fd, "x"), ZEL_INVALIDPARAMETER);
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(qim_package_get_fd(nullptr), -1);
    EXPECT_EQ(qim_package_get_fd(new_package().get()), -1);
}

TEST(Load, EntrySizesBelowAndAbove16) {
    testutil::TempDir dir;
    V3Layout l = two_parts();
    l.part_es = 12;   // the size field is missing: reads as 0
    l.model_es = 24;  // 8 extra bytes skipped
    l.models.push_back({id_text("M2"), 0x2});
    LoadResult r = load_bytes(dir, make_v3(l));
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    uint32_t size = 1, kind = 0;
    uint64_t position = 0;
    ASSERT_EQ(qim_package_get_part_info(r.pkg.get(), 1, &kind, nullptr, &position, &size, nullptr), 0u);
    EXPECT_EQ(std::make_tuple(kind, size, position), std::make_tuple(2u, 0u, uint64_t{64 + 2 * 12 + 2 * 24 + 1000}));
    const qim_model* second = qim_package_get_model(r.pkg.get(), 1);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(qim_id_equal(qim_model_get_id(second), &l.models[1].id));
    EXPECT_EQ(second->part_mask, 0x2u);
    EXPECT_EQ(qim_model_get_next(second), nullptr);
}

// Version 2 has no minor version, manufacturer or model table: one entry for
// any model selects the first 32 parts.
TEST(Load, Version2SuppliesWhatTheFormatLacks) {
    testutil::TempDir dir;
    std::vector<PartSpec> parts;
    for (uint32_t i = 0; i < 33; ++i) parts.push_back({i % 5, 0, filled(3, 1)});
    LoadResult r = load_bytes(dir, make_v2(parts));
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    qim_package* pkg = r.pkg.get();
    EXPECT_TRUE(qim_id_is_any(qim_package_get_mfgc_id(pkg)));
    const qim_id device = id_text("X");
    EXPECT_TRUE(qim_package_part_matches_model(pkg, &device, 31));
    EXPECT_FALSE(qim_package_part_matches_model(pkg, &device, 32));
    uint64_t position = 0;
    ASSERT_EQ(qim_package_get_part_info(pkg, 2, nullptr, nullptr, &position, nullptr, nullptr), 0u);
    EXPECT_EQ(position, 28u + 33 * 12 + 6);
}

// Version-3 parts of a header parsed without a file name have no data.
TEST(ParseHeader, WithoutFileNamePartsHaveNoData) {
    const Bytes v3 = image('3', {});
    PackagePtr pkg = new_package();
    ASSERT_EQ(qim_package_parse_header(pkg.get(), v3.data(), 112, nullptr), ZEL_SUCCESS);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qim_package_extract_part(pkg.get(), 0, stdout), ZEL_INVALIDPARAMETER); }),
              "error: part 0 has no file to read its data from\n");
}

TEST(Extract, AShortFileIsReported) {
    testutil::TempDir dir;
    Bytes b = image('3', {});
    LoadResult r = load_bytes(dir, b);
    ASSERT_EQ(r.rc, ZEL_SUCCESS);
    b.resize(b.size() - 4);  // the second part's data is now incomplete
    testutil::writeBytes(dir.file("pkg.qim"), b);
    std::string out;
    const std::string err = stderr_of([&] {
        out = capture_stream([&](FILE* f) { EXPECT_EQ(qim_package_extract_part(r.pkg.get(), 1, f), ZEL_TRUNCATED); });
    });
    EXPECT_NE(err.find("ends 4 bytes before"), std::string::npos) << err;
    EXPECT_EQ(out.size(), 0u);  // the 20 bytes read are less than one chunk: nothing written
    EXPECT_EQ(qim_package_extract_part(r.pkg.get(), 9, stdout), ZEL_SUCCESS);  // no such part
}

TEST(Match, SelectsByIdWildcardAndMask) {
    // found: the ID text of the entry reported; null: the part is not selected.
    const struct { const char* name; std::vector<ModelSpec> models; const char* device; int seq; const char* found; }
        cases[] = {{"ExactId", {{id_text("A"), 0x1}}, "A", 0, "A"},
                   {"OtherId", {{id_text("A"), 0x1}}, "B", 0, nullptr},
                   {"BitNotSet", {{id_text("A"), 0x2}}, "A", 0, nullptr},
                   {"EntryAnyModel", {{id_text(""), 0x1}}, "B", 0, ""},
                   {"DeviceAnyModel", {{id_text("A"), 0x1}}, "", 0, "A"},
                   {"LaterEntryWins", {{id_text("A"), 0x1}, {id_text(""), 0x1}}, "A", 0, ""},
                   {"Bit31", {{id_text("A"), 0x80000000u}}, "A", 31, "A"},
                   {"BeyondMask", {{id_text("A"), 0xFFFFFFFFu}}, "A", 32, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes b = make_v3(V3Layout{{}, c.models});
        PackagePtr pkg = new_package();
        ASSERT_EQ(qim_package_parse_header(pkg.get(), b.data(), b.size(), nullptr), ZEL_SUCCESS);
        const qim_id device = id_text(c.device), want = id_text(c.found ? c.found : "unset");
        qim_id found = id_text("unset");
        EXPECT_EQ(qim_package_find_model_for_part(pkg.get(), &device, c.seq, &found), c.found != nullptr);
        EXPECT_EQ(qim_package_part_matches_model(pkg.get(), &device, c.seq), c.found != nullptr);
        EXPECT_TRUE(qim_id_equal(&found, &want));
    }
}

}  // namespace
