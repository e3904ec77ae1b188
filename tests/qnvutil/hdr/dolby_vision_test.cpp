// Dolby Vision units of a frame and the configuration box.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "qnvutil/hdr.h"
#include "tests/qnvutil/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using qnvtest::cat;

using qnvtest::runCommand;

// Puts `box` behind the 'hvcC' of the first sample entry of an MP4 file
// whose index follows its media data, raising the sizes of the boxes around
// it. Empty when the path is not there.
Bytes spliceBehindHvcc(Bytes file, const Bytes& box) {
    // Each step: the box type, and the bytes of its own fields in front of
    // the boxes it holds (stsd: version, flags, entry_count; hvc1: the
    // visual sample entry).
    const std::pair<const char*, size_t> path[] = {{"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0},
                                                   {"stbl", 0}, {"stsd", 8}, {"hvc1", 78}, {"hvcC", 0}};
    auto be32 = [&](size_t at) {
        return uint32_t(file[at]) << 24 | uint32_t(file[at + 1]) << 16 | uint32_t(file[at + 2]) << 8 | file[at + 3];
    };
    std::vector<size_t> ancestors;
    size_t begin = 0, end = file.size();
    for (const auto& [type, skip] : path) {
        size_t at = begin;
        while (at + 8 <= end && std::memcmp(&file[at + 4], type, 4) != 0) at += std::max<uint32_t>(be32(at), 8);
        if (at + 8 > end) return {};
        ancestors.push_back(at);
        begin = at + 8 + skip;
        end = at + be32(at);
    }
    const size_t hvcc = ancestors.back();
    ancestors.pop_back();
    file.insert(file.begin() + static_cast<ptrdiff_t>(hvcc + be32(hvcc)), box.begin(), box.end());
    for (size_t at : ancestors) {
        const uint32_t n = be32(at) + static_cast<uint32_t>(box.size());
        file[at] = uint8_t(n >> 24), file[at + 1] = uint8_t(n >> 16), file[at + 2] = uint8_t(n >> 8);
        file[at + 3] = uint8_t(n);
    }
    return file;
}

const Bytes kSlice = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x09}, kRpu = {0, 0, 1, 0x7C, 0x01, 0x19, 0x08, 0x09, 0x80},
            kNotRpu = {0, 0, 1, 0x7C, 0x01, 0x18, 0x08}, kEl = {0, 0, 0, 1, 0x7E, 0x01, 0x02, 0x01, 0xD0, 0x21};

}  // namespace

// "KIND@offset+size ..." of the units found, and their count.
std::string listed(const Bytes& frame, bool lengthPrefixed) {
    DolbyVisionUnits u;
    std::memset(&u, 0xEE, sizeof u);  // cleared by the finder
    const int32_t n = qnvUtilFindDolbyVisionMetadata(frame.data(), uint32_t(frame.size()), lengthPrefixed, &u);
    std::string text = std::to_string(n) + ":";
    for (uint32_t i = 0; i < QNV_DOVI_MAX_UNITS; ++i)
        if (u.kind[i] != 0)
            text += std::string(u.kind[i] == QNV_DOVI_RPU ? " RPU@" : " EL@") + std::to_string(u.offset[i]) + "+" +
                    std::to_string(u.size[i]);
    return text + " (" + std::to_string(u.rpu_count) + " " + std::to_string(u.el_count) + ")";
}

TEST(DolbyVisionUnits, RpuAndElUnitsAreListedWithOffsetAndSize) {
    Bytes many;
    for (int i = 0; i < QNV_DOVI_MAX_UNITS + 3; ++i) many = cat({many, kEl});
    std::string manyListed = std::to_string(QNV_DOVI_MAX_UNITS + 3) + ":";
    for (uint32_t i = 0; i < QNV_DOVI_MAX_UNITS; ++i) manyListed += " EL@" + std::to_string(10 * i + 4) + "+6";
    const struct {
        Bytes frame;
        bool lengthPrefixed;
        std::string expected;
    } rows[] = {
        {cat({kSlice, kNotRpu, kEl, kRpu}), false, "2: EL@19+6 RPU@28+6 (1 1)"},
        {{0, 0, 0, 2, 0x7E, 0x01, 0, 0, 0, 3, 0x7C, 0x01, 0x19, 0, 0, 0, 4, 0x26, 0x01, 0xAF, 0x09}, true,
         "2: EL@4+2 RPU@10+3 (1 1)"},
        {many, false, manyListed + " (0 " + std::to_string(QNV_DOVI_MAX_UNITS + 3) + ")"},  // counted beyond the entries
        {kSlice, false, "0: (0 0)"},
    };
    for (const auto& row : rows) EXPECT_EQ(listed(row.frame, row.lengthPrefixed), row.expected);
    EXPECT_EQ(qnvUtilFindDolbyVisionMetadata(kSlice.data(), uint32_t(kSlice.size()), 0, nullptr), QNV_HDR_BAD_ARGUMENT);
}

