// Re-flagging an HEVC frame as a pair of field pictures: the frame is copied
// unit by unit, its parameter sets are parsed and written anew (edited to
// signal fields when the frame holds two), and a pic_timing SEI goes in front
// of each field's first slice.
#include <cstdint>
#include <cstring>

#include "foundation/nal/nal.h"
#include "foundation/nalscan/nalscan.h"
#include "qnvutil/hevc/hevc_internal.h"
#include "qnvutil/sei/hevc_sei.h"

namespace qnv::hevc {

namespace {

constexpr uint32_t kVpsType = nal::hevc::kVps, kSpsType = nal::hevc::kSps, kPpsType = nal::hevc::kPps,
                   kPrefixSeiType = nal::hevc::kPrefixSei;
constexpr uint32_t kFieldPair = HEVC_FRAME_FIRST_FIELD | HEVC_FRAME_SECOND_FIELD;

// pic_struct: top field paired with the next bottom field in output order, and
// bottom field paired with the previous top field.
constexpr uint32_t kTopThenBottom = 11, kBottomAfterTop = 10;
constexpr uint8_t kPicTimingPayload = 1;

// Which field the walk is in; drives the SEI in front of the pictures.
enum class Field { kWholeFrame, kFirst, kSecond };

// Messages whose syntax follows the SPS's HRD parameters and its
// frame_field_info_present_flag: buffering_period, pic_timing,
// decoding_unit_info.
bool isTimingPayload(uint64_t type) { return type == 0 || type == 1 || type == 130; }

// The four general source flags of a stream that is coded as fields.
void markInterlaced(HevcProfileTierLevel& ptl) {
    ptl.general_progressive_source_flag = 0;
    ptl.general_interlaced_source_flag = 1;
    ptl.general_non_packed_constraint_flag = 0;
    ptl.general_frame_only_constraint_flag = 0;
}

// The SPS of a field-coded stream. The SPS written into the stream always
// carries its VUI and gets delay lengths (minus 1) of 1; a caller's record
// gets 0 there and keeps its VUI flag. Neither length reaches a unit here:
// the HRD parameters that would use them are removed.
enum class SpsCopy { kStream, kCaller };
void markFields(HevcSpsRecord& s, SpsCopy copy) {
    markInterlaced(s.ptl);
    s.aspect_ratio_info_present_flag = 1;
    s.aspect_ratio_idc = 255;  // Extended_SAR: a field of a square-pixel frame has 1:2 samples
    s.sar_width = 1;
    s.sar_height = 2;
    s.field_seq_flag = 1;
    s.frame_field_info_present_flag = 1;
    s.vui_hrd_parameters_present_flag = 0;
    s.nal_hrd_parameters_present_flag = 0;
    s.vcl_hrd_parameters_present_flag = 0;
    const uint32_t delayLength = copy == SpsCopy::kStream ? 1 : 0;
    if (copy == SpsCopy::kStream) s.vui_parameters_present_flag = 1;
    s.au_cpb_removal_delay_length_minus1 = delayLength;
    s.dpb_output_delay_length_minus1 = delayLength;
    // A 1920x544 field (the coded height a multiple of 16) shows as the
    // 1920x540 field of a 1080-line frame: 2 chroma lines of 4:2:0 are 4 luma lines.
    if (s.pic_height_in_luma_samples == 544 && s.pic_width_in_luma_samples == 1920 &&
        s.conformance_window_flag == 0) {
        s.conformance_window_flag = 1;
        s.conf_win_left_offset = s.conf_win_right_offset = s.conf_win_top_offset = 0;
        s.conf_win_bottom_offset = 2;
    }
}

// True when the SPS's pic_timing is pic_struct, source_scan_type and
// duplicate_flag alone, the message this function writes. Records are not
// cleared between the units of one call, so a flag counts only where the
// unit carried it.
bool takesFieldTiming(const HevcSpsRecord& s) {
    if (s.vui_parameters_present_flag == 0 || s.frame_field_info_present_flag == 0) return false;
    const bool delays = s.vui_timing_info_present_flag != 0 && s.vui_hrd_parameters_present_flag != 0 &&
                        (s.nal_hrd_parameters_present_flag != 0 || s.vcl_hrd_parameters_present_flag != 0);
    return !delays;
}

// The six work records; cleared at the start of each call.
struct WorkRecords {
    HevcVpsRecord vps, vpsWritten;
    HevcSpsRecord sps, spsWritten;
    HevcPpsRecord pps, ppsWritten;
};

// The destination's bytes, filled from the front.
class Output {
public:
    Output(uint8_t* data, uint32_t capacity) : data_(data), capacity_(capacity) {}
    // guard: a write that would reach frameCapacity is refused and marks the
    // output full; nothing is written after that
    bool put(const uint8_t* bytes, uint32_t n) {
        if (full_ || n > capacity_ - size_) {
            full_ = true;
            return false;
        }
        std::memcpy(data_ + size_, bytes, n);
        size_ += n;
        return true;
    }
    bool put(uint8_t byte) { return put(&byte, 1); }
    void putStartCode(uint32_t length) {
        static const uint8_t kStartCode[4] = {0, 0, 0, 1};
        put(kStartCode + 4 - length, length);
    }
    uint8_t* end() const { return data_ + size_; }
    uint32_t room() const { return full_ ? 0 : capacity_ - size_; }
    uint32_t size() const { return size_; }
    bool full() const { return full_; }
    void markFull() { full_ = true; }
    // Takes n bytes that a writer put at end(); n <= room().
    void advance(uint32_t n) { size_ += n; }
    void truncate(uint32_t size) { size_ = size; }

private:
    uint8_t* data_;
    uint32_t capacity_;
    uint32_t size_ = 0;
    bool full_ = false;
};

// The RBSP bytes of an escaped NAL unit, one at a time, header included.
using RbspBytes = nal::RbspReader;

// A 0xFF-extended value (payloadType, payloadSize); false at the unit's end.
bool readCoded(RbspBytes& r, uint64_t& value) {
    value = 0;
    uint8_t b = 0;
    do {
        if (!r.next(b)) return false;
        value += b;
    } while (b == 0xFF);
    return true;
}

// Writes RBSP bytes with emulation prevention.
class EscapedOutput {
public:
    explicit EscapedOutput(Output& out) : out_(out) {}
    void put(uint8_t b) {
        escaper_.put(b, [this](uint8_t x) { out_.put(x); });
    }
    void putCoded(uint64_t value) {
        for (; value >= 0xFF; value -= 0xFF) put(0xFF);
        put(static_cast<uint8_t>(value));
    }

private:
    Output& out_;
    nal::Escaper escaper_;
};

// What a prefix SEI unit holds.
struct SeiContent {
    bool wellFormed = false;
    uint32_t timing = 0, others = 0;  // messages of each kind
};

// Walks the messages of a prefix SEI unit: `visit(type, size, reader)` sees
// each message with the reader at its payload and must consume it.
template <class Visit>
bool walkMessages(const uint8_t* unit, uint32_t size, uint64_t rbspBytes, Visit visit) {
    RbspBytes r(unit, size);
    uint8_t header;
    if (!r.next(header) || !r.next(header)) return false;
    // Messages follow each other until only rbsp_trailing_bits (one byte) remain.
    while (rbspBytes - r.taken() > 1) {
        uint64_t type = 0, payloadSize = 0;
        if (!readCoded(r, type) || !readCoded(r, payloadSize)) return false;
        if (payloadSize > rbspBytes - r.taken()) return false;
        visit(type, payloadSize, r);
    }
    return rbspBytes - r.taken() == 1;
}

SeiContent inspectSei(const uint8_t* unit, uint32_t size, uint64_t& rbspBytes) {
    RbspBytes counter(unit, size);
    uint8_t b = 0, last = 0;
    while (counter.next(b)) last = b;
    rbspBytes = counter.taken();
    SeiContent content;
    const bool walked = walkMessages(unit, size, rbspBytes, [&](uint64_t type, uint64_t payloadSize, RbspBytes& r) {
        uint8_t skipped;
        for (uint64_t i = 0; i < payloadSize; ++i) r.next(skipped);
        ++(isTimingPayload(type) ? content.timing : content.others);
    });
    content.wellFormed = walked && rbspBytes > 2 && last == 0x80;
    return content;
}

class FrameRewrite {
public:
    FrameRewrite(const DFrame& source, Output& out, WorkRecords& work, h264_stream_t* scanner)
        : src_(source), out_(out), work_(work), scanner_(scanner) {
        if ((source.frameFlags & kFieldPair) == kFieldPair) {
            field_ = Field::kFirst;
            secondField_ = source.secondFieldOffset;
        }
    }

