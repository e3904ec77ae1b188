// The unescaped working copy the H.264 parameter-set readers parse: the
// caller's bytes with emulation prevention removed as the in-place removal
// of those readers does it. From byte index 3 on, the third byte of every
// 00 00 03 (with dropOC also 00 00 0C) is dropped by moving the rest of the
// buffer down one byte without changing its length, so the freed tail
// repeats the last byte; scanning resumes after the dropped byte.
#ifndef QNVUTIL_FOUNDATION_BITIO_UNESCAPE_H
#define QNVUTIL_FOUNDATION_BITIO_UNESCAPE_H

#include <cstdint>

#include "qnvutil/bitbuffer.h"

namespace qnv {

// dst[0, n) from src[0, n) by the rule above; returns the bytes dropped.
uint32_t UnescapeShifted(const uint8_t* src, uint8_t* dst, uint32_t n, bool dropOC);

// The copy of one parse: the caller's sizeBytes bytes unescaped, then eight
// zero bytes for the reader's look-ahead; bits() reads it with the caller's
// sizeBits and bitPos, and sizeBytes bounding every access. Units up to
// kInlineBytes stay in the object; larger ones take one block from QxAlloc.
class UnescapedCopy {
public:
    static constexpr uint32_t kSpareBytes = 8;
    static constexpr uint32_t kInlineBytes = 504;

    UnescapedCopy(const BitBuffer& caller, bool dropOC);
    ~UnescapedCopy();
    UnescapedCopy(const UnescapedCopy&) = delete;
    UnescapedCopy& operator=(const UnescapedCopy&) = delete;

    bool ok() const { return copy_ != nullptr; }  // false: too large, or memory is short
    BitBuffer* bits() { return &bits_; }

private:
    uint8_t* copy_ = nullptr;
    BitBuffer bits_{};
    uint8_t inline_[kInlineBytes + kSpareBytes];
};

}  // namespace qnv

#endif
