/*
 * H.264 stream utilities: NAL unit framing (Annex B start codes and 4-byte
 * big-endian length prefixes), NAL unit search, and the sequence and picture
 * parameter set readers.
 *
 * Parameter-set records are flat arrays of 32-bit integers, one per syntax
 * element, named after the syntax elements of ITU-T H.264. The caller clears
 * a record before parsing: the readers write only the elements that the
 * stream carries (plus the defaults named below) and never clear a record.
 * Fields read past the end of the data hold the bit reader's past-end
 * values: -1 for fixed-length fields.
 *
 * Where a record deliberately differs from the standard's value:
 *  - chroma_format_idc = 1 and bit_depth_luma_minus8 = bit_depth_chroma_minus8
 *    = 8 (not 0) are written for every profile_idc outside 44, 83, 86, 100,
 *    110, 118, 122, 128, 244 (134, 135, 138, 139 included), whose chroma and
 *    bit-depth block is then not read;
 *  - offset_for_non_ref_pic and offset_for_top_to_bottom_field hold the ue(v)
 *    code number, not the se(v) value (-1 is stored as 2);
 *  - offset_for_ref_frame holds only the last offset of the cycle;
 *  - HrdParameters.cpb_cnt_minus1 is stored as at most 7 (eight schedules are
 *    read, the rest of such a stream is not);
 *  - the PPS reader reads one top_left/bottom_right pair more than the
 *    standard (num_slice_groups_minus1 + 1 pairs) for slice_group_map_type 2,
 *    and drops a 0x0C byte after 00 00 as if it were an emulation prevention
 *    byte;
 *  - a scaling list whose present flag is 0 keeps the caller's values (no
 *    fall-back rule), and the UseDefaultScalingMatrix flags are never written;
 *  - H264PpsRecord.moreData is 1 when one of the seven bits after the next one
 *    is set (instead of the standard's more_rbsp_data()).
 */
#ifndef QNVUTIL_H264_H
#define QNVUTIL_H264_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/bitbuffer.h"
#include "qnvutil/dframe.h"
#include "qnvutil/export.h"

QNV_BEGIN_C

/* ---- Framing and search ---------------------------------------------------- */

/* Rewrites an Annex B frame in place with a 4-byte big-endian length in
   front of every NAL unit; three-byte start codes are widened, so the buffer
   needs one spare byte after the data for each of them. Bytes in front of
   the first start code keep no length; a frame without any start code gets
   size - 4 over its first four bytes. Returns the new byte count. */
QNV_API uint32_t qnvUtilh264MarkerToSize(uint8_t* data, uint32_t size);
/* As qnvUtilh264MarkerToSize, but returns 0xFFFFFFFF and leaves the frame
   untouched when the converted frame would not fit in `capacity` bytes. */
QNV_API uint32_t qnvUtilh264MarkerToSizeChecked(uint8_t* data, uint32_t size, uint32_t capacity);
/* Rewrites a length-prefixed frame in place with 00 00 00 01 in front of
   every unit. A frame already starting with 00 00 00 01 is left alone. A zero
   length ends the frame (its offset is returned as the new size); a length
   running past the end stops the conversion (size is returned). */
QNV_API uint32_t qnvUtilh264SizeToMarker(uint8_t* data, uint32_t size);
/* Finds the first NAL unit whose header byte equals headerByte. startCodes
   non-zero: Annex B framing (with a deliberately loose scan that stops at any
   zero byte); zero: 4-byte length prefixes. *found receives the unit's prefix
   slot, *foundSize the bytes up to the next unit's slot (prefix included).
   Returns 1 when found with a non-zero size, else 0. With data null or size
   below 4 the outputs are not written. */
QNV_API int32_t qnvUtilFindSpecificNAL(const uint8_t* data, uint32_t size, int32_t startCodes, uint8_t headerByte,
                                       const uint8_t** found, uint32_t* foundSize);

/* ---- Parameter set records ------------------------------------------------- */

/* One CPB schedule of hrd_parameters(). */
typedef struct HrdSchedule {
    int32_t bit_rate_value_minus1;
    int32_t cpb_size_value_minus1;
    int32_t cbr_flag;
} HrdSchedule;

