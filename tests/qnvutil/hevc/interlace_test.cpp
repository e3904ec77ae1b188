// qnvutilSetFrameInterlaced on x265 access units and hand-edited parameter
// sets: the field-pair edits of both SPS forms, the pic_timing SEI of each
// field, the timing messages it replaces, and the destination's bounds.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "tests/qnvutil/hevc/hevc_test_util.h"

using namespace hevctest;
using Data = std::vector<uint8_t>;

namespace {

constexpr uint32_t kPair = HEVC_FRAME_FIRST_FIELD | HEVC_FRAME_SECOND_FIELD;
constexpr uint8_t kCanary = 0xA5;
const Data kTopField = {0x4E, 0x01, 0x01, 0x01, 0xB1, 0x80};     // pic_timing: pic_struct 11, then 00 0
const Data kBottomField = {0x4E, 0x01, 0x01, 0x01, 0xA1, 0x80};  // pic_struct 10

Data withStartCode(const Data& unit, size_t length = 4) {
    Data d(length, 0);
    d.back() = 1;
    return cat({d, unit});
}
std::vector<Data> unitsOf(const Data& stream) {
    std::vector<Data> out;
    for (const Unit& u : annexBUnits(stream)) out.push_back(u.bytes);
    return out;
}
// The units of an x265 fixture, each with its 4-byte start code.
std::vector<Data> fixture(const std::string& name) {
    std::vector<Data> units = unitsOf(readFixture(name));
    for (Data& u : units) u = withStartCode(u);
    return units;
}

struct Result {
    uint32_t status;
    Data out;
};

// Runs the rewrite into a destination of `capacity` bytes (default: room to
// spare) followed by canary bytes that must stay untouched.
Result interlace(const Data& frame, uint32_t flags, uint32_t secondField, HevcSpsRecord* sps = nullptr,
                 int64_t capacity = -1) {
    DFrame src{};
    src.frameData = const_cast<uint8_t*>(frame.data());
    src.frameSize = src.frameCapacity = static_cast<uint32_t>(frame.size());
    src.frameFlags = flags;
    src.secondFieldOffset = secondField;
    const uint32_t room = capacity < 0 ? static_cast<uint32_t>(frame.size() + 1024) : static_cast<uint32_t>(capacity);
    Data buffer(room + 64, kCanary);
    DFrame dst{};
    dst.frameData = buffer.data();
    dst.frameCapacity = room;
    dst.frameSize = 777;
    const uint32_t status = qnvutilSetFrameInterlaced(&src, &dst, sps);
    for (uint32_t i = room; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], kCanary) << "byte " << i << " past capacity";
    return {status, Data(buffer.begin(), buffer.begin() + dst.frameSize)};
}

template <class Record>
std::unique_ptr<Record> parse(uint32_t (*read)(BitBuffer*, Record*, HevcConfigRecord*, uint32_t), const Data& unit) {
    auto record = std::make_unique<Record>();
    EXPECT_NE(readUnit(read, unit, record.get()), 0xFFFFFFFFu);
    return record;
}
std::unique_ptr<HevcSpsRecord> readSps(const Data& unit) { return parse(qnvutilRead_HEVC_SPS, unit); }
std::vector<uint32_t> sourceFlags(const HevcProfileTierLevel& p) {
    return {p.general_progressive_source_flag, p.general_interlaced_source_flag,
            p.general_non_packed_constraint_flag, p.general_frame_only_constraint_flag};
}
const std::vector<uint32_t> kInterlacedSource = {0, 1, 0, 0};

class Interlace : public ::testing::Test {
protected:
    LogCapture log;
    // main.265: VPS, SPS, PPS, IDR | TRAIL_R | TRAIL_N
    std::vector<Data> main = fixture("main.265");
    Data firstField = cat({main[0], main[1], main[2], main[3]});
    Data pair = cat({firstField, main[4]});
    uint32_t second = static_cast<uint32_t>(firstField.size());
};

