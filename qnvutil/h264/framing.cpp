// NAL unit framing of whole frames: Annex B start codes to 4-byte big-endian
// length prefixes and back, in place, and the search for a unit by its header
// byte.
//
// Annex B to lengths keeps the result of the classic walk (one cursor from
// the front, moving the rest of the frame up by one byte at every three-byte
// start code) but does the work in linear time: a first pass counts the
// three-byte codes, a second pass from the back moves each unit once to its
// final place and writes its length.
#include <cstring>


#include "qnvutil/h264.h"
#include "qnvutil/h264/framing.h"
#include "foundation/nalscan/zeropair.h"

namespace {

inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

inline uint32_t getBe32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// The four bytes at pos; bytes past the end of the frame read as zero.
inline uint32_t getBe32Clipped(const uint8_t* data, uint64_t pos, uint32_t size) {
    uint32_t v = 0;
    for (uint64_t i = pos; i < pos + 4; ++i) v = v << 8 | (i < size ? data[i] : 0u);
    return v;
}

constexpr uint32_t kNone = qnv::kNoZeroPair;

// The vector helpers below are always inlined, so the ABI of vector
// arguments (which differs with and without AVX) never applies.
#pragma GCC diagnostic ignored "-Wpsabi"

// 32 bytes as one vector (two SSE2 registers, or one AVX2 register in the
// AVX2 build of the conversion).
typedef uint8_t Bytes32 __attribute__((vector_size(32)));

[[gnu::always_inline]] inline Bytes32 load32(const uint8_t* p) {
    Bytes32 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The start-code scan as a policy of the conversion, which is compiled once
// per instruction set.
struct BaselineScan {
    static uint32_t find(const uint8_t* data, uint32_t from, uint32_t last) {
        return qnv::FindZeroPairBaseline(data, from, last);
    }
};
struct BestScan {
    static uint32_t find(const uint8_t* data, uint32_t from, uint32_t last) {
        return qnv::FindZeroPair(data, from, last);
    }
};

// The pass from the front leaves, in the bytes of every start code but the
// first, a link back to the previous code, so that the pass from the back
// visits the codes without scanning again (a code's own bytes are known from
// its length and are restored or overwritten with the length later):
//   four-byte code: 32 bits, bit 31 set when the previous code has four
//   bytes, bits 0-30 the distance back to it;
//   three-byte code: 24 bits, bit 23 likewise, bits 0-22 the distance.
// A distance that does not fit its field (all ones) is kept in `far`.
// guard: such distances are at least 2^23 - 1 bytes, so a frame of 32-bit
// size has at most 513 of them (and at most 2 of 2^31 - 1 bytes).
constexpr uint32_t kMaxFar = 520;

struct Conversion {
    uint32_t codes = 0;      // start codes (the tail code not counted)
    uint32_t widened = 0;    // three-byte codes that become four bytes
    uint32_t last = 0;       // position and length of the last start code
    uint32_t lastLen = 0;
    bool tailCode = false;   // 00 00 01 in the last three bytes: counted, not moved
    uint64_t newSize = 0;    // the result
    uint32_t farCount = 0;
    uint32_t far[kMaxFar];
};

void writeLink(uint8_t* data, uint32_t code, uint32_t len, uint32_t dist, bool prevFour, Conversion& c) {
    const uint32_t field = len == 4 ? 0x7FFFFFFFu : 0x7FFFFFu;
    if (dist >= field) {
        c.far[c.farCount++] = dist;
        dist = field;
    }
    const uint32_t v = dist | (prevFour ? field + 1 : 0);
    if (len == 4) {
        putBe32(data + code, v);
    } else {
        data[code] = static_cast<uint8_t>(v >> 16);
        data[code + 1] = static_cast<uint8_t>(v >> 8);
        data[code + 2] = static_cast<uint8_t>(v);
    }
}

// Reads the link of the code at `code` and moves there: *code, *len become
// the previous code's.
void followLink(const uint8_t* data, uint32_t* code, uint32_t* len, Conversion& c) {
    const uint32_t field = *len == 4 ? 0x7FFFFFFFu : 0x7FFFFFu;
    const uint32_t v = *len == 4 ? getBe32(data + *code)
                                 : uint32_t(data[*code]) << 16 | uint32_t(data[*code + 1]) << 8 | data[*code + 2];
    uint32_t dist = v & field;
    if (dist == field) dist = c.far[--c.farCount];
    *code -= dist;
    *len = (v & (field + 1)) != 0 ? 4 : 3;
}

// The pass from the front over size >= 4 bytes: counts the codes and links
// them. A start code must begin at or before size - 4; a three-byte code in
// the last three bytes only adds one to the size.
template <typename Scan>
[[gnu::always_inline]] inline void plan(uint8_t* data, uint32_t size, Conversion& c) {
    uint32_t lastOne = 0;  // the 01 of the last code; bytes up to it may hold a link
    for (uint32_t q = Scan::find(data, 0, size - 3); q != kNone; q = Scan::find(data, q + 1, size - 3)) {
        const uint32_t one = q + 2;
        if (data[one] != 1) continue;
        const bool four = one >= 3 && (c.codes == 0 || one - 3 > lastOne) && data[one - 3] == 0;
        if (!four && one == size - 1) {
            c.tailCode = true;
            break;
        }
        const uint32_t len = four ? 4 : 3;
        const uint32_t code = one + 1 - len;
        if (c.codes > 0) writeLink(data, code, len, code - c.last, c.lastLen == 4, c);
        ++c.codes;
        if (!four) ++c.widened;
        c.last = code;
        c.lastLen = len;
        lastOne = one;
        q = one;  // the scan resumes after the 01
    }
    c.newSize = uint64_t(size) + c.widened + (c.tailCode ? 1 : 0);
}

// Puts the start codes back where plan() left links (a refused conversion).
void restore(uint8_t* data, Conversion& c) {
    uint32_t code = c.last, len = c.lastLen;
    for (uint32_t n = c.codes; n > 1; --n) {
        const uint32_t at = code, atLen = len;
        followLink(data, &code, &len, c);
        if (atLen == 4) {
            putBe32(data + at, 1);
        } else {
            data[at] = 0;
            data[at + 1] = 0;
            data[at + 2] = 1;
        }
    }
}

// Frames below four bytes: only 00 00 01 converts (to FF FF FF FF, the size
// - 4 of a frame without a slot of its own, in the spare byte the code
// provides). guard: any other short frame would get its length written past
// its end, so it is left as it is.
uint32_t tinyResult(const uint8_t* data, uint32_t size) {
    return size == 3 && data[0] == 0 && data[1] == 0 && data[2] == 1 ? 4 : size;
}

// Moves bytes [lo, hi) up by `shift` (0 < shift): long runs through memmove;
// shorter ones from the top down in 32-byte blocks, with the lowest block (or
// the two halves of a short run) loaded before any store can reach it.
template <size_t kSize>
[[gnu::always_inline]] inline void moveEnds(uint8_t* data, uint32_t lo, uint32_t hi, uint32_t shift) {
    uint8_t head[kSize], tail[kSize];
    std::memcpy(head, data + lo, kSize);
    std::memcpy(tail, data + hi - kSize, kSize);
    std::memcpy(data + hi - kSize + shift, tail, kSize);
    std::memcpy(data + lo + shift, head, kSize);
}

[[gnu::always_inline]] inline void moveUp(uint8_t* data, uint32_t lo, uint32_t hi, uint32_t shift) {
    const uint32_t n = hi - lo;
    if (n >= 4096) {
        std::memmove(data + lo + shift, data + lo, n);
    } else if (n > 32) {
        Bytes32 head = load32(data + lo);
        uint32_t i = hi;
        while (i - lo > 32) {
            i -= 32;
            Bytes32 v = load32(data + i);
            std::memcpy(data + i + shift, &v, 32);
        }
        std::memcpy(data + lo + shift, &head, 32);
    } else if (n >= 16) {
        moveEnds<16>(data, lo, hi, shift);
    } else if (n >= 8) {
        moveEnds<8>(data, lo, hi, shift);
    } else if (n >= 4) {
        moveEnds<4>(data, lo, hi, shift);
    } else {
        for (uint32_t i = hi; i > lo;) {
            --i;
            data[i + shift] = data[i];
        }
    }
}

// The pass from the back: each unit's bytes move once, by the number of
// three-byte codes up to it, and each slot gets its unit's length.
[[gnu::always_inline]] inline uint32_t applyConversion(uint8_t* data, uint32_t size, Conversion& c) {
    if (c.codes == 0) {
        // No start code: the frame is taken to begin with a slot of its own.
        putBe32(data, size - 4);
        return static_cast<uint32_t>(c.newSize);
    }
    uint32_t shift = c.widened;      // how far the bytes behind the current code move up
    uint32_t next = size + shift;    // final position of the following slot, or the end
    uint32_t hi = size;              // old bytes [.., hi) are not placed yet
    uint32_t code = c.last, len = c.lastLen;
    for (uint32_t n = c.codes; n > 0; --n) {
        const uint32_t at = code, atLen = len, one = at + atLen - 1;
        if (n > 1) followLink(data, &code, &len, c);  // before the slot is overwritten
        if (shift != 0) moveUp(data, one + 1, hi, shift);
        if (atLen == 3) --shift;  // the widened code takes one byte of the shift
        const uint32_t slot = at + shift;
        putBe32(data + slot, next - slot - 4);
        next = slot;
        hi = at;
    }
    return static_cast<uint32_t>(c.newSize);
}

// Converts a frame of size >= 4 when the result fits `capacity`; otherwise
// leaves it as it was and returns kNone.
template <typename Scan>
[[gnu::always_inline]] inline uint32_t convert(uint8_t* data, uint32_t size, uint64_t capacity) {
    Conversion c;
    plan<Scan>(data, size, c);
    if (c.newSize > capacity) {
        restore(data, c);
        return kNone;
    }
    return applyConversion(data, size, c);
}

}  // namespace

namespace qnv {
uint32_t h264ConvertGeneric(uint8_t* data, uint32_t size, uint64_t capacity) {
    return convert<BaselineScan>(data, size, capacity);
}
}  // namespace qnv

namespace {

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2"))) uint32_t convertAvx2(uint8_t* data, uint32_t size, uint64_t capacity) {
    return convert<BestScan>(data, size, capacity);
}
#endif

uint32_t convertFrame(uint8_t* data, uint32_t size, uint64_t capacity) {
    using Convert = uint32_t (*)(uint8_t*, uint32_t, uint64_t);
    static const Convert best = [] {
#if defined(__x86_64__) || defined(__i386__)
        if (__builtin_cpu_supports("avx2")) return static_cast<Convert>(convertAvx2);
#endif
        return static_cast<Convert>(qnv::h264ConvertGeneric);
    }();
    return best(data, size, capacity);
}

}  // namespace