typedef struct HrdParameters {
    int32_t cpb_cnt_minus1; /* stored as at most 7 */
    int32_t bit_rate_scale;
    int32_t cpb_size_scale;
    HrdSchedule schedule[8];
    int32_t initial_cpb_removal_delay_length_minus1;
    int32_t cpb_removal_delay_length_minus1;
    int32_t dpb_output_delay_length_minus1;
    int32_t time_offset_length;
} HrdParameters;

typedef struct H264SpsRecord {
    int32_t forbidden_zero_bit;
    int32_t nal_ref_idc;
    int32_t nal_unit_type;
    int32_t profile_idc;
    int32_t constraint_set0_flag;
    int32_t constraint_set1_flag;
    int32_t constraint_set2_flag;
    int32_t constraint_set3_flag;
    int32_t constraint_set4_flag;
    int32_t constraint_set5_flag;
    int32_t reserved_zero_2bits;
    int32_t level_idc;
    int32_t seq_parameter_set_id;
    int32_t chroma_format_idc; /* 1 when the profile has no chroma block */
    int32_t seq_scaling_list_present_flag[12];
    int32_t ScalingList4x4[6][16];
    int32_t UseDefaultScalingMatrix4x4Flag[6]; /* never written */
    int32_t ScalingList8x8[6][64];
    int32_t UseDefaultScalingMatrix8x8Flag[6]; /* never written */
    int32_t separate_colour_plane_flag;
    int32_t bit_depth_luma_minus8;   /* 8 when the profile has no chroma block */
    int32_t bit_depth_chroma_minus8; /* 8 when the profile has no chroma block */
    int32_t qpprime_y_zero_transform_bypass_flag;
    int32_t seq_scaling_matrix_present_flag;
    int32_t log2_max_frame_num_minus4;
    int32_t pic_order_cnt_type;
    int32_t log2_max_pic_order_cnt_lsb_minus4;
    int32_t delta_pic_order_always_zero_flag;
    int32_t offset_for_non_ref_pic;         /* the ue(v) code number */
    int32_t offset_for_top_to_bottom_field; /* the ue(v) code number */
    int32_t num_ref_frames_in_pic_order_cnt_cycle;
    int32_t offset_for_ref_frame; /* the last one of the cycle */
    int32_t max_num_ref_frames;
    int32_t gaps_in_frame_num_value_allowed_flag;
    int32_t pic_width_in_mbs_minus1;
    int32_t pic_height_in_map_units_minus1;
    int32_t frame_mbs_only_flag;
    int32_t mb_adaptive_frame_field_flag;
    int32_t direct_8x8_inference_flag;
    int32_t frame_cropping_flag;
    int32_t frame_crop_left_offset;
    int32_t frame_crop_right_offset;
    int32_t frame_crop_top_offset;
    int32_t frame_crop_bottom_offset;
    int32_t vui_parameters_present_flag;
    int32_t aspect_ratio_info_present_flag;
    int32_t aspect_ratio_idc;
    int32_t sar_width;
    int32_t sar_height;
    int32_t overscan_info_present_flag;
    int32_t overscan_appropriate_flag;
    int32_t video_signal_type_present_flag;
    int32_t video_format;
    int32_t video_full_range_flag;
    int32_t colour_description_present_flag;
    int32_t colour_primaries;
    int32_t transfer_characteristics;
    int32_t matrix_coefficients;
    int32_t chroma_loc_info_present_flag;
    int32_t chroma_sample_loc_type_top_field;
    int32_t chroma_sample_loc_type_bottom_field;
    int32_t timing_info_present_flag;
    int32_t num_units_in_tick;
    int32_t time_scale;
    int32_t fixed_frame_rate_flag;
    int32_t nal_hrd_parameters_present_flag;
    int32_t vcl_hrd_parameters_present_flag;
    HrdParameters nal_hrd;
    HrdParameters vcl_hrd;
    int32_t low_delay_hrd_flag;
    int32_t pic_struct_present_flag;
    int32_t bitstream_restriction_flag;
    int32_t motion_vectors_over_pic_boundaries_flag;
    int32_t max_bytes_per_pic_denom;
    int32_t max_bits_per_mb_denom;
    int32_t log2_max_mv_length_horizontal;
    int32_t log2_max_mv_length_vertical;
    int32_t max_num_reorder_frames;
    int32_t max_dec_frame_buffering;
    int32_t rbsp_stop_one_bit;
} H264SpsRecord;

