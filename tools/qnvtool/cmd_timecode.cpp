// qnvtool timecode IN OUT --start HH:MM:SS:FF --rate R [--ndf]
//
// Stamps a time code on every picture of an HEVC or H.264 elementary
// stream, counting up from --start in display order: the picture displayed
// i-th gets start + i, a RASL picture that a starting CRA drops gets none,
// and the second field of an H.264 field pair repeats its first field's. 29.97 and 59.94 count
// drop-frame unless --ndf is given.
//  - HEVC: a time_code SEI; access units that already carry a time code as
//    their first prefix SEI keep it.
//  - H.264: a pic_timing SEI with one clock timestamp, replacing the
//    stream's own pic_timing, in every access unit: 1 or 2 for a top or
//    bottom field picture; a frame keeps the stream's own pic_struct (the
//    field order of an interlaced frame), else 0. Its layout depends on the SPS, which is
//    rewritten through the library's writer with VUI pic_struct_present_flag
//    set (a VUI added where there is none, with timing info at --rate where
//    the SPS has none; an HRD is kept); an SPS that does not come back
//    unchanged through the library's record stops the run.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "foundation/nal/nal.h"
#include "qnvutil/h264.h"
#include "qnvutil/sei.h"
#include "qnvutil/timecodetext.h"
#include "qnvutil/vidformat.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/edit.h"
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

// Room a time code SEI needs beyond its access unit: a new unit, or a
// pic_timing grown inside its own.
constexpr size_t kStampRoom = 96;

// The H.264 side: each SPS rewritten for pic_timing, and the record of the
// last one, which the pic_timing layout follows.
class H264Stamper {
public:
    explicit H264Stamper(const TimecodeOptions& o) : changes_(changesFor(o)), sets_(Codec::kH264, changes_) {}

    // The access unit with its SPS rewritten, into `out` (with spare room).
    void rewrite(const std::vector<uint8_t>& au, uint64_t offset, std::vector<uint8_t>& out) {
        namespace nal = qnv::nal;
        out.clear();
        nal::UnitWalk walk(au.data(), static_cast<uint32_t>(au.size()), nal::Framing::kAnnexB);
        uint32_t copied = 0;
        for (nal::Unit u; walk.next(u);) {
            if (u.size == 0 || nal::unitType(nal::Codec::kH264, au[u.header()]) != nal::h264::kSps) continue;
            std::memset(&streamSps_, 0, sizeof streamSps_);
            BitBuffer original{const_cast<uint8_t*>(au.data() + u.header()), u.size, u.size * 8, 0};
            qnvutilRead_SPS(&original, &streamSps_);
            const std::string where = "the SPS at offset " + std::to_string(offset + u.offset);
            const std::vector<uint8_t>& sps = sets_.rewrite(au.data() + u.header(), u.size, where);
            out.insert(out.end(), au.begin() + copied, au.begin() + u.header());
            out.insert(out.end(), sps.begin(), sps.end());
            copied = u.end();
            std::memset(&sps_, 0, sizeof sps_);
            BitBuffer reader{const_cast<uint8_t*>(sps.data()), static_cast<uint32_t>(sps.size()),
                             static_cast<uint32_t>(sps.size() * 8), 0};
            qnvutilRead_SPS(&reader, &sps_);
            haveSps_ = true;
        }
        out.insert(out.end(), au.begin() + copied, au.end());
    }

