// H.264 framing conversions on a 2 MiB frame against a memmove of the same
// frame, side by side: 64 to 32,768 units behind three-byte start codes
// (every code widens, so every unit moves) or four-byte ones. The frame is
// restored outside the timed region before each call of either side.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench/ratio.h"
#include "bench/streams.h"
#include "qnvutil/h264.h"

namespace {

// `convert` on the frame `src` (restored before every call, with room for
// one more byte per unit) against a memmove of the frame by one byte.
template <typename Convert>
void againstMemmove(benchmark::State& state, const std::vector<uint8_t>& src, Convert convert) {
    std::vector<uint8_t> f(src.size() + static_cast<size_t>(state.range(0)) + 1);
    const uint32_t size = static_cast<uint32_t>(src.size());
    bench::sideBySide(
        state, [&] { std::memcpy(f.data(), src.data(), src.size()); },
        [&] { benchmark::DoNotOptimize(convert(f.data(), size)); },
        [&] { std::memmove(f.data() + 1, f.data(), size); });
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

// range(0): units; range(1): start-code bytes.
std::vector<uint8_t> frame(const benchmark::State& state) {
    return bench::annexBFrame(static_cast<size_t>(state.range(0)), static_cast<uint32_t>(state.range(1)));
}

void BM_MarkerToSizeVsMemmove(benchmark::State& state) { againstMemmove(state, frame(state), qnvUtilh264MarkerToSize); }
BENCHMARK(BM_MarkerToSizeVsMemmove)
    ->ArgsProduct({{64, 4096, 32768}, {3, 4}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void BM_SizeToMarkerVsMemmove(benchmark::State& state) {
    std::vector<uint8_t> src = frame(state);
    const size_t n = src.size();
    src.resize(n + static_cast<size_t>(state.range(0)));
    src.resize(qnvUtilh264MarkerToSize(src.data(), static_cast<uint32_t>(n)));
    againstMemmove(state, src, qnvUtilh264SizeToMarker);
}
BENCHMARK(BM_SizeToMarkerVsMemmove)
    ->ArgsProduct({{64, 4096, 32768}, {3}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
