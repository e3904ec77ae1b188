// SPS and PPS readers on hand-built units: the record's deliberate
// decisions, emulation prevention, and the guards on stream-given counts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qnvutil/h264.h"

namespace {

using Bytes = std::vector<uint8_t>;

// RBSP bits written MSB first; bytes() adds the stop bit and alignment.
struct Bits {
    std::string s;
    Bits& u(int n, uint64_t v) {
        for (int i = n - 1; i >= 0; --i) s += (v >> i) & 1 ? '1' : '0';
        return *this;
    }
    Bits& ue(uint32_t v) {
        int len = 64 - __builtin_clzll(uint64_t(v) + 1);
        s.append(len - 1, '0');
        return u(len, uint64_t(v) + 1);
    }
    Bits& se(int32_t v) { return ue(v > 0 ? 2 * v - 1 : -2 * v); }
    Bytes bytes(bool stop = true) const {
        std::string b = s + (stop ? "1" : "");
        while (b.size() % 8) b += '0';
        Bytes out;
        for (size_t i = 0; i < b.size(); i += 8) out.push_back(static_cast<uint8_t>(std::stoi(b.substr(i, 8), nullptr, 2)));
        return out;
    }
};

using Words = std::vector<int32_t>;
constexpr int32_t kUntouched = 0x5A5A5A5A;

// Reads the unit into a record of kUntouched words; returns the bytes consumed.
template <typename Record>
uint32_t read(Bytes b, Record& r) {
    std::memset(&r, 0x5A, sizeof r);
    BitBuffer bb{b.data(), static_cast<uint32_t>(b.size()), static_cast<uint32_t>(b.size() * 8), 0};
    if constexpr (std::is_same_v<Record, H264SpsRecord>) {
        return qnvutilRead_SPS(&bb, &r);
    } else {
        return qnvutilRead_PPS(&bb, &r);
    }
}

// SPS start: header 0x67, profile, flags, level 30, sps_id 0.
Bits spsStart(int profile) { return Bits().u(8, 0x67).u(8, profile).u(8, 0).u(8, 30).ue(0); }
// SPS after the POC type: 1 ref, 11x9 MBs, progressive, no crop, then the VUI flag.
Bits& spsFrame(Bits& b, int vui = 0) { return b.ue(1).u(1, 0).ue(10).ue(8).u(1, 1).u(1, 1).u(1, 0).u(1, vui); }
// SPS tail after the chroma block: frame_num, POC type 2, spsFrame without VUI.
Bits& spsTail(Bits& b) { return spsFrame(b.ue(0).ue(2)); }
// PPS start up to num_slice_groups_minus1 and its map type.
Bits ppsStart(uint32_t groupsMinus1, uint32_t mapType) {
    return Bits().u(8, 0x68).ue(0).ue(0).u(1, 0).u(1, 0).ue(groupsMinus1).ue(mapType);
}
// PPS fields after the slice groups, without the optional tail.
Bits& ppsMiddle(Bits& b) {
    return b.ue(0).ue(0).u(1, 0).u(2, 0).se(0).se(0).se(-2).u(1, 1).u(1, 0).u(1, 0);
}

}  // namespace

TEST(H264Sps, ProfilesWithoutTheChromaBlockGetDefaultsWithBitDepth8) {
    H264SpsRecord r;
    for (int profile : {66, 77, 88, 138}) {  // 138 is deliberately not in the high-profile list
        Bits b = spsStart(profile);
        const Bytes unit = spsTail(b).bytes();
        EXPECT_EQ(read(unit, r), unit.size());
        EXPECT_EQ(Words({r.chroma_format_idc, r.bit_depth_luma_minus8, r.bit_depth_chroma_minus8,
                         r.separate_colour_plane_flag, r.seq_scaling_matrix_present_flag, r.pic_width_in_mbs_minus1,
                         r.rbsp_stop_one_bit}),
                  Words({1, 8, 8, kUntouched, kUntouched, 10, 1}))
            << profile;
    }
}

TEST(H264Sps, PocType1OffsetsAreCodeNumbersAndOnlyTheLastCycleEntryStays) {
    Bits b = spsStart(66).ue(0).ue(1).u(1, 0).se(-1).se(3).ue(3).se(5).se(-3).se(7);
    H264SpsRecord r;
    read(spsFrame(b).bytes(), r);
    // se(v) -1 and 3 have code numbers 2 and 5; the third offset, 7, is kept as code number 13
    EXPECT_EQ(Words({r.offset_for_non_ref_pic, r.offset_for_top_to_bottom_field,
                     r.num_ref_frames_in_pic_order_cnt_cycle, r.offset_for_ref_frame,
                     r.log2_max_pic_order_cnt_lsb_minus4, r.pic_width_in_mbs_minus1}),
              Words({2, 5, 3, 13, kUntouched, 10}));
}

