// 'avcC': records built from x264 streams against the boxes ffmpeg muxed
// into MP4s (tests/data/h264/make_avcc_fixtures.sh), the reader on those
// boxes, and the refusals of both.
#include <gtest/gtest.h>

#include <memory>

#include "qnvutil/h264.h"
#include "tests/qnvutil/test_util.h"

using Bytes = std::vector<uint8_t>;

namespace {

const char* const kCases[] = {"high420", "high422_10", "baseline"};

Bytes findAvcc(const Bytes& mp4) { return qnvtest::findBox(mp4, "avcC"); }

Bytes getAvcc(const Bytes& frame, bool lengths, uint32_t capacity = 512) {
    H264FrameContext ctx{};
    ctx.data = frame.data();
    ctx.size = static_cast<uint32_t>(frame.size());
    ctx.lengthPrefixed = lengths;
    Bytes record(capacity);
    record.resize(qnvutilGetAvcc(&ctx, record.data(), capacity));
    return record;
}

Bytes toLengths(Bytes f) {
    const uint32_t n = static_cast<uint32_t>(f.size());
    f.resize(n + n / 3 + 8);  // a widened byte for each 3-byte start code
    f.resize(qnvUtilh264MarkerToSize(f.data(), n));
    return f;
}

struct ReadResult {
    uint32_t result;
    AvcConfigRecord config{};
    H264SpsRecord sps{};
    H264PpsRecord pps{};
    Bytes spsUnit, ppsUnit;
};

std::unique_ptr<ReadResult> readBox(Bytes box) {
    auto r = std::make_unique<ReadResult>();
    BitBuffer bb{box.data(), static_cast<uint32_t>(box.size()), static_cast<uint32_t>(box.size() * 8), 0};
    uint8_t spsOut[256], ppsOut[256];
    uint32_t spsSize = sizeof spsOut, ppsSize = sizeof ppsOut;
    r->result = qnvutilReadAvcc(&bb, &r->config, &r->sps, &r->pps, spsOut, &spsSize, ppsOut, &ppsSize);
    r->spsUnit.assign(spsOut, spsOut + spsSize);
    r->ppsUnit.assign(ppsOut, ppsOut + ppsSize);
    return r;
}

}  // namespace

TEST(Avcc, MatchesTheBoxesFfmpegMuxed) {
    const struct { uint32_t profile, chroma, depth; bool extension; } expected[] = {
        {100, 1, 0, true}, {122, 2, 2, true}, {66, 0, 0, false}};
    for (size_t i = 0; i < std::size(kCases); ++i) {
        SCOPED_TRACE(kCases[i]);
        const std::string name = std::string("h264/avcc_") + kCases[i];
        const Bytes stream = qnvtest::readData(name + ".264");
        const Bytes box = findAvcc(qnvtest::readData(name + ".mp4"));
        ASSERT_GT(box.size(), 8u);
        const Bytes payload(box.begin() + 8, box.end());
        EXPECT_EQ(getAvcc(stream, false), payload);
        EXPECT_EQ(getAvcc(toLengths(stream), true), payload);

        const auto read = readBox(box);
        EXPECT_EQ(read->result, box.size());
        const AvcConfigRecord& c = read->config;
        EXPECT_EQ(std::vector<uint32_t>({c.configurationVersion, c.AVCProfileIndication, c.lengthSizeMinusOne,
                                         c.numOfSequenceParameterSets, c.numOfPictureParameterSets, c.extensionPresent,
                                         c.chroma_format, c.bit_depth_luma_minus8}),
                  std::vector<uint32_t>({1, expected[i].profile, 3, 1, 1, expected[i].extension, expected[i].chroma,
                                         expected[i].depth}));
        const auto units = qnvtest::annexBUnits(stream);
        EXPECT_EQ(read->spsUnit, units.at(0).bytes);
        EXPECT_EQ(read->ppsUnit, units.at(1).bytes);
        EXPECT_EQ(read->sps.profile_idc, static_cast<int32_t>(expected[i].profile));
        EXPECT_EQ(read->pps.pic_parameter_set_id, 0);
    }
}

