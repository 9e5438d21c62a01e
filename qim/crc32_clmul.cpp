#include "qim/crc32_paths.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

// Folding with carry-less multiplication (the method of Intel's "Fast CRC
// computation for generic polynomials using PCLMULQDQ"): four 128-bit
// accumulators are folded forward 64 bytes at a time, then folded into one,
// reduced to 64 bits and brought to 32 bits by a Barrett reduction. The
// constants are x^k mod P for the bit-reflected polynomial 0xEDB88320.
namespace {

#define CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

CLMUL_TARGET inline __m128i load(const unsigned char* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

CLMUL_TARGET inline __m128i fold(__m128i acc, __m128i next, __m128i k) {
    __m128i lo = _mm_clmulepi64_si128(acc, k, 0x00);
    __m128i hi = _mm_clmulepi64_si128(acc, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

}  // namespace

bool crc32_clmul_available() {
    static const bool available =
        __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    return available;
}

CLMUL_TARGET uint32_t crc32_clmul_fold(uint32_t crc, const unsigned char* buf, std::size_t len) {
    const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);  // fold by 512 bits
    const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);  // fold by 128 bits
    const __m128i k5 = _mm_set_epi64x(0, 0x0163cd6124);               // 64 to 32 bits
    const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);  // P' and mu'
    const __m128i mask32 = _mm_setr_epi32(-1, 0, -1, 0);

    __m128i x1 = _mm_xor_si128(load(buf), _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m128i x2 = load(buf + 16);
    __m128i x3 = load(buf + 32);
    __m128i x4 = load(buf + 48);
    buf += 64;
    len -= 64;
    while (len >= 64) {
        x1 = fold(x1, load(buf), k1k2);
        x2 = fold(x2, load(buf + 16), k1k2);
        x3 = fold(x3, load(buf + 32), k1k2);
        x4 = fold(x4, load(buf + 48), k1k2);
        buf += 64;
        len -= 64;
    }
    x1 = fold(x1, x2, k3k4);
    x1 = fold(x1, x3, k3k4);
    x1 = fold(x1, x4, k3k4);
    while (len >= 16) {
        x1 = fold(x1, load(buf), k3k4);
        buf += 16;
        len -= 16;
    }

    // 128 to 64 bits, then 64 to 32 bits.
    x2 = _mm_clmulepi64_si128(x1, k3k4, 0x10);
    x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2);
    x2 = _mm_srli_si128(x1, 4);
    x1 = _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), k5, 0x00);
    x1 = _mm_xor_si128(x1, x2);

    // Barrett reduction.
    x2 = _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), poly, 0x10);
    x2 = _mm_clmulepi64_si128(_mm_and_si128(x2, mask32), poly, 0x00);
    x1 = _mm_xor_si128(x1, x2);
    return static_cast<uint32_t>(_mm_extract_epi32(x1, 1));
}

#else

bool crc32_clmul_available() { return false; }

uint32_t crc32_clmul_fold(uint32_t crc, const unsigned char*, std::size_t) { return crc; }

#endif
