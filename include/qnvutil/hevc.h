/*
 * HEVC parameter sets, decoder configuration record and frame scan.
 *
 * Records are flat arrays of unsigned 32-bit words, one word per syntax
 * element of ITU-T H.265, with the element's name. A flag or fixed-length
 * field is stored right-aligned, a ue(v) field as its code number, an se(v)
 * field as a signed value in two's complement. A field that lay past the end
 * of the unit holds 0xFFFFFFFF. Words of elements absent from a unit are not
 * written: clear a record before parsing into it.
 *
 * The readers take a BitBuffer positioned at the first bit of the NAL unit
 * header (no start code), the record, an optional configuration record into
 * which profile, level, chroma, bit-depth, temporal and parallelism facts are
 * merged, and the unit's length in bits with emulation-prevention bytes (0:
 * use the reader's sizeBits). They return the bytes of the unescaped unit
 * consumed, 0 when record is null or the reader's sizeBytes is 0, and
 * 0xFFFFFFFF when the unit is not of the expected type or is malformed beyond
 * parsing; on success the reader's bitPos advances by the whole unit.
 *
 * What the records keep, and therefore what a writer can reproduce:
 *  - VPS: one vps_max_dec_pic_buffering_minus1 / num_reorder / latency triple
 *    (of the highest sub-layer read); one sub_layer_level_idc (entry 0,
 *    governed by sub_layer_level_present_flag[0]); no layer_id_included_flag
 *    bits; no hrd_parameters() contents (only the last entry's
 *    hrd_layer_set_idx and cprms_present_flag); no extension data.
 *  - SPS: one ordering triple (entry 0, of the highest sub-layer read); no
 *    scaling_list_data() contents; predicted short-term sets only as their
 *    flags; one bit_rate/cpb_size/cbr entry of the VUI HRD (the last read);
 *    no elemental_duration_in_tc_minus1 or sub-picture DU values; no
 *    sps_3d_extension() or sps_scc_extension() contents.
 *  - PPS: one column width and one row height; nothing after
 *    pps_extension_present_flag.
 *  - Sub-layer profile blocks: the 44 bits after the four source and
 *    constraint flags are not kept.
 */
#ifndef QNVUTIL_HEVC_H
#define QNVUTIL_HEVC_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/bitbuffer.h"
#include "qnvutil/dframe.h"
#include "qnvutil/export.h"

QNV_BEGIN_C

/* ---- Records ---------------------------------------------------------------- */

/* profile_tier_level(1, maxNumSubLayersMinus1): 188 words, embedded in the
   VPS (from word 5) and the SPS (from word 3). */
typedef struct HevcProfileTierLevel {
    uint32_t general_profile_space;              /* 0 */
    uint32_t general_tier_flag;                  /* 1 */
    uint32_t general_profile_idc;                /* 2 */
    uint32_t general_profile_compatibility_flags; /* 3: flag 0 in bit 31 */
    uint32_t general_progressive_source_flag;    /* 4 */
    uint32_t general_interlaced_source_flag;     /* 5 */
    uint32_t general_non_packed_constraint_flag; /* 6 */
    uint32_t general_frame_only_constraint_flag; /* 7 */
    uint32_t reserved8;                          /* 8 */
    /* 9-10: the 48 bits from general_progressive_source_flag to
       general_inbld_flag, right-aligned (progressive flag in bit 47), word 9
       the low half. The writers take the four leading bits from words 4-7,
       so editing those words is enough to change them. */
    uint32_t general_constraint_flags_lo;        /* 9 */
    uint32_t general_constraint_flags_hi;        /* 10 */
    uint32_t general_level_idc;                  /* 11 */
    uint32_t sub_layer_profile_present_flag[16]; /* 12 */
    uint32_t sub_layer_level_present_flag[16];   /* 28 */
    uint32_t sub_layer_profile_space[16];        /* 44 */
    uint32_t sub_layer_tier_flag[16];            /* 60 */
    uint32_t sub_layer_profile_idc[16];          /* 76 */
    uint32_t sub_layer_profile_compatibility_flags[16]; /* 92 */
    uint32_t sub_layer_progressive_source_flag[16];     /* 108 */
    uint32_t sub_layer_interlaced_source_flag[16];      /* 124 */
    uint32_t sub_layer_non_packed_constraint_flag[16];  /* 140 */
    uint32_t sub_layer_frame_only_constraint_flag[16];  /* 156 */
    uint32_t sub_layer_level_idc[16];                   /* 172 */
} HevcProfileTierLevel;

