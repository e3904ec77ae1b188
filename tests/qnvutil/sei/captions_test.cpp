// Caption packet validation and the H.264, MPEG-2 and HEVC caption insertions.
#include <random>

#include "foundation/nalscan/nalscan.h"
#include "qnvutil/sei/caption_packet.h"
#include "tests/qnvutil/sei/sei_test_util.h"

using namespace seitest;
using qnv::validateCaptionPacket;

namespace {

const Bytes kAud = {0, 0, 0, 1, 0x09, 0x10}, kSps = {0, 0, 0, 1, 0x67, 0x42, 0x00, 0x1E},
            kPps = {0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80}, kSlice = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21};

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

TEST_F(CaptionPacket, AcceptsWellFormedPacketsAndRefusesWrongIdentifiersSilently) {
    for (uint32_t n : {0u, 3u, 10u}) EXPECT_EQ(validateCaptionPacket(packet(n).data(), 20 + 3 * n), 0) << n;
    for (size_t at : {4, 5, 7, 8, 9}) {
        Bytes p = packet(3);
        p[at] ^= 0x10;
        EXPECT_EQ(validateCaptionPacket(p.data(), uint32_t(p.size())), -1) << at;
    }
    EXPECT_TRUE(log.empty());
}

TEST_F(CaptionPacket, CounterMismatchIsReportedAndSkipsTheChecksum) {
    Bytes p = packet(3);
    p[p.size() - 2] = 0x35;  // footer counter low byte, checksum now wrong as well
    EXPECT_EQ(validateCaptionPacket(p.data(), uint32_t(p.size())), -2);
    EXPECT_EQ(log, (std::vector<std::string>{"ERROR: mfcc, counts don't match 0x12 0x34 != 0x12 0x35  "}));
}

TEST_F(CaptionPacket, SizeOtherThanDataCountIsOnlyAWarning) {
    Bytes p = packet(2);
    p.push_back(0);  // the old checksum joins the sum, which stays 0 mod 256
    EXPECT_EQ(validateCaptionPacket(p.data(), uint32_t(p.size())), 0);
    EXPECT_EQ(log, (std::vector<std::string>{"ERROR: mfcc, expectsize 27, calculated size 26 "}));
}

TEST_F(CaptionPacket, ChecksumMayAlsoEqualThePlainSum) {
    Bytes p = packet(4);
    p.back() = static_cast<uint8_t>(0x100 - p.back());  // the sum itself
    EXPECT_EQ(validateCaptionPacket(p.data(), uint32_t(p.size())), 0);
    p.back() ^= 1;
    EXPECT_EQ(validateCaptionPacket(p.data(), uint32_t(p.size())), -3);
    EXPECT_EQ(log, (std::vector<std::string>{"ERROR: mfcc, bad CC 708 Checksum "}));
}

TEST_F(CaptionPacket, PacketsTooShortForTheirFieldsAreRefused) {
    Bytes p = packet(0);
    Bytes head(p.begin(), p.begin() + 13);  // exact size: a read past it trips the sanitizer
    EXPECT_EQ(validateCaptionPacket(head.data(), 13), -1);
    p[6] = p[9] = 40;  // footer announced far beyond the 20 bytes
    EXPECT_EQ(validateCaptionPacket(p.data(), uint32_t(p.size())), -1);
    EXPECT_EQ(log, (std::vector<std::string>{"ERROR: mfcc, expectsize 20, calculated size 47 "}));
}

class AvcCaptions : public SeiTest {};

TEST_F(AvcCaptions, AnnexBSeiFollowsTheParameterSetsAndJoinsTheSliceStartCode) {
    const Bytes p = packet(12), frame = cat({kAud, kSps, kPps, kSlice});
    Bytes buffer(frame.size() + 400);
    DFrame f = frameOver(buffer, frame);
    ASSERT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0), 0);
    const Bytes sei = avcSei(p, 30, false);  // 36 caption bytes, 30 copied
    EXPECT_EQ(sei[14], 0xCA);                // cc_count stays 10
    EXPECT_EQ(contents(f), cat({kAud, kSps, kPps, sei, tail(kSlice, 1)}));  // ... 0x80 00 00 01 65
    EXPECT_EQ(f.frameSize, frame.size() + sei.size() - 1);
}