TEST(DolbyVisionConfig, BoxTypeFollowsTheProfileAndReadsBack) {
    const struct {
        DoviConfigRecord record;
        Bytes expected;
    } rows[] = {
        // 1.0, profile 8, level 6, RPU and BL, compatibility 1
        {{1, 0, 8, 6, 1, 0, 1, 1},
         cat({{0, 0, 0, 32, 'd', 'v', 'v', 'C', 0x01, 0x00, 0x10, 0x35, 0x10}, Bytes(19, 0)})},
        // profile 7 with an EL, level 13, compatibility 6
        {{1, 0, 7, 13, 1, 1, 1, 6}, cat({{0, 0, 0, 32, 'd', 'v', 'c', 'C', 0x01, 0x00, 0x0E, 0x6F, 0x60}, Bytes(19, 0)})},
        {{2, 1, 5, 9, 1, 0, 0, 0}, cat({{0, 0, 0, 32, 'd', 'v', 'c', 'C', 0x02, 0x01, 0x0A, 0x4C, 0x00}, Bytes(19, 0)})},
        {{1, 0, 10, 1, 1, 0, 1, 2}, cat({{0, 0, 0, 32, 'd', 'v', 'v', 'C', 0x01, 0x00, 0x14, 0x0D, 0x20}, Bytes(19, 0)})},
        {{1, 0, 20, 1, 1, 0, 1, 2}, cat({{0, 0, 0, 32, 'd', 'v', 'w', 'C', 0x01, 0x00, 0x28, 0x0D, 0x20}, Bytes(19, 0)})},
    };
    for (const auto& row : rows) {
        Bytes out(40, 0xAA);
        ASSERT_EQ(qnvutilWrite_DVVC_CR(&row.record, out.data(), uint32_t(out.size())), QNV_DOVI_BOX_BYTES);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + 32), row.expected) << "profile " << row.record.dv_profile;
        EXPECT_EQ(out[32], 0xAA);  // nothing past the box
        DoviConfigRecord back;
        std::memset(&back, 0xEE, sizeof back);
        ASSERT_EQ(qnvutilRead_DVVC_CR(out.data(), QNV_DOVI_BOX_BYTES, &back), QNV_DOVI_BOX_BYTES);
        EXPECT_EQ(0, std::memcmp(&back, &row.record, sizeof back)) << "profile " << row.record.dv_profile;
    }
}

TEST(DolbyVisionConfig, RefusesShortOutputsAndOtherBoxes) {
    const DoviConfigRecord r{1, 0, 8, 6, 1, 0, 1, 1};
    Bytes box(32);
    EXPECT_EQ(qnvutilWrite_DVVC_CR(&r, box.data(), 31), QNV_HDR_NO_ROOM);
    ASSERT_EQ(qnvutilWrite_DVVC_CR(&r, box.data(), 32), 32);
    // byte, value, size given, result
    const struct {
        size_t at;
        uint8_t value;
        uint32_t size;
        int32_t result;
    } rows[] = {{0, 0, 31, QNV_HDR_BAD_ARGUMENT}, {7, 'X', 32, QNV_HDR_BAD_ARGUMENT}, {3, 31, 32, QNV_HDR_BAD_ARGUMENT},
                {0, 0x80, 32, QNV_HDR_BAD_ARGUMENT}, {0, 0x7F, 32, 0x7F000020}};  // larger: 32 bytes read
    for (const auto& row : rows) {
        Bytes changed = box;
        changed[row.at] = row.value;
        DoviConfigRecord back{};
        EXPECT_EQ(qnvutilRead_DVVC_CR(changed.data(), row.size, &back), row.result) << row.at;
        EXPECT_EQ(back.dv_profile, row.result > 0 ? 8u : 0u);
    }
}

TEST(DolbyVisionConfig, FfprobeReadsTheBoxBackAsTheSameConfiguration) {
    if (runCommand("command -v ffprobe").empty()) GTEST_SKIP() << "ffprobe is not installed";
    const Bytes mp4 = qnvtest::readData("hdr/plain.mp4");
    ASSERT_FALSE(mp4.empty());
    const DoviConfigRecord rows[] = {{1, 0, 8, 6, 1, 0, 1, 1}, {1, 0, 5, 9, 1, 0, 1, 0}, {2, 1, 7, 13, 1, 1, 1, 6}};
    for (const DoviConfigRecord& r : rows) {
        Bytes box(QNV_DOVI_BOX_BYTES);
        ASSERT_EQ(qnvutilWrite_DVVC_CR(&r, box.data(), QNV_DOVI_BOX_BYTES), QNV_DOVI_BOX_BYTES);
        const Bytes spliced = spliceBehindHvcc(mp4, box);
        ASSERT_FALSE(spliced.empty());
        const qnvtest::TempFile file(spliced);
        const std::string report = runCommand("ffprobe -v error -f mp4 -show_streams " + file.path());
        const std::string expected = "side_data_type=DOVI configuration record\n"
                                     "dv_version_major=" + std::to_string(r.dv_version_major) +
                                     "\ndv_version_minor=" + std::to_string(r.dv_version_minor) +
                                     "\ndv_profile=" + std::to_string(r.dv_profile) +
                                     "\ndv_level=" + std::to_string(r.dv_level) +
                                     "\nrpu_present_flag=" + std::to_string(r.rpu_present_flag) +
                                     "\nel_present_flag=" + std::to_string(r.el_present_flag) +
                                     "\nbl_present_flag=" + std::to_string(r.bl_present_flag) +
                                     "\ndv_bl_signal_compatibility_id=" +
                                     std::to_string(r.dv_bl_signal_compatibility_id) + "\n";
        EXPECT_NE(report.find(expected), std::string::npos) << "profile " << r.dv_profile << ":\n" << report;
    }
}
