// HEVC parameter-set readers and writers on hand-built units: the settled
// departures from H.265, the failure paths, the guards and the writers'
// stability on arbitrary input.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "foundation/bitio/bitio.h"
#include "qnvutil/hevc/hevc_internal.h"
#include "tests/qnvutil/hevc/hevc_test_util.h"

using namespace hevctest;

namespace {

// Builds a NAL unit field by field, with emulation prevention.
class UnitBuilder {
public:
    // A placeholder for EmitNalUnit, then the NAL unit header.
    explicit UnitBuilder(uint32_t type) { u(32, 1).u(1, 0).u(6, type).u(6, 0).u(3, 1); }
    UnitBuilder& u(uint32_t n, uint64_t v) {
        qnv::WriteBits64(&bb_, n, v);
        return *this;
    }
    UnitBuilder& ue(uint32_t v) {
        WriteExponentialGolombCode(&bb_, static_cast<int32_t>(v));
        return *this;
    }
    // profile_tier_level general part: Main, level 60.
    UnitBuilder& generalPtl() { return u(8, 0x01).u(32, 0x60000000).u(48, 0x900000000000ull).u(8, 60); }
    // Closes with rbsp_trailing_bits.
    std::vector<uint8_t> bytes() {
        u(1, 1);
        while (bb_.bitPos % 8) u(1, 0);
        std::vector<uint8_t> out(buf_.size() * 2);
        BitBuffer o{out.data(), static_cast<uint32_t>(out.size()), 0, 0};
        qnv::EmitNalUnit(&bb_, &o, 0xFFFFFFFFu, 0);
        // drop the placeholder and EmitNalUnit's closing 0x80
        return std::vector<uint8_t>(out.begin() + 4, out.begin() + o.bitPos / 8 - 1);
    }

private:
    std::vector<uint8_t> buf_ = std::vector<uint8_t>(4096);
    BitBuffer bb_{buf_.data(), 4096, 4096 * 8, 0};
};

using Words = std::vector<uint32_t>;
constexpr uint32_t kFailed = 0xFFFFFFFFu;

// A VPS with three sub-layers, ordering info for each, both level flags set.
std::vector<uint8_t> threeSubLayerVps() {
    UnitBuilder v(32);
    v.u(4, 0).u(2, 3).u(6, 0).u(3, 2).u(1, 0).u(16, 0xFFFF).generalPtl();
    v.u(1, 0).u(1, 1).u(1, 0).u(1, 1);        // profile/level present flags of sub-layers 0 and 1
    for (int i = 2; i < 8; ++i) v.u(2, 0);    // reserved_zero_2bits
    v.u(8, 30).u(8, 45);                      // sub_layer_level_idc[0], [1]
    v.u(1, 1);                                // vps_sub_layer_ordering_info_present_flag
    for (uint32_t i = 0; i < 3; ++i) v.ue(i + 1).ue(i).ue(i + 5);
    v.u(6, 0).ue(0).u(1, 0).u(1, 0);          // max_layer_id, layer sets, timing, extension
    return v.bytes();
}

// An SPS with the given sub-layers and short-term sets; long-term pictures.
UnitBuilder spsHead(uint32_t maxSubLayersMinus1, bool ordering) {
    UnitBuilder s(33);
    s.u(4, 0).u(3, maxSubLayersMinus1).u(1, 1).generalPtl();
    if (maxSubLayersMinus1) s.u(16, 0);  // no sub-layer profile or level, then the reserved bits
    s.ue(0).ue(1).ue(64).ue(64).u(1, 0).ue(0).ue(0).ue(4).u(1, ordering);
    for (uint32_t i = ordering ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1; ++i) s.ue(10 + i).ue(20 + i).ue(30 + i);
    s.ue(0).ue(3).ue(0).ue(3).ue(1).ue(1).u(1, 0).u(1, 0).u(1, 1).u(1, 0);  // block sizes ... pcm
    return s;
}

std::vector<uint8_t> spsTail(UnitBuilder& s) {
    s.u(1, 1).ue(2).u(8, 17).u(1, 1).u(8, 200).u(1, 0);  // two long-term pictures (lsb 8 bits)
    s.u(1, 1).u(1, 1).u(1, 0).u(1, 0);                  // tmvp, smoothing, no VUI, no extension
    return s.bytes();
}

}  // namespace

