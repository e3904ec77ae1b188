// Insertion of NAL units into an H.264 or HEVC access unit, each at the
// place the order of units in an access unit gives it. The frame grows in
// place: its segments between the places move up once each, from the back.
#include <cstring>

#include "foundation/nal/nal.h"
#include "qnvutil/h264.h"
#include "qnvutil/qxutil.h"

namespace qnv {

namespace {

// The places, in frame order.
enum class Place : uint8_t { kFront, kParameterSets, kBeforeFirstSlice, kAfterLastSlice, kEnd, kNone };
constexpr uint32_t kPlaces = 5;

Place placeOf(nal::Codec codec, uint32_t type) {
    if (codec == nal::Codec::kHevc) {
        namespace t = nal::hevc;
        switch (type) {
            case t::kAud: return Place::kFront;
            case t::kVps: case t::kSps: case t::kPps: return Place::kParameterSets;
            case t::kPrefixSei: return Place::kBeforeFirstSlice;
            case t::kSuffixSei: case t::kFiller: return Place::kAfterLastSlice;
            case t::kEndOfSequence: case t::kEndOfBitstream: return Place::kEnd;
            default: return Place::kNone;
        }
    }
    namespace t = nal::h264;
    switch (type) {
        case t::kAud: return Place::kFront;
        case t::kSps: case t::kPps: case t::kSpsExtension: case t::kSubsetSps: return Place::kParameterSets;
        case t::kSei: return Place::kBeforeFirstSlice;
        case t::kFiller: return Place::kAfterLastSlice;
        case t::kEndOfSequence: case t::kEndOfStream: return Place::kEnd;
        default: return Place::kNone;
    }
}

// The units to insert: the bytes each place takes. False (with a message)
// when the block is not made of units this function places.
bool measureUnits(nal::Codec codec, nal::Framing framing, const uint8_t* units, uint32_t size,
                  uint64_t (&growth)[kPlaces]) {
    nal::UnitWalk walk(units, size, framing);
    uint32_t count = 0;
    for (nal::Unit u; walk.next(u); ++count) {
        // guard: nothing but units: no bytes in front of the first, no unit without its header
        if ((count == 0 && u.offset != 0) || u.size < nal::headerBytes(codec)) {
            ErrOut("qnvutilAddNalUnits: no NAL unit at offset %u of the units", static_cast<unsigned>(u.offset));
            return false;
        }
        const uint32_t type = nal::unitType(codec, units[u.header()]);
        const Place place = placeOf(codec, type);
        if (place == Place::kNone) {
            ErrOut("qnvutilAddNalUnits: a unit of type %u is not inserted", static_cast<unsigned>(type));
            return false;
        }
        growth[static_cast<uint32_t>(place)] += u.end() - u.offset;
    }
    if (count == 0 || walk.truncated()) {
        ErrOut("qnvutilAddNalUnits: the units hold %s", count == 0 ? "no NAL unit" : "a length past their end");
        return false;
    }
    return true;
}

// Where each place lies in the frame (non-decreasing offsets). False when a
// length-prefixed frame's lengths run past its end.
bool findPlaces(nal::Codec codec, nal::Framing framing, const uint8_t* data, uint32_t size, uint32_t (&at)[kPlaces]) {
    bool any = false, slice = false, header = false;
    uint32_t front = size, headersEnd = 0, firstSlice = size, lastSliceEnd = size;
    nal::UnitWalk walk(data, size, framing);
    for (nal::Unit u; walk.next(u);) {
        if (!any) front = u.offset;
        any = true;
        if (u.size == 0) continue;
        const uint32_t type = nal::unitType(codec, data[u.header()]);
        if (nal::isVcl(codec, type)) {
            if (!slice) firstSlice = u.offset;
            slice = true;
            lastSliceEnd = u.end();
        } else if (!slice) {
            const Place place = placeOf(codec, type);
            if (place == Place::kFront || place == Place::kParameterSets) {
                header = true;
                headersEnd = u.end();
            }
        }
    }
    if (walk.truncated()) {
        ErrOut("qnvutilAddNalUnits: the frame's lengths run past its %u bytes", static_cast<unsigned>(size));
        return false;
    }
    at[0] = front;
    at[1] = header ? headersEnd : front;
    at[2] = firstSlice;
    at[3] = lastSliceEnd;
    at[4] = size;
    return true;
}

// Copies the units of one place, in their order, to dst.
void copyUnits(nal::Codec codec, nal::Framing framing, const uint8_t* units, uint32_t size, Place place, uint8_t* dst) {
    nal::UnitWalk walk(units, size, framing);
    for (nal::Unit u; walk.next(u);) {
        if (placeOf(codec, nal::unitType(codec, units[u.header()])) != place) continue;
        std::memcpy(dst, units + u.offset, u.end() - u.offset);
        dst += u.end() - u.offset;
    }
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" int32_t qnvutilAddNalUnits(DFrame* frame, const uint8_t* units, uint32_t unitsSize, int8_t hevc,
                                      int8_t lengthPrefixed) {
    // guard: a frame record with its buffer, and units to insert
    if (frame == nullptr || frame->frameData == nullptr || units == nullptr) {
        ErrOut("qnvutilAddNalUnits: no %s", units == nullptr ? "units" : "frame");
        return QNV_ADD_UNITS_BAD;
    }
    const nal::Codec codec = hevc ? nal::Codec::kHevc : nal::Codec::kH264;
    const nal::Framing framing = lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB;
    uint64_t growth[kPlaces] = {};
    if (!measureUnits(codec, framing, units, unitsSize, growth)) return QNV_ADD_UNITS_BAD;
    uint64_t total = 0;
    for (uint64_t g : growth) total += g;
    DFrame& f = *frame;
    // guard: the frame must lie in its buffer, and the grown frame as well
    if (f.frameSize > f.frameCapacity || total > f.frameCapacity - f.frameSize) {
        ErrOut("qnvutilAddNalUnits: no room for %llu bytes in a frame of %u of %u bytes",
               static_cast<unsigned long long>(total), static_cast<unsigned>(f.frameSize),
               static_cast<unsigned>(f.frameCapacity));
        return QNV_ADD_UNITS_NO_ROOM;
    }
    uint32_t at[kPlaces];
    if (!findPlaces(codec, framing, f.frameData, f.frameSize, at)) return QNV_ADD_UNITS_BAD;

    // From the back: the segment from place k to place k + 1 moves up by the
    // growth of places 0..k, and the units of place k go in front of it.
    uint32_t shift = static_cast<uint32_t>(total);
    uint32_t segmentEnd = f.frameSize;
    for (uint32_t k = kPlaces; k-- > 0;) {
        std::memmove(f.frameData + at[k] + shift, f.frameData + at[k], segmentEnd - at[k]);
        shift -= static_cast<uint32_t>(growth[k]);
        copyUnits(codec, framing, units, unitsSize, static_cast<Place>(k), f.frameData + at[k] + shift);
        segmentEnd = at[k];
    }
    f.frameSize += static_cast<uint32_t>(total);
    return QNV_ADD_UNITS_OK;
}
