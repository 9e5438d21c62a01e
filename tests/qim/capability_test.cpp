#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

#include "qim/capability.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

std::unique_ptr<cap_record> built(uint8_t version, const char* mfgc = "MFGC0001",
                                  const char* model = "MODEL001") {
    auto rec = std::make_unique<cap_record>();
    cap_identity id{version, id_text(mfgc), id_text(model), "Example Manufacturing", "Example Board"};
    EXPECT_EQ(cap_build_record(rec.get(), &id), ZEL_SUCCESS);
    return rec;
}

Bytes record_bytes(const cap_record& rec) {
    const std::size_t len = std::size_t{rec.data[10]} << 8 | rec.data[11];
    return Bytes(rec.data, rec.data + len);
}

void write(const std::string& path, const Bytes& b) {
    testutil::writeBytes(path, std::vector<unsigned char>(b.begin(), b.end()));
}

// The identity reading of the upgrade flow, done here on the open stream.
bool read_identity(FILE* f, const uint8_t* header, qim_id* mfgc, qim_id* model) {
    uint8_t app[CAP_APP_SECTION_SIZE];
    if (std::fseek(f, header[14] << 8 | header[15], SEEK_SET) != 0 ||
        std::fread(app, 1, sizeof app, f) != sizeof app || header[8] < 12) {
        return false;
    }
    const int manf_link = app[28] << 8 | app[29];
    uint8_t manf[CAP_MANF_SECTION_SIZE];
    if (manf_link == 0 || std::fseek(f, manf_link, SEEK_SET) != 0 ||
        std::fread(manf, 1, sizeof manf, f) != sizeof manf) {
        return false;
    }
    std::copy(manf + 4, manf + 12, mfgc->bytes);
    std::copy(manf + 12, manf + 20, model->bytes);
    return true;
}

struct OpenCase {
    const char* name;
    uint8_t version;
    std::function<void(Bytes&)> change;
    std::size_t partition_size;  // 0: the file is the record alone
    zel_error_t rc;
    bool marker;
};

class Open : public testing::TestWithParam<OpenCase> {};

TEST_P(Open, CrcThenMarkerThenMagic) {
    const OpenCase& c = GetParam();
    testutil::TempDir dir;
    Bytes b = record_bytes(*built(c.version));
    c.change(b);
    if (c.partition_size > b.size()) b.resize(c.partition_size, 0xff);
    write(dir.file("capability"), b);
    FILE* f = nullptr;
    uint8_t header[CAP_HEADER_SIZE] = {};
    const std::string marker = dir.file("crc_ok");
    EXPECT_EQ(cap_open_with_marker(&f, header, dir.file("capability").c_str(), marker.c_str()), c.rc);
    EXPECT_EQ(testutil::fileExists(marker), c.marker);
    if (c.rc != ZEL_SUCCESS) {
        EXPECT_EQ(f, nullptr);
        return;
    }
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::ftell(f), 20);
    qim_id mfgc{}, model{};
    const bool found = read_identity(f, header, &mfgc, &model);
    std::fclose(f);
    if (c.version < 12) {
        EXPECT_FALSE(found);  // the upgrade flow stops after the app section
        return;
    }
    ASSERT_TRUE(found);
    const qim_id want_mfgc = id_text("MFGC0001"), want_model = id_text("MODEL001");
    EXPECT_TRUE(qim_id_equal(&mfgc, &want_mfgc));
    EXPECT_TRUE(qim_id_equal(&model, &want_model));
}

