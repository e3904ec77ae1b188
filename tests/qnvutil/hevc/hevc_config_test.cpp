// HEVC decoder configuration record and frame scan: the 'hvcC' box of an
// ffmpeg-muxed MP4, the reader's retry and first-one-wins rules, and the
// scan's records, copies and SEI findings.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/qnvutil/hevc/hevc_test_util.h"

using namespace hevctest;

namespace {

uint32_t be32(const std::vector<uint8_t>& d, size_t at) {
    return uint32_t(d[at]) << 24 | uint32_t(d[at + 1]) << 16 | uint32_t(d[at + 2]) << 8 | d[at + 3];
}

// The 'hvcC' box (header included) of the first HEVC sample entry of an MP4:
// moov/trak/mdia/minf/stbl/stsd/{hev1,hvc1}/hvcC.
std::vector<uint8_t> findHvcc(const std::vector<uint8_t>& mp4) {
    struct Walk {
        const std::vector<uint8_t>& d;
        std::vector<uint8_t> found;
        void boxes(size_t from, size_t to) {
            while (from + 8 <= to && found.empty()) {
                const uint32_t size = be32(d, from);
                if (size < 8 || from + size > to) return;
                const std::string type(d.begin() + from + 4, d.begin() + from + 8);
                if (type == "hvcC") found.assign(d.begin() + from, d.begin() + from + size);
                if (type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl")
                    boxes(from + 8, from + size);
                if (type == "stsd") boxes(from + 16, from + size);              // version, flags, entry count
                if (type == "hev1" || type == "hvc1") boxes(from + 86, from + size);  // visual sample entry
                from += size;
            }
        }
    } walk{mp4, {}};
    walk.boxes(0, mp4.size());
    return walk.found;
}

struct StreamSets {
    HevcVpsRecord vps{};
    HevcSpsRecord sps{};
    HevcPpsRecord pps{};
    HevcConfigRecord config{};
    std::vector<uint8_t> vpsNal, spsNal, ppsNal;
};

// The first VPS, SPS and PPS of a stream, parsed in order into one config.
void firstSets(const std::string& fixture, StreamSets& s) {
    std::vector<uint8_t> data = readFixture(fixture);
    for (const Unit& u : annexBUnits(data)) {
        std::vector<uint8_t> b(u.bytes);
        b.push_back(0);
        BitBuffer bb{b.data(), static_cast<uint32_t>(b.size()), static_cast<uint32_t>(u.bytes.size() * 8), 0};
        if (u.type() == 32 && s.vpsNal.empty()) {
            qnvutilRead_HEVC_VPS(&bb, &s.vps, &s.config, 0);
            s.vpsNal = u.bytes;
        } else if (u.type() == 33 && s.spsNal.empty()) {
            qnvutilRead_HEVC_SPS(&bb, &s.sps, &s.config, 0);
            s.spsNal = u.bytes;
        } else if (u.type() == 34 && s.ppsNal.empty()) {
            qnvutilRead_HEVC_PPS(&bb, &s.pps, &s.config, 0);
            s.ppsNal = u.bytes;
        }
    }
}

uint32_t writeRecord(std::vector<uint8_t>& out, HevcConfigRecord* config, StreamSets& s, int32_t spsSize) {
    BitBuffer bb{out.data(), static_cast<uint32_t>(out.size()), 0, 0};
    return qnvutilWrite_HEVC_CR(&bb, config, s.vpsNal.data(), s.spsNal.data(), s.ppsNal.data(),
                                static_cast<int32_t>(s.vpsNal.size()), spsSize, static_cast<int32_t>(s.ppsNal.size()));
}

}  // namespace

TEST(HevcConfigRecord, MatchesTheBoxFfmpegMuxed) {
    std::vector<uint8_t> box = findHvcc(readFixture("main.mp4"));
    ASSERT_GT(box.size(), 31u);
    StreamSets stream;
    firstSets("main.265", stream);
    stream.config.configurationVersion = 1;
    stream.config.lengthSizeMinusOne = 3;
    stream.config.numOfArrays = 3;

    static StreamSets boxSets;
    boxSets = StreamSets{};
    Bytes b{box};
    b.data.push_back(0);
    BitBuffer reader = b.reader();
    reader.sizeBits = static_cast<uint32_t>(box.size() * 8);
    LogCapture log;
    EXPECT_EQ(qnvutilRead_HEVC_CR(&reader, &boxSets.config, &boxSets.vps, &boxSets.sps, &boxSets.pps), box.size());
    // ffmpeg stored the PPS with the zero byte that followed it in the
    // stream: the reader reports the extra byte and keeps the record.
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_NE(log.lines[0].find("qnvutilRead_HEVC_PPS failed bit length is wrong"), std::string::npos);
    EXPECT_EQ(std::memcmp(&boxSets.vps, &stream.vps, sizeof stream.vps), 0);
    EXPECT_EQ(std::memcmp(&boxSets.sps, &stream.sps, sizeof stream.sps), 0);
    EXPECT_EQ(std::memcmp(&boxSets.pps, &stream.pps, sizeof stream.pps), 0);

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
    StreamSets units;
    std::vector<uint8_t>* nals[] = {&units.vpsNal, &units.spsNal, &units.ppsNal};
    for (size_t at = 23, array = 0; array < 3; ++array) {
        const size_t length = size_t(payload[at + 3]) << 8 | payload[at + 4];
        nals[array]->assign(payload.begin() + at + 5, payload.begin() + at + 5 + length);
        EXPECT_EQ(payload[at] & 0x80, 0);
        payload[at] |= 0x80;
        at += 5 + length;
    }
    HevcConfigRecord asStored = boxSets.config;
    asStored.parallelismType = 0;
    std::vector<uint8_t> out(512);
    out.resize(writeRecord(out, &asStored, units, static_cast<int32_t>(units.spsNal.size())));
    EXPECT_EQ(out, payload);
}

TEST(HevcConfigRecord, WriterLayout) {
    StreamSets s;
    firstSets("main.265", s);
    s.config.numOfArrays = 3;
    std::vector<uint8_t> full(512), noSps(512), bare(512);
    full.resize(writeRecord(full, &s.config, s, static_cast<int32_t>(s.spsNal.size())));
    noSps.resize(writeRecord(noSps, &s.config, s, 0));
    bare.resize(writeRecord(bare, nullptr, s, static_cast<int32_t>(s.spsNal.size())));
    EXPECT_EQ(full.size(), 23 + 15 + s.vpsNal.size() + s.spsNal.size() + s.ppsNal.size());
    EXPECT_EQ(noSps.size(), full.size() - 5 - s.spsNal.size());
    EXPECT_EQ(noSps[22], 3);  // numOfArrays as the config holds it
    EXPECT_EQ(std::vector<uint8_t>(full.begin() + 23, full.end()), bare);
    EXPECT_EQ(bare[0], 0x80 | 32);
    EXPECT_EQ(qnvutilGetHvcc(), 0xFFFFFFFFu);
}

namespace {

// A box around a record: size, 'hvcC', payload.
std::vector<uint8_t> boxed(const std::vector<uint8_t>& payload) {
    const uint32_t size = static_cast<uint32_t>(payload.size() + 8);
    std::vector<uint8_t> box(size);
    const uint8_t header[8] = {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size), 'h', 'v', 'c', 'C'};
    std::memcpy(box.data(), header, 8);
    std::memcpy(box.data() + 8, payload.data(), payload.size());
    return box;
}

uint32_t readBox(const std::vector<uint8_t>& box, StreamSets& into) {
    Bytes b{box};
    b.data.push_back(0);
    BitBuffer reader = b.reader();
    reader.sizeBits = static_cast<uint32_t>(box.size() * 8);
    return qnvutilRead_HEVC_CR(&reader, &into.config, &into.vps, &into.sps, &into.pps);
}

}  // namespace

