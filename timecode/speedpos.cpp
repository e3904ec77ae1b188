// CQNVSpeed and CQNVPos: speeds and positions in 1/65520 steps.
#include <cmath>
#include <cstdlib>

#include "qnvutil/timecode.h"
#include "timecode/fixedpoint.h"

namespace qnv {

bool MulDivRound(int32_t a, int32_t b, int32_t c, int32_t* result) {
    if (c == 0) return false;
    // |a * b| <= 2^62 and |c| <= 2^31: neither the product nor twice the
    // remainder leaves 64 bits.
    const int64_t product = int64_t(a) * int64_t(b);
    int64_t q = product / c;
    const int64_t r = product % c;
    if (2 * std::llabs(r) >= std::llabs(int64_t(c))) q += ((product < 0) != (c < 0)) ? -1 : 1;
    if (q < INT32_MIN || q > INT32_MAX) return false;
    *result = static_cast<int32_t>(q);
    return true;
}

int32_t SplitSteps(int32_t& steps) {
    int32_t carry = steps / kSpeedUnit;
    steps -= carry * kSpeedUnit;
    while (steps < 0) {
        carry -= 1;
        steps += kSpeedUnit;
    }
    return carry;
}

CQNVSpeed SpeedProduct(const CQNVSpeed& a, const CQNVSpeed& b) {
    int32_t v = kSpeedUndefined;
    MulDivRound(a.Get(), b.Get(), kSpeedUnit, &v);
    return CQNVSpeed(v);
}

CQNVSpeed SpeedQuotient(const CQNVSpeed& a, const CQNVSpeed& b) {
    int32_t v = kSpeedUndefined;
    MulDivRound(a.Get(), kSpeedUnit, b.Get(), &v);
    return CQNVSpeed(v);
}

}  // namespace qnv

using qnv::kSpeedUnit;

// ---- CQNVSpeed --------------------------------------------------------------

CQNVSpeed::CQNVSpeed() : value(kSpeedUnit) {}
CQNVSpeed::CQNVSpeed(int32_t v) : value(v) {}
CQNVSpeed::CQNVSpeed(int32_t num, int32_t den) : value(0) { Set(num, den); }

void CQNVSpeed::Set(int32_t v) { value = v; }

void CQNVSpeed::Set(int32_t num, int32_t den) {
    // guard: a quotient beyond 32 bits has no value; it is undefined like a
    // zero denominator.
    if (!qnv::MulDivRound(kSpeedUnit, num, den, &value)) value = qnv::kSpeedUndefined;
}

int32_t CQNVSpeed::Get() const { return value; }
int32_t CQNVSpeed::Whole() const { return value / kSpeedUnit; }
int32_t CQNVSpeed::Frac() const { return value - Whole() * kSpeedUnit; }

int32_t CQNVSpeed::Abs() const {
    // -2^31 has no positive counterpart and stays as it is.
    return value < 0 ? qnv::wrapSub(0, value) : value;
}

double CQNVSpeed::Double() { return value / 65520.0; }

CQNVSpeed& CQNVSpeed::operator=(const double& d) {
    const double steps = std::trunc(d * 65520.0);
    // guard: NaN and values outside 32 bits cannot be converted; they give
    // the undefined speed.
    if (!(steps >= -2147483648.0 && steps <= 2147483647.0)) {
        value = qnv::kSpeedUndefined;
    } else {
        value = static_cast<int32_t>(steps);
    }
    return *this;
}

CQNVSpeed& CQNVSpeed::operator=(const CQNVSpeed& other) {
    if (this != &other) value = other.value;
    return *this;
}

int32_t CQNVSpeed::Fractionalize() { return qnv::SplitSteps(value); }

// ---- CQNVPos ----------------------------------------------------------------

CQNVPos::CQNVPos() : whole(0), fraction(0) {}
CQNVPos::CQNVPos(int32_t w, int32_t f) : whole(0), fraction(0) { Set(w, f); }
CQNVPos::CQNVPos(const CQNVSpeed& s) : whole(0), fraction(0) { Set(s); }

void CQNVPos::Normalize() { whole = qnv::wrapAdd(whole, qnv::SplitSteps(fraction)); }

CQNVPos& CQNVPos::Set(int32_t w, int32_t f) {
    whole = w;
    fraction = f;
    Normalize();
    return *this;
}

CQNVPos& CQNVPos::Set(const CQNVSpeed& s) {
    whole = 0;
    fraction = s.Get();
    Normalize();
    return *this;
}

CQNVPos& CQNVPos::SetAsFrac(int32_t num, int32_t den) {
    // guard: a zero denominator has no quotient; the position is kept.
    if (den == 0) return *this;
    // guard: -2^31 / -1 does not fit; it wraps to -2^31 with no remainder.
    if (den == -1) return Set(qnv::wrapSub(0, num), 0);
    whole = num / den;
    const int32_t rest = num % den;
    // guard: 32 bits hold rest * 65520 only while |den| <= 32776; the
    // product is formed in 64 bits so larger denominators stay exact (the
    // quotient is below 65520 in magnitude either way).
    fraction = static_cast<int32_t>(int64_t(rest) * kSpeedUnit / den);
    Normalize();
    return *this;
}

CQNVPos& CQNVPos::operator=(const CQNVPos& other) {
    if (this != &other) Set(other.whole, other.fraction);
    return *this;
}

CQNVPos& CQNVPos::operator=(const CQNVSpeed& s) { return Set(s); }

int32_t CQNVPos::floor() const { return whole; }
int32_t CQNVPos::frac() const { return fraction; }
int32_t CQNVPos::fracbar() const { return 65519 - fraction; }

int32_t CQNVPos::ceil() const {
    // A normalised fraction is never negative; the branch covers the general
    // form of the rule.
    if (fraction > 0) return qnv::wrapAdd(whole, 1);
    if (fraction < 0) return qnv::wrapSub(whole, 1);
    return whole;
}

bool CQNVPos::IsNeg() const { return whole < 0 || fraction < 0; }
bool CQNVPos::IsPlus() const { return whole > 0 || fraction > 0; }
bool CQNVPos::IsZero() const { return whole == 0 && fraction == 0; }
