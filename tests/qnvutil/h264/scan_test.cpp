// qnvutilFindNalUnits: records, copies and SEI findings of hand-built frames
// around x264 parameter sets, in both framings.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "qnvutil/h264.h"
#include "tests/qnvutil/test_util.h"

using qnvtest::cat;
using Bytes = std::vector<uint8_t>;

namespace {

const Bytes kCode = {0, 0, 0, 1};
const Bytes kAud = {0x09, 0xF0};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x21, 0xA0};
const Bytes kSlice = {0x41, 0x9A, 0x02, 0x11};

// SEI messages: pic_timing with a 13-bit cpb delay of 4 and a 7-bit dpb
// delay of 2 (the HRD of high_sar_hrd_cbr); pic_struct 3 (high10_mbaff,
// no HRD); recovery_point with frame count 0, exact match; T.35 captions
// with cc_count 3.
const Bytes kTimingHrd = {0x01, 0x03, 0x00, 0x20, 0x28};
const Bytes kTimingStruct = {0x01, 0x01, 0x32};
const Bytes kRecovery = {0x06, 0x01, 0xC4};
const Bytes kCaptions = {0x04, 0x0A, 0xB5, 0x00, 0x31, 0x47, 0x41, 0x39, 0x34, 0x03, 0x43, 0xFF};

Bytes sei(std::initializer_list<Bytes> messages) {
    Bytes unit = {0x06};
    for (const Bytes& m : messages) unit.insert(unit.end(), m.begin(), m.end());
    unit.push_back(0x80);
    return unit;
}

// The fixture's SPS and PPS units (each behind 00 00 00 01).
struct Sets {
    Bytes sps, pps;
};
Sets fixtureSets(const std::string& name) {
    const Bytes f = qnvtest::readData("h264/" + name + ".264");
    const auto units = qnvtest::annexBUnits(f);
    return {units.at(0).bytes, units.at(1).bytes};
}

// A frame of units, each behind a 4-byte start code (so that its offsets are
// the same once converted to lengths).
Bytes frameOf(std::initializer_list<Bytes> units) {
    Bytes f;
    for (const Bytes& u : units) f = cat({f, kCode, u});
    return f;
}

Bytes toLengths(Bytes f) {
    f.resize(f.size() + 8);
    f.resize(qnvUtilh264MarkerToSize(f.data(), static_cast<uint32_t>(f.size() - 8)));
    return f;
}

struct Scan {
    H264FrameContext frame{};
    H264SpsRecord sps{};
    H264PpsRecord pps{};
    uint8_t spsOut[128], ppsOut[128];
    uint32_t spsSize = sizeof spsOut, ppsSize = sizeof ppsOut, walked = 0;
};

std::unique_ptr<Scan> scan(const Bytes& f, bool lengths, uint32_t capacity = 128) {
    auto s = std::make_unique<Scan>();
    s->frame.data = f.data();
    s->frame.size = static_cast<uint32_t>(f.size());
    s->frame.lengthPrefixed = lengths;
    s->spsSize = s->ppsSize = capacity;
    s->walked = qnvutilFindNalUnits(&s->frame, &s->sps, &s->pps, s->spsOut, &s->spsSize, s->ppsOut, &s->ppsSize);
    return s;
}

template <typename Record>
bool sameAsRead(Bytes unit, const Record& r) {
    static Record expected;
    std::memset(&expected, 0, sizeof expected);
    BitBuffer bb{unit.data(), static_cast<uint32_t>(unit.size()), static_cast<uint32_t>(unit.size() * 8), 0};
    if constexpr (std::is_same_v<Record, H264SpsRecord>)
        qnvutilRead_SPS(&bb, &expected);
    else
        qnvutilRead_PPS(&bb, &expected);
    return std::memcmp(&expected, &r, sizeof r) == 0;
}

}  // namespace

