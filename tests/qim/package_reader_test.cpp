#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "qim/package.h"
#include "qim/package_internal.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

V3Layout two_parts_one_model() {
    V3Layout l;
    l.parts = {{1, 0x04020600, filled(1000, 1)}, {2, 0x01000000, filled(24, 2)}};
    l.models = {{id_text("M1"), 0x3}};
    l.mfgc = id_text("ACME");
    return l;
}

std::string bad_checksum(uint32_t computed, uint32_t expected) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "error: bad checksum: calculated %x, expected %x\n", computed,
                  expected);
    return buf;
}

struct RefusalCase {
    const char* name;
    std::function<Bytes()> image;
    zel_error_t rc;
    std::function<std::string(const Bytes&)> message;  // expected stderr
};

std::string none(const Bytes&) { return ""; }

class Refusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(Refusal, CodeAndMessage) {
    testutil::TempDir dir;
    const Bytes image = GetParam().image();
    LoadResult r = load_bytes(dir, image);
    EXPECT_EQ(r.rc, GetParam().rc);
    EXPECT_EQ(r.err, GetParam().message(image));
}

Bytes v3_with(std::function<void(Bytes&)> change, bool refix = true) {
    Bytes b = make_v3(two_parts_one_model());
    change(b);
    if (refix) fix_v3(b);
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Files, Refusal,
    testing::Values(
        RefusalCase{"ShortFile", [] { return Bytes(63, 'K'); }, ZEL_INVALIDDATA, none},
        RefusalCase{"WrongMagic", [] { return Bytes(64, 0); }, ZEL_INVALIDPARAMETER,
                    [](const Bytes&) {
                        return std::string("error: qim header doesn't have correct magic number\n");
                    }},
        RefusalCase{"Version1",
                    [] { return v3_with([](Bytes& b) { put32(b, 8, 1); }); }, ZEL_VERSION,
                    [](const Bytes&) { return std::string("unsupported qim version number: 1/0x1\n"); }},
        RefusalCase{"Version0x103",
                    [] { return v3_with([](Bytes& b) { put32(b, 8, 0x103); }); }, ZEL_VERSION,
                    [](const Bytes&) {
                        return std::string("unsupported qim version number: 259/0x103\n");
                    }},
        RefusalCase{"Version2BadSum",
                    [] {
                        Bytes b = make_v2({{1, 0, filled(100, 3)}});
                        b.back() ^= 0x01;
                        return b;
                    },
                    ZEL_INVALIDDATA,
                    [](const Bytes& b) { return bad_checksum(v2_sum(b), get32(b, 20)); }},
        RefusalCase{"Version3FileCrc",
                    [] { return v3_with([](Bytes& b) { b.back() ^= 0x80; }, false); },
                    ZEL_INVALIDDATA,
                    [](const Bytes& b) {
                        Bytes z = b;
                        put32(z, 24, 0);
                        return bad_checksum(zcrc(z.data(), z.size()), get32(b, 24));
                    }},
        RefusalCase{"Version3HeaderCrc",
                    [] { return v3_with([](Bytes& b) { put32(b, 60, get32(b, 60) + 1); }, false); },
                    ZEL_INVALIDDATA, none},
        RefusalCase{"HeaderLengthBeyondRead",
                    [] {
                        V3Layout l;
                        for (int i = 0; i < 20; ++i) l.parts.push_back({4, 0, filled(2, 0)});
                        for (int i = 0; i < 10; ++i) l.models.push_back({id_text("M"), 1});
                        l.models.back().id.bytes[1] = 1;
                        return make_v3(l);  // header_length 544
                    },
                    ZEL_INVALIDDATA, none},
        RefusalCase{"PartTableOutsideRead",
                    [] { return v3_with([](Bytes& b) { put32(b, 36, 500); }); }, ZEL_INVALIDDATA,
                    none},
        RefusalCase{"ModelTableOutsideRead",
                    [] { return v3_with([](Bytes& b) { put32(b, 52, 30); }); }, ZEL_INVALIDDATA,
                    none},
        RefusalCase{"HugeCountOverflows",
                    [] { return v3_with([](Bytes& b) { put32(b, 40, 0x10000001); }); },
                    ZEL_INVALIDDATA, none},
        RefusalCase{"EntrySizeZero",
                    [] { return v3_with([](Bytes& b) { put32(b, 44, 0); }); }, ZEL_INVALIDDATA,
                    none},
        RefusalCase{"MinorSetHeaderShorterThan64",
                    [] {
                        return v3_with([](Bytes& b) {
                            put32(b, 4, 48);
                            put32(b, 40, 0);
                            put32(b, 52, 0);
                        });
                    },
                    ZEL_INVALIDDATA, none},
        RefusalCase{"Version2PartTableOutsideRead",
                    [] {
                        Bytes b = make_v2({{1, 0, filled(600, 3)}});
                        put32(b, 24, 41);  // 28 + 41 * 12 = 520 bytes
                        put32(b, 20, v2_sum(b));
                        return b;
                    },
                    ZEL_INVALIDDATA, none}),
    [](const testing::TestParamInfo<RefusalCase>& i) { return std::string(i.param.name); });

