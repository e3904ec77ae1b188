// MediaCmd record helpers: init/copy/fix, name tables, channel masks, speeds.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "mediacmd/names.h"
#include "mediacmd/record.h"
#include "qnvutil/mediacmd.h"

namespace {
MediaCmd fresh(uint32_t command) {
    MediaCmd c;
    std::memset(&c, 0xAB, sizeof c);
    initMediaCmd(&c, command);
    return c;
}
}  // namespace

TEST(MediaCmdRecord, InitSetsEveryFieldAndClearsTheRest) {
    MediaCmd c = fresh(ctPlay);
    EXPECT_EQ(std::tuple(c.prev, c.CmdID, c.StructSize, c.Channel, c.Cmd, c.Flags, c.Speed),
              std::tuple(nullptr, 0xFA250200u, 4188u, 0xFFFFFFFFu, uint32_t(ctPlay), 0u, 0x7FFFFFFF));
    for (int32_t v : {int32_t(c.VideoChannels), int32_t(c.AudioChannels), int32_t(c.InfoChannels), c.CmdAlt,
                      c.Position, c.Start, c.End})
        EXPECT_EQ(v, -1);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&c);
    for (size_t i = 76; i < sizeof c; ++i) ASSERT_EQ(bytes[i], 0) << i;
    initMediaCmd(nullptr, 0);  // ignored
}

TEST(MediaCmdRecord, FixFillsImpliedSpeedsAndMasks) {
    for (auto [cmd, speed] : {std::pair(ctPlay, 65520), std::pair(ctStop, 0)}) {
        MediaCmd c = fresh(cmd);
        EXPECT_EQ(fixMediaCmd(&c, 0), cfUseSpeed);
        EXPECT_EQ(c.Speed, speed);
    }
    MediaCmd c = fresh(ctTransfer);
    c.VideoChannels = 3;
    MediaCmd before = c;
    EXPECT_EQ(fixMediaCmd(&c, 0), 0u);
    before.VideoChannels = 0xFFFFFFFF;
    EXPECT_EQ(std::memcmp(&c, &before, sizeof c), 0);
    // Only the flags inside the mask count as given.
    c = fresh(ctRecord);
    c.Flags = cfUseSpeed | cfUsePresets;
    c.Speed = 7;
    c.AudioChannels = 5;
    EXPECT_EQ(fixMediaCmd(&c, cfUsePresets), cfUseSpeed | cfUsePresets);
    EXPECT_EQ(std::pair(c.Speed, c.AudioChannels), std::pair(65520, 5u));
}

TEST(MediaCmdRecord, CopyMergesFieldsFlagsAndText) {
    MediaCmd src = fresh(ctRecord), dst = fresh(ctTransfer);
    src.Channel = 3;
    src.Position = 10, src.Start = 20, src.End = 30;
    src.Flags = cfUsePosition | cfUseStartOffset | cfLoop | cfUseClipID;
    std::strcpy(src.ClipID, "ABCDEFGH");
    std::strcpy(src.FileName, "clip.mov");
    dst.Flags = cfDeferred | cfUseEnd | cfUsePositionOffset | cfPreview;
    dst.AudioChannels = 1;
    std::strcpy(dst.FileName, "longer-old-name");
    copyMediaCmd(&dst, &src, 0);  // no flags copied, but the fields are
    EXPECT_EQ(std::tuple(dst.Channel, dst.Cmd, dst.Speed, dst.Position, dst.Start, dst.End, dst.AudioChannels),
              std::tuple(3u, uint32_t(ctRecord), 65520, 10, 20, 30, 0xFFFFFFFFu));
    // Deferred dropped (src lacks it), position bits only gained, start/end
    // bits replaced, unlisted bits kept.
    EXPECT_EQ(dst.Flags, cfUsePositionOffset | cfUsePosition | cfUseStartOffset | cfPreview | cfUseSpeed);
    EXPECT_STREQ(dst.ClipID, "ABCDEFGH");
    EXPECT_STREQ(dst.FileName, "clip.mov");
    EXPECT_EQ(dst.FileName[10], 0) << "padded with NULs";

    src = fresh(ctGetValue);
    src.CmdAlt = gsTc;
    src.Flags = cfTimeMs | cfUsePresets | cfUseSpeed;
    src.Speed = -100;
    src.VideoChannels = 6;
    copyMediaCmd(&dst, &src, cfTimeMs);
    EXPECT_EQ(std::tuple(dst.CmdAlt, dst.Speed, dst.VideoChannels), std::tuple(int32_t(gsTc), -100, 6u));
    EXPECT_EQ(dst.Flags & (cfTimeMs | cfUsePresets | cfUseSpeed), cfTimeMs | cfUsePresets | cfUseSpeed);
    src.Cmd = ctTransfer;
    src.Flags = 0;
    copyMediaCmd(&dst, &src, 0);
    EXPECT_EQ(dst.Speed, 0x7FFFFFFF);
    EXPECT_EQ(dst.Flags & cfUseSpeed, cfUseSpeed) << "left as it was";
}