TEST_F(Interlace, FrameWithoutBothFieldFlagsIsCopiedAsItStands) {
    // x265's parameter sets write back byte for byte; a 3-byte start code stays.
    const Data frame = cat({withStartCode(unitsOf(main[0])[0], 3), main[1], main[2], main[3], main[4]});
    for (uint32_t flags : {0u, HEVC_FRAME_FIRST_FIELD, HEVC_FRAME_SECOND_FIELD}) {
        const Result r = interlace(frame, flags, second);
        EXPECT_EQ(r.status, HEVC_INTERLACE_OK);
        EXPECT_EQ(r.out, frame);
    }
    // Bytes outside units are left behind: leading garbage, an extra zero, a short tail.
    const Result r = interlace(cat({{0x12, 0x00}, main[0], {0x00}, main[3], {0x00, 0x00, 0x00}}), 0, 0);
    EXPECT_EQ(r.out, cat({main[0], main[3]}));
}

TEST_F(Interlace, FieldPairGetsFieldSignallingAndOnePicTimingPerField) {
    const Result r = interlace(pair, kPair, second);
    ASSERT_EQ(r.status, HEVC_INTERLACE_OK);
    const std::vector<Data> in = unitsOf(pair), out = unitsOf(r.out);
    ASSERT_EQ(out.size(), 7u);  // VPS, SPS, then as follows:
    EXPECT_EQ(std::vector<Data>(out.begin() + 2, out.end()),
              std::vector<Data>({in[2], kTopField, in[3], kBottomField, in[4]}));

    const std::unique_ptr<HevcSpsRecord> before = readSps(in[1]), sps = readSps(out[1]);
    EXPECT_EQ(sourceFlags(parse(qnvutilRead_HEVC_VPS, out[0])->ptl), kInterlacedSource);
    EXPECT_EQ(sourceFlags(sps->ptl), kInterlacedSource);
    // VUI, Extended_SAR 1:2, field_seq_flag, frame_field_info_present_flag,
    // no HRD; no conformance window at 64x64
    EXPECT_EQ(std::vector<uint32_t>({sps->vui_parameters_present_flag, sps->aspect_ratio_idc, sps->sar_width,
                                     sps->sar_height, sps->field_seq_flag, sps->frame_field_info_present_flag,
                                     sps->vui_hrd_parameters_present_flag, sps->conformance_window_flag}),
              std::vector<uint32_t>({1, 255, 1, 2, 1, 1, 0, 0}));
    EXPECT_EQ(sps->vui_time_scale, before->vui_time_scale);

    // Rewriting the result again changes nothing: its VPS and SPS already say interlaced.
    EXPECT_EQ(interlace(r.out, kPair, static_cast<uint32_t>(r.out.size() - main[4].size() - 10)).out, r.out);
}

TEST_F(Interlace, ConformanceWindowCropsA1920x544FieldOnly) {
    const std::unique_ptr<HevcSpsRecord> base = readSps(unitsOf(main[1])[0]);
    struct Case {
        uint32_t width, height, window, bottom;
    } cases[] = {{1920, 544, 0, 2}, {1920, 1088, 0, 0}, {1280, 544, 0, 0}, {1920, 544, 1, 4}};
    for (const Case& c : cases) {
        HevcSpsRecord sps = *base;
        sps.pic_width_in_luma_samples = c.width;
        sps.pic_height_in_luma_samples = c.height;
        sps.conformance_window_flag = c.window;
        sps.conf_win_bottom_offset = c.window ? 4 : 0;
        const Data frame = cat({withStartCode(written(qnvutilWrite_HEVC_SPS, sps)), main[3]});
        const std::unique_ptr<HevcSpsRecord> out = readSps(unitsOf(interlace(frame, kPair, 0xFFFF).out)[0]);
        EXPECT_EQ(out->conformance_window_flag, c.bottom ? 1u : 0u) << c.width << "x" << c.height;
        EXPECT_EQ(out->conf_win_bottom_offset, c.bottom);
        EXPECT_EQ(out->conf_win_left_offset + out->conf_win_right_offset + out->conf_win_top_offset, 0u);
    }
}

