// HEVC slice segment headers (ITU-T H.265 7.3.6.1-7.3.6.3, 7.3.7 for the
// short-term set), described once over the syntax coders and read into a
// record of words, one per element. The tools list slice headers with it and
// picture order counts are derived from it.
//
// Only single-layer streams without the screen content extension are
// described: the pred_weight_table flags are coded for every reference and
// no palette or ACT fields are read. A PPS range extension is not kept by
// the PPS record, so cu_chroma_qp_offset_enabled_flag is never read.
#ifndef QNVUTIL_QNVUTIL_HEVC_HEVC_SLICE_H
#define QNVUTIL_QNVUTIL_HEVC_HEVC_SLICE_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/hevc.h"

namespace qnv::hevc {

constexpr uint32_t kSliceRefs = 16;        // entries of a reference list
constexpr uint32_t kSliceLongTerm = 32;    // long-term entries of a slice
constexpr uint32_t kSliceEntryPoints = 4096;

struct HevcSliceHeader {
    uint32_t forbidden_zero_bit;
    uint32_t nal_unit_type;
    uint32_t nuh_layer_id;
    uint32_t nuh_temporal_id_plus1;
    uint32_t first_slice_segment_in_pic_flag;
    uint32_t no_output_of_prior_pics_flag;
    uint32_t slice_pic_parameter_set_id;
    uint32_t dependent_slice_segment_flag;
    uint32_t slice_segment_address;
    uint32_t slice_reserved_flag[8];
    uint32_t slice_type;
    uint32_t pic_output_flag;
    uint32_t colour_plane_id;
    uint32_t slice_pic_order_cnt_lsb;
    uint32_t short_term_ref_pic_set_sps_flag;
    HevcShortTermRefPicSet st_ref_pic_set;  // the slice's own set
    uint32_t delta_idx_minus1;
    uint32_t short_term_ref_pic_set_idx;
    uint32_t num_long_term_sps;
    uint32_t num_long_term_pics;
    uint32_t lt_idx_sps[kSliceLongTerm];
    uint32_t poc_lsb_lt[kSliceLongTerm];
    uint32_t used_by_curr_pic_lt_flag[kSliceLongTerm];
    uint32_t delta_poc_msb_present_flag[kSliceLongTerm];
    uint32_t delta_poc_msb_cycle_lt[kSliceLongTerm];
    uint32_t slice_temporal_mvp_enabled_flag;
    uint32_t slice_sao_luma_flag;
    uint32_t slice_sao_chroma_flag;
    uint32_t num_ref_idx_active_override_flag;
    uint32_t num_ref_idx_l0_active_minus1;
    uint32_t num_ref_idx_l1_active_minus1;
    uint32_t ref_pic_list_modification_flag_l0;
    uint32_t list_entry_l0[kSliceRefs];
    uint32_t ref_pic_list_modification_flag_l1;
    uint32_t list_entry_l1[kSliceRefs];
    uint32_t mvd_l1_zero_flag;
    uint32_t cabac_init_flag;
    uint32_t collocated_from_l0_flag;
    uint32_t collocated_ref_idx;
    uint32_t luma_log2_weight_denom;
    uint32_t delta_chroma_log2_weight_denom;  // signed
    uint32_t luma_weight_l0_flag[kSliceRefs];
    uint32_t chroma_weight_l0_flag[kSliceRefs];
    uint32_t delta_luma_weight_l0[kSliceRefs];
    uint32_t luma_offset_l0[kSliceRefs];
    uint32_t delta_chroma_weight_l0[kSliceRefs][2];
    uint32_t delta_chroma_offset_l0[kSliceRefs][2];
    uint32_t luma_weight_l1_flag[kSliceRefs];
    uint32_t chroma_weight_l1_flag[kSliceRefs];
    uint32_t delta_luma_weight_l1[kSliceRefs];
    uint32_t luma_offset_l1[kSliceRefs];
    uint32_t delta_chroma_weight_l1[kSliceRefs][2];
    uint32_t delta_chroma_offset_l1[kSliceRefs][2];
    uint32_t five_minus_max_num_merge_cand;
    uint32_t slice_qp_delta;  // signed, as the offsets below
    uint32_t slice_cb_qp_offset;
    uint32_t slice_cr_qp_offset;
    uint32_t deblocking_filter_override_flag;
    uint32_t slice_deblocking_filter_disabled_flag;
    uint32_t slice_beta_offset_div2;
    uint32_t slice_tc_offset_div2;
    uint32_t slice_loop_filter_across_slices_enabled_flag;
    uint32_t num_entry_point_offsets;
    uint32_t offset_len_minus1;
    uint32_t slice_segment_header_extension_length;
    // Derived: the bit position of slice_segment_data() in the unescaped
    // unit (from the NAL header), and NumPicTotalCurr.
    uint32_t header_bits;
    uint32_t num_pic_total_curr;
};

// IRAP pictures: BLA, IDR and CRA (16 to 23).
inline bool isIrap(uint32_t nalUnitType) { return nalUnitType >= 16 && nalUnitType <= 23; }
inline bool isIdr(uint32_t nalUnitType) { return nalUnitType == 19 || nalUnitType == 20; }

enum class SliceRead { kOk, kFailed };

// Reads the slice segment header of the VCL unit `unit` (NAL header first,
// escaped, no start code) with the active SPS and PPS. A dependent slice
// segment keeps the fields of its independent segment that the caller left
// in the record (the reader clears only what it reads then). Fails where
// the unit is not a VCL unit of type 0 to 21, an element lies outside its
// range or passes the record, or the header passes the unit's end.
SliceRead readSliceSegmentHeader(const uint8_t* unit, uint32_t size, const HevcSpsRecord& sps,
                                 const HevcPpsRecord& pps, HevcSliceHeader& slice, syntax::FieldSink* sink = nullptr);

}  // namespace qnv::hevc

#endif
