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
    explicit UnitBuilder(uint32_t type) {
        u(32, 1);  // placeholder for EmitNalUnit
        u(1, 0);
        u(6, type);
        u(6, 0);
        u(3, 1);
    }
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
    // Closes with rbsp_trailing_bits (and `extra` bytes after them).
    std::vector<uint8_t> bytes(std::vector<uint8_t> extra = {}) {
        u(1, 1);
        while (bb_.bitPos % 8) u(1, 0);
        for (uint8_t b : extra) u(8, b);
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

template <class Record>
uint32_t readInto(uint32_t (*read)(BitBuffer*, Record*, HevcConfigRecord*, uint32_t), const std::vector<uint8_t>& unit,
                  Record* record, HevcConfigRecord* config = nullptr, BitBuffer* used = nullptr) {
    Bytes b{unit};
    b.data.push_back(0);
    BitBuffer bb = b.reader();
    bb.sizeBits = static_cast<uint32_t>(unit.size() * 8);
    uint32_t r = read(&bb, record, config, 0);
    if (used) *used = bb;
    return r;
}

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
    if (maxSubLayersMinus1) {
        for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) s.u(2, 0);
        for (uint32_t i = maxSubLayersMinus1; i < 8; ++i) s.u(2, 0);
    }
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
    HevcVpsRecord vps{};
    vps.ptl.sub_layer_level_idc[1] = 0xAAAA;
    LogCapture log;
    std::vector<uint8_t> unit = threeSubLayerVps();
    ASSERT_NE(readInto(qnvutilRead_HEVC_VPS, unit, &vps), 0xFFFFFFFFu);
    EXPECT_TRUE(log.lines.empty());
    EXPECT_EQ(vps.vps_max_dec_pic_buffering_minus1, 3u);  // sub-layer 2's values
    EXPECT_EQ(vps.vps_max_num_reorder_pics, 2u);
    EXPECT_EQ(vps.vps_max_latency_increase_plus1, 7u);
    // Entry 0's flag governs every sub-layer and every level lands in entry 0.
    EXPECT_EQ(vps.ptl.sub_layer_level_idc[0], 45u);
    EXPECT_EQ(vps.ptl.sub_layer_level_idc[1], 0xAAAAu);

    // The writer repeats the kept triple and level for every sub-layer.
    std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
    out.resize(qnvutilWrite_HEVC_VPS(&vps, out.data()));
    HevcVpsRecord again{};
    again.ptl.sub_layer_level_idc[1] = 0xAAAA;
    ASSERT_NE(readInto(qnvutilRead_HEVC_VPS, out, &again), 0xFFFFFFFFu);
    EXPECT_EQ(std::memcmp(&vps, &again, sizeof vps), 0);
}

TEST(HevcVpsReader, FailurePaths) {
    LogCapture log;
    HevcVpsRecord vps{};
    BitBuffer used{};
    UnitBuilder head = spsHead(0, false);
    head.ue(0);
    std::vector<uint8_t> sps = spsTail(head);
    EXPECT_EQ(readInto(qnvutilRead_HEVC_VPS, sps, &vps, nullptr, &used), 0xFFFFFFFFu);
    EXPECT_EQ(used.bitPos, 7u);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], "Not a vps NAL qnvutil/qnvvidutil " + log.lines[0].substr(log.lines[0].rfind(' ') + 1));

    std::vector<uint8_t> vpsUnit = threeSubLayerVps();
    vpsUnit[2] &= ~0x04;  // vps_base_layer_internal_flag
    EXPECT_EQ(readInto(qnvutilRead_HEVC_VPS, vpsUnit, &vps, nullptr, &used), 0xFFFFFFFFu);
    EXPECT_EQ(used.bitPos, 22u);
    vpsUnit = threeSubLayerVps();
    vpsUnit[5] = 0xFE;  // vps_reserved_0xffff_16bits
    EXPECT_EQ(readInto(qnvutilRead_HEVC_VPS, vpsUnit, &vps, nullptr, &used), 0xFFFFFFFFu);
    EXPECT_EQ(used.bitPos, 48u);
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[2].rfind("Vps Reserved bits incorrect qnvutil/qnvvidutil ", 0), 0u);

    HevcPpsRecord pps{};
    EXPECT_EQ(readInto(qnvutilRead_HEVC_PPS, vpsUnit, &pps), 0xFFFFFFFFu);
    EXPECT_EQ(log.lines.back().rfind("Not a pps NAL (32) qnvutil/qnvvidutil ", 0), 0u);
    // Null record or empty reader: nothing at all.
    BitBuffer empty{vpsUnit.data(), 0, 64, 0};
    EXPECT_EQ(qnvutilRead_HEVC_VPS(&empty, &vps, nullptr, 0), 0u);
    EXPECT_EQ(qnvutilRead_HEVC_VPS(&used, nullptr, nullptr, 0), 0u);
}

