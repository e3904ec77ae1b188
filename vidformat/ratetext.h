// Frame rates written as text.
#ifndef QNVUTIL_VIDFORMAT_RATETEXT_H
#define QNVUTIL_VIDFORMAT_RATETEXT_H

#include <cstdint>

namespace qnv {

// Reads "30000/1001", "25" (scale 1) or "29.97" (2997/100) into a rate/scale
// pair as written, without normalising it. False (outputs untouched) for
// anything else, for a zero rate or scale and for values beyond 32 bits.
bool RateFromText(const char* text, uint32_t* rate, uint32_t* scale);

}  // namespace qnv

#endif
