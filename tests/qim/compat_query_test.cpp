#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "qim/capability.h"
#include "qim/compat_query.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

Bytes cap1_part(const char* mfgc, const char* model, const char* mfgc_name, const char* model_name) {
    auto rec = std::make_unique<cap_record>();
    cap_identity id{17, id_text(mfgc), id_text(model), mfgc_name, model_name};
    EXPECT_EQ(cap_build_record(rec.get(), &id), ZEL_SUCCESS);
    return Bytes(rec->data, rec->data + 1024);
}

Bytes capu_part(const char* model, const char* mfgc_name, const char* model_name) {
    Bytes b(1000);
    const qim_id id = id_text(model);
    b.resize(capu_build(b.data(), b.size(), 17, &id, mfgc_name, model_name));
    return b;
}

struct Query {
    PackagePtr pkg;
    qim_compat_info info{};
    zel_error_t rc = 0;
    std::string err;  // what the query printed
    ~Query() { qim_compat_info_free_models(&info); }
};

std::unique_ptr<Query> ask(const testutil::TempDir& dir, const Bytes& image, const qim_device_info* device) {
    auto q = std::make_unique<Query>();
    LoadResult r = load_bytes(dir, image);
    EXPECT_EQ(r.rc, ZEL_SUCCESS) << r.err;
    q->pkg = std::move(r.pkg);
    std::memset(&q->info, 0xAB, sizeof q->info);  // the query clears it first
    q->info.models = nullptr;
    testing::internal::CaptureStderr();
    q->rc = qim_package_check_device(q->pkg.get(), device, &q->info);
    q->err = testing::internal::GetCapturedStderr();
    return q;
}

qim_device_info device(uint32_t flags, uint32_t code, const char* mfgc, const char* model) {
    return qim_device_info{flags, code, id_text(mfgc), id_text(model)};
}

Bytes version3_with_records() {
    V3Layout l;
    l.mfgc = id_text("ACME");
    l.parts = {{1, 0x04030100, filled(64, 1)},
               {9, 0, cap1_part("ACME", "M1", "Acme Devices", "Board One")},
               {14, 0, capu_part("M2", "Acme Devices U", "Board Two")}};
    l.models = {{id_text("M1"), 0x3}, {id_text("M2"), 0x5}};
    return make_v3(l);
}

TEST(CheckDevice, Version3MatchesAndNamesModels) {
    testutil::TempDir dir;
    const qim_device_info d = device(7, 40, "ACME", "M1");
    auto q = ask(dir, version3_with_records(), &d);
    ASSERT_EQ(q->rc, ZEL_SUCCESS);
    EXPECT_EQ(q->info.known, 7u);
    EXPECT_EQ(q->info.matched, 7u);
    EXPECT_EQ(q->info.mismatched, 0u);
    EXPECT_EQ(q->info.device_code, 40u);
    // The capu part comes later and names the manufacturer last.
    EXPECT_STREQ(q->info.mfgc_name, "Acme Devices U");
    ASSERT_NE(q->info.models, nullptr);
    EXPECT_STREQ(q->info.models->model_name, "Board One");
    EXPECT_EQ(q->info.models->next, nullptr);  // only M1 was asked for
}

TEST(CheckDevice, Version3AnyModelListsAllEntries) {
    testutil::TempDir dir;
    auto q = ask(dir, version3_with_records(), nullptr);
    ASSERT_EQ(q->rc, ZEL_SUCCESS);
    ASSERT_NE(q->info.models, nullptr);
    ASSERT_NE(q->info.models->next, nullptr);
    EXPECT_STREQ(q->info.models->next->model_name, "Board Two");
    EXPECT_EQ(q->info.matched, 0u);
}

TEST(CheckDevice, Version3UnknownModelIsRefused) {
    testutil::TempDir dir;
    const qim_device_info d = device(QIM_CHECK_MODEL_ID, 0, "", "M9");
    auto q = ask(dir, version3_with_records(), &d);
    EXPECT_EQ(q->rc, ZEL_INVALIDDATA);
    EXPECT_EQ(q->info.models, nullptr);
}

TEST(CheckDevice, OtherDeviceCodeOrManufacturerLeavesResultCleared) {
    testutil::TempDir dir;
    for (const qim_device_info& d : {device(1, 39, "", ""), device(2, 0, "OTHER", "")}) {
        auto q = ask(dir, version3_with_records(), &d);
        EXPECT_EQ(q->rc, ZEL_INVALIDDATA);
        EXPECT_EQ(q->info.known, 0u);
        EXPECT_EQ(q->info.device_code, 0u);
        EXPECT_EQ(q->info.mfgc_name[0], '\0');
    }
}

TEST(CheckDevice, Version2WithoutRecordLeavesManufacturerUnknown) {
    testutil::TempDir dir;
    const qim_device_info d = device(QIM_CHECK_MFGC_ID, 0, "ACME", "");
    auto q = ask(dir, make_v2({{1, 0, filled(50, 1)}}), &d);
    ASSERT_EQ(q->rc, ZEL_SUCCESS);
    EXPECT_EQ(q->info.mismatched, static_cast<uint32_t>(QIM_CHECK_MFGC_ID));
    EXPECT_EQ(q->info.models, nullptr);
    EXPECT_EQ(q->info.known, 1u);
}

TEST(CheckDevice, Version2RecordGivesManufacturerAndModel) {
    testutil::TempDir dir;
    const qim_device_info d = device(6, 0, "ACME", "M7");
    auto q = ask(dir, make_v2({{9, 0, cap1_part("ACME", "M7", "Acme", "Seven")}, {2, 0, filled(8, 1)}}), &d);
    ASSERT_EQ(q->rc, ZEL_SUCCESS);
    EXPECT_EQ(q->info.known, 7u);
    EXPECT_EQ(q->info.matched, 6u);
    const qim_id acme = id_text("ACME");
    EXPECT_TRUE(qim_id_equal(&q->info.mfgc_id, &acme));
    EXPECT_STREQ(q->info.mfgc_name, "Acme");
    ASSERT_NE(q->info.models, nullptr);
    EXPECT_STREQ(q->info.models->model_name, "Seven");
}

TEST(CheckDevice, UnreadableRecordIsPassedOverWithItsMessage) {
    testutil::TempDir dir;
    Bytes bad = cap1_part("ACME", "M7", "Acme", "Seven");
    bad[8] = 1;  // version 1: refused by the record reader
    auto q = ask(dir, make_v2({{9, 0, bad}}), nullptr);
    EXPECT_EQ(q->err, "Error: header version 1 < minimum supported version (2)\n");
    ASSERT_EQ(q->rc, ZEL_SUCCESS);
    EXPECT_EQ(q->info.models, nullptr);
}

}  // namespace
