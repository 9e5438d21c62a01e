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

// The product reads only the app and manf sections: each resolves where its
// link points, and a missing app link or a link past the record leaves null.
TEST(ResolveSections, AppAndManf) {
    auto rec = std::make_unique<cap_record>();
    std::memset(rec->data, 0, sizeof rec->data);
    rec->data[8] = 16;
    put16(rec->data + 10, 1500);
    put16(rec->data + 14, 100), put16(rec->data + 128, 600);  // app link at 14, manf link at app + 28
    cap_resolve_sections(rec.get());
    EXPECT_EQ(rec->sections[CAP_REF_APP], rec->data + 100);
    EXPECT_EQ(rec->sections[CAP_REF_MANF], rec->data + 600);  // 600 + 336 fits in 1500
    put16(rec->data + 10, 900);
    cap_resolve_sections(rec.get());
    EXPECT_EQ(rec->sections[CAP_REF_MANF], nullptr);
    put16(rec->data + 14, 0);
    cap_resolve_sections(rec.get());
    EXPECT_EQ(rec->sections[CAP_REF_APP], nullptr);
    EXPECT_EQ(cap_get_app_section(rec->data), nullptr);
}

TEST(Capu, ReadsOrPassesOver) {
    const struct { const char* name; uint8_t version; void (*change)(Bytes&); bool passes; } cases[] = {
        {"Version16", 16, no_change, true},
        {"Version17", 17, no_change, true},
        {"Version17BadCrc", 17, [](Bytes& b) { b[324 + 40] ^= 1; }, false},
        {"Version16IgnoresCrc", 16, [](Bytes& b) { b[324 + 12] ^= 1; }, true},
        {"WrongMagic", 16, [](Bytes& b) { b[324] = 'W'; }, false},
        {"Length4097", 16, [](Bytes& b) { put16(&b[324 + 10], 4097), b.resize(324 + 4097, 0); }, false},
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
