// Frame count <-> timecode text for the timecode types of qnvUtil.
#include <cstdio>
#include <cstring>

#include "qnvutil/timecodetext.h"

namespace {

constexpr uint32_t kBinary = 0x400;

struct Counting {
    uint32_t base;  // frames (or pairs) per timecode second
    bool drop;      // 29.97 drop-frame numbering
    bool pairs;     // the count advances two frames per timecode frame
    bool plain;     // type 0: no timecode at all
};

Counting countingFor(uint32_t formatWord) {
    switch (formatWord & 0xFF) {
        case 0: return {30, false, false, true};
        case 1: return {24, false, false, false};
        case 4: return {30, true, false, false};
        case 8: return {25, false, false, false};
        case 16: return {25, false, true, false};
        case 32: return {30, true, true, false};
        case 64: return {30, false, true, false};
        case 128:
        case 132: return {24, false, false, false};
        default: return {30, false, false, false};
    }
}

struct Fields {
    uint64_t hours;
    uint32_t minutes, seconds, frames;
    bool second;  // second frame of a pair
};

// Drop-frame numbering skips two labels per minute except every tenth
// minute: 17982 frames per ten minutes, 1798 per dropped minute.
uint64_t dropLabel(uint64_t n) {
    uint64_t tens = n / 17982, rest = n % 17982;
    uint64_t skipped = 18 * tens + (rest >= 2 ? 2 * ((rest - 2) / 1798) : 0);
    return n + skipped;
}

Fields split(uint32_t count, const Counting& c) {
    Fields f{};
    uint64_t n = count;
    if (c.pairs) {
        f.second = (n & 1) != 0;
        n >>= 1;
    }
    if (c.drop) n = dropLabel(n);
    f.frames = static_cast<uint32_t>(n % c.base);
    n /= c.base;
    f.seconds = static_cast<uint32_t>(n % 60);
    n /= 60;
    f.minutes = static_cast<uint32_t>(n % 60);
    f.hours = n / 60;
    return f;
}

// The count a set of fields names; false when the fields are out of range or
// name a skipped drop-frame label, or the count passes 32 bits.
bool join(const Fields& f, const Counting& c, uint32_t* out) {
    if (f.minutes > 59 || f.seconds > 59 || f.frames >= c.base) return false;
    if (f.hours > 0xFFFFFFFFull) return false;
    uint64_t minutes = f.hours * 60 + f.minutes;
    if (c.drop && f.seconds == 0 && f.frames < 2 && f.minutes % 10 != 0) return false;
    uint64_t n = (minutes * 60 + f.seconds) * c.base + f.frames;
    if (c.drop) n -= 2 * (minutes - minutes / 10);
    if (c.pairs) n = n * 2 + (f.second ? 1 : 0);
    else if (f.second) return false;
    if (n > 0xFFFFFFFFull) return false;
    *out = static_cast<uint32_t>(n);
    return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

const char* skipSpaces(const char* p) {
    while (*p == ' ' || *p == '\t') ++p;
    return p;
}

bool parsePlain(const char* p, uint32_t* out) {
    p = skipSpaces(p);
    bool negative = *p == '-';
    if (negative) ++p;
    if (!isDigit(*p)) return false;
    uint64_t v = 0;
    while (isDigit(*p)) {
        v = v * 10 + static_cast<uint64_t>(*p++ - '0');
        if (v > 0xFFFFFFFFull) return false;
    }
    if (*skipSpaces(p) != '\0') return false;
    if (negative) {
        if (v > 0x80000000ull) return false;
        v = (0x100000000ull - v) & 0xFFFFFFFFull;
    }
    *out = static_cast<uint32_t>(v);
    return true;
}

bool twoDigits(const char*& p, uint32_t* out) {
    if (!isDigit(p[0]) || !isDigit(p[1])) return false;
    *out = static_cast<uint32_t>((p[0] - '0') * 10 + (p[1] - '0'));
    p += 2;
    return true;
}

bool isSeparator(char c) { return c == ':' || c == ';' || c == '.' || c == ','; }

bool parseText(const char* p, const Counting& c, uint32_t* out) {
    Fields f{};
    p = skipSpaces(p);
    if (!isDigit(*p)) return false;
    while (isDigit(*p)) {
        f.hours = f.hours * 10 + static_cast<uint64_t>(*p++ - '0');
        if (f.hours > 0xFFFFFFFFull) return false;
    }
    char sep[3];
    if (!isSeparator(*p)) return false;
    sep[0] = *p++;
    if (!twoDigits(p, &f.minutes) || !isSeparator(*p)) return false;
    sep[1] = *p++;
    if (!twoDigits(p, &f.seconds) || !isSeparator(*p)) return false;
    sep[2] = *p++;
    if (!twoDigits(p, &f.frames) || *skipSpaces(p) != '\0') return false;
    // Either separator is taken whatever the type: the type alone decides
    // how frames are counted. For pair counting '.' and ',' mark the
    // second frame of a pair.
    f.second = c.pairs && (sep[2] == '.' || sep[2] == ',');
    return join(f, c, out);
}

}  // namespace

extern "C" {

uint32_t TimecodeTextFormat(uint32_t frames, uint32_t formatWord, char* text) {
    if (text == nullptr) return TCT_BADARG;
    Counting c = countingFor(formatWord);
    if ((formatWord & kBinary) != 0) {
        Fields f = split(frames, c);
        text[0] = static_cast<char>(f.hours & 0xFF);
        text[1] = static_cast<char>(f.minutes);
        text[2] = static_cast<char>(f.seconds);
        text[3] = static_cast<char>(f.frames | (f.second ? 0x80 : 0));
        return TCT_OK;
    }
    if (c.plain) {
        std::snprintf(text, TCT_TEXT_SIZE, "%u", frames);
        return TCT_OK;
    }
    Fields f = split(frames, c);
    char last = c.drop ? (f.second ? ',' : ';') : (f.second ? '.' : ':');
    std::snprintf(text, TCT_TEXT_SIZE, "%02llu:%02u:%02u%c%02u", static_cast<unsigned long long>(f.hours),
                  f.minutes, f.seconds, last, f.frames);
    return TCT_OK;
}

uint32_t TimecodeTextParse(const char* text, uint32_t formatWord, uint32_t* frames) {
    if (text == nullptr || frames == nullptr) return TCT_BADARG;
    Counting c = countingFor(formatWord);
    uint32_t result = 0;
    bool ok;
    if ((formatWord & kBinary) != 0) {
        auto byte = [&](int i) { return static_cast<uint32_t>(static_cast<unsigned char>(text[i])); };
        Fields f{byte(0), byte(1), byte(2), byte(3) & 0x7F, (byte(3) & 0x80) != 0};
        ok = join(f, c, &result);
    } else if (c.plain) {
        ok = parsePlain(text, &result);
    } else {
        ok = parseText(text, c, &result);
    }
    if (!ok) return TCT_BADTEXT;
    *frames = result;
    return TCT_OK;
}

}  // extern "C"
