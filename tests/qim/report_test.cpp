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

TEST(Report, EmptyPackagePrintsOnlyTheCounts) {
    EXPECT_EQ(report(new_package().get()), "num parts 0\nnum models 0\n");
}

// Masks 0x0 (no list), 0x5 over kinds 1, 2 and 6, and bit 3 beyond the parts;
// an identifier with bytes that do not print.
TEST(Report, Version3WithMasks) {
    V3Layout l;
    l.product_version = 0x00010203;
    l.mfgc = qim_id{{'A', 'C', 'M', 'E', 0, 0xff, '~', ' '}};
    l.parts = {{1, 0x04020600, filled(100, 1)}, {2, 0x01020304, filled(20, 2)}, {6, 0xff000001, filled(4, 3)}};
    l.models = {{id_text("none"), 0x0}, {id_text("M-5"), 0x5}, {qim_id{{1, 2, 3, 4, 5, 6, 7, 8}}, 0x9}};
    const Bytes b = make_v3(l);
    PackagePtr pkg = new_package();
    ASSERT_EQ(qim_package_parse_header(pkg.get(), b.data(), b.size(), nullptr), ZEL_SUCCESS);
    char checksums[64];
    std::snprintf(checksums, sizeof checksums, "checksum: 0x%x\nheader_checksum: 0x%x\n\n", get32(b, 24),
                  get32(b, 60));
    EXPECT_EQ(report(pkg.get()),
              "num parts 3\nnum models 3\n"
              "device_code: tern (0x28)\nproduct_version: 0x00010203\n"
              "mfgc_id: 41434d4500ff7e20 ('ACME..~ ')\n\n"
              "qim file version: 3.1\n" +
                  std::string(checksums) +
                  "part_id: image (0x1)\nrelease_version: 4.2.6.0\npart_seq_num: 0\noffset: 0\nsize: 100\n\n"
                  "part_id: fpga (0x2)\nrelease_version: 1.2.3.4\npart_seq_num: 1\noffset: 100\nsize: 20\n\n"
                  "part_id: boot (0x6)\nrelease_version: 255.0.0.1\npart_seq_num: 2\noffset: 120\nsize: 4\n\n"
                  "model_id: 6e6f6e6500000000 ('none....')\npart_mask: 0x0\n\n"
                  "model_id: 4d2d350000000000 ('M-5.....')\npart_mask: 0x5 (0/image, 2/boot)\n\n"
                  "model_id: 0102030405060708 ('........')\npart_mask: 0x9 (0/image, 3/unknown)\n\n");
}

// The facts a version-2 file lacks, and a kind of 28 or more.
TEST(Report, Version2AndUnknownKind) {
    const Bytes b = make_v2({{30, 0, filled(40, 1)}}, 99);
    testutil::TempDir dir;  // the byte sum needs the file: load it for real
    LoadResult r = load_bytes(dir, b);
    ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    char expect[512];
    std::snprintf(expect, sizeof expect,
                  "num parts 1\nnum models 1\n"
                  "device_code: unknown (0x63)\nproduct_version: 0x00000200\n"
                  "mfgc_id: 0000000000000000 ('........')\n\n"
                  "qim file version: 2.0\nchecksum: 0x%x\nheader_checksum: 0x0\n\n"
                  "part_id: unknown (0x1e)\nrelease_version: 0.0.0.0\npart_seq_num: 0\noffset: 0\nsize: 40\n\n"
                  "model_id: 0000000000000000 ('........')\npart_mask: 0x1 (0/unknown)\n\n",
                  get32(b, 20));
    EXPECT_EQ(report(r.pkg.get()), expect);
}

// The lookups the tools use, at their bounds.
TEST(Names, LookupsAndTheirBounds) {
    EXPECT_STREQ(qim_part_id_name(29), "unknown");
    EXPECT_EQ(qim_part_id_from_name("cap2_manf"), 18u);
    EXPECT_EQ(qim_part_id_from_name("Image"), 28u);  // case counts
    EXPECT_EQ(qim_device_code_from_name(qim_device_code_name(40)), 40u);
    EXPECT_EQ(qim_device_code_from_name("no such device"), 0u);
    EXPECT_STREQ(qim_device_friendly_name(1000), "Unknown");
    EXPECT_STREQ(qim_part_partition_name(4096), "");
}

}  // namespace
