// Timecode types read from command parameter text.
#ifndef QNVUTIL_VIDFORMAT_TCTYPE_H
#define QNVUTIL_VIDFORMAT_TCTYPE_H

#include <cstdint>

namespace qnv {

// The timecode type named in parameter text such as "x TcType='film'":
// the key is searched as "TcType=", then "tctype=", then "TCTYPE="; the
// character after '=' (the opening quote) is skipped whatever it is, and the
// value's beginning is matched, without regard to case, against "frames" 0,
// "23.98" 132, "film-drop" 128, "film" 1, "pal" 8, "drop-frame" 4,
// "non-drop-frame" 4, "50" 16, "59.94" 32, "60" 64, the first match
// deciding. 0 for null text, a missing key or an unknown value.
uint32_t TcTypeFromText(const char* text);

// The parameter texts of the timecode types, in TcTypeFromText's order.
struct TcTypeKeyword {
    const char* word;
    uint32_t type;
};
extern const TcTypeKeyword kTcTypeKeywords[10];

// The first parameter text of `type` ("drop-frame" for 4); null for type 2
// and for codes that are not timecode types.
const char* TcTypeName(uint32_t type);

}  // namespace qnv

#endif
