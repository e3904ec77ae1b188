// The H.264 pic_timing time code: its fields under each SPS layout, the
// replacement of a frame's own pic_timing, framing, and refusals.
#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "tests/qnvutil/sei/sei_test_util.h"

using namespace seitest;
namespace nal = qnv::nal;

namespace {

H264SpsRecord spsWith(bool nalHrd, bool vclHrd, int32_t timeOffsetLength = 0) {
    H264SpsRecord s{};
    s.vui_parameters_present_flag = 1;
    s.pic_struct_present_flag = 1;
    s.nal_hrd_parameters_present_flag = nalHrd;
    s.vcl_hrd_parameters_present_flag = vclHrd;
    for (HrdParameters* h : {&s.nal_hrd, &s.vcl_hrd}) {
        h->cpb_removal_delay_length_minus1 = 17;
        h->dpb_output_delay_length_minus1 = 5;
        h->time_offset_length = timeOffsetLength;
    }
    return s;
}

// The fields of a pic_timing payload with one clock timestamp, read as
// D.1.3 lays them out for the layout under test.
struct Read {
    uint32_t cpb = 0, dpb = 0, picStruct = 0, clockFlag = 0, ctType = 0, nuit = 0, counting = 0, full = 0,
             discontinuity = 0, dropped = 0, frames = 0, seconds = 0, minutes = 0, hours = 0, offset = 0, others = 0;
    bool operator==(const Read&) const = default;
};

Read readPayload(BitBuffer p, bool delays, uint32_t offsetBits) {
    Read r;
    if (delays) {
        r.cpb = ReadBits(&p, 18);
        r.dpb = ReadBits(&p, 6);
    }
    r.picStruct = ReadBits(&p, 4);
    r.clockFlag = ReadBits(&p, 1);
    r.ctType = ReadBits(&p, 2);
    r.nuit = ReadBits(&p, 1);
    r.counting = ReadBits(&p, 5);
    r.full = ReadBits(&p, 1);
    r.discontinuity = ReadBits(&p, 1);
    r.dropped = ReadBits(&p, 1);
    r.frames = ReadBits(&p, 8);
    r.seconds = ReadBits(&p, 6);
    r.minutes = ReadBits(&p, 6);
    r.hours = ReadBits(&p, 5);
    if (offsetBits) r.offset = ReadBits(&p, offsetBits);
    // Further clock timestamps are announced absent; then bit_equal_to_one and zeros.
    const uint32_t clocks = (const uint32_t[]){1, 1, 1, 2, 2, 3, 3, 2, 3}[r.picStruct < 9 ? r.picStruct : 0];
    for (uint32_t i = 1; i < clocks; ++i) r.others += ReadBits(&p, 1);
    if (p.bitPos % 8 != 0 && ReadBits(&p, 1) != 1) r.others += 100;
    while (p.bitPos % 8 != 0) r.others += ReadBits(&p, 1);
    if (p.bitPos != p.sizeBits) r.others += 1000;
    return r;
}

struct Sei {
    uint32_t type;
    Bytes payload;
};

// The SEI units of an Annex B or length-prefixed frame, message by message.
std::vector<std::vector<Sei>> seiUnits(const Bytes& frame, nal::Framing framing) {
    std::vector<std::vector<Sei>> units;
    nal::UnitWalk walk(frame.data(), uint32_t(frame.size()), framing);
    for (nal::Unit u; walk.next(u);) {
        if (u.size == 0 || (frame[u.header()] & 31) != 6) continue;
        units.emplace_back();
        const bool whole = nal::forEachSeiMessage(nal::Codec::kH264, frame.data() + u.header(), u.size,
                                                  [&](uint32_t type, BitBuffer& p) {
            units.back().push_back({type, Bytes(p.data + p.bitPos / 8, p.data + p.sizeBits / 8)});
        });
        EXPECT_TRUE(whole);
    }
    EXPECT_FALSE(walk.truncated());
    return units;
}

Read readTimeCode(const Bytes& payload, bool delays, uint32_t offsetBits) {
    Bytes copy = payload;
    copy.resize(payload.size() + 8);
    return readPayload(BitBuffer{copy.data(), uint32_t(copy.size()), uint32_t(payload.size() * 8), 0}, delays,
                       offsetBits);
}

}  // namespace

class AvcTimeCode : public SeiTest {};

