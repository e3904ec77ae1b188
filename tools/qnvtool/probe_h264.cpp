// qnvtool probe for H.264 Annex B streams: every distinct SPS and PPS as JSON
// with the standard's syntax element names (only the elements the unit
// carries, in stream order), and for each SPS the decoded picture size,
// crop, frame rate and profile and level names.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <numeric>
#include <map>
#include <set>
#include <string>

#include "foundation/nal/nal.h"
#include "qnvutil/h264/h264_syntax.h"
#include "qnvutil/h264/paramsets.h"
#include "qnvutil/h264/slices.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/probe_json.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

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

bool detectH264(const std::vector<uint8_t>& head) { return detectCodec(head, listUnits(head)) == Codec::kH264; }

// Every slice header, read with the parameter sets active at it.
Json sliceEntry(const StreamUnit& u, const std::map<int32_t, H264SpsRecord>& spss,
                const std::map<int32_t, H264PpsRecord>& ppss) {
    Json entry;
    entry["type"] = "slice";
    entry["offset"] = u.startCodeOffset();
    entry["size"] = u.size;
    // The reader accepts only the PPS the header names (and its SPS).
    BitBuffer bb{const_cast<uint8_t*>(u.unit()), u.size, u.size * 8, 0};
    H264SliceHeader h;
    for (const auto& [id, pps] : ppss) {
        auto sps = spss.find(pps.seq_parameter_set_id);
        if (sps == spss.end()) continue;
        JsonFields attempt(JsonFields::Codes::kSigned);
        if (qnv::readSliceHeader(&bb, &sps->second, &pps, &h, &attempt) != qnv::kSliceFailed) {
            entry["fields"] = std::move(attempt.fields);
            entry["header_bits"] = h.header_bits;
            return entry;
        }
    }
    entry["error"] = "no active parameter sets read this header";
    return entry;
}

// The slice entries wait in a temporary file until the parameter sets,
// which come first in the document, are printed.
class SliceSpill {
public:
    SliceSpill() : file_(std::tmpfile()), printer_(text_, 2) {
        if (!file_) throw Error(std::string("temporary file: ") + std::strerror(errno));
    }
    ~SliceSpill() { std::fclose(file_); }
    void add(const Json& entry) {
        text_.str("");
        printer_.add(entry);
        const std::string piece = text_.str();
        if (std::fwrite(piece.data(), 1, piece.size(), file_) != piece.size()) throw Error("temporary file: write error");
    }
    void print(std::ostream& out) {
        text_.str("");
        printer_.close();
        const std::string tail = text_.str();
        std::rewind(file_);
        char chunk[65536];
        for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, file_)) != 0;) out.write(chunk, static_cast<std::streamsize>(n));
        out << tail;
    }

private:
    FILE* file_;
    std::ostringstream text_;
    JsonArrayPrinter printer_;
};

void probeH264(UnitReader& stream, const ProbeOptions& options, std::ostream& out) {
    if (options.hdr) return probeColour(stream, false, options, out);
    Json sets = Json::array();
    std::unique_ptr<SliceSpill> slices = options.slices ? std::make_unique<SliceSpill>() : nullptr;
    std::set<std::vector<uint8_t>> seen;
    std::map<int32_t, H264SpsRecord> spss;
    std::map<int32_t, H264PpsRecord> ppss;
    bool haveSps = false, complete = false;
    for (StreamUnit u; stream.next(u);) {
        if (u.size == 0) continue;
        const uint32_t type = u.unit()[0] & 31u;
        if (slices && (type == qnv::nal::h264::kNonIdrSlice || type == qnv::nal::h264::kIdrSlice)) {
            slices->add(sliceEntry(u, spss, ppss));
            continue;
        }
        if (type != qnv::nal::h264::kSps && type != qnv::nal::h264::kPps) continue;
        std::vector<uint8_t> bytes(u.unit(), u.unit() + u.size);
        BitBuffer bb{bytes.data(), u.size, u.size * 8, 0};
        const bool fresh = seen.insert(bytes).second;
        JsonFields trace(JsonFields::Codes::kSigned);
        Json unit;
        unit["type"] = type == qnv::nal::h264::kSps ? "SPS" : "PPS";
        unit["offset"] = u.startCodeOffset();
        unit["size"] = u.size;
        if (type == qnv::nal::h264::kSps) {
            H264SpsRecord sps{};
            qnv::readH264Sps(&bb, &sps, &trace);
            spss[sps.seq_parameter_set_id] = sps;
            unit["syntax"] = std::move(trace.fields);
            unit["derived"] = derived(sps);
            haveSps = true;
        } else {
            H264PpsRecord pps{};
            qnv::readH264Pps(&bb, &pps, &trace);
            ppss[pps.pic_parameter_set_id] = pps;
            unit["syntax"] = std::move(trace.fields);
        }
        if (fresh && !complete) sets.push_back(std::move(unit));
        if (options.first && haveSps && type == qnv::nal::h264::kPps) {
            complete = true;  // the first complete set
            if (!options.slices) break;
        }
    }
    if (sets.empty()) throw Error("no H.264 parameter sets found");
    clearProgressLine();
    Json doc;
    doc["codec"] = "h264";
    doc["parameter_sets"] = std::move(sets);
    std::string text = doc.dump(2);
    if (!slices) {
        out << text << "\n";
        return;
    }
    text.erase(text.rfind('\n'));  // the closing brace: the slices go in front of it
    out << text << ",\n  \"slices\": ";
    slices->print(out);
    out << "\n}\n";
}

const ProberRegistration kH264Prober(Prober{"h264", detectH264, probeH264});

}  // namespace
}  // namespace qnvtool
