// Text from input made safe to show (tool.h).
#include <cstdio>

#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

// Length of the UTF-8 sequence at text[i], 0 when the bytes there are not one.
size_t utf8Length(std::string_view text, size_t i) {
    const auto byte = [&](size_t k) { return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0u; };
    const unsigned lead = byte(0);
    if (lead < 0x80) return 1;
    size_t n;
    unsigned low = 0x80, high = 0xBF;  // range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) n = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) n = 3, low = lead == 0xE0 ? 0xA0 : 0x80, high = lead == 0xED ? 0x9F : 0xBF;
    else if (lead >= 0xF0 && lead <= 0xF4) n = 4, low = lead == 0xF0 ? 0x90 : 0x80, high = lead == 0xF4 ? 0x8F : 0xBF;
    else return 0;
    if (byte(1) < low || byte(1) > high) return 0;
    for (size_t k = 2; k < n; ++k)
        if (byte(k) < 0x80 || byte(k) > 0xBF) return 0;
    return n;
}
}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t n = utf8Length(text, i);
        const bool control = lead < 0x20 || lead == 0x7F || (n == 2 && lead == 0xC2 && uint8_t(text[i + 1]) < 0xA0);
        if (n != 0 && !control) {
            out.append(text.substr(i, n));
            i += n;
            continue;
        }
        for (size_t k = 0; k < (n != 0 ? n : 1); ++k) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(text[i + k]));
            out += hex;
        }
        i += n != 0 ? n : 1;
    }
    return out;
}

}  // namespace qnvtool
