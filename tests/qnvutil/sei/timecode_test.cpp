// Time code SEI insertion into HEVC frames.
#include <string>

#include "qnvutil/timecodetext.h"
#include "tests/qnvutil/sei/sei_test_util.h"

using namespace seitest;

namespace {

const Bytes kAud = {0, 0, 0, 1, 0x46, 0x01, 0x50}, kVps = {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x01},
            kSlice = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x09};

// The time code SEI NAL unit, from its syntax written out bit by bit.
Bytes timeCodeSei(uint32_t hh, uint32_t mm, uint32_t ss, uint32_t ff, bool dropped) {
    auto bin = [](uint32_t v, int n) {
        std::string s;
        for (int i = n - 1; i >= 0; --i) s += (v >> i) & 1 ? '1' : '0';
        return s;
    };
    std::string bits = "01" "1" "0" "00000" "1" "0" + bin(dropped, 1) + bin(ff, 9) + bin(ss, 6) + bin(mm, 6) +
                       bin(hh, 5) + "00000" + "1";
    while (bits.size() % 8) bits += '0';
    Bytes payload;
    for (size_t i = 0; i < bits.size(); i += 8) payload.push_back(uint8_t(std::stoi(bits.substr(i, 8), nullptr, 2)));
    Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 136, uint8_t(payload.size())};
    for (uint8_t b : payload) sei.push_back(b);
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

TEST_F(HevcTimeCode, WritesTheClockTimestampInFrontOfTheFrame) {
    Bytes buffer(64);
    DFrame f = frameOver(buffer, kSlice);
    f.frameTimecode = count("01:02:03;04", 4);
    f.frameBytesTotal = 1000;
    EXPECT_EQ(qnvutilAddHEVCTimeCode(&f, 4), 0);
    const Bytes sei = timeCodeSei(1, 2, 3, 4, true);
    EXPECT_EQ(sei[8], 0x60);
    EXPECT_EQ(sei[9] >> 4, 0x5);
    EXPECT_EQ(contents(f), cat({sei, kSlice}));
    EXPECT_EQ(f.frameBytesTotal, 1000 + sei.size());

    f = frameOver(buffer, kSlice);
    f.frameTimecode = count("10:59:59:24", 8);
    qnvutilAddHEVCTimeCode(&f, 8);
    EXPECT_EQ(contents(f), cat({timeCodeSei(10, 59, 59, 24, false), kSlice}));
}

TEST_F(HevcTimeCode, ZeroTimecodeGainsAnEmulationPreventionByte) {
    Bytes buffer(64);
    DFrame f = frameOver(buffer, kSlice);
    qnvutilAddHEVCTimeCode(&f, 2);
    Bytes sei = timeCodeSei(0, 0, 0, 0, false);  // payload 60 80 00 00 00 20
    sei.insert(sei.begin() + 12, 0x03);
    EXPECT_EQ(contents(f), cat({sei, kSlice}));
}

TEST_F(HevcTimeCode, PlaceFollowsTheFirstPrefixSeiOrTheDelimiter) {
    const Bytes other = {0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x01, 0x22, 0x80};
    const Bytes sei = timeCodeSei(0, 0, 1, 2, true);
    Bytes buffer(256);
    DFrame f = frameOver(buffer, cat({kVps, other, kSlice}));
    f.frameTimecode = 32;
    qnvutilAddHEVCTimeCode(&f, 32);  // 59.94 drop-frame: 32 frames are 16 pairs
    EXPECT_EQ(contents(f), cat({kVps, timeCodeSei(0, 0, 0, 16, true), other, kSlice}));

    f = frameOver(buffer, cat({kAud, kSlice}));
    f.frameTimecode = count("00:00:01;02", 4);
    qnvutilAddHEVCTimeCode(&f, 4);
    EXPECT_EQ(contents(f), cat({kAud, sei, kSlice}));

    for (const Bytes& stamped : {cat({kAud, sei, kSlice}), cat({sei, kSlice})}) {
        f = frameOver(buffer, stamped);
        qnvutilAddHEVCTimeCode(&f, 4);  // already carries a time code
        EXPECT_EQ(contents(f), stamped);
    }

    const Bytes cut = {0, 0, 0, 1, 0x46};  // shorter than the delimiter: SEI at its end
    f = frameOver(buffer, cut);
    f.frameTimecode = count("00:00:01;02", 4);
    qnvutilAddHEVCTimeCode(&f, 4);
    EXPECT_EQ(contents(f), cat({cut, sei}));

    const Bytes seiHeaderOnly = {0, 0, 0, 1, 0x4E};  // ends before its payloadType
    f = frameOver(buffer, cat({kVps, seiHeaderOnly}));
    f.frameTimecode = count("00:00:01;02", 4);
    qnvutilAddHEVCTimeCode(&f, 4);
    EXPECT_EQ(contents(f), cat({kVps, sei, seiHeaderOnly}));
    EXPECT_TRUE(log.empty());
}

TEST_F(HevcTimeCode, FrameWithoutRoomIsReportedAndLeftUnchanged) {
    Bytes buffer(kSlice.size() + 15);
    DFrame f = frameOver(buffer, kSlice);
    f.frameTimecode = 100;
    f.frameCapacity -= 1;  // the SEI is 15 bytes
    EXPECT_EQ(qnvutilAddHEVCTimeCode(&f, 2), 0);
    EXPECT_EQ(contents(f), kSlice);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].rfind("No room for time code SEI in DFrame qnvutil/qnvvidutil ", 0), 0u) << log[0];
    f.frameCapacity += 1;
    qnvutilAddHEVCTimeCode(&f, 2);
    EXPECT_EQ(f.frameSize, buffer.size());
}
