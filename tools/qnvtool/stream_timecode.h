// The time code a picture carries in its access unit: the first clock
// timestamp of an H.264 pic_timing SEI (ITU-T H.264 D.1.3, laid out by the
// SPS) or of an HEVC time_code SEI (ITU-T H.265 D.2.27).
#ifndef QNVTOOL_STREAM_TIMECODE_H
#define QNVTOOL_STREAM_TIMECODE_H

#include <cstdint>
#include <vector>

#include "tools/qnvtool/access_units.h"

namespace qnv::order {
class AccessUnitSplitter;
}

namespace qnvtool {

struct PictureTimeCode {
    uint32_t hours = 0, minutes = 0, seconds = 0, frames = 0;
    bool dropFrame = false;  // cnt_dropped_flag, or counting_type 4
};

// False when the access unit (Annex B) carries none. H.264 lays the SEI out
// by the SPS that `sets` (AccessUnitReader::splitter()) read last, and finds
// none without one; MPEG-2 carries none here.
bool pictureTimeCode(const std::vector<uint8_t>& au, VideoCodec codec, const qnv::order::AccessUnitSplitter* sets,
                     PictureTimeCode& tc);

}  // namespace qnvtool

#endif
