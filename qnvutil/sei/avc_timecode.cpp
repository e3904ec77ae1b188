// H.264 pic_timing SEI (payloadType 1) carrying a frame's time code.
#include <cstring>
#include <initializer_list>

#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "foundation/syntax/coder.h"
#include "qnvutil/h264/pic_timing.h"
#include "qnvutil/qnvvidutil.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"
#include "qnvutil/sei/frame_insert.h"
#include "qnvutil/sei/timecode_fields.h"
#include "qnvutil/vidformat.h"

namespace qnv {

namespace {

constexpr uint32_t kPicTimingPayload = 1;
constexpr uint8_t kSeiHeader = 0x06;  // nal_ref_idc 0, nal_unit_type 6
constexpr uint32_t kMaxPicStruct = 8;
constexpr uint32_t kCountingDropFrame = 4;  // Table D-2: n_frames 0 and 1 dropped each minute but every tenth

// A pic_timing payload: at most 2 x 32 delay bits, pic_struct and three
// clock timestamps of 68 bits, byte-aligned.
constexpr uint32_t kPayloadBytes = 48;
// An SEI unit rebuilt around the new payload: the unit looked at, a longer
// payload, and the size bytes.
constexpr uint32_t kRbspBytes = nal::kSeiInspectBytes + kPayloadBytes + 8;
// Escaped, with its prefix.
constexpr uint32_t kUnitBytes = 4 + kRbspBytes + kRbspBytes / 2 + 1;

// H.264 timing usually counts fields (E.2.1: time_scale / num_units_in_tick
// is twice the frame rate); an SPS whose ticks come once per frame counts
// frames.
bool fieldBasedUnits(const H264SpsRecord& sps, uint32_t tcType) {
    if (sps.timing_info_present_flag != 1 || sps.num_units_in_tick <= 0 || sps.time_scale <= 0) return true;
    const double ticksPerSecond = double(sps.time_scale) / double(sps.num_units_in_tick);
    return ticksPerSecond > 1.5 * vidTCFramesPerSecD(static_cast<uint8_t>(tcType));
}

// The payload bytes (bit_equal_to_one and zeros up to the byte, 7.3.2.3.1);
// returns their count.
[[gnu::flatten]] uint32_t writePayload(const h264::PicTiming& timing, const h264::PicTimingLayout& layout,
                                       uint8_t* out) {
    BitBuffer w{out, kPayloadBytes, kPayloadBytes * 8, 0};
    syntax::InlineWriteCoder c(&w);
    h264::picTiming(c, timing, layout);
    if (w.bitPos % 8 != 0) {
        WriteBits(&w, 1, 1);
        while (w.bitPos % 8 != 0) WriteBits(&w, 1, 0);
    }
    return w.bitPos / 8;
}

// sei_message(): payloadType and payloadSize as runs of 0xFF bytes, then the
// payload. Returns the new length, or kRbspBytes + 1 when it does not fit.
uint32_t putMessage(uint8_t* rbsp, uint32_t n, uint32_t type, const uint8_t* payload, uint32_t size) {
    for (uint32_t v : {type, size}) {
        for (; v >= 255; v -= 255) {
            // guard: the rebuilt unit stays inside its buffer
            if (n >= kRbspBytes) return kRbspBytes + 1;
            rbsp[n++] = 0xFF;
        }
        if (n >= kRbspBytes) return kRbspBytes + 1;
        rbsp[n++] = static_cast<uint8_t>(v);
    }
    if (size > kRbspBytes - n) return kRbspBytes + 1;
    std::memcpy(rbsp + n, payload, size);
    return n + size;
}

struct Place {
    bool walked = true;    // false: a unit length ran past the frame's end before its first slice
    bool replace = false;  // carrier holds a pic_timing to replace
    nal::Unit carrier{};
    uint32_t insertAt = 0;  // else: where a new SEI unit goes
    h264::PicTiming old{};
};

// The SEI unit whose pic_timing is replaced (the first one whose messages
// are read whole, in front of the first slice), or where a new unit goes.
Place findPlace(const DFrame& f, nal::Framing framing, const h264::PicTimingLayout& layout) {
    Place place;
    place.insertAt = f.frameSize;
    nal::UnitWalk walk(f.frameData, f.frameSize, framing);
    for (nal::Unit u; walk.next(u);) {
        if (u.size == 0) continue;
        const uint8_t* unit = f.frameData + u.header();
        const uint32_t type = nal::unitType(nal::Codec::kH264, unit[0]);
        if (nal::isVcl(nal::Codec::kH264, type)) {
            place.insertAt = u.offset;
            break;
        }
        if (type != nal::h264::kSei || place.replace) continue;
        bool holds = false;
        h264::PicTiming old{};
        const bool whole = nal::forEachSeiMessage(nal::Codec::kH264, unit, u.size, [&](uint32_t t, BitBuffer& payload) {
            if (t != kPicTimingPayload || holds) return;
            holds = true;
            syntax::ReadCoder c(&payload);
            h264::picTiming(c, old, layout);
        });
        if (holds && whole) {
            place.replace = true;
            place.carrier = u;
            place.old = old;
        }
    }
    place.walked = place.insertAt != f.frameSize || !walk.truncated();
    return place;
}

// The SEI unit's RBSP: the carrier's messages with the first pic_timing's
// payload exchanged, or the one new message. Returns its length, above
// kRbspBytes when it does not fit.
uint32_t buildRbsp(const DFrame& f, const Place& place, const uint8_t* payload, uint32_t payloadSize, uint8_t* rbsp) {
    uint32_t n = 0;
    if (!place.replace) {
        rbsp[n++] = kSeiHeader;
        n = putMessage(rbsp, n, kPicTimingPayload, payload, payloadSize);
    } else {
        const uint8_t* unit = f.frameData + place.carrier.header();
        rbsp[n++] = unit[0];
        bool replaced = false;
        nal::forEachSeiMessage(nal::Codec::kH264, unit, place.carrier.size, [&](uint32_t t, BitBuffer& message) {
            if (n > kRbspBytes) return;
            if (t == kPicTimingPayload && !replaced) {
                replaced = true;
                n = putMessage(rbsp, n, t, payload, payloadSize);
            } else {
                // Messages are whole bytes: the reader's bounds are byte positions.
                n = putMessage(rbsp, n, t, message.data + message.bitPos / 8, (message.sizeBits - message.bitPos) / 8);
            }
        });
    }
    // guard: the rbsp_trailing_bits byte must fit
    if (n >= kRbspBytes) return kRbspBytes + 1;
    rbsp[n++] = 0x80;
    return n;
}

int32_t addAvcTimeCode(DFrame& f, uint32_t tcType, const H264SpsRecord& sps, uint32_t picStruct,
                       nal::Framing framing) {
    const h264::PicTimingLayout layout = h264::picTimingLayout(sps);
    if (!layout.picStruct || picStruct > kMaxPicStruct) return QNV_SEI_BAD_ARGUMENT;
    const Place place = findPlace(f, framing, layout);
    // guard: a new unit behind bytes the walk could not take would join them
    if (!place.walked) return QNV_SEI_BAD_ARGUMENT;

    h264::PicTiming timing{};
    if (place.replace) {
        timing.cpb_removal_delay = place.old.cpb_removal_delay;
        timing.dpb_output_delay = place.old.dpb_output_delay;
    }
    timing.pic_struct = picStruct;
    const TimecodeFields tc = timecodeFields(f.frameTimecode, tcType);
    h264::ClockTimestamp& clock = timing.clock[0];
    clock.clock_timestamp_flag = 1;
    clock.ct_type = picStruct >= 1 && picStruct <= 6 ? 1 : 0;
    clock.nuit_field_based_flag = fieldBasedUnits(sps, tcType) ? 1 : 0;
    clock.counting_type = tc.dropFrame ? kCountingDropFrame : 0;
    clock.full_timestamp_flag = 1;
    clock.cnt_dropped_flag = tc.dropFrame ? 1 : 0;
    clock.n_frames = tc.frames;
    clock.seconds_value = tc.seconds;
    clock.minutes_value = tc.minutes;
    clock.hours_value = tc.hours;
    uint8_t payload[kPayloadBytes] = {};
    const uint32_t payloadSize = writePayload(timing, layout, payload);

    uint8_t rbsp[kRbspBytes];
    const uint32_t rbspSize = buildRbsp(f, place, payload, payloadSize, rbsp);
    // guard: a carrier whose messages do not fit the rebuilt unit is refused
    if (rbspSize > kRbspBytes) {
        ErrOut("No room for time code SEI in DFrame %s %d", kVidUtilSource, __LINE__);
        return QNV_SEI_NO_ROOM;
    }
    uint8_t block[kUnitBytes];
    const uint32_t escaped = nal::escape(rbsp, rbspSize, block + 4);
    // guard: a unit grown past what is looked at would not be found again
    if (place.replace && escaped > nal::kSeiInspectBytes) {
        ErrOut("No room for time code SEI in DFrame %s %d", kVidUtilSource, __LINE__);
        return QNV_SEI_NO_ROOM;
    }
    if (framing == nal::Framing::kLengthPrefixed)
        nal::putBe32(block, escaped);
    else
        nal::putBe32(block, 1);  // 00 00 00 01
    uint32_t at = place.insertAt, removed = 0, length = 4 + escaped;
    if (place.replace) {
        // Annex B: the unit's own start code stays.
        const bool annexB = framing == nal::Framing::kAnnexB;
        at = annexB ? place.carrier.header() : place.carrier.offset;
        removed = place.carrier.end() - at;
    }
    const uint32_t skip = place.replace && framing == nal::Framing::kAnnexB ? 4 : 0;
    length -= skip;
    // guard: the buffer must hold the changed frame
    if (uint64_t(f.frameSize) - removed + length > f.frameCapacity) {
        ErrOut("No room for time code SEI in DFrame %s %d", kVidUtilSource, __LINE__);
        return QNV_SEI_NO_ROOM;
    }
    replaceAt(f, at, removed, block + skip, length);
    f.frameSize = f.frameSize - removed + length;
    f.frameBytesTotal = f.frameBytesTotal - removed + length;
    return QNV_SEI_OK;
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" {

int32_t qnvutilAddAVCTimeCode(DFrame* frame, uint32_t tcType, const H264SpsRecord* sps, uint32_t picStruct,
                              int8_t lengthPrefixed) {
    // guard: a frame record with data inside its buffer, and an SPS
    if (frame == nullptr || sps == nullptr || frame->frameData == nullptr || frame->frameSize > frame->frameCapacity)
        return QNV_SEI_BAD_ARGUMENT;
    return addAvcTimeCode(*frame, tcType, *sps, picStruct,
                          lengthPrefixed != 0 ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB);
}

}  // extern "C"
