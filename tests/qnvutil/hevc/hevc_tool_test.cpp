// qnvtool probe and hvcc on the HEVC fixtures.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/qnvutil/test_util.h"

using qnvtest::kQnvtool;
using qnvtest::runCommand;

namespace {

const std::string kData = std::string(QNV_TEST_DATA) + "/hevc/";

nlohmann::json probe(const std::string& args) {
    return nlohmann::json::parse(runCommand(kQnvtool + " probe " + args + " 2>&1"), nullptr, false);
}

}  // namespace

TEST(HevcTool, ProbeDescribesEachDistinctParameterSet) {
    if (!qnvtest::qnvtoolBuilt()) GTEST_SKIP() << "qnvtool is not built";
    // The hand-built SPS: conformance window, 10:7 SAR, level 3.1 (ffmpeg
    // reports the same 60x56).
    nlohmann::json sets = probe(kData + "rps.265");
    ASSERT_TRUE(sets.is_array());
    ASSERT_EQ(sets.size(), 3u);  // the repeated sets of later frames are not listed again
    const nlohmann::json& sps = sets[1];
    EXPECT_EQ(sps["type"], "SPS");
    EXPECT_EQ(sps["summary"]["width"], 60);
    EXPECT_EQ(sps["summary"]["height"], 56);
    EXPECT_EQ(sps["summary"]["level"], "3.1");
    EXPECT_EQ(sps["summary"]["frame_rate"], 25.0);
    EXPECT_EQ(sps["fields"]["lt_ref_pic_poc_lsb_sps"], nlohmann::json({17, 200}));
    EXPECT_EQ(sps["fields"]["delta_poc_s0_minus1"][2], nlohmann::json({0, 1, 2}));
    EXPECT_EQ(sps["fields"]["sub_layer_level_idc"], nlohmann::json({90}));

    const nlohmann::json rext = probe(kData + "main422_10.265")[1]["summary"];
    EXPECT_EQ(rext["profile"], "Main 4:2:2 10");
    EXPECT_EQ(rext["bit_depth_luma"], 10);
    EXPECT_EQ(rext["chroma_format"], "4:2:2");
    EXPECT_EQ(probe(kData + "main444.265")[1]["summary"]["profile"], "Main 4:4:4");
    nlohmann::json first = probe("--first " + kData + "repeat.265");
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0]["type"], "VPS");
    EXPECT_EQ(probe(kData + "repeat.265").size(), 3u);
}

TEST(HevcTool, HvccBuildsAndReadsABox) {
    if (!qnvtest::qnvtoolBuilt()) GTEST_SKIP() << "qnvtool is not built";
    const std::string box = std::string(QNV_BINARY_DIR) + "/hevc_tool_box";
    const std::string built = runCommand(kQnvtool + " hvcc " + kData + "main.265 -o " + box + " 2>&1");
    EXPECT_EQ(built.rfind("00 00 00 75 68 76 63 43 01 01 60", 0), 0u) << built;
    const std::string read = runCommand(kQnvtool + " hvcc --read " + box + " 2>&1");
    EXPECT_NE(read.find("numOfArrays                         3\n"), std::string::npos) << read;
    EXPECT_NE(read.find("SPS: id 0, 64x64, profile Main, level 1\n"), std::string::npos) << read;
    EXPECT_NE(runCommand(kQnvtool + " hvcc --read " + kData + "main.265 2>&1").find("not an 'hvcC' box"), std::string::npos);
}
