// Parses any text under any format word: a text that parses gives a count
// whose own text parses back to it, a text that does not leaves the count
// alone, and any count survives formatting and parsing.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "qnvutil/timecodetext.h"

namespace {
constexpr uint32_t kBinary = 0x400;

// The text of `frames` parsed back under the same word; false when it fails.
bool roundTrip(uint32_t frames, uint32_t word, uint32_t* back) {
    char text[TCT_TEXT_SIZE] = {};
    if (TimecodeTextFormat(frames, word, text) != TCT_OK) return false;
    return TimecodeTextParse(text, word, back) == TCT_OK;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4 || size > 4096) return 0;
    uint32_t word;
    std::memcpy(&word, data, 4);
    // The binary form reads four bytes whatever they are; a text shorter
    // than that is padded, as the library's callers do.
    std::vector<char> text(data + 4, data + size);
    if ((word & kBinary) != 0 && text.size() < 4) text.resize(4, '\0');
    text.push_back('\0');  // exact size: reads past the terminator are caught

    uint32_t frames = 0xA5A5A5A5u;
    if (TimecodeTextParse(text.data(), word, &frames) == TCT_OK) {
        uint32_t back = ~frames;
        if (!roundTrip(frames, word, &back) || back != frames) __builtin_trap();
    } else if (frames != 0xA5A5A5A5u) {
        __builtin_trap();
    }

    // The first four bytes as a count: every count comes back, in binary form
    // those below 256 hours at the slowest rate (the hours byte holds no more).
    uint32_t back = 0;
    const uint32_t count = word ^ 0x5A5A5A5Au;
    const bool fits = (word & kBinary) == 0 || count < 256u * 3600 * 24;
    if (fits && (!roundTrip(count, word, &back) || back != count)) __builtin_trap();
    return 0;
}
