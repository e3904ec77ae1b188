// Start-code search over blocks of 64 positions. A block becomes a bit mask
// of the positions where two 00 bytes start, anded with a mask of the
// positions two bytes before a 01 (or a 00): every code of the block at
// once, however short the units are. Between codes, 64-byte chunks at
// aligned addresses are only tested for a possible zero pair (one load,
// a shift and a compare), which keeps long units at the speed of reading.
//
// The instruction sets are policies (Portable, Sse2, Avx2, Avx512) with the
// same three operations; their functions carry target attributes, so a caller instantiates a scan inside a function compiled for
// the same instruction set and marked `flatten` (see nalscan.cpp), which
// inlines the whole scan into it.
#ifndef QNVUTIL_FOUNDATION_NALSCAN_BLOCKSCAN_H
#define QNVUTIL_FOUNDATION_NALSCAN_BLOCKSCAN_H

#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qnv::blockscan {

constexpr uint32_t kBlock = 64;

// Each policy gives, for the 64 positions j of a block at p:
//  - pairs(p): bit j set when p[j] and p[j + 1] are both 00;
//  - thirds<kOrZero>(p): bit j set when p[j + 2] is 01 (kOrZero: 00 or 01);
//  - mayPair(p): false only when no two 00 bytes in a row start in
//    p[0, 64); it reads p[0, 64) alone (lanes shifted by one byte: the last
//    byte of a lane counts as a pair whenever it is 00); mayPair2(p) the same
//    for p[0, 128).
// pairs and thirds read p[0, 66).

// Bytes without any SIMD extension (other processors).
struct Portable {
    static uint64_t pairs(const uint8_t* p) {
        uint64_t m = 0;
        for (uint32_t j = 0; j < kBlock; ++j) m |= uint64_t((p[j] | p[j + 1]) == 0) << j;
        return m;
    }
    template <bool kOrZero>
    static uint64_t thirds(const uint8_t* p) {
        uint64_t m = 0;
        for (uint32_t j = 0; j < kBlock; ++j) m |= uint64_t(kOrZero ? p[j + 2] <= 1 : p[j + 2] == 1) << j;
        return m;
    }
    static bool mayPair(const uint8_t* p) {
        for (uint32_t j = 0; j < kBlock; ++j)
            if (p[j] == 0 && (j == kBlock - 1 || p[j + 1] == 0)) return true;
        return false;
    }
    static bool mayPair2(const uint8_t* p) { return mayPair(p) || mayPair(p + kBlock); }
};

#if defined(__x86_64__)
struct Sse2 {
    static inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
    static inline uint64_t bits(__m128i v, uint32_t at) { return uint64_t(uint32_t(_mm_movemask_epi8(v))) << at; }
    static inline uint64_t pairs(const uint8_t* p) {
        uint64_t m = 0;
        for (uint32_t j = 0; j < kBlock; j += 16)
            m |= bits(_mm_cmpeq_epi8(_mm_or_si128(load(p + j), load(p + j + 1)), _mm_setzero_si128()), j);
        return m;
    }
    template <bool kOrZero>
    static inline uint64_t thirds(const uint8_t* p) {
        uint64_t m = 0;
        for (uint32_t j = 0; j < kBlock; j += 16) {
            const __m128i v = load(p + j + 2), one = _mm_set1_epi8(1);
            m |= bits(_mm_cmpeq_epi8(kOrZero ? _mm_max_epu8(v, one) : v, one), j);
        }
        return m;
    }
    static inline __m128i lanePairs(__m128i v) { return _mm_or_si128(v, _mm_srli_epi64(v, 8)); }
    static inline bool mayPair(const uint8_t* p) {
        const __m128i m = _mm_min_epu8(_mm_min_epu8(lanePairs(load(p)), lanePairs(load(p + 16))),
                                       _mm_min_epu8(lanePairs(load(p + 32)), lanePairs(load(p + 48))));
        return _mm_movemask_epi8(_mm_cmpeq_epi8(m, _mm_setzero_si128())) != 0;
    }
    static inline bool mayPair2(const uint8_t* p) { return mayPair(p) || mayPair(p + kBlock); }
};

