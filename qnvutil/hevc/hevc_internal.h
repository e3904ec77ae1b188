// Internal entry points of the HEVC family: writers with an explicit
// capacity and an optional field sink (qnvtool and the tests list records
// through them).
#ifndef QNVUTIL_QNVUTIL_HEVC_HEVC_INTERNAL_H
#define QNVUTIL_QNVUTIL_HEVC_HEVC_INTERNAL_H

#include <cstdint>
#include <string>

#include "qnvutil/hevc.h"
#include "qnvutil/hevc/hevc_syntax.h"

namespace qnv::hevc {

// Each writes one NAL unit (no start code) at dst and returns its length, or
// 0 when it would not fit in `capacity` bytes (nothing is written then).
uint32_t writeVps(const HevcVpsRecord& record, uint8_t* dst, uint32_t capacity, FieldSink* sink = nullptr);
uint32_t writeSps(const HevcSpsRecord& record, uint8_t* dst, uint32_t capacity, FieldSink* sink = nullptr);
uint32_t writePps(const HevcPpsRecord& record, uint8_t* dst, uint32_t capacity, FieldSink* sink = nullptr);

// Parses one VPS, SPS or PPS unit (NAL header first, escapes included) with
// the reading coder and hands every element to `sink`, with bit positions
// counted from the NAL header of the unescaped unit. Returns the unit's
// nal_unit_type, or 0 when it is not a parameter set.
uint32_t listParameterSet(const uint8_t* unit, uint32_t size, FieldSink& sink);

// The profile's name (range-extension profiles told apart by their
// constraint flags) and the level as "5.1".
const char* profileName(const HevcProfileTierLevel& ptl);
std::string levelName(uint32_t levelIdc);

}  // namespace qnv::hevc

#endif
