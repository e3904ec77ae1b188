// Finding captions in arbitrary frames. Input: a selector byte (form 1-3 in
// its low two bits, 0 taken as 1; bit 2: length-prefixed), then the frame,
// held in a buffer of exactly its size. A frame with captions in it must
// describe a unit inside the frame and counts inside the record.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qnvutil/sei.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > (1 << 16)) return 0;
    const uint32_t form = (data[0] & 3) == 0 ? 1 : data[0] & 3;
    const int8_t lengthPrefixed = (data[0] >> 2) & 1;
    const std::vector<uint8_t> frame(data + 1, data + size);
    CaptionDataRecord r;
    const int32_t result =
        qnvutilFindCaptions(frame.empty() ? nullptr : frame.data(), uint32_t(frame.size()), form, lengthPrefixed, &r);
    if (result == QNV_SEI_NOT_FOUND) {
        const auto* words = reinterpret_cast<const uint32_t*>(&r);
        for (size_t i = 0; i < sizeof r / 4; ++i)
            if (words[i] != 0) __builtin_trap();
        return 0;
    }
    if (result != QNV_SEI_OK || r.form != form) __builtin_trap();
    if (uint64_t(r.unitOffset) + r.unitPrefix + r.unitSize > frame.size()) __builtin_trap();
    if (r.unitPrefix != 3 && r.unitPrefix != 4) __builtin_trap();
    if (r.tripletCount > QNV_CC_MAX_TRIPLETS || r.tripletCount > r.carriedCount || r.cc_count > 31) __builtin_trap();
    for (uint32_t i = 0; i < r.tripletCount; ++i)
        if ((r.cc_data[i] >> 19) != 0x1F) __builtin_trap();
    const uint8_t header = frame[r.unitOffset + r.unitPrefix];
    const bool carrier = form == QNV_CC_FORM_AVC    ? (header & 31) == 6
                         : form == QNV_CC_FORM_HEVC ? ((header >> 1) & 63) == 39 || ((header >> 1) & 63) == 40
                                                    : header == 0xB2;
    if (!carrier) __builtin_trap();
    return 0;
}
