// Finding captions: round trips through the three insertions, and SEI units
// built by hand (several messages, emulation prevention, damaged units).
#include "foundation/nal/nal.h"
#include "tests/qnvutil/sei/sei_test_util.h"

using namespace seitest;

namespace {

const Bytes kHevcParams = {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0}, kHevcIdr = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x05};

std::vector<uint32_t> words(const Bytes& triplets, size_t count) {
    std::vector<uint32_t> w;
    for (size_t i = 0; i < count; ++i)
        w.push_back(uint32_t(triplets[3 * i]) << 16 | uint32_t(triplets[3 * i + 1]) << 8 | triplets[3 * i + 2]);
    return w;
}

Bytes tripletsOf(const Bytes& p) { return Bytes(p.begin() + 16, p.end() - 4); }

std::vector<uint32_t> found(const CaptionDataRecord& r) { return {r.cc_data, r.cc_data + r.tripletCount}; }
std::vector<uint32_t> carried(const CaptionDataRecord& r) { return {r.cc_data, r.cc_data + r.carriedCount}; }

struct Message {
    uint32_t type;
    Bytes payload;
};

// An SEI unit: `header`, the messages, rbsp_trailing_bits, escaped.
Bytes seiUnit(const Bytes& header, const std::vector<Message>& messages) {
    Bytes rbsp;
    for (const auto& m : messages) {
        rbsp.push_back(static_cast<uint8_t>(m.type));
        for (size_t n = m.payload.size(); ; n -= 255) {
            rbsp.push_back(static_cast<uint8_t>(n < 255 ? n : 255));
            if (n < 255) break;
        }
        rbsp.insert(rbsp.end(), m.payload.begin(), m.payload.end());
    }
    rbsp.push_back(0x80);
    Bytes out(rbsp.size() * 2);
    out.resize(qnv::nal::escape(rbsp.data(), uint32_t(rbsp.size()), out.data()));
    return cat({{0, 0, 0, 1}, header, out});
}

// A T.35 ATSC cc_data payload: flag byte, em_data, triplets, marker_bits.
Bytes atsc(uint8_t flags, const Bytes& triplets) {
    return cat({{0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03, flags, 0xFF}, triplets, {0xFF}});
}

}  // namespace

class FindCaptions : public SeiTest {};

