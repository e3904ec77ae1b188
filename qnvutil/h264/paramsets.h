// Internal side of the H.264 parameter set readers: the same parse with a
// trace of every syntax element stored, for tools that describe a stream.
#ifndef QNVUTIL_QNVUTIL_H264_PARAMSETS_H
#define QNVUTIL_QNVUTIL_H264_PARAMSETS_H

#include <cstdint>

#include "qnvutil/h264.h"

namespace qnv {

// Receives each syntax element as the reader stores it in the record, in
// stream order. Defaults that the reader writes without reading are not
// traced.
class H264SyntaxTrace {
public:
    // name[i][j] = value; i and j are -1 where the element has no index.
    virtual void element(const char* name, int32_t i, int32_t j, int32_t value) = 0;
    // A nested structure: vui_parameters, nal_hrd_parameters, vcl_hrd_parameters.
    virtual void open(const char* structure) = 0;
    virtual void close() = 0;

protected:
    ~H264SyntaxTrace() = default;
};

// qnvutilRead_SPS and qnvutilRead_PPS with an optional trace.
uint32_t readH264Sps(BitBuffer* bb, H264SpsRecord* sps, H264SyntaxTrace* trace);
uint32_t readH264Pps(BitBuffer* bb, H264PpsRecord* pps, H264SyntaxTrace* trace);

// Profiles whose SPS carries the chroma format and bit-depth block.
bool h264HasChromaBlock(int32_t profile_idc);

}  // namespace qnv

#endif
