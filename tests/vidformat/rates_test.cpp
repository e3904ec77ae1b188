// Rate/scale pairs, durations, aspect ratios and the colour matrix setting.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>
#include <thread>
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
Pair normalized(uint32_t rate, uint32_t scale) {
    EXPECT_EQ(vidNormalizeRateScale(&rate, &scale), 0u);
    return {rate, scale};
}
Pair fromSize(uint32_t w, uint32_t h) {
    Pair p{0xAAAA, 0xBBBB};
    EXPECT_EQ(vidRateScaleFromSize(w, h, &p.first, &p.second), 0u);
    return p;
}
uint32_t aspect(uint32_t w, int32_t h) {
    const uint32_t header[3] = {40, w, uint32_t(h)};
    return vidGetAspectRatio(header);
}
}  // namespace

TEST(RateScale, FromSignalFormat) {
    EXPECT_EQ(rateScale(0x1380B217), Pair(24000, 1001));
    EXPECT_EQ(rateScale(0x22109032), Pair(50, 1));
    EXPECT_EQ(rateScale(5), Pair(5, 1));
    EXPECT_EQ(rateScale(119), Pair(120000, 1001));
    EXPECT_EQ(rateScale(0x80000000 | 71), Pair(72000, 1001));
    EXPECT_EQ(rateScale(VID_NO_FORMAT, VID_ERROR), Pair(0xAAAA, 0xBBBB));
    EXPECT_EQ(rateScale(0x12300100, VID_ERROR), Pair(256, 1));
    // Every fractional code is one more than its rate rounded down.
    for (uint32_t code = 1; code < 512; ++code) {
        if (code == 256) continue;
        Pair p = rateScale(code);
        EXPECT_TRUE(p.second == 1 ? p.first == code : p.second == 1001 && p.first == (code + 1) * 1000) << code;
    }
    EXPECT_EQ(vidRateScale(25, nullptr, nullptr), VID_ERROR);
}

TEST(RateScale, NormalisesHandWrittenRates) {
    EXPECT_EQ(normalized(2997, 100), Pair(30000, 1001));
    EXPECT_EQ(normalized(2398, 100), Pair(23976, 1000));  // the 23.976 spellings keep /1000
    EXPECT_EQ(normalized(23976, 1000), Pair(23976, 1000));
    EXPECT_EQ(normalized(2400, 100), Pair(24, 1));
    EXPECT_EQ(normalized(2400, 101), Pair(24000, 1001));
    EXPECT_EQ(normalized(2997, 125), Pair(24000, 1001));
    EXPECT_EQ(normalized(3000, 100), Pair(30, 1));
    EXPECT_EQ(normalized(3000, 101), Pair(30000, 1001));
    EXPECT_EQ(normalized(3000, 7), Pair(3000, 7));
    EXPECT_EQ(normalized(24000, 1001), Pair(24000, 1001));  // general rule: q = 23
    EXPECT_EQ(normalized(47952, 2000), Pair(24000, 1001));
    EXPECT_EQ(normalized(5994, 100), Pair(60000, 1001));
    EXPECT_EQ(normalized(5000, 100), Pair(50, 1));
    EXPECT_EQ(normalized(120, 1), Pair(120, 1));
    EXPECT_EQ(normalized(240, 2), Pair(120, 1));
    EXPECT_EQ(normalized(12, 5), Pair(12, 5));
    EXPECT_EQ(normalized(29, 7), Pair(29, 1));  // whole numbers of common rates taken literally
    EXPECT_EQ(normalized(23, 1), Pair(23, 1));
    EXPECT_EQ(normalized(25, 0), Pair(25, 0));  // no quotient: untouched
    EXPECT_EQ(vidNormalizeRateScale(nullptr, nullptr), 0u);
}

TEST(RateScale, FromImageSize) {
    EXPECT_EQ(fromSize(720, 486), Pair(30000, 1001));
    EXPECT_EQ(fromSize(720, 576), Pair(25, 1));
    EXPECT_EQ(fromSize(720, 512), Pair(30000, 1001));
    EXPECT_EQ(fromSize(1080, 1920), Pair(30000, 1001));
    EXPECT_EQ(fromSize(1280, 720), Pair(25, 1));
    EXPECT_EQ(fromSize(1920, 1080), Pair(30000, 1001));
    EXPECT_EQ(fromSize(2048, 1080), Pair(25, 1));
    EXPECT_EQ(fromSize(2048, 1556), Pair(24, 1));
    EXPECT_EQ(fromSize(4096, 2160), Pair(24, 1));
    EXPECT_EQ(fromSize(5000, 2000), Pair(0xAAAA, 0xBBBB));
    uint32_t r = 0;
    EXPECT_EQ(vidRateScaleFromSize(720, 486, &r, nullptr), VID_ERROR);
}

