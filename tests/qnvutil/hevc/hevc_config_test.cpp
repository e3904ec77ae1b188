// HEVC decoder configuration record and frame scan: the 'hvcC' box of an
// ffmpeg-muxed MP4, the reader's retry and first-one-wins rules, and the
// scan's records, copies and SEI findings.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/qnvutil/hevc/hevc_test_util.h"

using namespace hevctest;

namespace {

struct StreamSets {
    HevcVpsRecord vps{};
    HevcSpsRecord sps{};
    HevcPpsRecord pps{};
    HevcConfigRecord config{};
    std::vector<uint8_t> vpsNal, spsNal, ppsNal;
};

bool sameRecords(const StreamSets& a, const StreamSets& b) {
    return std::memcmp(&a.vps, &b.vps, sizeof a.vps) == 0 && std::memcmp(&a.sps, &b.sps, sizeof a.sps) == 0 &&
           std::memcmp(&a.pps, &b.pps, sizeof a.pps) == 0;
}

// The first VPS, SPS and PPS of a stream, parsed in order into one config.
void firstSets(const std::string& fixture, StreamSets& s) {
    for (const Unit& u : annexBUnits(readFixture(fixture))) {
        if (u.hevcType() == 32 && s.vpsNal.empty()) readUnit(qnvutilRead_HEVC_VPS, s.vpsNal = u.bytes, &s.vps, &s.config);
        if (u.hevcType() == 33 && s.spsNal.empty()) readUnit(qnvutilRead_HEVC_SPS, s.spsNal = u.bytes, &s.sps, &s.config);
        if (u.hevcType() == 34 && s.ppsNal.empty()) readUnit(qnvutilRead_HEVC_PPS, s.ppsNal = u.bytes, &s.pps, &s.config);
    }
}

// Reads a box (with the spare byte the bit reader may touch).
uint32_t readBox(std::vector<uint8_t> box, StreamSets& into) {
    const uint32_t bits = static_cast<uint32_t>(box.size() * 8);
    box.push_back(0);
    BitBuffer reader{box.data(), static_cast<uint32_t>(box.size()), bits, 0};
    return qnvutilRead_HEVC_CR(&reader, &into.config, &into.vps, &into.sps, &into.pps);
}

// The record (no box header) with the header from `config` (none when null)
// and an array for each unit given.
std::vector<uint8_t> record(HevcConfigRecord* config, std::vector<uint8_t> vps, std::vector<uint8_t> sps,
                            std::vector<uint8_t> pps) {
    std::vector<uint8_t> out(512);
    BitBuffer bb{out.data(), 512, 0, 0};
    out.resize(qnvutilWrite_HEVC_CR(&bb, config, vps.data(), sps.data(), pps.data(), static_cast<int32_t>(vps.size()),
                                    static_cast<int32_t>(sps.size()), static_cast<int32_t>(pps.size())));
    return out;
}

std::vector<uint8_t> boxed(const std::vector<uint8_t>& payload) { return qnvtest::boxed(payload, "hvcC"); }

}  // namespace

TEST(HevcConfigRecord, MatchesTheBoxFfmpegMuxed) {
    std::vector<uint8_t> box = qnvtest::findBox(readFixture("main.mp4"), "hvcC");
    ASSERT_GT(box.size(), 31u);
    StreamSets stream;
    firstSets("main.265", stream);
    stream.config.configurationVersion = 1;
    stream.config.lengthSizeMinusOne = 3;
    stream.config.numOfArrays = 3;

    static StreamSets boxSets;
    boxSets = StreamSets{};
    LogCapture log;
    EXPECT_EQ(readBox(box, boxSets), box.size());
    // ffmpeg stored the PPS with the zero byte that followed it in the
    // stream: the reader reports the extra byte and keeps the record.
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_NE(log.lines[0].find("qnvutilRead_HEVC_PPS failed bit length is wrong"), std::string::npos);
    EXPECT_TRUE(sameRecords(boxSets, stream));

    // Field for field. ffmpeg stores parallelismType 0 (unknown); reading the
    // box merges the PPS's own value (1: neither wavefronts nor tiles) over
    // it, as parsing the stream's sets does.
    EXPECT_EQ(box[8 + 15] & 3, 0);
    EXPECT_EQ(boxSets.config.parallelismType, 1u);
    EXPECT_EQ(std::memcmp(&stream.config, &boxSets.config, sizeof stream.config), 0);

    // Written from the same config and the box's units, the payload is
    // ffmpeg's but for array_completeness, which ffmpeg clears in an 'hev1'
    // sample entry.
    std::vector<uint8_t> payload(box.begin() + 8, box.end());
    std::vector<uint8_t> nals[3];
    for (size_t at = 23, array = 0; array < 3; ++array) {
        const size_t length = size_t(payload[at + 3]) << 8 | payload[at + 4];
        nals[array].assign(payload.begin() + at + 5, payload.begin() + at + 5 + length);
        EXPECT_EQ(payload[at] & 0x80, 0);
        payload[at] |= 0x80;
        at += 5 + length;
    }
    HevcConfigRecord asStored = boxSets.config;
    asStored.parallelismType = 0;
    EXPECT_EQ(record(&asStored, nals[0], nals[1], nals[2]), payload);
}

