// `qnvtool probe` for HEVC Annex B streams: each distinct VPS, SPS and PPS as
// JSON, with the standard's element names as the stream carries them, and
// for an SPS the picture size, bit depth, chroma format, frame rate and the
// profile, tier and level names.
#include <nlohmann/json.hpp>

#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "foundation/nal/nal.h"
#include "qnvutil/hevc/hevc_internal.h"
#include "qnvutil/hevc/hevc_slice.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/probe_json.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {

const char* chromaName(uint32_t idc) {
    static const char* const kNames[] = {"4:0:0", "4:2:0", "4:2:2", "4:4:4"};
    return idc < 4 ? kNames[idc] : "unknown";
}

Json spsSummary(const HevcSpsRecord& s, const HevcVpsRecord* vps) {
    Json j;
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

bool detectHevc(const std::vector<uint8_t>& head) {
    return startsWithStartCode(head) && detectCodec(head, listUnits(head)) == Codec::kHevc;
}

// A slice segment header, read with the parameter sets active at it; a
// dependent segment continues the record of the segment before it.
Json sliceEntry(const uint8_t* unit, const StreamUnit& u, const std::map<uint32_t, std::unique_ptr<HevcSpsRecord>>& spss,
                const std::map<uint32_t, HevcPpsRecord>& ppss, qnv::hevc::HevcSliceHeader& h) {
    Json entry;
    entry["type"] = "slice segment";
    entry["offset"] = u.startCodeOffset();
    entry["size"] = u.size;
    // slice_pic_parameter_set_id follows the first flag (and, for IRAP
    // pictures, no_output_of_prior_pics_flag).
    const uint32_t type = (unit[0] >> 1) & 63u;
    BitBuffer bb{const_cast<uint8_t*>(unit), u.size, u.size * 8, 17u + (qnv::hevc::isIrap(type) ? 1u : 0u)};
    const uint32_t ppsId = u.size > 2 ? ReadExponentialGolombCode(&bb) : 0xFFFFFFFFu;
    auto pps = ppss.find(ppsId);
    auto sps = pps == ppss.end() ? spss.end() : spss.find(pps->second.pps_seq_parameter_set_id);
    JsonFields fields;
    if (sps == spss.end() ||
        qnv::hevc::readSliceSegmentHeader(unit, u.size, *sps->second, pps->second, h, &fields) != qnv::hevc::SliceRead::kOk) {
        entry["error"] = "no active parameter sets read this header";
        return entry;
    }
    entry["fields"] = std::move(fields.fields);
    entry["header_bits"] = h.header_bits;
    return entry;
}

void probeHevc(UnitReader& stream, const ProbeOptions& options, std::ostream& out) {
    if (options.hdr) return probeColour(stream, true, options, out);
    // The entries are printed as they come, in stream order.
    JsonArrayPrinter list(out, 0);
    std::set<std::vector<uint8_t>> seen;
    std::map<uint32_t, std::unique_ptr<HevcSpsRecord>> spss;
    std::map<uint32_t, HevcPpsRecord> ppss;
    auto slice = std::make_unique<qnv::hevc::HevcSliceHeader>();
    HevcVpsRecord vps{};
    bool haveVps = false, done = false;
    for (StreamUnit u; stream.next(u);) {
        if (u.size < 2) continue;
        const uint8_t* unit = u.unit();
        const uint32_t type = (unit[0] >> 1) & 63u;
        if (options.slices && qnv::nal::isCodedSlice(qnv::nal::Codec::kHevc, type)) {
            list.add(sliceEntry(unit, u, spss, ppss, *slice));
            continue;
        }
        if (type < qnv::nal::hevc::kVps || type > qnv::nal::hevc::kPps) continue;
        std::vector<uint8_t> bytes(unit, unit + u.size);
        while (bytes.size() > 2 && bytes.back() == 0) bytes.pop_back();  // trailing zero bytes
        const bool fresh = seen.insert(bytes).second;

        JsonFields fields;
        qnv::hevc::listParameterSet(bytes.data(), static_cast<uint32_t>(bytes.size()), fields);
        Json entry;
        entry["type"] = type == 32 ? "VPS" : type == 33 ? "SPS" : "PPS";
        entry["offset"] = u.startCodeOffset();
        entry["size"] = bytes.size();
        entry["fields"] = std::move(fields.fields);
        bytes.push_back(0);  // the reader's spare byte
        BitBuffer bb{bytes.data(), static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(bytes.size() - 1) * 8, 0};
        if (type == 32) {
            vps = HevcVpsRecord{};
            haveVps = qnvutilRead_HEVC_VPS(&bb, &vps, nullptr, 0) != 0xFFFFFFFFu;
        } else if (type == 33) {
            auto sps = std::make_unique<HevcSpsRecord>();
            if (qnvutilRead_HEVC_SPS(&bb, sps.get(), nullptr, 0) != 0xFFFFFFFFu) {
                entry["summary"] = spsSummary(*sps, haveVps ? &vps : nullptr);
                spss[sps->sps_seq_parameter_set_id] = std::move(sps);
            }
        } else {
            HevcPpsRecord pps{};
            if (qnvutilRead_HEVC_PPS(&bb, &pps, nullptr, 0) != 0xFFFFFFFFu) ppss[pps.pps_pic_parameter_set_id] = pps;
        }
        if (fresh && !done) list.add(entry);
        if (options.first) {
            done = true;
            if (!options.slices) break;
        }
    }
    if (list.size() == 0) throw Error("no HEVC parameter sets found");
    list.close();
    out << "\n";
}

const ProberRegistration kHevcProber(Prober{"hevc", detectHevc, probeHevc});

}  // namespace
}  // namespace qnvtool
