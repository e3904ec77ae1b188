// qnvtool avcc FILE.264 [-o BOX]: the AVC decoder configuration record built
// from the parameter sets of a stream's first access unit, as an 'avcC' box
// in hex and decoded.
// qnvtool avcc --read BOX: decodes a stored 'avcC' box.
#include <cstdio>
#include <memory>

#include "qnvutil/h264.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {
namespace {

struct AvccOptions {
    std::string file;
    std::string read;
    std::string out;
};

struct Sets {
    H264SpsRecord sps{};
    H264PpsRecord pps{};
};

void printConfig(const AvcConfigRecord& c) {
    std::printf("configurationVersion                %u\n", c.configurationVersion);
    std::printf("AVCProfileIndication                %u\n", c.AVCProfileIndication);
    std::printf("profile_compatibility               0x%02X\n", c.profile_compatibility);
    std::printf("AVCLevelIndication                  %u\n", c.AVCLevelIndication);
    std::printf("lengthSizeMinusOne                  %u\n", c.lengthSizeMinusOne);
    std::printf("numOfSequenceParameterSets          %u\n", c.numOfSequenceParameterSets);
    std::printf("numOfPictureParameterSets           %u\n", c.numOfPictureParameterSets);
    if (!c.extensionPresent) return;
    std::printf("chroma_format                       %u\n", c.chroma_format);
    std::printf("bit_depth_luma_minus8               %u\n", c.bit_depth_luma_minus8);
    std::printf("bit_depth_chroma_minus8             %u\n", c.bit_depth_chroma_minus8);
    std::printf("numOfSequenceParameterSetExt        %u\n", c.numOfSequenceParameterSetExt);
}

void printSets(const Sets& s) {
    const int64_t width = (int64_t(s.sps.pic_width_in_mbs_minus1) + 1) * 16;
    const int64_t height = (int64_t(s.sps.pic_height_in_map_units_minus1) + 1) * 16 * (2 - s.sps.frame_mbs_only_flag);
    std::printf("SPS: id %d, coded %lldx%lld, profile_idc %d, level_idc %d\n",
                s.sps.seq_parameter_set_id, static_cast<long long>(width), static_cast<long long>(height),
                s.sps.profile_idc, s.sps.level_idc);
    std::printf("PPS: id %d, SPS id %d, %s\n", s.pps.pic_parameter_set_id, s.pps.seq_parameter_set_id,
                s.pps.entropy_coding_mode_flag ? "CABAC" : "CAVLC");
}

// Decodes a box; throws Error with `what` when it cannot be read.
void decode(std::vector<uint8_t> box, const std::string& what) {
    if (box.size() < 15 || box[4] != 'a' || box[5] != 'v' || box[6] != 'c' || box[7] != 'C')
        throw Error(what + ": not an 'avcC' box (size, 'avcC', record)");
    const uint32_t size = static_cast<uint32_t>(box.size());
    BitBuffer bb{box.data(), size, size * 8, 0};
    AvcConfigRecord config{};
    auto sets = std::make_unique<Sets>();
    if (qnvutilReadAvcc(&bb, &config, &sets->sps, &sets->pps, nullptr, nullptr, nullptr, nullptr) == 0xFFFFFFFFu)
        throw Error(what + ": the configuration record cannot be read");
    printConfig(config);
    printSets(*sets);
}

void buildBox(const AvccOptions& o) {
    // The first access unit is all that is read.
    InputStream in(o.file);
    UnitReader reader(in);
    if (!startsWithStartCode(streamHead(reader)))
        throw Error(in.name() + ": not an Annex B stream (no start code at the beginning)");
    AccessUnitReader aus(reader, VideoCodec::kH264);
    std::vector<uint8_t> first;
    uint64_t offset = 0;
    if (!aus.next(first, offset)) throw Error(in.name() + ": no access unit found");
    H264FrameContext frame{};
    frame.data = first.data();
    frame.size = static_cast<uint32_t>(first.size());
    std::vector<uint8_t> record(first.size() + 64);
    record.resize(qnvutilGetAvcc(&frame, record.data(), static_cast<uint32_t>(record.size())));
    if (record.empty())
        throw Error(in.name() + ": the first access unit has no SPS and PPS that make an 'avcC' record");
    const std::vector<uint8_t> box = makeBox("avcC", record);
    if (!o.out.empty()) writeFile(o.out, box);
    printHex(box);
    decode(box, in.name());
}

const Registration kAvcc([](CLI::App& app) {
    auto options = std::make_shared<AvccOptions>();
    CLI::App* sub = app.add_subcommand("avcc", "Build the AVC decoder configuration record ('avcC') of a stream, or decode one");
    sub->add_option("FILE", options->file, "H.264 Annex B stream");
    sub->add_option("--read", options->read, "decode this stored 'avcC' box (size, type, record) instead");
    sub->add_option("-o,--out", options->out, "also write the box to this file");
    sub->callback([options] {
        if (!options->read.empty()) {
            decode(readFile(options->read), options->read);
        } else if (!options->file.empty()) {
            buildBox(*options);
        } else {
            throw Error("avcc needs a stream FILE or --read BOX");
        }
    });
});

}  // namespace
}  // namespace qnvtool
