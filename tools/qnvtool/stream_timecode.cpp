#include "tools/qnvtool/stream_timecode.h"

#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "qnvutil/h264/pic_timing.h"
#include "qnvutil/order/access_unit.h"
#include "qnvutil/sei/time_code_sei.h"

namespace qnvtool {
namespace {

constexpr uint32_t kH264Sei = 6, kHevcPrefixSei = 39, kHevcSuffixSei = 40;
constexpr uint32_t kPicTimingPayloadType = 1;
constexpr uint32_t kDropFrameCounting = 4;  // counting_type 4 (Table D-2)

// The first clock timestamp that is there, from either standard's fields.
template <class Clock>
bool takeClock(const Clock* clocks, uint32_t count, PictureTimeCode& tc) {
    for (uint32_t i = 0; i < count; ++i) {
        const Clock& c = clocks[i];
        if (!c.clock_timestamp_flag) continue;
        tc.frames = c.n_frames;
        tc.seconds = c.seconds_value;
        tc.minutes = c.minutes_value;
        tc.hours = c.hours_value;
        tc.dropFrame = c.cnt_dropped_flag || c.counting_type == kDropFrameCounting;
        return true;
    }
    return false;
}

}  // namespace

bool pictureTimeCode(const std::vector<uint8_t>& au, VideoCodec codec, const qnv::order::AccessUnitSplitter* sets,
                     PictureTimeCode& tc) {
    const H264SpsRecord* sps = sets ? sets->h264Sps() : nullptr;
    if (codec == VideoCodec::kMpeg2 || (codec == VideoCodec::kH264 && sps == nullptr)) return false;
    const qnv::nal::Codec nalCodec = codec == VideoCodec::kH264 ? qnv::nal::Codec::kH264 : qnv::nal::Codec::kHevc;
    qnv::nal::UnitWalk walk(au.data(), static_cast<uint32_t>(au.size()), qnv::nal::Framing::kAnnexB);
    bool found = false;
    for (qnv::nal::Unit u; !found && walk.next(u);) {
        // guard: a unit without its header byte(s) is skipped
        if (u.size < qnv::nal::headerBytes(nalCodec) + 1) continue;
        const uint8_t* unit = au.data() + u.header();
        const uint32_t type = codec == VideoCodec::kH264 ? unit[0] & 0x1F : unit[0] >> 1 & 0x3F;
        if (codec == VideoCodec::kH264 && type == kH264Sei) {
            const qnv::h264::PicTimingLayout layout = qnv::h264::picTimingLayout(*sps);
            if (!layout.picStruct) continue;
            qnv::nal::forEachSeiMessage(nalCodec, unit, u.size, [&](uint32_t payloadType, BitBuffer& payload) {
                if (found || payloadType != kPicTimingPayloadType) return;
                qnv::h264::PicTiming timing{};
                qnv::syntax::ReadCoder c(&payload);
                qnv::h264::picTiming(c, timing, layout);
                found = takeClock(timing.clock, qnv::h264::numClockTs(timing.pic_struct), tc);
            });
        } else if (codec == VideoCodec::kHevc && (type == kHevcPrefixSei || type == kHevcSuffixSei)) {
            qnv::nal::forEachSeiMessage(nalCodec, unit, u.size, [&](uint32_t payloadType, BitBuffer& payload) {
                if (found || payloadType != qnv::hevc::kTimeCodePayloadType) return;
                qnv::hevc::TimeCode timeCode{};
                qnv::syntax::ReadCoder c(&payload);
                qnv::hevc::timeCode(c, timeCode);
                found = takeClock(timeCode.clock, timeCode.num_clock_ts, tc);
            });
        }
    }
    return found;
}

}  // namespace qnvtool