typedef struct H264PpsRecord {
    int32_t forbidden_zero_bit;
    int32_t nal_ref_idc;
    int32_t nal_unit_type;
    int32_t pic_parameter_set_id;
    int32_t seq_parameter_set_id;
    int32_t entropy_coding_mode_flag;
    int32_t bottom_field_pic_order_in_frame_present_flag;
    int32_t num_slice_groups_minus1;
    int32_t slice_group_map_type;
    int32_t run_length_minus1[8];
    int32_t top_left[8];
    int32_t bottom_right[8];
    int32_t slice_group_change_direction_flag;
    int32_t slice_group_change_rate_minus1;
    int32_t pic_size_in_map_units_minus1;
    int32_t slice_group_id[256];
    int32_t num_ref_idx_l0_default_active_minus1;
    int32_t num_ref_idx_l1_default_active_minus1;
    int32_t weighted_pred_flag;
    int32_t weighted_bipred_idc;
    int32_t pic_init_qp_minus26;
    int32_t pic_init_qs_minus26;
    int32_t chroma_qp_index_offset;
    int32_t deblocking_filter_control_present_flag;
    int32_t constrained_intra_pred_flag;
    int32_t redundant_pic_cnt_present_flag;
    int32_t moreData; /* 1 when the optional tail was read */
    int32_t transform_8x8_mode_flag;
    int32_t pic_scaling_matrix_present_flag;
    int32_t pic_scaling_list_present_flag[12];
    int32_t ScalingList4x4[6][16];
    int32_t UseDefaultScalingMatrix4x4Flag[6]; /* never written */
    int32_t ScalingList8x8[6][64];
    int32_t UseDefaultScalingMatrix8x8Flag[6]; /* never written */
    int32_t second_chroma_qp_index_offset;
    int32_t rbsp_stop_one_bit;
} H264PpsRecord;

QNV_STATIC_ASSERT(sizeof(HrdSchedule) == 3 * 4, "HrdSchedule layout");
QNV_STATIC_ASSERT(sizeof(HrdParameters) == 31 * 4, "HrdParameters layout");
QNV_STATIC_ASSERT(offsetof(HrdParameters, schedule) == 3 * 4, "HrdParameters layout");
QNV_STATIC_ASSERT(offsetof(HrdParameters, initial_cpb_removal_delay_length_minus1) == 27 * 4,
                  "HrdParameters layout");
QNV_STATIC_ASSERT(sizeof(H264SpsRecord) == 639 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, chroma_format_idc) == 13 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, ScalingList4x4) == 26 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, ScalingList8x8) == 128 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, separate_colour_plane_flag) == 518 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, frame_crop_left_offset) == 539 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, vui_parameters_present_flag) == 543 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, num_units_in_tick) == 561 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, nal_hrd) == 566 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, vcl_hrd) == 597 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, low_delay_hrd_flag) == 628 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264SpsRecord, max_dec_frame_buffering) == 637 * 4, "H264SpsRecord layout");
QNV_STATIC_ASSERT(sizeof(H264PpsRecord) == 811 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, run_length_minus1) == 9 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, slice_group_id) == 36 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, num_ref_idx_l0_default_active_minus1) == 292 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, moreData) == 302 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, ScalingList4x4) == 317 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, ScalingList8x8) == 419 * 4, "H264PpsRecord layout");
QNV_STATIC_ASSERT(offsetof(H264PpsRecord, second_chroma_qp_index_offset) == 809 * 4, "H264PpsRecord layout");

/* ---- Parameter set readers ------------------------------------------------- */

/* Parses the SPS NAL unit at bb->bitPos (header byte first, no start code or
   length, emulation prevention bytes still in) from the bb->sizeBytes bytes
   at bb->data, reading up to bb->sizeBits. Works on a private copy: bb->data
   is not changed and needs no spare byte. Returns the bytes consumed (the
   position after the final byte alignment, divided by 8), 0 when bb or sps
   is null or the buffer holds 0 bytes. bb->bitPos is left at that position. */
QNV_API uint32_t qnvutilRead_SPS(BitBuffer* bb, H264SpsRecord* sps);
/* As qnvutilRead_SPS for a PPS; 0 only when bb or pps is null. */
QNV_API uint32_t qnvutilRead_PPS(BitBuffer* bb, H264PpsRecord* pps);

