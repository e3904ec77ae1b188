// qnvtool tc VALUE --rate R|--type T: frame count to timecode text and back.
// qnvtool tc --convert FRAMES --from R --to T: a count converted between
// timecode types through its text.
#include <strings.h>

#include <cstdio>
#include <memory>

#include "qnvutil/timecodetext.h"
#include "qnvutil/vidformat.h"
#include "tools/qnvtool/tool.h"
#include "vidformat/ratetext.h"
#include "vidformat/tctype.h"

namespace qnvtool {
namespace {

struct TcOptions {
    std::string value;
    std::string rate;
    std::string type;
    std::string convert;
    std::string from;
    std::string to;
};

bool allDigits(const std::string& s) {
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

uint32_t parseFrames(const std::string& s) {
    if (!allDigits(s) || s.size() > 10 || std::stoull(s) > UINT32_MAX)
        throw Error("'" + s + "' is not a frame count (0 to 4294967295)");
    return static_cast<uint32_t>(std::stoull(s));
}

// A timecode type by its parameter name ("drop-frame", "pal", ...) or its code.
uint32_t parseType(const std::string& s) {
    for (const qnv::TcTypeKeyword& k : qnv::kTcTypeKeywords)
        if (strcasecmp(s.c_str(), k.word) == 0) return k.type;
    if (allDigits(s) && s.size() <= 3) {
        const uint32_t code = static_cast<uint32_t>(std::stoul(s));
        if (code == VID_TC_30 || qnv::TcTypeName(code)) return code;
    }
    throw Error("unknown timecode type '" + s +
                "' (frames, film, pal, drop-frame, 50, 59.94, 60, film-drop, 23.98, or a code such as 2)");
}

std::pair<uint32_t, uint32_t> parseRate(const std::string& s) {
    uint32_t rate = 0, scale = 0;
    if (!qnv::RateFromText(s.c_str(), &rate, &scale))
        throw Error("'" + s + "' is not a frame rate (RATE/SCALE such as 30000/1001, or 25, or 29.97)");
    return {rate, scale};
}

// The drop-frame or non-drop-frame type of a rate's type, where the rate has
// both (29.97 and 30: 4 and 2; 59.94 and 60: 32 and 64).
uint32_t separatorType(uint32_t type, bool drop) {
    if (type == VID_TC_2997 || type == VID_TC_30) return drop ? VID_TC_2997 : VID_TC_30;
    if (type == VID_TC_5994 || type == VID_TC_60) return drop ? VID_TC_5994 : VID_TC_60;
    return type;
}

std::string typeLabel(uint32_t type) {
    const char* name = qnv::TcTypeName(type);
    return name ? std::string(name) : "type " + std::to_string(type);
}

void runTc(const TcOptions& o) {
    if (!o.convert.empty()) {
        if (!o.value.empty() || !o.rate.empty() || !o.type.empty())
            throw Error("--convert takes --from and --to, not a VALUE, --rate or --type");
        if (o.from.empty() || o.to.empty()) throw Error("--convert needs --from RATE and --to TYPE");
        uint32_t count = parseFrames(o.convert);
        const uint32_t target = parseType(o.to);
        const auto [rate, scale] = parseRate(o.from);
        vidConvertTC(&count, target, rate, scale);
        std::printf("%u\n", count);
        return;
    }
    if (!o.from.empty() || !o.to.empty()) throw Error("--from and --to belong to --convert");
    if (o.value.empty()) throw Error("give a frame count or a timecode, or --convert FRAMES");
    uint32_t type = 0;
    if (!o.type.empty()) {
        type = parseType(o.type);
        if (!o.rate.empty()) parseRate(o.rate);  // checked, though the type decides
    } else if (!o.rate.empty()) {
        const auto [rate, scale] = parseRate(o.rate);
        type = vidGetTCType(double(rate) / double(scale));
    } else {
        throw Error("give --rate or --type");
    }

    if (allDigits(o.value)) {
        char text[TCT_TEXT_SIZE] = {};
        TimecodeTextFormat(parseFrames(o.value), type | 0x32100, text);
        std::printf("%s\n", text);
        return;
    }
    // Without --type the text's last separator picks drop-frame (';' ',') or
    // non-drop-frame (':' '.') counting at rates that have both.
    const char last = o.value.size() >= 3 ? o.value[o.value.size() - 3] : ':';
    if (o.type.empty()) type = separatorType(type, last == ';' || last == ',');
    uint32_t count = 0;
    if (TimecodeTextParse(o.value.c_str(), type | 0x100, &count) != TCT_OK)
        throw Error("'" + o.value + "' is not a " + typeLabel(type) + " timecode");
    std::printf("%u\n", count);
}

const Registration kTc([](CLI::App& app) {
    auto o = std::make_shared<TcOptions>();
    CLI::App* sub = app.add_subcommand("tc", "Frame counts to timecode text and back, and between timecode types");
    sub->add_option("VALUE", o->value, "frame count (digits) or timecode text such as 01:00:00;00");
    sub->add_option("--rate", o->rate, "frame rate: RATE/SCALE, whole or decimal (picks the timecode type)");
    sub->add_option("--type", o->type,
                    "timecode type: frames, film, pal, drop-frame, 50, 59.94, 60, film-drop, 23.98, or its code "
                    "(2 = 30 non-drop; non-drop-frame names the 29.97 type 4, as in command parameters)");
    sub->add_option("--convert", o->convert, "frame count to convert from --from to --to");
    sub->add_option("--from", o->from, "frame rate of the count to convert");
    sub->add_option("--to", o->to, "timecode type to convert to");
    sub->callback([o] { runTc(*o); });
});

}  // namespace
}  // namespace qnvtool
