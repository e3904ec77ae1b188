// Sequence parameter set reads against GStreamer's codecparsers (when the
// benchmark is built with them), side by side on the same units: H.264 SPS
// from the fixtures, HEVC SPS from the sample stream and the fixtures. Our
// side clears the record first, as the interface requires of its callers.
// Times are per 16 calls.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "qnvutil/h264.h"
#include "qnvutil/hevc.h"

#if defined(QNV_BENCH_GST)
#include <gst/codecparsers/gsth264parser.h>
#include <gst/codecparsers/gsth265parser.h>
#endif

namespace {

std::vector<uint8_t> readFile(const std::string& relative) {
    std::string here = __FILE__;
    std::ifstream in(here.substr(0, here.rfind('/')) + "/../" + relative, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The first unit of the stream whose type (H.264: low 5 bits; HEVC: bits
// 1-6 of the first header byte) is `type`, with its start code.
std::vector<uint8_t> firstUnit(const std::vector<uint8_t>& s, bool hevc, unsigned type) {
    for (size_t i = 0; i + 4 < s.size(); ++i) {
        if (s[i] != 0 || s[i + 1] != 0 || s[i + 2] != 1) continue;
        const unsigned t = hevc ? (s[i + 3] >> 1) & 63 : s[i + 3] & 31;
        if (t != type) continue;
        size_t end = i + 3;
        while (end + 2 < s.size() && !(s[end] == 0 && s[end + 1] == 0 && s[end + 2] <= 1)) ++end;
        if (end + 2 >= s.size()) end = s.size();
        return std::vector<uint8_t>(s.begin() + i, s.begin() + end);
    }
    return {};
}

// Calls per timed region, so that reading the clock weighs little.
constexpr int kBatch = 16;

// range(0) picks the stream.
const char* const kH264Streams[] = {"tests/data/h264/high_vui.264", "tests/data/h264/main_1080_slices.264",
                                    "tests/data/h264/high_hrd_vbr_cqm.264"};
const char* const kHevcStreams[] = {"samples/sample.265", "tests/data/hevc/main10.265", "tests/data/hevc/hrd.265"};

void BM_H264SpsVsGStreamer(benchmark::State& state) {
    std::vector<uint8_t> unit = firstUnit(readFile(kH264Streams[state.range(0)]), false, 7);
    const uint32_t n = static_cast<uint32_t>(unit.size() - 3);
    unit.push_back(0);  // the byte readers may look at after the data
    auto record = std::make_unique<H264SpsRecord>();
    auto ours = [&] {
        for (int k = 0; k < kBatch; ++k) {
            std::memset(record.get(), 0, sizeof(H264SpsRecord));
            BitBuffer bb{unit.data() + 3, n, n * 8, 0};
            benchmark::DoNotOptimize(qnvutilRead_SPS(&bb, record.get()));
        }
    };
#if defined(QNV_BENCH_GST)
    GstH264NalParser* parser = gst_h264_nal_parser_new();
    GstH264NalUnit nalu;
    gst_h264_parser_identify_nalu_unchecked(parser, unit.data(), 0, n + 3, &nalu);
    GstH264SPS sps;
    bench::sideBySide(
        state, [] {}, ours, [&] {
            for (int k = 0; k < kBatch; ++k) benchmark::DoNotOptimize(gst_h264_parser_parse_sps(parser, &nalu, &sps));
        });
    gst_h264_sps_clear(&sps);
    gst_h264_nal_parser_free(parser);
#else
    bench::sideBySide(state, [] {}, ours, ours);
#endif
    state.counters["width_mbs"] = record->pic_width_in_mbs_minus1 + 1;
}
BENCHMARK(BM_H264SpsVsGStreamer)->DenseRange(0, 2)->UseManualTime();

void BM_HevcSpsVsGStreamer(benchmark::State& state) {
    std::vector<uint8_t> unit = firstUnit(readFile(kHevcStreams[state.range(0)]), true, 33);
    const uint32_t n = static_cast<uint32_t>(unit.size() - 3);
    unit.push_back(0);
    auto record = std::make_unique<HevcSpsRecord>();
    auto ours = [&] {
        for (int k = 0; k < kBatch; ++k) {
            std::memset(record.get(), 0, sizeof(HevcSpsRecord));
            BitBuffer bb{unit.data() + 3, n, n * 8, 0};
            benchmark::DoNotOptimize(qnvutilRead_HEVC_SPS(&bb, record.get(), nullptr, 0));
        }
    };
#if defined(QNV_BENCH_GST)
    GstH265Parser* parser = gst_h265_parser_new();
    GstH265NalUnit nalu;
    gst_h265_parser_identify_nalu_unchecked(parser, unit.data(), 0, n + 3, &nalu);
    auto sps = std::make_unique<GstH265SPS>();
    bench::sideBySide(
        state, [] {}, ours,
        [&] {
            for (int k = 0; k < kBatch; ++k)
                benchmark::DoNotOptimize(gst_h265_parser_parse_sps(parser, &nalu, sps.get(), TRUE));
        });
    gst_h265_parser_free(parser);
#else
    bench::sideBySide(state, [] {}, ours, ours);
#endif
    state.counters["width"] = record->pic_width_in_luma_samples;
}
BENCHMARK(BM_HevcSpsVsGStreamer)->DenseRange(0, 2)->UseManualTime();

}  // namespace
