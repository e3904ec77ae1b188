// H.264 sequence and picture parameter set readers.
//
// Each reader parses a private copy of the NAL unit with its emulation
// prevention bytes removed, reading with the bit reader's past-end rules, and
// stores one record field per syntax element. Loops whose counts come from
// the stream are bounded by the record's arrays for storing and by the data
// for time: once the position is past the end, every further iteration reads
// the same past-end values, so such iterations are taken in one step.
#include "qnvutil/h264/paramsets.h"

#include <algorithm>

#include "foundation/bitio/bitio.h"
#include "foundation/bitio/unescape.h"
#include "qnvutil/qxutil.h"

namespace qnv {

bool h264HasChromaBlock(int32_t profile_idc) {
    switch (profile_idc) {
        case 44: case 83: case 86: case 100: case 110: case 118: case 122: case 128: case 244: return true;
        default: return false;  // 134, 135, 138 and 139 deliberately included
    }
}

namespace {

// The caller's bytes with emulation prevention removed (foundation/bitio).
using WorkingCopy = UnescapedCopy;

class Reader {
public:
    Reader(BitBuffer* bb, H264SyntaxTrace* trace) : bb_(bb), trace_(trace) {}

    int32_t u(int32_t& field, uint32_t n, const char* name, int32_t i = -1) {
        return store(field, static_cast<int32_t>(ReadBits(bb_, n)), name, i);
    }
    int32_t ue(int32_t& field, const char* name, int32_t i = -1) {
        return store(field, static_cast<int32_t>(ReadExponentialGolombCode(bb_)), name, i);
    }
    int32_t se(int32_t& field, const char* name) {
        return store(field, ReadExponentialGolombCodeSigned(bb_), name, -1);
    }
    int32_t store(int32_t& field, int32_t value, const char* name, int32_t i, int32_t j = -1) {
        field = value;
        if (trace_) trace_->element(name, i, j, value);
        return value;
    }
    void open(const char* name) {
        if (trace_) trace_->open(name);
    }
    void close() {
        if (trace_) trace_->close();
    }

    // Runs body(i) for i in [0, count). Iterations from `keep` on are not
    // stored; while the position is past the end each of them moves `bits`
    // bits and reads nothing from memory, so a run of them is one step (up to
    // where bitPos would wrap, as it does bit by bit).
    template <typename Body>
    void repeat(uint32_t count, uint32_t keep, uint32_t bits, Body body) {
        uint32_t i = 0;
        while (i < count) {
            const uint64_t p = bb_->bitPos;
            const uint64_t run = p > bb_->sizeBits ? ((uint64_t(1) << 32) - p) / bits : 0;
            if (i < keep || run == 0) {
                body(i);
                ++i;
                continue;
            }
            const uint64_t n = std::min<uint64_t>(run, count - i);
            bb_->bitPos = static_cast<uint32_t>(p + n * bits);
            i += static_cast<uint32_t>(n);
        }
    }

    // scaling_list(): lastScale = nextScale = 8; each entry reads a delta
    // while nextScale is not 0; a 0 repeats the previous entry to the end.
    void scalingList(int32_t* list, int32_t size, const char* name, int32_t index) {
        int32_t lastScale = 8, nextScale = 8;
        for (int32_t j = 0; j < size; ++j) {
            if (nextScale != 0) {
                uint32_t delta = static_cast<uint32_t>(ReadExponentialGolombCodeSigned(bb_));
                // Modulo 256 of the exact sum (wrapping 32-bit sums keep it).
                nextScale = static_cast<int32_t>((uint32_t(lastScale) + delta + 256u) & 0xFFu);
            }
            lastScale = store(list[j], nextScale == 0 ? lastScale : nextScale, name, index, j);
        }
    }

    // `count` lists: flag i, then list i into the 4x4 (i < 6) or 8x8 arrays.
    void scalingLists(int32_t count, int32_t* present, int32_t (*list4x4)[16], int32_t (*list8x8)[64],
                      const char* presentName) {
        // guard: the records hold 12 present flags, six 4x4 and six 8x8 lists.
        count = std::clamp(count, 0, 12);
        for (int32_t i = 0; i < count; ++i) {
            if (u(present[i], 1, presentName, i) == 0) continue;  // keeps the caller's list
            if (i < 6) {
                scalingList(list4x4[i], 16, "ScalingList4x4", i);
            } else {
                scalingList(list8x8[i - 6], 64, "ScalingList8x8", i - 6);
            }
        }
    }

