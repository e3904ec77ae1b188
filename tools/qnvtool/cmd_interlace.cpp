// qnvtool interlace IN OUT
//
// Turns an HEVC elementary stream of half-height progressive pictures into a
// field-coded stream: consecutive pictures in stream order become the top and
// bottom field of one frame (the stream should have no reordered pictures),
// re-flagged by qnvutilSetFrameInterlaced. A last picture without a partner
// is left out. IN and OUT may be "-" for standard input and output.
#include <cstdio>

#include "qnvutil/hevc.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {
namespace {

struct InterlaceOptions {
    std::string in, out;
};

void runInterlace(const InterlaceOptions& o) {
    InputStream in(o.in);
    UnitReader reader(in);
    if (resolveCodec(streamHead(reader), "", in.name()) != VideoCodec::kHevc)
        throw Error(in.name() + ": not an HEVC stream");
    AccessUnitReader aus(reader, VideoCodec::kHevc);
    OutputStream out(o.out);

    std::vector<uint8_t> pair, second, buffer;
    uint64_t pictures = 0, offset = 0, secondOffset = 0;
    size_t copiedAsTheyStand = 0;
    while (aus.next(pair, offset)) {
        ++pictures;
        if (!aus.next(second, secondOffset)) break;
        ++pictures;
        DFrame source{};
        const auto firstSize = static_cast<uint32_t>(pair.size());
        pair.insert(pair.end(), second.begin(), second.end());  // the two units back to back
        source.frameData = pair.data();
        source.frameSize = static_cast<uint32_t>(pair.size());
        source.frameCapacity = source.frameSize;
        source.frameFlags = HEVC_FRAME_FIRST_FIELD | HEVC_FRAME_SECOND_FIELD;
        source.secondFieldOffset = firstSize;
        // Parameter sets may grow by their VUI; each field gains one SEI.
        buffer.resize(source.frameSize + 4096);
        DFrame field{};
        field.frameData = buffer.data();
        field.frameCapacity = static_cast<uint32_t>(buffer.size());
        const uint32_t status = qnvutilSetFrameInterlaced(&source, &field, nullptr);
        if (status == HEVC_INTERLACE_PS_COPIED)
            ++copiedAsTheyStand;
        else if (status != HEVC_INTERLACE_OK)
            throw Error(in.name() + ": the pictures at offset " + std::to_string(offset) + " could not be re-flagged");
        out.write(field.frameData, field.frameSize);
    }
    if (pictures < 2) throw Error(in.name() + ": fewer than two pictures");
    out.commit();
    FILE* summary = summaryFile(out);
    std::fprintf(summary, "%llu pictures, field pairs: %llu", static_cast<unsigned long long>(pictures),
                 static_cast<unsigned long long>(pictures / 2));
    if (pictures % 2) std::fprintf(summary, ", the last picture left out");
    if (copiedAsTheyStand) std::fprintf(summary, ", with a parameter set copied as it stood: %zu", copiedAsTheyStand);
    std::fprintf(summary, "\n");
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
