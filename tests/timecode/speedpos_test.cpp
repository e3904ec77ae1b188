// Speeds and positions at the 65520 scale: rounding, normalisation, wraps.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "qnvutil/timecode.h"
#include "timecode/fixedpoint.h"

namespace {
constexpr int32_t kUndefined = 0x7FFFFFFF;

::testing::AssertionResult IsPos(const CQNVPos& p, int32_t whole, int32_t frac) {
    if (p.floor() == whole && p.frac() == frac) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "(" << p.floor() << ", " << p.frac() << ") instead of (" << whole
                                         << ", " << frac << ")";
}
}  // namespace

TEST(Speed, RatiosRoundHalvesAwayFromZero) {
    EXPECT_EQ(CQNVSpeed().Get(), 65520);
    EXPECT_EQ(CQNVSpeed(1, 2).Get(), 32760);
    EXPECT_EQ(CQNVSpeed(-1, 3).Get(), -21840);
    EXPECT_EQ(CQNVSpeed(2, 3).Get(), 43680);
    EXPECT_EQ(CQNVSpeed(5, 0).Get(), kUndefined);
    // 65520 / 32 = 2047.5: halves go away from zero in every sign combination.
    EXPECT_EQ(CQNVSpeed(1, 32).Get(), 2048);
    EXPECT_EQ(CQNVSpeed(-1, 32).Get(), -2048);
    EXPECT_EQ(CQNVSpeed(1, -32).Get(), -2048);
    EXPECT_EQ(CQNVSpeed(-1, -32).Get(), 2048);
    EXPECT_EQ(CQNVSpeed(1, 11).Get(), 5956);   // 5956.36
    EXPECT_EQ(CQNVSpeed(-2, 11).Get(), -11913);  // -11912.7
    EXPECT_EQ(CQNVSpeed(32776, 1).Get(), 2147483520);  // 65520 * 32776 still fits
    EXPECT_EQ(CQNVSpeed(32777, 1).Get(), kUndefined);
    EXPECT_EQ(CQNVSpeed(INT32_MIN, -1).Get(), kUndefined);

    // Against the exact rational: the error is at most half a step, and a
    // tie goes away from zero.
    std::mt19937 rng(7);
    for (int i = 0; i < 20000; ++i) {
        int32_t num = int32_t(rng()) >> (rng() % 31);
        int32_t den = int32_t(rng()) >> (rng() % 31);
        if (den == 0) continue;
        const int64_t exact2 = 2 * int64_t(65520) * num;  // twice the numerator
        const int32_t v = CQNVSpeed(num, den).Get();
        const double ideal = 65520.0 * num / den;
        if (std::fabs(ideal) > 2147483000.0) continue;
        const int64_t err2 = 2 * int64_t(v) * den - exact2;  // 2 * (v - ideal) * den
        ASSERT_LE(std::llabs(err2), std::llabs(int64_t(den))) << num << "/" << den;
        if (std::llabs(err2) == std::llabs(int64_t(den))) {
            ASSERT_GT(std::fabs(double(v)), std::fabs(ideal)) << num << "/" << den;
        }
    }
}

TEST(Speed, SplitsAndConversions) {
    CQNVSpeed s(-70000);
    EXPECT_EQ(s.Whole(), -1);
    EXPECT_EQ(s.Frac(), -4480);
    EXPECT_EQ(s.Abs(), 70000);
    EXPECT_EQ(s.Fractionalize(), -2);
    EXPECT_EQ(s.Get(), 61040);
    CQNVSpeed t(131040);
    EXPECT_EQ(t.Fractionalize(), 2);
    EXPECT_EQ(t.Get(), 0);
    EXPECT_EQ(CQNVSpeed(INT32_MIN).Abs(), INT32_MIN);

    s = 0.5;
    EXPECT_EQ(s.Get(), 32760);
    s = -0.99999;
    EXPECT_EQ(s.Get(), -65519);
    EXPECT_EQ(CQNVSpeed(98280).Double(), 1.5);
    s = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(s.Get(), kUndefined);
    s = -1e12;
    EXPECT_EQ(s.Get(), kUndefined);
    s = -32776.0;
    EXPECT_EQ(s.Get(), -2147483520);
    s = 32777.0;
    EXPECT_EQ(s.Get(), kUndefined);
}

