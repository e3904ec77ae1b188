// The AVC decoder configuration record ('avcC', ISO/IEC 14496-15 5.3.3.1):
// reading a stored box, and building the record of a frame's parameter sets.
#include <cstring>
#include <type_traits>

#include "foundation/nal/nal.h"
#include "qnvutil/h264.h"
#include "qnvutil/h264/h264_syntax.h"
#include "qnvutil/h264/paramsets.h"

namespace qnv {

namespace {

// Profiles whose record carries the chroma format, bit depths and SPS
// extensions.
bool hasExtension(uint32_t profile) { return profile == 100 || profile == 110 || profile == 122 || profile == 144; }

constexpr uint32_t kMaxSps = 31, kMaxPps = 255, kMaxSpsExt = 255, kMaxUnit = 0xFFFF;

uint32_t readBe16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }

// Parses a parameter-set unit held at unit[0, size) into a record.
template <typename Record>
void parseUnit(const uint8_t* unit, uint32_t size, Record* record) {
    if (record == nullptr) return;
    // guard: the readers copy sizeBytes bytes and read nothing beyond them
    BitBuffer bb{const_cast<uint8_t*>(unit), size, size < 0x20000000u ? size * 8 : 0xFFFFFFF8u, 0};
    if constexpr (std::is_same_v<Record, H264SpsRecord>)
        qnvutilRead_SPS(&bb, record);
    else
        qnvutilRead_PPS(&bb, record);
}

// The bytes of a stored record, read front to back within [pos, end).
class RecordBytes {
public:
    RecordBytes(const uint8_t* data, uint32_t pos, uint32_t end) : data_(data), pos_(pos), end_(end) {}
    uint32_t left() const { return end_ - pos_; }
    uint32_t pos() const { return pos_; }
    // guard: every read is checked against the end first
    bool byte(uint32_t& v) {
        if (left() < 1) return false;
        v = data_[pos_++];
        return true;
    }
    // One array entry: a 16-bit length and the unit; *unit points at it.
    bool unit(const uint8_t*& unit, uint32_t& size) {
        if (left() < 2) return false;
        size = readBe16(data_ + pos_);
        if (left() - 2 < size) return false;
        unit = data_ + pos_ + 2;
        pos_ += 2 + size;
        return true;
    }

private:
    const uint8_t* data_;
    uint32_t pos_, end_;
};

// What the record of a frame holds: the arrays' counts and bytes, and the
// first SPS.
struct FrameSets {
    uint32_t count[3] = {};  // SPS, PPS, SPS extension
    uint64_t bytes[3] = {};  // each array's entries, lengths included
    const uint8_t* firstSps = nullptr;
    uint32_t firstSpsSize = 0;
};

int arrayOf(uint32_t type) {
    switch (type) {
        case nal::h264::kSps: return 0;
        case nal::h264::kPps: return 1;
        case nal::h264::kSpsExtension: return 2;
        default: return -1;
    }
}

nal::UnitWalk walkFrame(const H264FrameContext& frame) {
    return nal::UnitWalk(frame.data, frame.data ? frame.size : 0,
                         frame.lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB);
}

// False when the frame's sets cannot make a record.
bool collect(const H264FrameContext& frame, FrameSets& sets) {
    nal::UnitWalk walk = walkFrame(frame);
    for (nal::Unit u; walk.next(u);) {
        if (u.size == 0) continue;
        const uint8_t* unit = frame.data + u.header();
        const int array = arrayOf(nal::unitType(nal::Codec::kH264, unit[0]));
        if (array < 0) continue;
        if (u.size > kMaxUnit) return false;
        if (array == 0 && sets.firstSps == nullptr) {
            sets.firstSps = unit;
            sets.firstSpsSize = u.size;
        }
        ++sets.count[array];
        sets.bytes[array] += 2 + uint64_t(u.size);
    }
    return sets.firstSpsSize >= 4 && sets.count[1] > 0 && sets.count[0] <= kMaxSps && sets.count[1] <= kMaxPps &&
           sets.count[2] <= kMaxSpsExt;
}

// Appends one array's entries (16-bit length and unit each) at out.
uint8_t* writeArray(const H264FrameContext& frame, int array, uint8_t* out) {
    nal::UnitWalk walk = walkFrame(frame);
    for (nal::Unit u; walk.next(u);) {
        if (u.size == 0) continue;
        const uint8_t* unit = frame.data + u.header();
        if (arrayOf(nal::unitType(nal::Codec::kH264, unit[0])) != array) continue;
        *out++ = static_cast<uint8_t>(u.size >> 8);
        *out++ = static_cast<uint8_t>(u.size);
        std::memcpy(out, unit, u.size);
        out += u.size;
    }
    return out;
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" {

uint32_t qnvutilReadAvcc(BitBuffer* reader, AvcConfigRecord* config, H264SpsRecord* sps, H264PpsRecord* pps,
                         uint8_t* spsOut, uint32_t* spsOutSize, uint8_t* ppsOut, uint32_t* ppsOutSize) {
    if (config == nullptr || reader == nullptr || reader->data == nullptr || reader->sizeBytes == 0) return 0;
    nal::UnitCopy spsCopy(spsOut, spsOutSize), ppsCopy(ppsOut, ppsOutSize);
    // guard: the record is read within both the buffer and the bit limit
    const uint32_t end = reader->sizeBits / 8 < reader->sizeBytes ? reader->sizeBits / 8 : reader->sizeBytes;
    const uint32_t start = reader->bitPos / 8 + 8;  // box size and type
    RecordBytes r(reader->data, start < end ? start : end, end);
    auto fail = [&] {
        reader->bitPos = r.pos() * 8;
        return 0xFFFFFFFFu;
    };
    AvcConfigRecord& c = *config;
    uint32_t sizes = 0, count = 0;
    if (!r.byte(c.configurationVersion) || c.configurationVersion != 1 || !r.byte(c.AVCProfileIndication) ||
        !r.byte(c.profile_compatibility) || !r.byte(c.AVCLevelIndication) || !r.byte(sizes) || !r.byte(count))
        return fail();
    c.lengthSizeMinusOne = sizes & 3;
    c.numOfSequenceParameterSets = count & 31;
    const uint8_t* unit = nullptr;
    uint32_t size = 0;
    for (uint32_t i = 0; i < c.numOfSequenceParameterSets; ++i) {
        if (!r.unit(unit, size)) return fail();
        if (i > 0) continue;
        spsCopy.take(unit, size);
        parseUnit(unit, size, sps);
    }
    if (!r.byte(c.numOfPictureParameterSets)) return fail();
    for (uint32_t i = 0; i < c.numOfPictureParameterSets; ++i) {
        if (!r.unit(unit, size)) return fail();
        if (i > 0) continue;
        ppsCopy.take(unit, size);
        parseUnit(unit, size, pps);
    }
    if (r.left() >= 4) {
        uint32_t chroma = 0, luma = 0, chromaDepth = 0;
        r.byte(chroma);
        r.byte(luma);
        r.byte(chromaDepth);
        r.byte(c.numOfSequenceParameterSetExt);
        c.extensionPresent = 1;
        c.chroma_format = chroma & 3;
        c.bit_depth_luma_minus8 = luma & 7;
        c.bit_depth_chroma_minus8 = chromaDepth & 7;
        for (uint32_t i = 0; i < c.numOfSequenceParameterSetExt; ++i)
            if (!r.unit(unit, size)) return fail();
    }
    reader->bitPos = r.pos() * 8;
    return r.pos();
}

uint32_t qnvutilGetAvcc(const H264FrameContext* frame, uint8_t* record, uint32_t capacity) {
    if (frame == nullptr || record == nullptr) return 0;
    FrameSets sets;
    if (!collect(*frame, sets)) return 0;
    const uint32_t profile = sets.firstSps[1];
    const bool extension = hasExtension(profile);
    const uint64_t total = 7 + sets.bytes[0] + sets.bytes[1] + (extension ? 4 + sets.bytes[2] : 0);
    // guard: the record is written only when it fits
    if (total > capacity) return 0;

    uint8_t* out = record;
    *out++ = 1;                 // configurationVersion
    *out++ = sets.firstSps[1];  // AVCProfileIndication
    *out++ = sets.firstSps[2];  // profile_compatibility
    *out++ = sets.firstSps[3];  // AVCLevelIndication
    *out++ = 0xFF;              // reserved '111111', lengthSizeMinusOne 3
    *out++ = static_cast<uint8_t>(0xE0 | sets.count[0]);
    out = writeArray(*frame, 0, out);
    *out++ = static_cast<uint8_t>(sets.count[1]);
    out = writeArray(*frame, 1, out);
    if (extension) {
        uint32_t chroma = 1, luma = 0, chromaDepth = 0;  // a profile without the chroma block (144)
        if (h264::hasChromaBlock(static_cast<int32_t>(profile))) {
            H264SpsRecord sps{};
            parseUnit(sets.firstSps, sets.firstSpsSize, &sps);
            chroma = static_cast<uint32_t>(sps.chroma_format_idc) & 3;
            luma = static_cast<uint32_t>(sps.bit_depth_luma_minus8) & 7;
            chromaDepth = static_cast<uint32_t>(sps.bit_depth_chroma_minus8) & 7;
        }
        *out++ = static_cast<uint8_t>(0xFC | chroma);
        *out++ = static_cast<uint8_t>(0xF8 | luma);
        *out++ = static_cast<uint8_t>(0xF8 | chromaDepth);
        *out++ = static_cast<uint8_t>(sets.count[2]);
        out = writeArray(*frame, 2, out);
    }
    return static_cast<uint32_t>(out - record);
}

}  // extern "C"
