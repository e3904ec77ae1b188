// In coded data zero pairs are rare, so the scan tests 64 bytes at a time: a
// byte of p[i] | p[i + 1] is zero only where both bytes are.
#include "foundation/nalscan/zeropair.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qnv {

namespace {

uint32_t finishBytewise(const uint8_t* data, uint64_t q, uint32_t last) {
    for (; q <= last; ++q)
        if (data[q] == 0 && data[q + 1] == 0) return static_cast<uint32_t>(q);
    return kNoZeroPair;
}

#pragma GCC diagnostic ignored "-Wpsabi"
typedef uint8_t Bytes32 __attribute__((vector_size(32)));
typedef uint64_t Words32 __attribute__((vector_size(32)));

inline Bytes32 load32(const uint8_t* p) {
    Bytes32 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Index of the first set byte of a 0/FF mask, or 32 when none.
inline uint32_t firstSet(Bytes32 mask) {
    Words32 w = reinterpret_cast<Words32>(mask);
    for (uint32_t i = 0; i < 4; ++i)
        if (w[i] != 0) return i * 8 + static_cast<uint32_t>(__builtin_ctzll(w[i])) / 8;
    return 32;
}

#if defined(__x86_64__)
// AVX2: four loads per 64 bytes and one byte-mask test of the lane-wise
// minimum of both halves.
__attribute__((target("avx2"))) uint32_t findAvx2(const uint8_t* data, uint32_t from, uint32_t last) {
    const __m256i zero = _mm256_setzero_si256();
    uint64_t q = from;
    for (; q + 64 <= last; q += 64) {
        const uint8_t* p = data + q;
        const __m256i lo = _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)),
                                           _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 1)));
        const __m256i hi = _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32)),
                                           _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 33)));
        if (_mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_min_epu8(lo, hi), zero)) == 0) continue;
        const uint32_t mlo = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(lo, zero)));
        if (mlo != 0) return static_cast<uint32_t>(q + __builtin_ctz(mlo));
        const uint32_t mhi = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(hi, zero)));
        return static_cast<uint32_t>(q + 32 + __builtin_ctz(mhi));
    }
    return finishBytewise(data, q, last);
}
#endif

}  // namespace

uint32_t FindZeroPairBaseline(const uint8_t* data, uint32_t from, uint32_t last) {
    uint64_t q = from;
    for (; q + 64 <= last; q += 64) {
        const Bytes32 lo = load32(data + q) | load32(data + q + 1);
        const Bytes32 hi = load32(data + q + 32) | load32(data + q + 33);
        const Words32 any = reinterpret_cast<Words32>((lo == 0) | (hi == 0));
        if ((any[0] | any[1] | any[2] | any[3]) == 0) continue;
        uint32_t i = firstSet(reinterpret_cast<Bytes32>(lo == 0));
        if (i == 32) i = 32 + firstSet(reinterpret_cast<Bytes32>(hi == 0));
        return static_cast<uint32_t>(q + i);
    }
    return finishBytewise(data, q, last);
}

uint32_t FindZeroPair(const uint8_t* data, uint32_t from, uint32_t last) {
    using Find = uint32_t (*)(const uint8_t*, uint32_t, uint32_t);
    static const Find best = [] {
#if defined(__x86_64__)
        if (__builtin_cpu_supports("avx2")) return static_cast<Find>(findAvx2);
#endif
        return static_cast<Find>(FindZeroPairBaseline);
    }();
    return best(data, from, last);
}

}  // namespace qnv
