#include "foundation/bitio/unescape.h"

#include <cstring>

#include "foundation/nal/nal.h"
#include "qnvutil/qxutil.h"

namespace qnv {

uint32_t UnescapeShifted(const uint8_t* src, uint8_t* dst, uint32_t n, bool dropOC) {
    // The NAL unit layer's unescaper in the readers' compatibility form.
    nal::UnescapeOptions options;
    options.from = 3;
    options.dropZeroC = dropOC;
    options.keepLength = true;
    return nal::unescape(src, dst, n, options);
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