TEST_F(FindCaptions, InsertedCaptionsComeBack) {
    const Bytes p3 = packet(3), p12 = packet(12), p20 = packet(20);
    // cc_valid bytes of 02 and 01 behind 00 00 take emulation prevention in the HEVC SEI (the
    // H.264 insertion writes its bytes unescaped).
    const Bytes escaped = packetOf({0xFC, 0x00, 0x00, 0x02, 0x00, 0x00, 0x01, 0x41, 0x42, 0xFA, 0x00, 0x00});
    auto lp = [](Bytes unit) { return unit[3] = static_cast<uint8_t>(unit.size() - 4), unit; };
    const Bytes avc = cat({kAud, kSps, kPps, kSlice}), avcLp = cat({lp(kAud), lp(kSps), lp(kPps), lp(kSlice)});
    const struct {
        uint32_t form;
        Bytes frame, packet;
        int8_t lengthPrefixed;
        uint32_t rate, offset, prefix, ccCount, carried, triplets, flags;
    } rows[] = {
        // H.264: cc_count 10 announced, at most 30 bytes carried (the packet's footer follows
        // its triplets, as DC - 7 bytes are copied); the SEI follows the PPS.
        {QNV_CC_FORM_AVC, avc, p3, 0, 0, 22, 3, 10, 5, 3, 0xCA},
        {QNV_CC_FORM_AVC, avc, p12, 0, 0, 22, 3, 10, 10, 10, 0xCA},
        {QNV_CC_FORM_AVC, avcLp, p3, 1, 0, 22, 4, 10, 5, 3, 0xCA},
        // HEVC: the frame rate's share of bytes, cc_count still 10.
        {QNV_CC_FORM_HEVC, cat({kHevcParams, kHevcIdr}), p20, 0, 24, 8, 4, 10, 22, 20, 0xCA},
        {QNV_CC_FORM_HEVC, cat({kHevcParams, kHevcIdr}), p20, 0, 30, 8, 4, 10, 20, 20, 0xCA},
        {QNV_CC_FORM_HEVC, cat({kHevcParams, kHevcIdr}), escaped, 0, 30, 8, 4, 10, 6, 1, 0xCA},
        // MPEG-2: the count of carried triplets alone in the flag byte.
        {QNV_CC_FORM_MPEG2, {0, 0, 1, 0xB3, 0x04, 0x00}, p12, 0, 0, 0, 4, 14, 14, 12, 0x0E},
    };
    Bytes buffer(1024);
    for (const auto& row : rows) {
        const auto at = &row - rows;
        DFrame f = frameOver(buffer, row.frame);
        setCaption(f, row.packet);
        if (row.form == QNV_CC_FORM_AVC)
            ASSERT_EQ(qnvutilAddAVCCaptions(&f, row.packet.data(), uint32_t(row.packet.size()), row.lengthPrefixed), 0);
        else if (row.form == QNV_CC_FORM_HEVC)
            f.frameSize += qnvUtilAddHevcCaptions(&f, row.rate);
        else
            ASSERT_EQ(qnvutilAddMPEG2Captions(&f), 0);
        CaptionDataRecord r;
        ASSERT_EQ(qnvutilFindCaptions(f.frameData, f.frameSize, row.form, row.lengthPrefixed, &r), 0) << at;
        EXPECT_EQ(r.form, row.form);
        EXPECT_EQ(r.unitOffset, row.offset) << at;
        EXPECT_EQ(r.unitPrefix, row.prefix) << at;
        EXPECT_EQ(r.cc_count, row.ccCount) << at;
        EXPECT_EQ(r.process_em_data_flag << 7 | r.process_cc_data_flag << 6 | r.additional_data_flag << 5 | r.cc_count,
                  row.flags) << at;
        EXPECT_EQ(r.em_data, 0xFFu);
        EXPECT_EQ(r.carriedCount, row.carried) << at;
        EXPECT_EQ(found(r), words(tripletsOf(row.packet), row.triplets)) << at;
        // The unit's bytes end where the slice or sequence header begins.
        const Bytes frame = contents(f);
        EXPECT_EQ(frame[r.unitOffset + r.unitPrefix + r.unitSize - 1], row.form == QNV_CC_FORM_MPEG2 ? 0xFF : 0x80) << at;
        EXPECT_LE(r.unitOffset + r.unitPrefix + r.unitSize + 3, frame.size()) << at;
    }
}

