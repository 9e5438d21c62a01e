#include "qim/crc32.h"

#include "qim/crc32_paths.h"

namespace {

// Sixteen tables let the inner loop fold 16 bytes per step ("slicing"): table
// k gives the CRC contribution of a byte followed by k zero bytes. Table 0 is
// the classic byte-wise table that the library exports.
struct SliceTables {
    uint32_t t[16][256];
    constexpr SliceTables() : t() {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int bit = 0; bit < 8; ++bit) {
                c = (c & 1u) ? (c >> 1) ^ CRC32_POLY_REFLECTED : c >> 1;
            }
            t[0][i] = c;
        }
        for (int k = 1; k < 16; ++k) {
            for (uint32_t i = 0; i < 256; ++i) {
                uint32_t prev = t[k - 1][i];
                t[k][i] = (prev >> 8) ^ t[0][prev & 0xffu];
            }
        }
    }
};

constexpr SliceTables kTables;

// Long buffers are cut into blocks of four lanes that are folded at the same
// time: four independent dependency chains keep the table loads busy where
// one chain would wait on the previous step. A lane's CRC is moved past the
// lanes behind it by multiplying with x^(8 * kLane) modulo the polynomial,
// which is linear in the CRC and therefore four table lookups.
constexpr std::size_t kLane = 512;
constexpr std::size_t kLanes = 4;

struct LaneShiftTables {
    uint32_t t[4][256];
    constexpr LaneShiftTables() : t() {
        uint32_t basis[32] = {};
        for (int bit = 0; bit < 32; ++bit) {
            uint32_t c = 1u << bit;
            for (std::size_t i = 0; i < kLane; ++i) {
                c = kTables.t[0][c & 0xffu] ^ (c >> 8);  // one zero byte
            }
            basis[bit] = c;
        }
        for (int k = 0; k < 4; ++k) {
            for (uint32_t v = 0; v < 256; ++v) {
                uint32_t acc = 0;
                for (int bit = 0; bit < 8; ++bit) {
                    if (v >> bit & 1u) acc ^= basis[8 * k + bit];
                }
                t[k][v] = acc;
            }
        }
    }
};

constexpr LaneShiftTables kShift;

// Byte loads keep the code independent of host byte order; compilers turn
// them into one load on little-endian machines.
inline uint32_t load_le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline uint32_t shift_past_lane(uint32_t c) {
    const auto& s = kShift.t;
    return s[0][c & 0xff] ^ s[1][(c >> 8) & 0xff] ^ s[2][(c >> 16) & 0xff] ^ s[3][c >> 24];
}

// Eight bytes at once (slicing by 8), for the four-lane loop.
inline uint32_t step8(uint32_t crc, const unsigned char* p) {
    const auto& t = kTables.t;
    uint32_t a = load_le32(p) ^ crc;
    uint32_t b = load_le32(p + 4);
    return t[7][a & 0xff] ^ t[6][(a >> 8) & 0xff] ^ t[5][(a >> 16) & 0xff] ^ t[4][a >> 24] ^
           t[3][b & 0xff] ^ t[2][(b >> 8) & 0xff] ^ t[1][(b >> 16) & 0xff] ^ t[0][b >> 24];
}

// Sixteen bytes at once (slicing by 16), for what is left behind the lanes.
inline uint32_t step16(uint32_t crc, const unsigned char* p) {
    const auto& t = kTables.t;
    uint32_t a = load_le32(p) ^ crc;
    uint32_t b = load_le32(p + 4);
    uint32_t c = load_le32(p + 8);
    uint32_t d = load_le32(p + 12);
    return t[15][a & 0xff] ^ t[14][(a >> 8) & 0xff] ^ t[13][(a >> 16) & 0xff] ^ t[12][a >> 24] ^
           t[11][b & 0xff] ^ t[10][(b >> 8) & 0xff] ^ t[9][(b >> 16) & 0xff] ^ t[8][b >> 24] ^
           t[7][c & 0xff] ^ t[6][(c >> 8) & 0xff] ^ t[5][(c >> 16) & 0xff] ^ t[4][c >> 24] ^
           t[3][d & 0xff] ^ t[2][(d >> 8) & 0xff] ^ t[1][(d >> 16) & 0xff] ^ t[0][d >> 24];
}

}  // namespace

const uint32_t crc32_table[256] = {
#define R(i) kTables.t[0][i]
#define R8(i) R(i), R(i + 1), R(i + 2), R(i + 3), R(i + 4), R(i + 5), R(i + 6), R(i + 7)
#define R64(i) R8(i), R8(i + 8), R8(i + 16), R8(i + 24), R8(i + 32), R8(i + 40), R8(i + 48), R8(i + 56)
    R64(0), R64(64), R64(128), R64(192)
#undef R64
#undef R8
#undef R
};

uint32_t crc32_update(uint32_t crc, const void* buf, std::size_t len) {
    const unsigned char* p = static_cast<const unsigned char*>(buf);
    if (len >= 64 && crc32_clmul_available()) {
        std::size_t bulk = len & ~static_cast<std::size_t>(15);
        crc = crc32_clmul_fold(crc, p, bulk);
        p += bulk;
        len -= bulk;
    }
    return crc32_update_tables(crc, p, len);
}

uint32_t crc32_update_tables(uint32_t crc, const unsigned char* p, std::size_t len) {
    const auto& t = kTables.t;
    while (len >= kLanes * kLane) {
        uint32_t c0 = crc, c1 = 0, c2 = 0, c3 = 0;
        for (std::size_t i = 0; i < kLane; i += 8) {
            c0 = step8(c0, p + i);
            c1 = step8(c1, p + kLane + i);
            c2 = step8(c2, p + 2 * kLane + i);
            c3 = step8(c3, p + 3 * kLane + i);
        }
        crc = shift_past_lane(c0) ^ c1;
        crc = shift_past_lane(crc) ^ c2;
        crc = shift_past_lane(crc) ^ c3;
        p += kLanes * kLane;
        len -= kLanes * kLane;
    }
    while (len >= 16) {
        crc = step16(crc, p);
        p += 16;
        len -= 16;
    }
    while (len-- > 0) {
        crc = t[0][(crc ^ *p++) & 0xffu] ^ (crc >> 8);
    }
    return crc;
}

uint32_t crc32_compute(const void* buf, std::size_t len) {
    return ~crc32_update(CRC32_INIT, buf, len);
}

uint32_t crc_reflect(uint32_t value, unsigned n) {
    if (n > 32) {
        n = 32;
    }
    if (n <= 1) {
        return value & 1u;
    }
    uint32_t out = 0;
    for (unsigned i = 0; i < n; ++i) {
        out = (out << 1) | ((value >> i) & 1u);
    }
    return out;
}