    uint32_t run();

private:
    bool fieldPair() const { return field_ != Field::kWholeFrame; }
    void copy(const uint8_t* unit, uint32_t size, uint32_t startCode) {
        out_.putStartCode(startCode);
        out_.put(unit, size);
    }
    void beforeSlice();
    void rewriteParameterSet(uint32_t type, const uint8_t* unit, uint32_t size, uint32_t startCode);
    void prefixSei(const uint8_t* unit, uint32_t size, uint32_t startCode);
    // Whether the SPS in force takes the pic_timing written here. Without an
    // SPS written in this call it is taken to be one re-flagged for an earlier
    // frame, as the caller's record is.
    bool fieldTiming() const { return !spsWritten_ || takesFieldTiming(work_.spsWritten); }

    const DFrame& src_;
    Output& out_;
    WorkRecords& work_;
    h264_stream_t* scanner_;
    Field field_ = Field::kWholeFrame;
    uint32_t secondField_ = 0;
    bool seiWritten_ = false;   // the current field's SEI are in place
    bool spsWritten_ = false;   // work_.spsWritten holds the SPS this call wrote
    uint32_t status_ = HEVC_INTERLACE_OK;
};

uint32_t FrameRewrite::run() {
    const uint8_t* data = src_.frameData;
    const uint32_t size = src_.frameSize;
    // The find_nal_unit walk, through the walker (block masks kept from unit
    // to unit).
    NalUnitWalker walker(data, size);
    uint32_t offset = 0;
    while (offset < size && !out_.full()) {
        // guard: a remainder too short for a start code and a header byte
        // holds no unit (the scanner would return it whole, without a start code)
        if (size - offset < 4) break;
        const UnitBounds bounds = walker.find(offset);
        if (!bounds.found()) break;  // no further start code
        const uint32_t header = static_cast<uint32_t>(bounds.start);
        const uint32_t unitSize = static_cast<uint32_t>(bounds.end - bounds.start);
        const uint32_t startCode = header - offset >= 4 && data[header - 4] == 0 ? 4 : 3;
        offset = static_cast<uint32_t>(bounds.end);
        if (unitSize == 0) continue;  // an empty unit: two start codes in a row
        const uint8_t* unit = data + header;
        if (field_ == Field::kFirst && header >= secondField_) {
            field_ = Field::kSecond;
            seiWritten_ = false;
        }
        read_nal_unit(scanner_, unit, unitSize);
        const uint32_t type = static_cast<uint32_t>(scanner_->nal.nal_unit_type);
        if (nal::isCodedSlice(nal::Codec::kHevc, type)) {
            beforeSlice();
            copy(unit, unitSize, startCode);
        } else if (type >= kVpsType && type <= kPpsType) {
            rewriteParameterSet(type, unit, unitSize, startCode);
        } else if (type == kPrefixSeiType && fieldPair() && fieldTiming()) {
            prefixSei(unit, unitSize, startCode);
        } else {
            copy(unit, unitSize, startCode);
        }
    }
    return status_;
}

// The SEI in front of a field's pictures, once per field. Only field pairs
// get one: a pic_timing with the field's place in the pair.
void FrameRewrite::beforeSlice() {
    if (seiWritten_) return;
    seiWritten_ = true;
    if (!fieldPair() || !fieldTiming()) return;
    uint8_t rbsp[16];
    BitBuffer w = bitWriter(rbsp, sizeof rbsp);
    beginHevcSei(&w, kPicTimingPayload);
    WriteBits(&w, 4, field_ == Field::kFirst ? kTopThenBottom : kBottomAfterTop);  // pic_struct
    WriteBits(&w, 2, 0);  // source_scan_type: interlaced
    WriteBits(&w, 1, 0);  // duplicate_flag
    uint8_t unit[24];
    out_.put(unit, closeHevcSei(&w, unit, sizeof unit));
}

void FrameRewrite::rewriteParameterSet(uint32_t type, const uint8_t* unit, uint32_t size, uint32_t startCode) {
    // A unit that is not parsed, or whose record the writer refuses, goes on
    // as it stands; the SPS in force is then not known.
    auto asItStands = [&] {
        copy(unit, size, startCode);
        status_ = HEVC_INTERLACE_PS_COPIED;
        if (type == kSpsType) spsWritten_ = false;
    };
    // guard: a unit whose length in bits does not fit 32 bits is not parsed
    if (size >= (1u << 29)) return asItStands();
    // The readers copy no more than sizeBytes from the unit.
    BitBuffer in{const_cast<uint8_t*>(unit), size, size * 8, 0};
    uint32_t read = 0;
    if (type == kVpsType) {
        read = qnvutilRead_HEVC_VPS(&in, &work_.vps, nullptr, size * 8);
        if (fieldPair() && work_.vps.ptl.general_progressive_source_flag == 1) markInterlaced(work_.vps.ptl);
    } else if (type == kSpsType) {
        read = qnvutilRead_HEVC_SPS(&in, &work_.sps, nullptr, size * 8);
        if (fieldPair() && work_.sps.ptl.general_progressive_source_flag == 1) markFields(work_.sps, SpsCopy::kStream);
    } else {
        read = qnvutilRead_HEVC_PPS(&in, &work_.pps, nullptr, size * 8);
    }
    const uint32_t mark = out_.size();
    out_.putStartCode(startCode);
    uint32_t written = 0;
    if (read != 0xFFFFFFFFu && !out_.full()) {
        // guard: the writers are given the destination's room and write
        // nothing when the unit does not fit
        if (type == kVpsType) written = writeVps(work_.vps, out_.end(), out_.room());
        if (type == kSpsType) written = writeSps(work_.sps, out_.end(), out_.room());
        if (type == kPpsType) written = writePps(work_.pps, out_.end(), out_.room());
    }
    if (written == 0) {
        if (out_.full() || (read != 0xFFFFFFFFu && out_.room() < QNV_HEVC_PS_MAX_BYTES)) {
            out_.markFull();
            return;
        }
        out_.truncate(mark);
        return asItStands();
    }
    BitBuffer back{out_.end(), written, written * 8, 0};
    if (type == kVpsType) qnvutilRead_HEVC_VPS(&back, &work_.vpsWritten, nullptr, written * 8);
    if (type == kSpsType)
        spsWritten_ = qnvutilRead_HEVC_SPS(&back, &work_.spsWritten, nullptr, written * 8) != 0xFFFFFFFFu;
    if (type == kPpsType) qnvutilRead_HEVC_PPS(&back, &work_.ppsWritten, nullptr, written * 8);
    out_.advance(written);
}

// A prefix SEI of a field pair loses the messages coded for the source's HRD
// and picture timing; a unit left without messages is dropped.
void FrameRewrite::prefixSei(const uint8_t* unit, uint32_t size, uint32_t startCode) {
    uint64_t rbspBytes = 0;
    const SeiContent content = inspectSei(unit, size, rbspBytes);
    if (!content.wellFormed || content.timing == 0) return copy(unit, size, startCode);
    if (content.others == 0) return;
    out_.putStartCode(startCode);
    out_.put(unit, 2);  // NAL unit header
    EscapedOutput escaped(out_);
    uint8_t b = 0;
    walkMessages(unit, size, rbspBytes, [&](uint64_t type, uint64_t payloadSize, RbspBytes& r) {
        const bool keep = !isTimingPayload(type);
        if (keep) {
            escaped.putCoded(type);
            escaped.putCoded(payloadSize);
        }
        for (uint64_t i = 0; i < payloadSize; ++i)
            if (r.next(b) && keep) escaped.put(b);
    });
    escaped.put(0x80);  // rbsp_trailing_bits
}

uint32_t refuse(DFrame* destination, const char* why, int line) {
    ErrOut("qnvutilSetFrameInterlaced: %s %s %d", why, kVidUtilSource, line);
    if (destination != nullptr) destination->frameSize = 0;
    return HEVC_INTERLACE_BAD_ARGUMENT;
}

bool overlaps(const uint8_t* a, uint32_t aSize, const uint8_t* b, uint32_t bSize) {
    const uintptr_t a0 = reinterpret_cast<uintptr_t>(a), b0 = reinterpret_cast<uintptr_t>(b);
    return aSize != 0 && bSize != 0 && a0 < b0 + bSize && b0 < a0 + aSize;
}

}  // namespace

}  // namespace qnv::hevc

