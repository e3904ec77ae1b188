// Bit reading and NAL unit emission.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "foundation/bitio/bitio.h"

namespace {

std::vector<uint8_t> randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n + 1);
    for (auto& b : v) b = static_cast<uint8_t>(rng());
    return v;
}

void BM_ReadBits(benchmark::State& state) {
    auto data = randomBytes(1 << 16, 1);
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        BitBuffer bb = qnv::bitReader(data.data(), 1 << 16);
        uint32_t acc = 0;
        while (bb.bitPos + n <= bb.sizeBits) acc ^= ReadBits(&bb, n);
        benchmark::DoNotOptimize(acc);
    }
    state.SetBytesProcessed(state.iterations() * (1 << 16));
}
BENCHMARK(BM_ReadBits)->Arg(1)->Arg(8)->Arg(13)->Arg(32);

void BM_ReadExpGolomb(benchmark::State& state) {
    // 64 KiB of codes with values up to about 2^12.
    std::vector<uint8_t> data(1 << 16 | 1);
    BitBuffer w{data.data(), static_cast<uint32_t>(data.size()), 0, 0};
    std::mt19937 rng(2);
    uint32_t codes = 0;
    while (w.bitPos < (1u << 19) - 64) {
        WriteExponentialGolombCode(&w, static_cast<int32_t>(rng() % 4096));
        ++codes;
    }
    for (auto _ : state) {
        BitBuffer bb = qnv::bitReader(data.data(), 1 << 16);
        uint32_t acc = 0;
        for (uint32_t i = 0; i < codes; ++i) acc += ReadExponentialGolombCode(&bb);
        benchmark::DoNotOptimize(acc);
    }
    state.SetItemsProcessed(state.iterations() * codes);
}
BENCHMARK(BM_ReadExpGolomb);

void BM_EmitNalUnit64K(benchmark::State& state) {
    auto rbsp = randomBytes(1 << 16, 3);
    for (size_t i = 0; i < rbsp.size(); i += 97) rbsp[i] = rbsp[i + 1 < rbsp.size() ? i + 1 : i] = 0;
    rbsp[0] = rbsp[1] = rbsp[2] = 0;
    rbsp[3] = 1;
    std::vector<uint8_t> scratch(rbsp.size() + 4), out(rbsp.size() * 4 / 3 + 16);
    for (auto _ : state) {
        std::copy(rbsp.begin(), rbsp.end(), scratch.begin());
        BitBuffer s{scratch.data(), 0, 0, (1u << 16) * 8};
        BitBuffer o{out.data(), 0, 0, 0};
        qnv::EmitNalUnit(&s, &o, 0xFFFFFFFFu, 1);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * (1 << 16));
}
BENCHMARK(BM_EmitNalUnit64K);

}  // namespace
