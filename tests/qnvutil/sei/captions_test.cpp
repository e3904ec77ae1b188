// Caption packet validation and the H.264, MPEG-2 and HEVC caption insertions.
#include <random>

#include "foundation/nalscan/nalscan.h"
#include "qnvutil/sei/caption_packet.h"
#include "tests/qnvutil/sei/sei_test_util.h"

using namespace seitest;
using qnv::validateCaptionPacket;

namespace {

// The H.264 SEI for `p`: start code or length, NAL header, payload, 0x80.
Bytes avcSei(const Bytes& p, uint32_t captionBytes, bool lengthPrefixed) {
    Bytes sei = lengthPrefixed ? Bytes{0, 0, 0, 0} : Bytes{0, 0, 1};
    sei.insert(sei.end(), {0x06, 0x04, 0, 0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03, 0xCA, 0xFF});
    sei.insert(sei.end(), p.begin() + 16, p.begin() + 16 + captionBytes);
    sei.insert(sei.end(), {0xFF, 0x80});
    sei[lengthPrefixed ? 6 : 5] = static_cast<uint8_t>(sei.size() - (lengthPrefixed ? 8 : 7));
    if (lengthPrefixed) sei[3] = static_cast<uint8_t>(sei.size() - 4);
    return sei;
}

Bytes tail(const Bytes& b, size_t from) { return Bytes(b.begin() + from, b.end()); }

}  // namespace

class CaptionPacket : public SeiTest {};

TEST_F(CaptionPacket, ValidationResultsAndComplaints) {
    auto set = [](Bytes p, size_t at, uint8_t value) { return p[at] = value, p; };
    const Bytes p0 = packet(0), p3 = packet(3), p4 = packet(4);
    const Bytes plainSum = set(p4, p4.size() - 1, static_cast<uint8_t>(0x100 - p4.back()));  // the sum itself
    const struct {
        Bytes packet;
        int32_t result;
        std::string complaint;
    } rows[] = {
        {p0, 0, ""}, {p3, 0, ""}, {packet(10), 0, ""}, {plainSum, 0, ""},
        // Wrong identifiers are refused silently.
        {set(p3, 4, 0x71), -1, ""}, {set(p3, 5, 0x11), -1, ""}, {set(p3, 7, 0x86), -1, ""},
        {set(p3, 8, 0x79), -1, ""}, {set(p3, 9, 0x19), -1, ""},
        // Footer counter low byte: reported, and the checksum, now wrong as well, is not checked.
        {set(p3, p3.size() - 2, 0x35), -2, "ERROR: mfcc, counts don't match 0x12 0x34 != 0x12 0x35  "},
        // A size other than DC + 7 is only a warning (the old checksum joins the sum, still 0).
        {cat({packet(2), {0}}), 0, "ERROR: mfcc, expectsize 27, calculated size 26 "},
        {set(plainSum, p4.size() - 1, plainSum.back() ^ 1), -3, "ERROR: mfcc, bad CC 708 Checksum "},
        // Too short for the fields: exact size, so that a read past it trips the sanitizer.
        {Bytes(p0.begin(), p0.begin() + 13), -1, ""},
        {set(set(p0, 6, 40), 9, 40), -1, "ERROR: mfcc, expectsize 20, calculated size 47 "},
        {Bytes(p0.begin(), p0.begin() + 18), -1, "ERROR: mfcc, expectsize 18, calculated size 20 "},
    };
    for (const auto& row : rows) {
        log.clear();
        EXPECT_EQ(validateCaptionPacket(row.packet.data(), uint32_t(row.packet.size())), row.result) << &row - rows;
        EXPECT_EQ(log, row.complaint.empty() ? std::vector<std::string>{} : std::vector<std::string>{row.complaint});
    }
}

class AvcCaptions : public SeiTest {};

