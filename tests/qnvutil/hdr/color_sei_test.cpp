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

// G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(10000000,50),
// MaxCLL 1000, MaxFALL 400, transfer 18: the values of
// tests/data/hdr/make_streams.sh.
ColorSeiRecord hdr10() {
    ColorSeiRecord r{};
    r.mastering_display_present = 1;
    r.display_primaries_x[0] = 13250, r.display_primaries_y[0] = 34500;
    r.display_primaries_x[1] = 7500, r.display_primaries_y[1] = 3000;
    r.display_primaries_x[2] = 34000, r.display_primaries_y[2] = 16000;
    r.white_point_x = 15635, r.white_point_y = 16450;
    r.max_display_mastering_luminance = 10000000, r.min_display_mastering_luminance = 50;
    r.content_light_level_present = 1;
    r.max_content_light_level = 1000, r.max_pic_average_light_level = 400;
    r.alternative_transfer_present = 1;
    r.preferred_transfer_characteristics = 18;
    return r;
}

// The payloads of hdr10(), as the standard lays them out.
const Bytes kLightPayload = {0x03, 0xE8, 0x01, 0x90};
// mastering_display_colour_volume in a unit: its 00 00 00 gains an
// emulation-prevention byte.
const Bytes kDisplayEscaped = {0x33, 0xC2, 0x86, 0xC4, 0x1D, 0x4C, 0x0B, 0xB8, 0x84, 0xD0, 0x3E, 0x80, 0x3D,
                               0x13, 0x40, 0x42, 0x00, 0x98, 0x96, 0x80, 0x00, 0x00, 0x03, 0x00, 0x32};

Bytes write(const ColorSeiRecord& r, uint32_t codec, bool lengthPrefixed = false) {
    Bytes out(64);
    const int32_t n = qnvutilWrite_HDR_WCG_SEI_Packet(&r, codec, out.data(), 64, lengthPrefixed);
    EXPECT_GT(n, 0);
    out.resize(n > 0 ? n : 0);
    return out;
}

void expectSame(const ColorSeiRecord& a, const ColorSeiRecord& b, const std::string& what) {
    EXPECT_EQ(0, std::memcmp(&a, &b, sizeof a)) << what;
}

}  // namespace

TEST(ColorSeiWrite, OneUnitHoldsTheMessagesAsCodedInEitherCodec) {
    ColorSeiRecord lightOnly{};
    lightOnly.content_light_level_present = 1;
    lightOnly.max_content_light_level = 0;
    lightOnly.max_pic_average_light_level = 0x0200;  // 00 00 02 must be escaped
    ColorSeiRecord transferOnly{};
    transferOnly.alternative_transfer_present = 1;
    transferOnly.preferred_transfer_characteristics = 0x1FF;  // masked to 8 bits
    const struct {
        ColorSeiRecord record;
        uint32_t codec;
        Bytes expected;
    } rows[] = {
        {hdr10(), QNV_HDR_HEVC,
         cat({{0, 0, 0, 1, 0x4E, 0x01, 137, 24}, kDisplayEscaped, {144, 4}, kLightPayload, {147, 1, 18, 0x80}})},
        {hdr10(), QNV_HDR_H264,
         cat({{0, 0, 0, 1, 0x06, 137, 24}, kDisplayEscaped, {144, 4}, kLightPayload, {147, 1, 18, 0x80}})},
        {lightOnly, QNV_HDR_HEVC, {0, 0, 0, 1, 0x4E, 0x01, 144, 4, 0, 0, 3, 2, 0, 0x80}},
        {transferOnly, QNV_HDR_H264, {0, 0, 0, 1, 0x06, 147, 1, 0xFF, 0x80}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(write(row.record, row.codec), row.expected) << "codec " << row.codec;
        // The length-prefixed form differs only in its first four bytes.
        Bytes prefixed = row.expected;
        const uint32_t n = static_cast<uint32_t>(prefixed.size() - 4);
        prefixed[0] = 0, prefixed[1] = 0, prefixed[2] = uint8_t(n >> 8), prefixed[3] = uint8_t(n);
        EXPECT_EQ(write(row.record, row.codec, true), prefixed) << "codec " << row.codec;
    }
}

TEST(ColorSeiWrite, RefusesWhatItCannotWrite) {
    const ColorSeiRecord r = hdr10(), none{};
    uint8_t out[64];
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(nullptr, QNV_HDR_HEVC, out, 64, 0), QNV_HDR_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&r, 2, out, 64, 0), QNV_HDR_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&r, QNV_HDR_HEVC, nullptr, 64, 0), QNV_HDR_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&none, QNV_HDR_HEVC, out, 64, 0), QNV_HDR_BAD_ARGUMENT);
    const int32_t n = qnvutilWrite_HDR_WCG_SEI_Packet(&r, QNV_HDR_HEVC, out, 64, 0);
    EXPECT_EQ(qnvutilWrite_HDR_WCG_SEI_Packet(&r, QNV_HDR_HEVC, out, uint32_t(n - 1), 0), QNV_HDR_NO_ROOM);
}

