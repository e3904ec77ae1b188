// H.264 framing conversions on a 2 MiB frame, against a memmove of the same
// frame in the same run: 64 units and 4,096 small units, all behind
// three-byte start codes (the case that widens every code).
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "qnvutil/h264.h"

namespace {

constexpr size_t kFrame = 2u << 20;

// Units of random payload with emulation prevention applied, so that no start
// code appears inside a unit; `units` units fill about kFrame bytes.
std::vector<uint8_t> annexBFrame(size_t units) {
    std::mt19937 rng(static_cast<unsigned>(units));
    std::vector<uint8_t> f;
    f.reserve(kFrame + kFrame / 2);
    const size_t payload = kFrame / units - 3;
    for (size_t u = 0; u < units; ++u) {
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

void BM_Memmove(benchmark::State& state) {
    std::vector<uint8_t> f = annexBFrame(static_cast<size_t>(state.range(0)));
    f.resize(f.size() + 1);
    for (auto _ : state) {
        std::memmove(f.data() + 1, f.data(), f.size() - 1);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size() - 1));
}
BENCHMARK(BM_Memmove)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_MarkerToSize(benchmark::State& state) {
    const std::vector<uint8_t> src = annexBFrame(static_cast<size_t>(state.range(0)));
    std::vector<uint8_t> f(src.size() + static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(f.data(), src.data(), src.size());
        state.ResumeTiming();
        benchmark::DoNotOptimize(qnvUtilh264MarkerToSize(f.data(), static_cast<uint32_t>(src.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(src.size()));
}
BENCHMARK(BM_MarkerToSize)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_SizeToMarker(benchmark::State& state) {
    std::vector<uint8_t> src = annexBFrame(static_cast<size_t>(state.range(0)));
    const size_t n = src.size();
    src.resize(n + static_cast<size_t>(state.range(0)));
    src.resize(qnvUtilh264MarkerToSize(src.data(), static_cast<uint32_t>(n)));
    std::vector<uint8_t> f(src);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(f.data(), src.data(), src.size());
        state.ResumeTiming();
        benchmark::DoNotOptimize(qnvUtilh264SizeToMarker(f.data(), static_cast<uint32_t>(f.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size()));
}
BENCHMARK(BM_SizeToMarker)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

}  // namespace
