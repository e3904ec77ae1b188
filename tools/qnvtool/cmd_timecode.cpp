// qnvtool timecode IN OUT --start HH:MM:SS:FF --rate R [--ndf]
//
// Stamps an HEVC time_code SEI on every access unit of an HEVC elementary
// stream, counting up from --start in display order: the picture displayed
// i-th gets start + i, a RASL picture that a starting CRA drops gets none.
// 29.97 and 59.94 count drop-frame
// unless --ndf is given; access units that already carry a time code as
// their first prefix SEI keep it.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "qnvutil/sei.h"
#include "qnvutil/timecodetext.h"
#include "qnvutil/vidformat.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/picture_order.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"
#include "vidformat/ratetext.h"

namespace qnvtool {
namespace {

struct TimecodeOptions {
    std::string in, out, start, rate;
    bool nonDrop = false;
};

double countingRate(uint32_t type) {
    switch (type) {
        case VID_TC_23976: return 24000.0 / 1001;
        case VID_TC_24: return 24;
        case VID_TC_25: return 25;
        case VID_TC_2997: return 30000.0 / 1001;
        case VID_TC_50: return 50;
        case VID_TC_5994: return 60000.0 / 1001;
        case VID_TC_60: return 60;
        default: return 30;
    }
}

// Timecode type of a frame rate given as "30000/1001", "25" or "29.97". Only
// the rates a time code counts at are taken: the type of any other rate
// would count it as one of those.
uint32_t timecodeType(const std::string& text, bool nonDrop) {
    uint32_t rate = 0, scale = 0;
    if (!qnv::RateFromText(text.c_str(), &rate, &scale)) throw Error("--rate: '" + text + "' is not a frame rate");
    const double fps = vidFramesPerSecD(VID_NO_FORMAT, rate, scale);
    const uint32_t type = vidGetTCType(fps);
    if (std::fabs(fps - countingRate(type)) > 0.01)
        throw Error("--rate: no timecode counts at " + text + " frames per second");
    if (nonDrop && type == VID_TC_2997) return VID_TC_30;
    if (nonDrop && type == VID_TC_5994) return VID_TC_60;
    return type;
}

uint32_t parseStart(std::string text, uint32_t type) {
    // Drop-frame counts take ';' (',' for the second frame of a pair) before
    // the frames; accept ':' and '.' there as well.
    const bool drop = type == VID_TC_2997 || type == VID_TC_5994;
    size_t last = text.find_last_of(":;.,");
    if (drop && last != std::string::npos) text[last] = text[last] == '.' || text[last] == ',' ? ',' : ';';
    uint32_t frames = 0;
    if (TimecodeTextParse(text.c_str(), type | 0x100, &frames) != TCT_OK)
        throw Error("--start: '" + text + "' is not a timecode at this rate");
    return frames;
}

void runTimecode(const TimecodeOptions& o) {
    const uint32_t type = timecodeType(o.rate, o.nonDrop);
    const uint32_t first = parseStart(o.start, type);
    InputStream in(o.in);
    UnitReader reader(in);
    if (resolveCodec(streamHead(reader), "", in.name()) != VideoCodec::kHevc)
        throw Error(in.name() + ": time codes go into HEVC streams only");
    AccessUnitReader aus(reader, VideoCodec::kHevc);
    RankedUnits units(aus, VideoCodec::kHevc, 0);
    OutputStream out(o.out);

    std::vector<uint8_t> buffer;
    size_t stamped = 0;
    const std::vector<uint8_t>* au;
    int64_t rank;
    uint64_t offset;
    while (units.next(au, rank, offset)) {
        // The time code start + i goes to the picture displayed i-th.
        if (rank < 0) {
            out.write(*au);
            continue;
        }
        const auto size = static_cast<uint32_t>(au->size());
        buffer.assign(au->begin(), au->end());
        buffer.resize(size + 64);  // a time code SEI is at most a few tens of bytes
        DFrame frame{};
        frame.frameData = buffer.data();
        frame.frameCapacity = static_cast<uint32_t>(buffer.size());
        frame.frameSize = size;
        frame.frameTimecode = first + static_cast<uint32_t>(rank);
        qnvutilAddHEVCTimeCode(&frame, type);
        stamped += frame.frameSize != size ? 1 : 0;
        out.write(frame.frameData, frame.frameSize);
    }
    out.commit();
    char text[TCT_TEXT_SIZE];
    TimecodeTextFormat(first, type, text);
    std::fprintf(summaryFile(out), "%llu access units, %zu time codes from %s\n",
                 static_cast<unsigned long long>(units.units()), stamped, text);
}

const Registration kTimecode([](CLI::App& app) {
    auto o = std::make_shared<TimecodeOptions>();
    CLI::App* sub = app.add_subcommand("timecode", "Stamp an HEVC time code SEI on every access unit, counting up");
    sub->add_option("IN", o->in, "HEVC elementary stream")->required();
    sub->add_option("OUT", o->out, "output stream")->required();
    sub->add_option("--start", o->start, "timecode of the first access unit, HH:MM:SS:FF")->required();
    sub->add_option("--rate", o->rate,
                    "frame rate: 24000/1001 (23.976), 24, 25, 30000/1001 (29.97), 30, 50, 60000/1001, 60")
        ->required();
    sub->add_flag("--ndf", o->nonDrop, "count 29.97 and 59.94 without dropped frames");
    sub->callback([o] { runTimecode(*o); });
});

}  // namespace
}  // namespace qnvtool
