// Annex B elementary streams for qnvtool: unit listing, codec detection and
// NAL unit type names.
#ifndef QNVTOOL_ANNEXB_H
#define QNVTOOL_ANNEXB_H

#include <cstdint>
#include <string>
#include <vector>

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
// Every unit of an Annex B stream, walked with the library's scanner.
std::vector<NalUnit> listUnits(const std::vector<uint8_t>& data);
// H.264 or HEVC, judged from the headers of the first units.
Codec detectCodec(const std::vector<uint8_t>& data, const std::vector<NalUnit>& units);
Codec parseCodec(const std::string& name);  // "h264" / "hevc"; kUnknown otherwise
const char* codecName(Codec codec);

uint32_t unitType(Codec codec, const uint8_t* header);
const char* unitTypeName(Codec codec, uint32_t type);

}  // namespace qnvtool

#endif
