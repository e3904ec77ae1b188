// NAL unit layer on a 2 MiB Annex B frame: the unit walk against the
// scanner's walk and a memcpy of the frame, the unescaper and escaper
// against the same memcpy (all in one run: compare the ratios). Coded data
// with its escapes: 64 large units, or 4,096 small ones.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "foundation/nal/nal.h"
#include "foundation/nalscan/nalscan.h"

namespace {

constexpr size_t kFrame = 2u << 20;

// `units` escaped units of random payload with about one zero byte in 16
// (so that zero pairs and escapes occur), behind 4-byte start codes.
std::vector<uint8_t> frame(size_t units) {
    std::mt19937 rng(static_cast<unsigned>(units));
    std::vector<uint8_t> raw(kFrame / units), f;
    f.reserve(kFrame + kFrame / 4);
    for (size_t u = 0; u < units; ++u) {
        for (auto& b : raw) b = rng() % 16 ? static_cast<uint8_t>(rng() | 1) : 0;
        raw[0] = 0x65;
        raw.back() = 0x80;
        f.insert(f.end(), {0, 0, 0, 1});
        const size_t at = f.size();
        f.resize(at + raw.size() + raw.size() / 2 + 1);
        f.resize(at + qnv::nal::escape(raw.data(), static_cast<uint32_t>(raw.size()), f.data() + at));
    }
    return f;
}

void BM_NalFrameCopy(benchmark::State& state) {
    const std::vector<uint8_t> f = frame(static_cast<size_t>(state.range(0)));
    std::vector<uint8_t> out(f.size());
    for (auto _ : state) {
        std::memcpy(out.data(), f.data(), f.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size()));
}
BENCHMARK(BM_NalFrameCopy)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_NalUnitWalk(benchmark::State& state) {
    const std::vector<uint8_t> f = frame(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        qnv::nal::UnitWalk walk(f.data(), static_cast<uint32_t>(f.size()), qnv::nal::Framing::kAnnexB);
        uint64_t total = 0;
        for (qnv::nal::Unit u; walk.next(u);) total += u.size;
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size()));
}
BENCHMARK(BM_NalUnitWalk)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

// The same walk with the scanner (find_nal_unit), as the HEVC scans do it.
void BM_NalScannerWalk(benchmark::State& state) {
    const std::vector<uint8_t> f = frame(static_cast<size_t>(state.range(0)));
    const uint32_t size = static_cast<uint32_t>(f.size());
    for (auto _ : state) {
        uint64_t total = 0;
        for (uint32_t offset = 0; offset < size;) {
            int32_t start = -1, end = -1;
            if (qnv::find_nal_unit(f.data() + offset, size - offset, &start, &end) == 0 && start < 0) break;
            total += static_cast<uint32_t>(end - start);
            offset += end > 0 ? static_cast<uint32_t>(end) : 1u;
        }
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size()));
}
BENCHMARK(BM_NalScannerWalk)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_NalUnescape(benchmark::State& state) {
    const std::vector<uint8_t> f = frame(static_cast<size_t>(state.range(0)));
    std::vector<uint8_t> out(f.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(qnv::nal::unescape(f.data(), out.data(), static_cast<uint32_t>(f.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size()));
}
BENCHMARK(BM_NalUnescape)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_NalEscape(benchmark::State& state) {
    std::vector<uint8_t> raw = frame(static_cast<size_t>(state.range(0)));
    raw.resize(raw.size() - qnv::nal::unescape(raw.data(), raw.data(), static_cast<uint32_t>(raw.size())));
    std::vector<uint8_t> out(raw.size() + raw.size() / 2 + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(qnv::nal::escape(raw.data(), static_cast<uint32_t>(raw.size()), out.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(raw.size()));
}
BENCHMARK(BM_NalEscape)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);

}  // namespace
