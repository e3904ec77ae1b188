// Fixed-point helpers behind the speed, position and transport classes.
#ifndef QNVUTIL_TIMECODE_FIXEDPOINT_H
#define QNVUTIL_TIMECODE_FIXEDPOINT_H

#include <cstdint>

#include "qnvutil/timecode.h"

namespace qnv {

// Steps per frame and per normal play speed.
inline constexpr int32_t kSpeedUnit = 65520;
// The speed that a zero denominator produces.
inline constexpr int32_t kSpeedUndefined = 0x7FFFFFFF;

// 32-bit two's-complement arithmetic without signed overflow.
inline int32_t wrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrapSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
inline int32_t wrapMul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// a * b / c through a 64-bit product, rounded to nearest with halves away
// from zero. False (result untouched) when c is 0 or the quotient does not
// fit 32 bits.
bool MulDivRound(int32_t a, int32_t b, int32_t c, int32_t* result);

// Brings `steps` to 0..65519 and returns the whole frames taken out
// (floored), so that steps_before = carry * 65520 + steps_after.
int32_t SplitSteps(int32_t& steps);

// a * b / 65520 and a * 65520 / b, rounded as MulDivRound; the undefined
// speed when the result does not exist or does not fit.
CQNVSpeed SpeedProduct(const CQNVSpeed& a, const CQNVSpeed& b);
CQNVSpeed SpeedQuotient(const CQNVSpeed& a, const CQNVSpeed& b);

}  // namespace qnv

#endif
