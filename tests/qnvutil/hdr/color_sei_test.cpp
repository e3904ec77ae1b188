// Colour volume SEI: the unit written, and the messages found in frames.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qnvutil/hdr.h"
#include "tests/qnvutil/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using qnvtest::cat;

// The values of tests/data/hdr/make_streams.sh: G(13250,34500)B(7500,3000)
// R(34000,16000)WP(15635,16450)L(10000000,50), 1000,400, transfer 18.
ColorSeiRecord hdr10(bool display = true, bool light = true, bool transfer = true) {
    if (!display) return ColorSeiRecord{0, {}, {}, 0, 0, 0, 0, light, 1000, 400, transfer, 18u * transfer, 0, 0};
    return ColorSeiRecord{1, {13250, 7500, 34000}, {34500, 3000, 16000}, 15635, 16450, 10000000, 50,
                          light, 1000, 400, transfer, 18u * transfer, 0, 0};
}

// The payloads of hdr10() as laid out in a unit: the display's 00 00 00
// gains an emulation-prevention byte.
const Bytes kDisplay = {0x33, 0xC2, 0x86, 0xC4, 0x1D, 0x4C, 0x0B, 0xB8, 0x84, 0xD0, 0x3E, 0x80, 0x3D,
                        0x13, 0x40, 0x42, 0x00, 0x98, 0x96, 0x80, 0x00, 0x00, 0x03, 0x00, 0x32},
            kLight = {0x03, 0xE8, 0x01, 0x90};

Bytes write(const ColorSeiRecord& r, uint32_t codec, bool lengthPrefixed = false) {
    Bytes out(64);
    const int32_t n = qnvutilWrite_HDR_WCG_SEI_Packet(&r, codec, out.data(), 64, lengthPrefixed);
    out.resize(n > 0 ? n : 0);
    return out;
}

// The frame's units behind four-byte lengths instead of start codes.
Bytes lengthPrefixed(const Bytes& frame) {
    Bytes out;
    for (const auto& u : qnvtest::annexBUnits(frame)) {
        const uint32_t n = static_cast<uint32_t>(u.bytes.size());
        out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
        out.insert(out.end(), u.bytes.begin(), u.bytes.end());
    }
    return out;
}

bool same(const ColorSeiRecord& a, const ColorSeiRecord& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

TEST(ColorSeiWrite, OneUnitHoldsTheMessagesAsCodedInEitherCodec) {
    ColorSeiRecord light = hdr10(false, true, false), transfer = hdr10(false, false, true);
    light.max_content_light_level = 0, light.max_pic_average_light_level = 0x0200;  // 00 00 02 is escaped
    transfer.preferred_transfer_characteristics = 0x1FF;                            // masked to 8 bits
    const struct {
        ColorSeiRecord record;
        uint32_t codec;
        Bytes expected;
    } rows[] = {
        {hdr10(), QNV_HDR_HEVC, cat({{0, 0, 0, 1, 0x4E, 0x01, 137, 24}, kDisplay, {144, 4}, kLight, {147, 1, 18, 0x80}})},
        {hdr10(), QNV_HDR_H264, cat({{0, 0, 0, 1, 0x06, 137, 24}, kDisplay, {144, 4}, kLight, {147, 1, 18, 0x80}})},
        {light, QNV_HDR_HEVC, {0, 0, 0, 1, 0x4E, 0x01, 144, 4, 0, 0, 3, 2, 0, 0x80}},
        {transfer, QNV_HDR_H264, {0, 0, 0, 1, 0x06, 147, 1, 0xFF, 0x80}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(write(row.record, row.codec), row.expected) << "codec " << row.codec;
        // The length-prefixed form differs only in its first four bytes.
        Bytes prefixed = row.expected;
        prefixed[3] = uint8_t(prefixed.size() - 4);
        EXPECT_EQ(write(row.record, row.codec, true), prefixed) << "codec " << row.codec;
    }
    const ColorSeiRecord r = hdr10(), none{};
    uint8_t out[64];
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&r, 2, out, 64, 0), QNV_HDR_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&none, QNV_HDR_HEVC, out, 64, 0), QNV_HDR_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&r, QNV_HDR_HEVC, out, uint32_t(rows[0].expected.size() - 1), 0),
              QNV_HDR_NO_ROOM);
}

