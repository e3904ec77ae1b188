// H.264 slice headers: reading, writing and rewriting a coded slice unit
// with a changed header, run from the syntax description in h264_syntax.h.
//
// Nothing here allocates: a header is read from, and written into, a window
// of kHeaderWindow unescaped bytes on the stack, and a rewritten unit is
// produced in one streaming pass over the source (plus, for CAVLC, one pass
// that finds the stop bit).
#include "qnvutil/h264/slices.h"

#include <cstring>

#include "foundation/nal/nal.h"
#include "qnvutil/h264/h264_syntax.h"

namespace qnv {

using syntax::FieldSink;
using syntax::ReadCoder;
using syntax::WriteCoder;

namespace h264 {

namespace {

// Ceil(Log2(PicSizeInMapUnits / SliceGroupChangeRate + 1)) with exact
// division: the least b with 2^b * rate >= units + rate.
uint32_t changeCycleBits(uint64_t units, uint64_t rate) {
    uint32_t b = 0;
    while (b < 40 && (uint64_t(1) << b) * rate < units + rate) ++b;
    return b;
}

}  // namespace

bool sliceContext(const H264SpsRecord& sps, const H264PpsRecord& pps, SliceContext& x) {
    // guard: lengths of fixed-length elements come from the records; refuse
    // records whose values no stream could carry.
    if (sps.log2_max_frame_num_minus4 < 0 || sps.log2_max_frame_num_minus4 > 12) return false;
    if (sps.pic_order_cnt_type < 0 || sps.pic_order_cnt_type > 2) return false;
    if (sps.pic_order_cnt_type == 0 &&
        (sps.log2_max_pic_order_cnt_lsb_minus4 < 0 || sps.log2_max_pic_order_cnt_lsb_minus4 > 12))
        return false;
    x = {};
    x.separateColourPlane = sps.chroma_format_idc == 3 && sps.separate_colour_plane_flag == 1;
    x.frameNumBits = static_cast<uint32_t>(sps.log2_max_frame_num_minus4) + 4;
    x.frameMbsOnly = sps.frame_mbs_only_flag != 0;
    x.pocType = static_cast<uint32_t>(sps.pic_order_cnt_type);
    x.pocLsbBits = x.pocType == 0 ? static_cast<uint32_t>(sps.log2_max_pic_order_cnt_lsb_minus4) + 4 : 0;
    x.deltaPocAlwaysZero = sps.delta_pic_order_always_zero_flag != 0;
    x.chromaArrayType = x.separateColourPlane ? 0 : static_cast<uint32_t>(sps.chroma_format_idc);
    x.bottomFieldPicOrder = pps.bottom_field_pic_order_in_frame_present_flag != 0;
    x.redundantPicCnt = pps.redundant_pic_cnt_present_flag != 0;
    x.l0Default = static_cast<uint32_t>(pps.num_ref_idx_l0_default_active_minus1);
    x.l1Default = static_cast<uint32_t>(pps.num_ref_idx_l1_default_active_minus1);
    x.weightedPred = pps.weighted_pred_flag != 0;
    x.weightedBipred = static_cast<uint32_t>(pps.weighted_bipred_idc);
    x.cabac = pps.entropy_coding_mode_flag != 0;
    x.deblockingControl = pps.deblocking_filter_control_present_flag != 0;
    if (pps.num_slice_groups_minus1 > 0 && pps.slice_group_map_type >= 3 && pps.slice_group_map_type <= 5) {
        const uint64_t units =
            (uint64_t(uint32_t(sps.pic_width_in_mbs_minus1)) + 1) * (uint64_t(uint32_t(sps.pic_height_in_map_units_minus1)) + 1);
        x.changeCycleBits = changeCycleBits(units, uint64_t(uint32_t(pps.slice_group_change_rate_minus1)) + 1);
        if (x.changeCycleBits > 32) return false;
    }
    return true;
}

}  // namespace h264

namespace {

using RbspBytes = nal::RbspReader;

// Escapes RBSP bytes into a unit (the standard form), stopping at the capacity.
class EscapedUnit {
public:
    EscapedUnit(uint8_t* dst, uint32_t capacity) : dst_(dst), capacity_(capacity) {}
    void put(uint8_t b) {
        escaper_.put(b, [this](uint8_t e) { raw(e); });
    }
    // A unit may not end in 00: such a unit (trailing cabac_zero_words) gets
    // a closing 03.
    void finish() {
        escaper_.finish([this](uint8_t e) { raw(e); });
    }
    bool overflow() const { return length_ > capacity_; }
    uint32_t length() const { return length_; }

private:
    void raw(uint8_t b) {
        // guard: nothing is written past the destination's capacity
        if (length_ < capacity_) dst_[length_] = b;
        ++length_;
    }
    nal::Escaper escaper_;
    uint8_t* dst_;
    uint32_t capacity_;
    uint32_t length_ = 0;
};

// Bits MSB first into an escaped unit.
class BitsOut {
public:
    explicit BitsOut(EscapedUnit& out) : out_(out) {}
    void put(uint32_t value, uint32_t n) {  // n <= 24
        acc_ = acc_ << n | (value & ((1u << n) - 1u));
        bits_ += n;
        while (bits_ >= 8) {
            bits_ -= 8;
            out_.put(static_cast<uint8_t>(acc_ >> bits_));
        }
    }
    uint32_t pending() const { return bits_; }

private:
    EscapedUnit& out_;
    uint64_t acc_ = 0;
    uint32_t bits_ = 0;
};

constexpr uint32_t kHeaderWindow = 2048;
constexpr uint32_t kFirstWindow = 96;

bool isCodedSlice(uint32_t type) { return type == 1 || type == 5; }

uint32_t readHeader(const uint8_t* unit, uint32_t size, const H264SpsRecord& sps, const H264PpsRecord& pps,
                    H264SliceHeader& slice, bool checkIds, FieldSink* sink) {
    std::memset(&slice, 0, sizeof slice);
    if (size < 2 || !isCodedSlice(unit[0] & 31u)) return kSliceFailed;

    h264::SliceContext x;
    if (!h264::sliceContext(sps, pps, x)) return kSliceFailed;
    // Most headers fit the first bytes: those are tried first, and the whole
    // window only when the header runs past them.
    uint8_t rbsp[kHeaderWindow + 8];
    auto parse = [&](uint32_t window, FieldSink* s, bool& whole) -> uint32_t {
        std::memset(&slice, 0, sizeof slice);
        RbspBytes source(unit, size);
        uint32_t n = 0;
        uint8_t b = 0;
        while (n < window && source.next(b)) rbsp[n++] = b;
        whole = n < window || !source.next(b);
        std::memset(rbsp + n, 0, 8);  // what reads past sizeBits may touch
        BitBuffer bb{rbsp, n + 8, n * 8, 0};
        ReadCoder c(&bb, s);
        if (!h264::sliceHeader(c, slice, x) || c.outOfRange() != 0 || bb.bitPos > bb.sizeBits) return kSliceFailed;
        return bb.bitPos;
    };
    bool whole = false;
    uint32_t bits = kSliceFailed;
    if (sink == nullptr) bits = parse(kFirstWindow, nullptr, whole);
    if (bits == kSliceFailed && !whole) bits = parse(kHeaderWindow, sink, whole);
    if (bits == kSliceFailed) return kSliceFailed;
    if (checkIds && (static_cast<uint32_t>(slice.pic_parameter_set_id) != static_cast<uint32_t>(pps.pic_parameter_set_id) ||
                     pps.seq_parameter_set_id != sps.seq_parameter_set_id))
        return kSliceFailed;
    slice.header_bits = static_cast<int32_t>(bits);
    return bits;
}

uint32_t writeHeader(const H264SliceHeader& slice, const H264SpsRecord& sps, const H264PpsRecord& pps, BitBuffer* out,
                     FieldSink* sink) {
    h264::SliceContext x;
    if (!isCodedSlice(static_cast<uint32_t>(slice.nal_unit_type)) || !h264::sliceContext(sps, pps, x)) return 0;
    const uint32_t start = out->bitPos;
    WriteCoder c(out, sink, start);
    if (!h264::sliceHeader(c, slice, x) || c.outOfRange() != 0) return 0;
    // guard: writes past sizeBytes were dropped
    if (out->sizeBytes != 0 && uint64_t(out->bitPos) > uint64_t(out->sizeBytes) * 8) return 0;
    return out->bitPos - start;
}

// Where the CAVLC slice data ends: the bit position of the rbsp_stop_one_bit
// (the last set bit of the unit), or 0 when there is none.
uint64_t stopBitPosition(const uint8_t* unit, uint32_t size) {
    RbspBytes source(unit, size);
    uint64_t index = 0, lastIndex = 0;
    uint8_t lastByte = 0;
    for (uint8_t b; source.next(b); ++index) {
        if (b != 0) {
            lastIndex = index;
            lastByte = b;
        }
    }
    if (lastByte == 0) return 0;
    return lastIndex * 8 + 7 - static_cast<uint32_t>(__builtin_ctz(lastByte));
}

}  // namespace

uint32_t readSliceHeader(BitBuffer* bb, const H264SpsRecord* sps, const H264PpsRecord* pps, H264SliceHeader* slice,
                         FieldSink* sink) {
    if (bb == nullptr || bb->data == nullptr || sps == nullptr || pps == nullptr || slice == nullptr)
        return kSliceFailed;
    // guard: the unit is the whole bytes from bitPos to sizeBits, within sizeBytes
    if (bb->bitPos % 8 != 0 || bb->bitPos >= bb->sizeBits) return kSliceFailed;
    uint64_t end = bb->sizeBits / 8;
    if (bb->sizeBytes != 0 && end > bb->sizeBytes) end = bb->sizeBytes;
    if (end <= bb->bitPos / 8) return kSliceFailed;
    const uint8_t* unit = bb->data + bb->bitPos / 8;
    return readHeader(unit, static_cast<uint32_t>(end - bb->bitPos / 8), *sps, *pps, *slice, true, sink);
}

uint32_t writeSliceHeader(const H264SliceHeader* slice, const H264SpsRecord* sps, const H264PpsRecord* pps,
                          BitBuffer* out, FieldSink* sink) {
    if (slice == nullptr || sps == nullptr || pps == nullptr || out == nullptr || out->data == nullptr) return 0;
    return writeHeader(*slice, *sps, *pps, out, sink);
}

uint32_t fixSliceHeader(const uint8_t* unit, uint32_t unitSize, const H264SliceHeader* slice, const H264SpsRecord* sps,
                        const H264PpsRecord* pps, const H264SpsRecord* oldSps, const H264PpsRecord* oldPps,
                        uint8_t* dst, uint32_t capacity) {
    if (unit == nullptr || slice == nullptr || sps == nullptr || pps == nullptr || dst == nullptr) return kSliceFailed;
    // guard: the rewrite streams from the source into the destination
    if (dst < unit + unitSize && unit < dst + capacity) return kSliceFailed;

    H264SliceHeader old;
    const H264SpsRecord& readSps = oldSps ? *oldSps : *sps;
    const H264PpsRecord& readPps = oldPps ? *oldPps : *pps;
    const uint32_t oldBits = readHeader(unit, unitSize, readSps, readPps, old, false, nullptr);
    if (oldBits == kSliceFailed) return kSliceFailed;

    uint8_t header[kHeaderWindow] = {};
    BitBuffer hb{header, sizeof header, sizeof header * 8, 0};
    const uint32_t newBits = writeHeader(*slice, *sps, *pps, &hb, nullptr);
    if (newBits == 0) return kSliceFailed;

    EscapedUnit out(dst, capacity);
    BitsOut bits(out);
    for (uint32_t i = 0; i < newBits / 8; ++i) bits.put(header[i], 8);
    if (newBits % 8) bits.put(header[newBits / 8] >> (8 - newBits % 8), newBits % 8);

    RbspBytes source(unit, unitSize);
    uint8_t b = 0;
    // guard: the entropy coder of the data is the old PPS's
    if ((readPps.entropy_coding_mode_flag != 0) != (pps->entropy_coding_mode_flag != 0)) return kSliceFailed;
    if (pps->entropy_coding_mode_flag != 0) {
        // cabac_alignment_one_bit up to a byte, then the data's bytes as they are
        while (bits.pending() != 0) bits.put(1, 1);
        const uint32_t dataByte = (oldBits + 7) / 8;
        for (uint32_t i = 0; i < dataByte; ++i) source.next(b);
        while (source.next(b)) out.put(b);
    } else {
        const uint64_t stop = stopBitPosition(unit, unitSize);
        if (stop < oldBits) return kSliceFailed;
        // the data bits [oldBits, stop), then the stop bit and alignment
        uint64_t at = 0;
        while (at + 8 <= oldBits && source.next(b)) at += 8;
        while (at < stop && source.next(b)) {
            const uint32_t from = at < oldBits ? static_cast<uint32_t>(oldBits - at) : 0;
            const uint32_t to = stop - at < 8 ? static_cast<uint32_t>(stop - at) : 8;
            if (to > from) bits.put(static_cast<uint32_t>(b >> (8 - to)) & ((1u << (to - from)) - 1u), to - from);
            at += 8;
        }
        bits.put(1, 1);
        while (bits.pending() != 0) bits.put(0, 1);
    }
    out.finish();
    if (out.overflow()) return kSliceNoRoom;
    return out.length();
}

}  // namespace qnv

QNV_BEGIN_C

QNV_API uint32_t qnvutilRead_SliceHeader(BitBuffer* bb, const H264SpsRecord* sps, const H264PpsRecord* pps,
                                         H264SliceHeader* slice) {
    return qnv::readSliceHeader(bb, sps, pps, slice, nullptr);
}

QNV_API uint32_t qnvutilWrite_SliceHeader(const H264SliceHeader* slice, const H264SpsRecord* sps,
                                          const H264PpsRecord* pps, BitBuffer* out) {
    return qnv::writeSliceHeader(slice, sps, pps, out, nullptr);
}

QNV_API uint32_t qnvutilFix_SliceHeader(const uint8_t* unit, uint32_t unitSize, const H264SliceHeader* slice,
                                        const H264SpsRecord* sps, const H264PpsRecord* pps,
                                        const H264SpsRecord* oldSps, const H264PpsRecord* oldPps,
                                        uint8_t* destination, uint32_t capacity) {
    return qnv::fixSliceHeader(unit, unitSize, slice, sps, pps, oldSps, oldPps, destination, capacity);
}

QNV_END_C
