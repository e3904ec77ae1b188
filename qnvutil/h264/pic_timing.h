// The H.264 pic_timing SEI payload (ITU-T H.264 D.1.3, semantics D.2.3),
// described once over the syntax coders for the frame scan, which reads it,
// and the time-code builder, which writes it. Its layout depends on the
// active SPS: the CPB and DPB delays are present with HRD parameters
// (CpbDpbDelaysPresentFlag) at the HRD's lengths, the picture structure and
// its clock timestamps with VUI pic_struct_present_flag.
#ifndef QNVUTIL_QNVUTIL_H264_PIC_TIMING_H
#define QNVUTIL_QNVUTIL_H264_PIC_TIMING_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/h264.h"
#include "qnvutil/sei/clock_time.h"

namespace qnv::h264 {

// clock_timestamp_flag[i] and the timestamp it announces.
struct ClockTimestamp {
    uint32_t clock_timestamp_flag;
    uint32_t ct_type;
    uint32_t nuit_field_based_flag;
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
    uint32_t time_offset;  // i(v): the low time_offset_length bits
};

// NumClockTS is at most 3 (Table D-1).
inline constexpr uint32_t kMaxClockTimestamps = 3;

struct PicTiming {
    uint32_t cpb_removal_delay;
    uint32_t dpb_output_delay;
    uint32_t pic_struct;
    ClockTimestamp clock[kMaxClockTimestamps];
};

// What the SPS makes of the payload.
struct PicTimingLayout {
    bool delays;                // CpbDpbDelaysPresentFlag
    uint32_t cpbBits, dpbBits;  // cpb_removal_delay_length_minus1 + 1, dpb_output_delay_length_minus1 + 1
    bool picStruct;             // pic_struct_present_flag
    uint32_t timeOffsetBits;    // time_offset_length (24 without HRD parameters, E.2.2)
};

// Bits of a u(v) delay field: the HRD's length minus 1, plus 1.
// guard: lengths outside 1..32 (a malformed or unread SPS) take 32 bits
inline uint32_t delayBits(int32_t lengthMinus1) {
    return lengthMinus1 < 0 || lengthMinus1 > 31 ? 32u : static_cast<uint32_t>(lengthMinus1) + 1;
}

inline PicTimingLayout picTimingLayout(const H264SpsRecord& sps) {
    const bool vui = sps.vui_parameters_present_flag == 1;
    const bool nal = vui && sps.nal_hrd_parameters_present_flag == 1;
    const bool vcl = vui && sps.vcl_hrd_parameters_present_flag == 1;
    const HrdParameters& hrd = nal ? sps.nal_hrd : sps.vcl_hrd;
    // guard: a time_offset_length outside its five bits codes none
    const int32_t offsetLength = hrd.time_offset_length;
    const uint32_t offsetBits = !(nal || vcl) ? 24u : offsetLength < 0 || offsetLength > 31 ? 0u : uint32_t(offsetLength);
    return {nal || vcl, delayBits(hrd.cpb_removal_delay_length_minus1), delayBits(hrd.dpb_output_delay_length_minus1),
            vui && sps.pic_struct_present_flag == 1, offsetBits};
}

// NumClockTS of Table D-1; 0 for the reserved values 9 to 15.
inline uint32_t numClockTs(uint32_t picStruct) {
    constexpr uint8_t kCount[9] = {1, 1, 1, 2, 2, 3, 3, 2, 3};
    return picStruct < 9 ? kCount[picStruct] : 0;
}

template <class C, class S>
void clockTimestamp(C& c, S& s, uint32_t timeOffsetBits) {
    if (!QNV_FLAG(clock_timestamp_flag)) return;
    QNV_U(2, ct_type);
    QNV_FLAG(nuit_field_based_flag);
    QNV_U(5, counting_type, 0, 6);
    const uint32_t full = QNV_FLAG(full_timestamp_flag);
    QNV_FLAG(discontinuity_flag);
    QNV_FLAG(cnt_dropped_flag);
    QNV_U(8, n_frames);
    clockTime(c, s, full);
    if (timeOffsetBits > 0) QNV_U(timeOffsetBits, time_offset);
}

template <class C, class S>
void picTiming(C& c, S& s, const PicTimingLayout& layout) {
    c.open("pic_timing");
    if (layout.delays) {
        QNV_U(layout.cpbBits, cpb_removal_delay);
        QNV_U(layout.dpbBits, dpb_output_delay);
    }
    if (layout.picStruct) {
        const uint32_t clocks = numClockTs(QNV_U(4, pic_struct, 0, 8));
        for (uint32_t i = 0; i < clocks; ++i) {
            c.open("clock_timestamp");
            clockTimestamp(c, s.clock[i], layout.timeOffsetBits);
            c.close();
        }
    }
    c.close();
}

}  // namespace qnv::h264

#endif
