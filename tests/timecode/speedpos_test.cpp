// Speeds and positions at the 65520 scale: rounding, normalisation, wraps.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <tuple>
#include <utility>

#include "qnvutil/timecode.h"
#include "timecode/fixedpoint.h"

namespace {
constexpr int32_t kUndefined = 0x7FFFFFFF;
std::pair<int32_t, int32_t> wf(const CQNVPos& p) { return {p.floor(), p.frac()}; }
}  // namespace

TEST(Speed, RatiosRoundHalvesAwayFromZero) {
    EXPECT_EQ(CQNVSpeed().Get(), 65520);
    // 65520 / 32 = 2047.5: halves go away from zero in every sign combination.
    const struct { int32_t num, den, want; } rows[] = {
        {1, 2, 32760}, {-1, 3, -21840}, {5, 0, kUndefined}, {1, 32, 2048}, {-1, 32, -2048}, {1, -32, -2048},
        {-1, -32, 2048}, {1, 11, 5956}, {-2, 11, -11913}, {32776, 1, 2147483520},  // 65520 * 32776 still fits
        {32777, 1, kUndefined}, {INT32_MIN, -1, kUndefined}};
    for (const auto& r : rows) EXPECT_EQ(CQNVSpeed(r.num, r.den).Get(), r.want) << r.num << "/" << r.den;

    // Against the exact rational: the error is at most half a step, and a
    // tie goes away from zero.
    std::mt19937 rng(7);
    for (int i = 0; i < 20000; ++i) {
        const int32_t num = int32_t(rng()) >> (rng() % 31), den = int32_t(rng()) >> (rng() % 31);
        const double ideal = 65520.0 * num / den;
        if (den == 0 || std::fabs(ideal) > 2147483000.0) continue;
        const int32_t v = CQNVSpeed(num, den).Get();
        const int64_t err2 = 2 * int64_t(v) * den - 2 * int64_t(65520) * num;  // 2 * (v - ideal) * den
        ASSERT_LE(std::llabs(err2), std::llabs(int64_t(den))) << num << "/" << den;
        ASSERT_TRUE(std::llabs(err2) < std::llabs(int64_t(den)) || std::fabs(double(v)) > std::fabs(ideal));
    }
}

TEST(Speed, SplitsAndConversions) {
    CQNVSpeed s(-70000);
    EXPECT_EQ(std::tuple(s.Whole(), s.Frac(), s.Abs()), std::tuple(-1, -4480, 70000));  // truncated, signed rest
    EXPECT_EQ(s.Fractionalize(), -2);  // floored, non-negative rest
    EXPECT_EQ(s.Get(), 61040);
    EXPECT_EQ(CQNVSpeed(INT32_MIN).Abs(), INT32_MIN);
    EXPECT_EQ(CQNVSpeed(98280).Double(), 1.5);

    const std::pair<double, int32_t> doubles[] = {
        {0.5, 32760}, {-0.99999, -65519}, {std::numeric_limits<double>::quiet_NaN(), kUndefined},
        {-1e12, kUndefined}, {-32776.0, -2147483520}, {32777.0, kUndefined}};
    for (auto [d, want] : doubles) EXPECT_EQ((s = d).Get(), want) << d;
}

TEST(Speed, ProductAndQuotientRoundLikeRatios) {
    EXPECT_EQ(qnv::SpeedProduct(CQNVSpeed(32760), CQNVSpeed(32760)).Get(), 16380);
    EXPECT_EQ(qnv::SpeedProduct(CQNVSpeed(3), CQNVSpeed(-32760)).Get(), -2);  // -1.5 away from zero
    EXPECT_EQ(qnv::SpeedQuotient(CQNVSpeed(65520), CQNVSpeed(-196560)).Get(), -21840);
    EXPECT_EQ(qnv::SpeedQuotient(CQNVSpeed(1), CQNVSpeed(0)).Get(), kUndefined);
    EXPECT_EQ(qnv::SpeedQuotient(CQNVSpeed(INT32_MAX), CQNVSpeed(1)).Get(), kUndefined);
}

TEST(Position, NormalisesToANonNegativeFraction) {
    const struct { int32_t a, b, whole, frac; } set[] = {
        {3, -1, 2, 65519}, {0, 65520, 1, 0}, {0, -65520, -1, 0}, {5, -200000, 1, 62080},
        {INT32_MAX, 65520, INT32_MIN, 0}};  // wraps
    for (const auto& r : set) EXPECT_EQ(wf(CQNVPos(r.a, r.b)), std::pair(r.whole, r.frac)) << r.a << "," << r.b;
    // Beyond |den| = 32776 the fraction stays exact instead of overflowing.
    const struct { int32_t a, b, whole, frac; } ratios[] = {
        {7, 2, 3, 32760}, {-7, 2, -4, 32760}, {7, -2, -4, 32760}, {1, 32776, 0, 1}, {32775, 32776, 0, 65518},
        {39999, 40000, 0, 65518}, {-39999, 40000, -1, 2}, {INT32_MIN, -1, INT32_MIN, 0}};
    CQNVPos p;
    for (const auto& r : ratios) EXPECT_EQ(wf(p.SetAsFrac(r.a, r.b)), std::pair(r.whole, r.frac)) << r.a << "/" << r.b;
    EXPECT_EQ(wf(p.SetAsFrac(9, 0)), std::pair(INT32_MIN, 0));  // refused: unchanged

    p.Set(5, 0);  // from a speed, the previous whole is replaced
    EXPECT_EQ(wf(p.Set(CQNVSpeed(98280))), std::pair(1, 32760));
    EXPECT_EQ(wf(p = CQNVSpeed(-70000)), std::pair(-2, 61040));
}

TEST(Position, Predicates) {
    // fracbar is one short of the complement, as kept; a negative whole with a
    // fraction is both negative and positive.
    const struct { int32_t whole, frac, fracbar, ceil; bool neg, plus, zero; } rows[] = {
        {4, 0, 65519, 4, false, true, false},       {4, 100, 65419, 5, false, true, false},
        {-1, 32760, 32759, 0, true, true, false},   {INT32_MAX, 1, 65518, INT32_MIN, false, true, false},
        {0, 1, 65518, 1, false, true, false},       {-1, 0, 65519, -1, true, false, false},
        {0, 0, 65519, 0, false, false, true},       {-1, 65520, 65519, 0, false, false, true}};
    for (const auto& r : rows) {
        const CQNVPos p(r.whole, r.frac);
        EXPECT_EQ(std::tuple(p.fracbar(), p.ceil(), p.IsNeg(), p.IsPlus(), p.IsZero()),
                  std::tuple(r.fracbar, r.ceil, r.neg, r.plus, r.zero)) << r.whole << "," << r.frac;
    }
}
