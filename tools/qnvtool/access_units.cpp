#include "tools/qnvtool/access_units.h"

#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {

bool isMpeg2(const std::vector<uint8_t>& data) {
    // A sequence header (00 00 01 B3) after optional zero bytes, or after
    // user data blocks (00 00 01 B2 ..., as the caption insertion puts them
    // in front of it).
    size_t zeros = 0;
    while (zeros < data.size() && data[zeros] == 0) ++zeros;
    if (zeros < 2 || zeros + 1 >= data.size() || data[zeros] != 1) return false;
    size_t code = zeros + 1;
    while (data[code] == 0xB2) {
        size_t next = code + 1;
        // guard: the next start code's value byte lies inside the head
        while (next + 3 < data.size() && !(data[next] == 0 && data[next + 1] == 0 && data[next + 2] == 1)) ++next;
        if (next + 3 >= data.size()) return false;
        code = next + 3;
    }
    return data[code] == 0xB3;
}

}  // namespace

VideoCodec resolveCodec(const std::vector<uint8_t>& data, const std::string& name, const std::string& file) {
    if (name == "h264") return VideoCodec::kH264;
    if (name == "hevc") return VideoCodec::kHevc;
    if (name == "mpeg2") return VideoCodec::kMpeg2;
    if (isMpeg2(data)) return VideoCodec::kMpeg2;
    if (!startsWithStartCode(data)) throw Error(file + ": not an elementary stream (no start code at the beginning)");
    switch (detectCodec(data, listUnits(data))) {
        case Codec::kH264: return VideoCodec::kH264;
        case Codec::kHevc: return VideoCodec::kHevc;
        default: throw Error(file + ": no H.264, HEVC or MPEG-2 video found");
    }
}

const char* videoCodecName(VideoCodec codec) {
    switch (codec) {
        case VideoCodec::kH264: return "h264";
        case VideoCodec::kHevc: return "hevc";
        default: return "mpeg2";
    }
}

}  // namespace qnvtool