TEST(H264FrameScan, FindingsInBothFramings) {
    const Sets hrd = fixtureSets("high_sar_hrd_cbr"), mbaff = fixtureSets("high10_mbaff");
    const struct {
        const char* what;
        Sets sets;
        Bytes frame;
        uint32_t walked, found, cpb, dpb, picStruct, recovery, captions;
    } rows[] = {
        {"AUD, sets, SEI with HRD timing, recovery and captions, IDR", hrd,
         frameOf({kAud, hrd.sps, hrd.pps, sei({kTimingHrd, kRecovery, kCaptions}), kIdr}), 5,
         H264_FOUND_AUD | H264_FOUND_SPS | H264_FOUND_PPS | H264_FOUND_VCL | H264_FOUND_IDR | H264_FOUND_PIC_TIMING |
             H264_FOUND_RECOVERY | H264_FOUND_CAPTIONS,
         4, 2, 0, 0, 3},
        {"pic_struct without HRD; non-IDR slice", mbaff,
         frameOf({mbaff.sps, mbaff.pps, sei({kTimingStruct}), kSlice, kSlice}), 5,
         H264_FOUND_SPS | H264_FOUND_PPS | H264_FOUND_VCL | H264_FOUND_PIC_TIMING, 0, 0, 3, 0, 0},
        {"the first of each message counts", hrd,
         frameOf({hrd.sps, hrd.pps, sei({kRecovery}), sei({{0x06, 0x01, 0x44}, kTimingHrd}), kIdr}), 5,
         H264_FOUND_SPS | H264_FOUND_PPS | H264_FOUND_VCL | H264_FOUND_IDR | H264_FOUND_PIC_TIMING | H264_FOUND_RECOVERY,
         4, 2, 0, 0, 0},
        {"a message running past its unit ends the inspection", hrd,
         frameOf({hrd.sps, hrd.pps, sei({{0x04, 0x30, 0xB5}}), kIdr}), 4,
         H264_FOUND_SPS | H264_FOUND_PPS | H264_FOUND_VCL | H264_FOUND_IDR, 0, 0, 0, 0, 0},
    };
    for (const auto& r : rows) {
        for (bool lengths : {false, true}) {
            const Bytes f = lengths ? toLengths(r.frame) : r.frame;
            const auto s = scan(f, lengths);
            SCOPED_TRACE(std::string(r.what) + (lengths ? " (lengths)" : " (Annex B)"));
            EXPECT_EQ(s->walked, r.walked);
            EXPECT_EQ(s->frame.found, r.found);
            EXPECT_EQ(std::vector<uint32_t>({s->frame.cpbRemovalDelay, s->frame.dpbOutputDelay, s->frame.picStruct,
                                             s->frame.recoveryFrameCnt, s->frame.exactMatchFlag, s->frame.captionCount}),
                      std::vector<uint32_t>({r.cpb, r.dpb, r.picStruct, r.recovery,
                                             (r.found & H264_FOUND_RECOVERY) ? 1u : 0u, r.captions}));
            // The slice's header follows the last 4-byte code before it.
            const Bytes& slice = r.frame.back() == kIdr.back() ? kIdr : kSlice;
            EXPECT_EQ(s->frame.firstVclOffset, std::search(f.begin(), f.end(), slice.begin(), slice.end()) - f.begin());
            EXPECT_EQ(Bytes(s->spsOut, s->spsOut + s->spsSize), r.sets.sps);
            EXPECT_EQ(Bytes(s->ppsOut, s->ppsOut + s->ppsSize), r.sets.pps);
            EXPECT_TRUE(sameAsRead(r.sets.sps, s->sps));
            EXPECT_TRUE(sameAsRead(r.sets.pps, s->pps));
        }
    }
}

TEST(H264FrameScan, CapacitiesAndBadFraming) {
    const Sets hrd = fixtureSets("high_sar_hrd_cbr");
    const Bytes f = frameOf({hrd.sps, hrd.pps, kIdr});
    // A buffer smaller than the SPS keeps no SPS copy; the PPS fits.
    auto s = scan(f, false, static_cast<uint32_t>(hrd.sps.size() - 1));
    EXPECT_EQ(s->spsSize, 0u);
    EXPECT_EQ(s->ppsSize, hrd.pps.size());

    // A length running past the end stops the walk after the units before it.
    Bytes lengths = toLengths(f);
    lengths[hrd.sps.size() + 4] = 0x10;  // the PPS's length
    s = scan(lengths, true);
    EXPECT_EQ(s->walked, 1u);
    EXPECT_EQ(s->frame.found, H264_FOUND_SPS | H264_FOUND_TRUNCATED);

    // Garbage in front of the first start code is skipped; no frame, nothing.
    s = scan(cat({{0x12, 0x34}, f}), false);
    EXPECT_EQ(s->walked, 3u);
    EXPECT_EQ(qnvutilFindNalUnits(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
    H264FrameContext empty{};
    EXPECT_EQ(qnvutilFindNalUnits(&empty, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
}