TEST(HevcSpsReader, OrderingWordsLongTermPicturesAndConfigMerge) {
    HevcSpsRecord sps{};
    for (uint32_t& w : sps.sps_max_dec_pic_buffering_minus1) w = 0xAAAA;
    UnitBuilder s = spsHead(3, true);
    s.ue(0);  // no short-term sets
    std::vector<uint8_t> unit = spsTail(s);
    HevcConfigRecord config{};
    config.numTemporalLayers = 2;
    config.general_level_idc = 90;
    LogCapture log;
    ASSERT_NE(readInto(qnvutilRead_HEVC_SPS, unit, &sps, &config), 0xFFFFFFFFu);
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    EXPECT_EQ(sps.sps_max_dec_pic_buffering_minus1[0], 13u);  // sub-layer 3
    EXPECT_EQ(sps.sps_max_num_reorder_pics[0], 23u);
    EXPECT_EQ(sps.sps_max_latency_increase_plus1, 33u);
    for (int i = 1; i < 16; ++i) EXPECT_EQ(sps.sps_max_dec_pic_buffering_minus1[i], 0xAAAAu);
    EXPECT_EQ(sps.num_long_term_ref_pics_sps, 2u);
    EXPECT_EQ(sps.lt_ref_pic_sps[0].lt_ref_pic_poc_lsb_sps, 17u);
    EXPECT_EQ(sps.lt_ref_pic_sps[1].lt_ref_pic_poc_lsb_sps, 200u);
    EXPECT_EQ(sps.lt_ref_pic_sps[1].used_by_curr_pic_lt_sps_flag, 0u);
    EXPECT_EQ(config.numTemporalLayers, 4u);
    EXPECT_EQ(config.general_level_idc, 90u);  // the larger stays
    EXPECT_EQ(config.general_profile_idc, 1u);
    EXPECT_EQ(config.general_profile_compatibility_flags, 0x60000000u);
    EXPECT_EQ(config.general_constraint_indicator_flags_hi, 0x9000u);
    EXPECT_EQ(config.temporalIdNested, 1u);
    EXPECT_EQ(config.chromaFormat, 1u);

    // A single sub-layer stores its triple at entry 0 as well.
    HevcSpsRecord one{};
    UnitBuilder s0 = spsHead(0, false);
    s0.ue(0);
    ASSERT_NE(readInto(qnvutilRead_HEVC_SPS, spsTail(s0), &one), 0xFFFFFFFFu);
    EXPECT_EQ(one.sps_max_dec_pic_buffering_minus1[0], 10u);
    EXPECT_EQ(one.sps_max_latency_increase_plus1, 30u);
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
    std::vector<uint8_t> unit = spsTail(s);
    HevcSpsRecord sps{};
    LogCapture log;
    ASSERT_NE(readInto(qnvutilRead_HEVC_SPS, unit, &sps), 0xFFFFFFFFu);
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    const HevcShortTermRefPicSet& s0 = sps.st_ref_pic_set[0];
    EXPECT_EQ(s0.num_negative_pics, 2u);
    EXPECT_EQ(s0.delta_poc_s0_minus1[1], 1u);
    EXPECT_EQ(s0.used_by_curr_pic_s0_flag[1], 0u);
    EXPECT_EQ(s0.delta_poc_s1_minus1[0], 3u);
    const HevcShortTermRefPicSet& s1 = sps.st_ref_pic_set[1];
    EXPECT_EQ(s1.inter_ref_pic_set_prediction_flag, 1u);
    EXPECT_EQ(s1.delta_rps_sign, 1u);
    EXPECT_EQ(s1.abs_delta_rps_minus1, 4u);
    EXPECT_EQ(s1.num_negative_pics, 0u);  // not derived
    EXPECT_EQ(s1.used_by_curr_pic_flag[1], 0u);
    EXPECT_EQ(s1.use_delta_flag[1], 1u);
    EXPECT_EQ(s1.use_delta_flag[0], 0u);  // left alone: its used flag was 1
    const HevcShortTermRefPicSet& s2 = sps.st_ref_pic_set[2];
    EXPECT_EQ(s2.used_by_curr_pic_flag[0], 0u);
    EXPECT_EQ(s2.use_delta_flag[0], 0u);
    EXPECT_EQ(s2.used_by_curr_pic_flag[2], 0u);
    EXPECT_EQ(s2.use_delta_flag[2], 1u);
    EXPECT_EQ(sps.num_long_term_ref_pics_sps, 2u);

    // Written back as read: delta_idx_minus1 becomes 0, so set 2 now takes
    // set 1 (no pictures) as its reference and carries no pairs.
    std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
    out.resize(qnvutilWrite_HEVC_SPS(&sps, out.data()));
    HevcSpsRecord again{};
    ASSERT_NE(readInto(qnvutilRead_HEVC_SPS, out, &again), 0xFFFFFFFFu);
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    EXPECT_EQ(std::memcmp(&again.st_ref_pic_set[0], &sps.st_ref_pic_set[0], 2 * sizeof sps.st_ref_pic_set[0]), 0);
    EXPECT_EQ(again.st_ref_pic_set[2].used_by_curr_pic_flag[2], 0u);
    EXPECT_EQ(again.num_long_term_ref_pics_sps, 2u);
}

