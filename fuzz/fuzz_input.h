// Cutting a fuzz input into parts: each part behind a two-byte big-endian
// length (shortened to what is left).
#ifndef QNVUTIL_FUZZ_FUZZ_INPUT_H
#define QNVUTIL_FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qnvutil/qxutil.h"

namespace fuzzinput {

// Drops the library's diagnostics (once per process): inputs that make it
// complain would flood the run's output.
inline void quietLog() {
    static const bool quiet = (QxSetLogSink([](uint32_t, const char*, void*) {}, nullptr), true);
    (void)quiet;
}

// The next part; empty when fewer than two bytes are left.
inline std::vector<uint8_t> take(const uint8_t*& data, size_t& size) {
    if (size < 2) return {};
    size_t n = size_t(data[0]) << 8 | data[1];
    data += 2;
    size -= 2;
    if (n > size) n = size;
    std::vector<uint8_t> out(data, data + n);
    data += n;
    size -= n;
    return out;
}

}  // namespace fuzzinput

#endif
