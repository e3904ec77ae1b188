// Timecode types and rates from arbitrary text, and counts converted between
// types with arbitrary rates.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "qnvutil/vidformat.h"
#include "vidformat/ratetext.h"
#include "vidformat/tctype.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    std::vector<char> text(data, data + size);
    text.push_back('\0');  // exact size: reads past the terminator are caught
    const uint32_t type = qnv::TcTypeFromText(text.data());
    if (type != 0 && !qnv::TcTypeName(type)) __builtin_trap();

    uint32_t rate = 0, scale = 0;
    if (qnv::RateFromText(text.data(), &rate, &scale) && (rate == 0 || scale == 0)) __builtin_trap();

    if (size >= 16) {
        uint32_t words[4];
        std::memcpy(words, data, sizeof words);
        vidConvertTC(&words[0], words[1], words[2], words[3]);
        vidNormalizeRateScale(&words[2], &words[3]);
        vidMsPerFrame(words[1], words[2], words[3]);
    }
    return 0;
}