TEST_F(AvcCaptions, SeiFollowsTheParameterSetsOrGoesAtOffset6) {
    auto lp = [](Bytes unit) { return unit[3] = static_cast<uint8_t>(unit.size() - 4), unit; };
    const Bytes p5 = packet(5), p10 = packet(10), p12 = packet(12), one = {0, 0, 0, 1, 0x0C};
    Bytes padded = p5, filler = {0, 0, 0, 1, 0x0C};
    padded.resize(64, 0);  // 21 caption bytes, the last two lying past the packet, which read as 0
    filler.resize(300, 0xFF);
    const Bytes late = cat({kAud, filler, kSps, kPps, kSlice});
    const struct {
        Bytes frame, packet;
        int8_t lengthPrefixed;
        Bytes expected;
    } rows[] = {
        // 36 caption bytes, 30 copied; the SEI's 0x80 joins the slice's start code.
        {cat({kAud, kSps, kPps, kSlice}), p12, 0, cat({kAud, kSps, kPps, avcSei(p12, 30, false), tail(kSlice, 1)})},
        {cat({lp(kAud), lp(kSps), lp(kPps), lp(kSlice)}), p5, 1,
         cat({lp(kAud), lp(kSps), lp(kPps), avcSei(padded, 21, true), lp(kSlice)})},
        // A one-byte unit's size field reads 00 00 00 01 and is joined like a start code.
        {one, p5, 1, cat({avcSei(padded, 21, true), tail(one, 1)})},
        // No SPS and PPS within the first 256 bytes: offset 6, or the end of a shorter frame.
        {cat({kAud, kSlice}), p10, 0, cat({kAud, avcSei(p10, 30, false), tail(kSlice, 1)})},
        {late, p10, 0, cat({kAud, avcSei(p10, 30, false), tail(late, 7)})},
        {{0, 0, 1, 9}, p10, 0, cat({{0, 0, 1, 9}, avcSei(p10, 30, false)})},
    };
    Bytes buffer(2048);
    for (const auto& row : rows) {
        DFrame f = frameOver(buffer, row.frame);
        ASSERT_EQ(qnvutilAddAVCCaptions(&f, row.packet.data(), uint32_t(row.packet.size()), row.lengthPrefixed), 0);
        EXPECT_EQ(contents(f), row.expected) << &row - rows;
    }
    EXPECT_TRUE(log.empty());
}

TEST_F(AvcCaptions, RoomIsDemandedForFrameCaptionsAnd285Bytes) {
    const Bytes p = packet(10), frame = cat({kAud, kSlice});
    Bytes buffer(frame.size() + 30 + 285);
    DFrame f = frameOver(buffer, frame);
    f.frameCapacity -= 1;  // the 48-byte SEI would fit, the demanded room does not
    EXPECT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0), -102);
    EXPECT_EQ(contents(f), frame);
    EXPECT_EQ(log, (std::vector<std::string>{"No Allocation for CC Data"}));
    f.frameCapacity += 1;
    EXPECT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0), 0);

    Bytes bad = p;
    bad[5] = 2;
    EXPECT_EQ(qnvutilAddAVCCaptions(&f, bad.data(), uint32_t(bad.size()), 0), -1);
    EXPECT_EQ(qnvutilAddAVCCaptions(&f, nullptr, 0, 0), 0);
    EXPECT_EQ(f.frameSize, frame.size() + 47);
}

class Mpeg2Captions : public SeiTest {};

TEST_F(Mpeg2Captions, UserDataGoesInFrontOfTheFrame) {
    const Bytes frame = {0, 0, 1, 0xB3, 0x04, 0x00, 0x40, 0x13, 0, 0, 1, 0x00, 0x00, 0x0F}, p = packet(2);
    Bytes buffer(frame.size() + p.size() + 285);
    DFrame f = frameOver(buffer, frame);
    setCaption(f, p);
    f.captionPacket[p.size()] = f.captionPacket[p.size() + 1] = 0xEE;  // read as the last two caption bytes
    ASSERT_EQ(qnvutilAddMPEG2Captions(&f), 0);
    Bytes block = {0, 0, 0, 1, 0xB2, 'G', 'A', '9', '4', 0x03, 4, 0xFF};  // (DC - 7) / 3 = 12 / 3, no flags
    block.insert(block.end(), p.begin() + 16, p.end());
    block.insert(block.end(), {0xEE, 0xEE, 0xFF});
    EXPECT_EQ(contents(f), cat({block, frame}));

    f = frameOver(buffer, frame);
    setCaption(f, p);
    f.frameCapacity -= 1;
    EXPECT_EQ(qnvutilAddMPEG2Captions(&f), -102);
    EXPECT_EQ(log, (std::vector<std::string>{"No Allocation for CC Data"}));
    f.captionSize = 513;
    EXPECT_EQ(qnvutilAddMPEG2Captions(&f), -1);
    EXPECT_EQ(contents(f), frame);
}

class HevcCaptions : public SeiTest {
protected:
    const Bytes kParams = {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x01, 0x22, 0x80};
    const Bytes kIdr = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x05}, kTrail = {0, 0, 1, 0x02, 0x01, 0xD0, 0x09};
};

