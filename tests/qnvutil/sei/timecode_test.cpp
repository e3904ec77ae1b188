// Time code SEI insertion into HEVC frames.
#include <bitset>
#include <string>

#include "qnvutil/timecodetext.h"
#include "tests/qnvutil/sei/sei_test_util.h"

using namespace seitest;

namespace {

const Bytes kHevcAud = {0, 0, 0, 1, 0x46, 0x01, 0x50}, kVps = {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x01},
            kHevcSlice = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x09};

// The time code SEI NAL unit, from its syntax written out bit by bit.
Bytes timeCodeSei(uint32_t hh, uint32_t mm, uint32_t ss, uint32_t ff, bool dropped) {
    auto bin = [](uint32_t v, int n) { return std::bitset<32>(v).to_string().substr(32 - n); };
    std::string bits = "01" "1" "0" "00000" "1" "0" + bin(dropped, 1) + bin(ff, 9) + bin(ss, 6) + bin(mm, 6) +
                       bin(hh, 5) + "00000" + "1";
    while (bits.size() % 8) bits += '0';
    Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 136, uint8_t(bits.size() / 8)};
    for (size_t i = 0; i < bits.size(); i += 8) sei.push_back(uint8_t(std::stoi(bits.substr(i, 8), nullptr, 2)));
    sei.push_back(0x80);
    return sei;
}

uint32_t count(const char* text, uint32_t type) {
    uint32_t frames = 0;
    EXPECT_EQ(TimecodeTextParse(text, type | 0x100, &frames), TCT_OK);
    return frames;
}

}  // namespace

class HevcTimeCode : public SeiTest {};

TEST_F(HevcTimeCode, ClockTimestampGoesInFrontOfTheFirstPrefixSeiOrBehindTheDelimiter) {
    const Bytes other = {0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x01, 0x22, 0x80};
    const Bytes sei = timeCodeSei(0, 0, 1, 2, true), cut = {0, 0, 0, 1, 0x46}, seiHeaderOnly = {0, 0, 0, 1, 0x4E};
    Bytes zero = timeCodeSei(0, 0, 0, 0, false);  // payload 60 80 00 00 00 20
    zero.insert(zero.begin() + 12, 0x03);            // gains an emulation-prevention byte
    const uint32_t tc = count("00:00:01;02", 4);
    const struct {
        Bytes frame;
        uint32_t timecode, type;
        Bytes expected;
    } rows[] = {
        {kHevcSlice, count("01:02:03;04", 4), 4, cat({timeCodeSei(1, 2, 3, 4, true), kHevcSlice})},
        {kHevcSlice, count("10:59:59:24", 8), 8, cat({timeCodeSei(10, 59, 59, 24, false), kHevcSlice})},
        {kHevcSlice, 0, 2, cat({zero, kHevcSlice})},
        {cat({kVps, other, kHevcSlice}), 32, 32, cat({kVps, timeCodeSei(0, 0, 0, 16, true), other, kHevcSlice})},  // 16 pairs
        {cat({kHevcAud, kHevcSlice}), tc, 4, cat({kHevcAud, sei, kHevcSlice})},
        {cat({kHevcAud, sei, kHevcSlice}), tc, 4, cat({kHevcAud, sei, kHevcSlice})},  // already carries a time code
        {cat({sei, kHevcSlice}), tc, 4, cat({sei, kHevcSlice})},
        {cut, tc, 4, cat({cut, sei})},  // shorter than the delimiter: SEI at its end
        {cat({kVps, seiHeaderOnly}), tc, 4, cat({kVps, sei, seiHeaderOnly})},  // ends before its payloadType
    };
    for (const auto& row : rows) {
        Bytes buffer(256, 136);  // bytes past the frame must not be taken for a time code's payloadType
        DFrame f = frameOver(buffer, row.frame);
        f.frameTimecode = row.timecode;
        f.frameBytesTotal = 1000;
        EXPECT_EQ(qnvutilAddHEVCTimeCode(&f, row.type), 0);
        EXPECT_EQ(contents(f), row.expected) << &row - rows;
        EXPECT_EQ(f.frameBytesTotal, 1000 + row.expected.size() - row.frame.size());
    }
    EXPECT_TRUE(log.empty());
}

TEST_F(HevcTimeCode, FrameWithoutRoomIsReportedAndLeftUnchanged) {
    Bytes buffer(kHevcSlice.size() + 15);
    DFrame f = frameOver(buffer, kHevcSlice);
    f.frameTimecode = 100;
    f.frameCapacity -= 1;  // the SEI is 15 bytes
    EXPECT_EQ(qnvutilAddHEVCTimeCode(&f, 2), 0);
    EXPECT_EQ(contents(f), kHevcSlice);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].rfind("No room for time code SEI in DFrame qnvutil/qnvvidutil ", 0), 0u) << log[0];
    f.frameCapacity += 1;
    qnvutilAddHEVCTimeCode(&f, 2);
    EXPECT_EQ(f.frameSize, buffer.size());
}
