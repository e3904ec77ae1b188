// Rate/scale pairs, durations, aspect ratios and the colour matrix setting.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "qnvutil/qxutil.h"
#include "qnvutil/vidformat.h"

namespace {
using Pair = std::pair<uint32_t, uint32_t>;

Pair rateScale(uint32_t sf, uint32_t expectResult = 0) {
    Pair p{0xAAAA, 0xBBBB};
    EXPECT_EQ(vidRateScale(sf, &p.first, &p.second), expectResult) << std::hex << sf;
    return p;
}
}  // namespace

TEST(RateScale, FromSignalFormat) {
    // The upper bits are ignored; only the codes the header lists are /1001.
    EXPECT_EQ(rateScale(0x1380B217), Pair(24000, 1001));
    EXPECT_EQ(rateScale(0x80000000 | 71), Pair(72000, 1001));
    EXPECT_EQ(rateScale(0x22109032), Pair(50, 1));
    const std::vector<uint32_t> fractional = {14, 23, 29, 47, 59, 71, 119};
    for (uint32_t code = 0; code < 512; ++code) {
        if (code == 256) continue;
        const bool f = std::find(fractional.begin(), fractional.end(), code) != fractional.end();
        EXPECT_EQ(rateScale(code), f ? Pair((code + 1) * 1000, 1001) : Pair(code, 1)) << code;
    }
    EXPECT_EQ(rateScale(0x12300100, VID_ERROR), Pair(256, 1));  // unknown, yet written
    EXPECT_EQ(rateScale(VID_NO_FORMAT, VID_ERROR), Pair(0xAAAA, 0xBBBB));
    EXPECT_EQ(vidRateScale(25, nullptr, nullptr), VID_ERROR);
}

TEST(RateScale, NormalisesHandWrittenRates) {
    // The 23.976 spellings keep /1000; whole numbers of common rates are taken
    // literally (29/7 -> 29/1); no quotient leaves the pair untouched.
    const struct { uint32_t rate, scale, wantRate, wantScale; } rows[] = {
        {2997, 100, 30000, 1001}, {2398, 100, 23976, 1000}, {23976, 1000, 23976, 1000}, {2400, 100, 24, 1},
        {2400, 101, 24000, 1001}, {2997, 125, 24000, 1001}, {3000, 100, 30, 1},         {3000, 101, 30000, 1001},
        {3000, 7, 3000, 7},       {24000, 1001, 24000, 1001}, {47952, 2000, 24000, 1001}, {5994, 100, 60000, 1001},
        {5000, 100, 50, 1},       {120, 1, 120, 1},         {240, 2, 120, 1},           {12, 5, 12, 5},
        {29, 7, 29, 1},           {23, 1, 23, 1},           {25, 0, 25, 0}};
    for (auto r : rows) {
        EXPECT_EQ(vidNormalizeRateScale(&r.rate, &r.scale), 0u);
        EXPECT_EQ(Pair(r.rate, r.scale), Pair(r.wantRate, r.wantScale)) << r.wantRate << "/" << r.wantScale;
    }
    EXPECT_EQ(vidNormalizeRateScale(nullptr, nullptr), 0u);
}

TEST(RateScale, FromImageSize) {
    const struct { uint32_t w, h; Pair want; } rows[] = {
        {720, 486, {30000, 1001}}, {720, 576, {25, 1}},    {720, 512, {30000, 1001}}, {1080, 1920, {30000, 1001}},
        {1280, 720, {25, 1}},      {1920, 1080, {30000, 1001}}, {2048, 1080, {25, 1}}, {2048, 1556, {24, 1}},
        {4096, 2160, {24, 1}},     {5000, 2000, {0xAAAA, 0xBBBB}}};  // too wide: untouched
    for (const auto& r : rows) {
        Pair p{0xAAAA, 0xBBBB};
        EXPECT_EQ(vidRateScaleFromSize(r.w, r.h, &p.first, &p.second), 0u);
        EXPECT_EQ(p, r.want) << r.w << "x" << r.h;
    }
    uint32_t r = 0;
    EXPECT_EQ(vidRateScaleFromSize(720, 486, &r, nullptr), VID_ERROR);
}

