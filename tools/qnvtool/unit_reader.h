// Annex B streams read in chunks: NAL units one at a time, and access units
// built from them, each held only until the next is asked for.
#ifndef QNVTOOL_UNIT_READER_H
#define QNVTOOL_UNIT_READER_H

#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/nal/nal.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/stream_io.h"

namespace qnv::order {
class AccessUnitSplitter;
}

namespace qnvtool {

// One NAL unit with the bytes around it: `raw` runs from its start code (the
// stream's first byte, for the first unit) to the next unit's start code
// (the stream's end, for the last), so that the raw spans of all units
// cover the stream exactly. A span with no unit in it (a stream without a
// start code, or one ending in a start code with nothing behind it) has
// prefix 0 and size 0.
struct StreamUnit {
    const uint8_t* raw;
    uint32_t rawSize;
    uint64_t offset;  // of raw[0] in the stream
    uint32_t header;  // index of the NAL header in raw
    uint32_t prefix;  // start code bytes in front of the header: 3 or 4
    uint32_t size;    // bytes of the NAL unit (0 for an empty one)
    const uint8_t* unit() const { return raw + header; }
    uint64_t startCodeOffset() const { return offset + header - prefix; }
};

// The units of an Annex B stream, as qnv::nal::UnitWalk finds them in the
// whole stream, read in the input's chunks. A unit larger
// than kMaxUnitBytes stops the read with an Error.
class UnitReader {
public:
    static constexpr size_t kMaxUnitBytes = size_t(128) << 20;

    explicit UnitReader(InputStream& in);
    // The next unit; its bytes stay valid until the next call. False at the end.
    bool next(StreamUnit& unit);
    // The stream's first bytes (up to `count`), read ahead without being
    // taken, for telling what the stream is.
    const uint8_t* peek(size_t count, size_t& available);
    // Drops up to `count` bytes from the front, for readers of streams that
    // are not Annex B; returns the bytes dropped (fewer at the end).
    uint64_t skip(uint64_t count);
    // Stream offset of the next byte not taken.
    uint64_t position() const { return base_ + begin_; }
    InputStream& input() { return in_; }

private:
    bool refill();  // false at the end of the input

    InputStream& in_;
    std::vector<uint8_t> buffer_;
    size_t begin_ = 0;  // first byte not handed out
    size_t end_ = 0;    // bytes held
    uint64_t base_ = 0;  // stream offset of buffer_[0]
    bool eof_ = false;
    // The walk over buffer_[walkBase_, end_) and the unit it found at begin_.
    size_t walkBase_ = 0;
    qnv::nal::UnitWalk walk_{nullptr, 0, qnv::nal::Framing::kAnnexB};
    qnv::nal::Unit current_{};
    bool haveCurrent_ = false;
};

// A copy of the stream's first kDetectBytes for telling what it is. Throws
// Error naming the input when it is empty.
std::vector<uint8_t> streamHead(UnitReader& units);

// Access units of a video elementary stream, in stream order. H.264 and
// HEVC streams are split where the standards put the boundaries
// (qnvutil/order/access_unit.h); an MPEG-2 unit begins at the first
// sequence, GOP or picture header or user data after a picture's slices. Bytes before the
// first unit and between units belong to the unit before them (the first
// unit for the leading ones).
class AccessUnitReader {
public:
    AccessUnitReader(UnitReader& units, VideoCodec codec);
    ~AccessUnitReader();

    // The next access unit's bytes into `bytes` (replacing them) and its
    // stream offset. False at the end.
    bool next(std::vector<uint8_t>& bytes, uint64_t& offset);
    // The parameter sets of the access unit just returned (null for MPEG-2).
    const qnv::order::AccessUnitSplitter* splitter() const { return splitter_.get(); }

private:
    UnitReader& units_;
    std::unique_ptr<qnv::order::AccessUnitSplitter> splitter_;
    StreamUnit pending_{};
    bool havePending_ = false;  // a unit read that opened the next access unit, not yet noted
    bool done_ = false;
    bool mpeg2Picture_ = false;  // MPEG-2: the current unit holds a picture's slices
};

}  // namespace qnvtool

#endif
