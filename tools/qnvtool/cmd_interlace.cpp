// qnvtool interlace IN OUT
//
// Turns an HEVC elementary stream of half-height progressive pictures into a
// field-coded stream: consecutive pictures in stream order become the top and
// bottom field of one frame (the stream should have no reordered pictures),
// re-flagged by qnvutilSetFrameInterlaced. A last picture without a partner
// is left out.
#include <cstdio>

#include "qnvutil/hevc.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

struct InterlaceOptions {
    std::string in, out;
};

void runInterlace(const InterlaceOptions& o) {
    std::vector<uint8_t> data = readFile(o.in);
    if (data.empty()) throw Error(o.in + ": empty file");
    if (resolveCodec(data, "", o.in) != VideoCodec::kHevc) throw Error(o.in + ": not an HEVC stream");
    const std::vector<AccessUnit> units = splitAccessUnits(data, VideoCodec::kHevc);
    if (units.size() < 2) throw Error(o.in + ": fewer than two pictures");

    std::vector<uint8_t> out, buffer;
    out.reserve(data.size() + data.size() / 8);
    size_t copiedAsTheyStand = 0;
    for (size_t i = 0; i + 1 < units.size(); i += 2) {
        DFrame source{};
        source.frameData = data.data() + units[i].offset;
        source.frameSize = units[i].size + units[i + 1].size;  // the two units lie back to back
        source.frameCapacity = source.frameSize;
        source.frameFlags = HEVC_FRAME_FIRST_FIELD | HEVC_FRAME_SECOND_FIELD;
        source.secondFieldOffset = units[i].size;
        // Parameter sets may grow by their VUI; each field gains one SEI.
        buffer.resize(source.frameSize + 4096);
        DFrame field{};
        field.frameData = buffer.data();
        field.frameCapacity = static_cast<uint32_t>(buffer.size());
        const uint32_t status = qnvutilSetFrameInterlaced(&source, &field, nullptr);
        if (status == HEVC_INTERLACE_PS_COPIED)
            ++copiedAsTheyStand;
        else if (status != HEVC_INTERLACE_OK)
            throw Error(o.in + ": the pictures at offset " + std::to_string(units[i].offset) +
                        " could not be re-flagged");
        out.insert(out.end(), field.frameData, field.frameData + field.frameSize);
    }
    writeFile(o.out, out);
    std::printf("%zu pictures, field pairs: %zu", units.size(), units.size() / 2);
    if (units.size() % 2) std::printf(", the last picture left out");
    if (copiedAsTheyStand) std::printf(", with a parameter set copied as it stood: %zu", copiedAsTheyStand);
    std::printf("\n");
}

const Registration kInterlace([](CLI::App& app) {
    auto o = std::make_shared<InterlaceOptions>();
    CLI::App* sub = app.add_subcommand(
        "interlace", "Pair the half-height pictures of an HEVC stream into top and bottom fields and re-flag them");
    sub->add_option("IN", o->in, "HEVC elementary stream of half-height pictures")->required();
    sub->add_option("OUT", o->out, "field-coded output stream")->required();
    sub->callback([o] { runInterlace(*o); });
});

}  // namespace
}  // namespace qnvtool
