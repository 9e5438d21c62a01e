#include <gtest/gtest.h>

#include "qim/names.h"
#include "qim/partition_map.h"
#include "qim/report.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

std::string report(const qim_package* pkg) {
    return capture_stream([&](FILE* f) { qim_package_fprint(pkg, f); });
}

PackagePtr parsed(const Bytes& b) {
    PackagePtr pkg = new_package();
    EXPECT_EQ(qim_package_parse_header(pkg.get(), b.data(), b.size() < 512 ? b.size() : 512, nullptr),
              ZEL_SUCCESS);
    return pkg;
}

TEST(Report, EmptyPackagePrintsOnlyTheCounts) {
    PackagePtr pkg = new_package();
    EXPECT_EQ(report(pkg.get()), "num parts 0\nnum models 0\n");
}

TEST(Report, Version3WithMasks) {
    V3Layout l;
    l.device_code = 40;
    l.product_version = 0x00010203;
    l.mfgc = qim_id{{'A', 'C', 'M', 'E', 0, 0xff, '~', ' '}};
    l.parts = {{1, 0x04020600, filled(100, 1)}, {2, 0x01020304, filled(20, 2)},
               {6, 0xff000001, filled(4, 3)}};
    l.models = {{id_text("none"), 0x0}, {id_text("M-5"), 0x5}, {id_hex("0102030405060708"), 0x9}};
    const Bytes b = make_v3(l);
    PackagePtr pkg = parsed(b);
    char ck[64];
    std::snprintf(ck, sizeof ck, "checksum: 0x%x\nheader_checksum: 0x%x\n\n", get32(b, 24), get32(b, 60));
    EXPECT_EQ(report(pkg.get()),
              "num parts 3\n"
              "num models 3\n"
              "device_code: tern (0x28)\n"
              "product_version: 0x00010203\n"
              "mfgc_id: 41434d4500ff7e20 ('ACME..~ ')\n"
              "\n"
              "qim file version: 3.1\n" +
                  std::string(ck) +
                  "part_id: image (0x1)\n"
                  "release_version: 4.2.6.0\n"
                  "part_seq_num: 0\n"
                  "offset: 0\n"
                  "size: 100\n"
                  "\n"
                  "part_id: fpga (0x2)\n"
                  "release_version: 1.2.3.4\n"
                  "part_seq_num: 1\n"
                  "offset: 100\n"
                  "size: 20\n"
                  "\n"
                  "part_id: boot (0x6)\n"
                  "release_version: 255.0.0.1\n"
                  "part_seq_num: 2\n"
                  "offset: 120\n"
                  "size: 4\n"
                  "\n"
                  "model_id: 6e6f6e6500000000 ('none....')\n"
                  "part_mask: 0x0\n"
                  "\n"
                  "model_id: 4d2d350000000000 ('M-5.....')\n"
                  "part_mask: 0x5 (0/image, 2/boot)\n"
                  "\n"
                  "model_id: 0102030405060708 ('........')\n"
                  "part_mask: 0x9 (0/image, 3/unknown)\n"
                  "\n");
}

TEST(Report, Version2AndUnknownKind) {
    const Bytes b = make_v2({{30, 0, filled(40, 1)}}, 99);
    char expect[1024];
    std::snprintf(expect, sizeof expect,
                  "num parts 1\n"
                  "num models 1\n"
                  "device_code: unknown (0x63)\n"
                  "product_version: 0x00000200\n"
                  "mfgc_id: 0000000000000000 ('........')\n"
                  "\n"
                  "qim file version: 2.0\n"
                  "checksum: 0x%x\n"
                  "header_checksum: 0x0\n"
                  "\n"
                  "part_id: unknown (0x1e)\n"
                  "release_version: 0.0.0.0\n"
                  "part_seq_num: 0\n"
                  "offset: 0\n"
                  "size: 40\n"
                  "\n"
                  "model_id: 0000000000000000 ('........')\n"
                  "part_mask: 0x1 (0/unknown)\n"
                  "\n",
                  get32(b, 20));
    // Parsing without a file name cannot sum the file, so load it for real.
    testutil::TempDir dir;
    LoadResult r = load_bytes(dir, b);
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    EXPECT_EQ(report(r.pkg.get()), expect);
}

TEST(Names, TablesAndLookups) {
    EXPECT_STREQ(part_id_names[28], "unknown");
    EXPECT_EQ(part_id_names[29], nullptr);
    EXPECT_EQ(devcode_names[47], nullptr);
    EXPECT_EQ(k_device_friendly_names[47], nullptr);
    EXPECT_STREQ(qim_part_id_name(0xFFFFFFFFu), "unknown");
    EXPECT_EQ(qim_part_id_from_name("cap2_manf"), 18u);
    EXPECT_EQ(qim_part_id_from_name("Image"), 28u);  // case counts
    EXPECT_STREQ(qim_device_code_name(47), "unknown");
    EXPECT_EQ(qim_device_code_from_name(qim_device_code_name(40)), 40u);
    EXPECT_STREQ(qim_device_friendly_name(1000), "Unknown");
    EXPECT_EQ(qim_device_code_from_model_id(nullptr), 0u);
    const qim_id unknown = id_text("Unknown");
    EXPECT_TRUE(qim_id_equal(&k_device_id_names[0][0], &unknown));
    // Every identifier leads back to its own code.
    for (uint32_t code = 1; code < QIM_DEVICE_CODE_COUNT; ++code) {
        for (const qim_id& id : k_device_id_names[code]) {
            if (!qim_id_is_any(&id)) {
                EXPECT_EQ(qim_device_code_from_model_id(&id), code);
            }
        }
    }
    int shared = 0;  // two pairs of codes share one display name
    for (uint32_t a = 1; a < QIM_DEVICE_CODE_COUNT; ++a)
        for (uint32_t b = a + 1; b < QIM_DEVICE_CODE_COUNT; ++b)
            shared += std::string(k_device_friendly_names[a]) == k_device_friendly_names[b];
    EXPECT_EQ(shared, 2);
}

TEST(Names, PartitionOfEachKind) {
    EXPECT_STREQ(qim_part_partition_name(12), "fpga");
    EXPECT_STREQ(qim_part_partition_name(3), "license");
    EXPECT_STREQ(qim_part_partition_name(7), "");
    EXPECT_STREQ(qim_part_partition_name(4096), "");
}

}  // namespace
