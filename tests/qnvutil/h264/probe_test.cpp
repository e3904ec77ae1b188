// `qnvtool probe` on H.264 parameter sets: the JSON carries the syntax
// elements the units hold and the derived picture description.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/qnvutil/test_util.h"

TEST(H264Probe, DescribesParameterSetsAsJson) {
    if (!qnvtest::qnvtoolBuilt()) GTEST_SKIP() << "qnvtool not built";
    auto probe = [](const std::string& args) {
        return nlohmann::json::parse(qnvtest::runCommand(qnvtest::kQnvtool + " probe " + QNV_TEST_DATA "/h264/" + args + " 2>&1"));
    };
    auto doc = probe("high444_lossless_odd.264");
    ASSERT_EQ(doc["parameter_sets"].size(), 2u);
    const auto& sps = doc["parameter_sets"][0];
    EXPECT_EQ(sps["type"], "SPS");
    EXPECT_EQ(sps["syntax"]["qpprime_y_zero_transform_bypass_flag"], 1);
    EXPECT_EQ(sps["syntax"]["vui_parameters"]["timing_info_present_flag"], 1);
    EXPECT_EQ(sps["derived"]["profile"], "High 4:4:4 Predictive");
    EXPECT_EQ(sps["derived"]["width"], 175);
    EXPECT_EQ(sps["derived"]["height"], 99);
    EXPECT_EQ(sps["derived"]["frame_rate"], 25.0);
    EXPECT_EQ(doc["parameter_sets"][1]["syntax"]["pic_parameter_set_id"], 0);

    const auto base = probe("baseline.264 --first")["parameter_sets"][0];
    EXPECT_FALSE(base["syntax"].contains("chroma_format_idc"));  // not in the stream
    EXPECT_EQ(base["derived"]["bit_depth_luma"], 8);
    EXPECT_EQ(base["derived"]["level"], "1.1");

    const auto vui = probe("high_hrd_vbr_cqm.264")["parameter_sets"];
    EXPECT_EQ(vui[0]["syntax"]["vui_parameters"]["nal_hrd_parameters"]["cpb_cnt_minus1"], 0);
    EXPECT_EQ(vui[1]["syntax"]["ScalingList4x4"][0][0], 6);
}

TEST(H264Probe, ListsSliceHeadersOfBothCodecsInSyntaxOrder) {
    if (!qnvtest::qnvtoolBuilt()) GTEST_SKIP() << "qnvtool not built";
    auto probe = [](const std::string& args) {
        return nlohmann::ordered_json::parse(qnvtest::runCommand(qnvtest::kQnvtool + " probe --slices " + QNV_TEST_DATA + "/" + args));
    };
    const auto avc = probe("h264/slices/strict.264");
    ASSERT_EQ(avc["slices"].size(), 16u);
    const auto& idr = avc["slices"][0];
    EXPECT_EQ(idr["type"], "slice");
    EXPECT_EQ(idr["fields"].begin().key(), "forbidden_zero_bit");  // syntax order, not alphabetical
    EXPECT_EQ(idr["fields"]["dec_ref_pic_marking"]["no_output_of_prior_pics_flag"], 0);
    bool modified = false;
    for (const auto& s : avc["slices"])
        if (s["fields"].contains("ref_pic_list_modification_l0"))
            modified = s["fields"]["ref_pic_list_modification_l0"]["modification_of_pic_nums_idc"].back() == 3;
    EXPECT_TRUE(modified);

    const auto hevc = probe("hevc/slices/wpp_slices.265");
    int segments = 0;
    for (const auto& e : hevc) {
        if (e["type"] != "slice segment") continue;
        ++segments;
        EXPECT_FALSE(e.contains("error"));
        EXPECT_TRUE(e["fields"].contains("num_entry_point_offsets"));
    }
    EXPECT_EQ(segments, 16);
}
