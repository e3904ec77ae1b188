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
void profileTierLevel(C& c, P& p, uint32_t maxSubLayersMinus1, PtlVariant variant, HevcConfigRecord* cfg) {
    c.u(2, p.general_profile_space, {"general_profile_space"});
    c.u(1, p.general_tier_flag, {"general_tier_flag"});
    c.u(5, p.general_profile_idc, {"general_profile_idc"});
    c.u(32, p.general_profile_compatibility_flags, {"general_profile_compatibility_flags"});
    if constexpr (C::kWriting) {
        // Words 4-7 are the editable copies of the four leading bits.
        uint64_t flags = (uint64_t(p.general_constraint_flags_hi) << 32 | p.general_constraint_flags_lo) &
                         0x0FFFFFFFFFFFull;
        flags |= uint64_t(p.general_progressive_source_flag & 1) << 47 |
                 uint64_t(p.general_interlaced_source_flag & 1) << 46 |
                 uint64_t(p.general_non_packed_constraint_flag & 1) << 45 |
                 uint64_t(p.general_frame_only_constraint_flag & 1) << 44;
        const uint32_t lo = static_cast<uint32_t>(flags), hi = static_cast<uint32_t>(flags >> 32);
        c.u48(lo, hi, {"general_constraint_flags"});
    } else {
        uint64_t flags = c.u48(p.general_constraint_flags_lo, p.general_constraint_flags_hi, {"general_constraint_flags"});
        p.general_progressive_source_flag = static_cast<uint32_t>(flags >> 47) & 1;
        p.general_interlaced_source_flag = static_cast<uint32_t>(flags >> 46) & 1;
        p.general_non_packed_constraint_flag = static_cast<uint32_t>(flags >> 45) & 1;
        p.general_frame_only_constraint_flag = static_cast<uint32_t>(flags >> 44) & 1;
    }
    c.u(8, p.general_level_idc, {"general_level_idc"});
    if constexpr (!C::kWriting) {
        if (variant == PtlVariant::kVps) mergeProfile(cfg, p);
    }
    if (maxSubLayersMinus1 == 0) return;

    const uint32_t subLayers = atMost(maxSubLayersMinus1, kSubLayerEntries);
    uint32_t profilePresent[kSubLayerEntries] = {}, levelPresent[kSubLayerEntries] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        profilePresent[i] = c.u(1, p.sub_layer_profile_present_flag[i], {"sub_layer_profile_present_flag", n});
        if constexpr (C::kWriting) {
            // The VPS keeps one level: every sub-layer is written with entry
            // 0's presence flag, the one its reader consults.
            if (variant == PtlVariant::kVps) {
                levelPresent[i] = c.u(1, p.sub_layer_level_present_flag[0], {"sub_layer_level_present_flag", n});
                continue;
            }
        }
        levelPresent[i] = c.u(1, p.sub_layer_level_present_flag[i], {"sub_layer_level_present_flag", n});
    }
    for (uint32_t i = maxSubLayersMinus1; i < 8; ++i) {
        if (c.skip(2, 0, {"reserved_zero_2bits"}) != 0)
            ErrOut("Hevc Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
    }
    for (uint32_t i = 0; i < subLayers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        if (profilePresent[i]) {
            c.u(2, p.sub_layer_profile_space[i], {"sub_layer_profile_space", n});
            c.u(1, p.sub_layer_tier_flag[i], {"sub_layer_tier_flag", n});
            c.u(5, p.sub_layer_profile_idc[i], {"sub_layer_profile_idc", n});
            c.u(32, p.sub_layer_profile_compatibility_flags[i], {"sub_layer_profile_compatibility_flags", n});
            c.u(1, p.sub_layer_progressive_source_flag[i], {"sub_layer_progressive_source_flag", n});
            c.u(1, p.sub_layer_interlaced_source_flag[i], {"sub_layer_interlaced_source_flag", n});
            c.u(1, p.sub_layer_non_packed_constraint_flag[i], {"sub_layer_non_packed_constraint_flag", n});
            c.u(1, p.sub_layer_frame_only_constraint_flag[i], {"sub_layer_frame_only_constraint_flag", n});
            c.skip64(44, 0, {"sub_layer_reserved_44bits", n});
        }
        const uint32_t e = subLayerLevelEntry(variant, i);
        if (levelPresent[e]) c.u(8, p.sub_layer_level_idc[e], {"sub_layer_level_idc", n});
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
    const uint32_t nal = c.u(1, s.nal_hrd_parameters_present_flag, {"nal_hrd_parameters_present_flag"});
    const uint32_t vcl = c.u(1, s.vcl_hrd_parameters_present_flag, {"vcl_hrd_parameters_present_flag"});
    uint32_t subPic = 0;
    if (nal || vcl) {
        subPic = c.u(1, s.sub_pic_hrd_params_present_flag, {"sub_pic_hrd_params_present_flag"});
        if (subPic) {
            c.u(8, s.tick_divisor_minus2, {"tick_divisor_minus2"});
            c.u(5, s.du_cpb_removal_delay_increment_length_minus1, {"du_cpb_removal_delay_increment_length_minus1"});
            c.u(1, s.sub_pic_cpb_params_in_pic_timing_sei_flag, {"sub_pic_cpb_params_in_pic_timing_sei_flag"});
            c.u(5, s.dpb_output_delay_du_length_minus1, {"dpb_output_delay_du_length_minus1"});
        }
        c.u(4, s.bit_rate_scale, {"bit_rate_scale"});
        c.u(4, s.cpb_size_scale, {"cpb_size_scale"});
        if (subPic) c.u(4, s.cpb_size_du_scale, {"cpb_size_du_scale"});
        c.u(5, s.initial_cpb_removal_delay_length_minus1, {"initial_cpb_removal_delay_length_minus1"});
        c.u(5, s.au_cpb_removal_delay_length_minus1, {"au_cpb_removal_delay_length_minus1"});
        c.u(5, s.dpb_output_delay_length_minus1, {"dpb_output_delay_length_minus1"});
    }
    const uint32_t layers = atMost(maxSubLayersMinus1, kSubLayerEntries - 1) + 1;
    for (uint32_t i = 0; i < layers; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        const uint32_t general = c.u(1, s.fixed_pic_rate_general_flag[i], {"fixed_pic_rate_general_flag", n});
        uint32_t withinCvs = 1;  // inferred when the general flag is set
        if (!general) withinCvs = c.u(1, s.fixed_pic_rate_within_cvs_flag[i], {"fixed_pic_rate_within_cvs_flag", n});
        uint32_t lowDelay = 0;
        if (withinCvs)
            c.skipUe(0, {"elemental_duration_in_tc_minus1", n});
        else
            lowDelay = c.u(1, s.low_delay_hrd_flag[i], {"low_delay_hrd_flag", n});
        uint32_t cpbCntMinus1 = 0;
        if (!lowDelay) cpbCntMinus1 = c.ue(s.cpb_cnt_minus1[i], {"cpb_cnt_minus1", n});
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
void vpsTicksPocDiffOne(C& c, V& v) {
    if constexpr (C::kWriting) {
        c.skipUe(v.vps_num_ticks_poc_diff_one - 1u, {"vps_num_ticks_poc_diff_one_minus1"});
    } else {
        v.vps_num_ticks_poc_diff_one = c.skipUe(0, {"vps_num_ticks_poc_diff_one_minus1"}) + 1u;
    }
}

template <class C, class V>
Parse vpsPayload(C& c, V& v, HevcConfigRecord* cfg, uint32_t bitLength) {
    c.u(4, v.vps_video_parameter_set_id, {"vps_video_parameter_set_id"});
    if (c.skip(2, 3, {"vps_base_layer_flags"}) != 3) {
        ErrOut("Vps Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
        return Parse::kFatal;
    }
    c.u(6, v.vps_max_layers_minus1, {"vps_max_layers_minus1"});
    const uint32_t maxSub = c.u(3, v.vps_max_sub_layers_minus1, {"vps_max_sub_layers_minus1"});
    c.u(1, v.vps_temporal_id_nesting_flag, {"vps_temporal_id_nesting_flag"});
    if constexpr (C::kWriting) {
        c.skip(16, 0xFFFF, {"vps_reserved_0xffff_16bits"});
    } else if (c.u(16, v.vps_reserved_0xffff_16bits, {"vps_reserved_0xffff_16bits"}) != 65535) {
        ErrOut("Vps Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
        return Parse::kFatal;
    }
    profileTierLevel(c, v.ptl, maxSub, PtlVariant::kVps, cfg);

    const uint32_t ordering =
        c.u(1, v.vps_sub_layer_ordering_info_present_flag, {"vps_sub_layer_ordering_info_present_flag"});
    const uint32_t last = atMost(maxSub, kSubLayerEntries - 1);
    for (uint32_t i = ordering ? 0 : last; i <= last; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        c.ue(v.vps_max_dec_pic_buffering_minus1, {"vps_max_dec_pic_buffering_minus1", n});
        c.ue(v.vps_max_num_reorder_pics, {"vps_max_num_reorder_pics", n});
        c.ue(v.vps_max_latency_increase_plus1, {"vps_max_latency_increase_plus1", n});
    }
    const uint32_t maxLayerId = c.u(6, v.vps_max_layer_id, {"vps_max_layer_id"});
    const uint32_t layerSets = atMost(c.ue(v.vps_num_layer_sets_minus1, {"vps_num_layer_sets_minus1"}), kMaxLayerSets);
    for (uint32_t i = 1; i <= layerSets; ++i) {
        if constexpr (C::kWriting) {
            // Not kept: each layer set is written as holding layer 0 only.
            for (uint32_t j = 0; j <= maxLayerId; ++j)
                c.skip(1, j == 0 ? 1 : 0, {"layer_id_included_flag", static_cast<int32_t>(i), static_cast<int32_t>(j)});
        } else {
            SkipBits(c.buffer(), maxLayerId + 1);
        }
    }
    if (c.u(1, v.vps_timing_info_present_flag, {"vps_timing_info_present_flag"})) {
        c.u(32, v.vps_num_units_in_tick, {"vps_num_units_in_tick"});
        c.u(32, v.vps_time_scale, {"vps_time_scale"});
        if (c.u(1, v.vps_poc_proportional_to_timing_flag, {"vps_poc_proportional_to_timing_flag"}))
            vpsTicksPocDiffOne(c, v);
        const uint32_t hrdCount = atMost(c.ue(v.vps_num_hrd_parameters, {"vps_num_hrd_parameters"}), kMaxHrdEntries);
        for (uint32_t i = 0; i < hrdCount; ++i) {
            const int32_t n = static_cast<int32_t>(i);
            uint32_t cprms = 1;
            if constexpr (!C::kWriting) v.cprms_present_flag = 1;
            c.ue(v.hrd_layer_set_idx, {"hrd_layer_set_idx", n});
            if (i > 0) cprms = c.u(1, v.cprms_present_flag, {"cprms_present_flag", n});
            vpsHrd(c, cprms, maxSub);
        }
    }
    if (c.u(1, v.vps_extension_flag, {"vps_extension_flag"})) {
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
    if (c.u(1, s.aspect_ratio_info_present_flag, {"aspect_ratio_info_present_flag"})) {
        if (c.u(8, s.aspect_ratio_idc, {"aspect_ratio_idc"}) == 255) {
            c.u(16, s.sar_width, {"sar_width"});
            c.u(16, s.sar_height, {"sar_height"});
        }
    }
    if (c.u(1, s.overscan_info_present_flag, {"overscan_info_present_flag"}))
        c.u(1, s.overscan_appropriate_flag, {"overscan_appropriate_flag"});
    if (c.u(1, s.video_signal_type_present_flag, {"video_signal_type_present_flag"})) {
        c.u(3, s.video_format, {"video_format"});
        c.u(1, s.video_full_range_flag, {"video_full_range_flag"});
        if (c.u(1, s.colour_description_present_flag, {"colour_description_present_flag"})) {
            c.u(8, s.colour_primaries, {"colour_primaries"});
            c.u(8, s.transfer_characteristics, {"transfer_characteristics"});
            c.u(8, s.matrix_coeffs, {"matrix_coeffs"});
        }
    }
    if (c.u(1, s.chroma_loc_info_present_flag, {"chroma_loc_info_present_flag"})) {
        c.ue(s.chroma_sample_loc_type_top_field, {"chroma_sample_loc_type_top_field"});
        c.ue(s.chroma_sample_loc_type_bottom_field, {"chroma_sample_loc_type_bottom_field"});
    }
    c.u(1, s.neutral_chroma_indication_flag, {"neutral_chroma_indication_flag"});
    c.u(1, s.field_seq_flag, {"field_seq_flag"});
    c.u(1, s.frame_field_info_present_flag, {"frame_field_info_present_flag"});
    if (c.u(1, s.default_display_window_flag, {"default_display_window_flag"})) {
        c.ue(s.def_disp_win_left_offset, {"def_disp_win_left_offset"});
        c.ue(s.def_disp_win_right_offset, {"def_disp_win_right_offset"});
        c.ue(s.def_disp_win_top_offset, {"def_disp_win_top_offset"});
        c.ue(s.def_disp_win_bottom_offset, {"def_disp_win_bottom_offset"});
    }
    if (c.u(1, s.vui_timing_info_present_flag, {"vui_timing_info_present_flag"})) {
        c.u(32, s.vui_num_units_in_tick, {"vui_num_units_in_tick"});
        c.u(32, s.vui_time_scale, {"vui_time_scale"});
        if (c.u(1, s.vui_poc_proportional_to_timing_flag, {"vui_poc_proportional_to_timing_flag"}))
            c.ue(s.vui_num_ticks_poc_diff_one_minus1, {"vui_num_ticks_poc_diff_one_minus1"});
        if (c.u(1, s.vui_hrd_parameters_present_flag, {"vui_hrd_parameters_present_flag"}))
            spsHrd(c, s, maxSubLayersMinus1);
    }
    if (c.u(1, s.bitstream_restriction_flag, {"bitstream_restriction_flag"})) {
        c.u(1, s.tiles_fixed_structure_flag, {"tiles_fixed_structure_flag"});
        c.u(1, s.motion_vectors_over_pic_boundaries_flag, {"motion_vectors_over_pic_boundaries_flag"});
        c.u(1, s.restricted_ref_pic_lists_flag, {"restricted_ref_pic_lists_flag"});
        c.ue(s.min_spatial_segmentation_idc, {"min_spatial_segmentation_idc"});
        c.ue(s.max_bytes_per_pic_denom, {"max_bytes_per_pic_denom"});
        c.ue(s.max_bits_per_min_cu_denom, {"max_bits_per_min_cu_denom"});
        c.ue(s.log2_max_mv_length_horizontal, {"log2_max_mv_length_horizontal"});
        c.ue(s.log2_max_mv_length_vertical, {"log2_max_mv_length_vertical"});
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
    c.u(4, s.sps_video_parameter_set_id, {"sps_video_parameter_set_id"});
    const uint32_t maxSub = c.u(3, s.sps_max_sub_layers_minus1, {"sps_max_sub_layers_minus1"});
    c.u(1, s.sps_temporal_id_nesting_flag, {"sps_temporal_id_nesting_flag"});
    profileTierLevel(c, s.ptl, maxSub, PtlVariant::kSps, cfg);
    if constexpr (!C::kWriting) mergeProfile(cfg, s.ptl);

    c.ue(s.sps_seq_parameter_set_id, {"sps_seq_parameter_set_id"});
    if (c.ue(s.chroma_format_idc, {"chroma_format_idc"}) == 3)
        c.u(1, s.separate_colour_plane_flag, {"separate_colour_plane_flag"});
    c.ue(s.pic_width_in_luma_samples, {"pic_width_in_luma_samples"});
    c.ue(s.pic_height_in_luma_samples, {"pic_height_in_luma_samples"});
    if (c.u(1, s.conformance_window_flag, {"conformance_window_flag"})) {
        c.ue(s.conf_win_left_offset, {"conf_win_left_offset"});
        c.ue(s.conf_win_right_offset, {"conf_win_right_offset"});
        c.ue(s.conf_win_top_offset, {"conf_win_top_offset"});
        c.ue(s.conf_win_bottom_offset, {"conf_win_bottom_offset"});
    }
    c.ue(s.bit_depth_luma_minus8, {"bit_depth_luma_minus8"});
    c.ue(s.bit_depth_chroma_minus8, {"bit_depth_chroma_minus8"});
    const uint32_t pocLsbBits = c.ue(s.log2_max_pic_order_cnt_lsb_minus4, {"log2_max_pic_order_cnt_lsb_minus4"}) + 4;

    // Every sub-layer stores into entry 0 (settled behaviour).
    const uint32_t ordering =
        c.u(1, s.sps_sub_layer_ordering_info_present_flag, {"sps_sub_layer_ordering_info_present_flag"});
    const uint32_t last = atMost(maxSub, kSubLayerEntries - 1);
    for (uint32_t i = ordering ? 0 : last; i <= last; ++i) {
        const int32_t n = static_cast<int32_t>(i);
        c.ue(s.sps_max_dec_pic_buffering_minus1[0], {"sps_max_dec_pic_buffering_minus1", n});
        c.ue(s.sps_max_num_reorder_pics[0], {"sps_max_num_reorder_pics", n});
        c.ue(s.sps_max_latency_increase_plus1, {"sps_max_latency_increase_plus1", n});
    }
    c.ue(s.log2_min_luma_coding_block_size_minus3, {"log2_min_luma_coding_block_size_minus3"});
    c.ue(s.log2_diff_max_min_luma_coding_block_size, {"log2_diff_max_min_luma_coding_block_size"});
    c.ue(s.log2_min_luma_transform_block_size_minus2, {"log2_min_luma_transform_block_size_minus2"});
    c.ue(s.log2_diff_max_min_luma_transform_block_size, {"log2_diff_max_min_luma_transform_block_size"});
    c.ue(s.max_transform_hierarchy_depth_inter, {"max_transform_hierarchy_depth_inter"});
    c.ue(s.max_transform_hierarchy_depth_intra, {"max_transform_hierarchy_depth_intra"});
    if (c.u(1, s.scaling_list_enabled_flag, {"scaling_list_enabled_flag"})) {
        if (c.u(1, s.sps_scaling_list_data_present_flag, {"sps_scaling_list_data_present_flag"}))
            scalingListData(c, s);
    }
    c.u(1, s.amp_enabled_flag, {"amp_enabled_flag"});
    c.u(1, s.sample_adaptive_offset_enabled_flag, {"sample_adaptive_offset_enabled_flag"});
    if (c.u(1, s.pcm_enabled_flag, {"pcm_enabled_flag"})) {
        c.u(4, s.pcm_sample_bit_depth_luma_minus1, {"pcm_sample_bit_depth_luma_minus1"});
        c.u(4, s.pcm_sample_bit_depth_chroma_minus1, {"pcm_sample_bit_depth_chroma_minus1"});
        c.ue(s.log2_min_pcm_luma_coding_block_size_minus3, {"log2_min_pcm_luma_coding_block_size_minus3"});
        c.ue(s.log2_diff_max_min_pcm_luma_coding_block_size, {"log2_diff_max_min_pcm_luma_coding_block_size"});
        c.u(1, s.pcm_loop_filter_disabled_flag, {"pcm_loop_filter_disabled_flag"});
    }
    const uint32_t numSets = c.ue(s.num_short_term_ref_pic_sets, {"num_short_term_ref_pic_sets"});
    if (numSets > kMaxShortTermSets) return Parse::kFatal;
    SetPictureCounts counts;
    for (uint32_t set = 0; set < numSets; ++set) shortTermRefPicSet(c, s, set, numSets, counts);

    if (c.u(1, s.long_term_ref_pics_present_flag, {"long_term_ref_pics_present_flag"})) {
        const uint32_t count = atMost(c.ue(s.num_long_term_ref_pics_sps, {"num_long_term_ref_pics_sps"}), kLongTermEntries);
        const uint32_t bits = atMost(pocLsbBits, 32);  // guard: a field is at most 32 bits wide
        for (uint32_t i = 0; i < count; ++i) {
            const int32_t n = static_cast<int32_t>(i);
            c.u(bits, s.lt_ref_pic_sps[i].lt_ref_pic_poc_lsb_sps, {"lt_ref_pic_poc_lsb_sps", n});
            c.u(1, s.lt_ref_pic_sps[i].used_by_curr_pic_lt_sps_flag, {"used_by_curr_pic_lt_sps_flag", n});
        }
    }
    c.u(1, s.sps_temporal_mvp_enabled_flag, {"sps_temporal_mvp_enabled_flag"});
    c.u(1, s.strong_intra_smoothing_enabled_flag, {"strong_intra_smoothing_enabled_flag"});
    if (c.u(1, s.vui_parameters_present_flag, {"vui_parameters_present_flag"})) vuiParameters(c, s, maxSub);

    uint32_t range = 0, multilayer = 0, threeD = 0, scc = 0;
    if (c.u(1, s.sps_extension_present_flag, {"sps_extension_present_flag"})) {
        range = c.u(1, s.sps_range_extension_flag, {"sps_range_extension_flag"});
        multilayer = c.u(1, s.sps_multilayer_extension_flag, {"sps_multilayer_extension_flag"});
        threeD = c.u(1, s.sps_3d_extension_flag, {"sps_3d_extension_flag"});
        scc = c.u(1, s.sps_scc_extension_flag, {"sps_scc_extension_flag"});
        c.skip(4, 0, {"sps_extension_4bits"});
    }
    if (range) {
        c.u(1, s.transform_skip_rotation_enabled_flag, {"transform_skip_rotation_enabled_flag"});
        c.u(1, s.transform_skip_context_enabled_flag, {"transform_skip_context_enabled_flag"});
        c.u(1, s.implicit_rdpcm_enabled_flag, {"implicit_rdpcm_enabled_flag"});
        c.u(1, s.explicit_rdpcm_enabled_flag, {"explicit_rdpcm_enabled_flag"});
        c.u(1, s.extended_precision_processing_flag, {"extended_precision_processing_flag"});
        c.u(1, s.intra_smoothing_disabled_flag, {"intra_smoothing_disabled_flag"});
        c.u(1, s.high_precision_offsets_enabled_flag, {"high_precision_offsets_enabled_flag"});
        c.u(1, s.persistent_rice_adaptation_enabled_flag, {"persistent_rice_adaptation_enabled_flag"});
        c.u(1, s.cabac_bypass_alignment_enabled_flag, {"cabac_bypass_alignment_enabled_flag"});
    }
    if (multilayer) c.u(1, s.inter_view_mv_vert_constraint_flag, {"inter_view_mv_vert_constraint_flag"});
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
Parse ppsPayload(C& c, P& p) {
    c.ue(p.pps_pic_parameter_set_id, {"pps_pic_parameter_set_id"});
    c.ue(p.pps_seq_parameter_set_id, {"pps_seq_parameter_set_id"});
    c.u(1, p.dependent_slice_segments_enabled_flag, {"dependent_slice_segments_enabled_flag"});
    c.u(1, p.output_flag_present_flag, {"output_flag_present_flag"});
    c.u(3, p.num_extra_slice_header_bits, {"num_extra_slice_header_bits"});
    c.u(1, p.sign_data_hiding_enabled_flag, {"sign_data_hiding_enabled_flag"});
    c.u(1, p.cabac_init_present_flag, {"cabac_init_present_flag"});
    c.ue(p.num_ref_idx_l0_default_active_minus1, {"num_ref_idx_l0_default_active_minus1"});
    c.ue(p.num_ref_idx_l1_default_active_minus1, {"num_ref_idx_l1_default_active_minus1"});
    c.se(p.init_qp_minus26, {"init_qp_minus26"});
    c.u(1, p.constrained_intra_pred_flag, {"constrained_intra_pred_flag"});
    c.u(1, p.transform_skip_enabled_flag, {"transform_skip_enabled_flag"});
    if (c.u(1, p.cu_qp_delta_enabled_flag, {"cu_qp_delta_enabled_flag"}))
        c.ue(p.diff_cu_qp_delta_depth, {"diff_cu_qp_delta_depth"});
    c.se(p.pps_cb_qp_offset, {"pps_cb_qp_offset"});
    c.se(p.pps_cr_qp_offset, {"pps_cr_qp_offset"});
    c.u(1, p.pps_slice_chroma_qp_offsets_present_flag, {"pps_slice_chroma_qp_offsets_present_flag"});
    c.u(1, p.weighted_pred_flag, {"weighted_pred_flag"});
    c.u(1, p.weighted_bipred_flag, {"weighted_bipred_flag"});
    c.u(1, p.transquant_bypass_enabled_flag, {"transquant_bypass_enabled_flag"});
    const uint32_t tiles = c.u(1, p.tiles_enabled_flag, {"tiles_enabled_flag"});
    c.u(1, p.entropy_coding_sync_enabled_flag, {"entropy_coding_sync_enabled_flag"});
    if (tiles) {
        const uint32_t columns = atMost(c.ue(p.num_tile_columns_minus1, {"num_tile_columns_minus1"}), kMaxTileSpans);
        const uint32_t rows = atMost(c.ue(p.num_tile_rows_minus1, {"num_tile_rows_minus1"}), kMaxTileSpans);
        if (!c.u(1, p.uniform_spacing_flag, {"uniform_spacing_flag"})) {
            for (uint32_t i = 0; i < columns; ++i)
                c.ue(p.column_width_minus1, {"column_width_minus1", static_cast<int32_t>(i)});
            for (uint32_t i = 0; i < rows; ++i)
                c.ue(p.row_height_minus1, {"row_height_minus1", static_cast<int32_t>(i)});
        }
        c.u(1, p.loop_filter_across_tiles_enabled_flag, {"loop_filter_across_tiles_enabled_flag"});
    }
    c.u(1, p.pps_loop_filter_across_slices_enabled_flag, {"pps_loop_filter_across_slices_enabled_flag"});
    if (c.u(1, p.deblocking_filter_control_present_flag, {"deblocking_filter_control_present_flag"})) {
        c.u(1, p.deblocking_filter_override_enabled_flag, {"deblocking_filter_override_enabled_flag"});
        if (!c.u(1, p.pps_deblocking_filter_disabled_flag, {"pps_deblocking_filter_disabled_flag"})) {
            c.se(p.pps_beta_offset_div2, {"pps_beta_offset_div2"});
            c.se(p.pps_tc_offset_div2, {"pps_tc_offset_div2"});
        }
    }
    // scaling_list_data() of a PPS is not parsed: the fields below are read
    // from where the flag leaves off (settled behaviour), and written so.
    c.u(1, p.pps_scaling_list_data_present_flag, {"pps_scaling_list_data_present_flag"});
    c.u(1, p.lists_modification_present_flag, {"lists_modification_present_flag"});
    c.ue(p.log2_parallel_merge_level_minus2, {"log2_parallel_merge_level_minus2"});
    c.u(1, p.slice_segment_header_extension_present_flag, {"slice_segment_header_extension_present_flag"});
    const uint32_t extension = c.u(1, p.pps_extension_present_flag, {"pps_extension_present_flag"});
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