TEST(HevcSpsReader, SetCountLimitAndUnescapeStart) {
    for (uint32_t count : {64u, 65u}) {
        UnitBuilder s = spsHead(0, false);
        s.ue(count);
        for (uint32_t i = 0; i < count; ++i) {
            if (i) s.u(1, 0);
            s.ue(0).ue(0);
        }
        std::vector<uint8_t> unit = spsTail(s);
        HevcSpsRecord sps{};
        LogCapture log;
        BitBuffer used{};
        uint32_t r = readInto(qnvutilRead_HEVC_SPS, unit, &sps, nullptr, &used);
        EXPECT_TRUE(log.lines.empty());
        if (count == 64) {
            EXPECT_NE(r, 0xFFFFFFFFu);
            EXPECT_EQ(sps.num_short_term_ref_pic_sets, 64u);
        } else {
            EXPECT_EQ(r, 0xFFFFFFFFu);
            EXPECT_LT(used.bitPos, unit.size() * 8);  // the position reached, not advanced
        }
    }
    // 00 00 03 starting at byte 2 stays: the 03 is read as data.
    const std::vector<uint8_t> unit = {0x42, 0x01, 0x00, 0x00, 0x03, 0x03, 0x11, 0x22, 0x33, 0x80};
    HevcSpsRecord sps{};
    LogCapture log;
    readInto(qnvutilRead_HEVC_SPS, unit, &sps);
    EXPECT_EQ(sps.ptl.general_profile_compatibility_flags >> 16, 0x0303u);
}

TEST(HevcPpsReader, ParallelismTypeAndTrailingData) {
    const uint32_t expected[2][2] = {{1, 2}, {3, 0}};
    for (uint32_t wpp = 0; wpp < 2; ++wpp) {
        for (uint32_t tiles = 0; tiles < 2; ++tiles) {
            HevcPpsRecord pps{};
            pps.tiles_enabled_flag = tiles;
            pps.entropy_coding_sync_enabled_flag = wpp;
            pps.num_tile_columns_minus1 = 3;
            pps.column_width_minus1 = 2;
            pps.init_qp_minus26 = 5;                       // written as standard se(v)
            pps.pps_cb_qp_offset = static_cast<uint32_t>(-3);
            std::vector<uint8_t> unit(QNV_HEVC_PS_MAX_BYTES);
            unit.resize(qnvutilWrite_HEVC_PPS(&pps, unit.data()));
            HevcPpsRecord again{};
            HevcConfigRecord config{};
            config.parallelismType = 7;
            ASSERT_NE(readInto(qnvutilRead_HEVC_PPS, unit, &again, &config), 0xFFFFFFFFu);
            EXPECT_EQ(config.parallelismType, expected[wpp][tiles]);
            EXPECT_EQ(again.init_qp_minus26, 5u);
            EXPECT_EQ(static_cast<int32_t>(again.pps_cb_qp_offset), -3);
            if (tiles) {
                EXPECT_EQ(std::memcmp(&again, &pps, sizeof pps), 0);
            }
        }
    }
    // Two bytes after the unit: the record is filled, the mismatch logged
    // with the bits that follow, and the result counts them.
    HevcPpsRecord pps{};
    std::vector<uint8_t> unit(QNV_HEVC_PS_MAX_BYTES);
    unit.resize(qnvutilWrite_HEVC_PPS(&pps, unit.data()));
    const size_t plain = unit.size();
    unit.push_back(0x12);
    unit.push_back(0x34);
    LogCapture log;
    HevcPpsRecord again{};
    EXPECT_EQ(readInto(qnvutilRead_HEVC_PPS, unit, &again), plain + 2);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_NE(log.lines[0].find("qnvutilRead_HEVC_PPS failed bit length is wrong = 1 padding = 0 current bit " +
                                std::to_string(plain * 8) + " bit length " + std::to_string(unit.size() * 8) +
                                " 0x00001234 0x00000000"),
              std::string::npos)
        << log.lines[0];
}

