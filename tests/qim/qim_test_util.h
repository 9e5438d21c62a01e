// Helpers for the package tests: raw package images laid out by hand (with
// zlib computing the checksums, independently of the library), package
// handles that free themselves, and stderr/stream capture.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/tempdir.h"
#include "qim/package.h"

namespace qimtest {

using Bytes = std::vector<uint8_t>;

using PackagePtr = std::unique_ptr<qim_package, void (*)(qim_package*)>;

inline PackagePtr new_package() {
    qim_package* p = nullptr;
    EXPECT_EQ(qim_package_create(&p), ZEL_SUCCESS);
    return PackagePtr(p, qim_package_free);
}

inline void put32(Bytes& b, std::size_t off, uint32_t v) {
    if (b.size() < off + 4) b.resize(off + 4);
    for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

inline uint32_t get32(const Bytes& b, std::size_t off) {
    return uint32_t{b[off]} << 24 | uint32_t{b[off + 1]} << 16 | uint32_t{b[off + 2]} << 8 | b[off + 3];
}

// zlib's CRC-32 of `b` with the four bytes at `zero_at` taken as zero.
inline uint32_t zcrc(Bytes b, std::size_t zero_at = SIZE_MAX) {
    if (zero_at != SIZE_MAX) put32(b, zero_at, 0);
    return static_cast<uint32_t>(crc32(0L, b.data(), static_cast<uInt>(b.size())));
}

inline qim_id id_text(const char* text) {
    qim_id id{};
    qim_id_from_text(&id, text);
    return id;
}

inline Bytes filled(std::size_t n, uint8_t seed) { return testutil::randomByteVector(n, seed); }

struct PartSpec {
    uint32_t part_id;
    uint32_t release;
    Bytes data;
};

struct ModelSpec {
    qim_id id;
    uint32_t mask;
};

// A version-3 image: 64-byte header, part table of `part_es`-byte entries,
// model table of `model_es`-byte entries, packed data. Bytes of an entry
// beyond 16 are 0xEE so tests see they are skipped.
struct V3Layout {
    std::vector<PartSpec> parts;
    std::vector<ModelSpec> models;
    uint32_t device_code = 40;
    uint32_t product_version = 0x01020304;
    qim_id mfgc{};
    uint32_t minor = 1;
    uint32_t part_es = 16;
    uint32_t model_es = 16;
};

// Two parts of 1000 and 24 bytes and one model: header_length 112, 1136 bytes in all.
inline V3Layout two_parts() {
    V3Layout l;
    l.parts = {{1, 0x04020600, filled(1000, 1)}, {2, 0x01000000, filled(24, 2)}};
    l.models = {{id_text("M1"), 0x3}};
    l.mfgc = id_text("ACME");
    l.product_version = 0x102;
    return l;
}

// Recomputes the header CRC (minor != 0) and the file CRC of a v3 image.
inline void fix_v3(Bytes& b) {
    const uint32_t header_length = get32(b, 4);
    put32(b, 24, 0);
    if (get32(b, 12) != 0 && header_length >= 64 && header_length <= b.size()) {
        put32(b, 60, zcrc(Bytes(b.begin(), b.begin() + header_length), 60));
    }
    put32(b, 24, zcrc(b));
}

inline void put_entry(Bytes& b, std::size_t at, uint32_t entry_size, const Bytes& e16) {
    for (uint32_t k = 0; k < entry_size; ++k) b[at + k] = k < 16 ? e16[k] : 0xEE;
}

inline Bytes make_v3(const V3Layout& l) {
    const auto np = static_cast<uint32_t>(l.parts.size()), nm = static_cast<uint32_t>(l.models.size());
    const uint32_t model_table = 64 + np * l.part_es, header_length = model_table + nm * l.model_es;
    Bytes b(header_length, 0);
    std::copy_n("KORV", 4, b.begin());
    const uint32_t fields[] = {header_length, 3, l.minor, l.device_code, l.product_version};
    for (int i = 0; i < 5; ++i) put32(b, 4 + 4 * i, fields[i]);
    std::copy_n(l.mfgc.bytes, 8, b.begin() + 28);
    const uint32_t tables[] = {64, np, l.part_es, model_table, nm, l.model_es};
    for (int i = 0; i < 6; ++i) put32(b, 36 + 4 * i, tables[i]);
    uint32_t offset = 0;
    for (uint32_t i = 0; i < np; ++i) {
        const auto size = static_cast<uint32_t>(l.parts[i].data.size());
        Bytes e(16, 0);
        put32(e, 0, l.parts[i].part_id), put32(e, 4, l.parts[i].release);
        put32(e, 8, offset), put32(e, 12, size);
        put_entry(b, 64 + i * l.part_es, l.part_es, e);
        offset += size;
    }
    for (uint32_t i = 0; i < nm; ++i) {
        Bytes e(l.models[i].id.bytes, l.models[i].id.bytes + 8);
        put32(e, 12, l.models[i].mask);
        put_entry(b, model_table + i * l.model_es, l.model_es, e);
    }
    for (const PartSpec& p : l.parts) b.insert(b.end(), p.data.begin(), p.data.end());
    fix_v3(b);
    return b;
}

// The folded byte sum of an image without bytes 20..23.
inline uint32_t v2_sum(const Bytes& b) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < b.size(); ++i) sum += (i < 20 || i > 23) ? b[i] : 0;
    return (sum >> 16) + (sum & 0xffff);
}

