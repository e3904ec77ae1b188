// HEVC parameter-set reading and writing, and the frame scan.
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "qnvutil/hevc.h"

namespace {

// The sample stream's bytes and its first SPS (NAL header first).
struct Sample {
    std::vector<uint8_t> stream, sps;
    Sample() {
        std::string here = __FILE__;  // the sample stream lives beside bench/
        std::ifstream in(here.substr(0, here.rfind('/')) + "/../samples/sample.265", std::ios::binary);
        stream.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        for (size_t i = 0; i + 4 < stream.size(); ++i) {
            if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1 && ((stream[i + 3] >> 1) & 63) == 33) {
                size_t end = i + 3;
                while (end + 2 < stream.size() && !(stream[end] == 0 && stream[end + 1] == 0 && stream[end + 2] <= 1)) ++end;
                sps.assign(stream.begin() + i + 3, stream.begin() + end);
                break;
            }
        }
        sps.push_back(0);
    }
};

const Sample& sample() {
    static Sample s;
    return s;
}

void BM_ReadSps(benchmark::State& state) {
    std::vector<uint8_t> sps = sample().sps;
    auto record = std::make_unique<HevcSpsRecord>();
    for (auto _ : state) {
        BitBuffer bb{sps.data(), static_cast<uint32_t>(sps.size()), static_cast<uint32_t>(sps.size() - 1) * 8, 0};
        benchmark::DoNotOptimize(qnvutilRead_HEVC_SPS(&bb, record.get(), nullptr, 0));
    }
}
BENCHMARK(BM_ReadSps);

void BM_WriteSps(benchmark::State& state) {
    std::vector<uint8_t> sps = sample().sps;
    auto record = std::make_unique<HevcSpsRecord>();
    BitBuffer bb{sps.data(), static_cast<uint32_t>(sps.size()), static_cast<uint32_t>(sps.size() - 1) * 8, 0};
    qnvutilRead_HEVC_SPS(&bb, record.get(), nullptr, 0);
    std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
    for (auto _ : state) benchmark::DoNotOptimize(qnvutilWrite_HEVC_SPS(record.get(), out.data()));
}
BENCHMARK(BM_WriteSps);

void BM_FindNalUnitsHevc(benchmark::State& state) {
    const std::vector<uint8_t>& stream = sample().stream;
    auto vps = std::make_unique<HevcVpsRecord>();
    auto sps = std::make_unique<HevcSpsRecord>();
    auto pps = std::make_unique<HevcPpsRecord>();
    for (auto _ : state) {
        HevcFrameContext frame{};
        frame.data = stream.data();
        frame.size = static_cast<uint32_t>(stream.size());
        benchmark::DoNotOptimize(qnvutilFindNalUnitsHevc(&frame, vps.get(), sps.get(), pps.get(), nullptr, nullptr,
                                                         nullptr, nullptr, nullptr, nullptr));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
}
BENCHMARK(BM_FindNalUnitsHevc);

}  // namespace
