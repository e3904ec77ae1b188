#include "foundation/nalscan/nalscan.h"

#include <initializer_list>
#include <new>

#include "foundation/nalscan/blockscan.h"

namespace qnv {

h264_stream_t* h264_new() { return new (std::nothrow) h264_stream_t{}; }

void h264_free(h264_stream_t* h) { delete h; }

namespace {

using namespace blockscan;

// One unit: the first 00 00 01, then the first 00 00 00 or 00 00 01 after
// it. A unit that starts right at buf (three- or four-byte code, as in every
// step of a walk) skips the first search.
template <class Isa>
inline UnitBounds findUnit(const uint8_t* buf, uint32_t size) {
    if (size < 4) return UnitBounds{0, size};
    uint32_t start;
    if (buf[0] == 0 && buf[1] == 0 && buf[2] == 1) {
        start = 3;
    } else if (buf[0] == 0 && buf[1] == 0 && buf[2] == 0 && buf[3] == 1) {
        start = 4;
    } else {
        const uint32_t code = findFirst<Isa, false>(buf, 0, size);
        if (code == size) return kNoUnit;
        start = code + 3;
    }
    return UnitBounds{start, findFirst<Isa, true>(buf, start, size)};
}

// A step of a walk, kept small so that it needs no saved registers: the
// unit starts right at buf and ends inside the 64 positions after its start
// code, all read in place. kNoUnit when the full search must decide (it is
// never the answer for such a unit).
template <class Isa>
inline UnitBounds stepUnit(const uint8_t* buf, uint32_t size) {
    // guard: the block after a four-byte code lies inside the buffer
    if (size < kBlock + 6 || buf[0] != 0 || buf[1] != 0) return kNoUnit;
    const uint32_t start = buf[2] == 1 ? 3 : buf[2] == 0 && buf[3] == 1 ? 4 : 0;
    if (start == 0) return kNoUnit;
    const uint64_t ends = Isa::pairs(buf + start) & Isa::template thirds<true>(buf + start);
    if (ends == 0) return kNoUnit;
    return UnitBounds{start, start + static_cast<uint32_t>(__builtin_ctzll(ends))};
}

using Kernels = NalUnitWalker::Kernels;

// The kernels of one instruction set, each compiled for it.
#define QNV_SCAN_KERNELS(Isa, attributes)                                                                  \
    attributes __attribute__((noinline)) UnitBounds search##Isa(const uint8_t* buf, uint32_t size) {        \
        return findUnit<Isa>(buf, size);                                                                \
    }                                                                                                   \
    attributes UnitBounds unit##Isa(const uint8_t* buf, uint32_t size) {                                \
        const UnitBounds step = stepUnit<Isa>(buf, size);                                               \
        return step.found() ? step : search##Isa(buf, size);                                            \
    }                                                                                                   \
    attributes uint32_t code##Isa(const uint8_t* buf, uint32_t from, uint32_t size) {                     \
        return findFirst<Isa, false>(buf, from, size);                                                  \
    }                                                                                                   \
    attributes uint64_t ends##Isa(const uint8_t* buf, uint64_t base, uint32_t size) {                     \
        return blockHits<Isa, true>(buf, base, size);                                                   \
    }                                                                                                   \
    attributes Block next##Isa(const uint8_t* buf, uint64_t base, uint32_t size) {                        \
        return nextBlock<Isa>(buf, base, size);                                                         \
    }                                                                                                   \
    constexpr Kernels k##Isa{unit##Isa, code##Isa, ends##Isa, next##Isa};

QNV_SCAN_KERNELS(Portable, [[gnu::flatten]])
#if defined(__x86_64__)
QNV_SCAN_KERNELS(Sse2, [[gnu::flatten]])
QNV_SCAN_KERNELS(Avx2, __attribute__((target("avx2"), flatten)))
QNV_SCAN_KERNELS(Avx512, __attribute__((target("avx512bw"), flatten)))
#endif
#undef QNV_SCAN_KERNELS

const Kernels* variant(ScanVariant v) {
    switch (v) {
        case ScanVariant::kPortable: return &kPortable;
#if defined(__x86_64__)
        case ScanVariant::kSse2: return &kSse2;
        case ScanVariant::kAvx2: return __builtin_cpu_supports("avx2") ? &kAvx2 : nullptr;
        case ScanVariant::kAvx512: return __builtin_cpu_supports("avx512bw") ? &kAvx512 : nullptr;
#endif
        default: return nullptr;
    }
}

const Kernels* best() {
    static const Kernels* const kBest = [] {
        for (ScanVariant v : {ScanVariant::kAvx512, ScanVariant::kAvx2, ScanVariant::kSse2})
            if (const Kernels* k = variant(v)) return k;
        return &kPortable;
    }();
    return kBest;
}

}  // namespace

bool ScanVariantAvailable(ScanVariant v) { return variant(v) != nullptr; }

UnitBounds FindUnitBoundsWith(ScanVariant v, const uint8_t* buf, uint32_t size) { return variant(v)->unit(buf, size); }

UnitBounds FindUnitBounds(const uint8_t* buf, uint32_t size) {
    static const auto unit = best()->unit;
    return unit(buf, size);
}

uint32_t FindStartCode(const uint8_t* buf, uint32_t from, uint32_t size) {
    static const auto code = best()->code;
    return code(buf, from, size);
}

const Kernels* NalUnitWalker::ScanKernels() { return best(); }

const Kernels* NalUnitWalker::ScanKernels(ScanVariant v) { return variant(v); }

int32_t read_nal_unit(h264_stream_t* h, const uint8_t* unit, uint32_t size) {
    // Two header bytes, MSB first; bytes missing from a short unit read as 0.
    const uint32_t b0 = size > 0 ? unit[0] : 0, b1 = size > 1 ? unit[1] : 0;
    h->nal.forbidden_zero_bit = static_cast<int32_t>(b0 >> 7);
    h->nal.nal_unit_type = static_cast<int32_t>((b0 >> 1) & 63);
    h->nal.nuh_layer_id = static_cast<int32_t>((b0 & 1) << 5 | b1 >> 3);
    h->nal.nuh_temporal_id = static_cast<int32_t>(b1 & 7) - 1;
    return static_cast<int32_t>(size);
}

}  // namespace qnv