TEST(HevcVpsReader, KeepsOneOrderingTripleAndOneLevel) {
    HevcVpsRecord vps{}, again{};
    vps.ptl.sub_layer_level_idc[1] = again.ptl.sub_layer_level_idc[1] = 0xAAAA;
    LogCapture log;
    ASSERT_NE(readUnit(qnvutilRead_HEVC_VPS, threeSubLayerVps(), &vps), kFailed);
    EXPECT_TRUE(log.lines.empty());
    // Sub-layer 2's triple; entry 0's flag governs every sub-layer and every
    // level lands in entry 0.
    EXPECT_EQ(Words({vps.vps_max_dec_pic_buffering_minus1, vps.vps_max_num_reorder_pics,
                     vps.vps_max_latency_increase_plus1, vps.ptl.sub_layer_level_idc[0], vps.ptl.sub_layer_level_idc[1]}),
              Words({3, 2, 7, 45, 0xAAAA}));
    // The writer repeats the kept triple and level for every sub-layer.
    ASSERT_NE(readUnit(qnvutilRead_HEVC_VPS, written(qnvutilWrite_HEVC_VPS, vps), &again), kFailed);
    EXPECT_EQ(std::memcmp(&vps, &again, sizeof vps), 0);
}

TEST(HevcVpsReader, FailurePaths) {
    LogCapture log;
    HevcVpsRecord vps{};
    BitBuffer used{};
    UnitBuilder head = spsHead(0, false);
    head.ue(0);
    EXPECT_EQ(readUnit(qnvutilRead_HEVC_VPS, spsTail(head), &vps, nullptr, &used), kFailed);
    EXPECT_EQ(used.bitPos, 7u);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], "Not a vps NAL qnvutil/qnvvidutil " + log.lines[0].substr(log.lines[0].rfind(' ') + 1));

    std::vector<uint8_t> unit = threeSubLayerVps();
    unit[2] &= ~0x04;  // vps_base_layer_internal_flag
    EXPECT_EQ(readUnit(qnvutilRead_HEVC_VPS, unit, &vps, nullptr, &used), kFailed);
    EXPECT_EQ(used.bitPos, 22u);
    unit = threeSubLayerVps();
    unit[5] = 0xFE;  // vps_reserved_0xffff_16bits
    EXPECT_EQ(readUnit(qnvutilRead_HEVC_VPS, unit, &vps, nullptr, &used), kFailed);
    EXPECT_EQ(used.bitPos, 48u);
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[2].rfind("Vps Reserved bits incorrect qnvutil/qnvvidutil ", 0), 0u);

    HevcPpsRecord pps{};
    EXPECT_EQ(readUnit(qnvutilRead_HEVC_PPS, unit, &pps), kFailed);
    EXPECT_EQ(log.lines.back().rfind("Not a pps NAL (32) qnvutil/qnvvidutil ", 0), 0u);
    // Null record or empty reader: nothing at all.
    BitBuffer empty{unit.data(), 0, 64, 0}, whole{unit.data(), 6, 48, 0};
    EXPECT_EQ(qnvutilRead_HEVC_VPS(&empty, &vps, nullptr, 0), 0u);
    EXPECT_EQ(qnvutilRead_HEVC_VPS(&whole, nullptr, nullptr, 0), 0u);
}

TEST(HevcSpsReader, OrderingWordsLongTermPicturesAndConfigMerge) {
    HevcSpsRecord sps{};
    for (uint32_t& w : sps.sps_max_dec_pic_buffering_minus1) w = 0xAAAA;
    UnitBuilder s = spsHead(3, true);
    s.ue(0);  // no short-term sets
    HevcConfigRecord config{};
    config.numTemporalLayers = 2;
    config.general_level_idc = 90;
    LogCapture log;
    ASSERT_NE(readUnit(qnvutilRead_HEVC_SPS, spsTail(s), &sps, &config), kFailed);
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    // Sub-layer 3's triple in entry 0, the other entries untouched.
    EXPECT_EQ(Words({sps.sps_max_dec_pic_buffering_minus1[0], sps.sps_max_num_reorder_pics[0],
                     sps.sps_max_latency_increase_plus1}),
              Words({13, 23, 33}));
    EXPECT_EQ(Words(sps.sps_max_dec_pic_buffering_minus1 + 1, sps.sps_max_dec_pic_buffering_minus1 + 16), Words(15, 0xAAAA));
    EXPECT_EQ(Words({sps.num_long_term_ref_pics_sps, sps.lt_ref_pic_sps[0].lt_ref_pic_poc_lsb_sps,
                     sps.lt_ref_pic_sps[1].lt_ref_pic_poc_lsb_sps, sps.lt_ref_pic_sps[1].used_by_curr_pic_lt_sps_flag}),
              Words({2, 17, 200, 0}));
    // The larger level stays.
    EXPECT_EQ(Words({config.numTemporalLayers, config.general_level_idc, config.general_profile_idc,
                     config.general_profile_compatibility_flags, config.general_constraint_indicator_flags_hi,
                     config.temporalIdNested, config.chromaFormat}),
              Words({4, 90, 1, 0x60000000, 0x9000, 1, 1}));

    // A single sub-layer stores its triple at entry 0 as well.
    HevcSpsRecord one{};
    UnitBuilder s0 = spsHead(0, false);
    s0.ue(0);
    ASSERT_NE(readUnit(qnvutilRead_HEVC_SPS, spsTail(s0), &one), kFailed);
    EXPECT_EQ(Words({one.sps_max_dec_pic_buffering_minus1[0], one.sps_max_latency_increase_plus1}), Words({10, 30}));
}

