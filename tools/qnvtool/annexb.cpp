#include "tools/qnvtool/annexb.h"

#include "foundation/nalscan/nalscan.h"

namespace qnvtool {

bool startsWithStartCode(const std::vector<uint8_t>& data) {
    size_t zeros = 0;
    while (zeros < data.size() && data[zeros] == 0) ++zeros;
    return zeros >= 2 && zeros < data.size() && data[zeros] == 1;
}

std::vector<NalUnit> listUnits(const std::vector<uint8_t>& data) {
    std::vector<NalUnit> units;
    if (data.size() > 0xFFFFFFF0u) return units;
    const uint32_t size = static_cast<uint32_t>(data.size());
    uint32_t offset = 0;
    while (size - offset >= 4) {
        int32_t start = -1, end = -1;
        if (qnv::find_nal_unit(data.data() + offset, size - offset, &start, &end) == 0 && start < 0) break;
        uint32_t payload = offset + static_cast<uint32_t>(start);
        uint32_t code = payload >= offset + 4 && data[payload - 4] == 0 ? 4 : 3;
        units.push_back({payload - code, code, payload, static_cast<uint32_t>(end - start)});
        offset += static_cast<uint32_t>(end > start ? end : start);
    }
    return units;
}

namespace {

bool plausibleHevc(const uint8_t* h) {
    uint32_t type = (h[0] >> 1) & 63, layer = ((h[0] & 1u) << 5) | (h[1] >> 3), tid = h[1] & 7u;
    bool known = type <= 9 || (type >= 16 && type <= 21) || (type >= 32 && type <= 40);
    return (h[0] & 0x80) == 0 && layer == 0 && tid != 0 && known;
}

bool plausibleH264(const uint8_t* h) {
    uint32_t type = h[0] & 31u;
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
            uint32_t type = (h[0] >> 1) & 63;
            hevc += type >= 32 && type <= 35 ? 3 : 1;  // parameter sets and delimiters weigh more
        }
        if (plausibleH264(h)) {
            uint32_t type = h[0] & 31u;
            h264 += type >= 7 && type <= 9 ? 3 : 1;
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

uint32_t unitType(Codec codec, const uint8_t* header) {
    return codec == Codec::kHevc ? (header[0] >> 1) & 63u : header[0] & 31u;
}

const char* unitTypeName(Codec codec, uint32_t type) {
    static const char* const kHevc[64] = {
        "TRAIL_N", "TRAIL_R", "TSA_N", "TSA_R", "STSA_N", "STSA_R", "RADL_N", "RADL_R",
        "RASL_N", "RASL_R", "RSV_VCL_N10", "RSV_VCL_R11", "RSV_VCL_N12", "RSV_VCL_R13", "RSV_VCL_N14",
        "RSV_VCL_R15", "BLA_W_LP", "BLA_W_RADL", "BLA_N_LP", "IDR_W_RADL", "IDR_N_LP", "CRA_NUT",
        "RSV_IRAP_VCL22", "RSV_IRAP_VCL23", "RSV_VCL24", "RSV_VCL25", "RSV_VCL26", "RSV_VCL27", "RSV_VCL28",
        "RSV_VCL29", "RSV_VCL30", "RSV_VCL31", "VPS_NUT", "SPS_NUT", "PPS_NUT", "AUD_NUT", "EOS_NUT",
        "EOB_NUT", "FD_NUT", "PREFIX_SEI_NUT", "SUFFIX_SEI_NUT", "RSV_NVCL41", "RSV_NVCL42", "RSV_NVCL43",
        "RSV_NVCL44", "RSV_NVCL45", "RSV_NVCL46", "RSV_NVCL47", "UNSPEC48", "UNSPEC49", "UNSPEC50",
        "UNSPEC51", "UNSPEC52", "UNSPEC53", "UNSPEC54", "UNSPEC55", "UNSPEC56", "UNSPEC57", "UNSPEC58",
        "UNSPEC59", "UNSPEC60", "UNSPEC61", "UNSPEC62", "UNSPEC63"};
    static const char* const kH264[32] = {
        "unspecified", "slice", "slice data A", "slice data B", "slice data C", "IDR slice", "SEI", "SPS",
        "PPS", "access unit delimiter", "end of sequence", "end of stream", "filler data", "SPS extension",
        "prefix NAL", "subset SPS", "depth parameter set", "reserved", "reserved", "auxiliary slice",
        "slice extension", "depth slice extension", "reserved", "reserved", "unspecified", "unspecified",
        "unspecified", "unspecified", "unspecified", "unspecified", "unspecified", "unspecified"};
    if (codec == Codec::kHevc) return kHevc[type & 63];
    return kH264[type & 31];
}

}  // namespace qnvtool