    // rbsp_stop_one_bit, then single bits up to a byte boundary (stopping at
    // a failed read); the result is the position in bytes.
    uint32_t finish(int32_t& stopBit) {
        u(stopBit, 1, "rbsp_stop_one_bit");
        while (bb_->bitPos % 8 != 0) {
            if (ReadBit(bb_) == 0xFFFFFFFFu) break;
        }
        return bb_->bitPos / 8;
    }

    BitBuffer* bits() { return bb_; }

private:
    BitBuffer* bb_;
    H264SyntaxTrace* trace_;
};

void readHrd(Reader& r, HrdParameters& h, const char* name) {
    r.open(name);
    const int32_t cpbCnt = static_cast<int32_t>(ReadExponentialGolombCode(r.bits()));
    // Stored as at most 7: eight schedules are read and the rest of such a
    // stream is not (the parse is knowingly misaligned after it). A negative
    // count (failed read) is stored as it is and reads no schedule.
    r.store(h.cpb_cnt_minus1, std::min(cpbCnt, 7), "cpb_cnt_minus1", -1);
    r.u(h.bit_rate_scale, 4, "bit_rate_scale");
    r.u(h.cpb_size_scale, 4, "cpb_size_scale");
    for (int32_t i = 0; i <= h.cpb_cnt_minus1; ++i) {
        r.ue(h.schedule[i].bit_rate_value_minus1, "bit_rate_value_minus1", i);
        r.ue(h.schedule[i].cpb_size_value_minus1, "cpb_size_value_minus1", i);
        r.u(h.schedule[i].cbr_flag, 1, "cbr_flag", i);
    }
    r.u(h.initial_cpb_removal_delay_length_minus1, 5, "initial_cpb_removal_delay_length_minus1");
    r.u(h.cpb_removal_delay_length_minus1, 5, "cpb_removal_delay_length_minus1");
    r.u(h.dpb_output_delay_length_minus1, 5, "dpb_output_delay_length_minus1");
    r.u(h.time_offset_length, 5, "time_offset_length");
    r.close();
}

// Presence flags are tested for non-zero: a failed read (-1) counts as set.
void readVui(Reader& r, H264SpsRecord& s) {
    r.open("vui_parameters");
    if (r.u(s.aspect_ratio_info_present_flag, 1, "aspect_ratio_info_present_flag")) {
        if (r.u(s.aspect_ratio_idc, 8, "aspect_ratio_idc") == 255) {
            r.u(s.sar_width, 16, "sar_width");
            r.u(s.sar_height, 16, "sar_height");
        }
    }
    if (r.u(s.overscan_info_present_flag, 1, "overscan_info_present_flag"))
        r.u(s.overscan_appropriate_flag, 1, "overscan_appropriate_flag");
    if (r.u(s.video_signal_type_present_flag, 1, "video_signal_type_present_flag")) {
        r.u(s.video_format, 3, "video_format");
        r.u(s.video_full_range_flag, 1, "video_full_range_flag");
        if (r.u(s.colour_description_present_flag, 1, "colour_description_present_flag")) {
            r.u(s.colour_primaries, 8, "colour_primaries");
            r.u(s.transfer_characteristics, 8, "transfer_characteristics");
            r.u(s.matrix_coefficients, 8, "matrix_coefficients");
        }
    }
    if (r.u(s.chroma_loc_info_present_flag, 1, "chroma_loc_info_present_flag")) {
        r.ue(s.chroma_sample_loc_type_top_field, "chroma_sample_loc_type_top_field");
        r.ue(s.chroma_sample_loc_type_bottom_field, "chroma_sample_loc_type_bottom_field");
    }
    if (r.u(s.timing_info_present_flag, 1, "timing_info_present_flag")) {
        r.u(s.num_units_in_tick, 32, "num_units_in_tick");
        r.u(s.time_scale, 32, "time_scale");
        r.u(s.fixed_frame_rate_flag, 1, "fixed_frame_rate_flag");
    }
    if (r.u(s.nal_hrd_parameters_present_flag, 1, "nal_hrd_parameters_present_flag"))
        readHrd(r, s.nal_hrd, "nal_hrd_parameters");
    if (r.u(s.vcl_hrd_parameters_present_flag, 1, "vcl_hrd_parameters_present_flag"))
        readHrd(r, s.vcl_hrd, "vcl_hrd_parameters");
    if (s.nal_hrd_parameters_present_flag != 0 || s.vcl_hrd_parameters_present_flag != 0)
        r.u(s.low_delay_hrd_flag, 1, "low_delay_hrd_flag");
    r.u(s.pic_struct_present_flag, 1, "pic_struct_present_flag");
    if (r.u(s.bitstream_restriction_flag, 1, "bitstream_restriction_flag")) {
        r.u(s.motion_vectors_over_pic_boundaries_flag, 1, "motion_vectors_over_pic_boundaries_flag");
        r.ue(s.max_bytes_per_pic_denom, "max_bytes_per_pic_denom");
        r.ue(s.max_bits_per_mb_denom, "max_bits_per_mb_denom");
        r.ue(s.log2_max_mv_length_horizontal, "log2_max_mv_length_horizontal");
        r.ue(s.log2_max_mv_length_vertical, "log2_max_mv_length_vertical");
        r.ue(s.max_num_reorder_frames, "max_num_reorder_frames");
        r.ue(s.max_dec_frame_buffering, "max_dec_frame_buffering");
    }
    r.close();
}

void readNalHeader(Reader& r, int32_t& forbidden, int32_t& refIdc, int32_t& type) {
    r.u(forbidden, 1, "forbidden_zero_bit");
    r.u(refIdc, 2, "nal_ref_idc");
    r.u(type, 5, "nal_unit_type");
}

// Iterations of a loop "for i = 0 .. last": none for a negative last.
uint32_t inclusiveCount(int32_t last) { return last < 0 ? 0u : static_cast<uint32_t>(last) + 1u; }

}  // namespace

uint32_t readH264Sps(BitBuffer* bb, H264SpsRecord* sps, H264SyntaxTrace* trace) {
    // guard: a null BitBuffer is treated like an empty one.
    if (bb == nullptr || sps == nullptr || bb->sizeBytes == 0) return 0;
    WorkingCopy copy(*bb, false);
    if (!copy.ok()) return 0;
    Reader r(copy.bits(), trace);
    H264SpsRecord& s = *sps;

    readNalHeader(r, s.forbidden_zero_bit, s.nal_ref_idc, s.nal_unit_type);
    r.u(s.profile_idc, 8, "profile_idc");
    r.u(s.constraint_set0_flag, 1, "constraint_set0_flag");
    r.u(s.constraint_set1_flag, 1, "constraint_set1_flag");
    r.u(s.constraint_set2_flag, 1, "constraint_set2_flag");
    r.u(s.constraint_set3_flag, 1, "constraint_set3_flag");
    r.u(s.constraint_set4_flag, 1, "constraint_set4_flag");
    r.u(s.constraint_set5_flag, 1, "constraint_set5_flag");
    r.u(s.reserved_zero_2bits, 2, "reserved_zero_2bits");
    r.u(s.level_idc, 8, "level_idc");
    r.ue(s.seq_parameter_set_id, "seq_parameter_set_id");

    if (h264HasChromaBlock(s.profile_idc)) {
        if (r.ue(s.chroma_format_idc, "chroma_format_idc") == 3)
            r.u(s.separate_colour_plane_flag, 1, "separate_colour_plane_flag");
        r.ue(s.bit_depth_luma_minus8, "bit_depth_luma_minus8");
        r.ue(s.bit_depth_chroma_minus8, "bit_depth_chroma_minus8");
        r.u(s.qpprime_y_zero_transform_bypass_flag, 1, "qpprime_y_zero_transform_bypass_flag");
        if (r.u(s.seq_scaling_matrix_present_flag, 1, "seq_scaling_matrix_present_flag"))
            r.scalingLists(s.chroma_format_idc == 3 ? 12 : 8, s.seq_scaling_list_present_flag, s.ScalingList4x4,
                           s.ScalingList8x8, "seq_scaling_list_present_flag");
    } else {
        // Written, not read; the bit depths are deliberately 8, not 0.
        s.chroma_format_idc = 1;
        s.bit_depth_luma_minus8 = 8;
        s.bit_depth_chroma_minus8 = 8;
    }

    r.ue(s.log2_max_frame_num_minus4, "log2_max_frame_num_minus4");
    r.ue(s.pic_order_cnt_type, "pic_order_cnt_type");
    if (s.pic_order_cnt_type == 0) {
        r.ue(s.log2_max_pic_order_cnt_lsb_minus4, "log2_max_pic_order_cnt_lsb_minus4");
    } else if (s.pic_order_cnt_type == 1) {
        r.u(s.delta_pic_order_always_zero_flag, 1, "delta_pic_order_always_zero_flag");
        // Deliberately unsigned: negative offsets are kept as code numbers.
        r.ue(s.offset_for_non_ref_pic, "offset_for_non_ref_pic");
        r.ue(s.offset_for_top_to_bottom_field, "offset_for_top_to_bottom_field");
        r.ue(s.num_ref_frames_in_pic_order_cnt_cycle, "num_ref_frames_in_pic_order_cnt_cycle");
        // One slot: each offset overwrites it, the last one stays. Past the
        // end every ue(v) reads 0, which a skipped run leaves in the slot.
        const uint32_t cycle = static_cast<uint32_t>(std::max(s.num_ref_frames_in_pic_order_cnt_cycle, 0));
        uint32_t lastRead = 0xFFFFFFFFu;
        r.repeat(cycle, 0, 1, [&](uint32_t i) {
            s.offset_for_ref_frame = static_cast<int32_t>(ReadExponentialGolombCode(r.bits()));
            lastRead = i;
        });
        if (cycle > 0 && lastRead != cycle - 1) s.offset_for_ref_frame = 0;
        if (cycle > 0 && trace) trace->element("offset_for_ref_frame", -1, -1, s.offset_for_ref_frame);
    }
    r.ue(s.max_num_ref_frames, "max_num_ref_frames");
    r.u(s.gaps_in_frame_num_value_allowed_flag, 1, "gaps_in_frame_num_value_allowed_flag");
    r.ue(s.pic_width_in_mbs_minus1, "pic_width_in_mbs_minus1");
    r.ue(s.pic_height_in_map_units_minus1, "pic_height_in_map_units_minus1");
    if (r.u(s.frame_mbs_only_flag, 1, "frame_mbs_only_flag") == 0)
        r.u(s.mb_adaptive_frame_field_flag, 1, "mb_adaptive_frame_field_flag");
    r.u(s.direct_8x8_inference_flag, 1, "direct_8x8_inference_flag");
    if (r.u(s.frame_cropping_flag, 1, "frame_cropping_flag")) {
        r.ue(s.frame_crop_left_offset, "frame_crop_left_offset");
        r.ue(s.frame_crop_right_offset, "frame_crop_right_offset");
        r.ue(s.frame_crop_top_offset, "frame_crop_top_offset");
        r.ue(s.frame_crop_bottom_offset, "frame_crop_bottom_offset");
    }
    if (r.u(s.vui_parameters_present_flag, 1, "vui_parameters_present_flag")) readVui(r, s);

    const uint32_t consumed = r.finish(s.rbsp_stop_one_bit);
    bb->bitPos = copy.bits()->bitPos;
    return consumed;
}

uint32_t readH264Pps(BitBuffer* bb, H264PpsRecord* pps, H264SyntaxTrace* trace) {
    if (bb == nullptr || pps == nullptr) return 0;  // guard: null BitBuffer
    WorkingCopy copy(*bb, true);
    if (!copy.ok()) return 0;
    Reader r(copy.bits(), trace);
    H264PpsRecord& p = *pps;

    readNalHeader(r, p.forbidden_zero_bit, p.nal_ref_idc, p.nal_unit_type);
    r.ue(p.pic_parameter_set_id, "pic_parameter_set_id");
    r.ue(p.seq_parameter_set_id, "seq_parameter_set_id");
    r.u(p.entropy_coding_mode_flag, 1, "entropy_coding_mode_flag");
    r.u(p.bottom_field_pic_order_in_frame_present_flag, 1, "bottom_field_pic_order_in_frame_present_flag");
    if (r.ue(p.num_slice_groups_minus1, "num_slice_groups_minus1") > 0) {
        const uint32_t groups = inclusiveCount(p.num_slice_groups_minus1);
        // guard: run_length_minus1, top_left and bottom_right hold 8 entries
        // and slice_group_id 256; values beyond them are read but not kept.
        switch (r.ue(p.slice_group_map_type, "slice_group_map_type")) {
            case 0:
                r.repeat(groups, 8, 1, [&](uint32_t i) {
                    int32_t v = static_cast<int32_t>(ReadExponentialGolombCode(r.bits()));
                    if (i < 8) r.store(p.run_length_minus1[i], v, "run_length_minus1", static_cast<int32_t>(i));
                });
                break;
            case 2:
                // One pair more than the standard's loop, deliberately.
                r.repeat(groups, 8, 2, [&](uint32_t i) {
                    int32_t tl = static_cast<int32_t>(ReadExponentialGolombCode(r.bits()));
                    int32_t br = static_cast<int32_t>(ReadExponentialGolombCode(r.bits()));
                    if (i >= 8) return;
                    r.store(p.top_left[i], tl, "top_left", static_cast<int32_t>(i));
                    r.store(p.bottom_right[i], br, "bottom_right", static_cast<int32_t>(i));
                });
                break;
            case 3: case 4: case 5:
                r.u(p.slice_group_change_direction_flag, 1, "slice_group_change_direction_flag");
                r.ue(p.slice_group_change_rate_minus1, "slice_group_change_rate_minus1");
                break;
            case 6: {
                r.ue(p.pic_size_in_map_units_minus1, "pic_size_in_map_units_minus1");
                // Ceil(Log2(num_slice_groups_minus1 + 1)) bits, 1..31.
                const uint32_t bits = 32 - static_cast<uint32_t>(__builtin_clz(groups - 1));
                r.repeat(inclusiveCount(p.pic_size_in_map_units_minus1), 256, bits, [&](uint32_t i) {
                    int32_t v = static_cast<int32_t>(ReadBits(r.bits(), bits));
                    if (i < 256) r.store(p.slice_group_id[i], v, "slice_group_id", static_cast<int32_t>(i));
                });
                break;
            }
            default: break;
        }
    }
    r.ue(p.num_ref_idx_l0_default_active_minus1, "num_ref_idx_l0_default_active_minus1");
    r.ue(p.num_ref_idx_l1_default_active_minus1, "num_ref_idx_l1_default_active_minus1");
    r.u(p.weighted_pred_flag, 1, "weighted_pred_flag");
    r.u(p.weighted_bipred_idc, 2, "weighted_bipred_idc");
    r.se(p.pic_init_qp_minus26, "pic_init_qp_minus26");
    r.se(p.pic_init_qs_minus26, "pic_init_qs_minus26");
    r.se(p.chroma_qp_index_offset, "chroma_qp_index_offset");
    r.u(p.deblocking_filter_control_present_flag, 1, "deblocking_filter_control_present_flag");
    r.u(p.constrained_intra_pred_flag, 1, "constrained_intra_pred_flag");
    r.u(p.redundant_pic_cnt_present_flag, 1, "redundant_pic_cnt_present_flag");

    // Instead of more_rbsp_data(): 1 when one of the seven bits after the
    // next one is set, looking no further than sizeBits.
    BitBuffer* bits = r.bits();
    int32_t more = 0;
    for (uint32_t k = 1; k <= 7 && more == 0; ++k) {
        if (uint64_t(bits->bitPos) + k >= bits->sizeBits) break;
        more = static_cast<int32_t>(PeekBit(bits, k));
    }
    p.moreData = more;
    if (more == 1) {
        r.u(p.transform_8x8_mode_flag, 1, "transform_8x8_mode_flag");
        if (r.u(p.pic_scaling_matrix_present_flag, 1, "pic_scaling_matrix_present_flag"))
            r.scalingLists(6 + 2 * p.transform_8x8_mode_flag, p.pic_scaling_list_present_flag, p.ScalingList4x4,
                           p.ScalingList8x8, "pic_scaling_list_present_flag");
        r.se(p.second_chroma_qp_index_offset, "second_chroma_qp_index_offset");
    }

    const uint32_t consumed = r.finish(p.rbsp_stop_one_bit);
    bb->bitPos = copy.bits()->bitPos;
    return consumed;
}

}  // namespace qnv

QNV_BEGIN_C

QNV_API uint32_t qnvutilRead_SPS(BitBuffer* bb, H264SpsRecord* sps) { return qnv::readH264Sps(bb, sps, nullptr); }

QNV_API uint32_t qnvutilRead_PPS(BitBuffer* bb, H264PpsRecord* pps) { return qnv::readH264Pps(bb, pps, nullptr); }

QNV_END_C
