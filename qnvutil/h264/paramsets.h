// Internal side of the H.264 parameter set readers and writers: the same
// parse and serialisation with a field sink, for tools that describe a
// stream and tests that compare element positions.
#ifndef QNVUTIL_QNVUTIL_H264_PARAMSETS_H
#define QNVUTIL_QNVUTIL_H264_PARAMSETS_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/h264.h"

namespace qnv {

// qnvutilRead_SPS, qnvutilRead_PPS, qnvutilWrite_SPS and qnvutilWrite_PPS
// with an optional sink (bit positions from the NAL header).
uint32_t readH264Sps(BitBuffer* bb, H264SpsRecord* sps, syntax::FieldSink* sink);
uint32_t readH264Pps(BitBuffer* bb, H264PpsRecord* pps, syntax::FieldSink* sink);
uint32_t writeH264Sps(const H264SpsRecord* sps, uint8_t* dst, syntax::FieldSink* sink);
uint32_t writeH264Pps(const H264PpsRecord* pps, uint8_t* dst, syntax::FieldSink* sink);

}  // namespace qnv

#endif