void no_change(Bytes&) {}
void break_crc(Bytes& b) { b[19] ^= 1; }
void break_magic_keep_crc(Bytes& b) {
    b[0] = 'X';
    put32(b, 16, 0);
    put32(b, 16, zcrc(b.data(), b.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Records, Open,
    testing::Values(
        OpenCase{"Version11", 11, no_change, 0, ZEL_SUCCESS, true},
        OpenCase{"Version16AnyCrc", 16, break_crc, 0, ZEL_SUCCESS, true},
        OpenCase{"Version17RightCrc", 17, no_change, 0, ZEL_SUCCESS, true},
        OpenCase{"Version17InPartition", 17, no_change, 65536, ZEL_SUCCESS, true},
        OpenCase{"Version17WrongCrc", 17, break_crc, 0, ZEL_INVALIDDATA, false},
        OpenCase{"Version17WrongMagic", 17, break_magic_keep_crc, 0, ZEL_INVALIDDATA, true},
        OpenCase{"Version16WrongMagic", 16, [](Bytes& b) { b[7] = '!'; }, 0, ZEL_INVALIDDATA, true},
        OpenCase{"ShortFile", 11, [](Bytes& b) { b.resize(19); }, 0, ZEL_INVALIDDATA, false}),
    [](const testing::TestParamInfo<OpenCase>& i) { return std::string(i.param.name); });

TEST(Open, MissingFileMapsTheSystemError) {
    testutil::TempDir dir;
    FILE* f = nullptr;
    uint8_t header[CAP_HEADER_SIZE];
    EXPECT_EQ(cap_open_with_marker(&f, header, dir.file("absent").c_str(), dir.file("m").c_str()),
              ZEL_NOTFOUND);
    EXPECT_FALSE(testutil::fileExists(dir.file("m")));
}

// cap_verify_crc of a file holding `b`.
int verify_bytes(const testutil::TempDir& dir, const Bytes& b) {
    write(dir.file("cap"), b);
    FILE* f = std::fopen(dir.file("cap").c_str(), "r");
    EXPECT_NE(f, nullptr);
    const int rc = cap_verify_crc(f);
    std::fclose(f);
    return rc;
}

TEST(VerifyCrc, RecordOf2000BytesPasses) {
    testutil::TempDir dir;
    auto rec = built(17);
    rec->data[10] = 2000 >> 8;
    rec->data[11] = 2000 & 0xff;
    cap_update_crc(rec.get());
    Bytes b = record_bytes(*rec);
    ASSERT_EQ(b.size(), 2000u);
    EXPECT_EQ(get32(b, 16), [&] { Bytes z = b; put32(z, 16, 0); return zcrc(z.data(), z.size()); }());
    EXPECT_EQ(verify_bytes(dir, b), 0);  // reads of 1024 and 976 bytes
    b.resize(1500);                       // the same record cut short
    EXPECT_EQ(verify_bytes(dir, b), -1);
}

TEST(VerifyCrc, ShortVersion17RecordInsideALargerFileFails) {
    // The first read counts up to 1024 bytes: a 404-byte record followed by
    // more bytes fails, which is why the builder pads such records to 1024.
    testutil::TempDir dir;
    auto rec = built(17);
    rec->data[10] = 404 >> 8;
    rec->data[11] = 404 & 0xff;
    cap_update_crc(rec.get());
    Bytes b = record_bytes(*rec);
    EXPECT_EQ(verify_bytes(dir, b), 0);  // the record alone
    b.resize(4096, 0);
    EXPECT_EQ(verify_bytes(dir, b), -1);  // at the start of a partition
    EXPECT_EQ(record_bytes(*built(17)).size(), 1024u);
    EXPECT_EQ(record_bytes(*built(16)).size(), 404u);
}

struct ReadCase {
    const char* name;
    std::function<void(Bytes&)> change;
    const char* message;
};

class ReadRecord : public testing::TestWithParam<ReadCase> {};

TEST_P(ReadRecord, RefusesWithMessage) {
    testutil::TempDir dir;
    Bytes b = record_bytes(*built(16));
    GetParam().change(b);
    write(dir.file("cap"), b);
    FILE* f = std::fopen(dir.file("cap").c_str(), "r");
    auto rec = std::make_unique<cap_record>();
    testing::internal::CaptureStderr();
    EXPECT_EQ(cap_read_record(rec.get(), f), ZEL_INVALIDDATA);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().message);
    std::fclose(f);
}

INSTANTIATE_TEST_SUITE_P(
    Records, ReadRecord,
    testing::Values(
        ReadCase{"ShortHeader", [](Bytes& b) { b.resize(5); },
                 "Error reading header: only read 5 of 12 bytes\n"},
        ReadCase{"Version1", [](Bytes& b) { b[8] = 1; },
                 "Error: header version 1 < minimum supported version (2)\n"},
        ReadCase{"LengthBelowHeader", [](Bytes& b) { b[10] = 0, b[11] = 11; },
                 "Error: record length 11 < header length (20)\n"},
        ReadCase{"ShortData", [](Bytes& b) { b.resize(100); }, "Error: only read 88 of 392 bytes\n"},
        ReadCase{"AppLinkOutside", [](Bytes& b) { b[14] = 0x01, b[15] = 0x70; },
                 "Error: section at 368 lies outside the record (404 bytes)\n"},
        ReadCase{"ManfCutByLength", [](Bytes& b) { b[10] = 0x01, b[11] = 0x93; b.resize(403); },
                 "Error: section at 68 lies outside the record (403 bytes)\n"}),
    [](const testing::TestParamInfo<ReadCase>& i) { return std::string(i.param.name); });

// Every link set to a distinct section; each reference must land on it.
TEST(ResolveSections, All28References) {
    auto rec = std::make_unique<cap_record>();
    std::memset(rec->data, 0, sizeof rec->data);
    uint8_t* d = rec->data;
    auto link = [&](std::size_t at, uint16_t to) { d[at] = to >> 8, d[at + 1] = to & 0xff; };
    d[8] = 16;
    link(10, 4000);  // length
    link(12, 3000);  // header link 12
    link(14, 100);   // app section
    const std::pair<int, uint16_t> app_links[] = {
        {12, 200},  {14, 1200}, {16, 1210}, {18, 1220}, {20, 1230}, {22, 1240}, {24, 999},
        {26, 999},  {28, 600},  {30, 1270}, {32, 1280}, {34, 1290}, {36, 1300}, {38, 300},
        {40, 1310}, {42, 1320}, {44, 400},  {46, 500}};
    for (auto [at, to] : app_links) link(100 + at, to);
    link(200 + 12, 1400), link(200 + 14, 1410), link(200 + 16, 1420), link(200 + 22, 1430);
    link(300 + 8, 1500), link(300 + 10, 1510);
    link(400 + 4, 1600), link(400 + 6, 1610);
    link(500 + 2, 1700);
    const int expect[CAP_NUM_SECTIONS] = {0,    100,  200,  1400, 1290, 1280, 1300, 3000, 1410, 1430,
                                          1200, 1230, 1240, 1270, 1210, 1220, 1420, 600,  1310, 1320,
                                          300,  1500, 1510, 400,  1600, 1610, 500,  1700};
    cap_resolve_sections(rec.get());
    for (int i = 0; i < static_cast<int>(CAP_NUM_SECTIONS); ++i) {
        ASSERT_NE(rec->sections[i], nullptr) << i;
        EXPECT_EQ(rec->sections[i] - rec->data, expect[i]) << i;
    }
    // Without the app-12 section its four dependents are null; the rest stays.
    link(100 + 12, 0);
    cap_resolve_sections(rec.get());
    for (int i : {CAP_REF_APP_12, CAP_REF_APP_12_12, CAP_REF_APP_12_14, CAP_REF_APP_12_22,
                  CAP_REF_APP_12_16}) {
        EXPECT_EQ(rec->sections[i], nullptr) << i;
    }
    EXPECT_NE(rec->sections[CAP_REF_APP_46_2], nullptr);
    // Links past the record length leave their references null.
    link(10, 1500);
    cap_resolve_sections(rec.get());
    EXPECT_EQ(rec->sections[CAP_REF_APP_46_2], nullptr);
    EXPECT_EQ(rec->sections[CAP_REF_HEADER_12], nullptr);
    EXPECT_NE(rec->sections[CAP_REF_MANF], nullptr);  // 600 + 336 fits in 1500
    EXPECT_EQ(cap_get_app_section(rec->data), rec->data + 100);
    link(14, 0);
    EXPECT_EQ(cap_get_app_section(rec->data), nullptr);
}

TEST(ReadLength, Cases) {
    testutil::TempDir dir;
    uint32_t length = 7;
    write(dir.file("v17"), record_bytes(*built(17)));
    EXPECT_EQ(cap_read_length(dir.file("v17").c_str(), &length), 0);
    EXPECT_EQ(length, 1024u);
    write(dir.file("v16"), record_bytes(*built(16)));
    EXPECT_EQ(cap_read_length(dir.file("v16").c_str(), &length), 0);
    EXPECT_EQ(length, 0u);
    Bytes zero = record_bytes(*built(17));
    zero[10] = zero[11] = 0;
    write(dir.file("zero"), zero);
    EXPECT_EQ(cap_read_length(dir.file("zero").c_str(), &length), static_cast<int>(ZEL_INVALIDDATA));
    write(dir.file("short"), Bytes(19, 1));
    EXPECT_EQ(cap_read_length(dir.file("short").c_str(), &length), -1);
    EXPECT_EQ(cap_read_length(dir.file("absent").c_str(), &length), static_cast<int>(ZEL_NOTFOUND));
}

struct CapuCase {
    const char* name;
    uint8_t version;
    std::function<void(Bytes&)> change;
    bool passes;
};

class Capu : public testing::TestWithParam<CapuCase> {};

TEST_P(Capu, ReadsOrPassesOver) {
    const CapuCase& c = GetParam();
    Bytes b(2000);
    const qim_id model = id_text("CAPUMODL");
    b.resize(capu_build(b.data(), b.size(), c.version, &model, "Maker", "Board U"));
    ASSERT_EQ(b.size(), 324u + 304u);
    c.change(b);
    testutil::TempDir dir;
    write(dir.file("part"), b);
    FILE* f = std::fopen(dir.file("part").c_str(), "rb");
    capu_identity id{};
    EXPECT_EQ(capu_read_identity(f, b.size(), &id) == ZEL_SUCCESS, c.passes);
    std::fclose(f);
    if (c.passes) {
        EXPECT_TRUE(qim_id_equal(&id.model_id, &model));
        EXPECT_STREQ(id.mfgc_name, "Maker");
        EXPECT_STREQ(id.model_name, "Board U");
    }
}

void set_length(Bytes& b, uint16_t len) { b[324 + 10] = len >> 8, b[324 + 11] = len & 0xff; }

INSTANTIATE_TEST_SUITE_P(
    Parts, Capu,
    testing::Values(
        CapuCase{"Version16", 16, no_change, true},
        CapuCase{"Version17", 17, no_change, true},
        CapuCase{"Version17BadCrc", 17, [](Bytes& b) { b[324 + 40] ^= 1; }, false},
        CapuCase{"Version16IgnoresCrc", 16, [](Bytes& b) { b[324 + 12] ^= 1; }, true},
        CapuCase{"Version1", 1, no_change, false},
        CapuCase{"WrongMagic", 16, [](Bytes& b) { b[324] = 'W'; }, false},
        CapuCase{"Length4097", 16, [](Bytes& b) { set_length(b, 4097); b.resize(324 + 4097, 0); }, false},
        CapuCase{"LengthBeyondPart", 16, [](Bytes& b) { set_length(b, 400); }, false},
        CapuCase{"NoY", 16, [](Bytes& b) { b[324 + 18 + 12] = b[324 + 18 + 13] = 0; }, false},
        CapuCase{"YOutside", 16, [](Bytes& b) { b[324 + 18 + 13] = 40; }, false}),
    [](const testing::TestParamInfo<CapuCase>& i) { return std::string(i.param.name); });

}  // namespace