TEST(H264Sps, HrdWithMoreThanEightSchedulesStoresSevenAndReadsEight) {
    Bits b = spsStart(66).ue(0).ue(2);
    spsFrame(b, 1).u(1, 0).u(1, 0).u(1, 0).u(1, 0).u(1, 0);  // VUI: no aspect .. timing
    b.u(1, 1).ue(9).u(4, 1).u(4, 2);                         // NAL HRD, cpb_cnt_minus1 9
    for (int i = 0; i <= 9; ++i) b.ue(i).ue(100 + i).u(1, i & 1);
    b.u(5, 23).u(5, 23).u(5, 5).u(5, 24);
    H264SpsRecord r;
    read(b.bytes(), r);
    const HrdSchedule& last = r.nal_hrd.schedule[7];
    // Knowingly misaligned: the field after schedule 7 reads the first bits
    // of schedule 8 (ue 8 = 0001001).
    EXPECT_EQ(Words({r.nal_hrd.cpb_cnt_minus1, last.bit_rate_value_minus1, last.cpb_size_value_minus1, last.cbr_flag,
                     r.nal_hrd.initial_cpb_removal_delay_length_minus1, r.vcl_hrd.cpb_cnt_minus1}),
              Words({7, 7, 107, 1, 2, kUntouched}));
}

TEST(H264Sps, ScalingListsOf444AndUntouchedListsWithoutPresentFlag) {
    Bits b = spsStart(244).ue(3).u(1, 0).ue(0).ue(0).u(1, 1).u(1, 1);  // 4:4:4, bypass, matrix present
    for (int i = 0; i < 12; ++i) {
        b.u(1, i == 0 || i == 11);
        if (i == 0) b.se(2).se(-1).se(-9);  // 10, 9, then 0: the rest repeats 9
        if (i == 11)
            for (int j = 0; j < 64; ++j) b.se(j == 0 ? 8 : 1);  // 16, 17, ..., 79
    }
    H264SpsRecord r;
    const Bytes unit = spsTail(b).bytes();
    EXPECT_EQ(read(unit, r), unit.size());
    // No fall-back rule for list 1, and no UseDefaultScalingMatrix flags.
    EXPECT_EQ(Words({r.separate_colour_plane_flag, r.ScalingList4x4[0][0], r.ScalingList4x4[0][1],
                     r.ScalingList4x4[0][15], r.ScalingList4x4[1][0], r.ScalingList8x8[5][0], r.ScalingList8x8[5][63],
                     r.seq_scaling_list_present_flag[11], r.UseDefaultScalingMatrix8x8Flag[5],
                     r.pic_width_in_mbs_minus1}),
              Words({0, 10, 9, 9, kUntouched, 16, 79, 1, kUntouched, 10}));
}

TEST(H264Sps, EmulationPreventionAndTruncation) {
    // 00 00 03 00 03: only the first 03 goes (the standard's removal); the
    // 22 zeros of sps_id then read through the kept 03.
    H264SpsRecord r;
    read({0x67, 0x42, 0, 0, 0, 3, 0, 3, 0xFF, 0xFF, 0xFF, 0xFF}, r);
    EXPECT_EQ(r.level_idc, 0);
    EXPECT_EQ(r.seq_parameter_set_id, (1 << 23) - 2);
    // The SPS keeps 00 00 0C (the PPS would drop the 0C).
    read({0x67, 0x42, 0, 0, 0, 0x0C, 0x80, 0x80, 0xFF}, r);
    EXPECT_EQ(r.seq_parameter_set_id, 4095 + 0x901);

    // Cut after the VUI flag: the flag's failed read (-1) counts as set and
    // every field behind it is read past the end; the caller's data stays.
    Bits b = spsStart(66).ue(0).ue(2);
    spsFrame(b).s.pop_back();  // the VUI flag itself
    Bytes unit = b.bytes(false);
    BitBuffer bb{unit.data(), static_cast<uint32_t>(unit.size()), static_cast<uint32_t>(b.s.size() - 1), 0};
    const Bytes before = unit;
    const uint32_t consumed = qnvutilRead_SPS(&bb, &r);
    EXPECT_EQ(Words({r.vui_parameters_present_flag, r.aspect_ratio_idc, r.num_units_in_tick, r.rbsp_stop_one_bit}),
              Words({-1, -1, -1, -1}));
    EXPECT_EQ(consumed, bb.bitPos / 8);
    EXPECT_EQ(unit, before);

    EXPECT_EQ(qnvutilRead_SPS(nullptr, &r), 0u);
    BitBuffer empty{unit.data(), 0, 64, 0};
    EXPECT_EQ(qnvutilRead_SPS(&empty, &r), 0u);
    EXPECT_EQ(qnvutilRead_SPS(&bb, nullptr), 0u);
}

