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

}  // namespace qnv

#endif
