// Internal side of the bit reader and writer: operations the library's
// parsers and writers use but does not export.
#ifndef QNVUTIL_FOUNDATION_BITIO_H
#define QNVUTIL_FOUNDATION_BITIO_H

#include <cstdint>

#include "qnvutil/bitbuffer.h"

namespace qnv {

// ---- Reads with an inline fast path --------------------------------------
//
// The parsers read a few bits at a time, millions of times. readBits and
// readUe take the common case inline: a buffer of known size (sizeBytes) with
// eight bytes to load at the current byte and every bit read inside the read
// limit. Anything else (the bits at and past sizeBits, the end of the buffer,
// an unknown size, long counts) goes to the exported functions, whose
// results the fast paths give exactly.

// The 64 bits from byte bitPos / 8 on, most significant first, when all of
// them lie inside the buffer.
inline bool loadWindow(const BitBuffer* bb, uint64_t* window) {
    const uint32_t index = bb->bitPos >> 3;
    // guard: the eight bytes must lie inside a buffer of known size
    if (bb->sizeBytes < 8 || index > bb->sizeBytes - 8) return false;
    uint64_t w;
    __builtin_memcpy(&w, bb->data + index, sizeof w);
    *window = __builtin_bswap64(w) << (bb->bitPos & 7);  // 57 bits or more are valid
    return true;
}

inline uint32_t readBits(BitBuffer* bb, uint32_t n) {
    uint64_t w;
    if (n - 1 < 32 && uint64_t(bb->bitPos) + n - 1 <= bb->sizeBits && loadWindow(bb, &w)) {
        bb->bitPos += n;
        return static_cast<uint32_t>(w >> (64 - n));
    }
    return ::ReadBits(bb, n);
}

// ReadBit gives what ReadBits(bb, 1) gives, past-end value included.
inline uint32_t readBit(BitBuffer* bb) { return readBits(bb, 1); }

// ue(v): a prefix of z zero bits, a 1 bit and z more bits, all at positions
// up to sizeBits (near it the exported reader's walk stops differently).
inline uint32_t readUe(BitBuffer* bb) {
    uint64_t w;
    if (loadWindow(bb, &w) && w != 0) {
        const uint32_t zeros = static_cast<uint32_t>(__builtin_clzll(w));
        if (zeros <= 28 && uint64_t(bb->bitPos) + 2 * zeros <= bb->sizeBits) {
            bb->bitPos += 2 * zeros + 1;
            const uint64_t code = w >> (63 - 2 * zeros);  // the 1 bit and the z bits after it
            return static_cast<uint32_t>(code) - 1u;
        }
    }
    return ::ReadExponentialGolombCode(bb);
}

inline int32_t readSe(BitBuffer* bb) {
    const uint32_t k = readUe(bb);
    // k even: -(k / 2); k odd: (k + 1) / 2, in 32-bit two's complement.
    return (k & 1) ? static_cast<int32_t>((k >> 1) + 1) : static_cast<int32_t>(0u - (k >> 1));
}

// ---- Writes with an inline fast path -------------------------------------
//
// Up to 32 bits into a known buffer: a read-modify-write of the one or two
// eight-byte words (counted from the buffer's start) that hold them, the
// bits around left as they are. Whole words at fixed places let each load
// take the value of the store before it, where a load at every byte
// position would wait for that store to reach the cache. Everything else
// goes to the exported WriteBits, whose result the fast path gives exactly.

// The big-endian eight-byte word at p, and back.
inline uint64_t loadWord(const uint8_t* p) {
    uint64_t w;
    __builtin_memcpy(&w, p, sizeof w);
    return __builtin_bswap64(w);
}
inline void storeWord(uint8_t* p, uint64_t w) {
    w = __builtin_bswap64(w);
    __builtin_memcpy(p, &w, sizeof w);
}

// w with bits [offset, offset + n) (from the most significant) replaced by
// the low n bits of v (1 <= n, offset + n <= 64).
inline uint64_t mergeWordBits(uint64_t w, uint32_t offset, uint32_t n, uint64_t v) {
    const uint32_t shift = 64 - offset - n;
    const uint64_t mask = (~uint64_t(0) >> (64 - n)) << shift;
    return (w & ~mask) | ((v << shift) & mask);
}

// The word fast path applies: 1 to 32 bits whose one or two words lie inside
// a buffer of known size. Gives the byte offset of the first word.
inline bool wordsInside(const BitBuffer* bb, uint32_t n, uint64_t* word) {
    *word = uint64_t(bb->bitPos >> 6) * 8;
    const uint32_t words = (bb->bitPos & 63) + n > 64 ? 2 : 1;
    // guard: the words rewritten must lie inside a buffer of known size
    return n - 1 < 32 && bb->sizeBytes != 0 && *word + 8 * words <= bb->sizeBytes;
}

// The n bits of v at bitPos, into the word at byte `at` (which holds
// `first`) and, when they cross its end, the next one, for which
// wordsInside held; returns the last word as written.
inline uint64_t putWords(BitBuffer* bb, uint64_t at, uint64_t first, uint32_t n, uint32_t v) {
    // bitPos is read once: the stores below may alias it.
    const uint32_t p = bb->bitPos, offset = p & 63;
    uint64_t w;
    if (offset + n <= 64) {
        w = mergeWordBits(first, offset, n, v);
    } else {
        const uint32_t low = offset + n - 64;
        storeWord(bb->data + at, mergeWordBits(first, offset, n - low, v >> low));
        at += 8;
        w = mergeWordBits(loadWord(bb->data + at), 0, low, v);
    }
    storeWord(bb->data + at, w);
    bb->bitPos = p + n;
    return w;
}

// True when the fast path wrote the n bits of v.
inline bool writeWordBits(BitBuffer* bb, uint32_t n, uint32_t v) {
    uint64_t at;
    if (!wordsInside(bb, n, &at)) return false;
    putWords(bb, at, loadWord(bb->data + at), n, v);
    return true;
}

inline void writeBits(BitBuffer* bb, uint32_t n, uint32_t v) {
    if (!writeWordBits(bb, n, v)) ::WriteBits(bb, n, static_cast<int32_t>(v));
}

// Entry i: number of significant bits of i, entry 0 being 1.
extern const uint32_t kBitLength[256];

// A reader over `size` bytes that must be followed by one readable byte.
inline BitBuffer bitReader(const uint8_t* data, uint32_t size) {
    return BitBuffer{const_cast<uint8_t*>(data), 0, size * 8u, 0};
}
// A writer over `capacity` bytes; writes beyond it are dropped.
inline BitBuffer bitWriter(uint8_t* data, uint32_t capacity) { return BitBuffer{data, capacity, capacity * 8u, 0}; }

// bitPos >= sizeBits.
bool AtEnd(const BitBuffer* bb);
// The bit at bitPos + offset without moving; 1 at or beyond sizeBits.
uint32_t PeekBit(const BitBuffer* bb, uint32_t offset);
// n bits from bitPos without moving; positions at or beyond sizeBits give 1.
uint32_t PeekBits(const BitBuffer* bb, uint32_t n);
// Advances one bit, then on to the next multiple of 8 (an aligned position
// moves a whole byte).
void SkipToAlignment(BitBuffer* bb);
// n bits of value, most significant first; shift counts modulo 64.
void WriteBits64(BitBuffer* bb, uint32_t n, uint64_t value);
// Signed Exp-Golomb with this writer's own mapping: codeNum = -2v for v <= 0
// and 2v + 2 for v > 0 (not the standard 2v - 1). Used by the HEVC PPS writer.
void WriteSignedExponentialGolombCode(BitBuffer* bb, int32_t value);

// Closes the RBSP in `scratch` (bytes 0-3 placeholders, then the NAL header
// and payload up to bitPos) and appends it to `out` as a NAL unit:
//  1. aligns the SEI payload with a 1 bit and 0 bits when bitPos is unaligned;
//  2. when sizeIndex != 0xFFFFFFFF, stores (bytes - sizeIndex - 1) & 0xFF in
//     scratch byte sizeIndex (a one-byte payloadSize);
//  3. appends rbsp_trailing_bits (an aligned payload gains a whole 0x80);
//  4. copies the bytes to out with emulation prevention on 00 00 {00,01,03}
//     (00 00 02 deliberately passes unchanged);
//  5. writes 00 00 00 01, or with lengthPrefix the unit's big-endian length,
//     over the four placeholder bytes.
// The caller sizes out for the unit plus one byte in three plus 4. Returns
// out->data.
uint8_t* EmitNalUnit(BitBuffer* scratch, BitBuffer* out, uint32_t sizeIndex, uint8_t lengthPrefix);

}  // namespace qnv

// Code inside the library that includes this header reads through the inline
// fast paths under the exported names (the definitions in bitio.cpp name
// the functions in parentheses, which the macros leave alone).
#define ReadBits(bb, n) ::qnv::readBits(bb, n)
#define ReadBit(bb) ::qnv::readBit(bb)
#define ReadExponentialGolombCode(bb) ::qnv::readUe(static_cast<BitBuffer*>(bb))
#define ReadExponentialGolombCodeSigned(bb) ::qnv::readSe(bb)

#endif