TEST(Load, MissingFileIsNoMemoryWithoutMessage) {
    testutil::TempDir dir;
    PackagePtr pkg = new_package();
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_load(pkg.get(), dir.file("absent.qim").c_str()), ZEL_NOMEMORY);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(pkg->header, nullptr);
}

TEST(Load, FileThatCannotBeOpenedAgainIsReported) {
    // The file CRC pass opens the file a second time; when it has gone in
    // between, that is said instead of reading through a null stream.
    testutil::TempDir dir;
    Bytes b = make_v3(two_parts_one_model());
    PackagePtr pkg = new_package();
    const std::string gone = dir.file("gone.qim");
    ASSERT_EQ(qim_package_parse_header(pkg.get(), b.data(), 512, gone.c_str()), ZEL_SUCCESS);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_internal::check_version3_file_crc(pkg.get(), b.data(), gone.c_str()), ZEL_NOMEMORY);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error: cannot reopen " + gone + ": No such file or directory\n");
}

TEST(Load, SecondLoadIsRefused) {
    testutil::TempDir dir;
    LoadResult r = load_bytes(dir, make_v3(two_parts_one_model()));
    ASSERT_EQ(r.rc, ZEL_SUCCESS);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_load(r.pkg.get(), dir.file("pkg.qim").c_str()), ZEL_NOMEMORY);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error: loading qim into qim that already has a header\n");
}

TEST(Load, FailedLoadKeepsTheHeader) {
    testutil::TempDir dir;
    LoadResult r = load_bytes(dir, v3_with([](Bytes& b) { put32(b, 8, 7); }));
    EXPECT_EQ(r.rc, ZEL_VERSION);
    ASSERT_NE(r.pkg->header, nullptr);
    EXPECT_EQ(r.pkg->header->version_major, 7u);
}

TEST(Load, Version3FieldsPartsAndModels) {
    testutil::TempDir dir;
    const Bytes image = make_v3(two_parts_one_model());
    ASSERT_EQ(image.size(), 1136u);  // 112 bytes of header and tables, 1024 of data
    LoadResult r = load_bytes(dir, image);
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    qim_package* pkg = r.pkg.get();
    EXPECT_EQ(qim_package_get_version(pkg), 3u);
    EXPECT_EQ(pkg->header->version_minor, 1u);
    EXPECT_EQ(qim_package_get_device_code(pkg), 40u);
    EXPECT_EQ(qim_package_get_product_version(pkg), 0x01020304u);
    const qim_id acme = id_text("ACME");
    EXPECT_TRUE(qim_id_equal(qim_package_get_mfgc_id(pkg), &acme));
    EXPECT_EQ(pkg->header->checksum, get32(image, 24));
    EXPECT_EQ(pkg->header->header_checksum, get32(image, 60));
    EXPECT_EQ(qim_package_get_num_parts(pkg), 2);
    EXPECT_EQ(qim_package_get_num_models(pkg), 1);
    EXPECT_EQ(qim_package_get_total_size(pkg), 1024u);

    uint32_t kind = 99, size = 0, release = 0;
    uint64_t position = 0;
    const char* path = nullptr;
    ASSERT_EQ(qim_package_get_part_info(pkg, 1, &kind, &path, &position, &size, &release), 0u);
    EXPECT_EQ(kind, 2u);
    EXPECT_EQ(position, 112u + 1000u);
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(release, 0x01000000u);
    EXPECT_EQ(std::string(path), dir.file("pkg.qim"));

    // A number equal to the part count is no part: outputs stay as they were.
    kind = 77;
    EXPECT_EQ(qim_package_get_part_info(pkg, 2, &kind, nullptr, nullptr, nullptr, nullptr),
              ZEL_INVALIDPARAMETER);
    EXPECT_EQ(kind, 77u);

    std::string out = capture_stream([&](FILE* f) { EXPECT_EQ(qim_package_extract_part(pkg, 1, f), 0u); });
    const Bytes want = filled(24, 2);
    EXPECT_EQ(out, std::string(want.begin(), want.end()));
}

