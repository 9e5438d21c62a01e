#include "qim/crc32.h"

#include "qim/crc32_paths.h"

namespace {

// The byte-wise table: entry i is the register after feeding byte i into a
// zero register. Everything else here is derived from it.
struct ByteTable {
    uint32_t t[256];
    constexpr ByteTable() : t() {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int bit = 0; bit < 8; ++bit) {
                c = (c & 1u) ? (c >> 1) ^ CRC32_POLY_REFLECTED : c >> 1;
            }
            t[i] = c;
        }
    }
};

constexpr ByteTable kByte;

constexpr uint32_t byte_step(uint32_t crc, unsigned char byte) { return kByte.t[(crc ^ byte) & 0xffu] ^ (crc >> 8); }

// The portable path is "braided": the buffer is read as blocks of kBraids
// little-endian words, and word k of every block goes to its own running
// value, so kBraids independent chains keep the table loads busy where one
// chain would wait on the previous step. A chain that takes in a word must
// then skip the rest of the block, kBraidBytes - 4 bytes it does not see:
// its update is "xor the word in, then advance kBraidBytes zero bytes", which
// is linear in the 32-bit value and so a sum of table lookups. At the end the
// chains are fed, in order, into one value together with the last block.
//
// The lookups take 11, 11 and 10 bits of the value, not 8 bits four times:
// three loads per word instead of four, for 20 KiB of tables. Loads are what
// the board's 32-bit ARM spends this loop on; bench/ (--arm) compares the
// path with zlib's crc32 there.
constexpr std::size_t kBraids = 5;
constexpr std::size_t kBraidBytes = 4 * kBraids;

struct BraidTables {
    uint32_t low[2048], mid[2048], high[1024];  // bits 0-10, 11-21, 22-31
    constexpr BraidTables() : low(), mid(), high() {
        // The advance is linear: tabulate it for each of the 32 bits.
        uint32_t basis[32] = {};
        for (int bit = 0; bit < 32; ++bit) {
            uint32_t c = 1u << bit;
            for (std::size_t i = 0; i < kBraidBytes; ++i) c = byte_step(c, 0);
            basis[bit] = c;
        }
        for (uint32_t v = 0; v < 2048; ++v) {
            uint32_t l = 0, m = 0, h = 0;
            for (int bit = 0; bit < 11; ++bit) {
                if ((v >> bit & 1u) == 0) continue;
                l ^= basis[bit];
                m ^= basis[11 + bit];
                if (bit < 10) h ^= basis[22 + bit];
            }
            low[v] = l;
            mid[v] = m;
            if (v < 1024) high[v] = h;
        }
    }
};

constexpr BraidTables kBraid;

// Byte loads keep the code independent of host byte order; compilers turn
// them into one load on little-endian machines.
inline uint32_t load_le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// One chain's step: the word xored in, then kBraidBytes zero bytes.
inline uint32_t braid_step(uint32_t c, const unsigned char* p) {
    c ^= load_le32(p);
    return kBraid.low[c & 0x7ffu] ^ kBraid.mid[(c >> 11) & 0x7ffu] ^ kBraid.high[c >> 22];
}

inline uint32_t feed_word(uint32_t crc, uint32_t word) {
    crc ^= word;
    for (int i = 0; i < 4; ++i) crc = byte_step(crc, 0);
    return crc;
}

}  // namespace

const uint32_t crc32_table[256] = {
#define R(i) kByte.t[i]
#define R8(i) R(i), R((i) + 1), R((i) + 2), R((i) + 3), R((i) + 4), R((i) + 5), R((i) + 6), R((i) + 7)
#define R64(i) \
    R8(i), R8((i) + 8), R8((i) + 16), R8((i) + 24), R8((i) + 32), R8((i) + 40), R8((i) + 48), R8((i) + 56)
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
    return crc32_update_portable(crc, p, len);
}

uint32_t crc32_update_bytewise(uint32_t crc, const unsigned char* p, std::size_t len) {
    while (len-- > 0) crc = byte_step(crc, *p++);
    return crc;
}

uint32_t crc32_update_portable(uint32_t crc, const unsigned char* p, std::size_t len) {
    // Words are read from 4-byte boundaries, which some processors (and
    // emulators) load faster.
    const std::size_t head = (0u - reinterpret_cast<std::uintptr_t>(p)) & 3u;
    if (len < head + 2 * kBraidBytes) return crc32_update_bytewise(crc, p, len);
    crc = crc32_update_bytewise(crc, p, head);
    p += head;
    len -= head;

    // All blocks but the last go through the chains; the last is where the
    // chains come together.
    std::size_t blocks = len / kBraidBytes - 1;
    len -= blocks * kBraidBytes;
    uint32_t c0 = crc, c1 = 0, c2 = 0, c3 = 0, c4 = 0;
    for (; blocks > 0; --blocks, p += kBraidBytes) {
        c0 = braid_step(c0, p);
        c1 = braid_step(c1, p + 4);
        c2 = braid_step(c2, p + 8);
        c3 = braid_step(c3, p + 12);
        c4 = braid_step(c4, p + 16);
    }
    crc = feed_word(0, c0 ^ load_le32(p));
    crc = feed_word(crc, c1 ^ load_le32(p + 4));
    crc = feed_word(crc, c2 ^ load_le32(p + 8));
    crc = feed_word(crc, c3 ^ load_le32(p + 12));
    crc = feed_word(crc, c4 ^ load_le32(p + 16));
    return crc32_update_bytewise(crc, p + kBraidBytes, len - kBraidBytes);
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