TEST(H264Pps, MoreDataDecidesTheOptionalTail) {
    Bits b = Bits().u(8, 0x68).ue(0).ue(0).u(1, 1).u(1, 0).ue(0);
    H264PpsRecord r;
    Bytes unit = ppsMiddle(b).bytes();
    EXPECT_EQ(read(unit, r), unit.size());
    EXPECT_EQ(Words({r.moreData, r.transform_8x8_mode_flag, r.second_chroma_qp_index_offset, r.chroma_qp_index_offset,
                     r.rbsp_stop_one_bit}),
              Words({0, kUntouched, kUntouched, -2, 1}));

    // With a tail: 6 + 2 lists for transform_8x8_mode_flag 1 (never 12).
    b.u(1, 1).u(1, 1);
    for (int i = 0; i < 7; ++i) b.u(1, 0);
    b.u(1, 1).se(-8).se(3);  // list 7: 0 at once, so the whole list is lastScale 8
    unit = b.bytes();
    EXPECT_EQ(read(unit, r), unit.size());
    EXPECT_EQ(Words({r.moreData, r.pic_scaling_list_present_flag[7], r.pic_scaling_list_present_flag[8],
                     r.ScalingList8x8[1][63], r.second_chroma_qp_index_offset}),
              Words({1, 1, kUntouched, 8, 3}));

    BitBuffer empty{unit.data(), 0, 0, 0};
    std::memset(&r, 0x5A, sizeof r);
    EXPECT_NE(qnvutilRead_PPS(&empty, &r), 0u);  // parsed like any other buffer
    EXPECT_EQ(r.forbidden_zero_bit, 0);
}

TEST(H264Pps, SliceGroupsAreKeptWithinTheArraysAndTheRestIsStillRead) {
    H264PpsRecord r;
    // Type 0 with 21 groups: eight run lengths kept, all 21 read.
    Bits b = ppsStart(20, 0);
    for (int i = 0; i <= 20; ++i) b.ue(i + 1);
    read(ppsMiddle(b).bytes(), r);
    EXPECT_EQ(Words({r.run_length_minus1[7], r.top_left[0], r.chroma_qp_index_offset}), Words({8, kUntouched, -2}));

    // Type 2 reads num_slice_groups_minus1 + 1 pairs, one more than the standard.
    b = ppsStart(2, 2);
    for (int i = 0; i <= 2; ++i) b.ue(10 * i).ue(10 * i + 5);
    read(ppsMiddle(b).bytes(), r);
    EXPECT_EQ(Words({r.top_left[2], r.bottom_right[2], r.top_left[3], r.chroma_qp_index_offset}),
              Words({20, 25, kUntouched, -2}));

    // Type 6 with 300 map units of 2 bits: 256 kept.
    b = ppsStart(3, 6).ue(299);
    for (int i = 0; i < 300; ++i) b.u(2, i % 4);
    read(ppsMiddle(b).bytes(), r);
    EXPECT_EQ(Words({r.slice_group_id[255], r.num_ref_idx_l0_default_active_minus1, r.chroma_qp_index_offset}),
              Words({3, 0, -2}));

    // The PPS drops the 0C of 00 00 0C: slice_group_id bits 32..55 are
    // bytes 00 00 0C, so ids 17..24 come from the byte after it.
    b = ppsStart(1, 6).ue(31);
    ASSERT_EQ(b.s.size(), 31u);
    b.u(1, 1).u(16, 0).u(8, 0x0C).u(7, 0x7F);
    read(ppsMiddle(b).bytes(), r);
    EXPECT_EQ(Words(r.slice_group_id + 17, r.slice_group_id + 25), Words(8, 1));

    // Hostile counts past the end of a few bytes finish at once.
    read(ppsStart(7, 6).ue(0x7FFFFFFE).bytes(false), r);
    EXPECT_EQ(r.slice_group_id[255], -1);
    read(ppsStart(0x7FFFFFFE, 2).bytes(false), r);
    H264SpsRecord s;
    read(spsStart(66).ue(0).ue(1).u(1, 0).se(0).se(0).ue(0x7FFFFFFE).bytes(false), s);
    EXPECT_EQ(s.offset_for_ref_frame, 0);
}
