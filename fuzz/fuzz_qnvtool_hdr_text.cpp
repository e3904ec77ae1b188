// qnvtool edit's colour SEI option texts: --mastering-display and --max-cll.
// Every text is either taken or refused with a qnvtool::Error; a taken text
// written again in its canonical form reads back to the same record.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tools/qnvtool/edit.h"
#include "tools/qnvtool/tool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 256) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    ColorSeiRecord r{};
    try {
        if (data[0] & 1) {
            qnvtool::parseMaxCll(text, r);
            ColorSeiRecord again{};
            qnvtool::parseMaxCll(std::to_string(r.max_content_light_level) + "," +
                                     std::to_string(r.max_pic_average_light_level),
                                 again);
            if (std::memcmp(&r, &again, sizeof r) != 0) __builtin_trap();
        } else {
            qnvtool::parseMasteringDisplay(text, r);
            auto pair = [](uint32_t a, uint32_t b) { return "(" + std::to_string(a) + "," + std::to_string(b) + ")"; };
            const std::string canonical =
                "G" + pair(r.display_primaries_x[0], r.display_primaries_y[0]) + "B" +
                pair(r.display_primaries_x[1], r.display_primaries_y[1]) + "R" +
                pair(r.display_primaries_x[2], r.display_primaries_y[2]) + "WP" + pair(r.white_point_x, r.white_point_y) +
                "L" + pair(r.max_display_mastering_luminance, r.min_display_mastering_luminance);
            ColorSeiRecord again{};
            qnvtool::parseMasteringDisplay(canonical, again);
            if (std::memcmp(&r, &again, sizeof r) != 0 || r.display_primaries_x[0] > 0xFFFF) __builtin_trap();
        }
    } catch (const qnvtool::Error&) {
        ColorSeiRecord none{};
        if (std::memcmp(&r, &none, sizeof r) != 0) __builtin_trap();  // a refused text changes nothing
    }
    return 0;
}
