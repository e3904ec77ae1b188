// HEVC VPS, SPS and PPS: the readers' common frame (scratch copy, escape
// removal, NAL header, trailing-bit judgement, configuration merges) and the
// writers, both around the syntax of hevc_syntax.h.
#include <cstring>

#include "foundation/nal/nal.h"
#include "qnvutil/hevc/hevc_internal.h"

namespace qnv::hevc {

namespace {

constexpr uint32_t kVpsType = nal::hevc::kVps, kSpsType = nal::hevc::kSps, kPpsType = nal::hevc::kPps;

struct UnitKind {
    const char* label;        // "VPS", "SPS", "PPS" in the end-of-unit messages
    uint32_t type;            // nal_unit_type
    uint32_t unescapeFrom;    // first byte a 00 00 03 may start at
    uint32_t unescapeAbove;   // escapes are removed only when the unit has more bytes than this
    bool endBelowOnly;        // SPS: only a position below the end is a length error
};

constexpr UnitKind kVps{"VPS", kVpsType, 0, 2, false};
constexpr UnitKind kSps{"SPS", kSpsType, 3, 2, true};
constexpr UnitKind kPps{"PPS", kPpsType, 3, 5, false};

void reportWrongType(const UnitKind& kind, uint32_t type) {
    if (kind.type == kVpsType) ErrOut("Not a vps NAL %s %d", kVidUtilSource, __LINE__);
    if (kind.type == kSpsType) ErrOut("Not a sps NAL %s %d", kVidUtilSource, __LINE__);
    if (kind.type == kPpsType) ErrOut("Not a pps NAL (%d) %s %d", static_cast<int>(type), kVidUtilSource, __LINE__);
}

// Trailing bits and the end judgement; leaves bb at the final position.
void judgeEnd(const UnitKind& kind, BitBuffer* bb, uint32_t callerBits) {
    const uint32_t stop = ReadBit(bb);
    uint32_t padding = 0;
    while (bb->bitPos % 8 != 0) padding |= ReadBit(bb);
    const bool atEnd = kind.endBelowOnly ? bb->bitPos >= bb->sizeBits : bb->bitPos == bb->sizeBits;
    if (atEnd) {
        if (stop != 1 || padding != 0)
            ErrOut("\nqnvutilRead_HEVC_%s failed allignment bit = %d padding = %d current bit %d bit length %d",
                   kind.label, static_cast<int>(stop), static_cast<int>(padding), static_cast<int>(bb->bitPos),
                   static_cast<int>(callerBits));
        return;
    }
    const uint32_t position = bb->bitPos;
    const int64_t left = int64_t(callerBits) - position;
    const uint32_t extra = left < 1 ? 0 : static_cast<uint32_t>(left < 64 ? left : 64);
    const uint64_t bits = extra ? ReadBits64(bb, extra) : 0;
    ErrOut("\nqnvutilRead_HEVC_%s failed bit length is wrong = %d padding = %d current bit %d bit length %d "
           "0x%08X 0x%08X",
           kind.label, static_cast<int>(stop), static_cast<int>(padding), static_cast<int>(position),
           static_cast<int>(callerBits), static_cast<unsigned>(bits), static_cast<unsigned>(bits >> 32));
}

constexpr uint32_t kStackScratch = 2048;

// The common frame of the three readers. `payload(coder, localBits)` parses
// the RBSP after the NAL header; `finish()` runs the end-of-unit merges.
template <class Payload, class Finish>
uint32_t readUnit(const UnitKind& kind, BitBuffer* reader, bool haveRecord, uint32_t bitLength, Payload payload,
                  Finish finish) {
    if (!haveRecord || reader == nullptr || reader->sizeBytes == 0) return 0;
    const uint32_t callerBits = bitLength ? bitLength : reader->sizeBits;
    const uint32_t first = reader->bitPos / 8;
    // guard: only bytes that exist in the reader's buffer are copied (and
    // allocated for); the rest of the unit reads as zeros
    const uint32_t available = reader->sizeBytes > first ? reader->sizeBytes - first : 0;
    const uint32_t bytes = atMost(callerBits / 8, available);
    // Twice the unit, plus the spare bytes the bit reader may look at: on
    // the stack for the usual sizes, else one heap block.
    const uint32_t scratchSize = 2 * bytes + 8;
    uint8_t onStack[kStackScratch];
    uint8_t* const scratch = scratchSize <= kStackScratch ? onStack : static_cast<uint8_t*>(QxAlloc(scratchSize));
    if (scratch == nullptr) return 0xFFFFFFFFu;
    struct Release {
        uint8_t* block;
        ~Release() { QxFree(block); }
    } release{scratch == onStack ? nullptr : scratch};
    std::memcpy(scratch, reader->data + first, bytes);
    std::memset(scratch + bytes, 0, scratchSize - bytes);

    uint32_t removed = 0;
    if (callerBits / 8 > kind.unescapeAbove)
        removed = nal::unescape(scratch, scratch, bytes, {.from = kind.unescapeFrom});
    BitBuffer local{scratch, scratchSize, callerBits - 8 * removed, 0};

    ReadBits(&local, 1);  // forbidden_zero_bit
    const uint32_t type = ReadBits(&local, 6);
    if (type != kind.type) {
        reportWrongType(kind, type);
        reader->bitPos = local.bitPos;
        return 0xFFFFFFFFu;
    }
    local.bitPos = 16;  // nuh_layer_id and nuh_temporal_id_plus1 are not checked
    ReadCoder coder(&local);
    if (payload(coder, local.sizeBits) == Parse::kFatal) {
        reader->bitPos = local.bitPos;
        return 0xFFFFFFFFu;
    }
    judgeEnd(kind, &local, callerBits);
    finish();
    reader->bitPos += callerBits;
    return local.bitPos / 8;
}

// ---- Writers -------------------------------------------------------------------

// RBSP room tried first on the stack; larger records take one heap block.
constexpr uint32_t kStackRbsp = 1024;

template <class Payload>
uint32_t emitUnit(uint8_t* rbsp, uint32_t rbspSize, uint8_t* unit, uint32_t unitSize, uint32_t type,
                  Payload payload, uint8_t* dst, uint32_t capacity, bool* tooLarge) {
    BitBuffer s{rbsp, rbspSize, rbspSize * 8, 0};
    WriteBits(&s, 32, 1);  // placeholder for the start code
    WriteBits(&s, 1, 0);
    WriteBits(&s, 6, static_cast<int32_t>(type));
    WriteBits(&s, 6, 0);  // nuh_layer_id
    WriteBits(&s, 3, 1);  // nuh_temporal_id_plus1
    payload(s);
    // rbsp_trailing_bits here: EmitNalUnit then adds a whole 0x80 byte (its
    // closing for SEI payloads), which a parameter set does not carry and
    // which is dropped below. The byte before it holds the stop bit, so the
    // dropped byte never takes part in emulation prevention.
    WriteBits(&s, 1, 1);
    while (s.bitPos % 8 != 0) WriteBits(&s, 1, 0);
    // One byte for EmitNalUnit's closing; a full buffer means writes were dropped.
    if (s.bitPos / 8 + 2 > rbspSize) {
        *tooLarge = true;
        return 0;
    }
    BitBuffer out{unit, unitSize, unitSize * 8, 0};
    EmitNalUnit(&s, &out, 0xFFFFFFFFu, 0);
    const uint32_t length = out.bitPos / 8 - 4 - 1;
    if (length > capacity || out.bitPos / 8 > unitSize) return 0;
    std::memcpy(dst, unit + 4, length);
    return length;
}

template <class Payload>
uint32_t writeUnit(uint32_t type, Payload payload, uint8_t* dst, uint32_t capacity) {
    if (dst == nullptr) return 0;
    uint8_t rbsp[kStackRbsp];
    uint8_t unit[kStackRbsp * 3 / 2 + 8];
    bool tooLarge = false;
    uint32_t length = emitUnit(rbsp, sizeof rbsp, unit, sizeof unit, type, payload, dst, capacity, &tooLarge);
    if (!tooLarge) return length;
    // guard: the unit may not exceed QNV_HEVC_PS_MAX_BYTES
    const uint32_t rbspSize = QNV_HEVC_PS_MAX_BYTES, unitSize = QNV_HEVC_PS_MAX_BYTES * 3 / 2 + 8;
    auto* block = static_cast<uint8_t*>(QxAlloc(rbspSize + unitSize));
    if (block == nullptr) return 0;
    tooLarge = false;
    length = emitUnit(block, rbspSize, block + rbspSize, unitSize, type, payload, dst, capacity, &tooLarge);
    QxFree(block);
    return tooLarge ? 0 : length;
}

// The payload of each record kind, for the writers.
void encode(WriteCoder& c, const HevcVpsRecord& r) { vpsPayload(c, r, nullptr, 0); }
void encode(WriteCoder& c, const HevcSpsRecord& r) { spsPayload(c, r, nullptr); }
void encode(WriteCoder& c, const HevcPpsRecord& r) { ppsPayload(c, r); }

template <class Record>
uint32_t writeRecord(uint32_t type, const Record& record, uint8_t* dst, uint32_t capacity, FieldSink* sink) {
    return writeUnit(
        type,
        [&](BitBuffer& bb) {
            WriteCoder c(&bb, sink, 32);  // the sink counts from the NAL header
            encode(c, record);
        },
        dst, capacity);
}

}  // namespace

uint32_t writeVps(const HevcVpsRecord& record, uint8_t* dst, uint32_t capacity, FieldSink* sink) {
    return writeRecord(kVpsType, record, dst, capacity, sink);
}
uint32_t writeSps(const HevcSpsRecord& record, uint8_t* dst, uint32_t capacity, FieldSink* sink) {
    return writeRecord(kSpsType, record, dst, capacity, sink);
}
uint32_t writePps(const HevcPpsRecord& record, uint8_t* dst, uint32_t capacity, FieldSink* sink) {
    return writeRecord(kPpsType, record, dst, capacity, sink);
}

uint32_t listParameterSet(const uint8_t* unit, uint32_t size, FieldSink& sink) {
    if (size < 2) return 0;
    const uint32_t type = (unit[0] >> 1) & 63u;
    if (type < kVpsType || type > kPpsType) return 0;
    auto* copy = static_cast<uint8_t*>(QxAlloc(size + 8));
    if (copy == nullptr) return 0;
    std::memset(copy, 0, size + 8);
    std::memcpy(copy, unit, size);
    const uint32_t bytes = size - nal::unescape(copy, copy, size, {.from = 2});
    BitBuffer bb{copy, size + 8, bytes * 8, 16};
    ReadCoder c(&bb, &sink);
    if (type == kVpsType) {
        HevcVpsRecord r{};
        vpsPayload(c, r, nullptr, bb.sizeBits);
    } else if (type == kSpsType) {
        auto* r = static_cast<HevcSpsRecord*>(QxAlloc(sizeof(HevcSpsRecord)));
        if (r != nullptr) {
            std::memset(r, 0, sizeof *r);
            spsPayload(c, *r, nullptr);
            QxFree(r);
        }
    } else {
        HevcPpsRecord r{};
        ppsPayload(c, r);
    }
    QxFree(copy);
    return type;
}

}  // namespace qnv::hevc

