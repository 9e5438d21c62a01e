#include <gtest/gtest.h>

#include "qim/package_builder.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

struct Built {
    PackagePtr pkg;
    Bytes file;
};

// Writes the data files, builds a package of them and writes it with `writer`.
Built build(const testutil::TempDir& dir, const std::vector<PartSpec>& parts,
            const std::vector<ModelSpec>& models,
            zel_error_t (*writer)(qim_package*, FILE*) = qim_package_write,
            uint32_t product_version = 0x00000102) {
    Built b{new_package(), {}};
    const qim_id mfgc = id_text("ACME");
    EXPECT_EQ(qim_package_init_header(b.pkg.get(), 40, product_version, &mfgc), ZEL_SUCCESS);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const std::string path = dir.file("part" + std::to_string(i));
        testutil::writeBytes(path, std::vector<unsigned char>(parts[i].data.begin(), parts[i].data.end()));
        int seq = -1;
        EXPECT_EQ(qim_package_add_part_file(b.pkg.get(), parts[i].part_id, parts[i].release,
                                            path.c_str(), &seq),
                  ZEL_SUCCESS);
        EXPECT_EQ(seq, static_cast<int>(i));
    }
    for (const ModelSpec& m : models) {
        EXPECT_EQ(qim_package_add_model(b.pkg.get(), &m.id), ZEL_SUCCESS);
        for (int bit = 0; bit < 32; ++bit) {
            if (m.mask >> bit & 1u) qim_package_set_model_part(b.pkg.get(), &m.id, bit);
        }
    }
    const std::string out = dir.file("out.qim");
    FILE* f = std::fopen(out.c_str(), "w+b");
    EXPECT_EQ(writer(b.pkg.get(), f), ZEL_SUCCESS);
    std::fclose(f);
    auto raw = testutil::readBytes(out);
    b.file.assign(raw.begin(), raw.end());
    return b;
}

zel_error_t write_v1(qim_package* p, FILE* f) { return qim_package_write_v1(p, f); }

const std::vector<PartSpec> kTwoParts = {{1, 0x04020600, filled(1000, 1)}, {2, 0x01000000, filled(24, 2)}};

TEST(Writer, RoundTripThroughTheReader) {
    testutil::TempDir dir;
    Built b = build(dir, kTwoParts, {{id_text("M1"), 0x3}});
    ASSERT_EQ(b.file.size(), 1136u);
    EXPECT_EQ(get32(b.file, 4), 112u);
    EXPECT_EQ(get32(b.file, 48), 96u);
    EXPECT_EQ(b.file, make_v3([] {
                  V3Layout l;
                  l.parts = kTwoParts;
                  l.models = {{id_text("M1"), 0x3}};
                  l.mfgc = id_text("ACME");
                  l.product_version = 0x102;
                  return l;
              }()));  // byte for byte what the independent layout gives
    EXPECT_EQ(b.pkg->header->checksum, get32(b.file, 24));
    EXPECT_EQ(b.pkg->header->header_checksum, get32(b.file, 60));

    LoadResult r = load_bytes(dir, b.file, "again.qim");
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    EXPECT_EQ(qim_package_get_total_size(r.pkg.get()), 1024u);
    std::string out = capture_stream([&](FILE* f) { qim_package_extract_part(r.pkg.get(), 0, f); });
    EXPECT_EQ(Bytes(out.begin(), out.end()), kTwoParts[0].data);
}

TEST(Writer, DataChangesOnlyTheFileChecksumHeaderChangesBoth) {
    testutil::TempDir a, b, c;
    Built base = build(a, kTwoParts, {{id_text("M1"), 0x1}});
    std::vector<PartSpec> changed = kTwoParts;
    changed[1].data[5] ^= 0x10;
    Built data = build(b, changed, {{id_text("M1"), 0x1}});
    Built header = build(c, kTwoParts, {{id_text("M1"), 0x1}}, qim_package_write, 0x00000103);
    EXPECT_EQ(data.pkg->header->header_checksum, base.pkg->header->header_checksum);
    EXPECT_NE(data.pkg->header->checksum, base.pkg->header->checksum);
    EXPECT_NE(header.pkg->header->header_checksum, base.pkg->header->header_checksum);
    EXPECT_NE(header.pkg->header->checksum, base.pkg->header->checksum);
}

TEST(Writer, RefusesMoreThanTheReaderTakes) {
    testutil::TempDir dir;
    PackagePtr pkg = new_package();
    ASSERT_EQ(qim_package_init_header(pkg.get(), 40, 1, &QIM_MFGC_ID_ANY), ZEL_SUCCESS);
    testutil::writeFile(dir.file("d"), "x");
    for (int i = 0; i < 20; ++i) qim_package_add_part_file(pkg.get(), 4, 0, dir.file("d").c_str(), nullptr);
    for (int i = 0; i < 10; ++i) {
        qim_id id = id_text("M");
        id.bytes[1] = static_cast<uint8_t>('0' + i);
        ASSERT_EQ(qim_package_add_model(pkg.get(), &id), ZEL_SUCCESS);
    }
    FILE* f = std::fopen(dir.file("out").c_str(), "w+b");
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_write(pkg.get(), f), ZEL_INVALIDDATA);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("544 header bytes"), std::string::npos);
    std::fclose(f);
}

