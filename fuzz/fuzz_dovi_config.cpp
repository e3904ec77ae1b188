// The Dolby Vision configuration box reader over arbitrary bytes; a box it
// reads is written again to the same record bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "qnvutil/hdr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    std::vector<uint8_t> box(data, data + size);  // exact size: overreads are caught
    DoviConfigRecord r{};
    const int32_t result = qnvutilRead_DVVC_CR(box.empty() ? nullptr : box.data(), uint32_t(size), &r);
    if (result == QNV_HDR_BAD_ARGUMENT) return 0;
    if (result < QNV_DOVI_BOX_BYTES || size < QNV_DOVI_BOX_BYTES) __builtin_trap();
    uint8_t out[QNV_DOVI_BOX_BYTES];
    if (qnvutilWrite_DVVC_CR(&r, out, sizeof out) != QNV_DOVI_BOX_BYTES) __builtin_trap();
    // The written box holds the elements read, every reserved bit cleared.
    static const uint8_t kElementBits[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0xF0, 0, 0, 0};
    for (uint32_t i = 0; i < 8; ++i)
        if ((out[8 + i] & kElementBits[i]) != (box[8 + i] & kElementBits[i]) || (out[8 + i] & ~kElementBits[i]) != 0)
            __builtin_trap();
    DoviConfigRecord back{};
    if (qnvutilRead_DVVC_CR(out, sizeof out, &back) != QNV_DOVI_BOX_BYTES || std::memcmp(&back, &r, sizeof r) != 0)
        __builtin_trap();
    return 0;
}