TEST(HevcWriters, InterlaceEditsReadBack) {
    std::vector<uint8_t> data = readFixture("main.265");
    for (const Unit& u : annexBUnits(data)) {
        if (u.type() != 33) continue;
        HevcSpsRecord sps{};
        ASSERT_NE(readInto(qnvutilRead_HEVC_SPS, u.bytes, &sps), 0xFFFFFFFFu);
        sps.ptl.general_progressive_source_flag = 0;
        sps.ptl.general_interlaced_source_flag = 1;
        sps.ptl.general_frame_only_constraint_flag = 0;
        sps.vui_parameters_present_flag = 1;
        sps.aspect_ratio_info_present_flag = 1;
        sps.aspect_ratio_idc = 255;
        sps.sar_width = 1;
        sps.sar_height = 2;
        sps.field_seq_flag = 1;
        sps.frame_field_info_present_flag = 1;
        sps.conformance_window_flag = 1;
        sps.conf_win_bottom_offset = 2;
        std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
        out.resize(qnvutilWrite_HEVC_SPS(&sps, out.data()));
        HevcSpsRecord again{};
        LogCapture log;
        ASSERT_NE(readInto(qnvutilRead_HEVC_SPS, out, &again), 0xFFFFFFFFu);
        EXPECT_TRUE(log.lines.empty());
        // The 48-bit copy follows the edited flags.
        sps.ptl.general_constraint_flags_hi = (sps.ptl.general_constraint_flags_hi & 0x0FFF) | 0x4000;
        EXPECT_EQ(std::memcmp(&sps, &again, sizeof sps), 0);
        return;
    }
    FAIL() << "no SPS";
}

// Arbitrary unit bodies: reading, writing and reading again must settle on
// a record that the writer reproduces exactly.
TEST(HevcWriters, RoundTripOfArbitraryUnitsIsStable) {
    std::mt19937 rng(11);
    LogCapture log;  // silence the readers' complaints
    std::vector<uint8_t> out1(QNV_HEVC_PS_MAX_BYTES), out2(QNV_HEVC_PS_MAX_BYTES);
    for (int round = 0; round < 5000; ++round) {
        const uint32_t type = 32 + round % 3;
        std::vector<uint8_t> unit(2 + rng() % 60);
        for (auto& b : unit) b = static_cast<uint8_t>(rng() % 3 == 0 ? 0 : rng());
        unit[0] = static_cast<uint8_t>(type << 1);
        unit[1] = 1;
        if (type == 32 && unit.size() > 5) unit[2] |= 0x0C, unit[4] = unit[5] = 0xFF;
        auto check = [&](auto read, auto write, auto& r1, auto& r2, auto& r3) {
            if (readInto(read, unit, &r1) == 0xFFFFFFFFu) return;
            const uint32_t n1 = write(&r1, out1.data());
            ASSERT_GT(n1, 0u);
            // The SPS and PPS readers leave an escape that starts in bytes 0-2
            // (settled), so a unit beginning 00 00 after its header cannot
            // read back; only profile_idc 0 or large PPS ids lead there.
            if (type != 32 && out1[2] == 0 && out1[3] == 0) return;
            ASSERT_NE(readInto(read, std::vector<uint8_t>(out1.begin(), out1.begin() + n1), &r2), 0xFFFFFFFFu);
            const uint32_t n2 = write(&r2, out2.data());
            ASSERT_NE(readInto(read, std::vector<uint8_t>(out2.begin(), out2.begin() + n2), &r3), 0xFFFFFFFFu);
            if (std::memcmp(&r2, &r3, sizeof r2) != 0) {
                const uint32_t* w2 = reinterpret_cast<const uint32_t*>(&r2);
                const uint32_t* w3 = reinterpret_cast<const uint32_t*>(&r3);
                for (size_t k = 0; k < sizeof r2 / 4; ++k)
                    if (w2[k] != w3[k]) ADD_FAILURE() << "type " << type << " word " << k << ": " << w2[k] << " vs " << w3[k];
            }
            ASSERT_EQ(std::memcmp(&r2, &r3, sizeof r2), 0) << "round " << round;
            ASSERT_EQ(n1, n2) << "round " << round;
            ASSERT_EQ(std::memcmp(out1.data(), out2.data(), n1), 0) << "round " << round;
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
