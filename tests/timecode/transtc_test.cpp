// The transport counter: play counts, steps, range wrap and the clamping setters.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "qnvutil/timecode.h"

namespace {

int32_t fracOf(const CQNVTransTC& tc) {
    CQNVPos p;
    tc.GetCPos(p);
    return p.frac();
}

// The counter's rules written out over one fixed-point number.
struct Model {
    int32_t in = 0, out = 0, speed = 0, index = 0, last = 1;
    uint32_t dur = 0;
    int64_t x = 0;  // whole * 65520 + frac
    bool stale = true;

    int64_t whole() const { return x >= 0 ? x / 65520 : -((-x + 65519) / 65520); }
    int32_t frac() const { return int32_t(x - whole() * 65520); }
    int32_t count() {
        if (!stale) return last;
        if (speed == 0 || std::abs(speed) >= 65520) return 1;
        last = (speed < 0 ? frac() : 65519 - frac()) / std::abs(speed) + 1;
        stale = false;
        return last;
    }
    void wrap() {
        if (dur == 0) return;
        int64_t p = whole();
        if (p > -100 && p < 0) p += dur;
        x = int64_t(int32_t(uint32_t(in) + uint32_t(p - in) % dur)) * 65520 + frac();
        stale = true;
    }
    void step(int32_t n, int dir) {
        // A 32-bit product: a large cached count times a fast speed wraps.
        x += dir * int64_t(int32_t(uint32_t(int64_t(count()) * speed * n)));
        wrap();
        index += dir;
        stale = true;
    }
};

}  // namespace

TEST(TransTC, EveryWidthOfThePlayCountReadsTheSame) {
    // The counts themselves are the model's (below).
    CQNVTransTC tc;
    tc.SetTC(10);
    tc.SetSpeed(CQNVSpeed(-32760));
    int32_t repeat = 0;
    int16_t r16 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    EXPECT_EQ(std::tuple(tc.GetTC(repeat), tc.GetTC(r16), tc.GetTC(u16), tc.GetTC(u32)),
              std::tuple(tc.GetTC(), tc.GetTC(), tc.GetTC(), tc.GetTC()));
    EXPECT_EQ(std::tuple(repeat, int32_t(r16), int32_t(u16), int32_t(u32)), std::tuple(2, 2, 2, 2));
}

TEST(TransTC, SpeedAssignmentKeepsFractionAndCachedCount) {
    CQNVTransTC2 tc;
    tc.SetSpeed(CQNVSpeed(32760));
    EXPECT_EQ(tc.GetRepeat(), 1u);  // from the middle of the frame
    tc = CQNVSpeed(16380);          // speed only: neither the fraction nor the cache move
    EXPECT_EQ(std::pair(fracOf(tc), tc.GetRepeat()), std::pair(32760, 1u));
    tc.SetSpeedZero(CQNVSpeed(16380));  // keeps the fraction, recounts: 32759 / 16380 + 1
    EXPECT_EQ(std::pair(fracOf(tc), tc.GetRepeat()), std::pair(32760, 2u));
    CQNVTransTC2 copy;
    copy = tc;
    EXPECT_EQ(std::pair(copy.GetLSpeed(), copy.GetLastPlayCount()), std::pair(16380, 2));
    CQNVSpeed speed;
    copy.GetCSpeed(speed);
    EXPECT_EQ(speed.Get(), 16380);
    speed.Set(-7);
    EXPECT_EQ(speed.Get(), -7);
    tc.SetSpeedZero(CQNVSpeed(-65520));  // exactly reverse: to the frame's start
    EXPECT_EQ(fracOf(tc), 0);
}

TEST(TransTC, RangeWrapUsesUnsignedRemainder) {
    CQNVTransTC2 tc;
    tc.SetRange(100, 50);
    EXPECT_EQ(std::tuple(tc.GetIn(), tc.GetOut(), tc.GetDur()), std::tuple(50, 100, 50u));
    EXPECT_EQ(std::pair(tc.In(), tc.Out()), std::pair(50u, 100u));
    // -1 + 50 = 49, then (49 - 50) as 4294967295 mod 50 = 45. From -100 on
    // there is no correction first: 4294967146 mod 50 = 46.
    const std::pair<int32_t, int32_t> rows[] = {{120, 70}, {-1, 95}, {49, 95}, {-100, 96}, {INT32_MIN, 98}};
    for (auto [t, want] : rows) EXPECT_EQ(tc = t, want) << t;
    EXPECT_EQ(tc.GetClipTC(), 48u);
    tc = CQNVPos(CQNVSpeed(-32760));  // -0.5 frame: -1 + 50 = 49, then the same
    EXPECT_EQ(std::pair(tc.GetTC(), fracOf(tc)), std::pair(95, 32760));

    tc.SetRange(10, -1);  // open range
    EXPECT_EQ(std::tuple(tc.GetIn(), tc.GetOut(), tc.GetDur()), std::tuple(10, -1, 0xFFFFFFF5u));
    EXPECT_EQ(tc = 5, 16);  // 0xFFFFFFFB mod 0xFFFFFFF5 = 6
}

