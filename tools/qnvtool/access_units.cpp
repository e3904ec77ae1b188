#include "tools/qnvtool/access_units.h"

#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {

bool isMpeg2(const std::vector<uint8_t>& data) {
    // A sequence header (00 00 01 B3) after optional zero bytes.
    size_t zeros = 0;
    while (zeros < data.size() && data[zeros] == 0) ++zeros;
    return zeros >= 2 && zeros + 1 < data.size() && data[zeros] == 1 && data[zeros + 1] == 0xB3;
}

std::vector<AccessUnit> unitsFromStarts(const std::vector<uint32_t>& starts, size_t size) {
    std::vector<AccessUnit> units;
    for (size_t i = 0; i < starts.size(); ++i) {
        uint32_t end = i + 1 < starts.size() ? starts[i + 1] : static_cast<uint32_t>(size);
        units.push_back({starts[i], end - starts[i]});
    }
    return units;
}

// Whether a NAL unit opens a new access unit once the current one holds a
// picture: headers that must precede a picture, or the first slice of one.
namespace nal = qnv::nal;

bool opensH264Unit(const uint8_t* h, uint32_t size) {
    uint32_t type = nal::unitType(nal::Codec::kH264, h[0]);
    if (type == nal::h264::kNonIdrSlice || type == nal::h264::kIdrSlice)
        return size > 1 && (h[1] & 0x80) != 0;  // first_mb_in_slice == 0
    return (type >= nal::h264::kSei && type <= nal::h264::kAud) || (type >= nal::h264::kPrefixNal && type <= 18);
}

bool opensHevcUnit(const uint8_t* h, uint32_t size) {
    uint32_t type = nal::unitType(nal::Codec::kHevc, h[0]);
    if (nal::isVcl(nal::Codec::kHevc, type)) return size > 2 && (h[2] & 0x80) != 0;  // first_slice_segment_in_pic_flag
    return (type >= nal::hevc::kVps && type <= nal::hevc::kAud) || type == nal::hevc::kPrefixSei ||
           (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
}

bool isPicture(VideoCodec codec, const uint8_t* h) {
    const nal::Codec c = codec == VideoCodec::kHevc ? nal::Codec::kHevc : nal::Codec::kH264;
    return nal::isVcl(c, nal::unitType(c, h[0]));
}

std::vector<AccessUnit> splitNalStream(const std::vector<uint8_t>& data, VideoCodec codec) {
    std::vector<uint32_t> starts;
    bool picture = false;
    for (const NalUnit& u : listUnits(data)) {
        if (u.size == 0) continue;
        const uint8_t* h = data.data() + u.payload;
        bool opens = codec == VideoCodec::kHevc ? opensHevcUnit(h, u.size) : opensH264Unit(h, u.size);
        if (starts.empty() || (picture && opens)) {
            starts.push_back(starts.empty() ? 0 : u.offset);
            picture = false;
        }
        picture |= isPicture(codec, h);
    }
    return unitsFromStarts(starts, data.size());
}

std::vector<AccessUnit> splitMpeg2(const std::vector<uint8_t>& data) {
    std::vector<uint32_t> starts;
    bool picture = false;
    const size_t size = data.size();
    for (size_t i = 0; i + 3 < size; ++i) {
        if (data[i + 2] > 1) {
            i += 2;  // no start code begins at i, i + 1 or i + 2
            continue;
        }
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
        // The zero byte in front of a start code belongs to it.
        uint32_t at = static_cast<uint32_t>(i > 0 && data[i - 1] == 0 ? i - 1 : i);
        uint8_t code = data[i + 3];
        bool header = code == 0xB3 || code == 0xB8 || code == 0x00;
        if (starts.empty() || (picture && header)) {
            starts.push_back(starts.empty() ? 0 : at);
            picture = false;
        }
        picture |= code >= 0x01 && code <= 0xAF;
        i += 3;
    }
    return unitsFromStarts(starts, size);
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

std::vector<AccessUnit> splitAccessUnits(const std::vector<uint8_t>& data, VideoCodec codec) {
    if (data.size() > 0xFFFFFFF0u) throw Error("stream larger than 4 GiB");
    return codec == VideoCodec::kMpeg2 ? splitMpeg2(data) : splitNalStream(data, codec);
}

}  // namespace qnvtool