TEST_F(HevcCaptions, SeiGoesInFrontOfTheFirstSliceWithAsManyBytesAsTheFrameRateAllows) {
    const Bytes p = packet(28), frame = cat({kParams, kIdr, kTrail});  // 90 caption bytes
    Bytes buffer(frame.size() + 200);
    const std::pair<uint32_t, uint32_t> limits[] = {{23, 75}, {24, 75}, {25, 72}, {29, 60},
                                                    {30, 60}, {50, 36}, {60, 30}, {0, 30}};
    for (auto [rate, limit] : limits) {
        log.clear();
        DFrame f = frameOver(buffer, frame);
        setCaption(f, p);
        const uint32_t added = qnvUtilAddHevcCaptions(&f, rate);
        EXPECT_EQ(log, std::vector<std::string>{"/nToo many CC bytes 90 truncated to " + std::to_string(limit)});
        Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 0x04, uint8_t(12 + limit), 0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03, 0xCA, 0xFF};
        sei.insert(sei.end(), p.begin() + 16, p.begin() + 16 + limit);
        sei.insert(sei.end(), {0xFF, 0x80, 0x80});
        ASSERT_EQ(added, sei.size()) << rate;
        EXPECT_EQ(f.frameSize, frame.size()) << "left to the caller";
        f.frameSize += added;
        EXPECT_EQ(contents(f), cat({kParams, sei, kIdr, kTrail})) << rate;
    }
}

TEST_F(HevcCaptions, NothingIsInsertedWithoutRoomSliceOrValidPacket) {
    const Bytes p = packet(3), frame = cat({kParams, kTrail});
    Bytes buffer(frame.size() + 40);
    DFrame f = frameOver(buffer, frame);
    setCaption(f, p);
    const uint32_t length = 21 + 15;
    f.frameCapacity = f.frameSize + length;  // the capacity must exceed frame + SEI
    EXPECT_EQ(qnvUtilAddHevcCaptions(&f, 30), 0u);
    f.frameCapacity += 1;
    f.captionSize = 0;
    EXPECT_EQ(qnvUtilAddHevcCaptions(&f, 30), 0u);
    EXPECT_EQ(contents(f), frame);
    f.captionSize = uint32_t(p.size());
    f.frameSize = uint32_t(kParams.size());  // no slice
    EXPECT_EQ(qnvUtilAddHevcCaptions(&f, 30), 0u);
    f.frameSize = uint32_t(frame.size());
    EXPECT_EQ(qnvUtilAddHevcCaptions(&f, 30), length);
}

// The plain walk: every unit searched over the whole rest of the frame.
int64_t plainWalkPlace(const Bytes& f) {
    qnv::h264_stream_t h{};
    const uint32_t size = uint32_t(f.size());
    for (uint32_t off = 0; off < size;) {
        int32_t s = 0, e = 0;
        int32_t n = qnv::find_nal_unit(f.data() + off, size - off, &s, &e);
        if (n == 0 && e == 0) break;
        qnv::read_nal_unit(&h, f.data() + off + s, uint32_t(e - s));
        int32_t t = h.nal.nal_unit_type;
        if (t <= 9 || (t >= 16 && t <= 21)) {
            int64_t pos = int64_t(off) + s - (f[off] == 0 && f[off + 1] == 0 && f[off + 2] == 1 ? 3 : 4);
            if (pos >= 0) return pos;
        }
        off += n == 0 ? 1 : uint32_t(e);
    }
    return -1;
}

TEST_F(HevcCaptions, FindsThePlaceOfThePlainWalkAroundItsScanWindow) {
    std::mt19937 rng(11);
    const Bytes p = packet(3);
    const uint8_t types[] = {32, 33, 34, 35, 39, 40, 1, 19, 21, 48};
    for (int round = 0; round < 2000; ++round) {
        Bytes frame;
        for (int units = 1 + rng() % 6; units > 0; --units) {
            if (rng() % 2) frame.push_back(0);
            frame.insert(frame.end(), {0, 0, 1});
            const uint8_t type = rng() % 3 ? types[rng() % 6] : types[rng() % 10];
            frame.insert(frame.end(), {uint8_t(type << 1), 1});
            // Often a unit that ends within a few bytes of the scan window.
            for (size_t n = rng() % 3 ? 4080 + rng() % 24 : rng() % 300; n > 0; --n)
                frame.push_back(rng() % 8 ? 0x40 : 0);
        }
        Bytes buffer(frame.size() + 100);
        DFrame f = frameOver(buffer, frame);
        setCaption(f, p);
        const uint32_t added = qnvUtilAddHevcCaptions(&f, 30);
        const int64_t place = plainWalkPlace(frame);
        ASSERT_EQ(added == 0, place < 0) << round;
        if (place < 0) continue;
        f.frameSize += added;
        const Bytes got = contents(f);
        ASSERT_EQ(Bytes(got.begin(), got.begin() + place), Bytes(frame.begin(), frame.begin() + place)) << round;
        ASSERT_EQ(Bytes(got.begin() + place + added, got.end()), Bytes(frame.begin() + place, frame.end())) << round;
    }
}
