// The SPS and PPS readers against ffmpeg's trace of x264 streams (fixtures
// made by tests/data/h264/make_fixtures.sh): every element of the trace must
// be in its record field, every other field must keep the caller's value, and
// the bytes consumed must match. Where the record deliberately differs from
// the standard's value (bit depths 8 for profiles without the chroma block),
// the record's value is asserted instead.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qnvutil/h264.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int32_t kUntouched = 0x5A5A5A5A;

struct Element {
    uint32_t pos;
    std::string name;  // without index
    int32_t index;     // -1 when none
    int32_t value;
};
struct Unit {
    std::string kind;
    Bytes bytes;
    std::vector<Element> trace;
};

std::vector<Unit> loadCase(const std::string& name) {
    const std::string base = std::string(QNV_TEST_DATA) + "/h264/" + name;
    std::ifstream in(base + ".264", std::ios::binary);
    Bytes s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<Unit> units;
    for (size_t i = 0; i + 3 <= s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            if (!units.empty()) {
                auto& b = units.back().bytes;
                while (!b.empty() && b.back() == 0) b.pop_back();  // next start code's leading zero
            }
            units.emplace_back();
            i += 2;
        } else if (!units.empty()) {
            units.back().bytes.push_back(s[i]);
        }
    }
    if (!units.empty()) units.back().bytes.insert(units.back().bytes.end(), s.end() - 2, s.end());
    std::ifstream ref(base + ".ref");
    std::string line;
    size_t n = 0;
    while (std::getline(ref, line)) {
        if (line == "SPS" || line == "PPS") {
            if (n < units.size()) units[n].kind = line;
            ++n;
            continue;
        }
        std::istringstream fields(line);
        Element e{};
        fields >> e.pos >> e.name >> e.value;
        e.index = -1;
        if (auto b = e.name.find('['); b != std::string::npos) {
            e.index = std::stoi(e.name.substr(b + 1));
            e.name.resize(b);
        }
        if (n > 0 && n <= units.size()) units[n - 1].trace.push_back(e);
    }
    EXPECT_EQ(n, units.size()) << name;
    return units;
}

// The standard's scaling_list() from the traced delta_scale values.
std::vector<int32_t> scalingList(const std::vector<int32_t>& deltas, size_t size) {
    std::vector<int32_t> list(size);
    int32_t last = 8, next = 8;
    for (size_t j = 0; j < size; ++j) {
        if (next != 0) next = (last + (j < deltas.size() ? deltas[j] : 0) + 256) % 256;
        list[j] = next == 0 ? last : next;
        last = list[j];
    }
    return list;
}