TEST(TransTC, ClipAccessAndClampingSetters) {
    using T = CQNVTransTC2;
    // SetClipTCLimit has no lower clamp: 50 - 10 = 40 wraps to 86.
    const struct { void (T::*set)(int32_t); int32_t arg, want; } rows[] = {
        {&T::SetClipTC, 7, 57},   {&T::SetClipTCLimit, 1000, 99}, {&T::SetClipTCLimit, -10, 86},
        {&T::SetTCLimit, 100, 99}, {&T::SetTCLimit, -1000, 50}};
    T tc;
    tc.SetRange(50, 100);
    for (const auto& r : rows) {
        (tc.*r.set)(r.arg);
        EXPECT_EQ(tc.GetTC(), r.want) << r.arg;
    }
    tc.SetSpeed(CQNVSpeed(32760));
    ++tc;
    ++tc;
    EXPECT_EQ(tc.GetRepeat(), 2u);
    tc.SetTCLimit(10);  // clamped to 50; index and cached count stay
    EXPECT_EQ(std::tuple(tc.GetTC(), fracOf(tc), tc.GetIndex(), tc.GetRepeat()), std::tuple(50, 0, 2u, 2u));
}

TEST(TransTC, ExtremeSpeedsAndPositionsWrap) {
    CQNVTransTC tc;
    tc.SetTC(INT32_MAX);
    tc = CQNVSpeed(0x7FFFFFFF);  // the undefined speed steps like any other
    tc += INT32_MAX;
    tc -= INT32_MIN;
    EXPECT_EQ(tc.GetIndex(), 0);
    tc.SetTC(INT32_MAX);
    tc.SetSpeed(CQNVSpeed(65520));
    EXPECT_EQ(++tc, INT32_MIN);
    tc = CQNVSpeed(INT32_MIN);
    uint32_t repeat = 0;
    tc.GetTC(repeat);
    EXPECT_EQ(repeat, 1u);
}

TEST(TransTC, MatchesModelOverRandomSpeedsAndRanges) {
    std::mt19937 rng(2024);
    auto pick = [&](int32_t lo, int32_t hi) { return std::uniform_int_distribution<int32_t>(lo, hi)(rng); };
    for (int trial = 0; trial < 3000; ++trial) {
        CQNVTransTC tc;
        Model m;
        if (trial % 4 != 0) {
            const int32_t a = pick(-500, 500), b = trial % 9 == 0 ? -1 : pick(-500, 500);
            tc.SetRange(a, b);
            std::tie(m.in, m.out) = (b == -1 || a < b) ? std::pair(a, b) : std::pair(b, a);
            m.dur = uint32_t(m.out) - uint32_t(m.in);
        }
        for (int op = 0; op < 200; ++op) {
            const int kind = pick(0, 9);
            if (kind == 0) {
                // Mostly slow speeds, some fast, reverse and still.
                const int32_t s = pick(0, 3) == 0 ? pick(-200000, 200000) : pick(-65520, 65520) / pick(1, 40);
                tc.SetSpeed(CQNVSpeed(s));
                m.speed = s;
                m.stale = true;
                m.x = m.whole() * 65520 + ((s == 65520 || s == -65520) ? 0 : 32760);
            } else if (kind == 1) {
                m.speed = pick(-70000, 70000);
                tc = CQNVSpeed(m.speed);
            } else if (kind == 2) {
                const int32_t t = pick(-700, 700);
                tc.SetTC(t);
                m.x = int64_t(t) * 65520;
                m.index = 0;
                m.wrap();
                m.stale = true;
            } else if (kind <= 7) {  // 3: +=, 4: -=, 5 and 6: ++, 7: --
                const int32_t n = kind <= 4 ? pick(1, 4) : 1;
                if (kind == 3) tc += n; else if (kind == 4) tc -= n; else if (kind == 7) --tc; else ++tc;
                m.step(n, (kind == 4 || kind == 7) ? -1 : 1);
            } else {
                int32_t repeat = 0;
                tc.GetTC(repeat);
                ASSERT_EQ(repeat, m.count()) << trial << ":" << op;
            }
            ASSERT_EQ(std::tuple(tc.GetTC(), fracOf(tc), tc.GetIndex()), std::tuple(m.whole(), m.frac(), m.index))
                << trial << ":" << op;
        }
    }
}
