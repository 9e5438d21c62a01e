#include <gtest/gtest.h>

#include <tuple>

#include "qim/package_builder.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

// A package of `parts` (each in its own file "part<i>" of `dir`) and `models`.
PackagePtr assemble(const testutil::TempDir& dir, const std::vector<PartSpec>& parts,
                    const std::vector<ModelSpec>& models, uint32_t product_version = 0x102) {
    PackagePtr pkg = new_package();
    const qim_id mfgc = id_text("ACME");
    EXPECT_EQ(qim_package_init_header(pkg.get(), 40, product_version, &mfgc), ZEL_SUCCESS);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const std::string path = dir.file("part" + std::to_string(i));
        testutil::writeBytes(path, parts[i].data);
        int seq = -1;
        EXPECT_EQ(qim_package_add_part_file(pkg.get(), parts[i].part_id, parts[i].release, path.c_str(), &seq), 0u);
        EXPECT_EQ(seq, static_cast<int>(i));
    }
    for (const ModelSpec& m : models) {
        EXPECT_EQ(qim_package_add_model(pkg.get(), &m.id), ZEL_SUCCESS);
        for (int bit = 0; bit < 32; ++bit) {
            if (m.mask >> bit & 1u) qim_package_set_model_part(pkg.get(), &m.id, bit);
        }
    }
    return pkg;
}

struct Written {
    zel_error_t rc;
    Bytes file;
    std::string err;
};

template <typename Writer>
Written write(const testutil::TempDir& dir, qim_package* pkg, Writer writer) {
    FILE* f = std::fopen(dir.file("out.qim").c_str(), "w+b");
    Written w{0, {}, stderr_of([&] { w.rc = writer(pkg, f); })};
    std::fclose(f);
    w.file = testutil::readBytes(dir.file("out.qim"));
    return w;
}

const std::vector<PartSpec> kTwoParts = two_parts().parts;

// Writer and reader agree with an independent layout, field by field.
TEST(Writer, Version3RoundTripThroughTheReader) {
    testutil::TempDir dir;
    const V3Layout l = two_parts();
    PackagePtr built = assemble(dir, l.parts, l.models);
    Written w = write(dir, built.get(), qim_package_write);
    ASSERT_EQ(w.rc, ZEL_SUCCESS) << w.err;
    ASSERT_EQ(w.file, make_v3(l));
    EXPECT_EQ(built->header->checksum, get32(w.file, 24));
    EXPECT_EQ(built->header->header_checksum, get32(w.file, 60));

    LoadResult r = load_bytes(dir, w.file);
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    qim_package* pkg = r.pkg.get();
    const qim_header& h = *pkg->header;
    EXPECT_EQ(std::make_tuple(qim_package_get_version(pkg), h.version_minor, qim_package_get_device_code(pkg),
                              qim_package_get_product_version(pkg), h.checksum, h.header_checksum),
              std::make_tuple(3u, 1u, 40u, 0x102u, get32(w.file, 24), get32(w.file, 60)));
    EXPECT_TRUE(qim_id_equal(qim_package_get_mfgc_id(pkg), &l.mfgc));
    EXPECT_EQ(std::make_tuple(qim_package_get_num_parts(pkg), qim_package_get_num_models(pkg),
                              qim_package_get_total_size(pkg)), std::make_tuple(2, 1, uint64_t{1024}));
    uint32_t kind = 99, size = 0, release = 0;
    uint64_t position = 0;
    const char* path = nullptr;
    for (int seq : {1, 2}) {  // 2, the part count, is no part: the outputs stay as they were
        EXPECT_EQ(qim_package_get_part_info(pkg, seq, &kind, &path, &position, &size, &release), seq == 1 ? 0u : 3u);
        EXPECT_EQ(std::make_tuple(kind, size, release, position),
                  std::make_tuple(2u, 24u, 0x01000000u, uint64_t{1112}));
        EXPECT_EQ(std::string(path), dir.file("pkg.qim"));
    }
    const std::string out = capture_stream([&](FILE* f) { EXPECT_EQ(qim_package_extract_part(pkg, 1, f), 0u); });
    EXPECT_EQ(Bytes(out.begin(), out.end()), kTwoParts[1].data);
}

