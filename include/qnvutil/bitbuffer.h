/*
 * Bit reader and writer: MSB-first bits, Exp-Golomb codes and the
 * 0xFF-extended SEI byte count.
 *
 * The bit at position p is bit (7 - p % 8) of data[p / 8]. Readers never fail:
 * a bit at a position above sizeBits reads as the past-end value 0xFFFFFFFF,
 * and every read advances bitPos, also past the limit. The bit at position
 * sizeBits itself (the first bit after the data) is still read from memory, so
 * buffers given to readers need one readable byte after the data.
 *
 * Memory guard: when sizeBytes is not zero, no operation touches memory at or
 * beyond data + sizeBytes: a read of such a byte sees 0 and a write there is
 * dropped (bitPos advances as usual). With sizeBytes = 0 the caller answers
 * for the buffer's size, as the writers do not otherwise check any bound.
 */
#ifndef QNVUTIL_BITBUFFER_H
#define QNVUTIL_BITBUFFER_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/export.h"

QNV_BEGIN_C

typedef struct BitBuffer {
    uint8_t* data;      /* the bytes; not owned */
    uint32_t sizeBytes; /* buffer length in bytes (0: unknown, see above) */
    uint32_t sizeBits;  /* read limit in bits, normally sizeBytes * 8 */
    uint32_t bitPos;    /* current position in bits */
} BitBuffer;

QNV_STATIC_ASSERT(sizeof(BitBuffer) == 24, "BitBuffer layout");
QNV_STATIC_ASSERT(offsetof(BitBuffer, sizeBytes) == 8, "BitBuffer layout");
QNV_STATIC_ASSERT(offsetof(BitBuffer, sizeBits) == 12, "BitBuffer layout");
QNV_STATIC_ASSERT(offsetof(BitBuffer, bitPos) == 16, "BitBuffer layout");

/* One bit, or 0xFFFFFFFF when bitPos > sizeBits before the read. */
QNV_API uint32_t ReadBit(BitBuffer* bb);
/* n bits, first bit most significant; each past-end bit sets its own place
   and every place above it. The shift of place k is k mod 32, so n above 32
   folds. n <= 0 (as signed) returns 0 without moving. */
QNV_API uint32_t ReadBits(BitBuffer* bb, uint32_t n);
/* As ReadBits with a 64-bit accumulator (shift k mod 64); a past-end bit
   sets the 32 places from its own upward. */
QNV_API uint64_t ReadBits64(BitBuffer* bb, uint32_t n);
/* Sum of bytes read until one is not 255 (SEI payloadType/payloadSize). */
QNV_API uint32_t ReadCodedNumber(BitBuffer* bb);
/* ue(v). A run of zero bits stops at the last bit before sizeBits. */
QNV_API uint32_t ReadExponentialGolombCode(void* bb);
/* se(v): codes 1, 2, 3, 4 give 1, -1, 2, -2. */
QNV_API int32_t ReadExponentialGolombCodeSigned(BitBuffer* bb);
/* bitPos += n, without any limit test. */
QNV_API void SkipBits(BitBuffer* bb, uint32_t n);

/* Writes bit & 1 at bitPos; returns bb. */
QNV_API BitBuffer* WriteBit(BitBuffer* bb, uint8_t bit);
/* Writes the low n bits of value, most significant first; n <= 0 (as signed)
   writes nothing; n above 32 writes leading zeros first. */
QNV_API void WriteBits(void* bb, uint32_t n, int32_t value);
/* ue(v) of codeNum (0 .. 2^31 - 2). Values from 2^24 - 1 up are written with
   48 more leading zeros than the standard code, a form kept for
   compatibility with existing streams of this writer. */
QNV_API void WriteExponentialGolombCode(void* bb, int32_t codeNum);
/* Bits of the ue(v) code of v for v in 0..127; 2 for v = -1. */
QNV_API uint32_t LengthExponentialGolombCode(int8_t v);

QNV_END_C

#endif
