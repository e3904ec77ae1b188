// `qnvtool probe --hdr` for H.264 and HEVC streams: the colour SEI (mastering
// display, content light level, alternative transfer), HDR10+ and Dolby
// Vision units of each access unit that carries any, found with the
// library's finders; with --first, one summary of the first such access
// unit. Access units are read one at a time.
#include <nlohmann/json.hpp>

#include "qnvutil/hdr.h"
#include "qnvutil/hdr/hdr_syntax.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/probe_json.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {

// The elements of one message under their syntax names: the record is put
// through the message's description with a sink listening.
template <class Describe>
Json messageFields(const ColorSeiRecord& record, Describe describe) {
    uint8_t scratch[64];
    BitBuffer bb = qnv::bitWriter(scratch, sizeof scratch);
    JsonFields fields;
    qnv::syntax::WriteCoder c(&bb, &fields);
    describe(c, record);
    return std::move(fields.fields);
}

// The entry of one access unit; null when it carries nothing of interest.
Json accessUnitEntry(const std::vector<uint8_t>& au, bool hevc) {
    namespace hdr = qnv::hdr;
    const uint32_t size = static_cast<uint32_t>(au.size());
    ColorSeiRecord colour{};
    const int32_t messages = qnvutilFindColorSEI(au.data(), size, hevc ? QNV_HDR_HEVC : QNV_HDR_H264, 0, &colour);
    DolbyVisionUnits dovi{};
    const int32_t doviUnits = hevc ? qnvUtilFindDolbyVisionMetadata(au.data(), size, 0, &dovi) : 0;
    if (messages <= 0 && doviUnits <= 0) return nullptr;
    Json entry;
    if (colour.mastering_display_present)
        entry["mastering_display_colour_volume"] =
            messageFields(colour, [](auto& c, auto& s) { hdr::masteringDisplayColourVolume(c, s); });
    if (colour.content_light_level_present)
        entry["content_light_level_info"] =
            messageFields(colour, [](auto& c, auto& s) { hdr::contentLightLevelInfo(c, s); });
    if (colour.alternative_transfer_present)
        entry["alternative_transfer_characteristics"] =
            messageFields(colour, [](auto& c, auto& s) { hdr::alternativeTransferCharacteristics(c, s); });
    if (colour.hdr10plus_present) entry["hdr10plus"] = {{"application_version", colour.hdr10plus_application_version}};
    if (doviUnits > 0) {
        Json units = Json::array();
        for (uint32_t i = 0; i < dovi.count && i < QNV_DOVI_MAX_UNITS; ++i)
            units.push_back({{"unit", dovi.kind[i] == QNV_DOVI_RPU ? "RPU" : "EL"},
                             {"offset", dovi.offset[i]},
                             {"size", dovi.size[i]}});
        entry["dolby_vision"] = {{"rpu_units", dovi.rpu_count}, {"el_units", dovi.el_count}, {"units", units}};
    }
    return entry;
}

}  // namespace

void probeColour(UnitReader& stream, bool hevc, const ProbeOptions& options, std::ostream& out) {
    AccessUnitReader aus(stream, hevc ? VideoCodec::kHevc : VideoCodec::kH264);
    std::vector<uint8_t> au;
    uint64_t offset = 0, index = 0;
    JsonArrayPrinter list(out, 0);
    for (; aus.next(au, offset); ++index) {
        Json entry = accessUnitEntry(au, hevc);
        if (entry.is_null()) continue;
        Json head;
        head["access_unit"] = index;
        head["offset"] = offset;
        head.update(entry);
        if (options.first) {
            clearProgressLine();
            Json summary;
            summary["codec"] = hevc ? "hevc" : "h264";
            summary["first_access_unit_with_hdr_metadata"] = std::move(head);
            out << summary.dump(2) << "\n";
            return;
        }
        list.add(head);
    }
    clearProgressLine();
    if (options.first) {
        Json summary;
        summary["codec"] = hevc ? "hevc" : "h264";
        summary["access_units"] = index;
        summary["first_access_unit_with_hdr_metadata"] = nullptr;
        out << summary.dump(2) << "\n";
        return;
    }
    list.close();
    out << "\n";
}

}  // namespace qnvtool