/* video_parameter_set_rbsp(): 210 words. */
typedef struct HevcVpsRecord {
    uint32_t vps_video_parameter_set_id;    /* 0 */
    uint32_t vps_max_layers_minus1;         /* 1 */
    uint32_t vps_max_sub_layers_minus1;     /* 2 */
    uint32_t vps_temporal_id_nesting_flag;  /* 3 */
    uint32_t vps_reserved_0xffff_16bits;    /* 4 */
    HevcProfileTierLevel ptl;               /* 5-192 */
    uint32_t vps_sub_layer_ordering_info_present_flag; /* 193 */
    /* 194-196: the values of the last sub-layer read */
    uint32_t vps_max_dec_pic_buffering_minus1;
    uint32_t vps_max_num_reorder_pics;
    uint32_t vps_max_latency_increase_plus1;
    uint32_t vps_max_layer_id;              /* 197 */
    uint32_t vps_num_layer_sets_minus1;     /* 198 */
    uint32_t vps_timing_info_present_flag;  /* 199 */
    uint32_t vps_num_units_in_tick;         /* 200 */
    uint32_t vps_time_scale;                /* 201 */
    uint32_t vps_poc_proportional_to_timing_flag; /* 202 */
    uint32_t vps_num_ticks_poc_diff_one;    /* 203: the coded minus-one value plus one */
    uint32_t vps_num_hrd_parameters;        /* 204 */
    uint32_t cprms_present_flag;            /* 205: of the last HRD entry (entry 0: 1) */
    uint32_t hrd_layer_set_idx;             /* 206: of the last HRD entry */
    uint32_t reserved207;                   /* 207 */
    uint32_t vps_extension_flag;            /* 208 */
    uint32_t reserved209;                   /* 209 */
} HevcVpsRecord;

/* st_ref_pic_set(): 101 words. A predicted set (inter_ref_pic_set_prediction_flag)
   keeps only its flag, delta_rps_sign, abs_delta_rps_minus1 and the flag
   pairs; use_delta_flag[j] is written only where used_by_curr_pic_flag[j]
   is 0. */
typedef struct HevcShortTermRefPicSet {
    uint32_t num_negative_pics;                 /* 0 */
    uint32_t num_positive_pics;                 /* 1 */
    uint32_t inter_ref_pic_set_prediction_flag; /* 2 */
    uint32_t delta_poc_s0_minus1[16];           /* 3 */
    uint32_t used_by_curr_pic_s0_flag[16];      /* 19 */
    uint32_t delta_poc_s1_minus1[16];           /* 35 */
    uint32_t used_by_curr_pic_s1_flag[16];      /* 51 */
    uint32_t delta_rps_sign;                    /* 67 */
    uint32_t abs_delta_rps_minus1;              /* 68 */
    uint32_t used_by_curr_pic_flag[16];         /* 69 */
    uint32_t use_delta_flag[16];                /* 85 */
} HevcShortTermRefPicSet;

typedef struct HevcLongTermRefPicSps {
    uint32_t lt_ref_pic_poc_lsb_sps;
    uint32_t used_by_curr_pic_lt_sps_flag;
} HevcLongTermRefPicSps;

