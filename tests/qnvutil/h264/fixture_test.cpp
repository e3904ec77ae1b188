// The SPS and PPS readers against ffmpeg's trace of x264 streams (fixtures
// made by tests/data/h264/make_fixtures.sh): every element of the trace must
// be in its record field, every other field must keep the caller's value, and
// the bytes consumed must match. Where the record deliberately differs from
// the standard's value (bit depths 8 for profiles without the chroma block),
// the record's value is asserted instead.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "qnvutil/h264.h"
#include "tests/qnvutil/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int32_t kUntouched = 0x5A5A5A5A;

struct Element {
    uint32_t pos;
    std::string name;  // without index
    int32_t index;     // -1 when none
    int32_t value;
};

// ffmpeg's trace of each unit: a "SPS" or "PPS" line, then "pos name[index] value" lines.
std::vector<std::pair<std::string, std::vector<Element>>> loadTrace(const std::string& name) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/h264/" + name + ".ref");
    std::vector<std::pair<std::string, std::vector<Element>>> units;
    for (std::string line; std::getline(in, line);) {
        if (line == "SPS" || line == "PPS") {
            units.push_back({line, {}});
            continue;
        }
        std::istringstream fields(line);
        Element e{0, "", -1, 0};
        fields >> e.pos >> e.name >> e.value;
        if (auto b = e.name.find('['); b != std::string::npos) {
            e.index = std::stoi(e.name.substr(b + 1));
            e.name.resize(b);
        }
        if (!units.empty()) units.back().second.push_back(e);
    }
    return units;
}

// Trace name -> first word of the record field and the step between indexes.
using Fields = std::map<std::string, std::pair<size_t, size_t>>;
#define QNV_WORD(record, name, field, step) {name, {offsetof(record, field) / 4, step}}
#define S(name) QNV_WORD(H264SpsRecord, #name, name, 0)
#define P(name) QNV_WORD(H264PpsRecord, #name, name, 0)
#define H(name) QNV_WORD(HrdParameters, #name, name, 0)
const Fields kSpsFields = {
    S(forbidden_zero_bit), S(nal_ref_idc), S(nal_unit_type), S(profile_idc), S(constraint_set0_flag),
    S(constraint_set1_flag), S(constraint_set2_flag), S(constraint_set3_flag), S(constraint_set4_flag),
    S(constraint_set5_flag), S(reserved_zero_2bits), S(level_idc), S(seq_parameter_set_id), S(chroma_format_idc),
    S(separate_colour_plane_flag), S(bit_depth_luma_minus8), S(bit_depth_chroma_minus8),
    S(qpprime_y_zero_transform_bypass_flag), S(seq_scaling_matrix_present_flag), S(log2_max_frame_num_minus4),
    S(pic_order_cnt_type), S(log2_max_pic_order_cnt_lsb_minus4), S(max_num_ref_frames), S(pic_width_in_mbs_minus1),
    S(pic_height_in_map_units_minus1), S(frame_mbs_only_flag), S(mb_adaptive_frame_field_flag),
    S(direct_8x8_inference_flag), S(frame_cropping_flag), S(frame_crop_left_offset), S(frame_crop_right_offset),
    S(frame_crop_top_offset), S(frame_crop_bottom_offset), S(vui_parameters_present_flag),
    S(aspect_ratio_info_present_flag), S(aspect_ratio_idc), S(sar_width), S(sar_height), S(overscan_info_present_flag),
    S(overscan_appropriate_flag), S(video_signal_type_present_flag), S(video_format), S(video_full_range_flag),
    S(colour_description_present_flag), S(colour_primaries), S(transfer_characteristics), S(matrix_coefficients),
    S(chroma_loc_info_present_flag), S(chroma_sample_loc_type_top_field), S(chroma_sample_loc_type_bottom_field),
    S(timing_info_present_flag), S(num_units_in_tick), S(time_scale), S(fixed_frame_rate_flag),
    S(nal_hrd_parameters_present_flag), S(vcl_hrd_parameters_present_flag), S(low_delay_hrd_flag),
    S(pic_struct_present_flag), S(bitstream_restriction_flag), S(motion_vectors_over_pic_boundaries_flag),
    S(max_bytes_per_pic_denom), S(max_bits_per_mb_denom), S(log2_max_mv_length_horizontal),
    S(log2_max_mv_length_vertical), S(max_num_reorder_frames), S(max_dec_frame_buffering), S(rbsp_stop_one_bit),
    QNV_WORD(H264SpsRecord, "gaps_in_frame_num_allowed_flag", gaps_in_frame_num_value_allowed_flag, 0),
    QNV_WORD(H264SpsRecord, "seq_scaling_list_present_flag", seq_scaling_list_present_flag, 1)};
