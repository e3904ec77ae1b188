// The HEVC parameter-set syntax, described once over the library's syntax
// coders (foundation/syntax/coder.h): the reader coder parses bits into the
// record, the writer coder serialises the record into bits. The readers'
// deliberate departures from H.265 are named functions below, used by both
// directions.
#ifndef QNVUTIL_QNVUTIL_HEVC_HEVC_SYNTAX_H
#define QNVUTIL_QNVUTIL_HEVC_HEVC_SYNTAX_H

#include <cstdint>

#include "foundation/bitio/bitio.h"
#include "foundation/syntax/coder.h"
#include "qnvutil/hevc.h"
#include "qnvutil/qnvvidutil.h"
#include "qnvutil/qxutil.h"

namespace qnv::hevc {

using syntax::FieldSink;
using syntax::kSe;
using syntax::kUe;
using syntax::Name;
using syntax::ReadCoder;
using syntax::WriteCoder;
using syntax::atMost;

// guard: loops over sub-layers, long-term pictures and picture lists never
// pass the record's arrays; counts read past the end of a unit (all ones)
// would otherwise also make loops of 2^32 turns.
constexpr uint32_t kSubLayerEntries = 16;
constexpr uint32_t kMaxShortTermSets = 64;
constexpr uint32_t kPicsPerList = 16;
constexpr uint32_t kLongTermEntries = 64;
// guard: loops whose words are scalars (tiles, HRD entries, layer sets, CPB
// entries) stop at the standard's largest legal count.
constexpr uint32_t kMaxTileSpans = 4096;
constexpr uint32_t kMaxHrdEntries = 1024;
constexpr uint32_t kMaxLayerSets = 1024;
constexpr uint32_t kMaxCpbEntries = 32;

// ---- profile_tier_level ----------------------------------------------------------

enum class PtlVariant { kVps, kSps };

// The VPS reader consults sub_layer_level_present_flag[0] for every
// sub-layer and stores every level into entry 0 (settled behaviour); the SPS
// reader follows the standard.
inline uint32_t subLayerLevelEntry(PtlVariant variant, uint32_t i) { return variant == PtlVariant::kVps ? 0 : i; }

inline void mergeProfile(HevcConfigRecord* cfg, const HevcProfileTierLevel& p) {
    if (!cfg) return;
    cfg->general_profile_space = p.general_profile_space;
    if (p.general_tier_flag > cfg->general_tier_flag) cfg->general_tier_flag = p.general_tier_flag;
    if (p.general_profile_idc > cfg->general_profile_idc) cfg->general_profile_idc = p.general_profile_idc;
    cfg->general_profile_compatibility_flags = p.general_profile_compatibility_flags;
    cfg->general_constraint_indicator_flags_lo = p.general_constraint_flags_lo;
    cfg->general_constraint_indicator_flags_hi = p.general_constraint_flags_hi;
    if (p.general_level_idc > cfg->general_level_idc) cfg->general_level_idc = p.general_level_idc;
}

template <class C, class P>
void profileTierLevel(C& c, P& s, uint32_t maxSubLayersMinus1, PtlVariant variant, HevcConfigRecord* cfg) {
    QNV_U(2, general_profile_space);
    QNV_FLAG(general_tier_flag);
    QNV_U(5, general_profile_idc);
    QNV_U(32, general_profile_compatibility_flags);
    if constexpr (C::kWriting) {
        // Words 4-7 are the editable copies of the four leading bits.
        uint64_t flags = (uint64_t(s.general_constraint_flags_hi) << 32 | s.general_constraint_flags_lo) &
                         0x0FFFFFFFFFFFull;
        flags |= uint64_t(s.general_progressive_source_flag & 1) << 47 |
                 uint64_t(s.general_interlaced_source_flag & 1) << 46 |
                 uint64_t(s.general_non_packed_constraint_flag & 1) << 45 |
                 uint64_t(s.general_frame_only_constraint_flag & 1) << 44;
        const uint32_t lo = static_cast<uint32_t>(flags), hi = static_cast<uint32_t>(flags >> 32);
        c.u48(lo, hi, {"general_constraint_flags"});
    } else {
        uint64_t flags = c.u48(s.general_constraint_flags_lo, s.general_constraint_flags_hi, {"general_constraint_flags"});
        s.general_progressive_source_flag = static_cast<uint32_t>(flags >> 47) & 1;
        s.general_interlaced_source_flag = static_cast<uint32_t>(flags >> 46) & 1;
        s.general_non_packed_constraint_flag = static_cast<uint32_t>(flags >> 45) & 1;
        s.general_frame_only_constraint_flag = static_cast<uint32_t>(flags >> 44) & 1;
    }
    QNV_U(8, general_level_idc);
    if constexpr (!C::kWriting) {
        if (variant == PtlVariant::kVps) mergeProfile(cfg, s);
    }
    if (maxSubLayersMinus1 == 0) return;

    const uint32_t subLayers = atMost(maxSubLayersMinus1, kSubLayerEntries);
    uint32_t profilePresent[kSubLayerEntries] = {}, levelPresent[kSubLayerEntries] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        profilePresent[i] = QNV_FLAGI(sub_layer_profile_present_flag, i);
        if constexpr (C::kWriting) {
            // The VPS keeps one level: every sub-layer is written with entry
            // 0's presence flag, the one its reader consults.
            if (variant == PtlVariant::kVps) {
                levelPresent[i] = c.u(1, s.sub_layer_level_present_flag[0], {"sub_layer_level_present_flag", n});
                continue;
            }
        }
        levelPresent[i] = QNV_FLAGI(sub_layer_level_present_flag, i);
    }
    for (uint32_t i = maxSubLayersMinus1; i < 8; ++i) {
        if (c.skip(2, 0, {"reserved_zero_2bits"}) != 0)
            ErrOut("Hevc Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
    }
    for (uint32_t i = 0; i < subLayers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        if (profilePresent[i]) {
            QNV_UI(2, sub_layer_profile_space, i);
            QNV_FLAGI(sub_layer_tier_flag, i);
            QNV_UI(5, sub_layer_profile_idc, i);
            QNV_UI(32, sub_layer_profile_compatibility_flags, i);
            QNV_FLAGI(sub_layer_progressive_source_flag, i);
            QNV_FLAGI(sub_layer_interlaced_source_flag, i);
            QNV_FLAGI(sub_layer_non_packed_constraint_flag, i);
            QNV_FLAGI(sub_layer_frame_only_constraint_flag, i);
            c.skip64(44, 0, {"sub_layer_reserved_44bits", n});
        }
        const uint32_t e = subLayerLevelEntry(variant, i);
        if (levelPresent[e]) c.u(8, s.sub_layer_level_idc[e], {"sub_layer_level_idc", n});
    }
}

// ---- hrd_parameters --------------------------------------------------------------

// sub_layer_hrd_parameters() of the SPS VUI: only the last entry's values are
// kept; the DU values are not.
template <class C, class S>
void subLayerHrd(C& c, S& s, uint32_t cpbCnt, uint32_t subPic, int32_t layer) {
    for (uint32_t k = 0; k < cpbCnt; ++k) {
        const int32_t n = static_cast<int32_t>(k);
        c.ue(s.bit_rate_value_minus1, {"bit_rate_value_minus1", n, layer});
        c.ue(s.cpb_size_value_minus1, {"cpb_size_value_minus1", n, layer});
        if (subPic) {
            c.skipUe(0, {"cpb_size_du_value_minus1", n, layer});
            c.skipUe(0, {"bit_rate_du_value_minus1", n, layer});
        }
        c.u(1, s.cbr_flag, {"cbr_flag", n, layer});
    }
}

// hrd_parameters(1, maxSubLayersMinus1) of the SPS VUI, into the record.
template <class C, class S>
void spsHrd(C& c, S& s, uint32_t maxSubLayersMinus1) {
    const uint32_t nal = QNV_FLAG(nal_hrd_parameters_present_flag);
    const uint32_t vcl = QNV_FLAG(vcl_hrd_parameters_present_flag);
    uint32_t subPic = 0;
    if (nal || vcl) {
        subPic = QNV_FLAG(sub_pic_hrd_params_present_flag);
        if (subPic) {
            QNV_U(8, tick_divisor_minus2);
            QNV_U(5, du_cpb_removal_delay_increment_length_minus1);
            QNV_FLAG(sub_pic_cpb_params_in_pic_timing_sei_flag);
            QNV_U(5, dpb_output_delay_du_length_minus1);
        }
        QNV_U(4, bit_rate_scale);
        QNV_U(4, cpb_size_scale);
        if (subPic) QNV_U(4, cpb_size_du_scale);
        QNV_U(5, initial_cpb_removal_delay_length_minus1);
        QNV_U(5, au_cpb_removal_delay_length_minus1);
        QNV_U(5, dpb_output_delay_length_minus1);
    }
    const uint32_t layers = atMost(maxSubLayersMinus1, kSubLayerEntries - 1) + 1;
    for (uint32_t i = 0; i < layers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        const uint32_t general = QNV_FLAGI(fixed_pic_rate_general_flag, i);
        uint32_t withinCvs = 1;  // inferred when the general flag is set
        if (!general) withinCvs = QNV_FLAGI(fixed_pic_rate_within_cvs_flag, i);
        uint32_t lowDelay = 0;
        if (withinCvs)
            c.skipUe(0, {"elemental_duration_in_tc_minus1", n});
        else
            lowDelay = QNV_FLAGI(low_delay_hrd_flag, i);
        uint32_t cpbCntMinus1 = 0;
        if (!lowDelay) cpbCntMinus1 = QNV_UEI(cpb_cnt_minus1, i);
        const uint32_t cpbCnt = atMost(cpbCntMinus1, kMaxCpbEntries - 1) + 1;
        if (nal) subLayerHrd(c, s, cpbCnt, subPic, n);
        if (vcl) subLayerHrd(c, s, cpbCnt, subPic, n);
    }
}

// hrd_parameters() of the VPS: parsed and discarded; written in its smallest
// valid form (no NAL or VCL tables, one CPB, nothing fixed).
template <class C>
void vpsHrd(C& c, uint32_t commonInf, uint32_t maxSubLayersMinus1) {
    uint32_t nal = 0, vcl = 0, subPic = 0;
    if (commonInf) {
        nal = c.skip(1, 0, {"nal_hrd_parameters_present_flag"});
        vcl = c.skip(1, 0, {"vcl_hrd_parameters_present_flag"});
        if (nal || vcl) {
            subPic = c.skip(1, 0, {"sub_pic_hrd_params_present_flag"});
            if (subPic) c.skip(19, 0, {"sub_pic_hrd_params"});
            c.skip(8, 0, {"bit_rate_scale_cpb_size_scale"});
            if (subPic) c.skip(4, 0, {"cpb_size_du_scale"});
            c.skip(15, 0, {"delay_lengths"});
        }
    }
    const uint32_t layers = atMost(maxSubLayersMinus1, kSubLayerEntries - 1) + 1;
    for (uint32_t i = 0; i < layers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        const uint32_t general = c.skip(1, 0, {"fixed_pic_rate_general_flag", n});
        uint32_t withinCvs = 1;
        if (!general) withinCvs = c.skip(1, 0, {"fixed_pic_rate_within_cvs_flag", n});
        uint32_t lowDelay = 0;
        if (withinCvs)
            c.skipUe(0, {"elemental_duration_in_tc_minus1", n});
        else
            lowDelay = c.skip(1, 0, {"low_delay_hrd_flag", n});
        uint32_t cpbCntMinus1 = 0;
        if (!lowDelay) cpbCntMinus1 = c.skipUe(0, {"cpb_cnt_minus1", n});
        const uint32_t cpbCnt = atMost(cpbCntMinus1, kMaxCpbEntries - 1) + 1;
        for (uint32_t table = 0; table < 2; ++table) {
            if (!(table == 0 ? nal : vcl)) continue;
            for (uint32_t k = 0; k < cpbCnt; ++k) {
                c.skipUe(0, {"bit_rate_value_minus1"});
                c.skipUe(0, {"cpb_size_value_minus1"});
                if (subPic) {
                    c.skipUe(0, {"cpb_size_du_value_minus1"});
                    c.skipUe(0, {"bit_rate_du_value_minus1"});
                }
                c.skip(1, 0, {"cbr_flag"});
            }
        }
    }
}

// ---- Outcome of a payload ----------------------------------------------------------

enum class Parse { kOk, kFatal };

// ---- video_parameter_set_rbsp ---------------------------------------------------------

// vps_num_ticks_poc_diff_one_minus1 is kept as the count itself (plus one).
template <class C, class V>
void vpsTicksPocDiffOne(C& c, V& s) {
    if constexpr (C::kWriting) {
        c.skipUe(s.vps_num_ticks_poc_diff_one - 1u, {"vps_num_ticks_poc_diff_one_minus1"});
    } else {
        s.vps_num_ticks_poc_diff_one = c.skipUe(0, {"vps_num_ticks_poc_diff_one_minus1"}) + 1u;
    }
}

template <class C, class V>
Parse vpsPayload(C& c, V& s, HevcConfigRecord* cfg, uint32_t bitLength) {
    QNV_U(4, vps_video_parameter_set_id);
    if (c.skip(2, 3, {"vps_base_layer_flags"}) != 3) {
        ErrOut("Vps Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
        return Parse::kFatal;
    }
    QNV_U(6, vps_max_layers_minus1);
    const uint32_t maxSub = QNV_U(3, vps_max_sub_layers_minus1);
    QNV_FLAG(vps_temporal_id_nesting_flag);
    if constexpr (C::kWriting) {
        c.skip(16, 0xFFFF, {"vps_reserved_0xffff_16bits"});
    } else if (QNV_U(16, vps_reserved_0xffff_16bits) != 65535) {
        ErrOut("Vps Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
        return Parse::kFatal;
    }
    profileTierLevel(c, s.ptl, maxSub, PtlVariant::kVps, cfg);

    const uint32_t ordering =
        QNV_FLAG(vps_sub_layer_ordering_info_present_flag);
    const uint32_t last = atMost(maxSub, kSubLayerEntries - 1);
    for (uint32_t i = ordering ? 0 : last; i <= last; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        QNV_UE_AT(vps_max_dec_pic_buffering_minus1, n);
        QNV_UE_AT(vps_max_num_reorder_pics, n);
        QNV_UE_AT(vps_max_latency_increase_plus1, n);
    }
    const uint32_t maxLayerId = QNV_U(6, vps_max_layer_id);
    const uint32_t layerSets = atMost(QNV_UE(vps_num_layer_sets_minus1), kMaxLayerSets);
    for (uint32_t i = 1; i <= layerSets; ++i) {
        if constexpr (C::kWriting) {
            // Not kept: each layer set is written as holding layer 0 only.
            for (uint32_t j = 0; j <= maxLayerId; ++j)
                c.skip(1, j == 0 ? 1 : 0, {"layer_id_included_flag", static_cast<int32_t>(i), static_cast<int32_t>(j)});
        } else {
            SkipBits(c.buffer(), maxLayerId + 1);
        }
    }
    if (QNV_FLAG(vps_timing_info_present_flag)) {
        QNV_U(32, vps_num_units_in_tick);
        QNV_U(32, vps_time_scale);
        if (QNV_FLAG(vps_poc_proportional_to_timing_flag))
            vpsTicksPocDiffOne(c, s);
        const uint32_t hrdCount = atMost(QNV_UE(vps_num_hrd_parameters), kMaxHrdEntries);
        for (uint32_t i = 0; i < hrdCount; ++i) {
            const int32_t n = static_cast<int32_t>(i);
            uint32_t cprms = 1;
            if constexpr (!C::kWriting) s.cprms_present_flag = 1;
            QNV_UE_AT(hrd_layer_set_idx, n);
            if (i > 0) cprms = QNV_U_AT(1, cprms_present_flag, n);
            vpsHrd(c, cprms, maxSub);
        }
    }
    if (QNV_FLAG(vps_extension_flag)) {
        // Extension data is skipped whole, not interpreted (nor written).
        if constexpr (!C::kWriting) {
            BitBuffer* bb = c.buffer();
            SkipToAlignment(bb);
            if (bitLength > bb->bitPos) SkipBits(bb, (bitLength - bb->bitPos) / 8 * 8);
        }
    }
    return Parse::kOk;
}

// ---- seq_parameter_set_rbsp -------------------------------------------------------------

// scaling_list_data(): only the last values read are kept (scratch words);
// the writer selects the default lists.
template <class C, class S>
void scalingListData(C& c, S& s) {
    for (uint32_t sizeId = 0; sizeId < 4; ++sizeId) {
        for (uint32_t matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
            const int32_t a = static_cast<int32_t>(sizeId), b = static_cast<int32_t>(matrixId);
            if (!c.skip(1, 0, {"scaling_list_pred_mode_flag", a, b})) {
                if constexpr (C::kWriting)
                    c.skipUe(0, {"scaling_list_pred_matrix_id_delta", a, b});
                else
                    c.ue(s.scaling_list_pred_matrix_id_delta, {"scaling_list_pred_matrix_id_delta", a, b});
                continue;
            }
            if constexpr (!C::kWriting) {
                const uint32_t coefNum = sizeId == 0 ? 16 : 64;
                if (sizeId > 1) c.se(s.scaling_list_dc_coef_minus8, {"scaling_list_dc_coef_minus8", a - 2, b});
                for (uint32_t k = 0; k < coefNum; ++k) c.se(s.scaling_list_delta_coef, {"scaling_list_delta_coef", a, b});
            }
        }
    }
}

// The SPS reader's departures in st_ref_pic_set() (settled behaviour):
// delta_idx_minus1 is read for the last set of the SPS (the standard reads it
// only in slice headers), and a predicted set reads one flag pair fewer than
// the standard (j < NumDeltaPocs instead of j <= NumDeltaPocs).
inline bool readsDeltaIdx(uint32_t set, uint32_t numSets) { return set + 1 >= numSets; }

// num_negative_pics + num_positive_pics of each set as its reference would
// see them: the counts coded for an explicit set; for a predicted set, whose
// counts the reader does not derive, the record's words as the caller left
// them (the writer assumes a cleared record: 0).
struct SetPictureCounts {
    uint32_t sum[kMaxShortTermSets] = {};
};

template <class C, class S>
void shortTermRefPicSet(C& c, S& s, uint32_t set, uint32_t numSets, SetPictureCounts& counts) {
    auto& rps = s.st_ref_pic_set[set];
    const int32_t n = static_cast<int32_t>(set);
    uint32_t predicted = 0;
    if (set != 0) predicted = c.u(1, rps.inter_ref_pic_set_prediction_flag, {"inter_ref_pic_set_prediction_flag", n});
    if (predicted) {
        uint32_t deltaIdxMinus1 = 0;
        if (readsDeltaIdx(set, numSets)) deltaIdxMinus1 = c.skipUe(0, {"delta_idx_minus1", n});
        c.u(1, rps.delta_rps_sign, {"delta_rps_sign", n});
        c.ue(rps.abs_delta_rps_minus1, {"abs_delta_rps_minus1", n});
        const uint32_t ref = set - (deltaIdxMinus1 + 1);
        const uint32_t pairs = ref < kMaxShortTermSets ? atMost(counts.sum[ref], kPicsPerList) : 0;
        if constexpr (!C::kWriting) counts.sum[set] = rps.num_negative_pics + rps.num_positive_pics;
        for (uint32_t j = 0; j < pairs; ++j) {
            const int32_t m = static_cast<int32_t>(j);
            if (!c.u(1, rps.used_by_curr_pic_flag[j], {"used_by_curr_pic_flag", n, m}))
                c.u(1, rps.use_delta_flag[j], {"use_delta_flag", n, m});
        }
        return;
    }
    const uint32_t codedNegative = c.ue(rps.num_negative_pics, {"num_negative_pics", n});
    const uint32_t codedPositive = c.ue(rps.num_positive_pics, {"num_positive_pics", n});
    counts.sum[set] = codedNegative + codedPositive;
    const uint32_t negative = atMost(codedNegative, kPicsPerList), positive = atMost(codedPositive, kPicsPerList);
    for (uint32_t i = 0; i < negative; ++i) {
        const int32_t m = static_cast<int32_t>(i);
        c.ue(rps.delta_poc_s0_minus1[i], {"delta_poc_s0_minus1", n, m});
        c.u(1, rps.used_by_curr_pic_s0_flag[i], {"used_by_curr_pic_s0_flag", n, m});
    }
    for (uint32_t i = 0; i < positive; ++i) {
        const int32_t m = static_cast<int32_t>(i);
        c.ue(rps.delta_poc_s1_minus1[i], {"delta_poc_s1_minus1", n, m});
        c.u(1, rps.used_by_curr_pic_s1_flag[i], {"used_by_curr_pic_s1_flag", n, m});
    }
}

template <class C, class S>
void vuiParameters(C& c, S& s, uint32_t maxSubLayersMinus1) {
    if (QNV_FLAG(aspect_ratio_info_present_flag)) {
        if (QNV_U(8, aspect_ratio_idc) == 255) {
            QNV_U(16, sar_width);
            QNV_U(16, sar_height);
        }
    }
    if (QNV_FLAG(overscan_info_present_flag))
        QNV_FLAG(overscan_appropriate_flag);
    if (QNV_FLAG(video_signal_type_present_flag)) {
        QNV_U(3, video_format);
        QNV_FLAG(video_full_range_flag);
        if (QNV_FLAG(colour_description_present_flag)) {
            QNV_U(8, colour_primaries);
            QNV_U(8, transfer_characteristics);
            QNV_U(8, matrix_coeffs);
        }
    }
    if (QNV_FLAG(chroma_loc_info_present_flag)) {
        QNV_UE(chroma_sample_loc_type_top_field);
        QNV_UE(chroma_sample_loc_type_bottom_field);
    }
    QNV_FLAG(neutral_chroma_indication_flag);
    QNV_FLAG(field_seq_flag);
    QNV_FLAG(frame_field_info_present_flag);
    if (QNV_FLAG(default_display_window_flag)) {
        QNV_UE(def_disp_win_left_offset);
        QNV_UE(def_disp_win_right_offset);
        QNV_UE(def_disp_win_top_offset);
        QNV_UE(def_disp_win_bottom_offset);
    }
    if (QNV_FLAG(vui_timing_info_present_flag)) {
        QNV_U(32, vui_num_units_in_tick);
        QNV_U(32, vui_time_scale);
        if (QNV_FLAG(vui_poc_proportional_to_timing_flag))
            QNV_UE(vui_num_ticks_poc_diff_one_minus1);
        if (QNV_FLAG(vui_hrd_parameters_present_flag))
            spsHrd(c, s, maxSubLayersMinus1);
    }
    if (QNV_FLAG(bitstream_restriction_flag)) {
        QNV_FLAG(tiles_fixed_structure_flag);
        QNV_FLAG(motion_vectors_over_pic_boundaries_flag);
        QNV_FLAG(restricted_ref_pic_lists_flag);
        QNV_UE(min_spatial_segmentation_idc);
        QNV_UE(max_bytes_per_pic_denom);
        QNV_UE(max_bits_per_min_cu_denom);
        QNV_UE(log2_max_mv_length_horizontal);
        QNV_UE(log2_max_mv_length_vertical);
    }
}

// sps_3d_extension(): parsed for d = 0 and 1 and discarded; written as zeros.
template <class C>
void sps3dExtension(C& c) {
    for (int32_t d = 0; d <= 1; ++d) {
        c.skip(2, 0, {"iv_di_mc_mv_scal_enabled_flags", d});
        if (d == 0) {
            c.skipUe(0, {"log2_ivmc_sub_pb_size_minus3", d});
            c.skip(4, 0, {"sps_3d_flags", d});
        } else {
            c.skip(1, 0, {"tex_mc_enabled_flag", d});
            c.skipUe(0, {"log2_texmc_sub_pb_size_minus3", d});
            c.skip(5, 0, {"sps_3d_flags", d});
        }
    }
}

template <class C, class S>
Parse spsPayload(C& c, S& s, HevcConfigRecord* cfg) {
    QNV_U(4, sps_video_parameter_set_id);
    const uint32_t maxSub = QNV_U(3, sps_max_sub_layers_minus1);
    QNV_FLAG(sps_temporal_id_nesting_flag);
    profileTierLevel(c, s.ptl, maxSub, PtlVariant::kSps, cfg);
    if constexpr (!C::kWriting) mergeProfile(cfg, s.ptl);

    QNV_UE(sps_seq_parameter_set_id);
    if (QNV_UE(chroma_format_idc) == 3)
        QNV_FLAG(separate_colour_plane_flag);
    QNV_UE(pic_width_in_luma_samples);
    QNV_UE(pic_height_in_luma_samples);
    if (QNV_FLAG(conformance_window_flag)) {
        QNV_UE(conf_win_left_offset);
        QNV_UE(conf_win_right_offset);
        QNV_UE(conf_win_top_offset);
        QNV_UE(conf_win_bottom_offset);
    }
    QNV_UE(bit_depth_luma_minus8);
    QNV_UE(bit_depth_chroma_minus8);
    const uint32_t pocLsbBits = QNV_UE(log2_max_pic_order_cnt_lsb_minus4) + 4;

    // Every sub-layer stores into entry 0 (settled behaviour).
    const uint32_t ordering =
        QNV_FLAG(sps_sub_layer_ordering_info_present_flag);
    const uint32_t last = atMost(maxSub, kSubLayerEntries - 1);
    for (uint32_t i = ordering ? 0 : last; i <= last; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        c.ue(s.sps_max_dec_pic_buffering_minus1[0], {"sps_max_dec_pic_buffering_minus1", n});
        c.ue(s.sps_max_num_reorder_pics[0], {"sps_max_num_reorder_pics", n});
        QNV_UE_AT(sps_max_latency_increase_plus1, n);
    }
    QNV_UE(log2_min_luma_coding_block_size_minus3);
    QNV_UE(log2_diff_max_min_luma_coding_block_size);
    QNV_UE(log2_min_luma_transform_block_size_minus2);
    QNV_UE(log2_diff_max_min_luma_transform_block_size);
    QNV_UE(max_transform_hierarchy_depth_inter);
    QNV_UE(max_transform_hierarchy_depth_intra);
    if (QNV_FLAG(scaling_list_enabled_flag)) {
        if (QNV_FLAG(sps_scaling_list_data_present_flag))
            scalingListData(c, s);
    }
    QNV_FLAG(amp_enabled_flag);
    QNV_FLAG(sample_adaptive_offset_enabled_flag);
    if (QNV_FLAG(pcm_enabled_flag)) {
        QNV_U(4, pcm_sample_bit_depth_luma_minus1);
        QNV_U(4, pcm_sample_bit_depth_chroma_minus1);
        QNV_UE(log2_min_pcm_luma_coding_block_size_minus3);
        QNV_UE(log2_diff_max_min_pcm_luma_coding_block_size);
        QNV_FLAG(pcm_loop_filter_disabled_flag);
    }
    const uint32_t numSets = QNV_UE(num_short_term_ref_pic_sets);
    if (numSets > kMaxShortTermSets) return Parse::kFatal;
    SetPictureCounts counts;
    for (uint32_t set = 0; set < numSets; ++set) shortTermRefPicSet(c, s, set, numSets, counts);

    if (QNV_FLAG(long_term_ref_pics_present_flag)) {
        const uint32_t count = atMost(QNV_UE(num_long_term_ref_pics_sps), kLongTermEntries);
        const uint32_t bits = atMost(pocLsbBits, 32);  // guard: a field is at most 32 bits wide
        for (uint32_t i = 0; i < count; ++i) {
            const int32_t n = static_cast<int32_t>(i);
            c.u(bits, s.lt_ref_pic_sps[i].lt_ref_pic_poc_lsb_sps, {"lt_ref_pic_poc_lsb_sps", n});
            c.u(1, s.lt_ref_pic_sps[i].used_by_curr_pic_lt_sps_flag, {"used_by_curr_pic_lt_sps_flag", n});
        }
    }
    QNV_FLAG(sps_temporal_mvp_enabled_flag);
    QNV_FLAG(strong_intra_smoothing_enabled_flag);
    if (QNV_FLAG(vui_parameters_present_flag)) vuiParameters(c, s, maxSub);

    uint32_t range = 0, multilayer = 0, threeD = 0, scc = 0;
    if (QNV_FLAG(sps_extension_present_flag)) {
        range = QNV_FLAG(sps_range_extension_flag);
        multilayer = QNV_FLAG(sps_multilayer_extension_flag);
        threeD = QNV_FLAG(sps_3d_extension_flag);
        scc = QNV_FLAG(sps_scc_extension_flag);
        c.skip(4, 0, {"sps_extension_4bits"});
    }
    if (range) {
        QNV_FLAG(transform_skip_rotation_enabled_flag);
        QNV_FLAG(transform_skip_context_enabled_flag);
        QNV_FLAG(implicit_rdpcm_enabled_flag);
        QNV_FLAG(explicit_rdpcm_enabled_flag);
        QNV_FLAG(extended_precision_processing_flag);
        QNV_FLAG(intra_smoothing_disabled_flag);
        QNV_FLAG(high_precision_offsets_enabled_flag);
        QNV_FLAG(persistent_rice_adaptation_enabled_flag);
        QNV_FLAG(cabac_bypass_alignment_enabled_flag);
    }
    if (multilayer) QNV_FLAG(inter_view_mv_vert_constraint_flag);
    if (threeD) sps3dExtension(c);
    if constexpr (C::kWriting) {
        // The reader does not parse sps_scc_extension(); its smallest valid
        // form (no tools) keeps the unit decodable.
        if (scc) c.skip(5, 0, {"sps_scc_extension"});
    }
    return Parse::kOk;
}

// ---- pic_parameter_set_rbsp -----------------------------------------------------------------

template <class C, class P>
Parse ppsPayload(C& c, P& s) {
    QNV_UE(pps_pic_parameter_set_id);
    QNV_UE(pps_seq_parameter_set_id);
    QNV_FLAG(dependent_slice_segments_enabled_flag);
    QNV_FLAG(output_flag_present_flag);
    QNV_U(3, num_extra_slice_header_bits);
    QNV_FLAG(sign_data_hiding_enabled_flag);
    QNV_FLAG(cabac_init_present_flag);
    QNV_UE(num_ref_idx_l0_default_active_minus1);
    QNV_UE(num_ref_idx_l1_default_active_minus1);
    QNV_SE(init_qp_minus26);
    QNV_FLAG(constrained_intra_pred_flag);
    QNV_FLAG(transform_skip_enabled_flag);
    if (QNV_FLAG(cu_qp_delta_enabled_flag))
        QNV_UE(diff_cu_qp_delta_depth);
    QNV_SE(pps_cb_qp_offset);
    QNV_SE(pps_cr_qp_offset);
    QNV_FLAG(pps_slice_chroma_qp_offsets_present_flag);
    QNV_FLAG(weighted_pred_flag);
    QNV_FLAG(weighted_bipred_flag);
    QNV_FLAG(transquant_bypass_enabled_flag);
    const uint32_t tiles = QNV_FLAG(tiles_enabled_flag);
    QNV_FLAG(entropy_coding_sync_enabled_flag);
    if (tiles) {
        const uint32_t columns = atMost(QNV_UE(num_tile_columns_minus1), kMaxTileSpans);
        const uint32_t rows = atMost(QNV_UE(num_tile_rows_minus1), kMaxTileSpans);
        if (!QNV_FLAG(uniform_spacing_flag)) {
            for (uint32_t i = 0; i < columns; ++i)
                c.ue(s.column_width_minus1, {"column_width_minus1", static_cast<int32_t>(i)});
            for (uint32_t i = 0; i < rows; ++i)
                c.ue(s.row_height_minus1, {"row_height_minus1", static_cast<int32_t>(i)});
        }
        QNV_FLAG(loop_filter_across_tiles_enabled_flag);
    }
    QNV_FLAG(pps_loop_filter_across_slices_enabled_flag);
    if (QNV_FLAG(deblocking_filter_control_present_flag)) {
        QNV_FLAG(deblocking_filter_override_enabled_flag);
        if (!QNV_FLAG(pps_deblocking_filter_disabled_flag)) {
            QNV_SE(pps_beta_offset_div2);
            QNV_SE(pps_tc_offset_div2);
        }
    }
    // scaling_list_data() of a PPS is not parsed: the fields below are read
    // from where the flag leaves off (settled behaviour), and written so.
    QNV_FLAG(pps_scaling_list_data_present_flag);
    QNV_FLAG(lists_modification_present_flag);
    QNV_UE(log2_parallel_merge_level_minus2);
    QNV_FLAG(slice_segment_header_extension_present_flag);
    const uint32_t extension = QNV_FLAG(pps_extension_present_flag);
    if constexpr (C::kWriting) {
        // The reader stops at the flag; the four extension flags and
        // pps_extension_4bits follow as zeros so that a decoder finds no
        // extension to parse.
        if (extension) c.skip(8, 0, {"pps_extension_flags"});
    }
    (void)extension;
    return Parse::kOk;
}

}  // namespace qnv::hevc

#endif
