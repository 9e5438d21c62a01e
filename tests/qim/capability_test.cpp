#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "qim/capability.h"
#include "qim_test_util.h"

namespace {

using namespace qimtest;

std::unique_ptr<cap_record> built(uint8_t version) {
    auto rec = std::make_unique<cap_record>();
    cap_identity id{version, id_text("MFGC0001"), id_text("MODEL001"), "Example Manufacturing", "Example Board"};
    EXPECT_EQ(cap_build_record(rec.get(), &id), ZEL_SUCCESS);
    return rec;
}

Bytes record_bytes(const cap_record& rec) {
    return Bytes(rec.data, rec.data + (std::size_t{rec.data[10]} << 8 | rec.data[11]));
}

void put16(uint8_t* at, uint16_t v) { at[0] = v >> 8, at[1] = v & 0xff; }

void no_change(Bytes&) {}
void break_crc(Bytes& b) { b[19] ^= 1; }

// The CRC is tested before the marker is created, the magic after.
TEST(Open, CrcThenMarkerThenMagic) {
    // change null: no file at all; partition_size 0: the file is the record alone.
    const struct { const char* name; uint8_t version; void (*change)(Bytes&); std::size_t partition_size;
                   zel_error_t rc; bool marker; } cases[] = {
        {"Version11", 11, no_change, 0, ZEL_SUCCESS, true},
        {"Version16AnyCrc", 16, break_crc, 0, ZEL_SUCCESS, true},
        {"Version17RightCrc", 17, no_change, 0, ZEL_SUCCESS, true},
        {"Version17InPartition", 17, no_change, 65536, ZEL_SUCCESS, true},
        {"Version17WrongCrc", 17, break_crc, 0, ZEL_INVALIDDATA, false},
        {"Version17WrongMagic", 17, [](Bytes& b) { b[0] = 'X', put32(b, 16, zcrc(b, 16)); }, 0, ZEL_INVALIDDATA, true},
        {"ShortFile", 11, [](Bytes& b) { b.resize(19); }, 0, ZEL_INVALIDDATA, false},
        {"MissingFileMapsTheSystemError", 11, nullptr, 0, ZEL_NOTFOUND, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::TempDir dir;
        Bytes b = record_bytes(*built(c.version));
        if (c.change != nullptr) {
            c.change(b);
            b.resize(std::max(b.size(), c.partition_size), 0xff);
            testutil::writeBytes(dir.file("capability"), b);
        }
        FILE* f = nullptr;
        uint8_t header[CAP_HEADER_SIZE] = {};
        EXPECT_EQ(cap_open_with_marker(&f, header, dir.file("capability").c_str(), dir.file("crc_ok").c_str()), c.rc);
        EXPECT_EQ(testutil::fileExists(dir.file("crc_ok")), c.marker);
        EXPECT_EQ(f != nullptr, c.rc == ZEL_SUCCESS);
        if (f == nullptr) continue;
        EXPECT_EQ(std::ftell(f), 20);
        std::fclose(f);
        EXPECT_EQ(Bytes(header, header + 20), Bytes(b.begin(), b.begin() + 20));
        // The IDs lie where the board reads them: app link at 14, manf link at
        // app + 28, the IDs at manf + 4 and manf + 12.
        const int app = b[14] << 8 | b[15], manf = b[app + 28] << 8 | b[app + 29];
        EXPECT_EQ(std::string(b.begin() + manf + 4, b.begin() + manf + 20), "MFGC0001MODEL001");
    }
}

// Every byte of the first read (up to 1024) counts and the count must equal
// the length: a 2000-byte record passes (reads of 1024 and 976) but not cut
// short; a 404-byte record passes alone but not at the start of a larger
// file, which is why the builder pads such records to 1024 bytes.
TEST(VerifyCrc, CountsTheFirstReadAgainstTheLength) {
    const struct { uint16_t length; std::size_t file_size; int rc; } cases[] = {
        {2000, 2000, 0}, {2000, 1500, -1}, {404, 404, 0}, {404, 4096, -1}};
    for (const auto& c : cases) {
        auto rec = built(17);
        put16(rec->data + 10, c.length);
        cap_update_crc(rec.get());
        Bytes b = record_bytes(*rec);
        EXPECT_EQ(get32(b, 16), zcrc(b, 16));
        b.resize(c.file_size, 0);
        EXPECT_EQ(on_file(b, cap_verify_crc), c.rc) << c.length << " in " << c.file_size;
    }
}

TEST(ReadRecord, RefusesWithMessage) {
    const struct { const char* name; void (*change)(Bytes&); const char* message; } cases[] = {
        {"ShortHeader", [](Bytes& b) { b.resize(5); }, "Error reading header: only read 5 of 12 bytes\n"},
        {"Version1", [](Bytes& b) { b[8] = 1; }, "Error: header version 1 < minimum supported version (2)\n"},
        {"LengthBelowHeader", [](Bytes& b) { put16(&b[10], 11); }, "Error: record length 11 < header length (20)\n"},
        {"ShortData", [](Bytes& b) { b.resize(100); }, "Error: only read 88 of 392 bytes\n"},
        {"AppLinkOutside", [](Bytes& b) { put16(&b[14], 368); },
         "Error: section at 368 lies outside the record (404 bytes)\n"},
        {"ManfCutByLength", [](Bytes& b) { put16(&b[10], 403), b.resize(403); },
         "Error: section at 68 lies outside the record (403 bytes)\n"}};
    for (const auto& c : cases) {
        Bytes b = record_bytes(*built(16));
        c.change(b);
        auto rec = std::make_unique<cap_record>();
        zel_error_t rc = 0;
        EXPECT_EQ(stderr_of([&] { rc = on_file(b, [&](FILE* f) { return cap_read_record(rec.get(), f); }); }),
                  c.message);
        EXPECT_EQ(rc, ZEL_INVALIDDATA) << c.name;
    }
}

// Every link leads to a distinct place; each of the 28 references, in their
// fixed order, must land on its own.
TEST(ResolveSections, All28References) {
    auto rec = std::make_unique<cap_record>();
    std::memset(rec->data, 0, sizeof rec->data);
    struct Link { int ref; uint16_t holder, at, to; };  // holder 0: the record header (whose start is ref 0)
    const Link links[] = {
        {CAP_REF_RECORD, 0, 0, 0},          {CAP_REF_APP, 0, 14, 100},          {CAP_REF_HEADER_12, 0, 12, 3000},
        {CAP_REF_APP_12, 100, 12, 200},     {CAP_REF_APP_14, 100, 14, 1200},    {CAP_REF_APP_16, 100, 16, 1210},
        {CAP_REF_APP_18, 100, 18, 1220},    {CAP_REF_APP_20, 100, 20, 1230},    {CAP_REF_APP_22, 100, 22, 1240},
        {CAP_REF_MANF, 100, 28, 600},       {CAP_REF_APP_30, 100, 30, 1270},    {CAP_REF_APP_32, 100, 32, 1280},
        {CAP_REF_APP_34, 100, 34, 1290},    {CAP_REF_APP_36, 100, 36, 1300},    {CAP_REF_APP_38, 100, 38, 300},
        {CAP_REF_APP_40, 100, 40, 1310},    {CAP_REF_APP_42, 100, 42, 1320},    {CAP_REF_APP_44, 100, 44, 400},
        {CAP_REF_APP_46, 100, 46, 500},     {CAP_REF_APP_12_12, 200, 12, 1400}, {CAP_REF_APP_12_14, 200, 14, 1410},
        {CAP_REF_APP_12_16, 200, 16, 1420}, {CAP_REF_APP_12_22, 200, 22, 1430}, {CAP_REF_APP_38_8, 300, 8, 1500},
        {CAP_REF_APP_38_10, 300, 10, 1510}, {CAP_REF_APP_44_4, 400, 4, 1600},   {CAP_REF_APP_44_6, 400, 6, 1610},
        {CAP_REF_APP_46_2, 500, 2, 1700}};
    rec->data[8] = 16;
    put16(rec->data + 10, 4000);
    for (const Link& l : links) put16(rec->data + l.holder + l.at, l.to);
    put16(rec->data + 124, 999), put16(rec->data + 126, 999);  // app links 24 and 26 are not resolved
    cap_resolve_sections(rec.get());
    for (const Link& l : links) EXPECT_EQ(rec->sections[l.ref], rec->data + l.to) << l.ref;
    // Without the app-12 section its dependents are null; links past the
    // record length leave their references null.
    put16(rec->data + 112, 0);
    put16(rec->data + 10, 1500);
    cap_resolve_sections(rec.get());
    for (int ref : {CAP_REF_APP_12, CAP_REF_APP_12_12, CAP_REF_APP_12_14, CAP_REF_APP_12_16, CAP_REF_APP_12_22,
                    CAP_REF_APP_46_2, CAP_REF_HEADER_12}) {
        EXPECT_EQ(rec->sections[ref], nullptr) << ref;
    }
    EXPECT_EQ(rec->sections[CAP_REF_MANF], rec->data + 600);  // 600 + 336 fits in 1500
    EXPECT_EQ(cap_get_app_section(rec->data), rec->data + 100);
    put16(rec->data + 14, 0);
    EXPECT_EQ(cap_get_app_section(rec->data), nullptr);
}

TEST(ReadLength, LengthOnlyFromVersion17) {
    testutil::TempDir dir;
    Bytes zero = record_bytes(*built(17));
    put16(&zero[10], 0);
    const struct { const char* name; Bytes bytes; int rc; uint32_t length; } cases[] = {
        {"v17", record_bytes(*built(17)), 0, 1024}, {"v16", record_bytes(*built(16)), 0, 0},
        {"zero", zero, ZEL_INVALIDDATA, 7},         {"short", Bytes(19, 1), -1, 7}};
    for (const auto& c : cases) {
        testutil::writeBytes(dir.file(c.name), c.bytes);
        uint32_t length = 7;
        EXPECT_EQ(cap_read_length(dir.file(c.name).c_str(), &length), c.rc) << c.name;
        EXPECT_EQ(length, c.length) << c.name;
    }
    uint32_t length = 7;
    EXPECT_EQ(cap_read_length(dir.file("absent").c_str(), &length), static_cast<int>(ZEL_NOTFOUND));
}

TEST(Capu, ReadsOrPassesOver) {
    const struct { const char* name; uint8_t version; void (*change)(Bytes&); bool passes; } cases[] = {
        {"Version16", 16, no_change, true},
        {"Version17", 17, no_change, true},
        {"Version17BadCrc", 17, [](Bytes& b) { b[324 + 40] ^= 1; }, false},
        {"Version16IgnoresCrc", 16, [](Bytes& b) { b[324 + 12] ^= 1; }, true},
        {"Version1", 1, no_change, false},
        {"WrongMagic", 16, [](Bytes& b) { b[324] = 'W'; }, false},
        {"Length4097", 16, [](Bytes& b) { put16(&b[324 + 10], 4097), b.resize(324 + 4097, 0); }, false},
        {"LengthBeyondPart", 16, [](Bytes& b) { put16(&b[324 + 10], 400); }, false},
        {"NoY", 16, [](Bytes& b) { put16(&b[324 + 18 + 12], 0); }, false},
        {"YOutside", 16, [](Bytes& b) { b[324 + 18 + 13] = 40; }, false}};
    const qim_id model = id_text("CAPUMODL");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes b(2000);
        b.resize(capu_build(b.data(), b.size(), c.version, &model, "Maker", "Board U"));
        ASSERT_EQ(b.size(), 324u + 304u);
        c.change(b);
        capu_identity id{};
        EXPECT_EQ(on_file(b, [&](FILE* f) { return capu_read_identity(f, b.size(), &id); }) == 0u, c.passes);
        EXPECT_EQ(qim_id_equal(&id.model_id, &model), c.passes);
        EXPECT_EQ(std::string(id.mfgc_name) + "/" + id.model_name, c.passes ? "Maker/Board U" : "/");
    }
}

}  // namespace
