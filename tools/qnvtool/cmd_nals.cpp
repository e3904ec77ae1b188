// qnvtool nals FILE [--codec h264|hevc]: lists the NAL units of an Annex B
// stream (FILE "-": standard input), reading it in chunks.
#include <cstdio>

#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {
namespace {

struct NalsOptions {
    std::string file;
    std::string codec;
};

void runNals(const NalsOptions& o) {
    InputStream in(o.file, true);
    UnitReader reader(in);
    const std::vector<uint8_t> head = streamHead(reader);
    if (!startsWithStartCode(head)) throw Error(in.name() + ": not an Annex B stream (no start code at the beginning)");
    const Codec codec = o.codec.empty() ? detectCodec(head, listUnits(head)) : parseCodec(o.codec);
    if (codec == Codec::kUnknown) throw Error(in.name() + ": no H.264 or HEVC NAL units found");

    std::printf("%10s %3s %10s %5s  %s\n", "offset", "sc", "size", "type", "name");
    uint64_t count = 0;
    for (StreamUnit u; reader.next(u);) {
        if (u.prefix == 0) continue;  // bytes with no unit
        ++count;
        const auto offset = static_cast<unsigned long long>(u.startCodeOffset());
        if (u.size == 0) {
            std::printf("%10llu %3u %10u %5s  %s\n", offset, u.prefix, 0u, "-", "(empty)");
            continue;
        }
        const uint32_t type = qnv::nal::unitType(nalCodec(codec), u.unit()[0]);
        std::printf("%10llu %3u %10u %5u  %s\n", offset, u.prefix, u.size, type,
                    qnv::nal::typeName(nalCodec(codec), type));
    }
    clearProgressLine();
    std::printf("%llu NAL units, %s\n", static_cast<unsigned long long>(count), codecName(codec));
}

const Registration kNals([](CLI::App& app) {
    auto options = std::make_shared<NalsOptions>();
    CLI::App* sub = app.add_subcommand("nals", "List the NAL units of an H.264 or HEVC Annex B stream");
    sub->add_option("FILE", options->file, "Annex B elementary stream")->required();
    sub->add_option("--codec", options->codec, "h264 or hevc (detected from the first units when not given)")
        ->check(CLI::IsMember({"h264", "hevc"}));
    sub->callback([options] { runNals(*options); });
});

}  // namespace
}  // namespace qnvtool