TEST(HevcConfigRecord, ReaderRules) {
    StreamSets s;
    firstSets("main.265", s);
    s.config.configurationVersion = 1;
    std::vector<uint8_t> payload(512);

    // No arrays: 0, with the header words filled.
    s.config.numOfArrays = 0;
    {
        std::vector<uint8_t> p(payload);
        BitBuffer bb{p.data(), 512, 0, 0};
        qnvutilWrite_HEVC_CR(&bb, &s.config, nullptr, nullptr, nullptr, 0, 0, 0);
        p.resize(bb.bitPos / 8);
        static StreamSets r;
        r = StreamSets{};
        EXPECT_EQ(readBox(boxed(p), r), 0u);
        EXPECT_EQ(std::memcmp(&r.config, &s.config, sizeof s.config), 0);
    }

    // Two SPS entries: the first fills the record.
    s.config.numOfArrays = 4;
    std::vector<uint8_t> p(512);
    BitBuffer bb{p.data(), 512, 0, 0};
    qnvutilWrite_HEVC_CR(&bb, &s.config, s.vpsNal.data(), s.spsNal.data(), s.ppsNal.data(),
                         static_cast<int32_t>(s.vpsNal.size()), static_cast<int32_t>(s.spsNal.size()),
                         static_cast<int32_t>(s.ppsNal.size()));
    HevcSpsRecord other = s.sps;
    other.pic_width_in_luma_samples = 1920;
    std::vector<uint8_t> otherNal(1024);
    otherNal.resize(qnvutilWrite_HEVC_SPS(&other, otherNal.data()));
    qnvutilWrite_HEVC_CR(&bb, nullptr, nullptr, otherNal.data(), nullptr, 0, static_cast<int32_t>(otherNal.size()), 0);
    p.resize(bb.bitPos / 8);
    static StreamSets r;
    r = StreamSets{};
    LogCapture log;
    // The set was complete before the second SPS: the result ends at the PPS.
    EXPECT_EQ(readBox(boxed(p), r), p.size() + 8 - 5 - otherNal.size());
    EXPECT_TRUE(log.lines.empty());
    EXPECT_EQ(r.sps.pic_width_in_luma_samples, 64u);

    // A reserved group that reads '111110' is retried after unescaping and
    // fails when still wrong, with one message each time.
    std::vector<uint8_t> bad = boxed(p);
    bad[8 + 15] &= ~0x04;
    r = StreamSets{};
    log.lines.clear();
    EXPECT_EQ(readBox(bad, r), 0xFFFFFFFFu);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[1].rfind("Hevc Reserved bits incorrect qnvutil/qnvvidutil ", 0), 0u);

    // A unit running past the data.
    std::vector<uint8_t> cut = boxed(p);
    cut.resize(cut.size() - 3);
    r = StreamSets{};
    log.lines.clear();
    EXPECT_EQ(readBox(cut, r), 0xFFFFFFFFu);
    ASSERT_FALSE(log.lines.empty());
    EXPECT_EQ(log.lines.back().rfind("Hevc read is past end of bitstream", 0), 0u);
}