TEST(ColorSeiFind, MessagesAcrossUnitsAndFramingsComeBackAsWritten) {
    // HEVC units: delimiter, an SEI with a user-data-unregistered message in
    // front of HDR10+ and a content light level, a slice.
    const Bytes hevcAud = {0, 0, 0, 1, 0x46, 0x01, 0x50}, hevcSlice = {0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x09};
    const Bytes hdr10Plus = {4, 9, 0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x01, 0x40, 0x00};
    const Bytes unregistered = {5, 17, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0x55};
    const Bytes hevcMixed = cat({{0, 0, 1, 0x4E, 0x01}, unregistered, hdr10Plus, {144, 4}, kLightPayload, {0x80}});
    const Bytes h264Mixed = cat({{0, 0, 1, 0x06}, unregistered, hdr10Plus, {0x80}});
    const Bytes h264Slice = {0, 0, 0, 1, 0x65, 0x88, 0x84};
    ColorSeiRecord display = hdr10();
    display.content_light_level_present = display.alternative_transfer_present = 0;
    ColorSeiRecord expected = hdr10();
    expected.hdr10plus_present = 1;
    expected.hdr10plus_application_version = 1;
    const struct {
        uint32_t codec;
        Bytes frame;
        int32_t messages;
        ColorSeiRecord record;
    } rows[] = {
        {QNV_HDR_HEVC, cat({hevcAud, write(hdr10(), QNV_HDR_HEVC), hevcSlice}), 3, hdr10()},
        {QNV_HDR_HEVC, cat({hevcAud, write(display, QNV_HDR_HEVC), hevcMixed, hevcSlice}), 3,
         [&] {
             ColorSeiRecord r = expected;
             r.alternative_transfer_present = r.preferred_transfer_characteristics = 0;
             return r;
         }()},
        {QNV_HDR_H264, cat({h264Mixed, write(hdr10(), QNV_HDR_H264), h264Slice}), 4, expected},
        {QNV_HDR_H264, cat({h264Slice}), 0, ColorSeiRecord{}},
        // HEVC units read as H.264 are no SEI.
        {QNV_HDR_H264, cat({write(hdr10(), QNV_HDR_HEVC)}), 0, ColorSeiRecord{}},
    };
    for (const auto& row : rows) {
        // The same frame with four-byte lengths instead of start codes.
        Bytes prefixed;
        for (const auto& u : qnvtest::annexBUnits(row.frame)) {
            const uint32_t n = static_cast<uint32_t>(u.bytes.size());
            prefixed.insert(prefixed.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
            prefixed.insert(prefixed.end(), u.bytes.begin(), u.bytes.end());
        }
        for (const Bytes* frame : {&row.frame, static_cast<const Bytes*>(&prefixed)}) {
            ColorSeiRecord found;
            std::memset(&found, 0xEE, sizeof found);  // cleared by the finder
            EXPECT_EQ(qnvutilFindColorSEI(frame->data(), uint32_t(frame->size()), row.codec, frame == &prefixed,
                                          &found),
                      row.messages);
            expectSame(found, row.record, frame == &prefixed ? "length-prefixed" : "Annex B");
        }
    }
}

TEST(ColorSeiFind, ShortPayloadsAndForeignUserDataAreNotTaken) {
    const struct {
        Bytes unit;
    } rows[] = {
        {{0, 0, 1, 0x4E, 0x01, 137, 23, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
          23, 0x80}},
        {{0, 0, 1, 0x4E, 0x01, 144, 3, 1, 2, 3, 0x80}},
        {{0, 0, 1, 0x4E, 0x01, 144, 9, 1, 2, 3, 0x80}},                           // runs past the unit
        {{0, 0, 1, 0x4E, 0x01, 4, 7, 0xB5, 0x00, 0x3C, 0x00, 0x01, 0x05, 1, 0x80}},  // application 5
        {{0, 0, 1, 0x4E, 0x01, 4, 7, 0xB5, 0x00, 0x31, 0x00, 0x01, 0x04, 1, 0x80}},  // provider 0031
        {{0, 0, 1, 0x4E, 0x01, 4, 6, 0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x80}},     // no version
    };
    for (const auto& row : rows) {
        ColorSeiRecord found{};
        EXPECT_EQ(qnvutilFindColorSEI(row.unit.data(), uint32_t(row.unit.size()), QNV_HDR_HEVC, 0, &found), 0);
        expectSame(found, ColorSeiRecord{}, "short payload");
    }
    EXPECT_EQ(qnvutilFindColorSEI(nullptr, 0, QNV_HDR_HEVC, 0, nullptr), QNV_HDR_BAD_ARGUMENT);
    ColorSeiRecord r{};
    EXPECT_EQ(qnvutilFindColorSEI(nullptr, 0, 7, 0, &r), QNV_HDR_BAD_ARGUMENT);
    EXPECT_EQ(qnvutilFindColorSEI(nullptr, 0, QNV_HDR_HEVC, 0, &r), 0);
}

TEST(ColorSeiFind, ReadsWhatTheEncodersWroteFromTheirOptions) {
    ColorSeiRecord x264 = hdr10();
    x264.alternative_transfer_present = x264.preferred_transfer_characteristics = 0;
    const struct {
        const char* file;
        uint32_t codec;
        ColorSeiRecord expected;
    } rows[] = {
        {"hdr/x265.265", QNV_HDR_HEVC, hdr10()},
        {"hdr/x264.264", QNV_HDR_H264, x264},
        {"hdr/plain.265", QNV_HDR_HEVC, ColorSeiRecord{}},
    };
    for (const auto& row : rows) {
        const Bytes stream = qnvtest::readData(row.file);
        ASSERT_FALSE(stream.empty()) << row.file;
        ColorSeiRecord found{};
        EXPECT_GE(qnvutilFindColorSEI(stream.data(), uint32_t(stream.size()), row.codec, 0, &found), 0);
        expectSame(found, row.expected, row.file);
    }
}