/* ---- Parameter set writers (ITU-T H.264 7.3.2.1.1, 7.3.2.2, E.1) -------------- */

/* Largest unit the parameter set writers produce. */
#define QNV_H264_PS_MAX_BYTES 8192u

/* Write the record as one NAL unit at `destination`: the header byte from
   forbidden_zero_bit, nal_ref_idc and nal_unit_type, the RBSP with its
   trailing bits, and emulation prevention bytes; no start code or length.
   Returns the unit's length, or 0 when the record is null, destination is
   null, or an element lies outside the range H.264 allows it (a count that
   would pass the record's arrays among them). `destination` needs room for
   QNV_H264_PS_MAX_BYTES bytes.

   Units are written as the readers read them, so that reading a written unit
   gives back the same record and writing a read x264 unit gives back its
   bytes. Where the record keeps only part of a structure:
    - an SPS of a profile without the chroma block (see above) is written
      without it, whatever the record's chroma and bit-depth words hold;
    - offset_for_ref_frame is written for every entry of the cycle;
    - scaling lists are written as delta codes, the repeated tail of a list
      closed early by a zero next-scale when that is not longer;
    - slice_group_map_type 2 is written with num_slice_groups_minus1 + 1
      pairs, and a PPS whose bytes hold 00 00 0C does not read back (the
      reader drops the 0C);
    - the PPS tail (transform_8x8_mode_flag onwards) is written when moreData
      is 1;
    - an SPS two of whose first three bytes are zero (a zero header byte and
      profile_idc, or profile_idc 0 and a zero constraint byte) takes an
      emulation prevention byte before the fourth byte, where the reader
      does not look for one, so it does not read back;
    - the rbsp_stop_one_bit word is ignored: the stop bit is always 1. */
QNV_API uint32_t qnvutilWrite_SPS(const H264SpsRecord* sps, uint8_t* destination);
QNV_API uint32_t qnvutilWrite_PPS(const H264PpsRecord* pps, uint8_t* destination);

/* ---- Slice headers (ITU-T H.264 7.3.3, 7.3.3.1-7.3.3.3, 7.4.3) ---------------- */

#define QNV_H264_MAX_REFS 32         /* entries of a reference list (fields) */
#define QNV_H264_MAX_MODIFICATIONS 33 /* list modification operations, closing 3 included */
#define QNV_H264_MAX_MMCO 66          /* memory management operations, closing 0 included */

/* ref_pic_list_modification() of one list. */
typedef struct H264RefPicListModification {
    int32_t modification_of_pic_nums_idc[QNV_H264_MAX_MODIFICATIONS];
    int32_t abs_diff_pic_num_minus1[QNV_H264_MAX_MODIFICATIONS];
    int32_t long_term_pic_num[QNV_H264_MAX_MODIFICATIONS];
} H264RefPicListModification;

/* pred_weight_table(). */
typedef struct H264PredWeightTable {
    int32_t luma_log2_weight_denom;
    int32_t chroma_log2_weight_denom;
    int32_t luma_weight_l0_flag[QNV_H264_MAX_REFS];
    int32_t luma_weight_l0[QNV_H264_MAX_REFS];
    int32_t luma_offset_l0[QNV_H264_MAX_REFS];
    int32_t chroma_weight_l0_flag[QNV_H264_MAX_REFS];
    int32_t chroma_weight_l0[QNV_H264_MAX_REFS][2];
    int32_t chroma_offset_l0[QNV_H264_MAX_REFS][2];
    int32_t luma_weight_l1_flag[QNV_H264_MAX_REFS];
    int32_t luma_weight_l1[QNV_H264_MAX_REFS];
    int32_t luma_offset_l1[QNV_H264_MAX_REFS];
    int32_t chroma_weight_l1_flag[QNV_H264_MAX_REFS];
    int32_t chroma_weight_l1[QNV_H264_MAX_REFS][2];
    int32_t chroma_offset_l1[QNV_H264_MAX_REFS][2];
} H264PredWeightTable;

/* dec_ref_pic_marking(). */
typedef struct H264DecRefPicMarking {
    int32_t no_output_of_prior_pics_flag;
    int32_t long_term_reference_flag;
    int32_t adaptive_ref_pic_marking_mode_flag;
    int32_t memory_management_control_operation[QNV_H264_MAX_MMCO];
    int32_t difference_of_pic_nums_minus1[QNV_H264_MAX_MMCO];
    int32_t long_term_pic_num[QNV_H264_MAX_MMCO];
    int32_t long_term_frame_idx[QNV_H264_MAX_MMCO];
    int32_t max_long_term_frame_idx_plus1[QNV_H264_MAX_MMCO];
} H264DecRefPicMarking;