TEST_F(AvcCaptions, LengthPrefixedSeiFollowsTheParameterSets) {
    auto lp = [](Bytes unit) {
        unit[3] = static_cast<uint8_t>(unit.size() - 4);
        return unit;
    };
    const Bytes p = packet(5), frame = cat({lp(kAud), lp(kSps), lp(kPps), lp(kSlice)});
    Bytes buffer(frame.size() + 400);
    DFrame f = frameOver(buffer, frame);
    ASSERT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 1), 0);
    // 21 caption bytes, the last two lying past the packet, which read as 0.
    Bytes padded = p;
    padded.resize(64, 0);
    EXPECT_EQ(contents(f), cat({lp(kAud), lp(kSps), lp(kPps), avcSei(padded, 21, true), lp(kSlice)}));

    // A one-byte unit's size field reads 00 00 00 01 and is joined like a start code.
    Bytes one = {0, 0, 0, 1, 0x0C};
    f = frameOver(buffer, one);
    ASSERT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 1), 0);
    EXPECT_EQ(contents(f), cat({avcSei(padded, 21, true), tail(one, 1)}));
}

TEST_F(AvcCaptions, WithoutParameterSetsInTheFirst256BytesTheSeiGoesAtOffset6) {
    const Bytes p = packet(10), sei = avcSei(p, 30, false);
    Bytes buffer(2048);
    DFrame f = frameOver(buffer, cat({kAud, kSlice}));
    ASSERT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0), 0);
    EXPECT_EQ(contents(f), cat({kAud, sei, tail(kSlice, 1)}));

    Bytes filler = {0, 0, 0, 1, 0x0C};
    filler.resize(300, 0xFF);
    const Bytes late = cat({kAud, filler, kSps, kPps, kSlice});
    f = frameOver(buffer, late);
    ASSERT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0), 0);
    EXPECT_EQ(contents(f), cat({kAud, sei, tail(late, 7)}));

    f = frameOver(buffer, {0, 0, 1, 9});  // shorter than the fallback offset: SEI at its end
    ASSERT_EQ(qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0), 0);
    EXPECT_EQ(contents(f), cat({{0, 0, 1, 9}, sei}));
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

TEST_F(HevcCaptions, SeiGoesInFrontOfTheFirstSliceAndFrameSizeIsLeftToTheCaller) {
    const Bytes p = packet(28), frame = cat({kParams, kIdr, kTrail});  // 90 caption bytes
    Bytes buffer(frame.size() + 200);
    DFrame f = frameOver(buffer, frame);
    setCaption(f, p);
    const uint32_t added = qnvUtilAddHevcCaptions(&f, 25);
    EXPECT_EQ(log, (std::vector<std::string>{"/nToo many CC bytes 90 truncated to 72"}));
    Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 0x04, 84, 0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03, 0xCA, 0xFF};
    sei.insert(sei.end(), p.begin() + 16, p.begin() + 16 + 72);
    sei.insert(sei.end(), {0xFF, 0x80, 0x80});
    ASSERT_EQ(added, sei.size());
    EXPECT_EQ(f.frameSize, frame.size());
    f.frameSize += added;
    EXPECT_EQ(contents(f), cat({kParams, sei, kIdr, kTrail}));
}

TEST_F(HevcCaptions, FrameRateLimitsTheCaptionBytes) {
    const Bytes p = packet(28), frame = cat({kIdr});
    Bytes buffer(400);
    const std::pair<uint32_t, uint32_t> limits[] = {{23, 75}, {24, 75}, {25, 72}, {29, 60},
                                                    {30, 60}, {50, 36}, {60, 30}, {0, 30}};
    for (auto [rate, limit] : limits) {
        DFrame f = frameOver(buffer, frame);
        setCaption(f, p);
        EXPECT_EQ(qnvUtilAddHevcCaptions(&f, rate), 21 + limit) << rate;
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