TEST(MediaCmdRecord, CopyStaysInsideSmallRecords) {
    // guard: a destination of 80 bytes receives only 4 clip ID bytes.
    MediaCmd src = fresh(ctPlay);
    src.Flags = cfUseClipID;
    std::strcpy(src.ClipID, "ABCDEFGH");
    auto* small = static_cast<MediaCmd*>(::operator new(80));
    std::memcpy(small, &src, 80);
    small->StructSize = 80;
    copyMediaCmd(small, &src, 0);
    EXPECT_EQ(std::string(small->ClipID, 4), "ABCD");
    ::operator delete(small);
}

namespace {
// Name of a code, or "-" when the lookup fails.
template <typename Lookup>
std::string nameOf(Lookup lookup, uint32_t code) {
    char text[32];
    return lookup(code, text) == 0 ? std::string(text) : "-";
}
// Code of a name, or 0xDEAD when the lookup fails.
template <typename Lookup>
uint32_t codeOf(Lookup lookup, const char* name) {
    uint32_t code = 0xDEAD;
    return lookup(name, &code) == 0 ? code : 0xDEAD;
}
}  // namespace

TEST(MediaCmdNames, FlagNamesFirstMatch) {
    // Bits with two names give the first one listed; a combination has none.
    const std::pair<uint32_t, const char*> names[] = {
        {0x4000, "copy"}, {0x8000, "convert"}, {0x08000000, "secondfield"}, {0x40000000, "overridedeferred"}, {0x30, "-"}};
    for (auto [code, name] : names) EXPECT_EQ(nameOf(cfToString, code), name) << code;
    // Whole names only, in any case.
    const std::pair<const char*, uint32_t> codes[] = {
        {"IGNORE", 0x40000000}, {"NoClipFiles", 0x4000}, {"use", 0xDEAD}, {"deferredx", 0xDEAD}};
    for (auto [name, code] : codes) EXPECT_EQ(codeOf(cfFromString, name), code) << name;
    EXPECT_EQ(cfFromString(nullptr, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(cfFromString("loop", nullptr), 0u);
    EXPECT_EQ(cfToString(0x80000000u, nullptr), 0u);
}

TEST(MediaCmdNames, ValueNamesFirstMatch) {
    EXPECT_EQ(nameOf(gsToString, 20003), "sysdroppedframes");
    EXPECT_EQ(nameOf(gsToString, 50015), "proxyfilecompressiontype");
    EXPECT_EQ(nameOf(gsToString, 64014), "-");
    const std::pair<const char*, uint32_t> codes[] = {
        {"DroppedFrames", 20003}, {"videoinputprefferedscantype", 1048}, {"userdata9", 3009}};
    for (auto [name, code] : codes) EXPECT_EQ(codeOf(gsFromString, name), code) << name;
    // Every name leads to its code, and the code back to its first name,
    // which fits the 31 bytes promised.
    char text[32];
    uint32_t code = 0;
    std::set<uint32_t> seen;
    for (const qnv::CodeName& row : qnv::valueNameTable()) {
        ASSERT_LT(std::strlen(row.name), 31u);
        ASSERT_EQ(gsFromString(row.name, &code), 0u);
        ASSERT_EQ(code, row.code);
        ASSERT_EQ(gsToString(code, text), 0u);
        EXPECT_EQ(std::string(text) == row.name, seen.insert(code).second) << row.name;
    }
}

TEST(MediaCmdChannels, MasksByIndex) {
    // mask, index, channel, rest
    const uint32_t finds[][4] = {
        {0x0A, 1, 3, 0x02}, {0, 0, 0xFFFFFFFF, 0}, {0x80000001u, 1, 31, 1}, {0x0A, 2, 0xFFFFFFFF, 0x0A}};
    for (const auto& f : finds) {
        uint32_t rest = 0xDEAD;
        EXPECT_EQ(findChannel(f[0], &rest, f[1]), f[2]) << f[0] << " " << f[1];
        EXPECT_EQ(rest, f[3]) << f[0] << " " << f[1];
    }
    EXPECT_EQ(std::pair(isolateChannel(0x0A, 1), isolateChannel(0x0A, 5)), std::pair(0x08u, 0u));
    EXPECT_EQ(std::pair(totalChannels(0xFFFFFFFF), totalChannels(0x0A)), std::pair(32u, 2u));
}

TEST(MediaCmdSpeed, RateAndFourcc) {
    EXPECT_EQ(speedRate(-32760), 0x00008000u);
    EXPECT_EQ(speedRate(65520 * 3 + 16380), 0x00034000u);
    EXPECT_EQ(speedRate(INT32_MIN), 32776u << 16 | uint32_t((2147483648.0 / 65520 - 32776) * 65536));
    EXPECT_EQ(fourccToLower(0x3436324Eu), 0x3436326Eu);  // "N264" -> "n264"
    EXPECT_EQ(fourccToUpper(0xE4766568u), 0xE4564548u);  // high bytes unchanged
}

TEST(MediaCmdSpeed, RepsKeepStateAcrossCalls) {
    qnv::resetSpeedReps();
    uint32_t frame = 100;
    // Start state: normal speed with a rate of 0, so the counter stays.
    EXPECT_EQ(speedReps(&frame, 65520), 1u);
    EXPECT_EQ(speedReps(&frame, 0x7FFFFFFF), 1u);
    EXPECT_EQ(frame, 100u);
    EXPECT_EQ(speedReps(&frame, 0), 0u);
    // 1.5x normal: rate 3 against half speed, no fraction. 1.25x: rate 2.5,
    // one extra frame every second call once past 1.0 (an accumulator of 1.0
    // does not exceed 1.0).
    EXPECT_EQ(speedReps(&frame, 98280), 1u);
    std::vector<uint32_t> frames = {frame};
    for (int i = 0; i < 3; ++i) {
        speedReps(&frame, 81900);
        frames.push_back(frame);
    }
    EXPECT_EQ(frames, (std::vector<uint32_t>{103, 105, 107, 110}));
    // Slow: a quarter of normal speed is rate 0.5, two repetitions a frame;
    // rate 0.4 repeats 2.5 times: 2, 2, 3 once the halves pass 1.0, 2.
    EXPECT_EQ(speedReps(&frame, -16380), 2u);
    EXPECT_EQ(frame, 111u);
    std::vector<uint32_t> reps;
    for (int32_t speed : {-13104, -13104, 0x7FFFFFFF, -13104}) reps.push_back(speedReps(nullptr, speed));
    EXPECT_EQ(reps, (std::vector<uint32_t>{2, 2, 3, 2}));
}
