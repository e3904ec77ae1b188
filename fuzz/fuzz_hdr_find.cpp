// The colour SEI and Dolby Vision finders over arbitrary frames of either
// codec and framing (the first byte chooses). What the colour finder reports
// must come back alike when written as one unit and found again.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "qnvutil/hdr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 1 << 20) return 0;
    const uint32_t codec = data[0] & 1;
    const int8_t lengthPrefixed = (data[0] >> 1) & 1;
    std::vector<uint8_t> frame(data + 1, data + size);  // exact size: overreads are caught
    const uint32_t n = static_cast<uint32_t>(frame.size());
    const uint8_t* p = frame.empty() ? nullptr : frame.data();

    ColorSeiRecord found{};
    const int32_t messages = qnvutilFindColorSEI(p, n, codec, lengthPrefixed, &found);
    if (messages < 0) __builtin_trap();
    if (found.mastering_display_present > 1 || found.content_light_level_present > 1 ||
        found.alternative_transfer_present > 1 || found.hdr10plus_present > 1 ||
        found.display_primaries_x[0] > 0xFFFF || found.max_pic_average_light_level > 0xFFFF ||
        found.preferred_transfer_characteristics > 0xFF || found.hdr10plus_application_version > 0xFF)
        __builtin_trap();
    if (messages == 0 && (found.mastering_display_present || found.content_light_level_present)) __builtin_trap();

    uint8_t unit[64];
    const int32_t written = qnvutilWrite_HDR_WCG_SEI_Packet(&found, codec, unit, sizeof unit, lengthPrefixed);
    const bool any = found.mastering_display_present || found.content_light_level_present ||
                     found.alternative_transfer_present;
    if (any != (written > 0)) __builtin_trap();
    if (written > 0) {
        std::vector<uint8_t> again(unit, unit + written);
        ColorSeiRecord back{};
        qnvutilFindColorSEI(again.data(), uint32_t(again.size()), codec, lengthPrefixed, &back);
        found.hdr10plus_present = found.hdr10plus_application_version = 0;
        if (std::memcmp(&back, &found, sizeof back) != 0) __builtin_trap();
    }

    DolbyVisionUnits units{};
    const int32_t count = qnvUtilFindDolbyVisionMetadata(p, n, lengthPrefixed, &units);
    if (count < 0 || uint32_t(count) != units.rpu_count + units.el_count) __builtin_trap();
    for (uint32_t i = 0; i < units.count && i < QNV_DOVI_MAX_UNITS; ++i)
        if (units.offset[i] + uint64_t(units.size[i]) > n || units.size[i] < 2) __builtin_trap();
    return 0;
}