TEST(HevcConfigRecord, WriterLayout) {
    StreamSets s;
    firstSets("main.265", s);
    s.config.numOfArrays = 3;
    const std::vector<uint8_t> full = record(&s.config, s.vpsNal, s.spsNal, s.ppsNal),
                               noSps = record(&s.config, s.vpsNal, {}, s.ppsNal),
                               bare = record(nullptr, s.vpsNal, s.spsNal, s.ppsNal);
    EXPECT_EQ(noSps.size(), full.size() - 5 - s.spsNal.size());
    EXPECT_EQ(noSps[22], 3);  // numOfArrays as the config holds it
    EXPECT_EQ(std::vector<uint8_t>(full.begin() + 23, full.end()), bare);
    EXPECT_EQ(bare[0], 0x80 | 32);
    EXPECT_EQ(qnvutilGetHvcc(), 0xFFFFFFFFu);
}

TEST(HevcConfigRecord, ReaderRules) {
    static StreamSets s, r;
    firstSets("main.265", s);
    s.config.configurationVersion = 1;
    // No arrays: 0, with the header words filled.
    s.config.numOfArrays = 0;
    EXPECT_EQ(readBox(boxed(record(&s.config, {}, {}, {})), r), 0u);
    EXPECT_EQ(std::memcmp(&r.config, &s.config, sizeof s.config), 0);

    // A second VPS and SPS: the first ones fill the records. The set was
    // complete before them: the result ends at the PPS.
    s.config.numOfArrays = 5;
    std::vector<uint8_t> p = record(&s.config, s.vpsNal, s.spsNal, s.ppsNal);
    static StreamSets other;
    other = s;
    other.vps.vps_max_dec_pic_buffering_minus1 = 9;
    other.sps.pic_width_in_luma_samples = 1920;
    const std::vector<uint8_t> second =
        record(nullptr, written(qnvutilWrite_HEVC_VPS, other.vps), written(qnvutilWrite_HEVC_SPS, other.sps), {});
    p.insert(p.end(), second.begin(), second.end());
    r = StreamSets{};
    LogCapture log;
    EXPECT_EQ(readBox(boxed(p), r), p.size() + 8 - second.size());
    EXPECT_TRUE(log.lines.empty());
    EXPECT_TRUE(sameRecords(r, s));

    // A reserved group that reads '111110' is retried after unescaping and
    // fails when still wrong, with one message each time.
    std::vector<uint8_t> bad = boxed(p);
    bad[8 + 15] &= ~0x04;
    EXPECT_EQ(readBox(bad, r = StreamSets{}), 0xFFFFFFFFu);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[1].rfind("Hevc Reserved bits incorrect qnvutil/qnvvidutil ", 0), 0u);

    // A unit running past the data.
    std::vector<uint8_t> cut = boxed(p);
    cut.resize(cut.size() - 3);
    log.lines.clear();
    EXPECT_EQ(readBox(cut, r = StreamSets{}), 0xFFFFFFFFu);
    ASSERT_FALSE(log.lines.empty());
    EXPECT_EQ(log.lines.back().rfind("Hevc read is past end of bitstream", 0), 0u);
}