TEST(Avcc, BuilderRules) {
    const Bytes stream = qnvtest::readData("h264/avcc_baseline.264");
    const auto units = qnvtest::annexBUnits(stream);
    const Bytes code = {0, 0, 0, 1};
    const Bytes sps = units.at(0).bytes, pps = units.at(1).bytes, ext = {0x6D, 0x42, 0x80};
    const Bytes full = getAvcc(stream, false);
    Bytes sps144 = sps;
    sps144[1] = 144;
    const struct { const char* what; Bytes frame; uint32_t capacity; Bytes tail; size_t size; } rows[] = {
        {"baseline: no extension, an SPS extension left out", qnvtest::cat({code, sps, code, ext, code, pps}), 512,
         qnvtest::cat({{0x01, 0x00, uint8_t(pps.size())}, pps}), full.size()},
        {"profile 144 has no chroma block: 4:2:0 8-bit", qnvtest::cat({code, sps144, code, ext, code, pps}), 512,
         qnvtest::cat({{0xFD, 0xF8, 0xF8, 0x01, 0x00, 0x03}, ext}), full.size() + 4 + 5},
        {"two PPS in frame order", qnvtest::cat({code, pps, code, sps, code, pps}), 512,
         qnvtest::cat({{0x02, 0x00, uint8_t(pps.size())}, pps, {0x00, uint8_t(pps.size())}, pps}),
         full.size() + 2 + pps.size()},
        {"exactly the room", stream, static_cast<uint32_t>(full.size()), pps, full.size()},
        {"one byte short", stream, static_cast<uint32_t>(full.size() - 1), {}, 0},
        {"no PPS", qnvtest::cat({code, sps}), 512, {}, 0},
        {"an SPS cut short", qnvtest::cat({code, Bytes(sps.begin(), sps.begin() + 3), code, pps}), 512, {}, 0},
    };
    for (const auto& r : rows) {
        const Bytes record = getAvcc(r.frame, false, r.capacity);
        EXPECT_EQ(record.size(), r.size) << r.what;
        if (r.size) {
            ASSERT_GE(record.size(), r.tail.size()) << r.what;
            EXPECT_EQ(Bytes(record.end() - r.tail.size(), record.end()), r.tail) << r.what;
        }
    }
    EXPECT_EQ(qnvutilGetAvcc(nullptr, nullptr, 0), 0u);
}

TEST(Avcc, ReaderRefusals) {
    const Bytes box = findAvcc(qnvtest::readData("h264/avcc_high422_10.mp4"));
    Bytes version2 = box, cutFixed(box.begin(), box.begin() + 12), cutUnit(box.begin(), box.begin() + 20);
    version2[8] = 2;
    Bytes noExtension = qnvtest::boxed(Bytes(box.begin() + 8, box.end() - 4), "avcC");
    const struct { const char* what; Bytes box; uint32_t result; uint32_t extension; } rows[] = {
        {"version 2", version2, 0xFFFFFFFFu, 0},
        {"cut inside the fixed fields", cutFixed, 0xFFFFFFFFu, 0},
        {"an SPS running past the end", cutUnit, 0xFFFFFFFFu, 0},
        {"a profile-122 record without its extension", noExtension, static_cast<uint32_t>(box.size() - 4), 0},
        {"the record ends where its arrays end", qnvtest::cat({box, {0xAB, 0xCD}}), static_cast<uint32_t>(box.size()), 1},
    };
    for (const auto& r : rows) {
        const auto read = readBox(r.box);
        EXPECT_EQ(read->result, r.result) << r.what;
        EXPECT_EQ(read->config.extensionPresent, r.extension) << r.what;
    }
    AvcConfigRecord c{};
    BitBuffer empty{nullptr, 0, 0, 0};
    EXPECT_EQ(qnvutilReadAvcc(&empty, &c, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
}

TEST(Avcc, ToolWritesAndReadsTheBox) {
    if (!qnvtest::qnvtoolBuilt()) GTEST_SKIP() << "qnvtool is not built";
    const std::string data = std::string(QNV_TEST_DATA) + "/h264/";
    const qnvtest::TempFile box;
    const std::string built =
        qnvtest::runCommand(qnvtest::kQnvtool + " avcc " + data + "avcc_high420.264 -o " + box.path() + " 2>&1");
    EXPECT_EQ(built.rfind("00 00 00 33 61 76 63 43 01 64 00 0a ff e1", 0), 0u) << built;
    EXPECT_EQ(box.bytes(), findAvcc(qnvtest::readData("h264/avcc_high420.mp4")));
    const std::string read = qnvtest::runCommand(qnvtest::kQnvtool + " avcc --read " + box.path() + " 2>&1");
    EXPECT_NE(read.find("chroma_format                       1\n"), std::string::npos) << read;
    EXPECT_NE(read.find("SPS: id 0, coded 64x48, profile_idc 100, level_idc 10\n"), std::string::npos) << read;
    EXPECT_NE(qnvtest::runCommand(qnvtest::kQnvtool + " avcc --read " + data + "avcc_high420.264 2>&1").find("not an 'avcC' box"),
              std::string::npos);
}