/* seq_parameter_set_rbsp(): 7008 words. */
typedef struct HevcSpsRecord {
    uint32_t sps_video_parameter_set_id;    /* 0 */
    uint32_t sps_max_sub_layers_minus1;     /* 1 */
    uint32_t sps_temporal_id_nesting_flag;  /* 2 */
    HevcProfileTierLevel ptl;               /* 3-190 */
    uint32_t sps_seq_parameter_set_id;      /* 191 */
    uint32_t chroma_format_idc;             /* 192 */
    uint32_t separate_colour_plane_flag;    /* 193 */
    uint32_t pic_width_in_luma_samples;     /* 194 */
    uint32_t pic_height_in_luma_samples;    /* 195 */
    uint32_t conformance_window_flag;       /* 196 */
    uint32_t conf_win_left_offset;          /* 197 */
    uint32_t conf_win_right_offset;
    uint32_t conf_win_top_offset;
    uint32_t conf_win_bottom_offset;
    uint32_t bit_depth_luma_minus8;         /* 201 */
    uint32_t bit_depth_chroma_minus8;       /* 202 */
    uint32_t log2_max_pic_order_cnt_lsb_minus4; /* 203 */
    uint32_t sps_sub_layer_ordering_info_present_flag; /* 204 */
    /* 205-237: every sub-layer read stores into entry 0, which ends up with
       the highest sub-layer's values; entries 1-15 are never written. */
    uint32_t sps_max_dec_pic_buffering_minus1[16]; /* 205 */
    uint32_t sps_max_num_reorder_pics[16];         /* 221 */
    uint32_t sps_max_latency_increase_plus1;       /* 237 */
    uint32_t log2_min_luma_coding_block_size_minus3;      /* 238 */
    uint32_t log2_diff_max_min_luma_coding_block_size;
    uint32_t log2_min_luma_transform_block_size_minus2;
    uint32_t log2_diff_max_min_luma_transform_block_size;
    uint32_t max_transform_hierarchy_depth_inter;
    uint32_t max_transform_hierarchy_depth_intra;         /* 243 */
    uint32_t scaling_list_enabled_flag;           /* 244 */
    uint32_t sps_scaling_list_data_present_flag;  /* 245 */
    /* 246-248: scratch of scaling_list_data(): the last values read */
    uint32_t scaling_list_pred_matrix_id_delta;
    uint32_t scaling_list_dc_coef_minus8;
    uint32_t scaling_list_delta_coef;
    uint32_t reserved249;
    uint32_t amp_enabled_flag;                    /* 250 */
    uint32_t sample_adaptive_offset_enabled_flag; /* 251 */
    uint32_t pcm_enabled_flag;                    /* 252 */
    uint32_t pcm_sample_bit_depth_luma_minus1;    /* 253 */
    uint32_t pcm_sample_bit_depth_chroma_minus1;  /* 254 */
    uint32_t log2_min_pcm_luma_coding_block_size_minus3;  /* 255 */
    uint32_t log2_diff_max_min_pcm_luma_coding_block_size; /* 256 */
    uint32_t pcm_loop_filter_disabled_flag;       /* 257 */
    uint32_t num_short_term_ref_pic_sets;         /* 258: at most 64 */
    HevcShortTermRefPicSet st_ref_pic_set[64];    /* 259-6722 */
    uint32_t long_term_ref_pics_present_flag;     /* 6723 */
    uint32_t num_long_term_ref_pics_sps;          /* 6724 */
    HevcLongTermRefPicSps lt_ref_pic_sps[64];     /* 6725-6852 */
    uint32_t sps_temporal_mvp_enabled_flag;       /* 6853 */
    uint32_t strong_intra_smoothing_enabled_flag; /* 6854 */
    uint32_t vui_parameters_present_flag;         /* 6855 */
    uint32_t aspect_ratio_info_present_flag;      /* 6856 */
    uint32_t aspect_ratio_idc;
    uint32_t sar_width;
    uint32_t sar_height;
    uint32_t overscan_info_present_flag;          /* 6860 */
    uint32_t overscan_appropriate_flag;
    uint32_t video_signal_type_present_flag;      /* 6862 */
    uint32_t video_format;
    uint32_t video_full_range_flag;
    uint32_t colour_description_present_flag;
    uint32_t colour_primaries;
    uint32_t transfer_characteristics;
    uint32_t matrix_coeffs;                       /* 6868 */
    uint32_t chroma_loc_info_present_flag;        /* 6869 */
    uint32_t chroma_sample_loc_type_top_field;
    uint32_t chroma_sample_loc_type_bottom_field;
    uint32_t neutral_chroma_indication_flag;      /* 6872 */
    uint32_t field_seq_flag;                      /* 6873 */
    uint32_t frame_field_info_present_flag;       /* 6874 */
    uint32_t default_display_window_flag;         /* 6875 */
    uint32_t def_disp_win_left_offset;
    uint32_t def_disp_win_right_offset;
    uint32_t def_disp_win_top_offset;
    uint32_t def_disp_win_bottom_offset;
    uint32_t vui_timing_info_present_flag;        /* 6880 */
    uint32_t vui_num_units_in_tick;
    uint32_t vui_time_scale;
    uint32_t vui_poc_proportional_to_timing_flag;
    uint32_t vui_num_ticks_poc_diff_one_minus1;
    uint32_t vui_hrd_parameters_present_flag;     /* 6885 */
    uint32_t nal_hrd_parameters_present_flag;     /* 6886 */
    uint32_t vcl_hrd_parameters_present_flag;
    uint32_t sub_pic_hrd_params_present_flag;
    uint32_t tick_divisor_minus2;                 /* 6889 */
    uint32_t du_cpb_removal_delay_increment_length_minus1;
    uint32_t sub_pic_cpb_params_in_pic_timing_sei_flag;
    uint32_t dpb_output_delay_du_length_minus1;
    uint32_t bit_rate_scale;                      /* 6893 */
    uint32_t cpb_size_scale;
    uint32_t cpb_size_du_scale;
    uint32_t initial_cpb_removal_delay_length_minus1; /* 6896 */
    uint32_t au_cpb_removal_delay_length_minus1;
    uint32_t dpb_output_delay_length_minus1;
    uint32_t fixed_pic_rate_general_flag[16];     /* 6899 */
    uint32_t fixed_pic_rate_within_cvs_flag[16];  /* 6915 */
    uint32_t reserved6931[16];                    /* 6931 */
    uint32_t low_delay_hrd_flag[16];              /* 6947 */
    uint32_t cpb_cnt_minus1[16];                  /* 6963 */
    uint32_t bit_rate_value_minus1;               /* 6979: of the last entry read */
    uint32_t cpb_size_value_minus1;               /* 6980 */
    uint32_t reserved6981[2];
    uint32_t cbr_flag;                            /* 6983 */
    uint32_t bitstream_restriction_flag;          /* 6984 */
    uint32_t tiles_fixed_structure_flag;
    uint32_t motion_vectors_over_pic_boundaries_flag;
    uint32_t restricted_ref_pic_lists_flag;
    uint32_t min_spatial_segmentation_idc;
    uint32_t max_bytes_per_pic_denom;
    uint32_t max_bits_per_min_cu_denom;
    uint32_t log2_max_mv_length_horizontal;
    uint32_t log2_max_mv_length_vertical;         /* 6992 */
    uint32_t sps_extension_present_flag;          /* 6993 */
    uint32_t sps_range_extension_flag;            /* 6994 */
    uint32_t sps_multilayer_extension_flag;
    uint32_t sps_3d_extension_flag;
    uint32_t sps_scc_extension_flag;              /* 6997 */
    uint32_t transform_skip_rotation_enabled_flag; /* 6998 */
    uint32_t transform_skip_context_enabled_flag;
    uint32_t implicit_rdpcm_enabled_flag;
    uint32_t explicit_rdpcm_enabled_flag;
    uint32_t extended_precision_processing_flag;
    uint32_t intra_smoothing_disabled_flag;
    uint32_t high_precision_offsets_enabled_flag;
    uint32_t persistent_rice_adaptation_enabled_flag;
    uint32_t cabac_bypass_alignment_enabled_flag; /* 7006 */
    uint32_t inter_view_mv_vert_constraint_flag;  /* 7007 */
} HevcSpsRecord;

