// Caption and time-code SEI insertion into a 1 MiB frame, each against a
// memmove of the same frame tail in the same run (the insertion's floor).
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kFrame = 1 << 20;

// A valid caption packet with ten triplets.
Bytes captionPacket() {
    Bytes p = {0, 0, 0, 0, 0x61, 0x01, 43, 0x96, 0x69, 43, 0x4F, 0x43, 0x00, 0x01, 0x72, 0xEA};
    for (int i = 0; i < 10; ++i) p.insert(p.end(), {0xFC, 0x80, 0x80});
    p.insert(p.end(), {0x74, 0x00, 0x01, 0});
    uint8_t sum = 0;
    for (size_t i = 7; i + 1 < p.size(); ++i) sum = static_cast<uint8_t>(sum + p[i]);
    p.back() = static_cast<uint8_t>(0x100 - sum);
    return p;
}

// Headers, then one slice filling the frame to 1 MiB with bytes that form
// no start code.
Bytes frameWith(const Bytes& headers, const Bytes& sliceHeader) {
    Bytes f = headers;
    f.insert(f.end(), sliceHeader.begin(), sliceHeader.end());
    std::mt19937 rng(1);
    while (f.size() < kFrame) f.push_back(static_cast<uint8_t>(2 + rng() % 254));
    return f;
}

