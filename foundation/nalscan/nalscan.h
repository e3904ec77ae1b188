// Annex B NAL unit scanner used by the HEVC-facing walks over a frame.
//
// It keeps the shape of a general bitstream reader (a context per walk, a
// start-code search, a per-unit parse) with two differences the callers rely
// on: find_nal_unit reports the last unit of a buffer like any other, and
// read_nal_unit reads the two-byte HEVC NAL unit header.
//
// These names are internal to libqnvutil.so and never exported, so they
// cannot clash with another bitstream library loaded in the same process.
#ifndef QNVUTIL_FOUNDATION_NALSCAN_H
#define QNVUTIL_FOUNDATION_NALSCAN_H

#include <cstdint>

namespace qnv {

struct nal_header_t {
    int32_t forbidden_zero_bit;
    int32_t nal_unit_type;  // HEVC type, 0..63
    int32_t nuh_layer_id;
    int32_t nuh_temporal_id;  // coded value minus 1
};

// Parsing context of one walk. Only the NAL header is kept: no caller uses
// parameter sets, slice headers or SEI messages from it.
struct h264_stream_t {
    nal_header_t nal;
};

// A zeroed context, or null when memory is short.
h264_stream_t* h264_new();
void h264_free(h264_stream_t* h);

// Finds the next NAL unit in buf[0, size):
//  - size < 4: the whole buffer is one unit (start 0, end size), result size;
//  - no 00 00 01 start code: result 0;
//  - otherwise *nal_start follows the start code, *nal_end is the first
//    following 00 00 00 or 00 00 01 (or size), result *nal_end - *nal_start.
// A start code cut off by the end of the buffer is not recognised.
int32_t find_nal_unit(const uint8_t* buf, uint32_t size, int32_t* nal_start, int32_t* nal_end);

// Reads the two-byte HEVC header of the unit at `unit` (no start code) into
// h->nal; bytes missing from a unit shorter than 2 read as 0. Returns size.
int32_t read_nal_unit(h264_stream_t* h, const uint8_t* unit, uint32_t size);

}  // namespace qnv

#endif
