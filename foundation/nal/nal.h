// The NAL unit layer shared by every walk over H.264 and HEVC units: type
// numbers and names of both codecs, one walk over the units of a frame
// (Annex B start codes or 4-byte big-endian lengths), and one emulation
// prevention escaper and unescaper (ITU-T H.264 7.4.1, H.265 7.4.2) whose
// compatibility forms are named options.
//
// The Annex B scanner of nalscan/ keeps its own rules; the HEVC walks that
// are defined by it use it.
#ifndef QNVUTIL_FOUNDATION_NAL_NAL_H
#define QNVUTIL_FOUNDATION_NAL_NAL_H

#include <cstdint>
#include <cstring>

namespace qnv::nal {

enum class Codec : uint8_t { kH264, kHevc };

// nal_unit_type of ITU-T H.264 Table 7-1.
namespace h264 {
inline constexpr uint32_t kNonIdrSlice = 1, kSliceDataA = 2, kSliceDataB = 3, kSliceDataC = 4, kIdrSlice = 5,
                          kSei = 6, kSps = 7, kPps = 8, kAud = 9, kEndOfSequence = 10, kEndOfStream = 11,
                          kFiller = 12, kSpsExtension = 13, kPrefixNal = 14, kSubsetSps = 15;
}  // namespace h264

// nal_unit_type of ITU-T H.265 Table 7-1.
namespace hevc {
inline constexpr uint32_t kTrailN = 0, kRaslR = 9, kBlaWLp = 16, kIdrWRadl = 19, kIdrNLp = 20, kCra = 21,
                          kIrapLast = 23, kVclLast = 31, kVps = 32, kSps = 33, kPps = 34, kAud = 35,
                          kEndOfSequence = 36, kEndOfBitstream = 37, kFiller = 38, kPrefixSei = 39,
                          kSuffixSei = 40;
}  // namespace hevc

// Bytes of the NAL unit header: 1 for H.264, 2 for HEVC.
inline constexpr uint32_t headerBytes(Codec codec) { return codec == Codec::kHevc ? 2 : 1; }
// nal_unit_type from the first header byte.
inline constexpr uint32_t unitType(Codec codec, uint8_t firstHeaderByte) {
    return codec == Codec::kHevc ? (firstHeaderByte >> 1) & 63u : firstHeaderByte & 31u;
}
// A VCL unit by the standard's class: H.264 types 1-5, HEVC types 0-31
// (reserved VCL types included).
inline constexpr bool isVcl(Codec codec, uint32_t type) {
    return codec == Codec::kHevc ? type <= hevc::kVclLast : type >= h264::kNonIdrSlice && type <= h264::kIdrSlice;
}
// A slice (segment) of a type the standard defines: H.264 1-5, HEVC 0-9
// and 16-21.
inline constexpr bool isCodedSlice(Codec codec, uint32_t type) {
    return codec == Codec::kHevc ? type <= hevc::kRaslR || (type >= hevc::kBlaWLp && type <= hevc::kCra)
                                 : isVcl(codec, type);
}
// The type's name for listings: HEVC's Table 7-1 names ("IDR_W_RADL"),
// H.264's in words ("IDR slice").
const char* typeName(Codec codec, uint32_t type);

// ---- Walking the units of a frame ----------------------------------------------

enum class Framing : uint8_t { kAnnexB, kLengthPrefixed };

// One unit of a frame; offsets count from the frame's first byte.
struct Unit {
    uint32_t offset;  // first byte of its start code or length field
    uint32_t prefix;  // bytes of that prefix: 3 or 4 (zero_byte, then 00 00 01), or 4 (length)
    uint32_t size;    // bytes of the NAL unit, header first; may be 0
    uint32_t header() const { return offset + prefix; }
    uint32_t end() const { return offset + prefix + size; }
};

// Walks a frame unit by unit, in place and without allocating.
//  - Annex B: a unit begins after 00 00 01 (with the zero byte in front, when
//    there is one, as part of a 4-byte start code) and ends at the next
//    00 00 00 or 00 00 01, or at the frame's end: zero bytes in front of a
//    start code belong to no unit. Bytes before the first start code are
//    skipped, and so is a start code with no byte after it. These are the
//    units (and start code lengths) of the scanner's walk.
//  - Length-prefixed: a 4-byte big-endian length, then that many bytes. A
//    length running past the frame's end, or fewer than 4 bytes left, end
//    the walk; truncated() then tells.
class UnitWalk {
public:
    UnitWalk(const uint8_t* data, uint32_t size, Framing framing) : data_(data), size_(data ? size : 0), framing_(framing) {}
    // The next unit; false at the end of the frame.
    bool next(Unit& unit);
    // Length-prefixed: the walk stopped at a length that runs past the end
    // (or at 1 to 3 bytes left over).
    bool truncated() const { return truncated_; }

private:
    bool nextAnnexB(Unit& unit);
    bool nextLengthPrefixed(Unit& unit);