    // Stamps the picture in `buffer` (its size is the unit's, room behind it
    // is added here); returns its new size.
    size_t stamp(std::vector<uint8_t>& buffer, uint32_t count, uint32_t type, PictureStructure structure,
                 uint64_t offset) {
        if (!haveSps_) throw Error("access unit at offset " + std::to_string(offset) + ": no SPS before it");
        const auto size = static_cast<uint32_t>(buffer.size());
        buffer.resize(size + kStampRoom);
        DFrame frame{};
        frame.frameData = buffer.data();
        frame.frameCapacity = static_cast<uint32_t>(buffer.size());
        frame.frameSize = size;
        frame.frameTimecode = count;
        // pic_struct (Table D-1): a top or a bottom field picture; a frame
        // keeps the pic_struct the stream gave it (its field order or
        // repetition), else 0.
        uint32_t picStruct = structure == PictureStructure::kTopField ? 1 : structure == PictureStructure::kBottomField ? 2 : 0;
        if (structure == PictureStructure::kFrame) picStruct = streamPicStruct(buffer.data(), size);
        if (qnvutilAddAVCTimeCode(&frame, type, &sps_, picStruct, 0) != QNV_SEI_OK)
            throw Error("access unit at offset " + std::to_string(offset) + ": no pic_timing SEI could be written");
        return frame.frameSize;
    }

private:
    // The pic_struct of the frame's own pic_timing, read as the stream's
    // SPS lays it out; 0 when it has none.
    uint32_t streamPicStruct(const uint8_t* frame, uint32_t size) {
        if (streamSps_.pic_struct_present_flag != 1) return 0;
        scratchSps_ = streamSps_;  // the scan reads the frame's own SPS over it
        H264FrameContext context{};
        context.data = frame;
        context.size = size;
        qnvutilFindNalUnits(&context, &scratchSps_, nullptr, nullptr, nullptr, nullptr, nullptr);
        const bool have = (context.found & H264_FOUND_PIC_TIMING) != 0 && context.picStruct <= 8;
        return have ? context.picStruct : 0;
    }

    static EditChanges changesFor(const TimecodeOptions& o) {
        uint32_t rate = 0, scale = 0;
        qnv::RateFromText(o.rate.c_str(), &rate, &scale);
        EditChanges c;
        c.picStructPresent = true;
        c.fpsWhenAbsent = Ratio{rate, scale};
        return c;
    }
    EditChanges changes_;  // before sets_, which keeps a reference to it
    ParameterSetEditor sets_;
    H264SpsRecord sps_{};        // the SPS as rewritten
    H264SpsRecord streamSps_{};  // the same SPS as the stream has it
    H264SpsRecord scratchSps_{};
    bool haveSps_ = false;
};

void runTimecode(const TimecodeOptions& o) {
    const uint32_t type = timecodeType(o.rate, o.nonDrop);
    const uint32_t first = parseStart(o.start, type);
    InputStream in(o.in);
    UnitReader reader(in);
    const VideoCodec codec = resolveCodec(streamHead(reader), "", in.name());
    if (codec == VideoCodec::kMpeg2) throw Error(in.name() + ": time codes go into HEVC and H.264 streams only");
    AccessUnitReader aus(reader, codec);
    RankedUnits units(aus, codec, 0);
    OutputStream out(o.out);
    std::unique_ptr<H264Stamper> h264;
    if (codec == VideoCodec::kH264) h264 = std::make_unique<H264Stamper>(o);

    std::vector<uint8_t> buffer;
    size_t stamped = 0;
    uint32_t lastCount = first;
    const std::vector<uint8_t>* au;
    int64_t rank;
    uint64_t offset;
    while (units.next(au, rank, offset)) {
        if (h264) {
            h264->rewrite(*au, offset, buffer);
            // The time code start + i goes to the picture displayed i-th; a
            // second field repeats its frame's (every access unit carries a
            // pic_timing once pic_struct_present_flag is set).
            if (rank >= 0) lastCount = first + static_cast<uint32_t>(rank);
            out.write(buffer.data(), h264->stamp(buffer, lastCount, type, units.structure(), offset));
            stamped += rank >= 0 ? 1 : 0;
            continue;
        }
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
    CLI::App* sub = app.add_subcommand("timecode", "Stamp a time code SEI on every picture of an HEVC or H.264 stream, counting up in display order");
    sub->add_option("IN", o->in, "HEVC or H.264 elementary stream")->required();
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
