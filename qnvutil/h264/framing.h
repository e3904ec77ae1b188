// Internal side of the H.264 framing conversions.
#ifndef QNVUTIL_QNVUTIL_H264_FRAMING_H
#define QNVUTIL_QNVUTIL_H264_FRAMING_H

#include <cstdint>

#include "foundation/nalscan/nalscan.h"

namespace qnv {

// Annex B to length prefixes for a frame of 4 bytes or more on the given
// instruction set, which must be available (the public functions take the
// widest the processor has). 0xFFFFFFFF, frame unchanged, when the result
// would pass `capacity`.
uint32_t h264ConvertWith(ScanVariant v, uint8_t* data, uint32_t size, uint64_t capacity);

}  // namespace qnv

#endif
