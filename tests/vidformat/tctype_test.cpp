// Timecode types: the rate ladders, parameter text and conversion between types.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "qnvutil/vidformat.h"
#include "vidformat/ratetext.h"
#include "tests/qnvutil/test_util.h"
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
    // rate code, counting type, frames-per-second type: 50 and 59.94 count
    // as 25 and 29.97 but keep their own rate types; codes outside 14..256
    // are 30.
    const uint32_t cases[][3] = {
        {59, 4, 32}, {50, 8, 16},    {60, 2, 64},     {256, 2, 2}, {13, 2, 2}, {14, 4, 4}, {119, 4, 4},
        {23, 128, 128}, {71, 128, 128}, {72, 1, 1}, {100, 8, 8}, {15, 2, 2}, {257, 2, 2}};
    for (const auto& c : cases) {
        const uint32_t sf = 0x22109000u | c[0];  // upper bits are ignored
        EXPECT_EQ(std::pair(vidGetTCTypeSignalFormat(sf), vidGetFPSTCTypeSignalFormat(sf)), std::pair(c[1], c[2]))
            << c[0];
    }
}

TEST(TcType, FromParameterText) {
    // The first character after '=' is always skipped; the exact-case keys are
    // tried in order, whatever comes first in the text; a value's beginning
    // matches, "film-drop" before its prefix "film".
    const std::pair<const char*, uint32_t> cases[] = {
        {"x TcType='film'", 1},     {"TcType=film", 0},        {"TcType=\"pal\" rate=25", 8},
        {"tctype='23.98'", 132},    {"TCTYPE='PAL'", 8},       {"TcType='non-drop-frame'", 4},
        {"TcType='Drop-Frame'", 4}, {"Tctype='film'", 0},      {"TcType='film-drop'", 128},
        {"TcType='filmic'", 1},     {"TcType='frames'", 0},    {"TcType='500'", 16},
        {"TcType='59.94'", 32},     {"TcType='59'", 0},        {"TcType='60'", 64},
        {"TcType='2'", 0},          {"TcType='", 0},           {"TcType=", 0},
        {"", 0},                    {"TCTYPE='pal' tctype='film' TcType='60'", 64},
        {"TCTYPE='pal' tctype='film'", 1}};
    for (const auto& [text, type] : cases) EXPECT_EQ(qnv::TcTypeFromText(text), type) << text;
    EXPECT_EQ(qnv::TcTypeFromText(nullptr), 0u);
}

TEST(TcType, ConvertsCountsThroughTimecodeText) {
    // count, target type, rate, scale, result. A label the target lacks
    // moves on to the next one it has: frame 24 at 24 to the next second,
    // a dropped ;00 to ;02. Drop and non-drop labels read across types. 59.94
    // and 60 count frame pairs in their text, so the result is doubled (the
    // second frame of a pair reads as the first); 50 is not doubled. A zero
    // scale gives type 2.
    const uint32_t cases[][5] = {
        {86400, 1, 24, 1, 86400},          {12345, 4, 30000, 1001, 12345},  // same type: untouched
        {86400, 8, 24, 1, 90000},          {86424, 2, 24, 1, 108030},       // 01:00:01:00 at 30
        {90023, 1, 25, 1, 86423},          {90024, 1, 25, 1, 86424},        // 01:00:00:24 -> 01:00:01:00
        {7200, 8, 60, 1, 6000},            {7201, 8, 60, 1, 6000},          // 00:02:00:00 -> 3000 -> 6000
        {215784, 4, 60000, 1001, 215784},  {100, 8, 50, 1, 50},
        {107892, 2, 30000, 1001, 108000},  {1000, 2, 60000, 1001, 1000},    // 01:00:00;00 -> 01:00:00:00
        {1000, 4, 25, 1, 1200},            {1500, 4, 25, 1, 1800},          // 00:00:40:00 -> 00:00:40;00
        {1350, 4, 30, 1, 1350},                                             // 00:00:45:00
        {1800, 4, 30, 1, 1800},            {1801, 4, 30, 1, 1800},          // 00:01:00:00, :01 -> ;02 = 1800
        {108000, 2, 30, 0, 108000},        {108000, 8, 30, 0, 90000}};
    for (const auto& c : cases) {
        uint32_t count = c[0];
        vidConvertTC(&count, c[1], c[2], c[3]);
        EXPECT_EQ(count, c[4]) << c[0] << " to " << c[1] << " at " << c[2] << "/" << c[3];
    }
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

// qnvtool tc without --type: the separator picks drop or non-drop counting
// at 29.97 and 59.94; a count goes out in the rate's own type.
TEST(TcType, QnvtoolReadsTheSeparatorAtDropFrameRates) {
    if (!qnvtest::qnvtoolBuilt()) GTEST_SKIP() << "qnvtool not built";
    const std::pair<const char*, const char*> cases[] = {
        {"tc '01:00:00;00' --rate 30000/1001", "107892\n"}, {"tc 01:00:00:00 --rate 30000/1001", "108000\n"},
        {"tc '00:00:01;05' --rate 60000/1001", "70\n"},     {"tc 00:00:01:05 --rate 60000/1001", "70\n"},
        {"tc 01:00:00:00 --rate 25", "90000\n"},          {"tc 107892 --rate 30000/1001", "01:00:00;00\n"},
        {"tc --convert 1000 --from 25 --to drop-frame", "1200\n"}};
    for (const auto& [args, out] : cases)
        EXPECT_EQ(qnvtest::runCommand(qnvtest::kQnvtool + " " + args + " 2>&1"), out) << args;
}