Bytes lengthPrefixed(std::initializer_list<Bytes> units, size_t total) {
    Bytes f;
    for (const Bytes& u : units) {
        uint32_t n = static_cast<uint32_t>(u.size());
        f.insert(f.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
        f.insert(f.end(), u.begin(), u.end());
    }
    uint32_t slice = static_cast<uint32_t>(total - f.size() - 4);
    f.insert(f.end(), {uint8_t(slice >> 24), uint8_t(slice >> 16), uint8_t(slice >> 8), uint8_t(slice), 0x65, 0x88});
    std::mt19937 rng(1);
    while (f.size() < total) f.push_back(static_cast<uint8_t>(2 + rng() % 254));
    return f;
}

const Bytes kAvcHeaders = {0, 0, 0, 1, 0x09, 0x10,                   // access unit delimiter
                           0, 0, 0, 1, 0x67, 0x42, 0x00, 0x1E,       // SPS
                           0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80};      // PPS
const Bytes kHevcHeaders = {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x01, 0, 0, 0, 1, 0x42, 0x01, 0x01, 0x01,
                            0, 0, 0, 1, 0x44, 0x01, 0xC1, 0x72};

struct Fixture {
    Bytes pristine, buffer;
    DFrame frame{};
    explicit Fixture(Bytes content) : pristine(std::move(content)), buffer(pristine.size() + 4096) {
        std::memcpy(buffer.data(), pristine.data(), pristine.size());
        QxSetLogSink([](uint32_t, const char*, void*) {}, nullptr);
        Bytes p = captionPacket();
        std::memcpy(frame.captionPacket, p.data(), p.size());
        frame.captionSize = static_cast<uint32_t>(p.size());
        frame.frameData = buffer.data();
        frame.frameCapacity = static_cast<uint32_t>(buffer.size());
    }
    // Back to the original frame: its size and its first 512 bytes, which
    // cover the inserted unit and the shifted copy of the slice's start code;
    // beyond them the slice's bytes are shifted, which changes no work.
    void reset() {
        frame.frameSize = static_cast<uint32_t>(pristine.size());
        std::memcpy(buffer.data(), pristine.data(), 512);
    }
};

template <typename Insert>
void runInsertion(benchmark::State& state, Bytes content, Insert insert) {
    Fixture fx(std::move(content));
    for (auto _ : state) {
        fx.reset();
        insert(fx.frame);
        benchmark::DoNotOptimize(fx.buffer.data());
    }
    state.SetBytesProcessed(state.iterations() * int64_t(kFrame));
}

// The memmove an insertion at `pos` of `length` bytes cannot do without.
void runMemmove(benchmark::State& state, Bytes content, uint32_t pos, uint32_t length) {
    Fixture fx(std::move(content));
    for (auto _ : state) {
        fx.reset();
        std::memmove(fx.buffer.data() + pos + length, fx.buffer.data() + pos, fx.frame.frameSize - pos);
        benchmark::DoNotOptimize(fx.buffer.data());
    }
    state.SetBytesProcessed(state.iterations() * int64_t(kFrame));
}

void BM_AvcCaptionsAnnexB(benchmark::State& s) {
    const Bytes p = captionPacket();
    runInsertion(s, frameWith(kAvcHeaders, {0, 0, 0, 1, 0x65, 0x88}),
                 [&](DFrame& f) { qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 0); });
}
void BM_AvcCaptionsAnnexB_Memmove(benchmark::State& s) {
    runMemmove(s, frameWith(kAvcHeaders, {0, 0, 0, 1, 0x65, 0x88}), uint32_t(kAvcHeaders.size()), 47);
}
void BM_AvcCaptionsLengthPrefixed(benchmark::State& s) {
    const Bytes p = captionPacket();
    runInsertion(s, lengthPrefixed({{0x09, 0x10}, {0x67, 0x42, 0x00, 0x1E}, {0x68, 0xCE, 0x38, 0x80}}, kFrame),
                 [&](DFrame& f) { qnvutilAddAVCCaptions(&f, p.data(), uint32_t(p.size()), 1); });
}
void BM_AvcCaptionsLengthPrefixed_Memmove(benchmark::State& s) {
    runMemmove(s, lengthPrefixed({{0x09, 0x10}, {0x67, 0x42, 0x00, 0x1E}, {0x68, 0xCE, 0x38, 0x80}}, kFrame), 22, 49);
}
void BM_Mpeg2Captions(benchmark::State& s) {
    runInsertion(s, frameWith({0, 0, 1, 0xB3, 0x04, 0x00, 0x40, 0x13}, {0, 0, 1, 0, 0, 0x0F}),
                 [](DFrame& f) { qnvutilAddMPEG2Captions(&f); });
}
void BM_Mpeg2Captions_Memmove(benchmark::State& s) {
    runMemmove(s, frameWith({0, 0, 1, 0xB3, 0x04, 0x00, 0x40, 0x13}, {0, 0, 1, 0, 0, 0x0F}), 0, 49);
}
void BM_HevcCaptions(benchmark::State& s) {
    runInsertion(s, frameWith(kHevcHeaders, {0, 0, 0, 1, 0x26, 0x01, 0xAF}),
                 [](DFrame& f) { qnvUtilAddHevcCaptions(&f, 30); });
}
void BM_HevcCaptions_Memmove(benchmark::State& s) {
    runMemmove(s, frameWith(kHevcHeaders, {0, 0, 0, 1, 0x26, 0x01, 0xAF}), uint32_t(kHevcHeaders.size()), 57);
}
void BM_HevcTimeCode(benchmark::State& s) {
    runInsertion(s, frameWith({0, 0, 0, 1, 0x46, 0x01, 0x50}, {0, 0, 0, 1, 0x26, 0x01, 0xAF}), [](DFrame& f) {
        f.frameTimecode = 107892;
        qnvutilAddHEVCTimeCode(&f, 4);
    });
}
void BM_HevcTimeCode_Memmove(benchmark::State& s) {
    runMemmove(s, frameWith({0, 0, 0, 1, 0x46, 0x01, 0x50}, {0, 0, 0, 1, 0x26, 0x01, 0xAF}), 7, 15);
}

BENCHMARK(BM_AvcCaptionsAnnexB);
BENCHMARK(BM_AvcCaptionsAnnexB_Memmove);
BENCHMARK(BM_AvcCaptionsLengthPrefixed);
BENCHMARK(BM_AvcCaptionsLengthPrefixed_Memmove);
BENCHMARK(BM_Mpeg2Captions);
BENCHMARK(BM_Mpeg2Captions_Memmove);
BENCHMARK(BM_HevcCaptions);
BENCHMARK(BM_HevcCaptions_Memmove);
BENCHMARK(BM_HevcTimeCode);
BENCHMARK(BM_HevcTimeCode_Memmove);

}  // namespace