/* slice_header() of a coded slice (nal_unit_type 1 or 5), one word per
   element, the NAL header first as in the parameter set records. The reader
   clears the record, so elements a slice does not carry read as 0, and it
   derives the last word: header_bits, the bit position of slice_data() in
   the unit without emulation prevention bytes, counted from the NAL header
   (the CABAC alignment bits are part of slice_data()). */
typedef struct H264SliceHeader {
    int32_t forbidden_zero_bit;
    int32_t nal_ref_idc;
    int32_t nal_unit_type;
    int32_t first_mb_in_slice;
    int32_t slice_type;
    int32_t pic_parameter_set_id;
    int32_t colour_plane_id;
    int32_t frame_num;
    int32_t field_pic_flag;
    int32_t bottom_field_flag;
    int32_t idr_pic_id;
    int32_t pic_order_cnt_lsb;
    int32_t delta_pic_order_cnt_bottom;
    int32_t delta_pic_order_cnt[2];
    int32_t redundant_pic_cnt;
    int32_t direct_spatial_mv_pred_flag;
    int32_t num_ref_idx_active_override_flag;
    int32_t num_ref_idx_l0_active_minus1;
    int32_t num_ref_idx_l1_active_minus1;
    int32_t ref_pic_list_modification_flag_l0;
    int32_t ref_pic_list_modification_flag_l1;
    H264RefPicListModification ref_pic_list_modification[2];
    H264PredWeightTable pred_weight_table;
    H264DecRefPicMarking dec_ref_pic_marking;
    int32_t cabac_init_idc;
    int32_t slice_qp_delta;
    int32_t sp_for_switch_flag;
    int32_t slice_qs_delta;
    int32_t disable_deblocking_filter_idc;
    int32_t slice_alpha_c0_offset_div2;
    int32_t slice_beta_offset_div2;
    int32_t slice_group_change_cycle;
    int32_t header_bits;
} H264SliceHeader;

QNV_STATIC_ASSERT(sizeof(H264RefPicListModification) == 99 * 4, "H264RefPicListModification layout");
QNV_STATIC_ASSERT(sizeof(H264PredWeightTable) == 514 * 4, "H264PredWeightTable layout");
QNV_STATIC_ASSERT(sizeof(H264DecRefPicMarking) == 333 * 4, "H264DecRefPicMarking layout");
QNV_STATIC_ASSERT(offsetof(H264SliceHeader, ref_pic_list_modification) == 22 * 4, "H264SliceHeader layout");
QNV_STATIC_ASSERT(offsetof(H264SliceHeader, pred_weight_table) == 220 * 4, "H264SliceHeader layout");
QNV_STATIC_ASSERT(offsetof(H264SliceHeader, dec_ref_pic_marking) == 734 * 4, "H264SliceHeader layout");
QNV_STATIC_ASSERT(offsetof(H264SliceHeader, cabac_init_idc) == 1067 * 4, "H264SliceHeader layout");
QNV_STATIC_ASSERT(sizeof(H264SliceHeader) == 1076 * 4, "H264SliceHeader layout");

/* Parses the slice header of the coded slice unit at bb->bitPos (NAL header
   first, emulation prevention bytes still in, bb->sizeBits the unit's end),
   with the active SPS and PPS, into `slice`, which it clears first. Returns
   header_bits, or 0xFFFFFFFF when an argument is null, the unit is not a
   coded slice (nal_unit_type 1 or 5), its pic_parameter_set_id or the PPS's
   seq_parameter_set_id does not match the records given, an element lies
   outside its range (a reference count or operation list that would pass
   the record's arrays among them), or the header runs past the unit's end.
   bb->bitPos is left unchanged. */
QNV_API uint32_t qnvutilRead_SliceHeader(BitBuffer* bb, const H264SpsRecord* sps, const H264PpsRecord* pps,
                                         H264SliceHeader* slice);