TEST_F(AvcTimeCode, FieldsFollowTheSpsAndTheCount) {
    H264SpsRecord frameTicks = spsWith(false, false);
    frameTicks.timing_info_present_flag = 1;
    frameTicks.num_units_in_tick = 1001;
    frameTicks.time_scale = 30000;  // one tick per frame at 29.97
    const struct {
        H264SpsRecord sps;
        uint32_t tcType, count, picStruct;
        Read expected;
    } rows[] = {
        // 00:00:59;28 + 2 at 29.97 drop-frame is 00:01:00;02; no HRD: a 24-bit time_offset.
        {spsWith(false, false), 4, 1798, 0, {0, 0, 0, 1, 0, 1, 4, 1, 0, 1, 28, 59, 0, 0, 0, 0}},
        {spsWith(false, false), 4, 1800, 0, {0, 0, 0, 1, 0, 1, 4, 1, 0, 1, 2, 0, 1, 0, 0, 0}},
        // All zeros: emulation prevention in the unit, none in the payload.
        {spsWith(false, false), 2, 0, 0, {0, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
        // 25 non-drop, 10:20:30:24; the NAL HRD's delay lengths, no time_offset.
        {spsWith(true, false), 8, ((10 * 60 + 20) * 60 + 30) * 25 + 24, 0, {0, 0, 0, 1, 0, 1, 0, 1, 0, 0, 24, 30, 20, 10, 0, 0}},
        // The VCL HRD alone counts as well; a five-bit time_offset; fields are interlaced timestamps.
        {spsWith(false, true, 5), 8, 3, 1, {0, 0, 1, 1, 1, 1, 0, 1, 0, 0, 3, 0, 0, 0, 0, 0}},
        {spsWith(false, false), 8, 3, 3, {0, 0, 3, 1, 1, 1, 0, 1, 0, 0, 3, 0, 0, 0, 0, 0}},
        {spsWith(false, false), 8, 3, 5, {0, 0, 5, 1, 1, 1, 0, 1, 0, 0, 3, 0, 0, 0, 0, 0}},
        {spsWith(false, false), 8, 3, 8, {0, 0, 8, 1, 0, 1, 0, 1, 0, 0, 3, 0, 0, 0, 0, 0}},
        // Ticks of one frame: frame-based units.
        {frameTicks, 4, 0, 0, {0, 0, 0, 1, 0, 0, 4, 1, 0, 1, 0, 0, 0, 0, 0, 0}},
    };
    Bytes buffer(512);
    for (const auto& row : rows) {
        const auto at = &row - rows;
        DFrame f = frameOver(buffer, cat({kAud, kSps, kPps, kSlice}));
        f.frameTimecode = row.count;
        f.frameBytesTotal = 1000;
        ASSERT_EQ(qnvutilAddAVCTimeCode(&f, row.tcType, &row.sps, row.picStruct, 0), 0) << at;
        EXPECT_EQ(f.frameBytesTotal - 1000, f.frameSize - 30) << at;
        const Bytes out = contents(f);
        // A new SEI unit in front of the slice.
        EXPECT_EQ(Bytes(out.begin(), out.begin() + 22), cat({kAud, kSps, kPps})) << at;
        EXPECT_EQ(Bytes(out.end() - 8, out.end()), kSlice) << at;
        const auto units = seiUnits(out, nal::Framing::kAnnexB);
        ASSERT_EQ(units.size(), 1u) << at;
        ASSERT_EQ(units[0].size(), 1u) << at;
        EXPECT_EQ(units[0][0].type, 1u);
        const bool delays = row.sps.nal_hrd_parameters_present_flag || row.sps.vcl_hrd_parameters_present_flag;
        const uint32_t offsetBits = delays ? uint32_t(row.sps.nal_hrd.time_offset_length) : 24;
        EXPECT_EQ(readTimeCode(units[0][0].payload, delays, offsetBits), row.expected) << at;
    }
    EXPECT_TRUE(log.empty());
}

TEST_F(AvcTimeCode, AnEarlierPicTimingIsReplacedInItsUnit) {
    const H264SpsRecord sps = spsWith(true, false);
    const Bytes buffering = {0x84, 0x00, 0x01}, unregistered(18, 0x5A);
    // cpb_removal_delay 0x2468B (18 bits), dpb_output_delay 0x15 (6 bits), pic_struct 7 with
    // its two clock_timestamp_flags 0, then alignment: the delays stay, the rest is rewritten.
    const Bytes oldTiming = {0x91, 0xA2, 0xD5, 0x72};
    auto seiUnit = [](std::vector<Sei> messages, bool lengthPrefixed) {
        Bytes unit = {0x06};
        for (const auto& m : messages) {
            unit.push_back(uint8_t(m.type));
            unit.push_back(uint8_t(m.payload.size()));
            unit.insert(unit.end(), m.payload.begin(), m.payload.end());
        }
        unit.push_back(0x80);
        Bytes prefix = {0, 0, 0, lengthPrefixed ? uint8_t(unit.size()) : uint8_t(1)};
        return cat({prefix, unit});
    };
    auto lp = [](Bytes unit) { return unit[3] = static_cast<uint8_t>(unit.size() - 4), unit; };
    for (bool lengthPrefixed : {false, true}) {
        const auto framing = lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB;
        const Bytes sei = seiUnit({{0, buffering}, {1, oldTiming}, {5, unregistered}}, lengthPrefixed);
        const Bytes slice = lengthPrefixed ? lp(kSlice) : kSlice;
        // A second pic_timing behind the slice is not looked at.
        const Bytes late = seiUnit({{1, oldTiming}}, lengthPrefixed);
        Bytes buffer(512);
        DFrame f = frameOver(buffer, cat({sei, slice, late}));
        f.frameTimecode = 5;
        ASSERT_EQ(qnvutilAddAVCTimeCode(&f, 8, &sps, 0, lengthPrefixed), 0);
        const auto units = seiUnits(contents(f), framing);
        ASSERT_EQ(units.size(), 2u);
        ASSERT_EQ(units[0].size(), 3u);
        EXPECT_EQ(units[0][0].type, 0u);
        EXPECT_EQ(units[0][0].payload, buffering);
        EXPECT_EQ(units[0][2].type, 5u);
        EXPECT_EQ(units[0][2].payload, unregistered);
        EXPECT_EQ(readTimeCode(units[0][1].payload, true, 0),
                  (Read{0x2468B, 0x15, 0, 1, 0, 1, 0, 1, 0, 0, 5, 0, 0, 0, 0, 0}));
        EXPECT_EQ(units[1][0].payload, oldTiming);
        // Stamping again replaces the new one: the frame keeps one pic_timing in front.
        const uint32_t size = f.frameSize;
        f.frameTimecode = 6;
        ASSERT_EQ(qnvutilAddAVCTimeCode(&f, 8, &sps, 0, lengthPrefixed), 0);
        EXPECT_EQ(f.frameSize, size);
        EXPECT_EQ(readTimeCode(seiUnits(contents(f), framing)[0][1].payload, true, 0).frames, 6u);
    }
}

TEST_F(AvcTimeCode, RefusalsLeaveTheFrameAlone) {
    const Bytes frame = cat({kAud, kSlice});
    H264SpsRecord noPicStruct = spsWith(false, false);
    noPicStruct.pic_struct_present_flag = 0;
    const H264SpsRecord sps = spsWith(false, false);
    Bytes buffer(frame.size() + 20);  // the new unit takes 4 + 13, and 2 emulation prevention bytes
    DFrame f = frameOver(buffer, frame);
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, &noPicStruct, 0, 0), -1);
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, &sps, 9, 0), -1);
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, nullptr, 0, 0), -1);
    EXPECT_EQ(qnvutilAddAVCTimeCode(nullptr, 4, &sps, 0, 0), -1);
    f.frameCapacity = f.frameSize + 18;
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, &sps, 0, 0), -102);
    EXPECT_EQ(log.size(), 1u);
    EXPECT_EQ(contents(f), frame);
    f.frameCapacity += 1;
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, &sps, 0, 0), 0);
    EXPECT_EQ(f.frameSize, frame.size() + 19);
    // A length running past the end leaves no place to add a unit.
    f = frameOver(buffer, {0, 0, 0, 9, 0x09, 0x10});
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, &sps, 0, 1), -1);
    // A frame without a slice takes the unit at its end.
    f = frameOver(buffer, kAud);
    EXPECT_EQ(qnvutilAddAVCTimeCode(&f, 4, &sps, 0, 0), 0);
    EXPECT_EQ(Bytes(f.frameData, f.frameData + 10), (Bytes{0, 0, 0, 1, 0x09, 0x10, 0, 0, 0, 1}));
}
