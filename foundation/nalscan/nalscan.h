// Annex B NAL unit scanner used by the HEVC-facing walks over a frame.
//
// It keeps the shape of a general bitstream reader (a context per walk, a
// start-code search, a per-unit parse) with two differences the callers rely
// on: find_nal_unit reports the last unit of a buffer like any other, and
// read_nal_unit reads the two-byte HEVC NAL unit header.
//
// These names are internal to libqnvutil.so and never exported, so they
// cannot clash with another bitstream library loaded in the same process.
#ifndef QNVUTIL_FOUNDATION_NALSCAN_H
#define QNVUTIL_FOUNDATION_NALSCAN_H

#include <cstdint>

#include "foundation/nalscan/blockscan.h"

namespace qnv {

struct nal_header_t {
    int32_t forbidden_zero_bit;
    int32_t nal_unit_type;  // HEVC type, 0..63
    int32_t nuh_layer_id;
    int32_t nuh_temporal_id;  // coded value minus 1
};

// Parsing context of one walk. Only the NAL header is kept: no caller uses
// parameter sets, slice headers or SEI messages from it.
struct h264_stream_t {
    nal_header_t nal;
};

// A zeroed context, or null when memory is short.
h264_stream_t* h264_new();
void h264_free(h264_stream_t* h);

// Where find_nal_unit finds a unit (returned in two registers); start
// above end when there is none.
struct UnitBounds {
    uint64_t start, end;
    bool found() const { return start <= end; }
};
constexpr UnitBounds kNoUnit{1, 0};
UnitBounds FindUnitBounds(const uint8_t* buf, uint32_t size);

// The first j >= from with buf[j, j + 3) = 00 00 01 and j + 2 < size, or
// size when there is none.
uint32_t FindStartCode(const uint8_t* buf, uint32_t from, uint32_t size);

// Finds the next NAL unit in buf[0, size):
//  - size < 4: the whole buffer is one unit (start 0, end size), result size;
//  - no 00 00 01 start code: result 0, *nal_start and *nal_end untouched;
//  - otherwise *nal_start follows the start code, *nal_end is the first
//    following 00 00 00 or 00 00 01 (or size), result *nal_end - *nal_start.
// A start code cut off by the end of the buffer is not recognised. Inline,
// so that a walk keeps the bounds in registers from one unit to the next.
inline int32_t find_nal_unit(const uint8_t* buf, uint32_t size, int32_t* nal_start, int32_t* nal_end) {
    const UnitBounds b = FindUnitBounds(buf, size);
    if (!b.found()) return 0;
    *nal_start = static_cast<int32_t>(b.start);
    *nal_end = static_cast<int32_t>(b.end);
    return static_cast<int32_t>(b.end - b.start);
}

// Reads the two-byte HEVC header of the unit at `unit` (no start code) into
// h->nal; bytes missing from a unit shorter than 2 read as 0. Returns size.
int32_t read_nal_unit(h264_stream_t* h, const uint8_t* unit, uint32_t size);

// The instruction sets find_nal_unit can run on; it takes the widest the
// processor has; tests run each one (FindUnitBoundsWith, NalUnitWalker).
enum class ScanVariant { kPortable, kSse2, kAvx2, kAvx512 };

// The units of one buffer as a walk of find_nal_unit calls at rising
// offsets finds them, without searching again from each offset: the ends of
// the current 64-byte block (at an aligned address) are kept as a mask, so
// that a short unit costs a few instructions. find(offset) gives what find_nal_unit(buf + offset,
// size - offset, ...) gives, with the bounds counted from buf; offsets must
// not decrease from call to call, and the bytes must not change meanwhile.
class NalUnitWalker {
public:
    NalUnitWalker(const uint8_t* buf, uint32_t size) : NalUnitWalker(ScanKernels(), buf, size) {}
    // On the given instruction set, which must be available.
    NalUnitWalker(ScanVariant v, const uint8_t* buf, uint32_t size) : NalUnitWalker(ScanKernels(v), buf, size) {}

    UnitBounds find(uint32_t offset) {
        if (size_ < uint64_t(offset) + 4) return UnitBounds{offset, size_};  // also: past the end, no unit
        const uint64_t start = findStart(offset);
        if (start > size_) return kNoUnit;
        return UnitBounds{start, first<false>(start)};
    }

    // The start find(offset) reports, without looking for the unit's end;
    // above size when there is no unit. For fewer than 4 bytes from offset,
    // offset itself.
    uint64_t findStart(uint32_t offset) {
        if (size_ < uint64_t(offset) + 4) return offset;
        // A walk mostly asks at a start code; finding it by branch lets the
        // search for the end start at once.
        const uint8_t* p = buf_ + offset;
        uint64_t code;
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) {
            code = offset;
        } else if (p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1) {
            code = offset + 1;
        } else {
            code = first<true>(offset);
            if (code >= size_) return size_ + 1;
        }
        return code + 3;
    }

    // One instruction set's scans (blockscan.h): a unit for find_nal_unit,
    // the ends of the block at base, and the next block with a zero pair.
    struct Kernels {
        UnitBounds (*unit)(const uint8_t* buf, uint32_t size);
        uint32_t (*code)(const uint8_t* buf, uint32_t from, uint32_t size);
        uint64_t (*ends)(const uint8_t* buf, uint64_t base, uint32_t size);
        blockscan::Block (*next)(const uint8_t* buf, uint64_t base, uint32_t size);
    };
    static const Kernels* ScanKernels();  // the widest the processor has
    static const Kernels* ScanKernels(ScanVariant v);

private:
    NalUnitWalker(const Kernels* k, const uint8_t* buf, uint32_t size) : buf_(buf), size_(size), kernels_(k) {}

    // First position j >= from of an end (with kCodes: of a 00 00 01), or
    // size. The next block's address comes from the kept block's, not from
    // `from`, so that loading it need not wait for the unit before.
    template <bool kCodes>
    uint64_t first(uint64_t from) {
        if (from + 2 >= size_) return size_;
        if (from - base_ >= 128) {  // a jump ahead, or the first call
            base_ = from - (reinterpret_cast<uintptr_t>(buf_ + from) & 63);
            ends_ = kernels_->ends(buf_, base_, static_cast<uint32_t>(size_));
        }
        for (;;) {
            if (from - base_ < 64) {
                for (uint64_t m = ends_ & (~uint64_t(0) << (from - base_)); m != 0; m &= m - 1) {
                    const uint64_t j = base_ + static_cast<uint32_t>(__builtin_ctzll(m));
                    if (!kCodes || buf_[j + 2] == 1) return j;
                }
            }
            const blockscan::Block b = kernels_->next(buf_, base_ + 64, static_cast<uint32_t>(size_));
            if (b.base + 2 >= size_) return size_;
            base_ = b.base;
            ends_ = b.ends;
            if (from < base_) from = base_;
        }
    }

    const uint8_t* buf_;
    uint64_t size_;
    const Kernels* kernels_;
    uint64_t base_ = uint64_t(0) - 128;  // the block whose ends are kept (none yet); may lie before buf
    uint64_t ends_ = 0;
};

bool ScanVariantAvailable(ScanVariant v);
// FindUnitBounds on the given variant, which must be available.
UnitBounds FindUnitBoundsWith(ScanVariant v, const uint8_t* buf, uint32_t size);


}  // namespace qnv

#endif
