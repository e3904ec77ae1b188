// The transport counter: play counts, steps, range wrap and the clamping setters.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "qnvutil/timecode.h"

namespace {

CQNVPos posOf(const CQNVTransTC& tc) {
    CQNVPos p;
    tc.GetCPos(p);
    return p;
}

// Repeat counts and frames of `steps` forward steps.
std::vector<std::pair<int32_t, int32_t>> walk(CQNVTransTC& tc, int steps) {
    std::vector<std::pair<int32_t, int32_t>> seen;
    for (int i = 0; i < steps; ++i) {
        int32_t repeat = 0;
        tc.GetTC(repeat);
        seen.emplace_back(repeat, ++tc);
    }
    return seen;
}

using Seen = std::vector<std::pair<int32_t, int32_t>>;

}  // namespace

TEST(TransTC, PlayCountsAtSlowSpeeds) {
    CQNVTransTC tc;
    EXPECT_EQ(tc.GetLSpeed(), 0);
    tc.SetSpeed(CQNVSpeed(65520));
    EXPECT_EQ(walk(tc, 3), (Seen{{1, 1}, {1, 2}, {1, 3}}));

    tc.SetTC(0);
    tc.SetSpeed(CQNVSpeed(32760));  // half speed from the middle of the frame
    EXPECT_EQ(posOf(tc).frac(), 32760);
    EXPECT_EQ(walk(tc, 4), (Seen{{1, 1}, {2, 2}, {2, 3}, {2, 4}}));
    EXPECT_EQ(posOf(tc).frac(), 0);

    tc.SetTC(0);
    tc.SetSpeed(CQNVSpeed(21840));  // one third
    EXPECT_EQ(walk(tc, 4), (Seen{{2, 1}, {3, 2}, {3, 3}, {3, 4}}));

    tc.SetTC(10);
    tc.SetSpeed(CQNVSpeed(-32760));  // half speed in reverse
    EXPECT_EQ(walk(tc, 2), (Seen{{2, 9}, {2, 8}}));

    tc.SetTC(10);
    tc.SetSpeed(CQNVSpeed(0));
    short repeat = 0;
    EXPECT_EQ(tc.GetTC(repeat), 10);
    EXPECT_EQ(repeat, 1);
    ++tc;
    ++tc;
    EXPECT_EQ(tc.GetTC(), 10);
    EXPECT_EQ(tc.GetIndex(), 2);

    tc.SetSpeed(CQNVSpeed(65520));
    EXPECT_EQ(tc += 5, 15);  // five frames, one call
    EXPECT_EQ(tc.GetIndex(), 3);
    EXPECT_EQ(tc -= 2, 13);
    EXPECT_EQ(--tc, 12);
    EXPECT_EQ(tc.GetIndex(), 1);
}

TEST(TransTC, SpeedAssignmentKeepsFractionAndCachedCount) {
    CQNVTransTC2 tc;
    tc.SetSpeed(CQNVSpeed(32760));
    EXPECT_EQ(tc.GetRepeat(), 1u);  // from the middle of the frame
    tc = CQNVSpeed(16380);          // speed only: neither the fraction nor the cache move
    EXPECT_EQ(posOf(tc).frac(), 32760);
    EXPECT_EQ(tc.GetRepeat(), 1u);
    tc.SetSpeedZero(CQNVSpeed(16380));
    EXPECT_EQ(posOf(tc).frac(), 32760);
    EXPECT_EQ(tc.GetRepeat(), 2u);  // recomputed: 32759 / 16380 + 1
    tc.SetSpeedZero(CQNVSpeed(-65520));
    EXPECT_EQ(posOf(tc).frac(), 0);
    tc.SetSpeed(CQNVSpeed(-65519));
    EXPECT_EQ(posOf(tc).frac(), 32760);
    EXPECT_EQ(tc.GetLastPlayCount(), 2);

    CQNVTransTC2 copy;
    copy = tc;
    EXPECT_EQ(copy.GetLSpeed(), -65519);
    EXPECT_EQ(copy.GetLastPlayCount(), 2);
}

TEST(TransTC, RangeWrapUsesUnsignedRemainder) {
    CQNVTransTC2 tc;
    tc.SetRange(100, 50);
    EXPECT_EQ(tc.GetIn(), 50);
    EXPECT_EQ(tc.GetOut(), 100);
    EXPECT_EQ(tc.GetDur(), 50u);
    EXPECT_EQ(tc = 120, 70);
    tc.SetTC(-1);  // -1 + 50 = 49, then (49 - 50) as 4294967295 mod 50 = 45
    EXPECT_EQ(tc.GetTC(), 95);
    tc.SetTC(49);
    EXPECT_EQ(tc.GetTC(), 95);
    tc.SetTC(-100);  // not corrected first: 4294967146 mod 50 = 46
    EXPECT_EQ(tc.GetTC(), 96);
    tc.SetTC(INT32_MIN);
    EXPECT_EQ(tc.GetTC(), 98);
    EXPECT_EQ(tc.GetClipTC(), 48u);

    tc.SetTC(99);
    tc.SetSpeed(CQNVSpeed(65520));
    EXPECT_EQ(++tc, 50);
    EXPECT_EQ(--tc, 95);  // 49 wraps through the unsigned remainder as well
    tc = CQNVPos(CQNVSpeed(-32760));  // -0.5 frame: -1 + 50 = 49, then the same
    EXPECT_EQ(tc.GetTC(), 95);
    EXPECT_EQ(posOf(tc).frac(), 32760);
    tc.SetRange(0, 50);  // from a range starting at 0 small negatives wrap to the end
    tc.SetTC(-1);
    EXPECT_EQ(tc.GetTC(), 49);

    tc.SetRange(10, -1);  // open range
    EXPECT_EQ(tc.GetIn(), 10);
    EXPECT_EQ(tc.GetOut(), -1);
    EXPECT_EQ(tc.GetDur(), 0xFFFFFFF5u);
    tc.SetTC(5);  // 0xFFFFFFFB mod 0xFFFFFFF5 = 6
    EXPECT_EQ(tc.GetTC(), 16);
}

