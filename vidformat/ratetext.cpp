// Frame rates written as text.
#include "vidformat/ratetext.h"

#include <cctype>

namespace qnv {

namespace {

// Decimal digits at `p` into *value; false when there are none or they
// exceed 32 bits. *digits receives how many there were.
bool readDigits(const char*& p, uint64_t* value, uint32_t* digits) {
    *value = 0;
    *digits = 0;
    while (std::isdigit(static_cast<unsigned char>(*p))) {
        *value = *value * 10 + uint64_t(*p - '0');
        if (*value > UINT32_MAX) return false;
        ++*digits;
        ++p;
    }
    return *digits > 0;
}

}  // namespace

bool RateFromText(const char* text, uint32_t* rate, uint32_t* scale) {
    if (!text || !rate || !scale) return false;
    const char* p = text;
    uint64_t r = 0, s = 1;
    uint32_t digits = 0;
    if (!readDigits(p, &r, &digits)) return false;
    if (*p == '/') {
        ++p;
        if (!readDigits(p, &s, &digits)) return false;
    } else if (*p == '.') {
        ++p;
        uint64_t fraction = 0;
        if (!readDigits(p, &fraction, &digits)) return false;
        for (uint32_t i = 0; i < digits; ++i) {
            r *= 10;
            s *= 10;
            if (r > UINT32_MAX || s > UINT32_MAX) return false;
        }
        r += fraction;
        if (r > UINT32_MAX) return false;
    }
    if (*p != '\0' || r == 0 || s == 0) return false;
    *rate = uint32_t(r);
    *scale = uint32_t(s);
    return true;
}

}  // namespace qnv