QNV_BEGIN_C

QNV_API uint32_t qnvUtilh264MarkerToSize(uint8_t* data, uint32_t size) {
    if (data == nullptr || size == 0) return 0;
    if (size < 4) {
        const uint32_t result = tinyResult(data, size);
        if (result == 4) putBe32(data, 0xFFFFFFFFu);
        return result;
    }
    // guard: a result of 2^32 - 1 or more cannot be told from the refusal;
    // such a frame (4 GiB) is left as it is.
    const uint32_t result = convertFrame(data, size, 0xFFFFFFFEu);
    return result == kNone ? size : result;
}

QNV_API uint32_t qnvUtilh264MarkerToSizeChecked(uint8_t* data, uint32_t size, uint32_t capacity) {
    if (data == nullptr) return 0xFFFFFFFFu;
    if (size < 4) {
        if (size != 0 && tinyResult(data, size) > capacity) return 0xFFFFFFFFu;
        return qnvUtilh264MarkerToSize(data, size);
    }
    return convertFrame(data, size, capacity);
}

QNV_API uint32_t qnvUtilh264SizeToMarker(uint8_t* data, uint32_t size) {
    if (data == nullptr) return 0;
    if (size >= 4 && getBe32(data) == 1) return size;
    if (size == 0) return 0;
    uint64_t pos = 0;
    uint32_t len = getBe32Clipped(data, 0, size);
    while (pos < size) {
        // guard: bytes past the end of the frame read as zero, and a prefix
        // that would not fit in the frame is not written.
        if (getBe32Clipped(data, pos, size) == 0) return static_cast<uint32_t>(pos);
        if (len >= size - pos || pos + 4 > size) return size;
        putBe32(data + pos, 1);
        pos += 4 + uint64_t(len);
        if (pos + 3 < size) len = getBe32(data + pos);
    }
    return size;
}

