// Internal side of the bit reader and writer: operations the library's
// parsers and writers use but does not export.
#ifndef QNVUTIL_FOUNDATION_BITIO_H
#define QNVUTIL_FOUNDATION_BITIO_H

#include <cstdint>

#include "qnvutil/bitbuffer.h"

namespace qnv {

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

#endif