/* Writes the record's slice header as RBSP bits at out->bitPos (NAL header
   byte first, no emulation prevention: the caller escapes the whole unit),
   following the same conditions. Returns the bits written, or 0 when an
   argument is null or an element lies outside its range; out->sizeBytes
   bounds the writes (bits beyond it are dropped and 0 is returned). */
QNV_API uint32_t qnvutilWrite_SliceHeader(const H264SliceHeader* slice, const H264SpsRecord* sps,
                                          const H264PpsRecord* pps, BitBuffer* out);

/* Rewrites the coded slice unit `unit` (NAL header first, escaped, no start
   code) with the header `slice` into `destination`, keeping slice_data()
   bit-exact: with CAVLC the data moves by the header's change in bits; with
   CABAC the new header is padded with cabac_alignment_one_bit to a byte and
   the data's bytes follow unchanged. Emulation prevention is redone over the
   whole unit. The usual use reads a header, changes pic_parameter_set_id,
   frame_num, idr_pic_id, pic_order_cnt_lsb or the field flags, and fixes the
   unit; `sps` and `pps` are the records the new header is written with; the
   old header is read with `oldSps` and `oldPps`, or where those are null
   with `sps` and `pps` (their ids are not compared with the header's).
   Returns the new unit's length; 0xFFFFFFFF when an argument is null or the
   unit's header cannot be read or the new one written; 0xFFFFFF9A (-102)
   when the result would not fit in `capacity` bytes. `destination` must not
   overlap `unit`. */
QNV_API uint32_t qnvutilFix_SliceHeader(const uint8_t* unit, uint32_t unitSize, const H264SliceHeader* slice,
                                        const H264SpsRecord* sps, const H264PpsRecord* pps,
                                        const H264SpsRecord* oldSps, const H264PpsRecord* oldPps,
                                        uint8_t* destination, uint32_t capacity);

/* ---- Frame scan ---------------------------------------------------------------- */

/* Bits of H264FrameContext.found (the values HevcFrameContext uses for the
   same findings). */
#define H264_FOUND_SPS 0x02u
#define H264_FOUND_PPS 0x04u
#define H264_FOUND_VCL 0x08u          /* a slice (nal_unit_type 1-5) */
#define H264_FOUND_IDR 0x10u          /* an IDR slice (type 5) */
#define H264_FOUND_PIC_TIMING 0x20u   /* pic_timing SEI, fields below */
#define H264_FOUND_CAPTIONS 0x40u     /* T.35 SEI carrying CEA-708 captions ("GA94", type 3) */
#define H264_FOUND_RECOVERY 0x80u     /* recovery_point SEI, fields below */
#define H264_FOUND_AUD 0x100u         /* an access unit delimiter */
#define H264_FOUND_TRUNCATED 0x200u   /* length-prefixed: a length ran past the end; the walk stopped */

/* One frame and what qnvutilFindNalUnits found in it. The caller sets data,
   size and lengthPrefixed; the scan sets every later field (zero when not
   found). */
typedef struct H264FrameContext {
    const uint8_t* data;     /* the frame */
    uint32_t size;           /* bytes at data */
    uint32_t lengthPrefixed; /* 0: Annex B start codes; else 4-byte big-endian lengths */
    uint32_t found;          /* H264_FOUND_* bits */
    uint32_t firstVclOffset; /* offset of the first slice's NAL header */
    /* pic_timing (ITU-T H.264 D.1.3) of the first SEI that carries one, read
       against the SPS record as it stands then (the frame's SPS when one came
       before): the two delays when it has NAL or VCL HRD parameters (with the
       NAL ones' lengths when both), pic_struct when it has
       pic_struct_present_flag; none without an SPS record. */
    uint32_t cpbRemovalDelay;
    uint32_t dpbOutputDelay;
    uint32_t picStruct;
    /* recovery_point (D.1.8) of the first SEI that carries one */
    uint32_t recoveryFrameCnt;
    uint32_t exactMatchFlag;
    uint32_t brokenLinkFlag;
    uint32_t changingSliceGroupIdc;
    /* cc_count of the first caption SEI */
    uint32_t captionCount;
} H264FrameContext;

QNV_STATIC_ASSERT(offsetof(H264FrameContext, size) == sizeof(const uint8_t*), "H264FrameContext layout");
QNV_STATIC_ASSERT(offsetof(H264FrameContext, found) == sizeof(const uint8_t*) + 2 * 4, "H264FrameContext layout");
QNV_STATIC_ASSERT(offsetof(H264FrameContext, cpbRemovalDelay) == sizeof(const uint8_t*) + 4 * 4,
                  "H264FrameContext layout");