TEST_F(Interlace, CallerRecordTakesItsOwnFormOfTheEdits) {
    std::unique_ptr<HevcSpsRecord> sps = readSps(unitsOf(main[1])[0]);
    sps->vui_parameters_present_flag = 0;
    sps->vui_hrd_parameters_present_flag = sps->nal_hrd_parameters_present_flag = 1;
    sps->au_cpb_removal_delay_length_minus1 = sps->dpb_output_delay_length_minus1 = 23;
    sps->pic_width_in_luma_samples = 1920;
    sps->pic_height_in_luma_samples = 544;
    const HevcSpsRecord untouched = *sps;
    interlace(pair, HEVC_FRAME_FIRST_FIELD, second, sps.get());
    EXPECT_EQ(std::memcmp(sps.get(), &untouched, sizeof untouched), 0) << "edited for a single field";

    const Result r = interlace(main[3], kPair, 0xFFFF, sps.get());
    EXPECT_EQ(r.out, cat({withStartCode(kTopField), main[3]}));
    // delay lengths 0, VUI flag kept, no HRD, field_seq_flag and
    // frame_field_info_present_flag, 1:2, conformance window
    EXPECT_EQ(std::vector<uint32_t>({sps->au_cpb_removal_delay_length_minus1, sps->dpb_output_delay_length_minus1,
                                     sps->vui_parameters_present_flag, sps->vui_hrd_parameters_present_flag,
                                     sps->nal_hrd_parameters_present_flag, sps->field_seq_flag,
                                     sps->frame_field_info_present_flag, sps->sar_height, sps->conf_win_bottom_offset}),
              std::vector<uint32_t>({0, 0, 0, 0, 0, 1, 1, 2, 2}));
    EXPECT_EQ(sourceFlags(sps->ptl), kInterlacedSource);
}

TEST_F(Interlace, ParameterSetsThatAlreadySayInterlacedAreWrittenBackUnchanged) {
    // x265 field coding: VPS and SPS say interlaced, each field has an active
    // parameter sets SEI and a pic_timing of pic_struct 1 or 2.
    const std::vector<Data> units = fixture("interlace.265");
    const Data frame = cat({units[0], units[1], units[2], units[3], units[4], units[5], units[6], units[7]});
    const Result r = interlace(frame, kPair, static_cast<uint32_t>(frame.size() - units[6].size() - units[7].size()));
    const Data expected = cat({units[0], units[1], units[2], units[3], withStartCode(kTopField), units[5],
                                withStartCode(kBottomField), units[7]});
    EXPECT_EQ(r.out, expected);
}

