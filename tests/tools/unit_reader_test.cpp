// Chunked reading against the whole-stream model: for every chunk size from
// one byte up, so that chunk boundaries fall inside start codes, headers and
// payloads at every position, UnitReader yields the units the NAL walk finds
// in the whole stream, and AccessUnitReader the same access units.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "foundation/nal/nal.h"
#include "tests/qnvutil/test_util.h"
#include "tools/qnvtool/unit_reader.h"

namespace {

using qnvtool::AccessUnitReader;
using qnvtool::InputStream;
using qnvtool::StreamUnit;
using qnvtool::UnitReader;
using qnvtool::VideoCodec;
using Bytes = std::vector<uint8_t>;

Bytes load(const std::string& name) { return qnvtest::readData(name); }
using TempStream = qnvtest::TempFile;

struct Seen {
    uint64_t startCode;
    uint32_t prefix, size;
    Bytes raw;
    bool operator==(const Seen&) const = default;
};

// The model: the walk over the whole stream, each unit's raw span running
// to the next unit's start code.
std::vector<Seen> wholeStream(const Bytes& s) {
    std::vector<qnv::nal::Unit> units;
    qnv::nal::UnitWalk walk(s.data(), static_cast<uint32_t>(s.size()), qnv::nal::Framing::kAnnexB);
    for (qnv::nal::Unit u; walk.next(u);) units.push_back(u);
    std::vector<Seen> seen;
    if (units.empty()) {
        if (!s.empty()) seen.push_back({0, 0, 0, s});
        return seen;
    }
    for (size_t i = 0; i < units.size(); ++i) {
        const size_t from = i == 0 ? 0 : units[i].offset;
        const size_t to = i + 1 < units.size() ? units[i + 1].offset : s.size();
        seen.push_back({units[i].offset, units[i].prefix, units[i].size, Bytes(s.begin() + from, s.begin() + to)});
    }
    return seen;
}

std::vector<Seen> chunked(const std::string& path, size_t chunk) {
    InputStream in(path);
    in.setChunk(chunk);
    UnitReader reader(in);
    std::vector<Seen> seen;
    for (StreamUnit u; reader.next(u);)
        seen.push_back({u.prefix ? u.startCodeOffset() : 0, u.prefix, u.size, Bytes(u.raw, u.raw + u.rawSize)});
    return seen;
}

TEST(UnitReader, EveryChunkSizeGivesTheUnitsOfTheWholeStream) {
    const Bytes synthetic = {
        0xAA, 0x00, 0x00,                    // bytes before the first start code
        0x00, 0x00, 0x00, 0x01, 0x67, 0x42,  // four-byte start code
        0x00, 0x00, 0x01, 0x68,              // three-byte start code, one-byte unit
        0x00, 0x00, 0x01,                    // empty unit
        0x00, 0x00, 0x01, 0x65, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x00,  // escapes, trailing zeros
        0x00, 0x00, 0x00, 0x00, 0x01, 0x06, 0x05,                          // zeros in front of a start code
        0x00, 0x00, 0x01};                                                 // a start code at the end
    struct Case {
        const char* name;
        Bytes bytes;
    };
    const Case cases[] = {{"synthetic", synthetic},
                          {"no start code", {0x12, 0x00, 0x00, 0x02, 0x34}},
                          {"x264", load("sei/h264.264")},
                          {"x265", load("sei/hevc.265")},
                          {"mpeg2", load("sei/mpeg2.m2v")}};
    for (const Case& c : cases) {
        ASSERT_FALSE(c.bytes.empty()) << c.name;
        const TempStream file(c.bytes);
        const std::vector<Seen> model = wholeStream(c.bytes);
        std::vector<size_t> sizes;
        for (size_t n = 1; n <= 40; ++n) sizes.push_back(n);
        for (size_t n : {61, 255, 4096, 1 << 20}) sizes.push_back(n);
        for (size_t n : sizes) {
            const std::vector<Seen> got = chunked(file.path(), n);
            ASSERT_EQ(got.size(), model.size()) << c.name << ", chunk " << n;
            for (size_t i = 0; i < got.size(); ++i)
                ASSERT_TRUE(got[i] == model[i]) << c.name << ", chunk " << n << ", unit " << i;
        }
    }
}

struct Unit {
    uint64_t offset;
    Bytes bytes;
};

std::vector<Unit> accessUnits(const std::string& path, VideoCodec codec, size_t chunk) {
    InputStream in(path);
    in.setChunk(chunk);
    UnitReader reader(in);
    AccessUnitReader aus(reader, codec);
    std::vector<Unit> out;
    Unit u;
    while (aus.next(u.bytes, u.offset)) out.push_back(u);
    return out;
}

TEST(AccessUnitReader, SplitsAsDecodersCountPicturesWhateverTheChunks) {
    // Picture counts as ffprobe -count_frames reports them.
    struct Case {
        const char* file;
        VideoCodec codec;
        size_t pictures;
    };
    const Case cases[] = {{"sei/h264.264", VideoCodec::kH264, 30},
                          {"sei/hevc.265", VideoCodec::kHevc, 30},
                          {"sei/mpeg2.m2v", VideoCodec::kMpeg2, 30},
                          {"h264/slices/pyramid.264", VideoCodec::kH264, 12},
                          {"h264/slices/baseline_small.264", VideoCodec::kH264, 6}};
    for (const Case& c : cases) {
        const Bytes stream = load(c.file);
        const TempStream file(stream);
        const std::vector<Unit> whole = accessUnits(file.path(), c.codec, 1 << 20);
        ASSERT_EQ(whole.size(), c.pictures) << c.file;
        Bytes joined;
        for (const Unit& u : whole) {
            EXPECT_EQ(u.offset, joined.size()) << c.file;
            joined.insert(joined.end(), u.bytes.begin(), u.bytes.end());
        }
        EXPECT_TRUE(joined == stream) << c.file << ": access units do not cover the stream";
        for (size_t n : {1, 2, 3, 5, 7, 13, 100}) {
            const std::vector<Unit> got = accessUnits(file.path(), c.codec, n);
            ASSERT_EQ(got.size(), whole.size()) << c.file << ", chunk " << n;
            for (size_t i = 0; i < got.size(); ++i)
                ASSERT_TRUE(got[i].offset == whole[i].offset && got[i].bytes == whole[i].bytes)
                    << c.file << ", chunk " << n << ", access unit " << i;
        }
    }
}

TEST(AccessUnitReader, ArbitrarySliceOrderKeepsAPictureWhole) {
    // Baseline allows a picture's slices in any order: with each picture's
    // slices reversed (102 in six pictures), the one with first_mb_in_slice
    // 0 comes last, and
    // the pictures are still the six of the stream, each whole.
    const Bytes stream = load("h264/slices/baseline_small.264");
    const TempStream original(stream);
    Bytes reordered;
    std::vector<Bytes> pictures;
    for (const Unit& au : accessUnits(original.path(), VideoCodec::kH264, 1 << 20)) {
        std::vector<Bytes> head, slices;
        qnv::nal::UnitWalk walk(au.bytes.data(), static_cast<uint32_t>(au.bytes.size()), qnv::nal::Framing::kAnnexB);
        for (qnv::nal::Unit u; walk.next(u);) {
            const uint8_t type = au.bytes[u.header()] & 0x1F;
            Bytes unit = {0, 0, 0, 1};
            unit.insert(unit.end(), au.bytes.begin() + u.header(), au.bytes.begin() + u.end());
            (type == 1 || type == 5 ? slices : head).push_back(unit);
        }
        std::reverse(slices.begin(), slices.end());
        pictures.emplace_back();
        for (const auto* part : {&head, &slices})
            for (const Bytes& u : *part) pictures.back().insert(pictures.back().end(), u.begin(), u.end());
        reordered.insert(reordered.end(), pictures.back().begin(), pictures.back().end());
    }
    const TempStream file(reordered);
    const std::vector<Unit> got = accessUnits(file.path(), VideoCodec::kH264, 4096);
    ASSERT_EQ(got.size(), 6u);
    for (size_t i = 0; i < got.size(); ++i) EXPECT_TRUE(got[i].bytes == pictures[i]) << "picture " << i;
}

}  // namespace