QNV_STATIC_ASSERT(offsetof(H264FrameContext, recoveryFrameCnt) == sizeof(const uint8_t*) + 7 * 4,
                  "H264FrameContext layout");
QNV_STATIC_ASSERT(sizeof(H264FrameContext) == sizeof(const uint8_t*) + 12 * 4, "H264FrameContext layout");

/* Walks the NAL units of one frame (ITU-T H.264 7.3.1 and Annex B, or
   ISO/IEC 14496-15 samples with 4-byte lengths). Every SPS and PPS is parsed
   with qnvutilRead_SPS / qnvutilRead_PPS into the matching record (those
   given; a later set of a kind overwrites an earlier one; the records are
   not cleared first) and, when an output buffer is given, copied there (NAL
   header first, no start code or length). Each *...Size is in-out: the
   buffer's capacity on entry, the copied unit's length on return (0 when
   none was found; a unit longer than the capacity is not copied and leaves
   its size at 0). The first 1024 bytes of each SEI unit are unescaped and
   their pic_timing (type 1), T.35 caption (type 4) and recovery_point
   (type 6) messages noted in the context; other messages are skipped.
   Bad input: Annex B bytes before the first start code are skipped; a
   length that runs past the frame ends the walk (H264_FOUND_TRUNCATED);
   SEI messages that run past their unit end the inspection of that unit;
   nothing outside data[0, size) is read. Result: the number of NAL units
   walked (0 when frame is null). */
QNV_API uint32_t qnvutilFindNalUnits(H264FrameContext* frame, H264SpsRecord* sps, H264PpsRecord* pps, uint8_t* spsOut,
                                     uint32_t* spsOutSize, uint8_t* ppsOut, uint32_t* ppsOutSize);

/* ---- AVC decoder configuration record ('avcC') ----------------------------------- */

/* AVCDecoderConfigurationRecord of ISO/IEC 14496-15 (5.3.3.1), one word per
   field; the parameter-set units themselves travel separately. */
typedef struct AvcConfigRecord {
    uint32_t configurationVersion;         /* 0: 1 */
    uint32_t AVCProfileIndication;         /* 1: profile_idc of the SPS */
    uint32_t profile_compatibility;        /* 2: the constraint_set flags byte of the SPS */
    uint32_t AVCLevelIndication;           /* 3: level_idc */
    uint32_t lengthSizeMinusOne;           /* 4 */
    uint32_t numOfSequenceParameterSets;   /* 5 */
    uint32_t numOfPictureParameterSets;    /* 6 */
    uint32_t extensionPresent;             /* 7: 1 when the four fields below were read */
    uint32_t chroma_format;                /* 8 */
    uint32_t bit_depth_luma_minus8;        /* 9 */
    uint32_t bit_depth_chroma_minus8;      /* 10 */
    uint32_t numOfSequenceParameterSetExt; /* 11 */
} AvcConfigRecord;

QNV_STATIC_ASSERT(sizeof(AvcConfigRecord) == 12 * 4, "AvcConfigRecord layout");
QNV_STATIC_ASSERT(offsetof(AvcConfigRecord, lengthSizeMinusOne) == 4 * 4, "AvcConfigRecord layout");
QNV_STATIC_ASSERT(offsetof(AvcConfigRecord, chroma_format) == 8 * 4, "AvcConfigRecord layout");

/* Reads an 'avcC' box (ISO/IEC 14496-15 5.3.3.1): `reader` covers the whole
   box with bitPos at its size field (the 8 bytes of size and type are
   skipped unread, as qnvutilRead_HEVC_CR does). Fills `config`; copies the
   first SPS and the first PPS it carries into spsOut and ppsOut (in-out
   sizes as in qnvutilFindNalUnits) and parses them into the records that
   are given (each may be null; clear them first). The extension fields
   (chroma_format to the SPS extensions) are read when at least 4 bytes
   follow the PPS array, whatever the profile. Reserved bits are not
   checked. Result: the byte position (from the start of the reader's
   buffer) of the record's end; 0 when config is null or the buffer is
   empty; 0xFFFFFFFF when configurationVersion is not 1, the box ends
   inside the fixed fields, or a unit length runs past its end (config then
   holds what was read before). The reader's bitPos is left at the record's
   end (at the failure). */
