// The HEVC time_code SEI payload (ITU-T H.265 D.2.27, payloadType 136),
// described once over the syntax coders for the time-code builder, which
// writes it, and the readers of a stream's time codes.
#ifndef QNVUTIL_QNVUTIL_SEI_TIME_CODE_SEI_H
#define QNVUTIL_QNVUTIL_SEI_TIME_CODE_SEI_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/sei/clock_time.h"

namespace qnv::hevc {

inline constexpr uint32_t kTimeCodePayloadType = 136;
// num_clock_ts is 1 to 3.
inline constexpr uint32_t kMaxTimeCodeClocks = 3;

struct TimeCodeClock {
    uint32_t clock_timestamp_flag;
    uint32_t units_field_based_flag;
    uint32_t counting_type;
    uint32_t full_timestamp_flag;
    uint32_t discontinuity_flag;
    uint32_t cnt_dropped_flag;
    uint32_t n_frames;
    uint32_t seconds_flag;
    uint32_t seconds_value;
    uint32_t minutes_flag;
    uint32_t minutes_value;
    uint32_t hours_flag;
    uint32_t hours_value;
    uint32_t time_offset_length;
    uint32_t time_offset_value;  // i(v): the low time_offset_length bits
};

struct TimeCode {
    uint32_t num_clock_ts;
    TimeCodeClock clock[kMaxTimeCodeClocks];
};

template <class C, class S>
void timeCodeClock(C& c, S& s) {
    if (!QNV_FLAG(clock_timestamp_flag)) return;
    QNV_FLAG(units_field_based_flag);
    QNV_U(5, counting_type, 0, 6);
    const uint32_t full = QNV_FLAG(full_timestamp_flag);
    QNV_FLAG(discontinuity_flag);
    QNV_FLAG(cnt_dropped_flag);
    QNV_U(9, n_frames);
    clockTime(c, s, full);
    if (QNV_U(5, time_offset_length) > 0) QNV_U(s.time_offset_length, time_offset_value);
}

template <class C, class S>
void timeCode(C& c, S& s) {
    c.open("time_code");
    // guard: num_clock_ts 0 codes no clock; 2 bits cannot exceed the array
    const uint32_t clocks = QNV_U(2, num_clock_ts, 1, 3);
    for (uint32_t i = 0; i < clocks && i < kMaxTimeCodeClocks; ++i) {
        c.open("clock_timestamp");
        timeCodeClock(c, s.clock[i]);
        c.close();
    }
    c.close();
}

}  // namespace qnv::hevc

#endif