TEST(ColorSeiFind, MessagesAcrossUnitsAndFramingsComeBackAsWritten) {
    const Bytes hevcAud = {0, 0, 0, 1, 0x46, 0x01, 0x50}, hevcSlice = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x09},
                h264Slice = {0, 0, 0, 1, 0x65, 0x88, 0x84};
    // HDR10+ application version 1, behind a user-data-unregistered message.
    const Bytes hdr10Plus = {5, 17, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0x55,
                             4, 9, 0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x01, 0x40, 0x00};
    ColorSeiRecord plus = hdr10(), plusNoTransfer = hdr10(true, true, false);
    plus.hdr10plus_present = plusNoTransfer.hdr10plus_present = 1;
    plus.hdr10plus_application_version = plusNoTransfer.hdr10plus_application_version = 1;
    const struct {
        uint32_t codec;
        Bytes frame;
        int32_t messages;
        ColorSeiRecord record;
    } rows[] = {
        {QNV_HDR_HEVC, cat({hevcAud, write(hdr10(), QNV_HDR_HEVC), hevcSlice}), 3, hdr10()},
        // The light level shares a unit with HDR10+; the display has its own.
        {QNV_HDR_HEVC,
         cat({hevcAud, write(hdr10(true, false, false), QNV_HDR_HEVC), {0, 0, 1, 0x4E, 0x01}, hdr10Plus, {144, 4},
              kLight, {0x80}, hevcSlice}),
         3, plusNoTransfer},
        {QNV_HDR_H264, cat({{0, 0, 1, 0x06}, hdr10Plus, {0x80}, write(hdr10(), QNV_HDR_H264), h264Slice}), 4, plus},
        {QNV_HDR_H264, h264Slice, 0, ColorSeiRecord{}},
        {QNV_HDR_H264, write(hdr10(), QNV_HDR_HEVC), 0, ColorSeiRecord{}},  // not an H.264 SEI
        // Short payloads, and T.35 data of another provider or application.
        {QNV_HDR_HEVC, cat({{0, 0, 1, 0x4E, 0x01, 137, 23}, Bytes(23, 1), {144, 3, 1, 2, 3, 0x80}}), 0, {}},
        {QNV_HDR_HEVC, {0, 0, 1, 0x4E, 0x01, 144, 9, 1, 2, 3, 0x80}, 0, {}},  // runs past the unit
        {QNV_HDR_HEVC, {0, 0, 1, 0x4E, 0x01, 4, 7, 0xB5, 0x00, 0x3C, 0x00, 0x01, 0x05, 1, 0x80}, 0, {}},
        {QNV_HDR_HEVC, {0, 0, 1, 0x4E, 0x01, 4, 7, 0xB5, 0x00, 0x31, 0x00, 0x01, 0x04, 1, 0x80}, 0, {}},
    };
    for (const auto& row : rows) {
        for (bool prefixed : {false, true}) {
            const Bytes frame = prefixed ? lengthPrefixed(row.frame) : row.frame;
            ColorSeiRecord found;
            std::memset(&found, 0xEE, sizeof found);  // cleared by the finder
            EXPECT_EQ(qnvutilFindColorSEI(frame.data(), uint32_t(frame.size()), row.codec, prefixed, &found),
                      row.messages);
            EXPECT_TRUE(same(found, row.record)) << "row " << (&row - rows) << (prefixed ? " length-prefixed" : "");
        }
    }
    EXPECT_EQ(qnvutilFindColorSEI(nullptr, 0, QNV_HDR_HEVC, 0, nullptr), QNV_HDR_BAD_ARGUMENT);
}

TEST(ColorSeiFind, ReadsWhatTheEncodersWroteFromTheirOptions) {
    const struct {
        const char* file;
        uint32_t codec;
        ColorSeiRecord expected;
    } rows[] = {
        {"hdr/x265.265", QNV_HDR_HEVC, hdr10()},
        {"hdr/x264.264", QNV_HDR_H264, hdr10(true, true, false)},
        {"hdr/plain.265", QNV_HDR_HEVC, ColorSeiRecord{}},
    };
    for (const auto& row : rows) {
        const Bytes stream = qnvtest::readData(row.file);
        ASSERT_FALSE(stream.empty()) << row.file;
        ColorSeiRecord found{};
        EXPECT_GE(qnvutilFindColorSEI(stream.data(), uint32_t(stream.size()), row.codec, 0, &found), 0);
        EXPECT_TRUE(same(found, row.expected)) << row.file;
    }
}
