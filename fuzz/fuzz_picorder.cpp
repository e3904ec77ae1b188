// Picture order counts of H.264 and HEVC frames cut from the input: an SPS
// and a PPS unit (each behind a two-byte length) read by the library's
// readers, then frames of the rest, one state carried across them. Frames
// are exactly sized copies, so ASan sees any read past one.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "qnvutil/picorder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > (1u << 16)) return 0;
    const bool hevc = data[0] & 1, lengthPrefixed = data[0] & 2;
    ++data;
    --size;
    std::vector<uint8_t> spsUnit = fuzzinput::take(data, size), ppsUnit = fuzzinput::take(data, size);
    if (spsUnit.empty() || ppsUnit.empty()) return 0;
    spsUnit.push_back(0);  // the HEVC readers' spare byte
    ppsUnit.push_back(0);
    BitBuffer sb{spsUnit.data(), uint32_t(spsUnit.size()), uint32_t(spsUnit.size() - 1) * 8, 0};
    BitBuffer pb{ppsUnit.data(), uint32_t(ppsUnit.size()), uint32_t(ppsUnit.size() - 1) * 8, 0};
    H264SpsRecord sps{};
    H264PpsRecord pps{};
    auto hsps = std::make_unique<HevcSpsRecord>();
    HevcPpsRecord hpps{};
    if (hevc) {
        qnvutilRead_HEVC_SPS(&sb, hsps.get(), nullptr, 0);
        qnvutilRead_HEVC_PPS(&pb, &hpps, nullptr, 0);
    } else {
        qnvutilRead_SPS(&sb, &sps);
        qnvutilRead_PPS(&pb, &pps);
    }
    PicOrderState state{};
    while (size > 0) {
        const std::vector<uint8_t> frame = fuzzinput::take(data, size);
        if (frame.empty()) break;
        std::unique_ptr<uint8_t[]> copy(new uint8_t[frame.size()]);
        std::copy(frame.begin(), frame.end(), copy.get());
        int32_t poc = 0;
        const PicOrderState before = state;
        const uint32_t r = hevc ? qnvutilPicOrderCountHevc(&state, copy.get(), frame.size(), lengthPrefixed, hsps.get(),
                                                           &hpps, &poc)
                                : qnvutilPicOrderCount(&state, copy.get(), frame.size(), lengthPrefixed, &sps, &pps, &poc);
        if (r == QNV_PICORDER_FAILED && std::memcmp(&before, &state, sizeof state) != 0) __builtin_trap();
    }
    return 0;
}
