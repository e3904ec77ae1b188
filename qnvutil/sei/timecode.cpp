// HEVC time_code SEI (payloadType 136) carrying a frame's timecode.
#include <cstring>

#include "foundation/nalscan/nalscan.h"
#include "qnvutil/qnvvidutil.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"
#include "qnvutil/sei/frame_insert.h"
#include "qnvutil/sei/hevc_sei.h"
#include "qnvutil/sei/time_code_sei.h"
#include "qnvutil/sei/timecode_fields.h"

namespace qnv {

namespace {

constexpr uint32_t kSearchWindow = 4096;
// An access unit delimiter with its four-byte start code.
constexpr uint32_t kDelimiterLength = 7;

bool isPrefixSei(const uint8_t* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1 && p[4] == 0x4E; }

// Where the time code goes, or kAlreadyThere.
constexpr uint32_t kAlreadyThere = 0xFFFFFFFFu;
uint32_t findPlace(const uint8_t* data, uint32_t size) {
    const uint32_t limit = size < kSearchWindow ? size : kSearchWindow;
    // A prefix SEI 00 00 00 01 4E is a 00 00 01 at j >= 1 with a zero in
    // front; its 01 lies at j + 2 <= limit - 2, so the codes are looked for
    // in the first limit - 1 bytes.
    for (uint32_t j = 1; limit >= 1;) {
        j = FindStartCode(data, j, limit - 1);
        if (j == limit - 1) break;
        const uint32_t i = j - 1;
        if (!isPrefixSei(data + i)) {
            j += 3;  // no other 00 00 01 starts inside this one
            continue;
        }
        // guard: an SEI cut off before its payloadType byte is taken as another SEI
        if (uint64_t(i) + 6 < size && data[i + 6] == hevc::kTimeCodePayloadType) return kAlreadyThere;
        if (i != 0) return i;
        break;
    }
    if (size >= 5 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1 && data[4] == 0x46) {
        // guard: a frame that ends inside its delimiter takes the SEI at its end
        return size < kDelimiterLength ? size : kDelimiterLength;
    }
    return 0;
}

// The SEI NAL unit with its start code, into `out`; returns its length.
// Flattened: built once per frame, it is a good part of the insertion's
// fixed cost.
[[gnu::flatten]] uint32_t buildTimeCodeSei(uint32_t frameCount, uint32_t tcType, uint8_t* out, uint32_t outSize) {
    const TimecodeFields tc = timecodeFields(frameCount, tcType);

    // One clock: the others are never read, so only its fields are cleared.
    hevc::TimeCode payload;
    payload.num_clock_ts = 1;
    hevc::TimeCodeClock& clock = payload.clock[0];
    clock = {};
    clock.clock_timestamp_flag = 1;
    clock.full_timestamp_flag = 1;
    clock.cnt_dropped_flag = tc.dropFrame;
    clock.n_frames = tc.frames;
    clock.seconds_value = tc.seconds;
    clock.minutes_value = tc.minutes;
    clock.hours_value = tc.hours;

    uint8_t rbsp[64] = {};
    const uint32_t n = beginHevcSei(rbsp, static_cast<uint8_t>(hevc::kTimeCodePayloadType));
    BitBuffer w{rbsp, sizeof rbsp, sizeof rbsp * 8, 8 * n};
    syntax::InlineWriteCoder c(&w);
    hevc::timeCode(c, payload);
    return closeHevcSei(&w, out, outSize);
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" {

int32_t qnvutilAddHEVCTimeCode(DFrame* frame, uint32_t tcType) {
    // guard: no frame record
    if (frame == nullptr) return 0;
    DFrame& f = *frame;
    // guard: the frame is not read when its size exceeds its buffer
    if (!frameHasRoom(f, 0)) {
        ErrOut("No room for time code SEI in DFrame %s %d", kVidUtilSource, __LINE__);
        return 0;
    }
    const uint32_t place = findPlace(f.frameData, f.frameSize);
    if (place == kAlreadyThere) return 0;
    uint8_t sei[64];
    const uint32_t length = buildTimeCodeSei(f.frameTimecode, tcType, sei, sizeof sei);
    // guard: the buffer must hold the frame and the SEI
    if (!frameHasRoom(f, length)) {
        ErrOut("No room for time code SEI in DFrame %s %d", kVidUtilSource, __LINE__);
        return 0;
    }
    insertAt(f, place, length, sei, length);
    f.frameSize += length;
    f.frameBytesTotal += length;
    return 0;
}

}  // extern "C"