TEST(RateScale, FramesPerSecondAndDurations) {
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(VID_NO_FORMAT, 0, 0), 29.97002997002997);
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(256, 25, 0), 29.97002997002997);
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(VID_NO_FORMAT, 50, 2), 25.0);
    EXPECT_DOUBLE_EQ(vidFramesPerSecD(59, 0, 1), 60000.0 / 1001);
    EXPECT_EQ(vidMsPerFrame(25, 0, 0), 40);
    EXPECT_EQ(vidMsPerFrame(29, 0, 0), 33);
    EXPECT_EQ(vidMsPerFrame(59, 0, 0), 17);
    EXPECT_DOUBLE_EQ(vidMsPerFrameD(0, 24000, 1001), 1001.0 / 24);
    EXPECT_EQ(vidMsPerFrame(0, 0, 0), 0);  // rate code 0: no finite duration

    const uint8_t types[] = {1, 2, 4, 8, 16, 32, 64, 128, 132, 0};
    const double fps[] = {24, 30, 30000.0 / 1001, 25, 50, 59.94005994005994, 60, 24000.0 / 1001, 24000.0 / 1001,
                          30000.0 / 1001};
    const int64_t ms[] = {42, 33, 33, 40, 20, 17, 17, 42, 42, 33};
    for (size_t i = 0; i < std::size(types); ++i) {
        EXPECT_DOUBLE_EQ(vidTCFramesPerSecD(types[i]), fps[i]) << int(types[i]);
        EXPECT_EQ(vidTCMsPerFrame(types[i]), ms[i]) << int(types[i]);
    }
    // Type 2 counts 30 per second but lasts as long as a 29.97 frame.
    EXPECT_EQ(vidTCMsPerFrameD(2), 33.36666666666667);
    EXPECT_EQ(vidTCMsPerFrameD(32), 16.68333333333333);
    EXPECT_EQ(vidTCMsPerFrameD(64), 16.66666666666667);
    EXPECT_EQ(vidTCMsPerFrameD(132), 41.708333333333336);
}

TEST(Aspect, FromImageSize) {
    EXPECT_EQ(aspect(1920, -1080), VID_ASPECT(16, 9));
    EXPECT_EQ(aspect(720, 576), 0x40003u);
    EXPECT_EQ(aspect(720, 486), 0x40003u);
    EXPECT_EQ(aspect(1024, 576), 0u);
    EXPECT_EQ(aspect(1280, 1024), 0u);
    EXPECT_EQ(aspect(720, 479), 0u);
    EXPECT_EQ(aspect(960, 720), 0x100009u);
    EXPECT_EQ(aspect(2048, 858), 0xEF0064u);
    EXPECT_EQ(aspect(1998, 1080), 0xB90064u);
    EXPECT_EQ(aspect(2048, -1080), 0x1000087u);
    EXPECT_EQ(aspect(4096, 2160), 0x1000087u);
    EXPECT_EQ(aspect(3840, INT32_MIN), 0u);
    EXPECT_EQ(vidGetAspectRatio(nullptr), 0u);
}

namespace {

// Runs `body` in a child process whose default store is a fresh folder, so
// that the once-per-process setting is read anew; returns the child's exit
// code. The test process itself never calls GetMatrixBySize.
int inChild(const std::function<int(const std::filesystem::path&)>& body) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("qnvmatrix-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv("QNVUTIL_CONFIG_DIR", dir.c_str(), 1);
        ::_exit(body(dir));
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    fs::remove_all(dir);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char kKey[] = "Quellbox\\Advanced";
const char kName[] = "ForceVideoRangeMatrix";

void storeSetting(uint32_t value) { qxCFGValueDword(QXCFG_DEFAULT, kKey, kName, &value, 1); }

}  // namespace

TEST(ColourMatrix, BySizeAndFlag) {
    EXPECT_EQ(inChild([](const auto&) {
                  // Codes by size: SD, HD, UHD; video range with the flag.
                  const int32_t got[] = {GetMatrixBySize(720, 576, 0),       GetMatrixBySize(721, 1125, 0),
                                         GetMatrixBySize(3840, 2160, 0),     GetMatrixBySize(720, -480, 0x1000),
                                         GetMatrixBySize(1920, 1080, 0x1000), GetMatrixBySize(1920, -1126, 0x1000),
                                         GetMatrixBySize(0, INT32_MIN, 0)};
                  const int32_t want[] = {0, 4, 6, 1, 5, 7, 6};
                  return std::equal(std::begin(got), std::end(got), std::begin(want)) ? 0 : 1;
              }),
              0);
    // Missing: 0 is written back.
    EXPECT_EQ(inChild([](const auto&) {
                  if (GetMatrixBySize(1920, 1080, 0x1000) != 5) return 1;
                  uint32_t v = 99;
                  return qxCFGValueDword(QXCFG_DEFAULT, kKey, kName, &v, 0) == 0 && v == 0 ? 0 : 2;
              }),
              0);
}

TEST(ColourMatrix, SettingForcesEvenCodesAndIsReadOnce) {
    EXPECT_EQ(inChild([](const auto&) {
                  storeSetting(1);
                  if (GetMatrixBySize(1920, 1080, 0x1000) != 4) return 1;
                  if (GetMatrixBySize(720, 576, 0x1000) != 0) return 2;
                  storeSetting(0);  // not read again
                  return GetMatrixBySize(3840, 2160, 0x1000) == 6 ? 0 : 3;
              }),
              0);
    // Many threads at the first call see one value.
    EXPECT_EQ(inChild([](const auto&) {
                  storeSetting(1);
                  std::vector<int32_t> got(8, -1);
                  std::vector<std::thread> threads;
                  for (size_t i = 0; i < got.size(); ++i)
                      threads.emplace_back([&got, i] { got[i] = GetMatrixBySize(1920, 1080, 0x1000); });
                  for (auto& t : threads) t.join();
                  for (int32_t v : got)
                      if (v != 4) return 1;
                  return 0;
              }),
              0);
}