TEST_F(FindCaptions, SeiUnitsBuiltByHand) {
    const Bytes t2 = {0xFC, 0x94, 0x20, 0xFD, 0x80, 0x80}, t1 = {0xFC, 0x00, 0x00};
    const Bytes unregistered(20, 0x11), otherT35 = {0xB5, 0x00, 0x2F, 'D', 'T', 'G', '1', 0x41};
    const Bytes h264 = {0x06}, hevc = {0x4E, 0x01}, suffix = {0x50, 0x01};
    Bytes big(300, 0x22);  // payloadSize 255 + 45
    const struct {
        uint32_t form;
        Bytes frame;
        int32_t result;
        uint32_t message, carried, triplets;
    } rows[] = {
        // Several messages per unit: the first ATSC one counts, its place is told.
        {QNV_CC_FORM_AVC, cat({seiUnit(h264, {{5, unregistered}, {4, otherT35}, {4, atsc(0xC2, t2)}, {4, atsc(0xC1, t1)}}), kSlice}),
         0, 2, 2, 2},
        {QNV_CC_FORM_AVC, cat({seiUnit(h264, {{5, big}, {4, atsc(0xC2, t2)}}), kSlice}), 0, 1, 2, 2},
        // A second SEI unit, and an HEVC suffix SEI behind the slice.
        {QNV_CC_FORM_AVC, cat({seiUnit(h264, {{6, {0x84, 0x80}}}), seiUnit(h264, {{4, atsc(0xC1, t1)}}), kSlice}), 0, 0, 1, 1},
        {QNV_CC_FORM_HEVC, cat({kHevcIdr, seiUnit(suffix, {{4, atsc(0xC2, t2)}})}), 0, 0, 2, 2},
        // 00 00 in the payload before 00 .. 03 bytes: escaped in the unit, gone in the triplets;
        // the triplets behind the first without its marker bits are carried, not caption data.
        {QNV_CC_FORM_HEVC, cat({seiUnit(hevc, {{4, atsc(0xC3, {0xFC, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01})}}), kHevcIdr}),
         0, 0, 3, 1},
        // A payload cut before its flag byte, a T.35 payload of another provider, the wrong codec's SEI.
        {QNV_CC_FORM_AVC, cat({seiUnit(h264, {{4, {0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03, 0xC1}}}), kSlice}), -2, 0, 0, 0},
        {QNV_CC_FORM_AVC, cat({seiUnit(h264, {{4, otherT35}}), kSlice}), -2, 0, 0, 0},
        {QNV_CC_FORM_HEVC, cat({seiUnit(h264, {{4, atsc(0xC1, t1)}}), kSlice}), -2, 0, 0, 0},
        {QNV_CC_FORM_MPEG2, {0, 0, 1, 0xB2, 'G', 'A', '9', '4'}, -2, 0, 0, 0},
        {QNV_CC_FORM_MPEG2, {0, 0, 1, 0xB2, 'G', 'A', '9', '4', 3, 0x41, 0xFF, 0xFC, 0x80}, 0, 0, 0, 0},
    };
    for (const auto& row : rows) {
        const auto at = &row - rows;
        CaptionDataRecord r;
        EXPECT_EQ(qnvutilFindCaptions(row.frame.data(), uint32_t(row.frame.size()), row.form, 0, &r), row.result) << at;
        EXPECT_EQ(r.messageIndex, row.message) << at;
        EXPECT_EQ(r.carriedCount, row.carried) << at;
        EXPECT_EQ(r.tripletCount, row.triplets) << at;
    }
    CaptionDataRecord r;
    const Bytes escaped = cat({seiUnit(hevc, {{4, atsc(0xC3, {0xFC, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01})}})});
    ASSERT_EQ(qnvutilFindCaptions(escaped.data(), uint32_t(escaped.size()), QNV_CC_FORM_HEVC, 0, &r), 0);
    EXPECT_EQ(carried(r), (std::vector<uint32_t>{0xFC0000, 0x030000, 0x000001}));
}

TEST_F(FindCaptions, DamagedFramesAndArguments) {
    const Bytes sei = seiUnit({0x06}, {{4, atsc(0xC2, {0xFC, 0x94, 0x20, 0xFD, 0x80, 0x80})}});
    Bytes lengthPrefixed = sei;
    lengthPrefixed[3] = static_cast<uint8_t>(sei.size() - 4);
    CaptionDataRecord r;
    ASSERT_EQ(qnvutilFindCaptions(sei.data(), uint32_t(sei.size()), QNV_CC_FORM_AVC, 0, &r), 0);
    ASSERT_EQ(qnvutilFindCaptions(lengthPrefixed.data(), uint32_t(lengthPrefixed.size()), QNV_CC_FORM_AVC, 1, &r), 0);
    // Every cut of the unit: the payloadSize runs past the end, or the length does.
    for (size_t n = 0; n < sei.size(); ++n) {
        const Bytes cut(sei.begin(), sei.begin() + n), cutLp(lengthPrefixed.begin(), lengthPrefixed.begin() + n);
        EXPECT_EQ(qnvutilFindCaptions(cut.data(), uint32_t(n), QNV_CC_FORM_AVC, 0, &r), n + 1 == sei.size() ? 0 : -2) << n;
        EXPECT_EQ(qnvutilFindCaptions(cutLp.data(), uint32_t(n), QNV_CC_FORM_AVC, 1, &r), -2) << n;
    }
    r.cc_count = 7;
    EXPECT_EQ(qnvutilFindCaptions(nullptr, 0, QNV_CC_FORM_AVC, 0, &r), -2);
    EXPECT_EQ(r.cc_count, 0u) << "the record is cleared";
    EXPECT_EQ(qnvutilFindCaptions(nullptr, 4, QNV_CC_FORM_AVC, 0, &r), -1);
    EXPECT_EQ(qnvutilFindCaptions(sei.data(), uint32_t(sei.size()), 0, 0, &r), -1);
    EXPECT_EQ(qnvutilFindCaptions(sei.data(), uint32_t(sei.size()), 4, 0, &r), -1);
    EXPECT_EQ(qnvutilFindCaptions(sei.data(), uint32_t(sei.size()), QNV_CC_FORM_AVC, 0, nullptr), -1);
}