TEST(HevcSpsReader, ShortTermSetsFollowTheSettledDepartures) {
    // Set 0 explicit (2 negative, 1 positive); set 1 predicted from set 0
    // without delta_idx_minus1 and with three flag pairs (the standard has
    // four); set 2, the last, predicted with delta_idx_minus1 = 1 (from set 0).
    UnitBuilder s = spsHead(0, false);
    s.ue(3);
    s.ue(2).ue(1).ue(0).u(1, 1).ue(1).u(1, 0).ue(3).u(1, 1);
    s.u(1, 1).u(1, 1).ue(4).u(1, 1).u(1, 0).u(1, 1).u(1, 1);
    s.u(1, 1).ue(1).u(1, 0).ue(0).u(1, 0).u(1, 0).u(1, 1).u(1, 0).u(1, 1);
    HevcSpsRecord sps{};
    LogCapture log;
    ASSERT_NE(readUnit(qnvutilRead_HEVC_SPS, spsTail(s), &sps), kFailed);
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    const HevcShortTermRefPicSet &s0 = sps.st_ref_pic_set[0], &s1 = sps.st_ref_pic_set[1], &s2 = sps.st_ref_pic_set[2];
    EXPECT_EQ(Words({s0.num_negative_pics, s0.delta_poc_s0_minus1[1], s0.used_by_curr_pic_s0_flag[1],
                     s0.delta_poc_s1_minus1[0]}),
              Words({2, 1, 0, 3}));
    // Set 1: num_negative_pics not derived; use_delta_flag[0] left alone, its used flag being 1.
    EXPECT_EQ(Words({s1.inter_ref_pic_set_prediction_flag, s1.delta_rps_sign, s1.abs_delta_rps_minus1,
                     s1.num_negative_pics, s1.used_by_curr_pic_flag[1], s1.use_delta_flag[1], s1.use_delta_flag[0]}),
              Words({1, 1, 4, 0, 0, 1, 0}));
    EXPECT_EQ(Words({s2.used_by_curr_pic_flag[0], s2.use_delta_flag[0], s2.used_by_curr_pic_flag[2],
                     s2.use_delta_flag[2], sps.num_long_term_ref_pics_sps}),
              Words({0, 0, 0, 1, 2}));

    // Written back as read: delta_idx_minus1 becomes 0, so set 2 now takes
    // set 1 (no pictures) as its reference and carries no pairs.
    HevcSpsRecord again{};
    ASSERT_NE(readUnit(qnvutilRead_HEVC_SPS, written(qnvutilWrite_HEVC_SPS, sps), &again), kFailed);
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    EXPECT_EQ(std::memcmp(&again.st_ref_pic_set[0], &sps.st_ref_pic_set[0], 2 * sizeof sps.st_ref_pic_set[0]), 0);
    EXPECT_EQ(Words({again.st_ref_pic_set[2].used_by_curr_pic_flag[2], again.num_long_term_ref_pics_sps}), Words({0, 2}));
}

TEST(HevcSpsReader, SetCountLimitAndUnescapeStart) {
    LogCapture log;
    for (uint32_t count : {64u, 65u}) {
        UnitBuilder s = spsHead(0, false);
        s.ue(count);
        for (uint32_t i = 0; i < count; ++i) (i ? s.u(1, 0) : s).ue(0).ue(0);
        const std::vector<uint8_t> unit = spsTail(s);
        HevcSpsRecord sps{};
        BitBuffer used{};
        const uint32_t r = readUnit(qnvutilRead_HEVC_SPS, unit, &sps, nullptr, &used);
        if (count == 64) {
            EXPECT_NE(r, kFailed);
            EXPECT_EQ(sps.num_short_term_ref_pic_sets, 64u);
        } else {
            EXPECT_EQ(r, kFailed);
            EXPECT_LT(used.bitPos, unit.size() * 8);  // the position reached, not advanced
        }
    }
    EXPECT_TRUE(log.lines.empty());
    // 00 00 03 starting at byte 2 stays: the 03 is read as data.
    HevcSpsRecord sps{};
    readUnit(qnvutilRead_HEVC_SPS, {0x42, 0x01, 0x00, 0x00, 0x03, 0x03, 0x11, 0x22, 0x33, 0x80}, &sps);
    EXPECT_EQ(sps.ptl.general_profile_compatibility_flags >> 16, 0x0303u);
}

