// qnvtool edit's unit work without a decoder: SEI messages taken out of a
// unit with the rest re-escaped, the picture type a delimiter gets from its
// slice types, and the level and option forms.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tools/qnvtool/edit.h"
#include "tools/qnvtool/tool.h"

namespace {

using qnvtool::Codec;
using Bytes = std::vector<uint8_t>;

TEST(EditSei, MessagesOfTheGivenTypesLeaveTheUnit) {
    struct Case {
        const char* what;
        Codec codec;
        Bytes unit;
        std::vector<uint32_t> types;
        uint32_t removed;
        Bytes out;  // empty: the unit is dropped (or kept as it is when nothing was removed)
    };
    const Case cases[] = {
        {"the only message", Codec::kH264, {0x06, 0x05, 0x01, 0xAA, 0x80}, {5}, 1, {}},
        {"no message of the type", Codec::kH264, {0x06, 0x05, 0x01, 0xAA, 0x80}, {6}, 0, {}},
        {"the first of two", Codec::kH264, {0x06, 0x05, 0x01, 0xAA, 0x06, 0x01, 0xC4, 0x80}, {5}, 1,
         {0x06, 0x06, 0x01, 0xC4, 0x80}},
        {"HEVC, two of three", Codec::kHevc, {0x4E, 0x01, 0x01, 0x01, 0x10, 0x05, 0x01, 0xAA, 0x81, 0x01, 0x01, 0x80},
         {5, 129}, 2, {0x4E, 0x01, 0x01, 0x01, 0x10, 0x80}},
        {"a type of two bytes (0xFF 0x01 = 256)", Codec::kH264, {0x06, 0xFF, 0x01, 0x01, 0x00, 0x04, 0x00, 0x80},
         {256}, 1, {0x06, 0x04, 0x00, 0x80}},
        // A kept payload 00 00 01 comes in escaped, is unescaped and goes out
        // escaped again.
        {"kept escapes", Codec::kH264, {0x06, 0x05, 0x01, 0xAA, 0x04, 0x03, 0x00, 0x00, 0x03, 0x01, 0x80}, {5}, 1,
         {0x06, 0x04, 0x03, 0x00, 0x00, 0x03, 0x01, 0x80}},
        // Taking out the middle message puts 00 00 in front of 01.
        {"new escapes", Codec::kH264, {0x06, 0x04, 0x02, 0x00, 0x00, 0x05, 0x01, 0xAA, 0x01, 0x01, 0xC4, 0x80}, {5}, 1,
         {0x06, 0x04, 0x02, 0x00, 0x00, 0x03, 0x01, 0x01, 0xC4, 0x80}},
    };
    for (const Case& c : cases) {
        Bytes out{0xEE};
        const uint32_t removed = qnvtool::removeSeiMessages(c.codec, c.unit.data(), uint32_t(c.unit.size()), c.types,
                                                            out, "unit");
        EXPECT_EQ(removed, c.removed) << c.what;
        EXPECT_EQ(out, c.out) << c.what;
    }
}

TEST(EditSei, AMessageRunningPastTheUnitIsAnError) {
    for (const Bytes& unit : {Bytes{0x06, 0x05, 0x09, 0xAA, 0x80}, Bytes{0x06, 0xFF, 0xFF}, Bytes{0x06, 0x05}}) {
        Bytes out;
        EXPECT_THROW(qnvtool::removeSeiMessages(Codec::kH264, unit.data(), uint32_t(unit.size()), {1}, out, "unit"),
                     qnvtool::Error);
    }
}

// An H.264 slice unit whose header starts first_mb_in_slice 0, slice_type t.
Bytes h264Slice(uint32_t t) {
    // ue(0) = 1, ue(t) for t < 7: t + 1 in 2 * floor(log2(t + 1)) + 1 bits.
    uint32_t bits = 1, length = 1;
    const uint32_t code = t + 1;
    const uint32_t width = 32 - __builtin_clz(code);
    bits = bits << (2 * width - 1) | code;
    length += 2 * width - 1;
    bits = bits << 1 | 1;  // a following bit, so the code ends inside the unit
    ++length;
    Bytes unit{0x65};
    bits <<= 32 - length;
    for (int i = 0; i < 4; ++i) unit.push_back(uint8_t(bits >> (24 - 8 * i)));
    return unit;
}

TEST(EditDelimiter, PrimaryPicTypeIsTheNarrowestThatAllowsTheSlices) {
    // slice_type values: P 0, B 1, I 2, SP 3, SI 4 (and the same plus 5).
    const std::pair<std::vector<uint32_t>, uint8_t> cases[] = {
        {{2}, 0}, {{7, 2}, 0}, {{2, 0}, 1}, {{0}, 1}, {{1, 0}, 2}, {{6}, 2}, {{4}, 3},
        {{3}, 4}, {{2, 4}, 5}, {{0, 3}, 6}, {{1, 3}, 7}, {{}, 7},
    };
    qnvtool::PictureTypes types(Codec::kH264);
    for (const auto& [sliceTypes, expected] : cases) {
        for (uint32_t t : sliceTypes) {
            const Bytes unit = h264Slice(t);
            types.noteSlice(unit.data(), uint32_t(unit.size()));
        }
        EXPECT_EQ(types.takeDelimiter(), (Bytes{0x09, uint8_t(expected << 5 | 0x10)})) << int(expected);
    }
    const Bytes cut{0x65};  // no slice_type to read
    types.noteSlice(cut.data(), 1);
    EXPECT_EQ(types.takeDelimiter(), (Bytes{0x09, 0xF0}));
}

TEST(EditLevel, FormsAndTheCodecsLevels) {
    const std::pair<const char*, qnvtool::Level> forms[] = {
        {"4.1", {4, 1, false}}, {"41", {4, 1, false}}, {"4", {4, 0, false}}, {"1b", {1, 0, true}}};
    for (const auto& [text, level] : forms) {
        const qnvtool::Level got = qnvtool::parseLevel(text);
        EXPECT_TRUE(got.major == level.major && got.minor == level.minor && got.oneB == level.oneB) << text;
    }
    for (const char* bad : {"", "4.", ".1", "4.11", "123", "1c", "4,1"})
        EXPECT_THROW(qnvtool::parseLevel(bad), qnvtool::Error) << bad;
    EXPECT_NO_THROW(qnvtool::checkLevel(Codec::kH264, {1, 0, true}));
    EXPECT_NO_THROW(qnvtool::checkLevel(Codec::kH264, {1, 3, false}));
    EXPECT_NO_THROW(qnvtool::checkLevel(Codec::kHevc, {6, 2, false}));
    EXPECT_THROW(qnvtool::checkLevel(Codec::kHevc, {1, 0, true}), qnvtool::Error);
    EXPECT_THROW(qnvtool::checkLevel(Codec::kHevc, {1, 3, false}), qnvtool::Error);
    EXPECT_THROW(qnvtool::checkLevel(Codec::kH264, {6, 3, false}), qnvtool::Error);
}

TEST(EditColour, MasteringDisplayAndLightLevelForms) {
    ColorSeiRecord r{};
    qnvtool::parseMasteringDisplay("G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(4294967295,1)", r);
    qnvtool::parseMaxCll("1000,400", r);
    const ColorSeiRecord expected{1, {13250, 7500, 34000}, {34500, 3000, 16000}, 15635, 16450, 4294967295u, 1, 1,
                                  1000, 400, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(&r, &expected, sizeof r));
    for (const char* bad : {"", "G(1,2)B(3,4)R(5,6)WP(7,8)", "B(1,2)G(3,4)R(5,6)WP(7,8)L(9,10)",
                            "G(65536,2)B(3,4)R(5,6)WP(7,8)L(9,10)", "G(1,2)B(3,4)R(5,6)WP(7,8)L(4294967296,10)",
                            "G(1,2)B(3,4)R(5,6)WP(7,8)L(9,10) ", "G(-1,2)B(3,4)R(5,6)WP(7,8)L(9,10)"})
        EXPECT_THROW(qnvtool::parseMasteringDisplay(bad, r), qnvtool::Error) << bad;
    for (const char* bad : {"", "1000", "1000,", "1000,400,1", "65536,1"})
        EXPECT_THROW(qnvtool::parseMaxCll(bad, r), qnvtool::Error) << bad;
    EXPECT_EQ(0, std::memcmp(&r, &expected, sizeof r));  // a refused text changes nothing
}

}  // namespace
