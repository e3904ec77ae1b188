// Annex B elementary streams for qnvtool: unit listing and codec detection
// (types and names come from the library's NAL unit layer, foundation/nal).
#ifndef QNVTOOL_ANNEXB_H
#define QNVTOOL_ANNEXB_H

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/nal/nal.h"

namespace qnvtool {

enum class Codec { kUnknown, kH264, kHevc };

struct NalUnit {
    uint32_t offset;     // first byte of the start code
    uint32_t startCode;  // start code length, 3 or 4
    uint32_t payload;    // first byte after the start code (the NAL header)
    uint32_t size;       // bytes from payload to the next start code (or the end)
};

// True when the data begins with a start code (after optional zero bytes).
bool startsWithStartCode(const std::vector<uint8_t>& data);
// Every unit of an Annex B stream (empty ones included).
std::vector<NalUnit> listUnits(const std::vector<uint8_t>& data);
// H.264 or HEVC, judged from the headers of the first units.
Codec detectCodec(const std::vector<uint8_t>& data, const std::vector<NalUnit>& units);
Codec parseCodec(const std::string& name);  // "h264" / "hevc"; kUnknown otherwise
const char* codecName(Codec codec);

// The layer's codec for kH264 and kHevc.
inline qnv::nal::Codec nalCodec(Codec codec) {
    return codec == Codec::kHevc ? qnv::nal::Codec::kHevc : qnv::nal::Codec::kH264;
}

}  // namespace qnvtool

#endif
