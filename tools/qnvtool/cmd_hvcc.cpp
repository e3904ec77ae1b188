// qnvtool hvcc FILE.265 [-o BOX]: the HEVC decoder configuration record built
// from a stream's first VPS, SPS and PPS, as an 'hvcC' box in hex and decoded.
// qnvtool hvcc --read BOX: decodes a stored 'hvcC' box.
#include <cstdio>
#include <memory>

#include "qnvutil/hevc/hevc_internal.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {
namespace {

struct HvccOptions {
    std::string file;
    std::string read;
    std::string out;
};

struct Sets {
    HevcVpsRecord vps{};
    HevcSpsRecord sps{};
    HevcPpsRecord pps{};
};

void printConfig(const HevcConfigRecord& c) {
    const uint64_t constraints = uint64_t(c.general_constraint_indicator_flags_hi) << 32 | c.general_constraint_indicator_flags_lo;
    std::printf("configurationVersion                %u\n", c.configurationVersion);
    std::printf("general_profile_space               %u\n", c.general_profile_space);
    std::printf("general_tier_flag                   %u\n", c.general_tier_flag);
    std::printf("general_profile_idc                 %u\n", c.general_profile_idc);
    std::printf("general_profile_compatibility_flags 0x%08X\n", c.general_profile_compatibility_flags);
    std::printf("general_constraint_indicator_flags  0x%012llX\n", static_cast<unsigned long long>(constraints));
    std::printf("general_level_idc                   %u (level %s)\n", c.general_level_idc,
                qnv::hevc::levelName(c.general_level_idc).c_str());
    std::printf("min_spatial_segmentation_idc        %u\n", c.min_spatial_segmentation_idc);
    std::printf("parallelismType                     %u\n", c.parallelismType);
    std::printf("chromaFormat                        %u\n", c.chromaFormat);
    std::printf("bitDepthLumaMinus8                  %u\n", c.bitDepthLumaMinus8);
    std::printf("bitDepthChromaMinus8                %u\n", c.bitDepthChromaMinus8);
    std::printf("avgFrameRate                        %u\n", c.avgFrameRate);
    std::printf("constantFrameRate                   %u\n", c.constantFrameRate);
    std::printf("numTemporalLayers                   %u\n", c.numTemporalLayers);
    std::printf("temporalIdNested                    %u\n", c.temporalIdNested);
    std::printf("lengthSizeMinusOne                  %u\n", c.lengthSizeMinusOne);
    std::printf("numOfArrays                         %u\n", c.numOfArrays);
}

void printSets(const Sets& s) {
    std::printf("VPS: id %u, %u sub-layer(s)\n", s.vps.vps_video_parameter_set_id, s.vps.vps_max_sub_layers_minus1 + 1);
    std::printf("SPS: id %u, %ux%u, profile %s, level %s\n", s.sps.sps_seq_parameter_set_id,
                s.sps.pic_width_in_luma_samples, s.sps.pic_height_in_luma_samples, qnv::hevc::profileName(s.sps.ptl),
                qnv::hevc::levelName(s.sps.ptl.general_level_idc).c_str());
    std::printf("PPS: id %u, SPS id %u\n", s.pps.pps_pic_parameter_set_id, s.pps.pps_seq_parameter_set_id);
}

void readBox(const std::string& path) {
    std::vector<uint8_t> box = readFile(path);
    if (box.size() < 31 || box[4] != 'h' || box[5] != 'v' || box[6] != 'c' || box[7] != 'C')
        throw Error(path + ": not an 'hvcC' box (size, 'hvcC', record)");
    const uint32_t size = static_cast<uint32_t>(box.size());
    box.push_back(0);  // the reader's spare byte
    BitBuffer bb{box.data(), size + 1, size * 8, 0};
    HevcConfigRecord config{};
    auto sets = std::make_unique<Sets>();
    const uint32_t end = qnvutilRead_HEVC_CR(&bb, &config, &sets->vps, &sets->sps, &sets->pps);
    if (end == 0xFFFFFFFFu) throw Error(path + ": the configuration record cannot be read");
    printConfig(config);
    printSets(*sets);
}

void buildBox(const HvccOptions& o) {
    InputStream in(o.file);
    UnitReader reader(in);
    if (!startsWithStartCode(streamHead(reader)))
        throw Error(in.name() + ": not an Annex B stream (no start code at the beginning)");
    HevcConfigRecord config{};
    config.configurationVersion = 1;
    config.lengthSizeMinusOne = 3;
    auto sets = std::make_unique<Sets>();
    std::vector<uint8_t> nal[3];
    // The stream is read up to its first VPS, SPS and PPS.
    for (StreamUnit u; (nal[0].empty() || nal[1].empty() || nal[2].empty()) && reader.next(u);) {
        if (u.size < 2) continue;
        const uint32_t type = qnv::nal::unitType(qnv::nal::Codec::kHevc, u.unit()[0]);
        if (type < 32 || type > 34 || !nal[type - 32].empty()) continue;
        std::vector<uint8_t>& unit = nal[type - 32];
        unit.assign(u.unit(), u.unit() + u.size);
        while (unit.size() > 2 && unit.back() == 0) unit.pop_back();
        std::vector<uint8_t> copy(unit);
        copy.push_back(0);
        BitBuffer bb{copy.data(), static_cast<uint32_t>(copy.size()), static_cast<uint32_t>(unit.size() * 8), 0};
        uint32_t r = type == 32   ? qnvutilRead_HEVC_VPS(&bb, &sets->vps, &config, 0)
                     : type == 33 ? qnvutilRead_HEVC_SPS(&bb, &sets->sps, &config, 0)
                                  : qnvutilRead_HEVC_PPS(&bb, &sets->pps, &config, 0);
        if (r == 0xFFFFFFFFu)
            throw Error(in.name() + ": a parameter set at offset " + std::to_string(u.startCodeOffset()) +
                        " cannot be read");
        ++config.numOfArrays;
    }
    if (nal[1].empty()) throw Error(in.name() + ": no HEVC sequence parameter set found");
    for (const auto& n : nal)
        if (n.size() > 0xFFFF) throw Error(in.name() + ": parameter set too large for the record");

    std::vector<uint8_t> record(23 + 3 * 5 + nal[0].size() + nal[1].size() + nal[2].size());
    BitBuffer out{record.data(), static_cast<uint32_t>(record.size()), 0, 0};
    record.resize(qnvutilWrite_HEVC_CR(&out, &config, nal[0].data(), nal[1].data(), nal[2].data(),
                                       static_cast<int32_t>(nal[0].size()), static_cast<int32_t>(nal[1].size()),
                                       static_cast<int32_t>(nal[2].size())));
    const std::vector<uint8_t> box = makeBox("hvcC", record);
    if (!o.out.empty()) writeFile(o.out, box);

    printHex(box);
    printConfig(config);
    printSets(*sets);
}

const Registration kHvcc([](CLI::App& app) {
    auto options = std::make_shared<HvccOptions>();
    CLI::App* sub = app.add_subcommand("hvcc", "Build the HEVC decoder configuration record ('hvcC') of a stream, or decode one");
    sub->add_option("FILE", options->file, "HEVC Annex B stream");
    sub->add_option("--read", options->read, "decode this stored 'hvcC' box (size, type, record) instead");
    sub->add_option("-o,--out", options->out, "also write the box to this file");
    sub->callback([options] {
        if (!options->read.empty()) {
            readBox(options->read);
        } else if (!options->file.empty()) {
            buildBox(*options);
        } else {
            throw Error("hvcc needs a stream FILE or --read BOX");
        }
    });
});

}  // namespace
}  // namespace qnvtool
