// `qnvtool probe` for HEVC Annex B streams: each distinct VPS, SPS and PPS as
// JSON, with the standard's element names as the stream carries them, and
// for an SPS the picture size, bit depth, chroma format, frame rate and the
// profile, tier and level names.
#include <nlohmann/json.hpp>

#include <cstring>
#include <set>

#include "qnvutil/hevc/hevc_internal.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {

// Elements the records keep, as JSON members; subscripted elements become
// arrays (nested for two subscripts).
class JsonFields : public qnv::hevc::FieldSink {
public:
    nlohmann::json fields = nlohmann::json::object();
    void field(uint32_t, const qnv::hevc::Name& name, int64_t value, int32_t width, bool kept) override {
        if (!kept) return;
        nlohmann::json v = width == qnv::hevc::kSe ? nlohmann::json(value) : nlohmann::json(uint64_t(value));
        if (std::strcmp(name.text, "general_constraint_flags") == 0) {
            // The four leading flags by their own names, and all 48 bits.
            fields["general_progressive_source_flag"] = (value >> 47) & 1;
            fields["general_interlaced_source_flag"] = (value >> 46) & 1;
            fields["general_non_packed_constraint_flag"] = (value >> 45) & 1;
            fields["general_frame_only_constraint_flag"] = (value >> 44) & 1;
        }
        nlohmann::json& slot = fields[name.text];
        if (name.i < 0) {
            slot = v;
        } else if (name.j < 0) {
            slot[static_cast<size_t>(name.i)] = v;
        } else {
            slot[static_cast<size_t>(name.i)][static_cast<size_t>(name.j)] = v;
        }
    }
};

const char* chromaName(uint32_t idc) {
    static const char* const kNames[] = {"4:0:0", "4:2:0", "4:2:2", "4:4:4"};
    return idc < 4 ? kNames[idc] : "unknown";
}

nlohmann::json spsSummary(const HevcSpsRecord& s, const HevcVpsRecord* vps) {
    nlohmann::json j;
    // Conformance window offsets count chroma samples.
    const uint32_t subWidth = s.chroma_format_idc == 1 || s.chroma_format_idc == 2 ? 2 : 1;
    const uint32_t subHeight = s.chroma_format_idc == 1 ? 2 : 1;
    uint64_t width = s.pic_width_in_luma_samples, height = s.pic_height_in_luma_samples;
    if (s.conformance_window_flag) {
        width -= uint64_t(subWidth) * (uint64_t(s.conf_win_left_offset) + s.conf_win_right_offset);
        height -= uint64_t(subHeight) * (uint64_t(s.conf_win_top_offset) + s.conf_win_bottom_offset);
    }
    j["width"] = static_cast<int64_t>(width);
    j["height"] = static_cast<int64_t>(height);
    j["bit_depth_luma"] = s.bit_depth_luma_minus8 + 8;
    j["bit_depth_chroma"] = s.bit_depth_chroma_minus8 + 8;
    j["chroma_format"] = chromaName(s.chroma_format_idc);
    uint32_t ticks = 0, scale = 0;
    if (s.vui_parameters_present_flag && s.vui_timing_info_present_flag) {
        ticks = s.vui_num_units_in_tick;
        scale = s.vui_time_scale;
    } else if (vps && vps->vps_timing_info_present_flag) {
        ticks = vps->vps_num_units_in_tick;
        scale = vps->vps_time_scale;
    }
    if (ticks && scale) {
        // Field-coded streams count fields: the frame rate is half the picture rate.
        const double pictures = double(scale) / ticks;
        j["frame_rate"] = s.field_seq_flag ? pictures / 2 : pictures;
        j["frame_rate_fraction"] = std::to_string(scale) + "/" + std::to_string(ticks * (s.field_seq_flag ? 2 : 1));
    }
    j["profile"] = qnv::hevc::profileName(s.ptl);
    j["tier"] = s.ptl.general_tier_flag ? "High" : "Main";
    j["level"] = qnv::hevc::levelName(s.ptl.general_level_idc);
    return j;
}

bool detectHevc(const std::vector<uint8_t>& data) {
    return startsWithStartCode(data) && detectCodec(data, listUnits(data)) == Codec::kHevc;
}

void probeHevc(const std::vector<uint8_t>& data, const ProbeOptions& options, std::ostream& out) {
    nlohmann::json list = nlohmann::json::array();
    std::set<std::vector<uint8_t>> seen;
    HevcVpsRecord vps{};
    bool haveVps = false;
    for (const NalUnit& u : listUnits(data)) {
        if (u.size < 2) continue;
        const uint8_t* unit = data.data() + u.payload;
        const uint32_t type = (unit[0] >> 1) & 63u;
        if (type < 32 || type > 34) continue;
        std::vector<uint8_t> bytes(unit, unit + u.size);
        while (bytes.size() > 2 && bytes.back() == 0) bytes.pop_back();  // trailing zero bytes
        if (!seen.insert(bytes).second) continue;

        JsonFields fields;
        qnv::hevc::listParameterSet(bytes.data(), static_cast<uint32_t>(bytes.size()), fields);
        nlohmann::json entry;
        entry["type"] = type == 32 ? "VPS" : type == 33 ? "SPS" : "PPS";
        entry["offset"] = u.offset;
        entry["size"] = bytes.size();
        entry["fields"] = fields.fields;
        bytes.push_back(0);  // the reader's spare byte
        BitBuffer bb{bytes.data(), static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(bytes.size() - 1) * 8, 0};
        if (type == 32) {
            vps = HevcVpsRecord{};
            haveVps = qnvutilRead_HEVC_VPS(&bb, &vps, nullptr, 0) != 0xFFFFFFFFu;
        } else if (type == 33) {
            auto sps = std::make_unique<HevcSpsRecord>();
            if (qnvutilRead_HEVC_SPS(&bb, sps.get(), nullptr, 0) != 0xFFFFFFFFu)
                entry["summary"] = spsSummary(*sps, haveVps ? &vps : nullptr);
        }
        list.push_back(entry);
        if (options.first) break;
    }
    if (list.empty()) throw Error("no HEVC parameter sets found");
    out << list.dump(2) << "\n";
}

const ProberRegistration kHevcProber(Prober{"hevc", detectHevc, probeHevc});

}  // namespace
}  // namespace qnvtool