TEST(HevcFrameScan, RecordsCopiesAndSei) {
    const std::vector<uint8_t> data = readFixture("hrd.265");
    StreamSets s;
    firstSets("hrd.265", s);
    // The first access unit: everything up to the unit after its slice.
    const std::vector<Unit> units = annexBUnits(data);
    size_t slice = 0;
    while (units[slice].hevcType() >= 32) ++slice;
    size_t end = units[slice + 1].offset - 3;
    while (data[end - 1] == 0) --end;
    static StreamSets found;
    found = StreamSets{};
    HevcFrameContext frame{};
    frame.data = data.data();
    frame.size = static_cast<uint32_t>(end);
    uint8_t vpsOut[256], spsOut[256], ppsOut[4];
    uint32_t vpsSize = sizeof vpsOut, spsSize = sizeof spsOut, ppsSize = sizeof ppsOut;
    EXPECT_EQ(qnvutilFindNalUnitsHevc(&frame, &found.vps, &found.sps, &found.pps, vpsOut, &vpsSize, spsOut, &spsSize,
                                      ppsOut, &ppsSize),
              slice + 1);
    EXPECT_TRUE(sameRecords(found, s));
    EXPECT_EQ(std::vector<uint8_t>(vpsOut, vpsOut + vpsSize), s.vpsNal);
    EXPECT_EQ(std::vector<uint8_t>(spsOut, spsOut + spsSize), s.spsNal);
    EXPECT_EQ(ppsSize, 0u);  // too small a buffer
    EXPECT_EQ(frame.found & 0x1F, HEVC_FOUND_VPS | HEVC_FOUND_SPS | HEVC_FOUND_PPS | HEVC_FOUND_VCL | HEVC_FOUND_IRAP);
    EXPECT_EQ(frame.firstVclOffset, units[slice].offset);
    // x265's pic_timing with HRD: delays present, no frame-field info.
    EXPECT_TRUE(frame.found & HEVC_FOUND_PIC_TIMING);
    EXPECT_EQ(frame.picStruct, 0u);

    // Interlaced material: field pictures with pic_struct 1 (top) first.
    std::vector<uint8_t> fields = readFixture("interlace.265");
    frame = HevcFrameContext{};
    frame.data = fields.data();
    frame.size = static_cast<uint32_t>(fields.size());
    found = StreamSets{};
    EXPECT_EQ(qnvutilFindNalUnitsHevc(&frame, &found.vps, &found.sps, &found.pps, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr),
              annexBUnits(fields).size());
    EXPECT_EQ(found.sps.field_seq_flag, 1u);
    EXPECT_TRUE(frame.found & HEVC_FOUND_PIC_TIMING);
    EXPECT_EQ(frame.picStruct, 1u);

    // Nothing to walk.
    EXPECT_EQ(qnvutilFindNalUnitsHevc(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr),
              0u);
}

TEST(HevcFrameScan, CaptionAndRecoveryPointSei) {
    // A prefix SEI with a recovery point (poc 2, exact match) and a CEA-708
    // T.35 message with 3 caption pairs, behind an SPS-less frame.
    const std::vector<uint8_t> frameBytes = {
        0, 0, 0, 1, 0x4E, 0x01,
        0x06, 0x01, 0x25,  // recovery_point: se(2) = 00100, exact match 1, broken link 0, payload end bit
        0x04, 0x0A, 0xB5, 0x00, 0x31, 0x47, 0x41, 0x39, 0x34, 0x03, 0x43, 0xFF,  // T.35, cc_count 3
        0x80,
        0, 0, 1, 0x26, 0x01, 0xAF};
    HevcFrameContext frame{};
    frame.data = frameBytes.data();
    frame.size = static_cast<uint32_t>(frameBytes.size());
    EXPECT_EQ(qnvutilFindNalUnitsHevc(&frame, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr),
              2u);
    EXPECT_EQ(frame.found, HEVC_FOUND_RECOVERY | HEVC_FOUND_CAPTIONS | HEVC_FOUND_VCL | HEVC_FOUND_IRAP);
    EXPECT_EQ(std::vector<uint32_t>({static_cast<uint32_t>(frame.recoveryPocCnt), frame.exactMatchFlag,
                                     frame.brokenLinkFlag, frame.captionCount, frame.firstVclOffset}),
              std::vector<uint32_t>({2, 1, 0, 3, 25}));
}
