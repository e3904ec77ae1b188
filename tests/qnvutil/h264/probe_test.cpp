// `qnvtool probe` on H.264 parameter sets: the JSON carries the syntax
// elements the units hold and the derived picture description.
#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

namespace {

std::string run(const std::string& args) {
    std::string cmd = std::string(QNV_BINARY_DIR) + "/bin/qnvtool probe " + args + " 2>&1";
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        pclose(p);
    }
    return out;
}

}  // namespace

TEST(H264Probe, DescribesParameterSetsAsJson) {
    const std::string dir = std::string(QNV_TEST_DATA) + "/h264/";
    if (std::FILE* f = std::fopen((std::string(QNV_BINARY_DIR) + "/bin/qnvtool").c_str(), "r")) {
        std::fclose(f);
    } else {
        GTEST_SKIP() << "qnvtool not built";
    }
    auto doc = nlohmann::json::parse(run(dir + "high444_lossless_odd.264"));
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

    doc = nlohmann::json::parse(run(dir + "baseline.264 --first"));
    const auto& base = doc["parameter_sets"][0];
    EXPECT_FALSE(base["syntax"].contains("chroma_format_idc"));  // not in the stream
    EXPECT_EQ(base["derived"]["bit_depth_luma"], 8);
    EXPECT_EQ(base["derived"]["level"], "1.1");

    auto vui = nlohmann::json::parse(run(dir + "high_hrd_vbr_cqm.264"));
    EXPECT_EQ(vui["parameter_sets"][0]["syntax"]["vui_parameters"]["nal_hrd_parameters"]["cpb_cnt_minus1"], 0);
    EXPECT_EQ(vui["parameter_sets"][1]["syntax"]["ScalingList4x4"][0][0], 6);
}
