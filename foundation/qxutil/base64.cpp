// RFC 4648 base64 with a line break after every 72 output characters.
#include "qnvutil/qxutil.h"

extern "C" void base64_encode(const uint8_t* source, uint32_t length, uint32_t* outLength, char* out) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (out == nullptr) return;
    if (source == nullptr) length = 0;
    uint32_t written = 0;
    uint32_t lineChars = 0;
    auto put = [&](char c) {
        if (lineChars == 72) {
            out[written++] = '\n';
            lineChars = 0;
        }
        out[written++] = c;
        ++lineChars;
    };
    uint32_t i = 0;
    for (; i + 3 <= length; i += 3) {
        uint32_t v = (uint32_t(source[i]) << 16) | (uint32_t(source[i + 1]) << 8) | source[i + 2];
        put(kAlphabet[(v >> 18) & 63]);
        put(kAlphabet[(v >> 12) & 63]);
        put(kAlphabet[(v >> 6) & 63]);
        put(kAlphabet[v & 63]);
    }
    if (uint32_t rest = length - i; rest != 0) {
        uint32_t v = uint32_t(source[i]) << 16;
        if (rest == 2) v |= uint32_t(source[i + 1]) << 8;
        put(kAlphabet[(v >> 18) & 63]);
        put(kAlphabet[(v >> 12) & 63]);
        put(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
        put('=');
    }
    out[written] = '\0';
    if (outLength != nullptr) *outLength = written;
}
