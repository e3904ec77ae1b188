// Timecode types: from rates, from signal formats and from text, and the
// conversion of a count between types.
#include "vidformat/tctype.h"

#include <strings.h>

#include <cmath>
#include <cstring>

#include "qnvutil/timecodetext.h"
#include "qnvutil/vidformat.h"

namespace qnv {

// Longer names come before their prefixes ("film-drop" before "film").
const TcTypeKeyword kTcTypeKeywords[10] = {
    {"frames", VID_TC_FRAMES}, {"23.98", VID_TC_23976_DROP}, {"film-drop", VID_TC_23976},
    {"film", VID_TC_24},       {"pal", VID_TC_25},           {"drop-frame", VID_TC_2997},
    {"non-drop-frame", VID_TC_2997}, {"50", VID_TC_50},      {"59.94", VID_TC_5994},
    {"60", VID_TC_60},
};

uint32_t TcTypeFromText(const char* text) {
    if (!text) return VID_TC_FRAMES;
    const char* key = std::strstr(text, "TcType=");
    if (!key) key = std::strstr(text, "tctype=");
    if (!key) key = std::strstr(text, "TCTYPE=");
    if (!key) return VID_TC_FRAMES;
    // guard: the skipped character must exist; a text that ends at '=' has
    // no value.
    if (key[7] == '\0') return VID_TC_FRAMES;
    const char* value = key + 8;
    for (const TcTypeKeyword& k : kTcTypeKeywords) {
        if (strncasecmp(value, k.word, std::strlen(k.word)) == 0) return k.type;
    }
    return VID_TC_FRAMES;
}

const char* TcTypeName(uint32_t type) {
    for (const TcTypeKeyword& k : kTcTypeKeywords) {
        if (k.type == type) return k.word;
    }
    return nullptr;
}

}  // namespace qnv

uint32_t vidGetTCType(double fps) {
    // High rates and 14.985/15 count as the rate they are a multiple of.
    if (fps >= 14.0 && fps <= 15.5) fps *= 2.0;
    if (fps >= 47.0 && fps <= 48.5) fps *= 0.5;
    if (fps >= 71.0 && fps <= 72.5) fps /= 3.0;
    if (fps >= 100.0 && fps <= 120.0) fps *= 0.25;
    if (!(fps >= 23.0 && fps <= 60.0)) return VID_TC_30;
    if (fps > 24.9 && fps < 25.1) return VID_TC_25;
    if (fps < 24.0) return VID_TC_23976;
    if (fps < 25.0) return VID_TC_24;
    if (fps >= 47.0 && fps < 49.0) return VID_TC_24;
    if (fps >= 60.0) return VID_TC_60;
    if (fps >= 59.0) return VID_TC_5994;
    if (fps >= 50.0) return VID_TC_50;
    if (fps > 29.0 && fps < 30.0) return VID_TC_2997;
    return VID_TC_30;
}

namespace {

// Rate codes outside 14..256 have no type of their own.
bool outsideRateCodes(uint32_t code) { return code < 14 || code > VID_RATE_UNKNOWN; }


// Steps "HH:MM:SS?FF" text (hours of any length) on to the next label:
// frames up to 59, then seconds, minutes and hours. False for text of
// another form.
bool nextLabel(char* text) {
    const size_t n = std::strlen(text);
    if (n < 11 || n + 1 >= TCT_TEXT_SIZE) return false;
    char* f = text + n - 2;  // frames, then seconds, minutes
    int fields[3];
    for (int i = 0; i < 3; ++i) {
        char* d = f - 3 * i;
        if (d[0] < '0' || d[0] > '9' || d[1] < '0' || d[1] > '9') return false;
        fields[i] = (d[0] - '0') * 10 + (d[1] - '0');
    }
    static const int kLimit[3] = {60, 60, 60};
    int carry = 1;
    for (int i = 0; i < 3 && carry; ++i) {
        fields[i] += carry;
        carry = fields[i] >= kLimit[i];
        if (carry) fields[i] = 0;
    }
    for (int i = 0; i < 3; ++i) {
        char* d = f - 3 * i;
        d[0] = static_cast<char>('0' + fields[i] / 10);
        d[1] = static_cast<char>('0' + fields[i] % 10);
    }
    if (carry) {  // the hours, a decimal number of any length
        char* h = text + n - 9;
        int i = static_cast<int>(h - text) - 1;
        while (i >= 0 && text[i] == '9') text[i--] = '0';
        if (i >= 0) {
            ++text[i];
        } else {
            std::memmove(text + 1, text, n + 1);
            text[0] = '1';
        }
    }
    return true;
}

}  // namespace

uint32_t vidGetTCTypeSignalFormat(uint32_t signalFormat) {
    const uint32_t code = signalFormat & VID_RATE_MASK;
    if (outsideRateCodes(code)) return VID_TC_30;
    switch (code) {
    case 14: case 29: case 59: case 119: return VID_TC_2997;
    case 23: case 47: case 71: return VID_TC_23976;
    case 24: case 48: case 72: return VID_TC_24;
    case 25: case 50: case 100: return VID_TC_25;
    default: return VID_TC_30;
    }
}

uint32_t vidGetFPSTCTypeSignalFormat(uint32_t signalFormat) {
    const uint32_t code = signalFormat & VID_RATE_MASK;
    if (outsideRateCodes(code)) return VID_TC_30;
    switch (code) {
    case 14: case 29: case 119: return VID_TC_2997;
    case 23: case 47: case 71: return VID_TC_23976;
    case 24: case 48: case 72: return VID_TC_24;
    case 25: case 100: return VID_TC_25;
    case 50: return VID_TC_50;
    case 59: return VID_TC_5994;
    case 60: return VID_TC_60;
    default: return VID_TC_30;
    }
}

void vidConvertTC(uint32_t* count, uint32_t targetType, uint32_t rate, uint32_t scale) {
    if (!count) return;
    // A zero scale gives an infinite or undefined rate, and thus type 2.
    const uint32_t source = vidGetTCType(double(rate) / double(scale));
    if (source == targetType) return;
    char text[TCT_TEXT_SIZE] = {};
    TimecodeTextFormat(*count, source | 0x32100, text);
    // A label the target does not have (a dropped ;00 or ;01, a frame
    // number past the target's rate) moves on to the next label that it
    // has, so that the count never stays in the source's numbering.
    for (int step = 0; step < 256 && TimecodeTextParse(text, targetType, count) != TCT_OK; ++step) {
        if (!nextLabel(text)) break;
    }
    // The text of a 59.94 or 60 count names frame pairs.
    if (source == VID_TC_5994 || source == VID_TC_60) *count *= 2;
}
