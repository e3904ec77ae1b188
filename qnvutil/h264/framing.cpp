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

// Length of the start code whose 01 byte is at `one`: 4 for 00 00 00 01,
// 3 for 00 00 01 (not preceded by a zero), 0 for no start code. Every start
// code ends in its own 01 byte, so walking the 01 bytes visits each once;
// a longer zero run is taken as its last four bytes.
inline uint32_t codeEndingAt(const uint8_t* data, uint32_t one) {
    if (one < 2 || data[one - 1] != 0 || data[one - 2] != 0) return 0;
    return one >= 3 && data[one - 3] == 0 ? 4 : 3;
}

struct Conversion {
    uint32_t widened = 0;    // three-byte codes that become four bytes
    bool anyCode = false;    // at least one start code
    bool tailCode = false;   // 00 00 01 in the last three bytes: counted, not moved
    uint64_t newSize = 0;    // the result
};

// What the walk over size >= 4 bytes will do, without changing anything.
// A start code must begin at or before size - 4; a three-byte code in the
// last three bytes only adds one to the size.
Conversion plan(const uint8_t* data, uint32_t size) {
    Conversion c;
    const uint8_t* end = data + size;
    for (const uint8_t* p = data + 2; p < end; ++p) {
        p = static_cast<const uint8_t*>(std::memchr(p, 1, static_cast<size_t>(end - p)));
        if (p == nullptr) break;
        uint32_t one = static_cast<uint32_t>(p - data);
        uint32_t len = codeEndingAt(data, one);
        if (len == 4) {
            c.anyCode = true;
        } else if (len == 3) {
            if (one == size - 1) {
                c.tailCode = true;
            } else {
                ++c.widened;
                c.anyCode = true;
            }
        }
    }
    c.newSize = uint64_t(size) + c.widened + (c.tailCode ? 1 : 0);
    return c;
}

// Frames below four bytes: only 00 00 01 converts (to FF FF FF FF, the size
// - 4 of a frame without a slot of its own, in the spare byte the code
// provides). guard: any other short frame would get its length written past
// its end, so it is left as it is.
uint32_t tinyResult(const uint8_t* data, uint32_t size) {
    return size == 3 && data[0] == 0 && data[1] == 0 && data[2] == 1 ? 4 : size;
}

uint32_t applyConversion(uint8_t* data, uint32_t size, const Conversion& c) {
    const uint32_t unitsEnd = size + c.widened;  // the tail code's byte is not part of the last unit
    if (!c.anyCode) {
        // No start code: the frame is taken to begin with a slot of its own.
        putBe32(data, size - 4);
        return static_cast<uint32_t>(c.newSize);
    }
    uint32_t shift = c.widened;  // how far the bytes behind the current code move up
    uint32_t next = unitsEnd;    // final position of the following slot, or the end
    uint32_t hi = size;          // old bytes [.., hi) are not placed yet
    uint32_t below = size;       // 01 bytes below this may still end a start code
    while (below > 2) {
        const void* hit = memrchr(data, 1, below);
        if (hit == nullptr) break;
        uint32_t one = static_cast<uint32_t>(static_cast<const uint8_t*>(hit) - data);
        uint32_t len = codeEndingAt(data, one);
        below = one;
        if (len == 0 || (len == 3 && one == size - 1)) continue;
        uint32_t code = one + 1 - len;
        if (shift != 0) std::memmove(data + one + 1 + shift, data + one + 1, hi - one - 1);
        if (len == 3) --shift;  // the widened code takes one byte of the shift
        uint32_t slot = code + shift;
        putBe32(data + slot, next - slot - 4);
        next = slot;
        hi = code;
        below = code;
    }
    return static_cast<uint32_t>(c.newSize);
}

}  // namespace

QNV_BEGIN_C

QNV_API uint32_t qnvUtilh264MarkerToSize(uint8_t* data, uint32_t size) {
    if (data == nullptr || size == 0) return 0;
    if (size < 4) {
        uint32_t result = tinyResult(data, size);
        if (result == 4) putBe32(data, 0xFFFFFFFFu);
        return result;
    }
    Conversion c = plan(data, size);
    // guard: a result beyond 32 bits cannot be returned; such a frame is left as it is.
    if (c.newSize > 0xFFFFFFFFu) return size;
    return applyConversion(data, size, c);
}

QNV_API uint32_t qnvUtilh264MarkerToSizeChecked(uint8_t* data, uint32_t size, uint32_t capacity) {
    if (data == nullptr) return 0xFFFFFFFFu;
    if (size < 4) {
        if (size == 0) return 0;
        if (tinyResult(data, size) > capacity) return 0xFFFFFFFFu;
        return qnvUtilh264MarkerToSize(data, size);
    }
    Conversion c = plan(data, size);
    if (c.newSize > capacity) return 0xFFFFFFFFu;
    return applyConversion(data, size, c);
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