TEST(Speed, ProductAndQuotientRoundLikeRatios) {
    EXPECT_EQ(qnv::SpeedProduct(CQNVSpeed(32760), CQNVSpeed(32760)).Get(), 16380);
    EXPECT_EQ(qnv::SpeedProduct(CQNVSpeed(3), CQNVSpeed(-32760)).Get(), -2);  // -1.5 away from zero
    EXPECT_EQ(qnv::SpeedQuotient(CQNVSpeed(65520), CQNVSpeed(-196560)).Get(), -21840);
    EXPECT_EQ(qnv::SpeedQuotient(CQNVSpeed(1), CQNVSpeed(0)).Get(), kUndefined);
    EXPECT_EQ(qnv::SpeedQuotient(CQNVSpeed(INT32_MAX), CQNVSpeed(1)).Get(), kUndefined);
}

TEST(Position, NormalisesToANonNegativeFraction) {
    CQNVPos p;
    EXPECT_TRUE(IsPos(p, 0, 0));
    EXPECT_TRUE(IsPos(p.Set(3, -1), 2, 65519));
    EXPECT_TRUE(IsPos(p.Set(0, 65520), 1, 0));
    EXPECT_TRUE(IsPos(p.Set(0, -65520), -1, 0));
    EXPECT_TRUE(IsPos(p.Set(5, -200000), 1, 62080));
    EXPECT_TRUE(IsPos(p.Set(INT32_MAX, 65520), INT32_MIN, 0));  // wraps
    EXPECT_TRUE(IsPos(p.SetAsFrac(7, 2), 3, 32760));
    EXPECT_TRUE(IsPos(p.SetAsFrac(-7, 2), -4, 32760));
    EXPECT_TRUE(IsPos(p.SetAsFrac(7, -2), -4, 32760));
    EXPECT_TRUE(IsPos(p.SetAsFrac(1, 32776), 0, 1));
    EXPECT_TRUE(IsPos(p.SetAsFrac(32775, 32776), 0, 65518));
    // Beyond |den| = 32776 the fraction stays exact instead of overflowing.
    EXPECT_TRUE(IsPos(p.SetAsFrac(39999, 40000), 0, 65518));
    EXPECT_TRUE(IsPos(p.SetAsFrac(-39999, 40000), -1, 2));
    EXPECT_TRUE(IsPos(p.SetAsFrac(INT32_MIN, -1), INT32_MIN, 0));
    EXPECT_TRUE(IsPos(p.SetAsFrac(9, 0), INT32_MIN, 0));  // refused: unchanged

    // From a speed, the previous whole is replaced.
    p.Set(5, 0);
    EXPECT_TRUE(IsPos(p.Set(CQNVSpeed(98280)), 1, 32760));
    p.Set(5, 0);
    p = CQNVSpeed(-32760);
    EXPECT_TRUE(IsPos(p, -1, 32760));
    EXPECT_TRUE(IsPos(CQNVPos(CQNVSpeed(-70000)), -2, 61040));
    CQNVPos q(7, 1);
    q = q;
    EXPECT_TRUE(IsPos(q, 7, 1));
}

TEST(Position, Predicates) {
    EXPECT_EQ(CQNVPos(4, 0).fracbar(), 65519);  // one short of the complement, as kept
    EXPECT_EQ(CQNVPos(4, 100).fracbar(), 65419);
    EXPECT_EQ(CQNVPos(2, 1).ceil(), 3);
    EXPECT_EQ(CQNVPos(2, 0).ceil(), 2);
    EXPECT_EQ(CQNVPos(-1, 32760).ceil(), 0);
    EXPECT_EQ(CQNVPos(INT32_MAX, 1).ceil(), INT32_MIN);
    EXPECT_TRUE(CQNVPos(-1, 32760).IsNeg());
    EXPECT_FALSE(CQNVPos(0, 1).IsNeg());
    EXPECT_TRUE(CQNVPos(0, 1).IsPlus());
    EXPECT_TRUE(CQNVPos(-1, 32760).IsPlus());  // a negative whole with a fraction is both
    EXPECT_FALSE(CQNVPos(-1, 0).IsPlus());
    EXPECT_TRUE(CQNVPos(0, 0).IsZero());
    EXPECT_FALSE(CQNVPos(0, 1).IsZero());
    EXPECT_TRUE(CQNVPos(-1, 65520).IsZero());
}