struct Avx2 {
    __attribute__((target("avx2"))) static inline __m256i load(const uint8_t* p) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    }
    __attribute__((target("avx2"))) static inline uint64_t bits(__m256i lo, __m256i hi) {
        return uint64_t(uint32_t(_mm256_movemask_epi8(lo))) | uint64_t(uint32_t(_mm256_movemask_epi8(hi))) << 32;
    }
    __attribute__((target("avx2"))) static inline uint64_t pairs(const uint8_t* p) {
        const __m256i zero = _mm256_setzero_si256();
        return bits(_mm256_cmpeq_epi8(_mm256_or_si256(load(p), load(p + 1)), zero),
                    _mm256_cmpeq_epi8(_mm256_or_si256(load(p + 32), load(p + 33)), zero));
    }
    template <bool kOrZero>
    __attribute__((target("avx2"))) static inline uint64_t thirds(const uint8_t* p) {
        const __m256i one = _mm256_set1_epi8(1);
        __m256i lo = load(p + 2), hi = load(p + 34);
        if (kOrZero) {
            lo = _mm256_max_epu8(lo, one);
            hi = _mm256_max_epu8(hi, one);
        }
        return bits(_mm256_cmpeq_epi8(lo, one), _mm256_cmpeq_epi8(hi, one));
    }
    __attribute__((target("avx2"))) static inline __m256i lanePairs(__m256i v) {
        return _mm256_or_si256(v, _mm256_srli_epi64(v, 8));
    }
    __attribute__((target("avx2"))) static inline bool mayPair(const uint8_t* p) {
        const __m256i m = _mm256_min_epu8(lanePairs(load(p)), lanePairs(load(p + 32)));
        return _mm256_movemask_epi8(_mm256_cmpeq_epi8(m, _mm256_setzero_si256())) != 0;
    }
    __attribute__((target("avx2"))) static inline bool mayPair2(const uint8_t* p) {
        const __m256i m = _mm256_min_epu8(_mm256_min_epu8(lanePairs(load(p)), lanePairs(load(p + 32))),
                                          _mm256_min_epu8(lanePairs(load(p + 64)), lanePairs(load(p + 96))));
        return _mm256_movemask_epi8(_mm256_cmpeq_epi8(m, _mm256_setzero_si256())) != 0;
    }
};

struct Avx512 {
    __attribute__((target("avx512bw"))) static inline uint64_t pairs(const uint8_t* p) {
        const __m512i v = _mm512_or_si512(_mm512_loadu_si512(p), _mm512_loadu_si512(p + 1));
        return _mm512_testn_epi8_mask(v, v);
    }
    template <bool kOrZero>
    __attribute__((target("avx512bw"))) static inline uint64_t thirds(const uint8_t* p) {
        const __m512i v = _mm512_loadu_si512(p + 2), one = _mm512_set1_epi8(1);
        return kOrZero ? _mm512_cmple_epu8_mask(v, one) : _mm512_cmpeq_epi8_mask(v, one);
    }
    __attribute__((target("avx512bw"))) static inline __m512i lanePairs(const uint8_t* p) {
        const __m512i v = _mm512_loadu_si512(p);
        return _mm512_or_si512(v, _mm512_bsrli_epi128(v, 1));
    }
    // One chunk is tested as the AVX2 policy does, with a byte mask in a
    // general register: on processors that split 512-bit work in two, the
    // mask-register test costs more than it saves on a single chunk.
    __attribute__((target("avx512bw"))) static inline bool mayPair(const uint8_t* p) { return Avx2::mayPair(p); }
    __attribute__((target("avx512bw"))) static inline bool mayPair2(const uint8_t* p) {
        const __m512i v = _mm512_min_epu8(lanePairs(p), lanePairs(p + kBlock));
        return _mm512_testn_epi8_mask(v, v) != 0;
    }
};
#endif