TEST(RateScale, FramesPerSecondAndDurations) {
    // Without rate/scale the format decides; without either, 29.97.
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(VID_NO_FORMAT, 0, 0), 29.97002997002997);
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(256, 25, 0), 29.97002997002997);
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(VID_NO_FORMAT, 50, 2), 25.0);
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(59, 0, 1), 60000.0 / 1001);
    EXPECT_DOUBLE_EQ(vidMsPerFrameD(0, 24000, 1001), 1001.0 / 24);
    for (auto [code, ms] : {std::pair(25u, 40), std::pair(29u, 33), std::pair(59u, 17), std::pair(0u, 0)})
        EXPECT_EQ(vidMsPerFrame(code, 0, 0), ms) << code;  // rate code 0: no finite duration

    // Type 2 counts 30 per second but lasts as long as a 29.97 frame; types
    // without a rate of their own count as 29.97; 59.94 and 60 keep the
    // table's own last digits.
    const struct { uint8_t type; double fps, msD; int64_t ms; } types[] = {
        {2, 30, 33.36666666666667, 33},          {0, 30000.0 / 1001, 33.36666666666667, 33},
        {3, 30000.0 / 1001, 33.36666666666667, 33}, {32, 59.94005994005994, 16.68333333333333, 17},
        {64, 60, 16.66666666666667, 17},         {132, 24000.0 / 1001, 41.708333333333336, 42},
        {1, 24, 41.666666666666664, 42},         {8, 25, 40, 40},
        {16, 50, 20, 20}};
    for (const auto& t : types) {
        EXPECT_DOUBLE_EQ(vidTCFramesPerSecD(t.type), t.fps) << int(t.type);
        EXPECT_EQ(vidTCMsPerFrameD(t.type), t.msD) << int(t.type);
        EXPECT_EQ(vidTCMsPerFrame(t.type), t.ms) << int(t.type);
    }
}

TEST(Aspect, FromImageSize) {
    const struct { uint32_t w; int32_t h; uint32_t want; } rows[] = {
        {1920, -1080, VID_ASPECT(16, 9)}, {720, 576, VID_ASPECT(4, 3)},  {720, 486, VID_ASPECT(4, 3)},
        {1024, 576, 0},                   {1280, 1024, 0},               {720, 479, 0},
        {960, 720, VID_ASPECT(16, 9)},    {2048, 858, VID_ASPECT(239, 100)}, {1998, 1080, VID_ASPECT(185, 100)},
        {2048, -1080, VID_ASPECT(256, 135)}, {4096, 2160, VID_ASPECT(256, 135)}, {3840, INT32_MIN, 0}};
    for (const auto& r : rows) {
        const uint32_t header[3] = {40, r.w, uint32_t(r.h)};
        EXPECT_EQ(vidGetAspectRatio(header), r.want) << r.w << "x" << r.h;
    }
    EXPECT_EQ(vidGetAspectRatio(nullptr), 0u);
}

namespace {

// Runs `body` in a child process whose default store is a fresh folder, so
// that the once-per-process setting is read anew; returns the child's exit
// code. The test process itself never calls GetMatrixBySize.
int inChild(const std::function<int()>& body) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("qnvmatrix-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv("QNVUTIL_CONFIG_DIR", dir.c_str(), 1);
        // exit, not _exit: coverage builds write their counts at exit (the
        // buffers were flushed before the fork, so nothing prints twice).
        std::exit(body());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    fs::remove_all(dir);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char kKey[] = "Quellbox\\Advanced";
const char kName[] = "ForceVideoRangeMatrix";

}  // namespace

TEST(ColourMatrix, BySizeAndFlag) {
    EXPECT_EQ(inChild([] {
                  // Codes by size: SD, HD, UHD; video range with the flag.
                  const auto got = std::tuple(GetMatrixBySize(720, 576, 0), GetMatrixBySize(721, 1125, 0),
                                              GetMatrixBySize(3840, 2160, 0), GetMatrixBySize(720, -480, 0x1000),
                                              GetMatrixBySize(721, 1125, 0x1000), GetMatrixBySize(1920, -1126, 0x1000),
                                              GetMatrixBySize(0, INT32_MIN, 0));
                  if (got != std::tuple(0, 4, 6, 1, 5, 7, 6)) return 1;
                  uint32_t v = 99;  // missing: 0 is written back
                  return qxCFGValueDword(QXCFG_DEFAULT, kKey, kName, &v, 0) == 0 && v == 0 ? 0 : 2;
              }),
              0);
}

TEST(ColourMatrix, SettingForcesEvenCodesAndIsReadOnce) {
    EXPECT_EQ(inChild([] {
                  uint32_t value = 1;
                  qxCFGValueDword(QXCFG_DEFAULT, kKey, kName, &value, 1);
                  // Many threads at the first call see one value.
                  std::vector<int32_t> got(8, -1);
                  std::vector<std::thread> threads;
                  for (size_t i = 0; i < got.size(); ++i)
                      threads.emplace_back([&got, i] { got[i] = GetMatrixBySize(1920, 1080, 0x1000); });
                  for (auto& t : threads) t.join();
                  if (got != std::vector<int32_t>(8, 4)) return 1;
                  if (GetMatrixBySize(720, 576, 0x1000) != 0) return 2;
                  value = 0;  // not read again
                  qxCFGValueDword(QXCFG_DEFAULT, kKey, kName, &value, 1);
                  return GetMatrixBySize(3840, 2160, 0x1000) == 6 ? 0 : 3;
              }),
              0);
}
