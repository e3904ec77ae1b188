#include "foundation/bitio/unescape.h"

#include <cstring>

#include "qnvutil/qxutil.h"

namespace qnv {

uint32_t UnescapeShifted(const uint8_t* src, uint8_t* dst, uint32_t n, bool dropOC) {
    if (n == 0) return 0;
    uint32_t written = 0, from = 0, dropped = 0;
    // A third byte at or past n would be the repeated last byte, which is
    // then also the second zero: no code there, so the scan ends at n - 3.
    for (uint64_t s = 3; s + 2 < n;) {
        const uint8_t third = src[s + 2];
        if (third > 3 && third != 0x0C) {
            s += 3;  // no 00 00 03 starts at s, s + 1 or s + 2
            continue;
        }
        if (src[s] == 0 && src[s + 1] == 0 && (third == 3 || (dropOC && third == 0x0C))) {
            std::memcpy(dst + written, src + from, s + 2 - from);
            written += static_cast<uint32_t>(s + 2 - from);
            from = static_cast<uint32_t>(s + 3);
            ++dropped;
            s += 3;
            continue;
        }
        ++s;
    }
    std::memcpy(dst + written, src + from, n - from);
    written += n - from;
    std::memset(dst + written, src[n - 1], n - written);
    return dropped;
}

UnescapedCopy::UnescapedCopy(const BitBuffer& caller, bool dropOC) {
    // guard: a buffer too large for a copy with spare bytes is not parsed.
    if (caller.sizeBytes > 0xFFFFFFFFu - kSpareBytes) return;
    const uint32_t n = caller.sizeBytes;
    copy_ = n <= kInlineBytes ? inline_ : static_cast<uint8_t*>(QxAlloc(n + kSpareBytes));
    if (copy_ == nullptr) return;
    UnescapeShifted(caller.data, copy_, n, dropOC);
    std::memset(copy_ + n, 0, kSpareBytes);
    bits_ = BitBuffer{copy_, n + kSpareBytes, caller.sizeBits, caller.bitPos};
}

UnescapedCopy::~UnescapedCopy() {
    if (copy_ != nullptr && copy_ != inline_) QxFree(copy_);
}

}  // namespace qnv
