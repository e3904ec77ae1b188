// Internal side of the H.264 framing conversions.
#ifndef QNVUTIL_QNVUTIL_H264_FRAMING_H
#define QNVUTIL_QNVUTIL_H264_FRAMING_H

#include <cstdint>

namespace qnv {

// Annex B to length prefixes for a frame of 4 bytes or more with the scan
// that needs no vector extensions beyond the baseline (the public functions
// pick the fastest scan the processor has). 0xFFFFFFFF, frame unchanged, when
// the result would pass `capacity`.
uint32_t h264ConvertGeneric(uint8_t* data, uint32_t size, uint64_t capacity);

}  // namespace qnv

#endif