const Fields kPpsFields = {
    P(forbidden_zero_bit), P(nal_ref_idc), P(nal_unit_type), P(pic_parameter_set_id), P(seq_parameter_set_id),
    P(entropy_coding_mode_flag), P(bottom_field_pic_order_in_frame_present_flag), P(num_slice_groups_minus1),
    P(num_ref_idx_l0_default_active_minus1), P(num_ref_idx_l1_default_active_minus1), P(weighted_pred_flag),
    P(weighted_bipred_idc), P(pic_init_qp_minus26), P(pic_init_qs_minus26), P(chroma_qp_index_offset),
    P(deblocking_filter_control_present_flag), P(constrained_intra_pred_flag), P(redundant_pic_cnt_present_flag),
    P(transform_8x8_mode_flag), P(pic_scaling_matrix_present_flag), P(second_chroma_qp_index_offset),
    P(rbsp_stop_one_bit), QNV_WORD(H264PpsRecord, "pic_scaling_list_present_flag", pic_scaling_list_present_flag, 1)};
// Within the HRD structure whose present flag came last.
const Fields kHrdFields = {
    H(cpb_cnt_minus1), H(bit_rate_scale), H(cpb_size_scale), H(initial_cpb_removal_delay_length_minus1),
    H(cpb_removal_delay_length_minus1), H(dpb_output_delay_length_minus1), H(time_offset_length),
    QNV_WORD(HrdParameters, "bit_rate_value_minus1", schedule[0].bit_rate_value_minus1, 3),
    QNV_WORD(HrdParameters, "cpb_size_value_minus1", schedule[0].cpb_size_value_minus1, 3),
    QNV_WORD(HrdParameters, "cbr_flag", schedule[0].cbr_flag, 3)};
#undef S
#undef P
#undef H