TEST(Load, MinorZeroIgnoresTheHeaderChecksumField) {
    testutil::TempDir dir;
    V3Layout l = two_parts_one_model();
    l.minor = 0;
    Bytes b = make_v3(l);
    put32(b, 60, 0xDEADBEEF);
    fix_v3(b);  // file CRC only: minor 0 has no header CRC
    LoadResult r = load_bytes(dir, b);
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    EXPECT_EQ(r.pkg->header->header_checksum, 0u);
}

TEST(Load, EntrySizesBelowAndAbove16) {
    testutil::TempDir dir;
    V3Layout l = two_parts_one_model();
    l.part_es = 12;   // the size field is missing: reads as 0
    l.model_es = 24;  // 8 extra bytes skipped
    l.models.push_back({id_text("M2"), 0x2});
    LoadResult r = load_bytes(dir, make_v3(l));
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    uint32_t size = 1, kind = 0;
    uint64_t position = 0;
    ASSERT_EQ(qim_package_get_part_info(r.pkg.get(), 1, &kind, nullptr, &position, &size, nullptr), 0u);
    EXPECT_EQ(kind, 2u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(position, 64u + 2 * 12 + 2 * 24 + 1000);
    const qim_model* second = qim_package_get_model(r.pkg.get(), 1);
    ASSERT_NE(second, nullptr);
    const qim_id m2 = id_text("M2");
    EXPECT_TRUE(qim_id_equal(qim_model_get_id(second), &m2));
    EXPECT_EQ(second->part_mask, 0x2u);
    EXPECT_EQ(qim_model_get_next(second), nullptr);
}

TEST(Load, Version2SuppliesWhatTheFormatLacks) {
    testutil::TempDir dir;
    std::vector<PartSpec> parts;
    for (int i = 0; i < 33; ++i) parts.push_back({static_cast<uint32_t>(i % 5), 0, filled(3, 1)});
    LoadResult r = load_bytes(dir, make_v2(parts));
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    qim_package* pkg = r.pkg.get();
    EXPECT_EQ(qim_package_get_version(pkg), 2u);
    EXPECT_EQ(pkg->header->version_minor, 0u);
    EXPECT_TRUE(qim_id_is_any(qim_package_get_mfgc_id(pkg)));
    ASSERT_EQ(qim_package_get_num_models(pkg), 1);
    EXPECT_EQ(pkg->models->part_mask, 0xFFFFFFFFu);
    const qim_id any_device = id_text("X");
    EXPECT_TRUE(qim_package_part_matches_model(pkg, &any_device, 31));
    EXPECT_FALSE(qim_package_part_matches_model(pkg, &any_device, 32));
    uint64_t position = 0;
    ASSERT_EQ(qim_package_get_part_info(pkg, 2, nullptr, nullptr, &position, nullptr, nullptr), 0u);
    EXPECT_EQ(position, 28u + 33 * 12 + 6);
}

TEST(ParseHeader, WithoutFileNameVersion2SumIsUnreadable) {
    Bytes b = make_v2({{1, 0, filled(100, 3)}});
    PackagePtr pkg = new_package();
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_parse_header(pkg.get(), b.data(), b.size(), nullptr), ZEL_INVALIDDATA);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), bad_checksum(0xbadc12c0u, get32(b, 20)));
}

