// qnvtool probe for H.264 Annex B streams: every distinct SPS and PPS as JSON
// with the standard's syntax element names (only the elements the unit
// carries, in stream order), and for each SPS the decoded picture size,
// crop, frame rate and profile and level names.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>
#include <set>
#include <string>

#include "qnvutil/h264/h264_syntax.h"
#include "qnvutil/h264/paramsets.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

using Json = nlohmann::ordered_json;

// Builds the JSON object of one unit from the elements the record keeps,
// nested structures as objects, subscripted elements as arrays.
class JsonTrace : public qnv::syntax::FieldSink {
public:
    explicit JsonTrace(Json& root) { stack_.push_back(&root); }
    void field(uint32_t, const qnv::syntax::Name& name, int64_t value, int32_t width, bool kept) override {
        if (!kept) return;
        Json& obj = *stack_.back();
        // Fixed-length fields are unsigned in the standard; signed codes and
        // words the record derives keep their sign.
        Json v = width > 0 ? Json(static_cast<uint32_t>(value)) : Json(static_cast<int32_t>(value));
        if (width == qnv::syntax::kUe) v = static_cast<int32_t>(value);
        if (name.i < 0) {
            obj[name.text] = v;
        } else if (name.j < 0) {
            obj[name.text][static_cast<size_t>(name.i)] = v;
        } else {
            obj[name.text][static_cast<size_t>(name.i)][static_cast<size_t>(name.j)] = v;
        }
    }
    void open(const char* structure) override {
        Json& obj = *stack_.back();
        obj[structure] = Json::object();
        stack_.push_back(&obj[structure]);
    }
    void close() override { stack_.pop_back(); }

private:
    std::vector<Json*> stack_;
};

std::string profileName(const H264SpsRecord& s) {
    switch (s.profile_idc) {
        case 44: return "CAVLC 4:4:4 Intra";
        case 66: return s.constraint_set1_flag == 1 ? "Constrained Baseline" : "Baseline";
        case 77: return "Main";
        case 83: return "Scalable Baseline";
        case 86: return "Scalable High";
        case 88: return "Extended";
        case 100: return "High";
        case 110: return s.constraint_set3_flag == 1 ? "High 10 Intra" : "High 10";
        case 118: return "Multiview High";
        case 122: return s.constraint_set3_flag == 1 ? "High 4:2:2 Intra" : "High 4:2:2";
        case 128: return "Stereo High";
        case 134: return "MFC High";
        case 135: return "MFC Depth High";
        case 138: return "Multiview Depth High";
        case 139: return "Enhanced Multiview Depth High";
        case 244: return s.constraint_set3_flag == 1 ? "High 4:4:4 Intra" : "High 4:4:4 Predictive";
        default: return "unknown (" + std::to_string(s.profile_idc) + ")";
    }
}

std::string levelName(const H264SpsRecord& s) {
    bool oneB = s.level_idc == 9 ||
                (s.level_idc == 11 && s.constraint_set3_flag == 1 &&
                 (s.profile_idc == 66 || s.profile_idc == 77 || s.profile_idc == 88));
    if (oneB) return "1b";
    return std::to_string(s.level_idc / 10) + "." + std::to_string(s.level_idc % 10);
}

