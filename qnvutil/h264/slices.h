// Internal side of the H.264 slice header functions: the same operations
// with a field sink, for tools that list slice headers.
#ifndef QNVUTIL_QNVUTIL_H264_SLICES_H
#define QNVUTIL_QNVUTIL_H264_SLICES_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/h264.h"

namespace qnv {

constexpr uint32_t kSliceFailed = 0xFFFFFFFFu;
constexpr uint32_t kSliceNoRoom = static_cast<uint32_t>(-102);

uint32_t readSliceHeader(BitBuffer* bb, const H264SpsRecord* sps, const H264PpsRecord* pps, H264SliceHeader* slice,
                         syntax::FieldSink* sink);
uint32_t writeSliceHeader(const H264SliceHeader* slice, const H264SpsRecord* sps, const H264PpsRecord* pps,
                          BitBuffer* out, syntax::FieldSink* sink);
uint32_t fixSliceHeader(const uint8_t* unit, uint32_t unitSize, const H264SliceHeader* slice, const H264SpsRecord* sps,
                        const H264PpsRecord* pps, const H264SpsRecord* oldSps, const H264PpsRecord* oldPps,
                        uint8_t* dst, uint32_t capacity);

}  // namespace qnv

#endif
