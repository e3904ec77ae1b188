// Timecode text: known texts per type, exact round trips, malformed input.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <utility>

#include "qnvutil/timecodetext.h"

namespace {
std::string fmt(uint32_t frames, uint32_t word) {
    char text[TCT_TEXT_SIZE + 8];
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(TimecodeTextFormat(frames, word, text), TCT_OK);
    EXPECT_LT(std::strlen(text), size_t(TCT_TEXT_SIZE));
    return text;
}
const uint32_t kTypes[] = {0, 1, 2, 4, 8, 16, 32, 64, 128, 132};
}  // namespace

TEST(TimecodeText, KnownTexts) {
    // 29.97 drop-frame skips labels 00 and 01 except every tenth minute;
    // above 30 fps the second frame of a pair is marked; the fixed word
    // 0xB2140 counts as type 64; unknown types count as 30 non-drop.
    const std::tuple<uint32_t, uint32_t, const char*> rows[] = {
        {107892, 0x32100, "107892"},             {86400, 1 | 0x32100, "01:00:00:00"},
        {108000, 2 | 0x32100, "01:00:00:00"},    {90000 + 24, 8 | 0x32100, "01:00:00:24"},
        {1799, 4 | 0x100, "00:00:59;29"},        {1800, 4 | 0x100, "00:01:00;02"},
        {17982, 4 | 0x100, "00:10:00;00"},       {107892, 4 | 0x100, "01:00:00;00"},
        {120, 64 | 0x32100, "00:00:02:00"},      {121, 64 | 0x32100, "00:00:02.00"},
        {3601, 32 | 0x32100, "00:01:00,02"},     {101, 16 | 0x32100, "00:00:02.00"},
        {0xFFFFFFFFu, 1 | 0x10100, "49710:16:10:15"}, {24, 132 | 0x32100, "00:00:01:00"},
        {60, 0xB2140, "00:00:01:00"},            {30, 77, "00:00:01:00"}};
    for (const auto& [frames, word, want] : rows) EXPECT_EQ(fmt(frames, word), want) << frames << " " << word;

    char bin[4];
    ASSERT_EQ(TimecodeTextFormat(107892 * 2 + 1, 32 | 0x400, bin), TCT_OK);
    EXPECT_EQ(std::string(bin, 4), std::string("\x01\x00\x00\x80", 4));
}

TEST(TimecodeText, ParseInvertsFormatForEveryType) {
    std::mt19937 rng(17);
    for (uint32_t type : kTypes) {
        auto check = [&](uint32_t n) {
            char text[TCT_TEXT_SIZE];
            TimecodeTextFormat(n, type | 0x32100, text);
            uint32_t back = ~n;
            ASSERT_EQ(TimecodeTextParse(text, type | 0x100, &back), TCT_OK) << type << " " << text;
            ASSERT_EQ(back, n) << type << " " << text;
            TimecodeTextFormat(n, type | 0x400, text);
            if (n < 60u * 60 * 24 * 10) {  // binary hours hold 8 bits
                ASSERT_EQ(TimecodeTextParse(text, type | 0x400, &back), TCT_OK);
                ASSERT_EQ(back, n) << type;
            }
        };
        for (uint32_t n = 0; n < 40000; ++n) check(n);  // every minute boundary of the first 11-22 minutes
        for (int i = 0; i < 20000; ++i) check(rng() % (100u * 3600 * 60));
        for (uint32_t m = 0; m < 6000; ++m)  // around each drop-frame minute start below 100 hours
            for (uint32_t d = 0; d < 4; ++d) check(m * 1798 + (m / 10) * 2 + d);
    }
}

TEST(TimecodeText, MalformedTextLeavesCountUnchanged) {
    // Skipped labels do not exist; a separator of either kind is fine.
    const uint32_t df = 4 | 0x100;
    const std::pair<const char*, uint32_t> bad[] = {
        {"", df}, {"1:00:00", df}, {"01:60:00;00", df}, {"01:00:60;00", df}, {"01:00:00;30", df},
        {"ab:00:00;00", df}, {"01:00:00;0", df}, {"01:00:00;00x", df}, {"99999999999:00:00;00", df},
        {"00:01:00;01", df}, {"00:01:00:00", df}, {"4294967296", 0x100}};
    for (auto [text, word] : bad) {
        uint32_t n = 1234;
        EXPECT_NE(TimecodeTextParse(text, word, &n), TCT_OK) << text;
        EXPECT_EQ(n, 1234u) << text;
    }
    // Spaces around, -1 as 32 bits, '.' like ':' without pairs, and the
    // type, not the separator, deciding how frames count.
    const std::tuple<const char*, uint32_t, uint32_t> good[] = {
        {" 00:10:00;00 ", 4, 17982}, {"-1", 0x100, 0xFFFFFFFF}, {"00:00:00.01", 2, 1},
        {"01:00:00;00", 2, 108000},  {"01:00:00:00", 4, 107892},  {"00:00:01.05", 32, 71}};
    for (const auto& [text, word, want] : good) {
        uint32_t n = 0;
        EXPECT_EQ(TimecodeTextParse(text, word, &n), TCT_OK) << text;
        EXPECT_EQ(n, want) << text;
    }
    uint32_t n = 0;
    EXPECT_EQ(TimecodeTextParse(nullptr, 2, &n), TCT_BADARG);
}
