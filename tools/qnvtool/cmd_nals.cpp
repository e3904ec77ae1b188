// qnvtool nals FILE [--codec h264|hevc]: lists the NAL units of an Annex B stream.
#include <cstdio>

#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

struct NalsOptions {
    std::string file;
    std::string codec;
};

void runNals(const NalsOptions& o) {
    std::vector<uint8_t> data = readFile(o.file);
    if (data.empty()) throw Error(o.file + ": empty file");
    if (!startsWithStartCode(data)) throw Error(o.file + ": not an Annex B stream (no start code at the beginning)");
    std::vector<NalUnit> units = listUnits(data);
    Codec codec = o.codec.empty() ? detectCodec(data, units) : parseCodec(o.codec);
    if (codec == Codec::kUnknown) throw Error(o.file + ": no H.264 or HEVC NAL units found");

    std::printf("%10s %3s %10s %5s  %s\n", "offset", "sc", "size", "type", "name");
    for (const NalUnit& u : units) {
        if (u.size == 0) {
            std::printf("%10u %3u %10u %5s  %s\n", u.offset, u.startCode, 0u, "-", "(empty)");
            continue;
        }
        uint32_t type = qnv::nal::unitType(nalCodec(codec), data[u.payload]);
        std::printf("%10u %3u %10u %5u  %s\n", u.offset, u.startCode, u.size, type,
                    qnv::nal::typeName(nalCodec(codec), type));
    }
    std::printf("%zu NAL units, %s\n", units.size(), codecName(codec));
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