/* pic_parameter_set_rbsp() up to pps_extension_present_flag: 39 words. */
typedef struct HevcPpsRecord {
    uint32_t pps_pic_parameter_set_id;            /* 0 */
    uint32_t pps_seq_parameter_set_id;
    uint32_t dependent_slice_segments_enabled_flag;
    uint32_t output_flag_present_flag;
    uint32_t num_extra_slice_header_bits;
    uint32_t sign_data_hiding_enabled_flag;
    uint32_t cabac_init_present_flag;
    uint32_t num_ref_idx_l0_default_active_minus1;
    uint32_t num_ref_idx_l1_default_active_minus1;
    uint32_t init_qp_minus26;                     /* 9 (signed) */
    uint32_t constrained_intra_pred_flag;
    uint32_t transform_skip_enabled_flag;
    uint32_t cu_qp_delta_enabled_flag;
    uint32_t diff_cu_qp_delta_depth;
    uint32_t pps_cb_qp_offset;                    /* 14 (signed) */
    uint32_t pps_cr_qp_offset;                    /* 15 (signed) */
    uint32_t pps_slice_chroma_qp_offsets_present_flag;
    uint32_t weighted_pred_flag;
    uint32_t weighted_bipred_flag;
    uint32_t transquant_bypass_enabled_flag;
    uint32_t tiles_enabled_flag;                  /* 20 */
    uint32_t entropy_coding_sync_enabled_flag;    /* 21 */
    uint32_t num_tile_columns_minus1;             /* 22 */
    uint32_t num_tile_rows_minus1;
    uint32_t uniform_spacing_flag;
    uint32_t column_width_minus1;                 /* 25: of the last column read */
    uint32_t row_height_minus1;                   /* 26: of the last row read */
    uint32_t loop_filter_across_tiles_enabled_flag;
    uint32_t pps_loop_filter_across_slices_enabled_flag;
    uint32_t deblocking_filter_control_present_flag;
    uint32_t deblocking_filter_override_enabled_flag;
    uint32_t pps_deblocking_filter_disabled_flag;
    uint32_t pps_beta_offset_div2;                /* 32 (signed) */
    uint32_t pps_tc_offset_div2;                  /* 33 (signed) */
    uint32_t pps_scaling_list_data_present_flag;  /* 34 */
    uint32_t lists_modification_present_flag;
    uint32_t log2_parallel_merge_level_minus2;
    uint32_t slice_segment_header_extension_present_flag;
    uint32_t pps_extension_present_flag;          /* 38 */
} HevcPpsRecord;

