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

#include "qim/package.h"
#include "common/tempdir.h"

namespace qimtest {

using Bytes = std::vector<uint8_t>;

struct PackageDeleter {
    void operator()(qim_package* p) const { qim_package_free(p); }
};
using PackagePtr = std::unique_ptr<qim_package, PackageDeleter>;

inline PackagePtr new_package() {
    qim_package* p = nullptr;
    EXPECT_EQ(qim_package_create(&p), ZEL_SUCCESS);
    return PackagePtr(p);
}

inline void put32(Bytes& b, std::size_t off, uint32_t v) {
    if (b.size() < off + 4) b.resize(off + 4);
    b[off] = static_cast<uint8_t>(v >> 24);
    b[off + 1] = static_cast<uint8_t>(v >> 16);
    b[off + 2] = static_cast<uint8_t>(v >> 8);
    b[off + 3] = static_cast<uint8_t>(v);
}

inline uint32_t get32(const Bytes& b, std::size_t off) {
    return uint32_t{b[off]} << 24 | uint32_t{b[off + 1]} << 16 | uint32_t{b[off + 2]} << 8 | b[off + 3];
}

inline uint32_t zcrc(const uint8_t* p, std::size_t n) {
    return static_cast<uint32_t>(crc32(0L, p, static_cast<uInt>(n)));
}

inline qim_id id_hex(const char* hex16) {
    qim_id id{};
    qim_id_from_hex16(hex16, &id);
    return id;
}

inline qim_id id_text(const char* text) {
    qim_id id{};
    qim_id_from_text(&id, text);
    return id;
}

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
// beyond 16 are filled with 0xEE so tests see they are skipped.
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

// Recomputes the header CRC (minor != 0) and the file CRC of a v3 image.
inline void fix_v3(Bytes& b) {
    const uint32_t header_length = get32(b, 4);
    put32(b, 24, 0);
    if (get32(b, 12) != 0 && header_length >= 64 && header_length <= b.size()) {
        put32(b, 60, 0);
        put32(b, 60, zcrc(b.data(), header_length));
    }
    put32(b, 24, zcrc(b.data(), b.size()));
}

inline Bytes make_v3(const V3Layout& l) {
    Bytes b(64, 0);
    const uint32_t np = static_cast<uint32_t>(l.parts.size());
    const uint32_t nm = static_cast<uint32_t>(l.models.size());
    const uint32_t header_length = 64 + np * l.part_es + nm * l.model_es;
    b.assign(header_length, 0);
    b[0] = 'K', b[1] = 'O', b[2] = 'R', b[3] = 'V';
    put32(b, 4, header_length);
    put32(b, 8, 3);
    put32(b, 12, l.minor);
    put32(b, 16, l.device_code);
    put32(b, 20, l.product_version);
    std::copy(l.mfgc.bytes, l.mfgc.bytes + 8, b.begin() + 28);
    put32(b, 36, 64);
    put32(b, 40, np);
    put32(b, 44, l.part_es);
    put32(b, 48, 64 + np * l.part_es);
    put32(b, 52, nm);
    put32(b, 56, l.model_es);
    uint32_t offset = 0;
    for (uint32_t i = 0; i < np; ++i) {
        Bytes e(16, 0);
        put32(e, 0, l.parts[i].part_id);
        put32(e, 4, l.parts[i].release);
        put32(e, 8, offset);
        put32(e, 12, static_cast<uint32_t>(l.parts[i].data.size()));
        offset += static_cast<uint32_t>(l.parts[i].data.size());
        for (uint32_t k = 0; k < l.part_es; ++k) b[64 + i * l.part_es + k] = k < 16 ? e[k] : 0xEE;
    }
    const uint32_t mt = 64 + np * l.part_es;
    for (uint32_t i = 0; i < nm; ++i) {
        Bytes e(16, 0);
        std::copy(l.models[i].id.bytes, l.models[i].id.bytes + 8, e.begin());
        put32(e, 12, l.models[i].mask);
        for (uint32_t k = 0; k < l.model_es; ++k) b[mt + i * l.model_es + k] = k < 16 ? e[k] : 0xEE;
    }
    for (const PartSpec& p : l.parts) b.insert(b.end(), p.data.begin(), p.data.end());
    fix_v3(b);
    return b;
}

// The folded byte sum of an image without bytes 20..23.
inline uint32_t v2_sum(const Bytes& b) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        if (i < 20 || i > 23) sum += b[i];
    }
    return (sum >> 16) + (sum & 0xffff);
}

inline Bytes make_v2(const std::vector<PartSpec>& parts, uint32_t device_code = 40) {
    const uint32_t np = static_cast<uint32_t>(parts.size());
    Bytes b(28 + 12 * np, 0);
    b[0] = 'K', b[1] = 'O', b[2] = 'R', b[3] = 'V';
    put32(b, 4, 28 + 12 * np);
    put32(b, 8, 2);
    put32(b, 12, device_code);
    put32(b, 16, 0x00000200);
    put32(b, 24, np);
    uint32_t offset = 0;
    for (uint32_t i = 0; i < np; ++i) {
        put32(b, 28 + 12 * i, parts[i].part_id);
        put32(b, 32 + 12 * i, offset);
        put32(b, 36 + 12 * i, static_cast<uint32_t>(parts[i].data.size()));
        offset += static_cast<uint32_t>(parts[i].data.size());
    }
    for (const PartSpec& p : parts) b.insert(b.end(), p.data.begin(), p.data.end());
    if (b.size() < 64) b.resize(64, 0);  // readers refuse files under 64 bytes
    put32(b, 20, v2_sum(b));
    return b;
}

inline Bytes filled(std::size_t n, uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

struct LoadResult {
    PackagePtr pkg;
    zel_error_t rc;
    std::string err;
};

// Writes `bytes` to a file in `dir` and loads it, capturing stderr.
inline LoadResult load_bytes(const testutil::TempDir& dir, const Bytes& bytes,
                             const std::string& name = "pkg.qim") {
    const std::string path = dir.file(name);
    testutil::writeBytes(path, std::vector<unsigned char>(bytes.begin(), bytes.end()));
    LoadResult r{new_package(), 0, ""};
    testing::internal::CaptureStderr();
    r.rc = qim_package_load(r.pkg.get(), path.c_str());
    r.err = testing::internal::GetCapturedStderr();
    return r;
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
