// Names of HEVC profiles and levels, for listings.
#include <string>

#include "qnvutil/hevc/hevc_internal.h"

namespace qnv::hevc {

const char* profileName(const HevcProfileTierLevel& p) {
    switch (p.general_profile_idc) {
        case 1: return "Main";
        case 2: return "Main 10";
        case 3: return "Main Still Picture";
        case 5: return "High Throughput";
        case 9: return "Screen Extended";
        case 4: break;
        default: return "unknown";
    }
    // Format range extensions: told apart by the constraint flags from
    // general_max_12bit_constraint_flag down (bit 43 of the 48).
    const uint64_t flags = uint64_t(p.general_constraint_flags_hi) << 32 | p.general_constraint_flags_lo;
    const uint32_t c = static_cast<uint32_t>(flags >> 38) & 0x3F;  // 12bit 10bit 8bit 422 420 mono
    const bool intra = (flags >> 37) & 1;
    static const struct {
        uint32_t flags;
        const char* name;
        const char* intraName;
    } kRext[] = {{0x3F, "Monochrome", "Monochrome Intra"},     {0x37, "Monochrome 10", "Monochrome 10 Intra"},
                 {0x27, "Monochrome 12", "Monochrome 12 Intra"}, {0x07, "Monochrome 16", "Monochrome 16 Intra"},
                 {0x26, "Main 12", "Main 12 Intra"},             {0x34, "Main 4:2:2 10", "Main 4:2:2 10 Intra"},
                 {0x24, "Main 4:2:2 12", "Main 4:2:2 12 Intra"}, {0x38, "Main 4:4:4", "Main 4:4:4 Intra"},
                 {0x30, "Main 4:4:4 10", "Main 4:4:4 10 Intra"}, {0x20, "Main 4:4:4 12", "Main 4:4:4 12 Intra"},
                 {0x36, "Main 10", "Main 10 Intra"},             {0x3E, "Main", "Main Intra"}};
    for (const auto& r : kRext)
        if (r.flags == c) return intra ? r.intraName : r.name;
    return "Format Range Extensions";
}

std::string levelName(uint32_t levelIdc) {
    if (levelIdc % 30 == 0) return std::to_string(levelIdc / 30);
    return std::to_string(levelIdc / 30) + "." + std::to_string(levelIdc % 30 / 3);
}

}  // namespace qnv::hevc