QNV_API int32_t qnvUtilFindSpecificNAL(const uint8_t* data, uint32_t size, int32_t startCodes, uint8_t headerByte,
                                       const uint8_t** found, uint32_t* foundSize) {
    if (data == nullptr || size < 4) return 0;
    if (found == nullptr || foundSize == nullptr) return 0;  // guard: nowhere to report
    *found = nullptr;
    *foundSize = 0;
    const uint32_t limit = size - 4;
    uint64_t pos = 0;
    bool have = false;
    uint32_t at = 0;
    while (pos < limit) {
        if (have) {
            *foundSize = static_cast<uint32_t>(pos - at);
            return 1;
        }
        if (data[pos + 4] == headerByte) {
            have = true;
            at = static_cast<uint32_t>(pos);
            *found = data + pos;
        }
        if (startCodes == 0) {
            pos += 4 + uint64_t(getBe32(data + pos));
            // guard: a length running past the frame ends the walk at its end,
            // so the reported unit never reaches beyond the buffer.
            if (pos > size) pos = size;
        } else {
            // Deliberately loose: stops at any zero among three bytes or a 01
            // in the fourth, not only at a full start code.
            uint32_t p = static_cast<uint32_t>(pos) + 4;
            while (p < limit && data[p] != 0 && data[p + 1] != 0 && data[p + 2] != 0 && data[p + 3] != 1) ++p;
            pos = p;
        }
    }
    if (!have) return 0;
    *foundSize = static_cast<uint32_t>(pos - at);
    return *foundSize != 0 ? 1 : 0;
}

QNV_END_C
