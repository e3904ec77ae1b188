// Caption and time-code SEI insertion into frames of 50 KiB and 1 MiB, each
// side by side with a memmove of the same frame tail (the insertion's floor).
// Eight frames per timed region; they are reset outside it.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bench/ratio.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"

namespace {

using Bytes = std::vector<uint8_t>;
size_t kFrame = 1 << 20;  // set by each benchmark from range(0)

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

constexpr int kFrames = 8;

// range(0): frame bytes. `insert` (which returns how far it moved the
// tail) against a memmove of the tail from `pos` by the same distance: the
// distance decides how fast a memmove runs.
template <typename Insert>
void sideBySide(benchmark::State& state, Bytes (*content)(), uint32_t pos, Insert insert) {
    kFrame = static_cast<size_t>(state.range(0));
    const Bytes c = content();
    std::vector<std::unique_ptr<Fixture>> fx;
    for (int i = 0; i < kFrames; ++i) fx.push_back(std::make_unique<Fixture>(c));
    fx[0]->reset();
    const uint32_t shift = insert(fx[0]->frame);
    bench::sideBySide(
        state, [&] { for (auto& f : fx) f->reset(); },
        [&] { for (auto& f : fx) insert(f->frame); },
        [&] {
            for (auto& f : fx)
                std::memmove(f->buffer.data() + pos + shift, f->buffer.data() + pos, f->frame.frameSize - pos);
        });
    state.SetBytesProcessed(state.iterations() * int64_t(kFrame) * kFrames);
    state.counters["shift"] = shift;
}

// The growth of frameSize by an insertion that updates it.
template <typename Insert>
uint32_t grown(DFrame& f, Insert insert) {
    const uint32_t before = f.frameSize;
    insert(f);
    return f.frameSize - before;
}

Bytes avcAnnexB() { return frameWith(kAvcHeaders, {0, 0, 0, 1, 0x65, 0x88}); }
Bytes avcLengthPrefixed() {
    return lengthPrefixed({{0x09, 0x10}, {0x67, 0x42, 0x00, 0x1E}, {0x68, 0xCE, 0x38, 0x80}}, kFrame);
}
Bytes mpeg2() { return frameWith({0, 0, 1, 0xB3, 0x04, 0x00, 0x40, 0x13}, {0, 0, 1, 0, 0, 0x0F}); }
Bytes hevc() { return frameWith(kHevcHeaders, {0, 0, 0, 1, 0x26, 0x01, 0xAF}); }
Bytes hevcTimeCode() { return frameWith({0, 0, 0, 1, 0x46, 0x01, 0x50}, {0, 0, 0, 1, 0x26, 0x01, 0xAF}); }

void BM_AvcCaptionsAnnexB(benchmark::State& s) {
    const Bytes p = captionPacket();
    sideBySide(s, avcAnnexB, uint32_t(kAvcHeaders.size()), [&](DFrame& f) {
        return grown(f, [&](DFrame& g) { qnvutilAddAVCCaptions(&g, p.data(), uint32_t(p.size()), 0); });
    });
}
void BM_AvcCaptionsLengthPrefixed(benchmark::State& s) {
    const Bytes p = captionPacket();
    sideBySide(s, avcLengthPrefixed, 22, [&](DFrame& f) {
        return grown(f, [&](DFrame& g) { qnvutilAddAVCCaptions(&g, p.data(), uint32_t(p.size()), 1); });
    });
}
void BM_Mpeg2Captions(benchmark::State& s) {
    sideBySide(s, mpeg2, 0, [](DFrame& f) { return grown(f, [](DFrame& g) { qnvutilAddMPEG2Captions(&g); }); });
}
void BM_HevcCaptions(benchmark::State& s) {
    sideBySide(s, hevc, uint32_t(kHevcHeaders.size()), [](DFrame& f) { return qnvUtilAddHevcCaptions(&f, 30); });
}
void BM_HevcTimeCode(benchmark::State& s) {
    sideBySide(s, hevcTimeCode, 7, [](DFrame& f) {
        f.frameTimecode = 107892;
        return grown(f, [](DFrame& g) { qnvutilAddHEVCTimeCode(&g, 4); });
    });
}

void frameSizes(benchmark::internal::Benchmark* b) {
    b->Arg(50 << 10)->Arg(1 << 20)->UseManualTime()->Unit(benchmark::kMicrosecond);
}
BENCHMARK(BM_AvcCaptionsAnnexB)->Apply(frameSizes);
BENCHMARK(BM_AvcCaptionsLengthPrefixed)->Apply(frameSizes);
BENCHMARK(BM_Mpeg2Captions)->Apply(frameSizes);
BENCHMARK(BM_HevcCaptions)->Apply(frameSizes);
BENCHMARK(BM_HevcTimeCode)->Apply(frameSizes);

}  // namespace
