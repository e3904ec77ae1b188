// Bit reader and writer. Multi-bit reads take a byte-wise fast path whenever
// every bit lies inside the read limit; the bit-by-bit path keeps the exact
// past-end patterns for all other positions. (The exported readers are
// defined with their names in parentheses: bitio.h maps calls of them to
// its inline fast paths.)
#include "foundation/bitio/bitio.h"

#include <algorithm>
#include <cstring>

namespace qnv {

const uint32_t kBitLength[256] = {
    1, 1, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
    6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6,
    7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
    7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
    8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
    8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
    8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
    8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
};

namespace {

constexpr uint32_t kPastEnd = 0xFFFFFFFFu;

// Memory guard: with a known buffer size, bytes at or beyond it are never
// touched.
inline bool byteInBuffer(const BitBuffer* bb, uint32_t index) { return bb->sizeBytes == 0 || index < bb->sizeBytes; }

// The bit at p, read from memory (p <= sizeBits).
inline uint32_t memoryBit(const BitBuffer* bb, uint32_t p) {
    uint32_t index = p >> 3;
    if (!byteInBuffer(bb, index)) return 0;
    return (bb->data[index] >> (7 - (p & 7))) & 1u;
}

inline void putBit(BitBuffer* bb, uint32_t bit) {
    uint32_t p = bb->bitPos++;
    uint32_t index = p >> 3;
    if (!byteInBuffer(bb, index)) return;
    uint8_t mask = static_cast<uint8_t>(0x80u >> (p & 7));
    bb->data[index] = static_cast<uint8_t>((bb->data[index] & ~mask) | (bit ? mask : 0));
}

// True when the n bits from bitPos all lie at or below sizeBits and inside
// the buffer, so they can be gathered byte-wise.
inline bool allInMemory(const BitBuffer* bb, uint32_t n) {
    uint64_t last = uint64_t(bb->bitPos) + n - 1;
    if (last > bb->sizeBits) return false;
    return bb->sizeBytes == 0 || (last >> 3) < bb->sizeBytes;
}

// n (1..57) bits from bitPos, gathered byte-wise; bitPos does not move.
inline uint64_t gather(const BitBuffer* bb, uint32_t n) {
    uint32_t first = bb->bitPos >> 3;
    uint32_t last = static_cast<uint32_t>((uint64_t(bb->bitPos) + n - 1) >> 3);
    uint64_t acc = 0;
    for (uint32_t i = first; i <= last; ++i) acc = (acc << 8) | bb->data[i];
    uint32_t spare = (last - first + 1) * 8 - (bb->bitPos & 7) - n;
    acc >>= spare;
    return n == 64 ? acc : acc & ((uint64_t(1) << n) - 1);
}

// Bit-by-bit read with the past-end rule, for `width` 32 or 64. A run of
// past-end bits is folded at once: 32 (or 64) or more of them set every place.
template <typename Word, uint32_t kWidth>
Word readSlow(BitBuffer* bb, uint32_t n) {
    Word result = 0;
    uint32_t place = n;  // places left, counting down
    while (place > 0) {
        uint32_t p = bb->bitPos;
        if (p > bb->sizeBits) {
            // Past-end run up to the wrap of bitPos or the last place.
            uint64_t run = uint64_t(0xFFFFFFFFu) - p + 1;
            if (run > place) run = place;
            if (run >= kWidth) {
                result = ~Word(0);
            } else {
                for (uint32_t i = 0; i < run; ++i) result |= Word(kPastEnd) << ((place - 1 - i) & (kWidth - 1));
            }
            bb->bitPos = static_cast<uint32_t>(p + run);
            place -= static_cast<uint32_t>(run);
            continue;
        }
        --place;
        bb->bitPos = p + 1;
        result |= Word(memoryBit(bb, p)) << (place & (kWidth - 1));
    }
    return result;
}

inline uint32_t expGolombBits(uint32_t x) {
    if (static_cast<int32_t>(x) >= 0x1000000) return kBitLength[x >> 24] + 48;
    if (static_cast<int32_t>(x) >= 0x10000) return kBitLength[x >> 16] + 16;
    if (static_cast<int32_t>(x) >= 0x100) return kBitLength[x >> 8] + 8;
    return kBitLength[x & 0xFF];  // guard: a negative x (outside the contract) stays in the table
}

// Steps shared by both Exp-Golomb writers, from x = codeNum + 1.
void writeExpGolomb(BitBuffer* bb, uint32_t x) {
    uint32_t total = 2 * expGolombBits(x) - 1;
    while (total > 32) {
        putBit(bb, 0);
        --total;
    }
    WriteBits(bb, total, static_cast<int32_t>(x));
}

}  // namespace

bool AtEnd(const BitBuffer* bb) { return bb->bitPos >= bb->sizeBits; }

uint32_t PeekBit(const BitBuffer* bb, uint32_t offset) {
    uint32_t p = bb->bitPos + offset;
    return p >= bb->sizeBits ? 1u : memoryBit(bb, p);
}

uint32_t PeekBits(const BitBuffer* bb, uint32_t n) {
    uint32_t result = 0;
    for (uint32_t i = 0; i < n; ++i) result = (result << 1) | PeekBit(bb, i);
    return result;
}

void SkipToAlignment(BitBuffer* bb) {
    bb->bitPos += 1;
    bb->bitPos = (bb->bitPos + 7) & ~7u;
}

void WriteBits64(BitBuffer* bb, uint32_t n, uint64_t value) {
    for (uint32_t i = n; i > 0; --i) putBit(bb, static_cast<uint32_t>(value >> ((i - 1) & 63)) & 1u);
}

void WriteSignedExponentialGolombCode(BitBuffer* bb, int32_t value) {
    uint32_t v = static_cast<uint32_t>(value);
    uint32_t codeNum = value <= 0 ? 0u - 2u * v : 2u * v + 2u;
    writeExpGolomb(bb, codeNum + 1u);
}

uint8_t* EmitNalUnit(BitBuffer* scratch, BitBuffer* out, uint32_t sizeIndex, uint8_t lengthPrefix) {
    // A 1 bit and 0 bits up to the next byte boundary (a whole 80 when aligned).
    auto closeByte = [&] {
        const uint32_t n = 8 - (scratch->bitPos & 7);
        writeBits(scratch, n, 1u << (n - 1));
    };
    if ((scratch->bitPos & 7) != 0) closeByte();
    uint32_t count = scratch->bitPos >> 3;
    closeByte();
    // guard: the size byte must lie inside the written RBSP
    if (sizeIndex != 0xFFFFFFFFu && sizeIndex < count && byteInBuffer(scratch, sizeIndex))
        scratch->data[sizeIndex] = static_cast<uint8_t>(count - sizeIndex - 1);
    count = scratch->bitPos >> 3;

    // Bytes past a guarded scratch buffer read as 0, like the rest of the reader.
    auto src = [&](uint32_t i) -> uint8_t { return byteInBuffer(scratch, i) ? scratch->data[i] : 0; };
    const bool aligned = (out->bitPos & 7) == 0;
    auto put = [&](uint8_t b) {
        uint32_t index = out->bitPos >> 3;
        if (aligned) {
            if (byteInBuffer(out, index)) out->data[index] = b;
            out->bitPos += 8;
        } else {
            WriteBits(out, 8, b);
        }
    };
    auto preventable = [](uint8_t b) { return b == 0 || b == 1 || b == 3; };

    uint32_t start = out->bitPos >> 3;
    uint32_t i = 0;
    if (count > 3) {
        for (; i < 4; ++i) put(src(i));
    }
    // With the whole source in memory and a byte-aligned output, the bytes
    // between two places that need a 03 are copied as one run.
    const bool runs = aligned && byteInBuffer(scratch, count == 0 ? 0 : count - 1);
    auto putRun = [&](uint32_t from, uint32_t n) {
        if (!runs) {
            for (uint32_t k = 0; k < n; ++k) put(src(from + k));
            return;
        }
        uint32_t index = out->bitPos >> 3;
        uint32_t room = n;
        if (out->sizeBytes != 0) room = index < out->sizeBytes ? std::min(n, out->sizeBytes - index) : 0;
        if (room != 0) std::memcpy(out->data + index, scratch->data + from, room);
        out->bitPos += 8 * n;
    };
    while (count - i >= 3) {
        // Next position j >= i with 00 00 followed by 00, 01 or 03; the third
        // byte is looked at first so that most positions pass three at a time.
        uint32_t j = i;
        bool found = false;
        while (count - j >= 3) {
            uint8_t b2 = src(j + 2);
            if (!preventable(b2)) {
                j += 3;
            } else if (src(j + 1) != 0) {
                j += 2;
            } else if (src(j) != 0) {
                j += 1;
            } else {
                found = true;
                break;
            }
        }
        if (!found) break;
        putRun(i, j - i);
        uint8_t b2 = src(j + 2);
        put(0);
        put(0);
        put(3);
        put(b2);
        i = j + 3;
        // Further zero pairs formed with the byte just copied.
        while (src(i - 1) == 0 && count - i >= 2 && src(i) == 0 && preventable(src(i + 1))) {
            put(0);
            put(3);
            put(src(i + 1));
            i += 2;
        }
    }
    putRun(i, count - i);

    uint32_t length = (out->bitPos >> 3) - start - 4;
    uint8_t prefix[4] = {0, 0, 0, 1};
    if (lengthPrefix != 0) {
        prefix[0] = static_cast<uint8_t>(length >> 24);
        prefix[1] = static_cast<uint8_t>(length >> 16);
        prefix[2] = static_cast<uint8_t>(length >> 8);
        prefix[3] = static_cast<uint8_t>(length);
    }
    for (uint32_t k = 0; k < 4; ++k)
        if (byteInBuffer(out, start + k)) out->data[start + k] = prefix[k];
    return out->data;
}

}  // namespace qnv