inline Bytes make_v2(const std::vector<PartSpec>& parts, uint32_t device_code = 40) {
    const auto np = static_cast<uint32_t>(parts.size());
    Bytes b(28 + 12 * np, 0);
    std::copy_n("KORV", 4, b.begin());
    const uint32_t fields[] = {28 + 12 * np, 2, device_code, 0x200, 0, np};
    for (int i = 0; i < 6; ++i) put32(b, 4 + 4 * i, fields[i]);
    uint32_t offset = 0;
    for (uint32_t i = 0; i < np; ++i) {
        const auto size = static_cast<uint32_t>(parts[i].data.size());
        put32(b, 28 + 12 * i, parts[i].part_id), put32(b, 32 + 12 * i, offset), put32(b, 36 + 12 * i, size);
        offset += size;
    }
    for (const PartSpec& p : parts) b.insert(b.end(), p.data.begin(), p.data.end());
    if (b.size() < 64) b.resize(64, 0);  // readers refuse files under 64 bytes
    put32(b, 20, v2_sum(b));
    return b;
}

// What a callback prints on stderr.
template <typename F>
std::string stderr_of(F&& run) {
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

struct LoadResult {
    PackagePtr pkg;
    zel_error_t rc;
    std::string err;
};

// Writes `bytes` to a file in `dir` and loads it, capturing stderr.
inline LoadResult load_bytes(const testutil::TempDir& dir, const Bytes& bytes,
                             const std::string& name = "pkg.qim") {
    testutil::writeBytes(dir.file(name), bytes);
    LoadResult r{new_package(), 0, ""};
    r.err = stderr_of([&] { r.rc = qim_package_load(r.pkg.get(), dir.file(name).c_str()); });
    return r;
}

// What `use` returns when given a stream open for reading on a file holding `bytes`.
template <typename F>
auto on_file(const Bytes& bytes, F&& use) {
    testutil::TempDir dir;
    testutil::writeBytes(dir.file("f"), bytes);
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(dir.file("f").c_str(), "rb"), std::fclose);
    return use(f.get());
}

// What a callback writes to a stream.
template <typename F>
std::string capture_stream(F&& write) {
    char* buf = nullptr;
    std::size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    write(f);
    std::fclose(f);
    std::string s(buf, len);
    std::free(buf);
    return s;
}

}  // namespace qimtest
