#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <tuple>

#include "qim/capability.h"
#include "qim/compat_query.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

Bytes cap1_part(uint8_t version, const char* model, const char* mfgc_name, const char* model_name) {
    auto rec = std::make_unique<cap_record>();
    cap_identity id{17, id_text("ACME"), id_text(model), mfgc_name, model_name};
    EXPECT_EQ(cap_build_record(rec.get(), &id), ZEL_SUCCESS);
    rec->data[8] = version;  // the record reader does not test the CRC
    return Bytes(rec->data, rec->data + 1024);
}

Bytes version3_with_records() {
    V3Layout l;
    l.mfgc = id_text("ACME");
    Bytes capu(1000);
    const qim_id m2 = id_text("M2");
    capu.resize(capu_build(capu.data(), capu.size(), 17, &m2, "Acme Devices U", "Board Two"));
    l.parts = {{1, 0, filled(64, 1)}, {9, 0, cap1_part(17, "M1", "Acme Devices", "Board One")}, {14, 0, capu}};
    l.models = {{id_text("M1"), 0x3}, {id_text("M2"), 0x5}};
    return make_v3(l);
}

Bytes version2_plain() { return make_v2({{1, 0, filled(50, 1)}}); }
Bytes version2_record() { return make_v2({{9, 0, cap1_part(17, "M7", "Acme", "Seven")}, {2, 0, filled(8, 1)}}); }
Bytes version2_bad_record() { return make_v2({{9, 0, cap1_part(1, "M7", "Acme", "Seven")}}); }

TEST(CheckDevice, FlagsNamesAndModels) {
    // flags -1: no device given; model_names: the models list, "|" between names.
    const struct { const char* name; Bytes (*image)(); int flags; uint32_t code; const char* mfgc; const char* model;
                   zel_error_t rc; uint32_t known, matched, mismatched; const char* mfgc_name; const char* model_names;
                   const char* err; } cases[] = {
        // The capu part comes later and names the manufacturer last.
        {"Version3OneModel", version3_with_records, 7, 40, "ACME", "M1", 0, 7, 7, 0, "Acme Devices U", "Board One", ""},
        {"Version3AnyModel", version3_with_records, -1, 0, "", "", 0, 7, 0, 0, "Acme Devices U", "Board One|Board Two",
         ""},
        {"Version3UnknownModel", version3_with_records, 4, 0, "", "M9", 4, 3, 0, 0, "Acme Devices U", "", ""},
        {"OtherDeviceCode", version3_with_records, 1, 39, "", "", 4, 0, 0, 0, "", "", ""},
        {"OtherManufacturer", version3_with_records, 2, 0, "OTHER", "", 4, 0, 0, 0, "", "", ""},
        {"Version2WithoutRecord", version2_plain, 2, 0, "ACME", "", 0, 1, 0, 2, "", "", ""},
        {"Version2Record", version2_record, 6, 0, "ACME", "M7", 0, 7, 6, 0, "Acme", "Seven", ""},
        {"Version2UnreadableRecord", version2_bad_record, -1, 0, "", "", 0, 1, 0, 0, "", "",
         "Error: header version 1 < minimum supported version (2)\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::TempDir dir;
        LoadResult r = load_bytes(dir, c.image());
        ASSERT_EQ(r.rc, ZEL_SUCCESS) << r.err;
        const qim_device_info device{static_cast<uint32_t>(c.flags), c.code, id_text(c.mfgc), id_text(c.model)};
        qim_compat_info info;
        std::memset(&info, 0xAB, sizeof info);  // the query clears it first
        info.models = nullptr;
        EXPECT_EQ(stderr_of([&] {
                      EXPECT_EQ(qim_package_check_device(r.pkg.get(), c.flags < 0 ? nullptr : &device, &info), c.rc);
                  }),
                  c.err);
        EXPECT_EQ(std::make_tuple(info.known, info.matched, info.mismatched),
                  std::make_tuple(c.known, c.matched, c.mismatched));
        EXPECT_EQ(info.device_code, c.known & 1 ? 40u : 0u);
        const qim_id want_mfgc = id_text(c.known & 2 ? "ACME" : "");
        EXPECT_TRUE(qim_id_equal(&info.mfgc_id, &want_mfgc));
        EXPECT_STREQ(info.mfgc_name, c.mfgc_name);
        std::string names;
        for (const qim_compat_model* m = info.models; m != nullptr; m = m->next) {
            names += (names.empty() ? "" : "|") + std::string(m->model_name);
        }
        EXPECT_EQ(names, c.model_names);
        qim_compat_info_free_models(&info);
    }
}

}  // namespace
