// Coded frames for the benchmarks: NAL units of random payload with
// emulation prevention applied, so that no start code appears inside a unit.
#ifndef QNVUTIL_BENCH_STREAMS_H
#define QNVUTIL_BENCH_STREAMS_H

#include <cstdint>
#include <random>
#include <vector>

namespace bench {

constexpr size_t kFrame = 2u << 20;

// `units` units behind three- or four-byte start codes (`codeBytes`) that
// fill about `frameBytes`; each unit starts with the header byte 0x65.
inline std::vector<uint8_t> annexBFrame(size_t units, uint32_t codeBytes = 3, size_t frameBytes = kFrame) {
    std::mt19937 rng(static_cast<unsigned>(units * 7 + codeBytes));
    std::vector<uint8_t> f;
    f.reserve(frameBytes + frameBytes / 2);
    const size_t payload = frameBytes / units - codeBytes;
    for (size_t u = 0; u < units; ++u) {
        if (codeBytes == 4) f.push_back(0);
        f.insert(f.end(), {0, 0, 1, 0x65});
        int zeros = 0;
        for (size_t i = 1; i < payload; ++i) {
            uint8_t b = static_cast<uint8_t>(rng());
            if (zeros >= 2 && b <= 3) {
                f.push_back(3);
                zeros = 0;
            }
            f.push_back(b);
            zeros = b == 0 ? zeros + 1 : 0;
        }
        if (f.back() == 0) f.back() = 0x80;
    }
    return f;
}

}  // namespace bench

#endif