// The first position q >= pos such that no two 00 bytes in a row start in
// [pos, q): blocks from q on may hold a code. It stops, at the latest, where
// fewer than 64 bytes are left. The chunks after the first lie at aligned
// addresses.
// With kTwoChunks, 128 bytes are tested per step: faster over long units,
// slower where the next code is a few hundred bytes away.
template <class Isa, bool kTwoChunks = false>
inline uint64_t skipToPair(const uint8_t* data, uint64_t pos, uint32_t size) {
    // guard: only whole chunks inside data[0, size) are read
    if (pos + kBlock > size || Isa::mayPair(data + pos)) return pos;
    uint64_t q = pos + kBlock - (reinterpret_cast<uintptr_t>(data + pos) & (kBlock - 1));
    for (; kTwoChunks && q + 2 * kBlock <= size; q += 2 * kBlock)
        if (Isa::mayPair2(data + q)) return Isa::mayPair(data + q) ? q : q + kBlock;
    for (; q + kBlock <= size; q += kBlock)
        if (Isa::mayPair(data + q)) return q;
    return q;
}

// Hits of the block at base: bit i set where data[base + i, base + i + 3) is
// 00 00 01 (kOrZero: also 00 00 00). `base` may lie up to 63 bytes before
// data (as a negative number). A block that does not have its 66 bytes
// inside data[0, size) is read from a copy filled up with FF, which takes
// part in no code.
template <class Isa, bool kOrZero>
inline uint64_t blockHits(const uint8_t* data, uint64_t base, uint32_t size) {
    const int64_t at = static_cast<int64_t>(base);
    // guard: a block is read in place only when its 66 bytes lie inside
    if (at >= 0 && at + kBlock + 2 <= size) return Isa::pairs(data + at) & Isa::template thirds<kOrZero>(data + at);
    // guard: only bytes inside data[0, size) are copied.
    uint8_t block[kBlock + 2];
    std::memset(block, 0xFF, sizeof block);
    const int64_t lo = at < 0 ? 0 : at, hi = at + kBlock + 2 < size ? at + kBlock + 2 : int64_t(size);
    if (lo < hi) std::memcpy(block + (lo - at), data + lo, static_cast<size_t>(hi - lo));
    return Isa::pairs(block) & Isa::template thirds<kOrZero>(block);
}

// The first position j >= from where data[j, j + 3) is 00 00 01 (kOrZero:
// also 00 00 00), j + 2 < size; `size` when there is none. The first block is
// taken without the filter: a search that starts at a unit mostly ends in it.
template <class Isa, bool kOrZero>
inline uint32_t findFirst(const uint8_t* data, uint32_t from, uint32_t size) {
    uint64_t base = from;
    while (base + 2 < size) {
        if (const uint64_t hits = blockHits<Isa, kOrZero>(data, base, size))
            return static_cast<uint32_t>(base + static_cast<uint32_t>(__builtin_ctzll(hits)));
        base = skipToPair<Isa>(data, base + kBlock, size);
    }
    return size;
}

// For NalUnitWalker, whose blocks lie at aligned addresses: the first block
// from `base` (aligned, not before data) on that may hold a code, with its
// ends (bit i: data[b + i, b + i + 3) is 00 00 00 or 00 00 01); its base is
// at least size - 2 when there is none.
struct Block {
    uint64_t base, ends;
};
template <class Isa>
inline Block nextBlock(const uint8_t* data, uint64_t base, uint32_t size) {
    base = skipToPair<Isa, true>(data, base, size);
    if (base + 2 >= size) return Block{base, 0};
    return Block{base, blockHits<Isa, true>(data, base, size)};
}

}  // namespace qnv::blockscan

#endif
