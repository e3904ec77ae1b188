// The video codecs of the subcommands that change a stream frame by frame.
#ifndef QNVTOOL_ACCESS_UNITS_H
#define QNVTOOL_ACCESS_UNITS_H

#include <cstdint>
#include <string>
#include <vector>

namespace qnvtool {

enum class VideoCodec { kH264, kHevc, kMpeg2 };

// Bytes at the head of a stream that codec detection looks at.
inline constexpr size_t kDetectBytes = size_t(256) << 10;

// The codec named by `name` ("h264", "hevc", "mpeg2"), or, when `name` is
// empty, the one detected from the stream's first bytes. Throws Error for
// a stream that is none of them.
VideoCodec resolveCodec(const std::vector<uint8_t>& head, const std::string& name, const std::string& file);
const char* videoCodecName(VideoCodec codec);

}  // namespace qnvtool

#endif