using namespace qnv;
using namespace qnv::hevc;

extern "C" {

uint32_t qnvutilRead_HEVC_VPS(BitBuffer* reader, HevcVpsRecord* record, HevcConfigRecord* config, uint32_t bitLength) {
    return readUnit(
        kVps, reader, record != nullptr, bitLength,
        [&](ReadCoder& c, uint32_t localBits) { return vpsPayload(c, *record, config, localBits); }, [] {});
}

// Flattened: with the description inlined whole, an SPS reads about a fifth
// faster than through a call per structure (bench_paramsets).
[[gnu::flatten]] uint32_t qnvutilRead_HEVC_SPS(BitBuffer* reader, HevcSpsRecord* record, HevcConfigRecord* config,
                                               uint32_t bitLength) {
    return readUnit(
        kSps, reader, record != nullptr, bitLength,
        [&](ReadCoder& c, uint32_t) { return spsPayload(c, *record, config); },
        [&] {
            if (config == nullptr) return;
            const uint32_t layers = record->sps_max_sub_layers_minus1 + 1;
            if (layers > config->numTemporalLayers) config->numTemporalLayers = layers;
            config->temporalIdNested = record->sps_temporal_id_nesting_flag;
            config->chromaFormat = record->chroma_format_idc;
            config->bitDepthLumaMinus8 = record->bit_depth_luma_minus8;
            config->bitDepthChromaMinus8 = record->bit_depth_chroma_minus8;
            if (record->bitstream_restriction_flag) {
                const int32_t stored = static_cast<int32_t>(config->min_spatial_segmentation_idc);
                const int32_t own = static_cast<int32_t>(record->min_spatial_segmentation_idc);
                if (own < stored) config->min_spatial_segmentation_idc = record->min_spatial_segmentation_idc;
            }
        });
}

uint32_t qnvutilRead_HEVC_PPS(BitBuffer* reader, HevcPpsRecord* record, HevcConfigRecord* config, uint32_t bitLength) {
    return readUnit(
        kPps, reader, record != nullptr, bitLength, [&](ReadCoder& c, uint32_t) { return ppsPayload(c, *record); },
        [&] {
            if (config == nullptr) return;
            // parallelismType from (entropy_coding_sync_enabled_flag, tiles_enabled_flag)
            static const uint32_t kParallelism[2][2] = {{1, 2}, {3, 0}};
            config->parallelismType =
                kParallelism[record->entropy_coding_sync_enabled_flag != 0][record->tiles_enabled_flag != 0];
        });
}

uint32_t qnvutilWrite_HEVC_VPS(const HevcVpsRecord* record, uint8_t* destination) {
    return record ? writeVps(*record, destination, QNV_HEVC_PS_MAX_BYTES) : 0;
}

uint32_t qnvutilWrite_HEVC_SPS(const HevcSpsRecord* record, uint8_t* destination) {
    return record ? writeSps(*record, destination, QNV_HEVC_PS_MAX_BYTES) : 0;
}

uint32_t qnvutilWrite_HEVC_PPS(const HevcPpsRecord* record, uint8_t* destination) {
    return record ? writePps(*record, destination, QNV_HEVC_PS_MAX_BYTES) : 0;
}

}  // extern "C"