// Reads the unit into a record of kUntouched words and compares the whole
// record with the one the trace describes.
template <typename Record>
void checkUnit(const Bytes& unit, const std::vector<Element>& trace, const Fields& fields, const std::string& where) {
    constexpr bool sps = std::is_same_v<Record, H264SpsRecord>;
    Record rec;
    std::memset(&rec, 0x5A, sizeof rec);
    Bytes data = unit;
    BitBuffer bb{data.data(), static_cast<uint32_t>(data.size()), static_cast<uint32_t>(data.size() * 8), 0};
    uint32_t consumed;
    if constexpr (sps) {
        consumed = qnvutilRead_SPS(&bb, &rec);
    } else {
        consumed = qnvutilRead_PPS(&bb, &rec);
    }
    ASSERT_FALSE(trace.empty()) << where;
    EXPECT_EQ(consumed, (trace.back().pos + 1) / 8) << where;
    EXPECT_EQ(data, unit) << where << ": the caller's bytes changed";

    std::vector<int32_t> want(sizeof rec / 4, kUntouched);
    std::vector<std::string> what(want.size());
    auto expect = [&](size_t word, int32_t value, const std::string& name) { want[word] = value, what[word] = name; };
    size_t hrd = 0;  // first word of the HRD structure being read
    for (size_t k = 0; k < trace.size(); ++k) {
        const Element& e = trace[k];
        if (e.name == "rbsp_alignment_zero_bit" || e.name == "delta_scale") continue;  // lists: at their flag
        if (e.name == "nal_hrd_parameters_present_flag") hrd = offsetof(H264SpsRecord, nal_hrd) / 4;
        if (e.name == "vcl_hrd_parameters_present_flag") hrd = offsetof(H264SpsRecord, vcl_hrd) / 4;
        auto f = kHrdFields.find(e.name);
        size_t base = hrd;
        if (hrd == 0 || f == kHrdFields.end()) {
            f = fields.find(e.name);
            ASSERT_NE(f, fields.end()) << where << ": no record field for " << e.name;
            base = 0;
        }
        expect(base + f->second.first + f->second.second * std::max(e.index, 0), e.value, e.name);
        if (e.name.find("scaling_list_present_flag") == std::string::npos || e.value == 0) continue;
        // The standard's scaling_list() from the traced delta_scale values.
        std::vector<int32_t> deltas;
        for (size_t d = k + 1; d < trace.size() && trace[d].name == "delta_scale"; ++d) deltas.push_back(trace[d].value);
        const size_t size = e.index < 6 ? 16 : 64;
        const size_t first = e.index < 6 ? offsetof(Record, ScalingList4x4) / 4 + 16 * e.index
                                         : offsetof(Record, ScalingList8x8) / 4 + 64 * (e.index - 6);
        int32_t last = 8, next = 8;
        for (size_t j = 0; j < size; ++j) {
            if (next != 0) next = (last + (j < deltas.size() ? deltas[j] : 0) + 256) % 256;
            last = next == 0 ? last : next;
            expect(first + j, last, "scaling list " + std::to_string(e.index));
        }
    }
    if constexpr (sps) {
        if (what[offsetof(H264SpsRecord, chroma_format_idc) / 4].empty()) {
            // No chroma block in the stream: the record's defaults, bit depths 8 where the standard infers 0.
            expect(offsetof(H264SpsRecord, chroma_format_idc) / 4, 1, "default chroma_format_idc");
            expect(offsetof(H264SpsRecord, bit_depth_luma_minus8) / 4, 8, "default bit_depth_luma_minus8");
            expect(offsetof(H264SpsRecord, bit_depth_chroma_minus8) / 4, 8, "default bit_depth_chroma_minus8");
        }
    } else {
        expect(offsetof(H264PpsRecord, moreData) / 4,
               what[offsetof(H264PpsRecord, transform_8x8_mode_flag) / 4].empty() ? 0 : 1, "moreData");
    }
    std::vector<int32_t> got(want.size());
    std::memcpy(got.data(), &rec, sizeof rec);
    for (size_t w = 0; w < want.size(); ++w)
        EXPECT_EQ(got[w], want[w]) << where << ": word " << w << " " << (what[w].empty() ? "(untouched)" : what[w]);
}

}  // namespace

TEST(H264ParameterSets, MatchTheReferenceTraceOfX264Streams) {
    for (const char* name : {"baseline", "main_1080_slices", "high_vui", "high_sar_hrd_cbr", "high_hrd_vbr_cqm",
                             "high_cqm_jvt", "high10_mbaff", "high422_paff", "high422_10", "high444_lossless_odd"}) {
        const auto units = qnvtest::annexBUnits(qnvtest::readData(std::string("h264/") + name + ".264"));
        const auto traces = loadTrace(name);
        ASSERT_EQ(units.size(), 2u) << name;
        ASSERT_EQ(traces.size(), 2u) << name;
        for (size_t i = 0; i < units.size(); ++i) {
            const std::string where = std::string(name) + " " + traces[i].first;
            if (traces[i].first == "SPS") {
                checkUnit<H264SpsRecord>(units[i].bytes, traces[i].second, kSpsFields, where);
            } else {
                checkUnit<H264PpsRecord>(units[i].bytes, traces[i].second, kPpsFields, where);
            }
        }
    }
}