/* The HEVC decoder configuration record ('hvcC' payload): 20 words. */
typedef struct HevcConfigRecord {
    uint32_t configurationVersion;                /* 0 */
    uint32_t general_profile_space;
    uint32_t general_tier_flag;
    uint32_t general_profile_idc;
    uint32_t general_profile_compatibility_flags; /* 4 */
    uint32_t reserved5;
    uint32_t general_constraint_indicator_flags_lo; /* 6: 48 bits, word 6 the low half */
    uint32_t general_constraint_indicator_flags_hi; /* 7 */
    uint32_t general_level_idc;                   /* 8 */
    uint32_t min_spatial_segmentation_idc;        /* 9 */
    uint32_t parallelismType;                     /* 10 */
    uint32_t chromaFormat;
    uint32_t bitDepthLumaMinus8;
    uint32_t bitDepthChromaMinus8;
    uint32_t avgFrameRate;                        /* 14 */
    uint32_t constantFrameRate;
    uint32_t numTemporalLayers;
    uint32_t temporalIdNested;
    uint32_t lengthSizeMinusOne;
    uint32_t numOfArrays;                         /* 19: as the caller sets it */
} HevcConfigRecord;

QNV_STATIC_ASSERT(sizeof(HevcProfileTierLevel) == 188 * 4, "HevcProfileTierLevel layout");
QNV_STATIC_ASSERT(offsetof(HevcProfileTierLevel, general_level_idc) == 11 * 4, "HevcProfileTierLevel layout");
QNV_STATIC_ASSERT(offsetof(HevcProfileTierLevel, sub_layer_profile_compatibility_flags) == 92 * 4,
                  "HevcProfileTierLevel layout");
