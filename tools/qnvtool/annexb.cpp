#include "tools/qnvtool/annexb.h"

namespace qnvtool {

using qnv::nal::Codec::kH264;
using qnv::nal::Codec::kHevc;

bool startsWithStartCode(const std::vector<uint8_t>& data) {
    size_t zeros = 0;
    while (zeros < data.size() && data[zeros] == 0) ++zeros;
    return zeros >= 2 && zeros < data.size() && data[zeros] == 1;
}

std::vector<NalUnit> listUnits(const std::vector<uint8_t>& data) {
    std::vector<NalUnit> units;
    if (data.size() > 0xFFFFFFF0u) return units;
    qnv::nal::UnitWalk walk(data.data(), static_cast<uint32_t>(data.size()), qnv::nal::Framing::kAnnexB);
    for (qnv::nal::Unit u; walk.next(u);) units.push_back({u.offset, u.prefix, u.header(), u.size});
    return units;
}

namespace {

bool plausibleHevc(const uint8_t* h) {
    uint32_t type = qnv::nal::unitType(kHevc, h[0]), layer = ((h[0] & 1u) << 5) | (h[1] >> 3), tid = h[1] & 7u;
    bool known = type <= 9 || (type >= 16 && type <= 21) || (type >= 32 && type <= 40);
    return (h[0] & 0x80) == 0 && layer == 0 && tid != 0 && known;
}

bool plausibleH264(const uint8_t* h) {
    uint32_t type = qnv::nal::unitType(kH264, h[0]);
    bool known = type == 1 || (type >= 5 && type <= 12);
    return (h[0] & 0x80) == 0 && known;
}

}  // namespace

Codec detectCodec(const std::vector<uint8_t>& data, const std::vector<NalUnit>& units) {
    int hevc = 0, h264 = 0;
    size_t looked = 0;
    for (const NalUnit& u : units) {
        if (u.size < 2) continue;
        if (++looked > 16) break;
        const uint8_t* h = data.data() + u.payload;
        if (plausibleHevc(h)) {
            uint32_t type = qnv::nal::unitType(kHevc, h[0]);
            hevc += type >= qnv::nal::hevc::kVps && type <= qnv::nal::hevc::kAud ? 3 : 1;  // parameter sets and delimiters weigh more
        }
        if (plausibleH264(h)) {
            uint32_t type = qnv::nal::unitType(kH264, h[0]);
            h264 += type >= qnv::nal::h264::kSps && type <= qnv::nal::h264::kAud ? 3 : 1;
        }
    }
    if (hevc == 0 && h264 == 0) return Codec::kUnknown;
    return hevc >= h264 ? Codec::kHevc : Codec::kH264;
}

Codec parseCodec(const std::string& name) {
    if (name == "h264") return Codec::kH264;
    if (name == "hevc") return Codec::kHevc;
    return Codec::kUnknown;
}

const char* codecName(Codec codec) {
    switch (codec) {
        case Codec::kH264: return "h264";
        case Codec::kHevc: return "hevc";
        default: return "unknown";
    }
}

}  // namespace qnvtool