TEST(HevcPpsReader, ParallelismTypeAndTrailingData) {
    const uint32_t expected[2][2] = {{1, 2}, {3, 0}};
    for (uint32_t wpp = 0; wpp < 2; ++wpp) {
        for (uint32_t tiles = 0; tiles < 2; ++tiles) {
            HevcPpsRecord pps{}, again{};
            pps.tiles_enabled_flag = tiles;
            pps.entropy_coding_sync_enabled_flag = wpp;
            pps.num_tile_columns_minus1 = 3;
            pps.column_width_minus1 = 2;
            pps.init_qp_minus26 = 5;  // written as standard se(v)
            pps.pps_cb_qp_offset = static_cast<uint32_t>(-3);
            HevcConfigRecord config{};
            config.parallelismType = 7;
            ASSERT_NE(readUnit(qnvutilRead_HEVC_PPS, written(qnvutilWrite_HEVC_PPS, pps), &again, &config), kFailed);
            EXPECT_EQ(config.parallelismType, expected[wpp][tiles]);
            EXPECT_EQ(Words({again.init_qp_minus26, again.pps_cb_qp_offset}), Words({5, static_cast<uint32_t>(-3)}));
            EXPECT_TRUE(!tiles || std::memcmp(&again, &pps, sizeof pps) == 0);
        }
    }
    // Two bytes after the unit: the record is filled, the mismatch logged
    // with the bits that follow, and the result counts them.
    HevcPpsRecord pps{};
    std::vector<uint8_t> unit = written(qnvutilWrite_HEVC_PPS, pps);
    const size_t plain = unit.size();
    unit.insert(unit.end(), {0x12, 0x34});
    LogCapture log;
    EXPECT_EQ(readUnit(qnvutilRead_HEVC_PPS, unit, &pps), plain + 2);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_NE(log.lines[0].find("qnvutilRead_HEVC_PPS failed bit length is wrong = 1 padding = 0 current bit " +
                                std::to_string(plain * 8) + " bit length " + std::to_string(unit.size() * 8) +
                                " 0x00001234 0x00000000"),
              std::string::npos)
        << log.lines[0];
}

// Arbitrary unit bodies: reading, writing and reading again must settle on
// a record that the writer reproduces exactly.
TEST(HevcWriters, RoundTripOfArbitraryUnitsIsStable) {
    std::mt19937 rng(11);
    LogCapture log;  // silence the readers' complaints
    for (int round = 0; round < 5000; ++round) {
        const uint32_t type = 32 + round % 3;
        std::vector<uint8_t> unit(2 + rng() % 60);
        for (auto& b : unit) b = static_cast<uint8_t>(rng() % 3 == 0 ? 0 : rng());
        unit[0] = static_cast<uint8_t>(type << 1);
        unit[1] = 1;
        if (type == 32 && unit.size() > 5) unit[2] |= 0x0C, unit[4] = unit[5] = 0xFF;
        auto check = [&](auto read, auto write, auto& r1, auto& r2, auto& r3) {
            if (readUnit(read, unit, &r1) == kFailed) return;
            const std::vector<uint8_t> out1 = written(write, r1);
            ASSERT_GT(out1.size(), 0u);
            // The SPS and PPS readers leave an escape that starts in bytes 0-2
            // (settled), so a unit beginning 00 00 after its header cannot
            // read back; only profile_idc 0 or large PPS ids lead there.
            if (type != 32 && out1[2] == 0 && out1[3] == 0) return;
            ASSERT_NE(readUnit(read, out1, &r2), kFailed);
            const std::vector<uint8_t> out2 = written(write, r2);
            ASSERT_NE(readUnit(read, out2, &r3), kFailed);
            ASSERT_EQ(std::memcmp(&r2, &r3, sizeof r2), 0) << "type " << type << ", round " << round;
            ASSERT_EQ(out1, out2) << "round " << round;
        };
        if (type == 32) {
            HevcVpsRecord a{}, b{}, c{};
            check(qnvutilRead_HEVC_VPS, qnvutilWrite_HEVC_VPS, a, b, c);
        } else if (type == 33) {
            static HevcSpsRecord a, b, c;
            a = b = c = HevcSpsRecord{};
            check(qnvutilRead_HEVC_SPS, qnvutilWrite_HEVC_SPS, a, b, c);
        } else {
            HevcPpsRecord a{}, b{}, c{};
            check(qnvutilRead_HEVC_PPS, qnvutilWrite_HEVC_PPS, a, b, c);
        }
    }
}