// Values a decoder derives from the SPS. The record's defaults for profiles
// without the chroma block (bit depths stored as 8) are read as 4:2:0, 8 bits.
Json derived(const H264SpsRecord& s) {
    const bool chromaBlock = qnv::h264::hasChromaBlock(s.profile_idc);
    const int64_t chromaFormat = chromaBlock ? s.chroma_format_idc : 1;
    const int64_t arrayType = chromaBlock && s.separate_colour_plane_flag == 1 ? 0 : chromaFormat;
    const int64_t subWidth = chromaFormat == 3 ? 1 : 2, subHeight = chromaFormat == 1 ? 2 : 1;
    const int64_t fieldFactor = 2 - (s.frame_mbs_only_flag == 1 ? 1 : 0);
    const int64_t cropX = arrayType == 0 ? 1 : subWidth;
    const int64_t cropY = (arrayType == 0 ? 1 : subHeight) * fieldFactor;
    const int64_t codedWidth = (int64_t(s.pic_width_in_mbs_minus1) + 1) * 16;
    const int64_t codedHeight = (int64_t(s.pic_height_in_map_units_minus1) + 1) * 16 * fieldFactor;
    int64_t left = 0, right = 0, top = 0, bottom = 0;
    if (s.frame_cropping_flag == 1) {
        left = s.frame_crop_left_offset * cropX;
        right = s.frame_crop_right_offset * cropX;
        top = s.frame_crop_top_offset * cropY;
        bottom = s.frame_crop_bottom_offset * cropY;
    }
    static const char* const kChroma[] = {"4:0:0", "4:2:0", "4:2:2", "4:4:4"};
    Json d;
    d["profile"] = profileName(s);
    d["level"] = levelName(s);
    d["chroma_format"] = chromaFormat >= 0 && chromaFormat <= 3 ? kChroma[chromaFormat] : "unknown";
    d["bit_depth_luma"] = chromaBlock ? 8 + int64_t(s.bit_depth_luma_minus8) : 8;
    d["bit_depth_chroma"] = chromaBlock ? 8 + int64_t(s.bit_depth_chroma_minus8) : 8;
    d["coded_width"] = codedWidth;
    d["coded_height"] = codedHeight;
    d["crop"] = {{"left", left}, {"right", right}, {"top", top}, {"bottom", bottom}};
    d["width"] = codedWidth - left - right;
    d["height"] = codedHeight - top - bottom;
    d["interlaced"] = s.frame_mbs_only_flag != 1;
    if (s.vui_parameters_present_flag == 1 && s.timing_info_present_flag == 1 && s.num_units_in_tick != 0) {
        // One frame lasts two ticks.
        const uint64_t ticks = 2ull * static_cast<uint32_t>(s.num_units_in_tick);
        const uint32_t scale = static_cast<uint32_t>(s.time_scale);
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.3f", double(scale) / double(ticks));
        d["frame_rate"] = std::stod(rate);
        const uint64_t g = std::gcd(uint64_t(scale), ticks);
        d["frame_rate_fraction"] = std::to_string(scale / g) + "/" + std::to_string(ticks / g);
    }
    return d;
}

bool detectH264(const std::vector<uint8_t>& data) { return detectCodec(data, listUnits(data)) == Codec::kH264; }

void probeH264(const std::vector<uint8_t>& data, const ProbeOptions& options, std::ostream& out) {
    Json sets = Json::array();
    std::set<std::vector<uint8_t>> seen;
    bool haveSps = false;
    for (const NalUnit& u : listUnits(data)) {
        if (u.size == 0) continue;
        const uint32_t type = data[u.payload] & 31u;
        if (type != 7 && type != 8) continue;
        std::vector<uint8_t> bytes(data.begin() + u.payload, data.begin() + u.payload + u.size);
        if (!seen.insert(bytes).second) continue;

        Json unit;
        unit["type"] = type == 7 ? "SPS" : "PPS";
        unit["offset"] = u.offset;
        unit["size"] = u.size;
        Json syntax = Json::object();
        JsonTrace trace(syntax);
        BitBuffer bb{bytes.data(), u.size, u.size * 8, 0};
        if (type == 7) {
            H264SpsRecord sps{};
            qnv::readH264Sps(&bb, &sps, &trace);
            unit["syntax"] = std::move(syntax);
            unit["derived"] = derived(sps);
            haveSps = true;
        } else {
            H264PpsRecord pps{};
            qnv::readH264Pps(&bb, &pps, &trace);
            unit["syntax"] = std::move(syntax);
        }
        sets.push_back(std::move(unit));
        if (options.first && haveSps && type == 8) break;  // the first complete set
    }
    if (sets.empty()) throw Error("no H.264 parameter sets found");
    Json doc;
    doc["codec"] = "h264";
    doc["parameter_sets"] = std::move(sets);
    out << doc.dump(2) << "\n";
}

const ProberRegistration kH264Prober(Prober{"h264", detectH264, probeH264});

}  // namespace
}  // namespace qnvtool