TEST(ParseHeader, PartsWithoutFileNameHaveNoPath) {
    Bytes b = make_v3(two_parts_one_model());
    PackagePtr pkg = new_package();
    ASSERT_EQ(qim_package_parse_header(pkg.get(), b.data(), 112, nullptr), ZEL_SUCCESS);
    EXPECT_EQ(pkg->parts->path, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_extract_part(pkg.get(), 0, stdout), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: part 0 has no file to read its data from\n");
}

TEST(Extract, UnopenableAndShortFilesAreReported) {
    testutil::TempDir dir;
    LoadResult r = load_bytes(dir, make_v3(two_parts_one_model()));
    ASSERT_EQ(r.rc, ZEL_SUCCESS);
    // Cut the file so the second part's data is incomplete.
    Bytes cut = make_v3(two_parts_one_model());
    cut.resize(cut.size() - 4);
    testutil::writeBytes(dir.file("pkg.qim"), std::vector<unsigned char>(cut.begin(), cut.end()));
    testing::internal::CaptureStderr();
    std::string out = capture_stream(
        [&](FILE* f) { EXPECT_EQ(qim_package_extract_part(r.pkg.get(), 1, f), ZEL_TRUNCATED); });
    EXPECT_NE(testing::internal::GetCapturedStderr().find("ends 4 bytes before"), std::string::npos);
    EXPECT_EQ(out.size(), 0u);  // the 20 bytes read are less than one chunk: nothing written

    std::remove(dir.file("pkg.qim").c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_extract_part(r.pkg.get(), 0, stdout), ZEL_INVALIDPARAMETER);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot read part data"), std::string::npos);
    EXPECT_EQ(qim_package_extract_part(r.pkg.get(), 9, stdout), ZEL_SUCCESS);  // no such part
}

struct MatchCase {
    const char* name;
    std::vector<ModelSpec> models;
    const char* device;  // model ID text
    int seq;
    bool selected;
    const char* found;  // ID text of the entry reported, when selected
};

class Match : public testing::TestWithParam<MatchCase> {};

TEST_P(Match, SelectsByIdWildcardAndMask) {
    const MatchCase& c = GetParam();
    PackagePtr pkg = new_package();
    V3Layout l;
    for (int i = 0; i < 3; ++i) l.parts.push_back({1, 0, filled(1, 0)});
    l.models = c.models;
    Bytes b = make_v3(l);
    ASSERT_EQ(qim_package_parse_header(pkg.get(), b.data(), b.size(), nullptr), ZEL_SUCCESS);
    const qim_id device = id_text(c.device);
    qim_id found = id_text("unset");
    EXPECT_EQ(qim_package_find_model_for_part(pkg.get(), &device, c.seq, &found), c.selected);
    EXPECT_EQ(qim_package_part_matches_model(pkg.get(), &device, c.seq), c.selected);
    const qim_id want = id_text(c.selected ? c.found : "unset");
    EXPECT_TRUE(qim_id_equal(&found, &want));
}

INSTANTIATE_TEST_SUITE_P(
    Models, Match,
    testing::Values(
        MatchCase{"ExactId", {{id_text("A"), 0x1}}, "A", 0, true, "A"},
        MatchCase{"OtherId", {{id_text("A"), 0x1}}, "B", 0, false, ""},
        MatchCase{"BitNotSet", {{id_text("A"), 0x2}}, "A", 0, false, ""},
        MatchCase{"EntryAnyModel", {{id_text(""), 0x1}}, "B", 0, true, ""},
        MatchCase{"DeviceAnyModel", {{id_text("A"), 0x1}}, "", 0, true, "A"},
        MatchCase{"LaterEntryWins", {{id_text("A"), 0x1}, {id_text(""), 0x1}}, "A", 0, true, ""},
        MatchCase{"Bit31", {{id_text("A"), 0x80000000u}}, "A", 31, true, "A"},
        MatchCase{"BeyondMask", {{id_text("A"), 0xFFFFFFFFu}}, "A", 32, false, ""}),
    [](const testing::TestParamInfo<MatchCase>& i) { return std::string(i.param.name); });

}  // namespace
