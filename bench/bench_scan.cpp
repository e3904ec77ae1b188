// Annex B scanning, walked unit by unit as the frame walkers do, with
// find_nal_unit (one search per call) and with NalUnitWalker (the same units
// from block masks kept between calls), against a memchr loop (the usual
// splitter: each 01 byte, then a look at the two bytes before it) and a
// read-only sweep of the same bytes, on 2 MiB frames of 8 to 32,768 units.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "bench/ratio.h"
#include "bench/streams.h"
#include "foundation/nalscan/nalscan.h"

#if defined(QNV_BENCH_AVCODEC)
// libavcodec's start-code search (exported for its own libraries, not in
// the installed headers): the next 00 00 01 xx after p, with the last four
// bytes seen in *state.
extern "C" const uint8_t* avpriv_find_start_code(const uint8_t* p, const uint8_t* end, uint32_t* state);
#endif

namespace {

uint32_t walk(const std::vector<uint8_t>& f) {
    const uint32_t size = static_cast<uint32_t>(f.size());
    uint32_t offset = 0, units = 0;
    while (offset < size) {
        int32_t start = 0, end = 0;
        if (qnv::find_nal_unit(f.data() + offset, size - offset, &start, &end) == 0 && end == 0) break;
        offset += end > 0 ? static_cast<uint32_t>(end) : 1u;
        ++units;
    }
    return units;
}

uint32_t walkerWalk(const std::vector<uint8_t>& f) {
    const uint32_t size = static_cast<uint32_t>(f.size());
    qnv::NalUnitWalker walker(f.data(), size);
    uint32_t offset = 0, units = 0;
    while (offset < size) {
        const qnv::UnitBounds u = walker.find(offset);
        if (!u.found()) break;
        offset = u.end > offset ? static_cast<uint32_t>(u.end) : offset + 1;
        ++units;
    }
    return units;
}

uint32_t memchrWalk(const std::vector<uint8_t>& f) {
    const uint8_t* p = f.data() + 2;
    const uint8_t* end = f.data() + f.size();
    uint32_t units = 0;
    while (p < end) {
        p = static_cast<const uint8_t*>(std::memchr(p, 1, static_cast<size_t>(end - p)));
        if (p == nullptr) break;
        if (p[-1] == 0 && p[-2] == 0) ++units;
        ++p;
    }
    return units;
}

// Every byte loaded once, 64 at a time, and folded into one word.
#if defined(__x86_64__)
__attribute__((target("avx512f"))) uint64_t sweep512(const uint8_t* p, size_t n) {
    __m512i acc = _mm512_setzero_si512();
    for (size_t i = 0; i + 64 <= n; i += 64) acc = _mm512_or_si512(acc, _mm512_loadu_si512(p + i));
    uint64_t lanes[8];
    _mm512_storeu_si512(lanes, acc);
    return lanes[0] | lanes[1] | lanes[2] | lanes[3] | lanes[4] | lanes[5] | lanes[6] | lanes[7];
}
__attribute__((target("avx2"))) uint64_t sweep256(const uint8_t* p, size_t n) {
    __m256i acc = _mm256_setzero_si256();
    for (size_t i = 0; i + 64 <= n; i += 64)
        acc = _mm256_or_si256(acc, _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i)),
                                                   _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i + 32))));
    return static_cast<uint64_t>(_mm256_extract_epi64(acc, 0) | _mm256_extract_epi64(acc, 1) |
                                 _mm256_extract_epi64(acc, 2) | _mm256_extract_epi64(acc, 3));
}
#endif
uint64_t sweep(const std::vector<uint8_t>& f) {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f")) return sweep512(f.data(), f.size());
    if (__builtin_cpu_supports("avx2")) return sweep256(f.data(), f.size());
#endif
    uint64_t acc = 0, w;
    for (size_t i = 0; i + 8 <= f.size(); i += 8) {
        std::memcpy(&w, f.data() + i, 8);
        acc |= w;
    }
    return acc;
}

using Walk = uint32_t (*)(const std::vector<uint8_t>&);

// range(0): units per 2 MiB; range(1): start-code bytes.
void againstMemchr(benchmark::State& state, Walk walkUnits) {
    const auto f = bench::annexBFrame(static_cast<size_t>(state.range(0)), static_cast<uint32_t>(state.range(1)));
    uint32_t units = 0;
    bench::sideBySide(
        state, [] {}, [&] { benchmark::DoNotOptimize(units = walkUnits(f)); },
        [&] { benchmark::DoNotOptimize(memchrWalk(f)); });
    state.counters["units"] = units;
    state.counters["ns_per_unit"] = benchmark::Counter(double(units), benchmark::Counter::kIsIterationInvariantRate |
                                                                          benchmark::Counter::kInvert);
}

void againstSweep(benchmark::State& state, Walk walkUnits) {
    const auto f = bench::annexBFrame(static_cast<size_t>(state.range(0)), static_cast<uint32_t>(state.range(1)));
    bench::sideBySide(
        state, [] {}, [&] { benchmark::DoNotOptimize(walkUnits(f)); }, [&] { benchmark::DoNotOptimize(sweep(f)); });
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.size()));
}

void BM_WalkerVsMemchr(benchmark::State& state) { againstMemchr(state, walkerWalk); }
void BM_FindNalUnitVsMemchr(benchmark::State& state) { againstMemchr(state, walk); }
void BM_WalkerVsSweep(benchmark::State& state) { againstSweep(state, walkerWalk); }
void BM_FindNalUnitVsSweep(benchmark::State& state) { againstSweep(state, walk); }

void unitCounts(benchmark::internal::Benchmark* b) {
    for (int codeBytes : {3, 4})
        for (int units : {8, 64, 512, 4096, 32768}) b->Args({units, codeBytes});
}
#if defined(QNV_BENCH_AVCODEC)
uint32_t avcodecWalk(const std::vector<uint8_t>& f) {
    const uint8_t* p = f.data();
    const uint8_t* end = f.data() + f.size();
    uint32_t units = 0, state = ~0u;
    while (p < end) {
        p = avpriv_find_start_code(p, end, &state);
        if ((state & 0xFFFFFF00u) == 0x100u) ++units;
    }
    return units;
}

void BM_WalkerVsAvcodec(benchmark::State& state) {
    const auto f = bench::annexBFrame(static_cast<size_t>(state.range(0)), static_cast<uint32_t>(state.range(1)));
    bench::sideBySide(
        state, [] {}, [&] { benchmark::DoNotOptimize(walkerWalk(f)); },
        [&] { benchmark::DoNotOptimize(avcodecWalk(f)); });
}
BENCHMARK(BM_WalkerVsAvcodec)->Apply(unitCounts)->UseManualTime()->Unit(benchmark::kMicrosecond);
#endif

void largeUnits(benchmark::internal::Benchmark* b) {
    for (int codeBytes : {3, 4})
        for (int units : {8, 64}) b->Args({units, codeBytes});
}
BENCHMARK(BM_WalkerVsMemchr)->Apply(unitCounts)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FindNalUnitVsMemchr)->Apply(unitCounts)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WalkerVsSweep)->Apply(largeUnits)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FindNalUnitVsSweep)->Apply(largeUnits)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