QNV_STATIC_ASSERT(offsetof(HevcProfileTierLevel, sub_layer_level_idc) == 172 * 4, "HevcProfileTierLevel layout");
QNV_STATIC_ASSERT(sizeof(HevcVpsRecord) == 210 * 4, "HevcVpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcVpsRecord, ptl) == 5 * 4, "HevcVpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcVpsRecord, vps_sub_layer_ordering_info_present_flag) == 193 * 4, "HevcVpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcVpsRecord, vps_num_ticks_poc_diff_one) == 203 * 4, "HevcVpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcVpsRecord, vps_extension_flag) == 208 * 4, "HevcVpsRecord layout");
QNV_STATIC_ASSERT(sizeof(HevcShortTermRefPicSet) == 101 * 4, "HevcShortTermRefPicSet layout");
QNV_STATIC_ASSERT(offsetof(HevcShortTermRefPicSet, delta_rps_sign) == 67 * 4, "HevcShortTermRefPicSet layout");
QNV_STATIC_ASSERT(offsetof(HevcShortTermRefPicSet, use_delta_flag) == 85 * 4, "HevcShortTermRefPicSet layout");
QNV_STATIC_ASSERT(sizeof(HevcSpsRecord) == 7008 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, ptl) == 3 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, sps_seq_parameter_set_id) == 191 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, sps_max_latency_increase_plus1) == 237 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, amp_enabled_flag) == 250 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, st_ref_pic_set) == 259 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, long_term_ref_pics_present_flag) == 6723 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, sps_temporal_mvp_enabled_flag) == 6853 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, matrix_coeffs) == 6868 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, vui_hrd_parameters_present_flag) == 6885 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, fixed_pic_rate_general_flag) == 6899 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, low_delay_hrd_flag) == 6947 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, cbr_flag) == 6983 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, sps_extension_present_flag) == 6993 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcSpsRecord, transform_skip_rotation_enabled_flag) == 6998 * 4, "HevcSpsRecord layout");
QNV_STATIC_ASSERT(sizeof(HevcPpsRecord) == 39 * 4, "HevcPpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcPpsRecord, tiles_enabled_flag) == 20 * 4, "HevcPpsRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcPpsRecord, pps_beta_offset_div2) == 32 * 4, "HevcPpsRecord layout");
QNV_STATIC_ASSERT(sizeof(HevcConfigRecord) == 20 * 4, "HevcConfigRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcConfigRecord, general_level_idc) == 8 * 4, "HevcConfigRecord layout");
QNV_STATIC_ASSERT(offsetof(HevcConfigRecord, avgFrameRate) == 14 * 4, "HevcConfigRecord layout");

/* ---- Parameter set readers and writers --------------------------------------- */

QNV_API uint32_t qnvutilRead_HEVC_VPS(BitBuffer* reader, HevcVpsRecord* record, HevcConfigRecord* config,
                                      uint32_t bitLength);
QNV_API uint32_t qnvutilRead_HEVC_SPS(BitBuffer* reader, HevcSpsRecord* record, HevcConfigRecord* config,
                                      uint32_t bitLength);
QNV_API uint32_t qnvutilRead_HEVC_PPS(BitBuffer* reader, HevcPpsRecord* record, HevcConfigRecord* config,
                                      uint32_t bitLength);

/* Largest unit the writers produce; a record whose unit would be longer is
   refused (result 0, nothing written). Units written from the records of
   real streams are tens to a few hundred bytes. */
#define QNV_HEVC_PS_MAX_BYTES 65536u

/* The writers serialise a record as one complete NAL unit at `destination`:
   the two-byte NAL unit header (layer 0, temporal id 0), the RBSP, trailing
   bits, emulation-prevention bytes; no start code or length prefix. Result:
   the unit's length in bytes (0 for a null argument or a refused record).
   `destination` needs room for QNV_HEVC_PS_MAX_BYTES bytes.

   The unit reads back with the matching reader to the same record. Where
   the record keeps everything the source unit carried, write(read(unit)) is
   the source unit byte for byte. Otherwise (see the list at the top of this
   header) a kept scalar stands for every entry it replaced, and structures
   that are not kept are written in their smallest valid form: hrd_parameters()
   of the VPS without NAL or VCL tables; layer sets holding layer 0 only; a
   scaling_list_data() that selects the default lists (the three scratch
   words are not reproduced); elemental_duration_in_tc_minus1 and the
   sub-picture DU values as 0; the 3D and SCC extensions and PPS extension
   flags as zeros; the sub-layer profile bits beyond the kept flags as zeros;
   delta_idx_minus1 of a predicted short-term set as 0. A VPS's
   sub_layer_level_present_flag[i] is written as entry 0's, the one flag its
   reader consults. Two things are written as the readers read them although
   a decoder reads them otherwise: a predicted short-term set (the readers
   read one flag pair fewer than the standard) and a PPS whose
   pps_scaling_list_data_present_flag is set (written without lists).

   Signed PPS fields are written as standard se(v) codes.

   For re-flagging a stream (field_seq_flag, pic_struct SEI): read the VPS
   and SPS, edit the named words (the four general source/constraint flags in
   words 4-7 of the profile block are enough, the 48-bit copy in words 9-10
   need not be touched), set vui_parameters_present_flag when adding VUI
   fields, and write; fields of absent branches may be set freely, as the
   writer writes only what the flags of the record select. */
QNV_API uint32_t qnvutilWrite_HEVC_VPS(const HevcVpsRecord* record, uint8_t* destination);
QNV_API uint32_t qnvutilWrite_HEVC_SPS(const HevcSpsRecord* record, uint8_t* destination);
QNV_API uint32_t qnvutilWrite_HEVC_PPS(const HevcPpsRecord* record, uint8_t* destination);

/* ---- Decoder configuration record ---------------------------------------------- */

/* Reads an 'hvcC' box: `reader` covers the whole box with bitPos at its size
   field. Fills `config` and parses the first VPS, SPS and PPS it carries into
   the records that are given (each may be null; clear them first). Result:
   byte position of the end of the last unit taken into account, 0 when
   config is null, the buffer is empty or the record holds no arrays, and
   0xFFFFFFFF on a fatal failure. */
QNV_API uint32_t qnvutilRead_HEVC_CR(BitBuffer* reader, HevcConfigRecord* config, HevcVpsRecord* vps,
                                     HevcSpsRecord* sps, HevcPpsRecord* pps);
/* Writes the record (no box header) at the output's bitPos: the 23-byte
   header from `config` (none when null), then one array for each unit whose
   size is above 0, in the order VPS, SPS, PPS. numOfArrays is written as
   config holds it. Units are passed without start code. Result: the output's
   bitPos / 8. */
QNV_API uint32_t qnvutilWrite_HEVC_CR(BitBuffer* out, HevcConfigRecord* config, uint8_t* vpsNal,
                                      uint8_t* spsNal, uint8_t* ppsNal, int32_t vpsSize, int32_t spsSize,
                                      int32_t ppsSize);
/* Kept for compatibility: does nothing and returns 0xFFFFFFFF. */
QNV_API uint32_t qnvutilGetHvcc(void);

/* ---- Frame scan ------------------------------------------------------------------ */

/* Bits of HevcFrameContext.found. */
#define HEVC_FOUND_VPS 0x01u
#define HEVC_FOUND_SPS 0x02u
#define HEVC_FOUND_PPS 0x04u
#define HEVC_FOUND_VCL 0x08u          /* a slice segment (types 0-31) */
#define HEVC_FOUND_IRAP 0x10u         /* a slice of an IRAP picture (types 16-23) */
#define HEVC_FOUND_PIC_TIMING 0x20u   /* pic_timing SEI, fields below */
#define HEVC_FOUND_CAPTIONS 0x40u     /* T.35 SEI carrying CEA-708 captions ("GA94", type 3) */
#define HEVC_FOUND_RECOVERY 0x80u     /* recovery_point SEI, fields below */

/* One Annex B frame and what qnvutilFindNalUnitsHevc found in it. The caller
   sets data and size; the scan sets every other field (zero when not found). */
typedef struct HevcFrameContext {
    const uint8_t* data;  /* the frame: start-code-delimited NAL units */
    uint32_t size;        /* bytes at data */
    uint32_t found;       /* HEVC_FOUND_* bits */
    uint32_t firstVclOffset; /* offset of the first slice segment's NAL header */
    /* pic_timing of the first prefix SEI that carries one. pic_struct,
       source_scan_type and duplicate_flag are present when the SPS parsed so
       far has frame_field_info_present_flag; the two delays when it has
       vui_hrd_parameters_present_flag with NAL or VCL HRD parameters. */
    uint32_t picStruct;
    uint32_t sourceScanType;
    uint32_t duplicateFlag;
    uint32_t auCpbRemovalDelayMinus1;
    uint32_t picDpbOutputDelay;
    /* recovery_point of the first SEI that carries one */
    int32_t recoveryPocCnt;
    uint32_t exactMatchFlag;
    uint32_t brokenLinkFlag;
    /* cc_count of the first caption SEI */
    uint32_t captionCount;
} HevcFrameContext;

/* Walks the frame's NAL units. Every VPS, SPS and PPS is parsed into the
   matching record (those given; a later set of a kind overwrites an earlier
   one) and, when an output buffer is given, copied there (NAL header first,
   no start code). Each *...Size is in-out: the buffer's capacity on entry,
   the copied unit's length on return (0 when none was found; a unit longer
   than the capacity is not copied and leaves its size at 0). The first 1024
   bytes of each prefix SEI unit are unescaped and their pic_timing (type 1),
   T.35 caption (type 4) and recovery_point (type 6) payloads noted in the
   context; other SEI payloads are skipped. Every unit, end of sequence and
   bitstream, filler data and suffix SEI included, is stepped over to the
   next start code. Each parse merges into a configuration record of the
   scan's own; the caller's records are not cleared first. Result: the number
   of NAL units walked (0 when frame is null). */
QNV_API uint32_t qnvutilFindNalUnitsHevc(HevcFrameContext* frame, HevcVpsRecord* vps, HevcSpsRecord* sps,
                                         HevcPpsRecord* pps, uint8_t* vpsOut, uint32_t* vpsOutSize,
                                         uint8_t* spsOut, uint32_t* spsOutSize, uint8_t* ppsOut,
                                         uint32_t* ppsOutSize);

/* ---- Field pairs ----------------------------------------------------------------- */

/* DFrame.frameFlags: with both bits set the frame holds two coded fields, the
   second one's NAL units beginning at secondFieldOffset. */
#define HEVC_FRAME_FIRST_FIELD 0x20000u
#define HEVC_FRAME_SECOND_FIELD 0x40000u

/* Results of qnvutilSetFrameInterlaced. */
#define HEVC_INTERLACE_OK 0u
/* A record or a buffer is missing, the source's frameSize exceeds its
   frameCapacity, the source and destination buffers overlap, or memory for
   the work records is short: nothing is read or written. */
#define HEVC_INTERLACE_BAD_ARGUMENT 0xFFFFFFFFu
/* Done, but a parameter set that did not parse was copied as it stands. */
#define HEVC_INTERLACE_PS_COPIED 0xFFFFFFFEu
/* The frame did not fit in the destination's frameCapacity. */
#define HEVC_INTERLACE_NO_ROOM 0xFFFFFF9Au /* -102 */

/* Copies the HEVC frame `source` (Annex B, start codes) into `destination`
   and, when the source's frameFlags has both field bits, re-flags it as a
   pair of field pictures:
    - every VPS, SPS and PPS is parsed and written anew from its record
      behind a start code of its source length; in a field pair a VPS or SPS
      whose general_progressive_source_flag is 1 is marked interlaced
      (progressive 0, interlaced 1, non-packed and frame-only constraints 0),
      and such an SPS also gets a 1:2 sample aspect ratio (Extended_SAR),
      field_seq_flag and frame_field_info_present_flag 1, no VUI HRD
      parameters, vui_parameters_present_flag 1, au_cpb_removal_delay and
      dpb_output_delay lengths minus 1 of 1, and, when it is 1920x544 without
      a conformance window, a window cropping 4 lines at the bottom (the
      1920x540 field of a 1080-line frame);
    - `sps` (optional; no unit is written from it), for a field pair, is
      edited in place the same way except that the two delay lengths minus 1
      are set to 0 and its vui_parameters_present_flag is left as it is;
    - in a field pair, each field's first slice is preceded by a pic_timing
      SEI (its own NAL unit, 00 00 00 01 first) with pic_struct 11 (top field,
      paired with the next bottom field) for the first field and 10 (bottom
      field, paired with the previous top field) for the second,
      source_scan_type 0 (interlaced), duplicate_flag 0 and no HRD delays,
      which suits the SPS that the function writes; and the source's
      buffering_period, pic_timing and decoding_unit_info messages, coded for
      the source SPS, are taken out of its prefix SEI units (a unit left
      without messages is dropped). When the frame carries an SPS that was
      not re-flagged (it already said interlaced) and whose pic_timing has
      other fields (HRD delays, or no frame_field_info_present_flag), the
      source's SEI stay and none is added. No other SEI is added.
   Units of other types are copied as they stand. Units keep their order and
   their start code length; bytes outside units (before the first start code,
   extra zero bytes, a remainder of under 4 bytes) are not copied. The second
   field begins with the first unit whose NAL header lies at or after
   secondFieldOffset.
   destination->frameSize is the length written. The function reads only
   source->frameData[0, frameSize) and writes only destination->frameData
   [0, frameCapacity): allow the source size plus 64 bytes per parameter set
   and 10 per field. It allocates one block for its six parameter-set
   records (about 58 KB) per call.
   Result: HEVC_INTERLACE_OK or _PS_COPIED; _BAD_ARGUMENT and _NO_ROOM leave
   destination->frameSize 0 (after _NO_ROOM the bytes of frameData are
   unspecified). Failures are reported through ErrOut. */
QNV_API uint32_t qnvutilSetFrameInterlaced(const DFrame* source, DFrame* destination, HevcSpsRecord* sps);

QNV_END_C

#endif