// Compares one unit; Record is H264SpsRecord or H264PpsRecord.
template <typename Record>
void checkUnit(const Unit& u, const std::string& where) {
    Record rec;
    std::vector<int32_t> words(sizeof(Record) / 4, kUntouched);
    std::memcpy(&rec, words.data(), sizeof rec);
    Bytes data = u.bytes;
    BitBuffer bb{data.data(), static_cast<uint32_t>(data.size()), static_cast<uint32_t>(data.size() * 8), 0};
    uint32_t consumed;
    if constexpr (std::is_same_v<Record, H264SpsRecord>) {
        consumed = qnvutilRead_SPS(&bb, &rec);
    } else {
        consumed = qnvutilRead_PPS(&bb, &rec);
    }
    ASSERT_FALSE(u.trace.empty()) << where;
    EXPECT_EQ(consumed, (u.trace.back().pos + 1) / 8) << where;
    EXPECT_EQ(data, u.bytes) << where << ": the caller's bytes changed";

    std::memcpy(words.data(), &rec, sizeof rec);
    std::set<size_t> checked;
    auto expectAt = [&](const void* field, int32_t want, const std::string& what) {
        size_t w = (static_cast<const char*>(field) - reinterpret_cast<const char*>(&rec)) / 4;
        EXPECT_EQ(words[w], want) << where << ": " << what;
        checked.insert(w);
    };

    HrdParameters* hrd = nullptr;
    int32_t list = -1;
    std::vector<int32_t> deltas;
    bool transformRead = false;
    auto finishList = [&]() {
        if (list < 0) return;
        auto want = scalingList(deltas, list < 6 ? 16 : 64);
        for (size_t j = 0; j < want.size(); ++j) {
            const int32_t* entry = list < 6 ? &rec.ScalingList4x4[list][j] : &rec.ScalingList8x8[list - 6][j];
            expectAt(entry, want[j], "scaling list " + std::to_string(list));
        }
        list = -1;
        deltas.clear();
    };

    for (const Element& e : u.trace) {
        const std::string& n = e.name;
        if (n == "delta_scale") {
            deltas.push_back(e.value);
            continue;
        }
        finishList();
        if (n == "rbsp_alignment_zero_bit") continue;
        if (n == "seq_scaling_list_present_flag" || n == "pic_scaling_list_present_flag") {
            int32_t* flags;
            if constexpr (std::is_same_v<Record, H264SpsRecord>) {
                flags = rec.seq_scaling_list_present_flag;
            } else {
                flags = rec.pic_scaling_list_present_flag;
            }
            expectAt(&flags[e.index], e.value, n);
            if (e.value) list = e.index;
            continue;
        }
        if (n == "nal_hrd_parameters_present_flag" || n == "vcl_hrd_parameters_present_flag") {
            if constexpr (std::is_same_v<Record, H264SpsRecord>) hrd = n[0] == 'n' ? &rec.nal_hrd : &rec.vcl_hrd;
        }
        if (n == "transform_8x8_mode_flag") transformRead = true;
        static const std::set<std::string> kScheduled = {"bit_rate_value_minus1", "cpb_size_value_minus1", "cbr_flag"};
        if (kScheduled.count(n)) {
            ASSERT_NE(hrd, nullptr) << where;
            HrdSchedule& s = hrd->schedule[e.index];
            expectAt(n[0] == 'b' ? &s.bit_rate_value_minus1 : n[1] == 'p' ? &s.cpb_size_value_minus1 : &s.cbr_flag,
                     e.value, n);
            continue;
        }
        const int32_t* field = nullptr;
#define QNV_FIELD(rec_, name) \
    if (n == #name) field = &(rec_).name;
        if constexpr (std::is_same_v<Record, H264SpsRecord>) {
            if (n == "gaps_in_frame_num_allowed_flag") field = &rec.gaps_in_frame_num_value_allowed_flag;
            if (hrd) {
                QNV_FIELD(*hrd, cpb_cnt_minus1) QNV_FIELD(*hrd, bit_rate_scale) QNV_FIELD(*hrd, cpb_size_scale)
                QNV_FIELD(*hrd, initial_cpb_removal_delay_length_minus1)
                QNV_FIELD(*hrd, cpb_removal_delay_length_minus1) QNV_FIELD(*hrd, dpb_output_delay_length_minus1)
                QNV_FIELD(*hrd, time_offset_length)
            }
#define QNV_SPS(name) QNV_FIELD(rec, name)
            QNV_SPS(forbidden_zero_bit) QNV_SPS(nal_ref_idc) QNV_SPS(nal_unit_type) QNV_SPS(profile_idc)
            QNV_SPS(constraint_set0_flag) QNV_SPS(constraint_set1_flag) QNV_SPS(constraint_set2_flag)
            QNV_SPS(constraint_set3_flag) QNV_SPS(constraint_set4_flag) QNV_SPS(constraint_set5_flag)
            QNV_SPS(reserved_zero_2bits) QNV_SPS(level_idc) QNV_SPS(seq_parameter_set_id) QNV_SPS(chroma_format_idc)
            QNV_SPS(separate_colour_plane_flag) QNV_SPS(bit_depth_luma_minus8) QNV_SPS(bit_depth_chroma_minus8)
            QNV_SPS(qpprime_y_zero_transform_bypass_flag) QNV_SPS(seq_scaling_matrix_present_flag)
            QNV_SPS(log2_max_frame_num_minus4) QNV_SPS(pic_order_cnt_type) QNV_SPS(log2_max_pic_order_cnt_lsb_minus4)
            QNV_SPS(max_num_ref_frames) QNV_SPS(pic_width_in_mbs_minus1) QNV_SPS(pic_height_in_map_units_minus1)
            QNV_SPS(frame_mbs_only_flag) QNV_SPS(mb_adaptive_frame_field_flag) QNV_SPS(direct_8x8_inference_flag)
            QNV_SPS(frame_cropping_flag) QNV_SPS(frame_crop_left_offset) QNV_SPS(frame_crop_right_offset)
            QNV_SPS(frame_crop_top_offset) QNV_SPS(frame_crop_bottom_offset) QNV_SPS(vui_parameters_present_flag)
            QNV_SPS(aspect_ratio_info_present_flag) QNV_SPS(aspect_ratio_idc) QNV_SPS(sar_width) QNV_SPS(sar_height)
            QNV_SPS(overscan_info_present_flag) QNV_SPS(overscan_appropriate_flag)
            QNV_SPS(video_signal_type_present_flag) QNV_SPS(video_format) QNV_SPS(video_full_range_flag)
            QNV_SPS(colour_description_present_flag) QNV_SPS(colour_primaries) QNV_SPS(transfer_characteristics)
            QNV_SPS(matrix_coefficients) QNV_SPS(chroma_loc_info_present_flag)
            QNV_SPS(chroma_sample_loc_type_top_field) QNV_SPS(chroma_sample_loc_type_bottom_field)
            QNV_SPS(timing_info_present_flag) QNV_SPS(num_units_in_tick) QNV_SPS(time_scale)
            QNV_SPS(fixed_frame_rate_flag) QNV_SPS(nal_hrd_parameters_present_flag)
            QNV_SPS(vcl_hrd_parameters_present_flag) QNV_SPS(low_delay_hrd_flag) QNV_SPS(pic_struct_present_flag)
            QNV_SPS(bitstream_restriction_flag) QNV_SPS(motion_vectors_over_pic_boundaries_flag)
            QNV_SPS(max_bytes_per_pic_denom) QNV_SPS(max_bits_per_mb_denom) QNV_SPS(log2_max_mv_length_horizontal)
            QNV_SPS(log2_max_mv_length_vertical) QNV_SPS(max_num_reorder_frames) QNV_SPS(max_dec_frame_buffering)
            QNV_SPS(rbsp_stop_one_bit)
        } else {
#define QNV_PPS(name) QNV_FIELD(rec, name)
            QNV_PPS(forbidden_zero_bit) QNV_PPS(nal_ref_idc) QNV_PPS(nal_unit_type) QNV_PPS(pic_parameter_set_id)
            QNV_PPS(seq_parameter_set_id) QNV_PPS(entropy_coding_mode_flag)
            QNV_PPS(bottom_field_pic_order_in_frame_present_flag) QNV_PPS(num_slice_groups_minus1)
            QNV_PPS(num_ref_idx_l0_default_active_minus1) QNV_PPS(num_ref_idx_l1_default_active_minus1)
            QNV_PPS(weighted_pred_flag) QNV_PPS(weighted_bipred_idc) QNV_PPS(pic_init_qp_minus26)
            QNV_PPS(pic_init_qs_minus26) QNV_PPS(chroma_qp_index_offset) QNV_PPS(deblocking_filter_control_present_flag)
            QNV_PPS(constrained_intra_pred_flag) QNV_PPS(redundant_pic_cnt_present_flag)
            QNV_PPS(transform_8x8_mode_flag) QNV_PPS(pic_scaling_matrix_present_flag)
            QNV_PPS(second_chroma_qp_index_offset) QNV_PPS(rbsp_stop_one_bit)
        }
#undef QNV_FIELD
        ASSERT_NE(field, nullptr) << where << ": no record field for " << n;
        expectAt(field, e.value, n);
    }
    finishList();

    if constexpr (std::is_same_v<Record, H264SpsRecord>) {
        if (!checked.count(offsetof(H264SpsRecord, chroma_format_idc) / 4)) {
            // No chroma block in the stream: the record's defaults, bit depths 8 where the standard infers 0.
            expectAt(&rec.chroma_format_idc, 1, "default chroma_format_idc");
            expectAt(&rec.bit_depth_luma_minus8, 8, "default bit_depth_luma_minus8");
            expectAt(&rec.bit_depth_chroma_minus8, 8, "default bit_depth_chroma_minus8");
        }
    } else {
        expectAt(&rec.moreData, transformRead ? 1 : 0, "moreData");
    }
    for (size_t w = 0; w < words.size(); ++w) {
        if (checked.count(w)) continue;
        EXPECT_EQ(words[w], kUntouched) << where << ": word " << w << " written";
    }
}

}  // namespace

TEST(H264ParameterSets, MatchTheReferenceTraceOfX264Streams) {
    const char* cases[] = {"baseline",        "main_1080_slices", "high_vui",     "high_sar_hrd_cbr",
                           "high_hrd_vbr_cqm", "high_cqm_jvt",     "high10_mbaff", "high422_paff",
                           "high422_10",      "high444_lossless_odd"};
    for (const char* name : cases) {
        std::vector<Unit> units = loadCase(name);
        ASSERT_EQ(units.size(), 2u) << name;
        for (size_t i = 0; i < units.size(); ++i) {
            std::string where = std::string(name) + " " + units[i].kind;
            if (units[i].kind == "SPS") {
                checkUnit<H264SpsRecord>(units[i], where);
            } else {
                checkUnit<H264PpsRecord>(units[i], where);
            }
        }
    }
}
