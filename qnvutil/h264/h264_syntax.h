// The H.264 syntax the library reads and writes, described once over the
// syntax coders (foundation/syntax/coder.h): seq_parameter_set_data with its
// VUI and HRD (7.3.2.1.1, E.1.1, E.1.2), pic_parameter_set_rbsp (7.3.2.2) and
// slice_header with ref_pic_list_modification, pred_weight_table and
// dec_ref_pic_marking (7.3.3, 7.3.3.1-7.3.3.3).
//
// The parameter-set readers' deliberate departures from the standard are the
// named functions below (chroma block profiles, unsigned POC-type-1 offsets,
// one offset_for_ref_frame slot, the cpb_cnt_minus1 clamp, the extra
// top_left/bottom_right pair, the moreData look-ahead); both directions use
// them, so a written unit reads back to the same record.
#ifndef QNVUTIL_QNVUTIL_H264_H264_SYNTAX_H
#define QNVUTIL_QNVUTIL_H264_H264_SYNTAX_H

#include <algorithm>
#include <cstdint>

#include "foundation/bitio/bitio.h"
#include "foundation/syntax/coder.h"
#include "qnvutil/h264.h"

namespace qnv::h264 {

using syntax::Bounds;
using syntax::FieldSink;
using syntax::Name;
using syntax::ReadCoder;
using syntax::WriteCoder;

// ---- Reader departures, shared by both directions -------------------------------

// Profiles whose SPS carries the chroma format and bit-depth block; 134, 135,
// 138 and 139 are deliberately left out.
inline bool hasChromaBlock(int32_t profile_idc) {
    switch (profile_idc) {
        case 44: case 83: case 86: case 100: case 110: case 118: case 122: case 128: case 244: return true;
        default: return false;
    }
}

// cpb_cnt_minus1 is kept as at most 7; eight schedules are then coded and
// the rest of such a stream is not (its parse is knowingly misaligned). A
// failed read (-1) is kept as it is and codes no schedule.
inline int32_t storedCpbCount(int32_t coded) { return std::min(coded, 7); }

// slice_group_map_type 2 codes one top_left/bottom_right pair more than the
// standard: num_slice_groups_minus1 + 1 pairs.
inline uint32_t boxPairs(uint32_t numSliceGroupsMinus1) { return numSliceGroupsMinus1 + 1; }

// Iterations of a loop "for i = 0 .. last": none for a negative last.
inline uint32_t inclusiveCount(int32_t last) { return last < 0 ? 0u : static_cast<uint32_t>(last) + 1u; }

// Every loop of the parameter sets has at most this many turns in a record
// a writer accepts (the bounds of its count refuse larger ones).
constexpr uint32_t kMaxWrittenTurns = 256;

// Runs body(i) for i in [0, count). On reading, iterations from `keep` on
// are not stored: while the position is past the end each of them moves
// `bits` bits and reads nothing, so a run of them is taken in one step (up
// to where bitPos would wrap, as it does bit by bit). Returns the number of
// iterations whose body ran.
template <class C, class Body>
uint32_t repeat(C& c, uint32_t count, uint32_t keep, uint32_t bits, Body body) {
    if constexpr (C::kWriting) {
        // guard: a count out of bounds is refused; its turns need not be written
        const uint32_t n = std::min(count, kMaxWrittenTurns);
        for (uint32_t i = 0; i < n; ++i) body(i);
        return n;
    } else {
        BitBuffer* bb = c.buffer();
        uint32_t i = 0, ran = 0;
        while (i < count) {
            const uint64_t p = bb->bitPos;
            const uint64_t run = p > bb->sizeBits ? ((uint64_t(1) << 32) - p) / bits : 0;
            if (i < keep || run == 0) {
                body(i);
                ++i;
                ran = i;
                continue;
            }
            const uint64_t n = std::min<uint64_t>(run, count - i);
            bb->bitPos = static_cast<uint32_t>(p + n * bits);
            i += static_cast<uint32_t>(n);
        }
        return ran;
    }
}

// scaling_list(): lastScale = nextScale = 8; each entry reads delta_scale
// while nextScale is not 0; a 0 repeats the previous entry to the end. The
// record keeps the entries. The writer codes the deltas and closes the list
// early with a zero next-scale where the repeated tail is at least as long
// as that closing code.
template <class C, class W>
void scalingList(C& c, W* list, int32_t size, const char* name, int32_t index) {
    if constexpr (C::kWriting) {
        auto seBits = [](int32_t v) {
            const uint32_t k = v <= 0 ? uint32_t(-2 * v) : uint32_t(2 * v - 1);
            return 2 * (31 - __builtin_clz(k + 1)) + 1;
        };
        // entries [run, size) repeat the one before them (8 before the first)
        int32_t run = size;
        while (run > 1 && list[run - 1] == list[run - 2]) --run;
        if (run == 1 && list[0] == 8) run = 0;
        const int32_t last = run == 0 ? 8 : static_cast<int32_t>(list[run - 1]);
        // each repeated entry costs a one-bit zero delta
        if (run < size && size - run < seBits(static_cast<int8_t>(-last))) run = size;
        int32_t previous = 8;
        for (int32_t j = 0; j < run; ++j) {
            c.skipSe(static_cast<int8_t>(list[j] - previous), {"delta_scale", index, j});
            previous = static_cast<int32_t>(list[j]);
        }
        if (run < size) c.skipSe(static_cast<int8_t>(-previous), {"delta_scale", index, run});
        for (int32_t j = 0; j < size; ++j) c.derived({name, index, j}, list[j]);
    } else {
        int32_t lastScale = 8, nextScale = 8;
        for (int32_t j = 0; j < size; ++j) {
            if (nextScale != 0) {
                const uint32_t delta = static_cast<uint32_t>(c.skipSe(0, {"delta_scale", index, j}));
                // Modulo 256 of the exact sum (wrapping 32-bit sums keep it).
                nextScale = static_cast<int32_t>((uint32_t(lastScale) + delta + 256u) & 0xFFu);
            }
            list[j] = nextScale == 0 ? lastScale : nextScale;
            lastScale = list[j];
            c.derived({name, index, j}, list[j]);
        }
    }
}

// `count` lists: present flag i, then list i into the 4x4 (i < 6) or 8x8
// arrays. A list whose flag is 0 keeps the caller's values.
template <class C, class W>
void scalingLists(C& c, uint32_t count, W* present, W (*list4x4)[16], W (*list8x8)[64], const char* presentName) {
    // guard: the records hold 12 present flags, six 4x4 and six 8x8 lists.
    count = std::min<uint32_t>(count, 12);
    for (uint32_t i = 0; i < count; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        if (c.u(1, present[i], {presentName, n}) == 0) continue;
        if (i < 6)
            scalingList(c, list4x4[i], 16, "ScalingList4x4", n);
        else
            scalingList(c, list8x8[i - 6], 64, "ScalingList8x8", n - 6);
    }
}

// ---- Sequence parameter set -------------------------------------------------------

struct NalHeader {
    uint32_t refIdc;
    uint32_t type;
};

template <class C, class S>
NalHeader nalHeader(C& c, S& s) {
    QNV_U(1, forbidden_zero_bit, 0, 0);
    const uint32_t refIdc = QNV_U(2, nal_ref_idc);
    return {refIdc, QNV_U(5, nal_unit_type)};
}

template <class C, class S>
void hrdParameters(C& c, S& s, const char* structure) {
    c.open(structure);
    uint32_t coded = 0;
    if constexpr (C::kWriting) {
        coded = QNV_UE(cpb_cnt_minus1, 0, 7);
    } else {
        coded = c.skipUe(0, {"cpb_cnt_minus1"});
        s.cpb_cnt_minus1 = storedCpbCount(static_cast<int32_t>(coded));
        c.derived({"cpb_cnt_minus1"}, s.cpb_cnt_minus1);
    }
    QNV_U(4, bit_rate_scale);
    QNV_U(4, cpb_size_scale);
    const uint32_t schedules = inclusiveCount(storedCpbCount(static_cast<int32_t>(coded)));
    for (uint32_t i = 0; i < schedules; ++i) {
        auto& e = s.schedule[i];
        const int32_t n = static_cast<int32_t>(i);
        c.ue(e.bit_rate_value_minus1, {"bit_rate_value_minus1", n}, {0, 0xFFFFFFFE});
        c.ue(e.cpb_size_value_minus1, {"cpb_size_value_minus1", n}, {0, 0xFFFFFFFE});
        c.u(1, e.cbr_flag, {"cbr_flag", n});
    }
    QNV_U(5, initial_cpb_removal_delay_length_minus1);
    QNV_U(5, cpb_removal_delay_length_minus1);
    QNV_U(5, dpb_output_delay_length_minus1);
    QNV_U(5, time_offset_length);
    c.close();
}

// Presence flags are tested for non-zero: a failed read (-1) counts as set.
template <class C, class S>
void vuiParameters(C& c, S& s) {
    c.open("vui_parameters");
    if (QNV_FLAG(aspect_ratio_info_present_flag)) {
        if (QNV_U(8, aspect_ratio_idc) == 255) {
            QNV_U(16, sar_width);
            QNV_U(16, sar_height);
        }
    }
    if (QNV_FLAG(overscan_info_present_flag)) QNV_FLAG(overscan_appropriate_flag);
    if (QNV_FLAG(video_signal_type_present_flag)) {
        QNV_U(3, video_format);
        QNV_FLAG(video_full_range_flag);
        if (QNV_FLAG(colour_description_present_flag)) {
            QNV_U(8, colour_primaries);
            QNV_U(8, transfer_characteristics);
            QNV_U(8, matrix_coefficients);
        }
    }
    if (QNV_FLAG(chroma_loc_info_present_flag)) {
        QNV_UE(chroma_sample_loc_type_top_field, 0, 5);
        QNV_UE(chroma_sample_loc_type_bottom_field, 0, 5);
    }
    if (QNV_FLAG(timing_info_present_flag)) {
        QNV_U(32, num_units_in_tick);
        QNV_U(32, time_scale);
        QNV_FLAG(fixed_frame_rate_flag);
    }
    const uint32_t nal = QNV_FLAG(nal_hrd_parameters_present_flag);
    if (nal) hrdParameters(c, s.nal_hrd, "nal_hrd_parameters");
    const uint32_t vcl = QNV_FLAG(vcl_hrd_parameters_present_flag);
    if (vcl) hrdParameters(c, s.vcl_hrd, "vcl_hrd_parameters");
    if (nal || vcl) QNV_FLAG(low_delay_hrd_flag);
    QNV_FLAG(pic_struct_present_flag);
    if (QNV_FLAG(bitstream_restriction_flag)) {
        QNV_FLAG(motion_vectors_over_pic_boundaries_flag);
        QNV_UE(max_bytes_per_pic_denom, 0, 16);
        QNV_UE(max_bits_per_mb_denom, 0, 16);
        QNV_UE(log2_max_mv_length_horizontal, 0, 15);
        QNV_UE(log2_max_mv_length_vertical, 0, 15);
        QNV_UE(max_num_reorder_frames, 0, 16);
        QNV_UE(max_dec_frame_buffering, 0, 16);
    }
    c.close();
}

template <class C, class S>
void spsPayload(C& c, S& s) {
    nalHeader(c, s);
    const uint32_t profile = QNV_U(8, profile_idc);
    QNV_FLAG(constraint_set0_flag);
    QNV_FLAG(constraint_set1_flag);
    QNV_FLAG(constraint_set2_flag);
    QNV_FLAG(constraint_set3_flag);
    QNV_FLAG(constraint_set4_flag);
    QNV_FLAG(constraint_set5_flag);
    QNV_U(2, reserved_zero_2bits);
    QNV_U(8, level_idc);
    QNV_UE(seq_parameter_set_id, 0, 31);

    uint32_t chroma = 1;
    if (hasChromaBlock(static_cast<int32_t>(profile))) {
        chroma = QNV_UE(chroma_format_idc, 0, 3);
        if (chroma == 3) QNV_FLAG(separate_colour_plane_flag);
        QNV_UE(bit_depth_luma_minus8, 0, 6);
        QNV_UE(bit_depth_chroma_minus8, 0, 6);
        QNV_FLAG(qpprime_y_zero_transform_bypass_flag);
        if (QNV_FLAG(seq_scaling_matrix_present_flag))
            scalingLists(c, chroma == 3 ? 12 : 8, s.seq_scaling_list_present_flag, s.ScalingList4x4,
                         s.ScalingList8x8, "seq_scaling_list_present_flag");
    } else {
        // Stored without being coded; the bit depths are deliberately 8, not 0.
        c.derive(s.chroma_format_idc, 1);
        c.derive(s.bit_depth_luma_minus8, 8);
        c.derive(s.bit_depth_chroma_minus8, 8);
    }

    QNV_UE(log2_max_frame_num_minus4, 0, 12);
    const uint32_t pocType = QNV_UE(pic_order_cnt_type, 0, 2);
    if (pocType == 0) {
        QNV_UE(log2_max_pic_order_cnt_lsb_minus4, 0, 12);
    } else if (pocType == 1) {
        QNV_FLAG(delta_pic_order_always_zero_flag);
        // Deliberately ue(v): negative offsets are kept as code numbers.
        QNV_UE(offset_for_non_ref_pic);
        QNV_UE(offset_for_top_to_bottom_field);
        // A failed read (all ones) counts as no cycle.
        const uint32_t cycle = static_cast<uint32_t>(
            std::max(static_cast<int32_t>(QNV_UE(num_ref_frames_in_pic_order_cnt_cycle, 0, 255)), 0));
        // One slot: each offset overwrites it and the last one stays. Past
        // the end every ue(v) reads 0, which a skipped run leaves in the slot.
        const uint32_t ran = repeat(c, cycle, 0, 1, [&](uint32_t i) {
            QNV_UE_AT(offset_for_ref_frame, i);
        });
        if (ran != cycle) c.derive(s.offset_for_ref_frame, 0);
    }
    QNV_UE(max_num_ref_frames, 0, 16);
    QNV_FLAG(gaps_in_frame_num_value_allowed_flag);
    QNV_UE(pic_width_in_mbs_minus1);
    QNV_UE(pic_height_in_map_units_minus1);
    if (QNV_FLAG(frame_mbs_only_flag) == 0) QNV_FLAG(mb_adaptive_frame_field_flag);
    QNV_FLAG(direct_8x8_inference_flag);
    if (QNV_FLAG(frame_cropping_flag)) {
        QNV_UE(frame_crop_left_offset);
        QNV_UE(frame_crop_right_offset);
        QNV_UE(frame_crop_top_offset);
        QNV_UE(frame_crop_bottom_offset);
    }
    if (QNV_FLAG(vui_parameters_present_flag)) vuiParameters(c, s);
}

// ---- Picture parameter set -------------------------------------------------------

// Instead of more_rbsp_data(): 1 when one of the seven bits after the next
// one is set, looking no further than sizeBits.
inline int32_t moreDataAhead(const BitBuffer* bits) {
    int32_t more = 0;
    for (uint32_t k = 1; k <= 7 && more == 0; ++k) {
        if (uint64_t(bits->bitPos) + k >= bits->sizeBits) break;
        more = static_cast<int32_t>(PeekBit(bits, k));
    }
    return more;
}

template <class C, class S>
void ppsPayload(C& c, S& s) {
    nalHeader(c, s);
    QNV_UE(pic_parameter_set_id, 0, 255);
    QNV_UE(seq_parameter_set_id, 0, 31);
    QNV_FLAG(entropy_coding_mode_flag);
    QNV_FLAG(bottom_field_pic_order_in_frame_present_flag);
    const uint32_t groupsMinus1 = QNV_UE(num_slice_groups_minus1, 0, 7);
    if (static_cast<int32_t>(groupsMinus1) > 0) {
        const uint32_t groups = inclusiveCount(static_cast<int32_t>(groupsMinus1));
        // guard: run_length_minus1, top_left and bottom_right hold 8 entries
        // and slice_group_id 256; values beyond them are read but not kept.
        switch (QNV_UE(slice_group_map_type, 0, 6)) {
            case 0:
                repeat(c, groups, 8, 1, [&](uint32_t i) {
                    if (i < 8)
                        QNV_UEI(run_length_minus1, i);
                    else
                        c.skipUe(0, {"run_length_minus1", int32_t(i)});
                });
                break;
            case 2:
                repeat(c, boxPairs(groupsMinus1), 8, 2, [&](uint32_t i) {
                    if (i < 8) {
                        QNV_UEI(top_left, i);
                        QNV_UEI(bottom_right, i);
                    } else {
                        c.skipUe(0, {"top_left", int32_t(i)});
                        c.skipUe(0, {"bottom_right", int32_t(i)});
                    }
                });
                break;
            case 3: case 4: case 5:
                QNV_FLAG(slice_group_change_direction_flag);
                QNV_UE(slice_group_change_rate_minus1);
                break;
            case 6: {
                const uint32_t units = QNV_UE(pic_size_in_map_units_minus1, 0, 255);
                // Ceil(Log2(num_slice_groups_minus1 + 1)) bits, 1..31.
                const uint32_t bits = 32 - static_cast<uint32_t>(__builtin_clz(groups - 1));
                repeat(c, inclusiveCount(static_cast<int32_t>(units)), 256, bits,
                       [&](uint32_t i) {
                           if (i < 256)
                               QNV_UI(bits, slice_group_id, i);
                           else
                               c.skip(bits, 0, {"slice_group_id", int32_t(i)});
                       });
                break;
            }
            default: break;
        }
    }
    QNV_UE(num_ref_idx_l0_default_active_minus1, 0, 31);
    QNV_UE(num_ref_idx_l1_default_active_minus1, 0, 31);
    QNV_FLAG(weighted_pred_flag);
    QNV_U(2, weighted_bipred_idc, 0, 2);
    QNV_SE(pic_init_qp_minus26, -26 - 48, 25);
    QNV_SE(pic_init_qs_minus26, -26, 25);
    QNV_SE(chroma_qp_index_offset, -12, 12);
    QNV_FLAG(deblocking_filter_control_present_flag);
    QNV_FLAG(constrained_intra_pred_flag);
    QNV_FLAG(redundant_pic_cnt_present_flag);

    uint32_t more = 0;
    if constexpr (C::kWriting) {
        more = s.moreData == 1;
    } else {
        s.moreData = moreDataAhead(c.buffer());
        more = s.moreData == 1;
    }
    if (more) {
        const uint32_t t8x8 = QNV_FLAG(transform_8x8_mode_flag);
        if (QNV_FLAG(pic_scaling_matrix_present_flag))
            scalingLists(c, 6 + 2 * t8x8, s.pic_scaling_list_present_flag, s.ScalingList4x4, s.ScalingList8x8,
                         "pic_scaling_list_present_flag");
        QNV_SE(second_chroma_qp_index_offset, -12, 12);
    }
}

// ---- Slice header ------------------------------------------------------------------

enum SliceKind : uint32_t { kP = 0, kB = 1, kI = 2, kSP = 3, kSI = 4 };

// What a slice header's conditions take from the active parameter sets.
struct SliceContext {
    uint32_t separateColourPlane;
    uint32_t frameNumBits;
    uint32_t frameMbsOnly;
    uint32_t pocType;
    uint32_t pocLsbBits;
    uint32_t deltaPocAlwaysZero;
    uint32_t chromaArrayType;
    uint32_t bottomFieldPicOrder;
    uint32_t redundantPicCnt;
    uint32_t l0Default, l1Default;
    uint32_t weightedPred, weightedBipred;
    uint32_t cabac;
    uint32_t deblockingControl;
    uint32_t changeCycleBits;  // 0: no slice_group_change_cycle
};

// false when the records hold values no stream could carry.
bool sliceContext(const H264SpsRecord& sps, const H264PpsRecord& pps, SliceContext& x);

// The operations of one list up to the closing 3.
template <class C, class S>
void modificationOperations(C& c, S& s, bool& ok) {
    for (uint32_t i = 0;; ++i) {
        // guard: at most 33 operations, the closing 3 among them
        if (i >= QNV_H264_MAX_MODIFICATIONS) {
            ok = false;
            return;
        }
        const uint32_t idc = QNV_UEI(modification_of_pic_nums_idc, i, 0, 3);
        if (idc == 0 || idc == 1) {
            QNV_UEI(abs_diff_pic_num_minus1, i, 0, 131071);
        } else if (idc == 2) {
            QNV_UEI(long_term_pic_num, i);
        } else {
            ok = idc == 3;  // else a failed read or an unknown operation
            return;
        }
    }
}

template <class C, class S>
void refPicListModification(C& c, S& s, uint32_t kind, bool& ok) {
    // Each list's operations are listed as a structure of their own.
    if (kind != kI && kind != kSI && QNV_FLAG(ref_pic_list_modification_flag_l0)) {
        c.open("ref_pic_list_modification_l0");
        modificationOperations(c, s.ref_pic_list_modification[0], ok);
        c.close();
    }
    if (ok && kind == kB && QNV_FLAG(ref_pic_list_modification_flag_l1)) {
        c.open("ref_pic_list_modification_l1");
        modificationOperations(c, s.ref_pic_list_modification[1], ok);
        c.close();
    }
}

template <class C, class S>
void predWeightList(C& c, S& s, uint32_t count, uint32_t chroma, int list) {
    for (uint32_t i = 0; i < count; ++i) {
        if (list == 0) {
            if (QNV_FLAGI(luma_weight_l0_flag, i)) {
                QNV_SEI(luma_weight_l0, i, -128, 127);
                QNV_SEI(luma_offset_l0, i, -128, 127);
            }
            if (chroma && QNV_FLAGI(chroma_weight_l0_flag, i)) {
                for (uint32_t j = 0; j < 2; ++j) {
                    QNV_SEIJ(chroma_weight_l0, i, j, -128, 127);
                    QNV_SEIJ(chroma_offset_l0, i, j, -128, 127);
                }
            }
        } else {
            if (QNV_FLAGI(luma_weight_l1_flag, i)) {
                QNV_SEI(luma_weight_l1, i, -128, 127);
                QNV_SEI(luma_offset_l1, i, -128, 127);
            }
            if (chroma && QNV_FLAGI(chroma_weight_l1_flag, i)) {
                for (uint32_t j = 0; j < 2; ++j) {
                    QNV_SEIJ(chroma_weight_l1, i, j, -128, 127);
                    QNV_SEIJ(chroma_offset_l1, i, j, -128, 127);
                }
            }
        }
    }
}

template <class C, class S>
void predWeightTable(C& c, S& s, const SliceContext& x, uint32_t kind, uint32_t l0, uint32_t l1) {
    c.open("pred_weight_table");
    QNV_UE(luma_log2_weight_denom, 0, 7);
    if (x.chromaArrayType != 0) QNV_UE(chroma_log2_weight_denom, 0, 7);
    predWeightList(c, s, l0, x.chromaArrayType, 0);
    if (kind == kB) predWeightList(c, s, l1, x.chromaArrayType, 1);
    c.close();
}

template <class C, class S>
void decRefPicMarking(C& c, S& s, bool idr, bool& ok) {
    c.open("dec_ref_pic_marking");
    if (idr) {
        QNV_FLAG(no_output_of_prior_pics_flag);
        QNV_FLAG(long_term_reference_flag);
    } else if (QNV_FLAG(adaptive_ref_pic_marking_mode_flag)) {
        for (uint32_t i = 0;; ++i) {
            // guard: at most 66 operations, the closing 0 among them
            if (i >= QNV_H264_MAX_MMCO) {
                ok = false;
                break;
            }
            const uint32_t op = QNV_UEI(memory_management_control_operation, i, 0, 6);
            if (op == 0) break;
            if (op > 6) {
                ok = false;
                break;
            }
            if (op == 1 || op == 3) QNV_UEI(difference_of_pic_nums_minus1, i);
            if (op == 2) QNV_UEI(long_term_pic_num, i);
            if (op == 3 || op == 6) QNV_UEI(long_term_frame_idx, i, 0, 31);
            if (op == 4) QNV_UEI(max_long_term_frame_idx_plus1, i, 0, 32);
        }
    }
    c.close();
}

// Returns false where a header cannot be coded: a failed or unknown
// operation, or a list longer than the record holds.
template <class C, class S>
bool sliceHeader(C& c, S& s, const SliceContext& x) {
    bool ok = true;
    const NalHeader nal = nalHeader(c, s);
    const bool idr = nal.type == 5;
    QNV_UE(first_mb_in_slice, 0, 139263);
    const uint32_t kind = QNV_UE(slice_type, 0, 9) % 5;
    QNV_UE(pic_parameter_set_id, 0, 255);
    if (x.separateColourPlane == 1) QNV_U(2, colour_plane_id, 0, 2);
    QNV_U(x.frameNumBits, frame_num);
    uint32_t field = 0;
    if (!x.frameMbsOnly) {
        field = QNV_FLAG(field_pic_flag);
        if (field) QNV_FLAG(bottom_field_flag);
    }
    if (idr) QNV_UE(idr_pic_id, 0, 65535);
    if (x.pocType == 0) {
        QNV_U(x.pocLsbBits, pic_order_cnt_lsb);
        if (x.bottomFieldPicOrder && !field) QNV_SE(delta_pic_order_cnt_bottom);
    }
    if (x.pocType == 1 && !x.deltaPocAlwaysZero) {
        QNV_SEI(delta_pic_order_cnt, 0);
        if (x.bottomFieldPicOrder && !field) QNV_SEI(delta_pic_order_cnt, 1);
    }
    if (x.redundantPicCnt) QNV_UE(redundant_pic_cnt, 0, 127);
    if (kind == kB) QNV_FLAG(direct_spatial_mv_pred_flag);
    uint32_t l0 = x.l0Default, l1 = x.l1Default;
    if (kind == kP || kind == kSP || kind == kB) {
        if (QNV_FLAG(num_ref_idx_active_override_flag)) {
            l0 = QNV_UE(num_ref_idx_l0_active_minus1, 0, 31);
            if (kind == kB) l1 = QNV_UE(num_ref_idx_l1_active_minus1, 0, 31);
        } else {
            c.derive(s.num_ref_idx_l0_active_minus1, l0);
            if (kind == kB) c.derive(s.num_ref_idx_l1_active_minus1, l1);
        }
    }
    // guard: the weight tables hold 32 entries per list
    if (l0 > 31 || l1 > 31) return false;
    refPicListModification(c, s, kind, ok);
    if (!ok) return false;
    if ((x.weightedPred && (kind == kP || kind == kSP)) || (x.weightedBipred == 1 && kind == kB))
        predWeightTable(c, s.pred_weight_table, x, kind, l0 + 1, l1 + 1);
    if (nal.refIdc != 0) decRefPicMarking(c, s.dec_ref_pic_marking, idr, ok);
    if (!ok) return false;
    if (x.cabac && kind != kI && kind != kSI) QNV_UE(cabac_init_idc, 0, 2);
    QNV_SE(slice_qp_delta, -87, 77);
    if (kind == kSP || kind == kSI) {
        if (kind == kSP) QNV_FLAG(sp_for_switch_flag);
        QNV_SE(slice_qs_delta, -51, 51);
    }
    if (x.deblockingControl) {
        if (QNV_UE(disable_deblocking_filter_idc, 0, 6) != 1) {
            QNV_SE(slice_alpha_c0_offset_div2, -6, 6);
            QNV_SE(slice_beta_offset_div2, -6, 6);
        }
    }
    if (x.changeCycleBits) QNV_U(x.changeCycleBits, slice_group_change_cycle);
    return true;
}

}  // namespace qnv::h264

#endif
