// H.264 sequence and picture parameter set readers and writers, run from
// the syntax description in h264_syntax.h.
//
// Each reader parses a private copy of the NAL unit with its emulation
// prevention bytes removed, reading with the bit reader's past-end rules, and
// stores one record field per syntax element. Loops whose counts come from
// the stream are bounded by the record's arrays for storing and by the data
// for time: once the position is past the end, every further iteration reads
// the same past-end values, so such iterations are taken in one step.
#include "qnvutil/h264/paramsets.h"

#include <algorithm>

#include <cstring>

#include "foundation/bitio/bitio.h"
#include "foundation/bitio/unescape.h"
#include "qnvutil/h264/h264_syntax.h"
#include "qnvutil/qxutil.h"

namespace qnv {

using syntax::FieldSink;
using syntax::ReadCoder;
using syntax::WriteCoder;

namespace {

// The caller's bytes with emulation prevention removed (foundation/bitio).
using WorkingCopy = UnescapedCopy;

// rbsp_stop_one_bit, then single bits up to a byte boundary (stopping at a
// failed read); the result is the position in bytes.
template <class W>
uint32_t finish(ReadCoder& c, W& stopBit) {
    c.u(1, stopBit, {"rbsp_stop_one_bit"});
    BitBuffer* bb = c.buffer();
    while (bb->bitPos % 8 != 0) {
        if (ReadBit(bb) == 0xFFFFFFFFu) break;
    }
    return bb->bitPos / 8;
}

// Writes one parameter set unit: the description's bits, the stop bit and
// alignment, escaped by EmitNalUnit. 0 when an element is out of its bounds
// or the unit would pass QNV_H264_PS_MAX_BYTES.
template <class Record, class Describe>
uint32_t writeUnit(const Record& record, uint8_t* dst, FieldSink* sink, Describe describe) {
    if (dst == nullptr) return 0;
    uint8_t rbsp[QNV_H264_PS_MAX_BYTES];
    uint8_t unit[QNV_H264_PS_MAX_BYTES * 3 / 2 + 8];
    BitBuffer s{rbsp, sizeof rbsp, sizeof rbsp * 8, 0};
    WriteBits(&s, 32, 1);  // room EmitNalUnit fills with the start code
    WriteCoder c(&s, sink, 32);
    describe(c, record);
    if (c.outOfRange() != 0) return 0;
    // rbsp_trailing_bits here: EmitNalUnit then adds a whole 0x80 byte (its
    // closing for SEI payloads), which a parameter set does not carry and
    // which is dropped below. The byte before it holds the stop bit, so the
    // dropped byte never takes part in emulation prevention.
    WriteBits(&s, 1, 1);
    while (s.bitPos % 8 != 0) WriteBits(&s, 1, 0);
    // guard: one byte for EmitNalUnit's closing; a full buffer means writes were dropped
    if (s.bitPos / 8 + 2 > sizeof rbsp) return 0;
    BitBuffer out{unit, sizeof unit, sizeof unit * 8, 0};
    EmitNalUnit(&s, &out, 0xFFFFFFFFu, 0);
    const uint32_t length = out.bitPos / 8 - 4 - 1;
    // guard: the unit must fit the documented destination size
    if (length > QNV_H264_PS_MAX_BYTES) return 0;
    std::memcpy(dst, unit + 4, length);
    return length;
}

}  // namespace

// Flattened: with the description inlined whole, an SPS reads about a tenth
// faster than through a call per structure (bench_paramsets).
[[gnu::flatten]] uint32_t readH264Sps(BitBuffer* bb, H264SpsRecord* sps, FieldSink* sink) {
    // guard: a null BitBuffer is treated like an empty one.
    if (bb == nullptr || sps == nullptr || bb->sizeBytes == 0) return 0;
    WorkingCopy copy(*bb, false);
    if (!copy.ok()) return 0;
    ReadCoder c(copy.bits(), sink);
    h264::spsPayload(c, *sps);
    const uint32_t consumed = finish(c, sps->rbsp_stop_one_bit);
    bb->bitPos = copy.bits()->bitPos;
    return consumed;
}

uint32_t readH264Pps(BitBuffer* bb, H264PpsRecord* pps, FieldSink* sink) {
    if (bb == nullptr || pps == nullptr) return 0;  // guard: null BitBuffer
    WorkingCopy copy(*bb, true);
    if (!copy.ok()) return 0;
    ReadCoder c(copy.bits(), sink);
    h264::ppsPayload(c, *pps);
    const uint32_t consumed = finish(c, pps->rbsp_stop_one_bit);
    bb->bitPos = copy.bits()->bitPos;
    return consumed;
}

uint32_t writeH264Sps(const H264SpsRecord* sps, uint8_t* dst, FieldSink* sink) {
    if (sps == nullptr) return 0;
    return writeUnit(*sps, dst, sink, [](WriteCoder& c, const H264SpsRecord& r) { h264::spsPayload(c, r); });
}

uint32_t writeH264Pps(const H264PpsRecord* pps, uint8_t* dst, FieldSink* sink) {
    if (pps == nullptr) return 0;
    return writeUnit(*pps, dst, sink, [](WriteCoder& c, const H264PpsRecord& r) { h264::ppsPayload(c, r); });
}

}  // namespace qnv

QNV_BEGIN_C

QNV_API uint32_t qnvutilRead_SPS(BitBuffer* bb, H264SpsRecord* sps) { return qnv::readH264Sps(bb, sps, nullptr); }

QNV_API uint32_t qnvutilRead_PPS(BitBuffer* bb, H264PpsRecord* pps) { return qnv::readH264Pps(bb, pps, nullptr); }

QNV_API uint32_t qnvutilWrite_SPS(const H264SpsRecord* sps, uint8_t* destination) {
    return qnv::writeH264Sps(sps, destination, nullptr);
}

QNV_API uint32_t qnvutilWrite_PPS(const H264PpsRecord* pps, uint8_t* destination) {
    return qnv::writeH264Pps(pps, destination, nullptr);
}

QNV_END_C
