// qnvtool rate RATE: a frame rate normalised, with its frames per second,
// frame duration and timecode type.
#include <cstdio>
#include <memory>

#include "qnvutil/vidformat.h"
#include "tools/qnvtool/tool.h"
#include "vidformat/ratetext.h"
#include "vidformat/tctype.h"

namespace qnvtool {
namespace {

void runRate(const std::string& text) {
    uint32_t rate = 0, scale = 0;
    if (!qnv::RateFromText(text.c_str(), &rate, &scale))
        throw Error("'" + text + "' is not a frame rate (RATE/SCALE such as 2997/100, or 25, or 29.97)");
    vidNormalizeRateScale(&rate, &scale);
    const double fps = vidFramesPerSecD(VID_NO_FORMAT, rate, scale);
    const uint32_t type = vidGetTCType(fps);
    const char* name = qnv::TcTypeName(type);
    std::printf("rate/scale     %u/%u\n", rate, scale);
    std::printf("frames/s       %.10g\n", fps);
    std::printf("ms/frame       %.10g\n", vidMsPerFrameD(VID_NO_FORMAT, rate, scale));
    std::printf("timecode type  %u%s%s%s\n", type, name ? " (" : "", name ? name : "", name ? ")" : "");
}

const Registration kRate([](CLI::App& app) {
    auto text = std::make_shared<std::string>();
    CLI::App* sub = app.add_subcommand("rate", "Normalise a frame rate and show its duration and timecode type");
    sub->add_option("RATE", *text, "RATE/SCALE (2997/100, 30000/1001), whole (25) or decimal (29.97)")->required();
    sub->callback([text] { runRate(*text); });
});

}  // namespace
}  // namespace qnvtool
