// A frame count as the binary time code fields the time-code SEI carry.
#ifndef QNVUTIL_QNVUTIL_SEI_TIMECODE_FIELDS_H
#define QNVUTIL_QNVUTIL_SEI_TIMECODE_FIELDS_H

#include <cstdint>

#include "qnvutil/timecodetext.h"

namespace qnv {

struct TimecodeFields {
    uint32_t hours, minutes, seconds, frames;
    bool dropFrame;  // the count drops frame numbers (types 4 and 32)
};

// TimecodeText's binary form (format bit 0x400): four bytes hours, minutes,
// seconds, frames.
inline TimecodeFields timecodeFields(uint32_t frameCount, uint32_t tcType) {
    constexpr uint32_t kBinaryTimecode = 0x400;
    char tc[TCT_TEXT_SIZE] = {};
    TimecodeTextFormat(frameCount, tcType | kBinaryTimecode, tc);
    auto field = [&](int i) { return uint32_t(static_cast<uint8_t>(tc[i])); };
    return {field(0), field(1), field(2), field(3), tcType == 4 || tcType == 32};
}

}  // namespace qnv

#endif
