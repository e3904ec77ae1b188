// H.264 parameter set and slice header reads and writes, per call, on units
// of the slice fixture with B-pyramids, weighted prediction and two slices
// (tests/data/h264/slices/pyramid.264): SPS and PPS read (record clear
// included) and write, a P slice header read and write, and the slice fix
// against a memcpy of the same unit in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qnvutil/h264.h"

namespace {

struct Units {
    std::vector<uint8_t> sps, pps, slice;
    H264SpsRecord spsRecord{};
    H264PpsRecord ppsRecord{};
    H264SliceHeader header{};
};

std::vector<uint8_t> unitAfter(const std::vector<uint8_t>& s, size_t& at, uint32_t wanted) {
    for (size_t i = at; i + 3 < s.size(); ++i) {
        if (s[i] != 0 || s[i + 1] != 0 || s[i + 2] != 1 || (s[i + 3] & 31u) != wanted) continue;
        size_t end = i + 3;
        while (end + 2 < s.size() && !(s[end] == 0 && s[end + 1] == 0 && s[end + 2] <= 1)) ++end;
        if (end + 2 >= s.size()) end = s.size();
        at = end;
        return {s.begin() + i + 3, s.begin() + end};
    }
    return {};
}

const Units& units() {
    static const Units u = [] {
        Units x;
        const std::string here = __FILE__;  // the fixtures live beside bench/
        std::ifstream in(here.substr(0, here.rfind('/')) + "/../tests/data/h264/slices/pyramid.264", std::ios::binary);
        const std::vector<uint8_t> s{std::istreambuf_iterator<char>(in), {}};
        size_t at = 0;
        x.sps = unitAfter(s, at, 7);
        x.pps = unitAfter(s, at, 8);
        x.slice = unitAfter(s, at, 1);
        BitBuffer bb{x.sps.data(), uint32_t(x.sps.size()), uint32_t(x.sps.size() * 8), 0};
        qnvutilRead_SPS(&bb, &x.spsRecord);
        bb = {x.pps.data(), uint32_t(x.pps.size()), uint32_t(x.pps.size() * 8), 0};
        qnvutilRead_PPS(&bb, &x.ppsRecord);
        bb = {x.slice.data(), uint32_t(x.slice.size()), uint32_t(x.slice.size() * 8), 0};
        qnvutilRead_SliceHeader(&bb, &x.spsRecord, &x.ppsRecord, &x.header);
        return x;
    }();
    return u;
}

void BM_H264SpsRead(benchmark::State& state) {
    std::vector<uint8_t> unit = units().sps;
    H264SpsRecord r;
    for (auto _ : state) {
        std::memset(&r, 0, sizeof r);  // the interface asks the caller to clear
        BitBuffer bb{unit.data(), uint32_t(unit.size()), uint32_t(unit.size() * 8), 0};
        benchmark::DoNotOptimize(qnvutilRead_SPS(&bb, &r));
    }
}
BENCHMARK(BM_H264SpsRead);

void BM_H264PpsRead(benchmark::State& state) {
    std::vector<uint8_t> unit = units().pps;
    H264PpsRecord r;
    for (auto _ : state) {
        std::memset(&r, 0, sizeof r);
        BitBuffer bb{unit.data(), uint32_t(unit.size()), uint32_t(unit.size() * 8), 0};
        benchmark::DoNotOptimize(qnvutilRead_PPS(&bb, &r));
    }
}
BENCHMARK(BM_H264PpsRead);

void BM_H264SpsWrite(benchmark::State& state) {
    std::vector<uint8_t> out(QNV_H264_PS_MAX_BYTES);
    for (auto _ : state) benchmark::DoNotOptimize(qnvutilWrite_SPS(&units().spsRecord, out.data()));
}
BENCHMARK(BM_H264SpsWrite);

void BM_H264PpsWrite(benchmark::State& state) {
    std::vector<uint8_t> out(QNV_H264_PS_MAX_BYTES);
    for (auto _ : state) benchmark::DoNotOptimize(qnvutilWrite_PPS(&units().ppsRecord, out.data()));
}
BENCHMARK(BM_H264PpsWrite);

void BM_H264SliceHeaderRead(benchmark::State& state) {
    std::vector<uint8_t> unit = units().slice;
    H264SliceHeader h;
    for (auto _ : state) {
        BitBuffer bb{unit.data(), uint32_t(unit.size()), uint32_t(unit.size() * 8), 0};
        benchmark::DoNotOptimize(qnvutilRead_SliceHeader(&bb, &units().spsRecord, &units().ppsRecord, &h));
    }
}
BENCHMARK(BM_H264SliceHeaderRead);

void BM_H264SliceHeaderWrite(benchmark::State& state) {
    uint8_t bits[256];
    for (auto _ : state) {
        BitBuffer out{bits, sizeof bits, sizeof bits * 8, 0};
        benchmark::DoNotOptimize(qnvutilWrite_SliceHeader(&units().header, &units().spsRecord, &units().ppsRecord, &out));
    }
}
BENCHMARK(BM_H264SliceHeaderWrite);

// The fix of a whole slice unit (CABAC: the data's bytes copied behind the
// new header), against a memcpy of the unit.
void BM_H264SliceFix(benchmark::State& state) {
    const std::vector<uint8_t>& unit = units().slice;
    std::vector<uint8_t> out(unit.size() + 64);
    H264SliceHeader h = units().header;
    h.pic_order_cnt_lsb += 1;
    for (auto _ : state)
        benchmark::DoNotOptimize(qnvutilFix_SliceHeader(unit.data(), uint32_t(unit.size()), &h, &units().spsRecord,
                                                        &units().ppsRecord, nullptr, nullptr, out.data(), uint32_t(out.size())));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(unit.size()));
}
BENCHMARK(BM_H264SliceFix);

void BM_H264SliceMemcpy(benchmark::State& state) {
    const std::vector<uint8_t>& unit = units().slice;
    std::vector<uint8_t> out(unit.size() + 64);
    for (auto _ : state) {
        std::memcpy(out.data(), unit.data(), unit.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(unit.size()));
}
BENCHMARK(BM_H264SliceMemcpy);

}  // namespace