using namespace qnv;
using namespace qnv::hevc;

extern "C" {

uint32_t qnvutilSetFrameInterlaced(const DFrame* source, DFrame* destination, HevcSpsRecord* sps) {
    // guard: both records and their buffers must be there
    if (source == nullptr || destination == nullptr || destination->frameData == nullptr ||
        (source->frameData == nullptr && source->frameSize != 0))
        return refuse(destination, "missing frame", __LINE__);
    // guard: a source whose frameSize exceeds its buffer is not read
    if (source->frameSize > source->frameCapacity) return refuse(destination, "source larger than its buffer", __LINE__);
    // guard: the frame is not rewritten over itself
    if (overlaps(source->frameData, source->frameSize, destination->frameData, destination->frameCapacity))
        return refuse(destination, "source and destination overlap", __LINE__);
    const DFrame& src = *source;
    DFrame& dst = *destination;
    dst.frameSize = 0;

    auto* work = static_cast<WorkRecords*>(QxAlloc(sizeof(WorkRecords)));
    h264_stream_t* scanner = work != nullptr ? h264_new() : nullptr;
    if (scanner == nullptr) {
        QxFree(work);
        return refuse(destination, "no memory", __LINE__);
    }
    std::memset(work, 0, sizeof *work);
    if (sps != nullptr && (src.frameFlags & kFieldPair) == kFieldPair) markFields(*sps, SpsCopy::kCaller);

    Output out(dst.frameData, dst.frameCapacity);
    uint32_t status = FrameRewrite(src, out, *work, scanner).run();
    h264_free(scanner);
    QxFree(work);
    if (out.full()) {
        ErrOut("qnvutilSetFrameInterlaced: no room for the frame in %u bytes %s %d",
               static_cast<unsigned>(dst.frameCapacity), kVidUtilSource, __LINE__);
        return HEVC_INTERLACE_NO_ROOM;
    }
    dst.frameSize = out.size();
    return status;
}

}  // extern "C"