using namespace qnv;

extern "C" {

uint32_t (ReadBit)(BitBuffer* bb) {
    uint32_t p = bb->bitPos++;
    return p > bb->sizeBits ? kPastEnd : memoryBit(bb, p);
}

uint32_t (ReadBits)(BitBuffer* bb, uint32_t n) {
    if (static_cast<int32_t>(n) <= 0) return 0;
    if (n <= 32 && allInMemory(bb, n)) {
        uint32_t v = static_cast<uint32_t>(gather(bb, n));
        bb->bitPos += n;
        return v;
    }
    return readSlow<uint32_t, 32>(bb, n);
}

uint64_t ReadBits64(BitBuffer* bb, uint32_t n) {
    if (static_cast<int32_t>(n) <= 0) return 0;
    if (n <= 57 && allInMemory(bb, n)) {
        uint64_t v = gather(bb, n);
        bb->bitPos += n;
        return v;
    }
    return readSlow<uint64_t, 64>(bb, n);
}

uint32_t ReadCodedNumber(BitBuffer* bb) {
    uint32_t sum = 0, byte;
    do {
        byte = ReadBits(bb, 8);
        sum += byte;
    } while (byte == 255);
    return sum;
}

uint32_t (ReadExponentialGolombCode)(void* buffer) {
    auto* bb = static_cast<BitBuffer*>(buffer);
    const uint32_t p = bb->bitPos;
    uint32_t zeros = 0;
    if (uint64_t(p) + 1 >= bb->sizeBits || p == 0xFFFFFFFFu) {
        // The first bit already ends the prefix (or bitPos is about to wrap:
        // take the literal bit-by-bit walk).
        for (;;) {
            uint32_t q = bb->bitPos++;
            if (q > bb->sizeBits || memoryBit(bb, q) != 0 || q + 1 >= bb->sizeBits) break;
            ++zeros;
        }
    } else {
        // The prefix ends at the first 1 bit or at the last bit before
        // sizeBits, whichever comes first; search it byte-wise.
        const uint32_t last = bb->sizeBits - 1;
        uint32_t q = p;
        for (;;) {
            uint32_t index = q >> 3;
            if (!byteInBuffer(bb, index)) {
                q = last;
                break;
            }
            uint32_t bits = bb->data[index] & (0xFFu >> (q & 7));
            if (bits != 0) {
                uint32_t one = (index << 3) + static_cast<uint32_t>(__builtin_clz(bits) - 24);
                q = one < last ? one : last;
                break;
            }
            if (uint64_t(index + 1) * 8 > last) {
                q = last;
                break;
            }
            q = (index + 1) << 3;
        }
        zeros = q - p;
        bb->bitPos = q + 1;
    }
    return ReadBits(bb, zeros) - 1u + (1u << (zeros & 31));
}

int32_t (ReadExponentialGolombCodeSigned)(BitBuffer* bb) {
    uint32_t k = ReadExponentialGolombCode(bb);
    // k even: -(k / 2); k odd: (k + 1) / 2, in 32-bit two's complement.
    return (k & 1) ? static_cast<int32_t>((k >> 1) + 1) : static_cast<int32_t>(0u - (k >> 1));
}

void SkipBits(BitBuffer* bb, uint32_t n) { bb->bitPos += n; }

BitBuffer* WriteBit(BitBuffer* bb, uint8_t bit) {
    putBit(bb, bit & 1u);
    return bb;
}

void WriteBits(void* buffer, uint32_t n, int32_t value) {
    auto* bb = static_cast<BitBuffer*>(buffer);
    if (static_cast<int32_t>(n) <= 0) return;
    uint32_t v = static_cast<uint32_t>(value);
    // Up to 32 bits into a known buffer: whole words (bitio.h).
    if (writeWordBits(bb, n, v)) return;
    for (; n > 32; --n) putBit(bb, v >> 31);  // above 32 bits: value's sign
    if ((bb->bitPos & 7) == 0 && n == 8) {
        uint32_t index = bb->bitPos >> 3;
        if (byteInBuffer(bb, index)) bb->data[index] = static_cast<uint8_t>(v);
        bb->bitPos += 8;
        return;
    }
    for (uint32_t i = n; i > 0; --i) putBit(bb, (v >> (i - 1)) & 1u);
}

void WriteExponentialGolombCode(void* bb, int32_t codeNum) {
    writeExpGolomb(static_cast<BitBuffer*>(bb), static_cast<uint32_t>(codeNum) + 1u);
}

uint32_t LengthExponentialGolombCode(int8_t v) {
    uint32_t bits = kBitLength[static_cast<uint8_t>(v + 1)];  // guard: v below -1 stays in the table
    return v >= 0 ? 2 * bits - 1 : 2 * bits;
}

}  // extern "C"