TEST_F(Interlace, TimingMessagesOfTheSourceGiveWayInFieldPairsOnly) {
    // hrd.265: VPS SPS PPS, SEI active parameter sets, SEI buffering period,
    // SEI pic_timing, IDR | SEI pic_timing, TRAIL_R
    const std::vector<Data> hrd = fixture("hrd.265");
    const Data frame = cat({hrd[0], hrd[1], hrd[2], hrd[3], hrd[4], hrd[5], hrd[6], hrd[7], hrd[8]});
    const uint32_t second = static_cast<uint32_t>(frame.size() - hrd[7].size() - hrd[8].size());
    const std::vector<Data> out = unitsOf(interlace(frame, kPair, second).out);
    ASSERT_EQ(out.size(), 8u);
    EXPECT_EQ(out[3], unitsOf(hrd[3])[0]);
    EXPECT_EQ(out[4], kTopField);
    EXPECT_EQ(out[6], kBottomField);
    EXPECT_EQ(readSps(out[1])->vui_hrd_parameters_present_flag, 0u);
    EXPECT_EQ(interlace(frame, 0, second).out, frame);

    // One unit with user data (ending in two zeros), a pic_timing and filler
    // data: the join of the two kept messages needs an emulation-prevention byte.
    const Data head = {0x00, 0x00, 0x01, 0x4E, 0x01, 0x05, 0x11, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const Data mixed = cat({head, {0x00, 0x00, 0x03, 0x01, 0x01, 0xB1, 0x03, 0x01, 0xFF, 0x80}});
    const Data kept = cat({head, {0x00, 0x00, 0x03, 0x03, 0x01, 0xFF, 0x80}});
    EXPECT_EQ(interlace(cat({mixed, main[3]}), kPair, 0xFFFF).out, cat({kept, withStartCode(kTopField), main[3]}));
    // A message that claims more bytes than its unit holds: the unit is not touched.
    Data broken = mixed;
    broken[6] = 0x40;
    EXPECT_EQ(interlace(broken, kPair, 0xFFFF).out, broken);
}

TEST_F(Interlace, SecondFieldBeginsWithTheFirstUnitFromItsOffset) {
    const Data expected = interlace(pair, kPair, second).out;
    for (uint32_t at : {second + 1, second + 4}) EXPECT_EQ(interlace(pair, kPair, at).out, expected) << at;
    // The second field begins with the first unit, or never.
    auto seiOf = [&](uint32_t at) {
        std::vector<Data> sei;
        for (const Data& u : unitsOf(interlace(pair, kPair, at).out))
            if (u == kTopField || u == kBottomField) sei.push_back(u);
        return sei;
    };
    EXPECT_EQ(seiOf(0), std::vector<Data>{kBottomField});
    EXPECT_EQ(seiOf(second + 5), std::vector<Data>{kTopField});
}

TEST_F(Interlace, RefusesWhatItCannotDoWithinTheBuffers) {
    const Data whole = interlace(pair, kPair, second).out;
    for (uint32_t capacity = 0; capacity < whole.size(); ++capacity) {
        const Result r = interlace(pair, kPair, second, nullptr, capacity);
        ASSERT_EQ(r.status, HEVC_INTERLACE_NO_ROOM) << capacity;
        ASSERT_TRUE(r.out.empty());
    }
    EXPECT_EQ(interlace(pair, kPair, second, nullptr, whole.size()).out, whole);

    Data buffer(pair.size() * 2);
    DFrame src{}, dst{};
    src.frameData = buffer.data();
    src.frameSize = src.frameCapacity = static_cast<uint32_t>(pair.size());
    dst.frameData = buffer.data() + pair.size() - 1;  // one byte shared
    dst.frameCapacity = dst.frameSize = static_cast<uint32_t>(pair.size());
    EXPECT_EQ(qnvutilSetFrameInterlaced(&src, &dst, nullptr), HEVC_INTERLACE_BAD_ARGUMENT);
    EXPECT_EQ(dst.frameSize, 0u);
    dst.frameData += 1;
    src.frameCapacity -= 1;  // a size beyond the buffer
    EXPECT_EQ(qnvutilSetFrameInterlaced(&src, &dst, nullptr), HEVC_INTERLACE_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilSetFrameInterlaced(nullptr, &dst, nullptr), HEVC_INTERLACE_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilSetFrameInterlaced(&src, nullptr, nullptr), HEVC_INTERLACE_BAD_ARGUMENT);
    EXPECT_EQ(log.lines.size(), 4u + whole.size());

    // A VPS whose reserved bits are wrong does not parse: it goes on as it stands.
    const Data vps = withStartCode({0x40, 0x01, 0x00, 0x01, 0xFF, 0xFF});
    const Result r = interlace(cat({vps, main[3]}), kPair, 0xFFFF);
    EXPECT_EQ(r.status, HEVC_INTERLACE_PS_COPIED);
    EXPECT_EQ(r.out, cat({vps, withStartCode(kTopField), main[3]}));
}

}  // namespace