TEST(Writer, MissingPartFileIsReported) {
    testutil::TempDir dir;
    PackagePtr pkg = new_package();
    ASSERT_EQ(qim_package_init_header(pkg.get(), 40, 1, &QIM_MFGC_ID_ANY), ZEL_SUCCESS);
    testutil::writeFile(dir.file("d"), "data");
    ASSERT_EQ(qim_package_add_part_file(pkg.get(), 4, 0, dir.file("d").c_str(), nullptr), ZEL_SUCCESS);
    std::remove(dir.file("d").c_str());
    FILE* f = std::fopen(dir.file("out").c_str(), "w+b");
    testing::internal::CaptureStderr();
    EXPECT_EQ(qim_package_write(pkg.get(), f), ZEL_INVALIDPARAMETER);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot read part data from"), std::string::npos);
    std::fclose(f);
}

TEST(Writer, Version2LoadsAndItsSumFollowsTheRule) {
    testutil::TempDir dir;
    Built b = build(dir, kTwoParts, {}, qim_package_write_v2);
    ASSERT_EQ(b.file.size(), 28u + 24 + 1024);
    EXPECT_EQ(get32(b.file, 20), v2_sum(b.file));
    EXPECT_EQ(b.pkg->header->checksum, v2_sum(b.file));
    LoadResult r = load_bytes(dir, b.file, "v2.qim");
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    EXPECT_EQ(qim_package_get_version(r.pkg.get()), 2u);
    EXPECT_EQ(r.pkg->models->part_mask, 0x3u);
}

TEST(Writer, Version1LayoutIsRefusedByTheReader) {
    testutil::TempDir dir;
    Built b = build(dir, kTwoParts, {}, write_v1);
    ASSERT_EQ(b.file.size(), 24u + 24 + 1024);
    EXPECT_EQ(get32(b.file, 4), 48u);
    EXPECT_EQ(get32(b.file, 8), 1u);
    EXPECT_EQ(get32(b.file, 20), 2u);
    EXPECT_EQ(get32(b.file, 24 + 12 + 4), 1000u);  // second entry's offset
    EXPECT_EQ(Bytes(b.file.begin() + 48, b.file.begin() + 1048), kTwoParts[0].data);
    LoadResult r = load_bytes(dir, b.file, "v1.qim");
    EXPECT_EQ(r.rc, ZEL_VERSION);
    EXPECT_EQ(r.err, "unsupported qim version number: 1/0x1\n");
}

TEST(Builder, ModelOperations) {
    PackagePtr pkg = new_package();
    const qim_id a = id_text("A"), b = id_text("B");
    ASSERT_EQ(qim_package_add_model(pkg.get(), &a), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_add_model(pkg.get(), &a), ZEL_INVALIDDATA);
    EXPECT_EQ(qim_package_get_num_models(pkg.get()), 1);
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &a, 32), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &a, 31), ZEL_SUCCESS);
    EXPECT_EQ(pkg->models->part_mask, 0x80000000u);
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &b, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(qim_package_set_model_id(pkg.get(), &b), ZEL_INVALIDDATA);  // not all zero
    ASSERT_EQ(qim_package_add_model(pkg.get(), &b), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_remove_model(pkg.get(), &a), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_remove_model(pkg.get(), &a), ZEL_INVALIDPARAMETER);
    ASSERT_EQ(qim_package_get_num_models(pkg.get()), 1);
    EXPECT_TRUE(qim_id_equal(&pkg->models->model_id, &b));

    PackagePtr one = new_package();
    ASSERT_EQ(qim_package_add_model(one.get(), &QIM_MODEL_ID_ANY), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_set_model_id(one.get(), &a), ZEL_SUCCESS);
    EXPECT_TRUE(qim_id_equal(&one->models->model_id, &a));
    ASSERT_EQ(qim_package_add_model(one.get(), &QIM_MODEL_ID_ANY), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_set_model_id(one.get(), &b), ZEL_INVALIDDATA);  // two entries
}

TEST(Builder, HeaderAndParts) {
    testutil::TempDir dir;
    PackagePtr pkg = new_package();
    EXPECT_EQ(qim_package_set_product_version(pkg.get(), 5), ZEL_INVALIDSTATE);
    ASSERT_EQ(qim_package_init_header(pkg.get(), 7, 1, &QIM_MFGC_ID_ANY), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_init_header(pkg.get(), 8, 1, &QIM_MFGC_ID_ANY), ZEL_INVALIDSTATE);
    EXPECT_EQ(pkg->header->device_code, 7u);
    EXPECT_EQ(qim_package_add_part_file(pkg.get(), 1, 0, dir.file("none").c_str(), nullptr),
              ZEL_INVALIDPARAMETER);
    testutil::writeBytes(dir.file("big"), std::vector<unsigned char>(10000, 1));  // several chunks
    ASSERT_EQ(qim_package_add_part_file(pkg.get(), 1, 0, dir.file("big").c_str(), nullptr), ZEL_SUCCESS);
    EXPECT_EQ(pkg->parts->size, 10000u);
}

}  // namespace