TEST(Writer, DataChangesOnlyTheFileChecksumHeaderChangesBoth) {
    testutil::TempDir a, b, c;
    std::vector<PartSpec> changed = kTwoParts;
    changed[1].data[5] ^= 0x10;
    PackagePtr base = assemble(a, kTwoParts, {}), data = assemble(b, changed, {});
    PackagePtr header = assemble(c, kTwoParts, {}, 0x103);
    for (auto* p : {&base, &data, &header}) ASSERT_EQ(write(a, p->get(), qim_package_write).rc, 0u);
    EXPECT_EQ(data->header->header_checksum, base->header->header_checksum);
    EXPECT_NE(data->header->checksum, base->header->checksum);
    EXPECT_NE(header->header->header_checksum, base->header->header_checksum);
    EXPECT_NE(header->header->checksum, base->header->checksum);
}

TEST(Writer, RefusalsAreReported) {
    testutil::TempDir dir;
    std::vector<ModelSpec> models;  // 20 parts and 10 models: more than the 512 bytes a reader takes
    for (uint8_t i = 0; i < 10; ++i) models.push_back({qim_id{{'M', i}}, 1});
    PackagePtr many = assemble(dir, std::vector<PartSpec>(20, {4, 0, {1}}), models);
    Written w = write(dir, many.get(), qim_package_write);
    EXPECT_EQ(w.rc, ZEL_INVALIDDATA);
    EXPECT_NE(w.err.find("544 header bytes"), std::string::npos) << w.err;
    PackagePtr one = assemble(dir, {{4, 0, {1, 2}}}, {});
    std::remove(dir.file("part0").c_str());  // a part file gone before the write
    w = write(dir, one.get(), qim_package_write);
    EXPECT_EQ(w.rc, ZEL_INVALIDPARAMETER);
    EXPECT_NE(w.err.find("cannot read part data from"), std::string::npos) << w.err;
}

TEST(Writer, Version2RoundTripThroughTheReader) {
    testutil::TempDir dir;
    const std::vector<PartSpec> parts = {{1, 0, filled(1000, 1)}, {2, 0, filled(24, 2)}};
    PackagePtr built = assemble(dir, parts, {}, 0x200);
    Written w = write(dir, built.get(), qim_package_write_v2);
    ASSERT_EQ(w.rc, ZEL_SUCCESS) << w.err;
    ASSERT_EQ(w.file, make_v2(parts));
    EXPECT_EQ(built->header->checksum, v2_sum(w.file));
    LoadResult r = load_bytes(dir, w.file);
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    EXPECT_EQ(qim_package_get_version(r.pkg.get()), 2u);
    EXPECT_EQ(r.pkg->models->part_mask, 0x3u);
}

TEST(Builder, RefusesDuplicatesRepeatsAndMissingFiles) {
    testutil::TempDir dir;
    PackagePtr pkg = new_package();
    const qim_id a = id_text("A"), b = id_text("B");
    ASSERT_EQ(qim_package_init_header(pkg.get(), 7, 1, &QIM_MFGC_ID_ANY), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_init_header(pkg.get(), 8, 1, &QIM_MFGC_ID_ANY), ZEL_INVALIDSTATE);
    ASSERT_EQ(qim_package_add_model(pkg.get(), &a), ZEL_SUCCESS);
    EXPECT_EQ(qim_package_add_model(pkg.get(), &a), ZEL_INVALIDDATA);
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &a, 32), ZEL_SUCCESS);  // beyond the mask: ignored
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &a, 31), ZEL_SUCCESS);
    EXPECT_EQ(pkg->models->part_mask, 0x80000000u);
    EXPECT_EQ(qim_package_set_model_part(pkg.get(), &b, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(qim_package_add_part_file(pkg.get(), 1, 0, dir.file("none").c_str(), nullptr), ZEL_INVALIDPARAMETER);
}

}  // namespace