QNV_API uint32_t qnvutilReadAvcc(BitBuffer* reader, AvcConfigRecord* config, H264SpsRecord* sps, H264PpsRecord* pps,
                                 uint8_t* spsOut, uint32_t* spsOutSize, uint8_t* ppsOut, uint32_t* ppsOutSize);

/* Builds the AVCDecoderConfigurationRecord (ISO/IEC 14496-15 5.3.3.1; no box
   header) of a frame's parameter sets at
   record[0, capacity): every SPS, PPS and SPS extension unit of the frame
   (qnvutilFindNalUnits' walk of frame->data, both framings), each kind in
   frame order, with lengthSizeMinusOne 3; profile, compatibility and level
   are the first SPS's bytes 1-3. For profile_idc 100, 110, 122 and 144 the
   extension follows, its chroma format and bit depths parsed from the first
   SPS (1 and 0, 0 where the SPS has no chroma block). The result is byte for
   byte the 'avcC' payload that ffmpeg writes for such a stream, except that
   ffmpeg writes the extension for every profile but 66, 77 and 88. Result:
   the record's length; 0 (nothing written) when frame is null, the frame
   has no SPS of at least 4 bytes or no PPS, has more than 31 SPS or 255 PPS
   or SPS extensions, a unit is longer than 65535 bytes, or the record does
   not fit in capacity. */
QNV_API uint32_t qnvutilGetAvcc(const H264FrameContext* frame, uint8_t* record, uint32_t capacity);

/* ---- NAL unit insertion ---------------------------------------------------------- */

/* Results of qnvutilAddNalUnits (the values of the caption insertions). */
#define QNV_ADD_UNITS_OK 0
#define QNV_ADD_UNITS_BAD (-1)
#define QNV_ADD_UNITS_NO_ROOM (-102)

/* Inserts NAL units into one access unit held in `frame`, each where the
   order of NAL units in an access unit puts it (ITU-T H.264 7.4.1.2.3,
   H.265 7.4.2.4.4):
    - access unit delimiter (H.264 type 9, HEVC 35): in front of the frame's
      first unit (a frame that has one already gets a second one: check
      first, e.g. with qnvutilFindNalUnits' H264_FOUND_AUD);
    - parameter sets (H.264 SPS 7, PPS 8, SPS extension 13, subset SPS 15;
      HEVC VPS 32, SPS 33, PPS 34): behind the delimiter and the parameter
      sets that precede the first slice, so that a PPS follows the SPS it
      refers to (in front of the first unit when there are none);
    - SEI (H.264 6) and prefix SEI (HEVC 39): in front of the first slice;
    - suffix SEI (HEVC 40) and filler data (H.264 12, HEVC 38): behind the
      last slice;
    - end of sequence and of stream (H.264 10, 11; HEVC 36, 37): at the end.
   A frame without a slice takes SEI, suffix SEI and filler at its end.
   Units of one kind keep their given order, and the frame's own units and
   the bytes between them stay as they are.
   `units` holds unitsSize bytes of NAL units framed like the frame: each
   behind a start code (00 00 01 or 00 00 00 01) when lengthPrefixed is 0,
   else behind a 4-byte big-endian length; they are copied with their
   prefix (zero bytes between Annex B units are left out). hevc non-zero:
   both are HEVC, else H.264. The frame grows in place: frameSize rises by
   the bytes inserted and nothing at or beyond frameCapacity is written.
   Result: QNV_ADD_UNITS_OK; QNV_ADD_UNITS_BAD when frame, its frameData or
   units is null, `units` holds no unit, bytes outside its units (before
   the first start code, a cut or overlong length), a unit shorter than its
   header, or a unit of another type (slices are never inserted), or when a
   length-prefixed frame's lengths run past frameSize; QNV_ADD_UNITS_NO_ROOM
   when frameSize plus the units exceeds frameCapacity (or frameSize already
   does). On every failure the frame is left unchanged and one line goes to
   ErrOut. No memory is allocated. */
QNV_API int32_t qnvutilAddNalUnits(DFrame* frame, const uint8_t* units, uint32_t unitsSize, int8_t hevc,
                                   int8_t lengthPrefixed);

QNV_END_C

#endif
