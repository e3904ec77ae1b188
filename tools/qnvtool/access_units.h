// Access units of H.264, HEVC and MPEG-2 video elementary streams, for the
// subcommands that change a stream frame by frame.
#ifndef QNVTOOL_ACCESS_UNITS_H
#define QNVTOOL_ACCESS_UNITS_H

#include <cstdint>
#include <string>
#include <vector>

namespace qnvtool {

enum class VideoCodec { kH264, kHevc, kMpeg2 };

// One coded picture with the headers in front of it: data[offset, offset + size).
struct AccessUnit {
    uint32_t offset;
    uint32_t size;
};

// The codec named by `name` ("h264", "hevc", "mpeg2"), or, when `name` is
// empty, the one detected from the stream. Throws Error for a stream that is
// none of them.
VideoCodec resolveCodec(const std::vector<uint8_t>& data, const std::string& name, const std::string& file);
const char* videoCodecName(VideoCodec codec);

// Splits a stream into access units in stream order. A unit begins at the
// first header (delimiter, parameter set, SEI; MPEG-2 sequence, GOP or
// picture header) or first slice of a picture that follows the previous
// picture's slices. Bytes before the first unit belong to the first one.
std::vector<AccessUnit> splitAccessUnits(const std::vector<uint8_t>& data, VideoCodec codec);

}  // namespace qnvtool

#endif
