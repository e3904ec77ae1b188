// The time fields of a clock timestamp, alike in the H.264 pic_timing SEI
// (ITU-T H.264 D.1.3) and the HEVC time_code SEI (ITU-T H.265 D.2.27):
// seconds, minutes and hours all present with full_timestamp_flag, else
// each behind its own flag, nested. Described once for both.
#ifndef QNVUTIL_QNVUTIL_SEI_CLOCK_TIME_H
#define QNVUTIL_QNVUTIL_SEI_CLOCK_TIME_H

#include <cstdint>

#include "foundation/syntax/coder.h"

namespace qnv {

template <class C, class S>
void clockTime(C& c, S& s, uint32_t fullTimestamp) {
    if (fullTimestamp) {
        QNV_U(6, seconds_value, 0, 59);
        QNV_U(6, minutes_value, 0, 59);
        QNV_U(5, hours_value, 0, 23);
    } else if (QNV_FLAG(seconds_flag)) {
        QNV_U(6, seconds_value, 0, 59);
        if (QNV_FLAG(minutes_flag)) {
            QNV_U(6, minutes_value, 0, 59);
            if (QNV_FLAG(hours_flag)) QNV_U(5, hours_value, 0, 23);
        }
    }
}

}  // namespace qnv

#endif
