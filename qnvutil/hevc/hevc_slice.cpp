// HEVC slice segment header reader, from the description below.
#include "qnvutil/hevc/hevc_slice.h"

#include <algorithm>
#include <cstring>

#include "foundation/nal/nal.h"

namespace qnv::hevc {

using syntax::Bounds;
using syntax::ReadCoder;

namespace {

// Ceil(Log2(n)) for n >= 1; 0 for n <= 1.
uint32_t ceilLog2(uint64_t n) {
    uint32_t b = 0;
    while (b < 63 && (uint64_t(1) << b) < n) ++b;
    return b;
}

// What the header's conditions take from the active SPS and PPS.
struct SliceContext {
    uint32_t addressBits;
    uint32_t pocLsbBits;
    uint32_t chromaArrayType;
    uint32_t numSets;
    uint32_t setIdxBits;
    uint32_t ltSpsBits;
};

bool sliceContext(const HevcSpsRecord& sps, const HevcPpsRecord& pps, SliceContext& x) {
    // guard: sizes and lengths come from the records; refuse values no stream has
    const uint32_t minCb = sps.log2_min_luma_coding_block_size_minus3 + 3;
    const uint32_t ctbLog2 = minCb + sps.log2_diff_max_min_luma_coding_block_size;
    if (minCb > 6 || ctbLog2 > 6 || sps.log2_max_pic_order_cnt_lsb_minus4 > 12 ||
        sps.num_short_term_ref_pic_sets > 64 || sps.num_long_term_ref_pics_sps > 32 ||
        pps.num_extra_slice_header_bits > 7)
        return false;
    const uint64_t ctb = uint64_t(1) << ctbLog2;
    const uint64_t ctbs = ((uint64_t(sps.pic_width_in_luma_samples) + ctb - 1) >> ctbLog2) *
                          ((uint64_t(sps.pic_height_in_luma_samples) + ctb - 1) >> ctbLog2);
    x.addressBits = ceilLog2(ctbs);
    if (x.addressBits > 32) return false;
    x.pocLsbBits = sps.log2_max_pic_order_cnt_lsb_minus4 + 4;
    x.chromaArrayType = sps.separate_colour_plane_flag ? 0 : sps.chroma_format_idc;
    x.numSets = sps.num_short_term_ref_pic_sets;
    x.setIdxBits = ceilLog2(x.numSets);
    x.ltSpsBits = ceilLog2(sps.num_long_term_ref_pics_sps);
    return true;
}

// NumDeltaPocs of an SPS set and the pictures of it marked used by the
// current picture. A predicted set counts its coded pairs.
struct SetCounts {
    uint32_t deltaPocs;
    uint32_t used;
};

SetCounts spsSetCounts(const HevcShortTermRefPicSet& rps, uint32_t pairs) {
    SetCounts n{0, 0};
    if (rps.inter_ref_pic_set_prediction_flag) {
        for (uint32_t j = 0; j < std::min(pairs, kSliceRefs); ++j) {
            if (rps.used_by_curr_pic_flag[j]) ++n.used;
            if (rps.used_by_curr_pic_flag[j] || rps.use_delta_flag[j]) ++n.deltaPocs;
        }
        return n;
    }
    const uint32_t neg = std::min(rps.num_negative_pics, kSliceRefs), pos = std::min(rps.num_positive_pics, kSliceRefs);
    n.deltaPocs = neg + pos;
    for (uint32_t i = 0; i < neg; ++i) n.used += rps.used_by_curr_pic_s0_flag[i] != 0;
    for (uint32_t i = 0; i < pos; ++i) n.used += rps.used_by_curr_pic_s1_flag[i] != 0;
    return n;
}

// NumDeltaPocs of every set of the SPS, in order (a predicted set's pairs
// are NumDeltaPocs of its reference plus one, less the reader's one).
void spsDeltaPocs(const HevcSpsRecord& sps, uint32_t* out) {
    for (uint32_t i = 0; i < std::min(sps.num_short_term_ref_pic_sets, 64u); ++i) {
        const auto& rps = sps.st_ref_pic_set[i];
        const uint32_t pairs = i > 0 ? out[i - 1] : 0;  // the SPS codes no delta_idx: the previous set
        out[i] = spsSetCounts(rps, pairs).deltaPocs;
    }
}

template <class C, class S>
bool sliceShortTermSet(C& c, S& s, const HevcSpsRecord& sps, const SliceContext& x, uint32_t& used) {
    auto& rps = s.st_ref_pic_set;
    uint32_t predicted = 0;
    if (x.numSets != 0)
        predicted = c.u(1, rps.inter_ref_pic_set_prediction_flag, {"inter_ref_pic_set_prediction_flag"});
    if (predicted) {
        const uint32_t deltaIdx = c.ue(s.delta_idx_minus1, {"delta_idx_minus1"}, Bounds{0, x.numSets - 1}) + 1;
        c.u(1, rps.delta_rps_sign, {"delta_rps_sign"});
        c.ue(rps.abs_delta_rps_minus1, {"abs_delta_rps_minus1"}, Bounds{0, 32767});
        if (deltaIdx > x.numSets) return false;
        uint32_t deltaPocs[64] = {};
        spsDeltaPocs(sps, deltaPocs);
        const uint32_t pairs = deltaPocs[x.numSets - deltaIdx] + 1;
        // guard: the record holds 16 pairs
        if (pairs > kSliceRefs) return false;
        used = 0;
        for (uint32_t j = 0; j < pairs; ++j) {
            const int32_t m = static_cast<int32_t>(j);
            if (c.u(1, rps.used_by_curr_pic_flag[j], {"used_by_curr_pic_flag", m}))
                ++used;
            else
                c.u(1, rps.use_delta_flag[j], {"use_delta_flag", m});
        }
        return true;
    }
    const uint32_t negative = c.ue(rps.num_negative_pics, {"num_negative_pics"}, Bounds{0, 16});
    const uint32_t positive = c.ue(rps.num_positive_pics, {"num_positive_pics"}, Bounds{0, 16});
    // guard: 16 entries per list
    if (negative > kSliceRefs || positive > kSliceRefs) return false;
    used = 0;
    for (uint32_t i = 0; i < negative; ++i) {
        const int32_t m = static_cast<int32_t>(i);
        c.ue(rps.delta_poc_s0_minus1[i], {"delta_poc_s0_minus1", m}, Bounds{0, 32767});
        used += c.u(1, rps.used_by_curr_pic_s0_flag[i], {"used_by_curr_pic_s0_flag", m});
    }
    for (uint32_t i = 0; i < positive; ++i) {
        const int32_t m = static_cast<int32_t>(i);
        c.ue(rps.delta_poc_s1_minus1[i], {"delta_poc_s1_minus1", m}, Bounds{0, 32767});
        used += c.u(1, rps.used_by_curr_pic_s1_flag[i], {"used_by_curr_pic_s1_flag", m});
    }
    return true;
}

template <class C, class S>
void predWeightList(C& c, S& s, uint32_t refs, uint32_t chroma, int list) {
#define QNV_WEIGHTS(L)                                                              \
    for (uint32_t i = 0; i < refs; ++i) QNV_FLAGI(luma_weight_##L##_flag, i);       \
    if (chroma)                                                                     \
        for (uint32_t i = 0; i < refs; ++i) QNV_FLAGI(chroma_weight_##L##_flag, i); \
    for (uint32_t i = 0; i < refs; ++i) {                                           \
        if (s.luma_weight_##L##_flag[i]) {                                          \
            QNV_SEI(delta_luma_weight_##L, i, -128, 127);                           \
            QNV_SEI(luma_offset_##L, i);                                            \
        }                                                                           \
        if (chroma && s.chroma_weight_##L##_flag[i]) {                              \
            for (uint32_t j = 0; j < 2; ++j) {                                      \
                QNV_SEIJ(delta_chroma_weight_##L, i, j, -128, 127);                 \
                QNV_SEIJ(delta_chroma_offset_##L, i, j);                            \
            }                                                                       \
        }                                                                           \
    }
    if (list == 0) {
        QNV_WEIGHTS(l0)
    } else {
        QNV_WEIGHTS(l1)
    }
#undef QNV_WEIGHTS
}

enum SliceType : uint32_t { kB = 0, kP = 1, kI = 2 };

template <class C, class S>
bool sliceSegmentHeader(C& c, S& s, const HevcSpsRecord& sps, const HevcPpsRecord& pps, const SliceContext& x) {
    QNV_U(1, forbidden_zero_bit, 0, 0);
    const uint32_t type = QNV_U(6, nal_unit_type, 0, 21);
    QNV_U(6, nuh_layer_id, 0, 0);
    QNV_U(3, nuh_temporal_id_plus1, 1, 7);
    const uint32_t first = QNV_FLAG(first_slice_segment_in_pic_flag);
    if (isIrap(type)) QNV_FLAG(no_output_of_prior_pics_flag);
    QNV_UE(slice_pic_parameter_set_id, 0, 63);
    uint32_t dependent = 0;
    if (!first) {
        if (pps.dependent_slice_segments_enabled_flag) dependent = QNV_FLAG(dependent_slice_segment_flag);
        QNV_U(x.addressBits, slice_segment_address);
    }
    if (!dependent) {
        for (uint32_t i = 0; i < pps.num_extra_slice_header_bits; ++i) QNV_FLAGI(slice_reserved_flag, i);
        const uint32_t sliceType = QNV_UE(slice_type, 0, 2);
        if (pps.output_flag_present_flag) QNV_FLAG(pic_output_flag);
        if (sps.separate_colour_plane_flag) QNV_U(2, colour_plane_id, 0, 2);
        uint32_t used = 0, temporalMvp = 0;
        if (!isIdr(type)) {
            QNV_U(x.pocLsbBits, slice_pic_order_cnt_lsb);
            if (!QNV_FLAG(short_term_ref_pic_set_sps_flag)) {
                if (!sliceShortTermSet(c, s, sps, x, used)) return false;
            } else {
                uint32_t idx = 0;
                if (x.numSets > 1) idx = QNV_U(x.setIdxBits, short_term_ref_pic_set_idx, 0, x.numSets - 1);
                if (idx >= x.numSets) return false;
                uint32_t deltaPocs[64] = {};
                spsDeltaPocs(sps, deltaPocs);
                used = spsSetCounts(sps.st_ref_pic_set[idx], idx > 0 ? deltaPocs[idx - 1] : 0).used;
            }
            if (sps.long_term_ref_pics_present_flag) {
                uint32_t fromSps = 0;
                if (sps.num_long_term_ref_pics_sps > 0)
                    fromSps = QNV_UE(num_long_term_sps, 0, sps.num_long_term_ref_pics_sps);
                const uint32_t pics = QNV_UE(num_long_term_pics, 0, kSliceLongTerm);
                // guard: the record holds 32 long-term entries
                if (fromSps + pics > kSliceLongTerm) return false;
                for (uint32_t i = 0; i < fromSps + pics; ++i) {
                    if (i < fromSps) {
                        uint32_t idx = 0;
                        if (sps.num_long_term_ref_pics_sps > 1)
                            idx = QNV_UI(x.ltSpsBits, lt_idx_sps, i, 0, sps.num_long_term_ref_pics_sps - 1);
                        if (idx < 64) used += sps.lt_ref_pic_sps[idx].used_by_curr_pic_lt_sps_flag != 0;
                    } else {
                        QNV_UI(x.pocLsbBits, poc_lsb_lt, i);
                        used += QNV_FLAGI(used_by_curr_pic_lt_flag, i);
                    }
                    if (QNV_FLAGI(delta_poc_msb_present_flag, i)) QNV_UEI(delta_poc_msb_cycle_lt, i);
                }
            }
            if (sps.sps_temporal_mvp_enabled_flag) temporalMvp = QNV_FLAG(slice_temporal_mvp_enabled_flag);
        }
        c.derive(s.num_pic_total_curr, used);
        uint32_t saoLuma = 0, saoChroma = 0;
        if (sps.sample_adaptive_offset_enabled_flag) {
            saoLuma = QNV_FLAG(slice_sao_luma_flag);
            if (x.chromaArrayType != 0) saoChroma = QNV_FLAG(slice_sao_chroma_flag);
        }
        if (sliceType == kP || sliceType == kB) {
            uint32_t l0 = pps.num_ref_idx_l0_default_active_minus1, l1 = pps.num_ref_idx_l1_default_active_minus1;
            if (QNV_FLAG(num_ref_idx_active_override_flag)) {
                l0 = QNV_UE(num_ref_idx_l0_active_minus1, 0, 14);
                if (sliceType == kB) l1 = QNV_UE(num_ref_idx_l1_active_minus1, 0, 14);
            } else {
                c.derive(s.num_ref_idx_l0_active_minus1, l0);
                c.derive(s.num_ref_idx_l1_active_minus1, l1);
            }
            // guard: 16 entries per list
            if (l0 >= kSliceRefs || l1 >= kSliceRefs) return false;
            if (pps.lists_modification_present_flag && used > 1) {
                const uint32_t bits = ceilLog2(used);
                if (QNV_FLAG(ref_pic_list_modification_flag_l0))
                    for (uint32_t i = 0; i <= l0; ++i) QNV_UI(bits, list_entry_l0, i, 0, used - 1);
                if (sliceType == kB && QNV_FLAG(ref_pic_list_modification_flag_l1))
                    for (uint32_t i = 0; i <= l1; ++i) QNV_UI(bits, list_entry_l1, i, 0, used - 1);
            }
            if (sliceType == kB) QNV_FLAG(mvd_l1_zero_flag);
            if (pps.cabac_init_present_flag) QNV_FLAG(cabac_init_flag);
            if (temporalMvp) {
                uint32_t fromL0 = 1;
                if (sliceType == kB) fromL0 = QNV_FLAG(collocated_from_l0_flag);
                else c.derive(s.collocated_from_l0_flag, 1);
                if ((fromL0 && l0 > 0) || (!fromL0 && l1 > 0))
                    QNV_UE(collocated_ref_idx, 0, fromL0 ? l0 : l1);
            }
            if ((pps.weighted_pred_flag && sliceType == kP) || (pps.weighted_bipred_flag && sliceType == kB)) {
                c.open("pred_weight_table");
                QNV_UE(luma_log2_weight_denom, 0, 7);
                if (x.chromaArrayType != 0) QNV_SE(delta_chroma_log2_weight_denom, -7, 7);
                predWeightList(c, s, l0 + 1, x.chromaArrayType != 0, 0);
                if (sliceType == kB) predWeightList(c, s, l1 + 1, x.chromaArrayType != 0, 1);
                c.close();
            }
            QNV_UE(five_minus_max_num_merge_cand, 0, 4);
        }
        QNV_SE(slice_qp_delta, -87, 51);
        if (pps.pps_slice_chroma_qp_offsets_present_flag) {
            QNV_SE(slice_cb_qp_offset, -12, 12);
            QNV_SE(slice_cr_qp_offset, -12, 12);
        }
        uint32_t override = 0;
        if (pps.deblocking_filter_override_enabled_flag) override = QNV_FLAG(deblocking_filter_override_flag);
        uint32_t disabled = pps.pps_deblocking_filter_disabled_flag;
        if (override) {
            disabled = QNV_FLAG(slice_deblocking_filter_disabled_flag);
            if (!disabled) {
                QNV_SE(slice_beta_offset_div2, -6, 6);
                QNV_SE(slice_tc_offset_div2, -6, 6);
            }
        } else {
            c.derive(s.slice_deblocking_filter_disabled_flag, disabled);
        }
        if (pps.pps_loop_filter_across_slices_enabled_flag && (saoLuma || saoChroma || !disabled))
            QNV_FLAG(slice_loop_filter_across_slices_enabled_flag);
    }
    if (pps.tiles_enabled_flag || pps.entropy_coding_sync_enabled_flag) {
        const uint32_t entries = QNV_UE(num_entry_point_offsets, 0, kSliceEntryPoints);
        // guard: no more entry points than a picture can have
        if (entries > kSliceEntryPoints) return false;
        if (entries > 0) {
            const uint32_t bits = QNV_UE(offset_len_minus1, 0, 31) + 1;
            if (bits > 32) return false;
            for (uint32_t i = 0; i < entries; ++i)
                c.skip(bits, 0, {"entry_point_offset_minus1", static_cast<int32_t>(i)});
        }
    }
    if (pps.slice_segment_header_extension_present_flag) {
        const uint32_t length = QNV_UE(slice_segment_header_extension_length, 0, 256);
        if (length > 256) return false;
        for (uint32_t i = 0; i < length; ++i)
            c.skip(8, 0, {"slice_segment_header_extension_data_byte", static_cast<int32_t>(i)});
    }
    // byte_alignment()
    if (c.skip(1, 1, {"alignment_bit_equal_to_one"}) != 1) return false;
    while (c.pos() % 8 != 0) c.skip(1, 0, {"alignment_bit_equal_to_zero"});
    return true;
}

constexpr uint32_t kHeaderWindow = 4096;

}  // namespace

SliceRead readSliceSegmentHeader(const uint8_t* unit, uint32_t size, const HevcSpsRecord& sps,
                                 const HevcPpsRecord& pps, HevcSliceHeader& slice, syntax::FieldSink* sink) {
    SliceContext x;
    if (unit == nullptr || size < 3 || ((unit[0] >> 1) & 63u) > 21 || !sliceContext(sps, pps, x))
        return SliceRead::kFailed;
    // A dependent segment keeps its independent segment's fields.
    const bool maybeDependent = (unit[2] & 0x80) == 0 && pps.dependent_slice_segments_enabled_flag;
    if (!maybeDependent) std::memset(&slice, 0, sizeof slice);
    uint8_t rbsp[kHeaderWindow + 8];
    nal::RbspReader source(unit, size);
    uint32_t n = 0;
    for (uint8_t b; n < kHeaderWindow && source.next(b);) rbsp[n++] = b;
    std::memset(rbsp + n, 0, 8);  // what reads past sizeBits may touch
    BitBuffer bb{rbsp, n + 8, n * 8, 0};
    ReadCoder c(&bb, sink);
    if (!sliceSegmentHeader(c, slice, sps, pps, x) || c.outOfRange() != 0 || bb.bitPos > bb.sizeBits)
        return SliceRead::kFailed;
    slice.header_bits = bb.bitPos;
    return SliceRead::kOk;
}

}  // namespace qnv::hevc