    const uint8_t* data_;
    uint32_t size_;
    Framing framing_;
    uint32_t pos_ = 0;  // where the search for the next unit begins
    bool truncated_ = false;
};

// ---- Emulation prevention --------------------------------------------------------

// Compatibility forms of the unescaper. The defaults are the standard's
// removal of every 03 that follows 00 00.
struct UnescapeOptions {
    // Only a 00 00 03 whose first zero lies at or after this index is taken
    // (the parameter-set readers start at 3, or 2 past an HEVC header).
    uint32_t from = 0;
    // 00 00 0C loses its 0C as well: the H.264 PPS reader's deliberate rule.
    bool dropZeroC = false;
    // The in-place removal of the H.264 readers: the result keeps the
    // source's length, the freed tail repeating the source's last byte.
    bool keepLength = false;
};

// Copies src[0, n) to dst with emulation prevention removed; dst may be src
// (in place), else it must not overlap src. dst needs n bytes. After an
// 03 is removed, counting zeros starts again behind it. Returns the number of
// bytes removed (the result's length is n minus that, or n with keepLength).
uint32_t unescape(const uint8_t* src, uint8_t* dst, uint32_t n, const UnescapeOptions& options = {});

// The unescaped bytes of a unit one at a time, for walks that must not copy
// (standard rule).
class RbspReader {
public:
    RbspReader(const uint8_t* unit, uint32_t size) : unit_(unit), size_(size) {}
    // The next byte; false at the unit's end.
    bool next(uint8_t& b) {
        while (pos_ < size_) {
            b = unit_[pos_++];
            if (zeros_ >= 2 && b == 3) {
                zeros_ = 0;
                continue;
            }
            zeros_ = b == 0 ? zeros_ + 1 : 0;
            ++taken_;
            return true;
        }
        return false;
    }
    // Bytes handed out so far.
    uint64_t taken() const { return taken_; }

private:
    const uint8_t* unit_;
    uint32_t size_, pos_ = 0, zeros_ = 0;
    uint64_t taken_ = 0;
};

// Compatibility forms of the escaper. The defaults are the standard's: an 03
// goes in front of any byte 00 to 03 that follows 00 00, and behind a last
// byte 00.
struct EscapeOptions {
    // 00 00 02 passes unchanged: the form the library's SEI and parameter
    // set emitter has always written.
    bool passZeroZeroTwo = false;
    // No 03 behind a last byte 00 (for bytes that a caller continues).
    bool openEnd = false;
};

// Writes src[0, n) escaped to dst (no overlap). dst needs escapedSize()
// bytes; at most n + n / 2 + 1. Returns the bytes written.
uint32_t escape(const uint8_t* src, uint32_t n, uint8_t* dst, const EscapeOptions& options = {});
// The length escape() would write.
uint32_t escapedSize(const uint8_t* src, uint32_t n, const EscapeOptions& options = {});

// The escaper one byte at a time: put() hands each output byte to `sink`
// (an 03 first where one is due); finish() adds the closing 03 behind a
// last byte 00 unless openEnd is set.
class Escaper {
public:
    explicit Escaper(const EscapeOptions& options = {}) : options_(options) {}
    template <class Sink>
    void put(uint8_t b, Sink&& sink) {
        if (zeros_ >= 2 && b <= 3 && !(b == 2 && options_.passZeroZeroTwo)) {
            sink(uint8_t(3));
            zeros_ = 0;
        }
        sink(b);
        zeros_ = b == 0 ? zeros_ + 1 : 0;
    }
    template <class Sink>
    void finish(Sink&& sink) {
        if (zeros_ > 0 && !options_.openEnd) sink(uint8_t(3));
        zeros_ = 0;
    }

private:
    EscapeOptions options_;
    uint32_t zeros_ = 0;
};

// ---- Copies handed to a caller ---------------------------------------------------

// A caller's buffer for the copy of a unit, with an in-out size: the
// capacity on entry, the copied length on return (0 until a unit is taken,
// and after a unit that did not fit).
class UnitCopy {
public:
    // guard: a buffer is written only when its capacity is given
    UnitCopy(uint8_t* buffer, uint32_t* size) : buffer_(buffer), size_(size), capacity_(size ? *size : 0) {
        if (size_) *size_ = 0;
    }
    void take(const uint8_t* unit, uint32_t n) {
        if (buffer_ == nullptr || size_ == nullptr) return;
        if (n > capacity_) {
            *size_ = 0;
            return;
        }
        std::memcpy(buffer_, unit, n);
        *size_ = n;
    }

private:
    uint8_t* buffer_;
    uint32_t* size_;
    uint32_t capacity_;
};

// ---- Byte helpers -------------------------------------------------------------

inline uint32_t getBe32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

}  // namespace qnv::nal

#endif
