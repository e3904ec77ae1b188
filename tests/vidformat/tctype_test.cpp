// Timecode types: the rate ladders, parameter text and conversion between types.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "qnvutil/vidformat.h"
#include "vidformat/ratetext.h"
#include "vidformat/tctype.h"

TEST(TcType, FromFramesPerSecond) {
    const std::pair<double, uint32_t> cases[] = {
        {29.97, 4},   {30.0, 2},     {25.0, 8},    {23.976, 128}, {24.0, 1},    {48.0, 1},   {47.952, 128},
        {14.985, 4},  {15.0, 2},     {50.0, 16},   {59.94, 32},   {60.0, 64},   {119.88, 4}, {120.0, 2},
        {100.0, 8},   {72.0, 1},     {71.928, 128}, {12.0, 2},    {22.99, 2},   {60.01, 2},  {24.95, 8},
        {25.1, 2},    {24.99, 8},    {35.0, 2},    {47.0, 128},   {48.6, 1},    {49.0, 2},  {29.0, 2},
        {0.0, 2},     {-25.0, 2},
    };
    for (const auto& [fps, type] : cases) EXPECT_EQ(vidGetTCType(fps), type) << fps;
    EXPECT_EQ(vidGetTCType(std::numeric_limits<double>::quiet_NaN()), 2u);
    EXPECT_EQ(vidGetTCType(std::numeric_limits<double>::infinity()), 2u);
}

TEST(TcType, FromSignalFormat) {
    // rate code, counting type, frames-per-second type
    const uint32_t cases[][3] = {
        {59, 4, 32}, {50, 8, 16}, {60, 2, 64}, {256, 2, 2}, {13, 2, 2},  {14, 4, 4},   {29, 4, 4},
        {119, 4, 4}, {23, 128, 128}, {47, 128, 128}, {71, 128, 128}, {24, 1, 1}, {48, 1, 1}, {72, 1, 1},
        {25, 8, 8},  {100, 8, 8},  {30, 2, 2},  {15, 2, 2},  {257, 2, 2}, {511, 2, 2},
    };
    for (const auto& c : cases) {
        const uint32_t sf = 0x22109000u | c[0];  // upper bits are ignored
        EXPECT_EQ(vidGetTCTypeSignalFormat(sf), c[1]) << c[0];
        EXPECT_EQ(vidGetFPSTCTypeSignalFormat(sf), c[2]) << c[0];
    }
}

TEST(TcType, FromParameterText) {
    using qnv::TcTypeFromText;
    EXPECT_EQ(TcTypeFromText("x TcType='film'"), 1u);
    EXPECT_EQ(TcTypeFromText("TcType=film"), 0u);  // the first character is always skipped
    EXPECT_EQ(TcTypeFromText("TcType=\"pal\" rate=25"), 8u);
    EXPECT_EQ(TcTypeFromText("tctype='23.98'"), 132u);
    EXPECT_EQ(TcTypeFromText("TCTYPE='PAL'"), 8u);
    EXPECT_EQ(TcTypeFromText("TcType='non-drop-frame'"), 4u);
    EXPECT_EQ(TcTypeFromText("TcType='Drop-Frame'"), 4u);
    EXPECT_EQ(TcTypeFromText("Tctype='film'"), 0u);
    EXPECT_EQ(TcTypeFromText("TcType='film-drop'"), 128u);  // before its prefix "film"
    EXPECT_EQ(TcTypeFromText("TcType='filmic'"), 1u);       // prefixes match
    EXPECT_EQ(TcTypeFromText("TcType='frames'"), 0u);
    EXPECT_EQ(TcTypeFromText("TcType='50'"), 16u);
    EXPECT_EQ(TcTypeFromText("TcType='500'"), 16u);
    EXPECT_EQ(TcTypeFromText("TcType='59.94'"), 32u);
    EXPECT_EQ(TcTypeFromText("TcType='59'"), 0u);
    EXPECT_EQ(TcTypeFromText("TcType='60'"), 64u);
    EXPECT_EQ(TcTypeFromText("TcType='2'"), 0u);
    // The exact-case keys are tried in order, whatever comes first in the text.
    EXPECT_EQ(TcTypeFromText("TCTYPE='pal' tctype='film' TcType='60'"), 64u);
    EXPECT_EQ(TcTypeFromText("TCTYPE='pal' tctype='film'"), 1u);
    EXPECT_EQ(TcTypeFromText("TcType='"), 0u);
    EXPECT_EQ(TcTypeFromText("TcType="), 0u);  // nothing to skip: no value
    EXPECT_EQ(TcTypeFromText(""), 0u);
    EXPECT_EQ(TcTypeFromText(nullptr), 0u);
}

TEST(TcType, ConvertsCountsThroughTimecodeText) {
    auto convert = [](uint32_t count, uint32_t target, uint32_t rate, uint32_t scale) {
        vidConvertTC(&count, target, rate, scale);
        return count;
    };
    EXPECT_EQ(convert(86400, 1, 24, 1), 86400u);  // same type: untouched
    EXPECT_EQ(convert(12345, 4, 30000, 1001), 12345u);
    EXPECT_EQ(convert(86400, 8, 24, 1), 90000u);   // 01:00:00:00 at 25
    EXPECT_EQ(convert(86424, 2, 24, 1), 108030u);  // 01:00:01:00 at 30
    EXPECT_EQ(convert(90000 + 23, 1, 25, 1), 86400u + 23);
    EXPECT_EQ(convert(90000 + 24, 1, 25, 1), 90024u);  // frame 24 does not exist at 24: unchanged
    // 59.94 and 60 count frame pairs in their text; the result is doubled.
    EXPECT_EQ(convert(7200, 8, 60, 1), 6000u);  // 00:02:00:00 -> 3000 -> 6000
    EXPECT_EQ(convert(7201, 8, 60, 1), 6000u);  // the second frame of the pair reads as the first
    EXPECT_EQ(convert(215784, 4, 60000, 1001), 215784u);  // 01:00:00,00 -> 107892, doubled
    EXPECT_EQ(convert(100, 8, 50, 1), 50u);               // 00:00:02:00; 50 is not doubled
    // Drop separators do not parse as non-drop: the count stays (then doubled for pairs).
    EXPECT_EQ(convert(107892, 2, 30000, 1001), 107892u);
    EXPECT_EQ(convert(1000, 2, 60000, 1001), 2000u);
    // A zero scale gives type 2 (30 non-drop).
    EXPECT_EQ(convert(108000, 2, 30, 0), 108000u);
    EXPECT_EQ(convert(108000, 8, 30, 0), 90000u);
    vidConvertTC(nullptr, 8, 30, 1);
}

TEST(RateText, ReadsFractionsWholesAndDecimals) {
    auto read = [](const char* text) {
        std::pair<uint32_t, uint32_t> p{7, 7};
        const bool ok = qnv::RateFromText(text, &p.first, &p.second);
        return ok ? p : std::pair<uint32_t, uint32_t>{0, 0};
    };
    using P = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(read("30000/1001"), P(30000, 1001));
    EXPECT_EQ(read("25"), P(25, 1));
    EXPECT_EQ(read("29.97"), P(2997, 100));
    EXPECT_EQ(read("0.5"), P(5, 10));
    EXPECT_EQ(read("4294967295/1"), P(4294967295u, 1));
    for (const char* bad : {"", "0", "25/0", "4294967296", "1.2345678901", "/1", "25/", "2.", "25 ", "-25", "x"})
        EXPECT_EQ(read(bad), P(0, 0)) << bad;
    EXPECT_FALSE(qnv::RateFromText(nullptr, nullptr, nullptr));
}