TEST(HevcFrameScan, RecordsCopiesAndSei) {
    std::vector<uint8_t> data = readFixture("hrd.265");
    StreamSets s;
    firstSets("hrd.265", s);
    // The first access unit: everything up to the unit after its slice.
    std::vector<Unit> units = annexBUnits(data);
    size_t slice = 0;
    while (units[slice].type() >= 32) ++slice;
    size_t end = units[slice + 1].offset - 3;
    while (data[end - 1] == 0) --end;
    const size_t unitsInFrame = slice + 1;
    static StreamSets found;
    found = StreamSets{};
    HevcFrameContext frame{};
    frame.data = data.data();
    frame.size = static_cast<uint32_t>(end);
    uint8_t vpsOut[256], spsOut[256], ppsOut[4];
    uint32_t vpsSize = sizeof vpsOut, spsSize = sizeof spsOut, ppsSize = sizeof ppsOut;
    EXPECT_EQ(qnvutilFindNalUnitsHevc(&frame, &found.vps, &found.sps, &found.pps, vpsOut, &vpsSize, spsOut, &spsSize,
                                      ppsOut, &ppsSize),
              unitsInFrame);
    EXPECT_EQ(std::memcmp(&found.vps, &s.vps, sizeof s.vps), 0);
    EXPECT_EQ(std::memcmp(&found.sps, &s.sps, sizeof s.sps), 0);
    EXPECT_EQ(std::memcmp(&found.pps, &s.pps, sizeof s.pps), 0);
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
    EXPECT_EQ(frame.recoveryPocCnt, 2);
    EXPECT_EQ(frame.exactMatchFlag, 1u);
    EXPECT_EQ(frame.captionCount, 3u);
    EXPECT_EQ(frame.firstVclOffset, 25u);
}