TEST(TransTC, ClipAccessAndClampingSetters) {
    CQNVTransTC2 tc;
    tc.SetRange(50, 100);
    EXPECT_EQ(tc.In(), 50u);
    EXPECT_EQ(tc.Out(), 100u);
    tc.SetClipTC(7);
    EXPECT_EQ(tc.GetTC(), 57);
    tc.SetClipTCLimit(1000);
    EXPECT_EQ(tc.GetTC(), 99);
    tc.SetClipTCLimit(-10);  // no lower clamp: 40 wraps to 86
    EXPECT_EQ(tc.GetTC(), 86);

    tc.SetSpeed(CQNVSpeed(32760));
    ++tc;
    ++tc;
    EXPECT_EQ(tc.GetRepeat(), 2u);
    tc.SetTCLimit(10);  // clamped to 50; index and cached count stay
    EXPECT_EQ(tc.GetTC(), 50);
    EXPECT_EQ(posOf(tc).frac(), 0);
    EXPECT_EQ(tc.GetIndex(), 2u);
    EXPECT_EQ(tc.GetRepeat(), 2u);
    tc.SetTCLimit(100);
    EXPECT_EQ(tc.GetTC(), 99);
    tc.SetTCLimit(-1000);
    EXPECT_EQ(tc.GetTC(), 50);
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

namespace {

// The counter's rules written out over one fixed-point number.
struct Model {
    int32_t in = 0, out = 0;
    uint32_t dur = 0;
    int64_t x = 0;  // whole * 65520 + frac
    int32_t speed = 0, index = 0, last = 1;
    bool stale = true;

    int64_t whole() const { return x >= 0 ? x / 65520 : -((-x + 65519) / 65520); }
    int32_t frac() const { return int32_t(x - whole() * 65520); }
    int32_t count() {
        if (!stale) return last;
        if (speed == 0 || std::abs(speed) >= 65520) return 1;
        int32_t remaining = speed < 0 ? frac() : 65519 - frac();
        last = remaining / std::abs(speed) + 1;
        stale = false;
        return last;
    }
    void wrap() {
        if (dur == 0) return;
        int64_t p = whole();
        if (p > -100 && p < 0) p += dur;
        uint32_t offset = uint32_t(p - in) % dur;
        x = int64_t(int32_t(uint32_t(in) + offset)) * 65520 + frac();
        stale = true;
    }
    void step(int32_t n, int dir) {
        // The step is a 32-bit product: a large cached count times a fast
        // speed wraps.
        x += dir * int64_t(int32_t(uint32_t(int64_t(count()) * speed * n)));
        wrap();
        index += dir;
        stale = true;
    }
};

}  // namespace

TEST(TransTC, MatchesModelOverRandomSpeedsAndRanges) {
    std::mt19937 rng(2024);
    auto pick = [&](int32_t lo, int32_t hi) { return std::uniform_int_distribution<int32_t>(lo, hi)(rng); };
    for (int trial = 0; trial < 3000; ++trial) {
        CQNVTransTC tc;
        Model m;
        if (trial % 4 != 0) {
            int32_t a = pick(-500, 500), b = trial % 9 == 0 ? -1 : pick(-500, 500);
            tc.SetRange(a, b);
            m.in = (b == -1 || a < b) ? a : b;
            m.out = (b == -1 || a < b) ? b : a;
            m.dur = uint32_t(m.out) - uint32_t(m.in);
        }
        for (int op = 0; op < 200; ++op) {
            switch (pick(0, 9)) {
            case 0: {
                // Mostly slow speeds, some fast, reverse and still.
                int32_t s = pick(0, 3) == 0 ? pick(-200000, 200000) : pick(-65520, 65520) / pick(1, 40);
                tc.SetSpeed(CQNVSpeed(s));
                m.speed = s;
                m.stale = true;
                m.x = m.whole() * 65520 + ((s == 65520 || s == -65520) ? 0 : 32760);
                break;
            }
            case 1: {
                int32_t s = pick(-70000, 70000);
                tc = CQNVSpeed(s);
                m.speed = s;
                break;
            }
            case 2: {
                int32_t t = pick(-700, 700);
                tc.SetTC(t);
                m.x = int64_t(t) * 65520;
                m.index = 0;
                m.wrap();
                m.stale = true;
                break;
            }
            case 3: {
                int32_t n = pick(1, 4);
                tc += n;
                m.step(n, 1);
                break;
            }
            case 4: {
                int32_t n = pick(1, 4);
                tc -= n;
                m.step(n, -1);
                break;
            }
            case 5: case 6: ++tc; m.step(1, 1); break;
            case 7: --tc; m.step(1, -1); break;
            default: {
                int32_t repeat = 0;
                tc.GetTC(repeat);
                ASSERT_EQ(repeat, m.count()) << "trial " << trial << " op " << op;
            }
            }
            ASSERT_EQ(tc.GetTC(), m.whole()) << "trial " << trial << " op " << op;
            ASSERT_EQ(posOf(tc).frac(), m.frac()) << "trial " << trial << " op " << op;
            ASSERT_EQ(tc.GetIndex(), m.index);
        }
    }
}
