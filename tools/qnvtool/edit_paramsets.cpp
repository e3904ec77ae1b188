// qnvtool edit: parameter sets rewritten through the library's records.
//
// A unit is read into its record and written back first unchanged: only a
// unit that comes back byte for byte is edited, so that nothing the record
// does not keep (an HRD table, scaling lists of an HEVC SPS, extension data)
// is lost on the way. The changed record is then written in its place.
#include <cstring>
#include <memory>
#include <numeric>

#include "foundation/nal/nal.h"
#include "qnvutil/h264.h"
#include "qnvutil/hevc.h"
#include "tools/qnvtool/edit.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {

// H.264 Table E-1 and H.265 Table E-1: aspect_ratio_idc 1 to 16.
constexpr Ratio kSampleAspect[] = {{1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33}, {24, 11},
                                   {20, 11}, {32, 11}, {80, 33}, {18, 11}, {15, 11}, {64, 33},
                                   {160, 99}, {4, 3},  {3, 2},   {2, 1}};
constexpr uint32_t kExtendedSar = 255;

// Levels times ten (H.264 level_idc; 1b apart).
constexpr uint32_t kH264Levels[] = {10, 11, 12, 13, 20, 21, 22, 30, 31, 32, 40, 41, 42, 50, 51, 52, 60, 61, 62};
constexpr uint32_t kHevcLevels[] = {10, 20, 21, 30, 31, 40, 41, 50, 51, 52, 60, 61, 62};

std::string levelText(const Level& level) {
    return level.oneB ? "1b" : std::to_string(level.major) + "." + std::to_string(level.minor);
}

// The VUI words an edit touches, in either codec's SPS record (the H.264
// record's int32_t words are read and written as their unsigned selves).
struct VuiWords {
    uint32_t *present, *aspectPresent, *aspectIdc, *sarWidth, *sarHeight;
    uint32_t *signalPresent, *videoFormat, *fullRange, *colourPresent, *primaries, *transfer, *matrix;
    uint32_t *timingPresent, *unitsInTick, *timeScale;
};

uint32_t* word(int32_t& field) { return reinterpret_cast<uint32_t*>(&field); }
uint32_t* word(uint32_t& field) { return &field; }

template <class Sps>
VuiWords vuiWords(Sps& s, uint32_t* matrix, uint32_t* timingPresent, uint32_t* unitsInTick, uint32_t* timeScale) {
    return {word(s.vui_parameters_present_flag), word(s.aspect_ratio_info_present_flag), word(s.aspect_ratio_idc),
            word(s.sar_width), word(s.sar_height), word(s.video_signal_type_present_flag), word(s.video_format),
            word(s.video_full_range_flag), word(s.colour_description_present_flag), word(s.colour_primaries),
            word(s.transfer_characteristics), matrix, timingPresent, unitsInTick, timeScale};
}

// Sets the VUI fields the changes name, with the presence flags they need.
// Returns true when timing info was absent before (the caller sets the
// fields that come with it); timing values are the caller's too.
bool applyVui(const EditChanges& c, const VuiWords& w) {
    if (!c.vui()) return false;
    *w.present = 1;
    if (c.sar) {
        const Ratio sar = *c.sar;
        uint32_t idc = kExtendedSar;
        for (uint32_t i = 0; i < std::size(kSampleAspect); ++i)
            if (uint64_t(sar.num) * kSampleAspect[i].den == uint64_t(sar.den) * kSampleAspect[i].num) idc = i + 1;
        *w.aspectPresent = 1;
        *w.aspectIdc = idc;
        if (idc == kExtendedSar) {
            const uint32_t g = std::gcd(sar.num, sar.den);
            *w.sarWidth = sar.num / g;
            *w.sarHeight = sar.den / g;
        }
    }
    if (c.colour() || c.fullRange) {
        if (*w.signalPresent != 1) {
            *w.signalPresent = 1;
            *w.videoFormat = 5;  // unspecified video format
            *w.fullRange = 0;
            *w.colourPresent = 0;
        }
        if (c.fullRange) *w.fullRange = *c.fullRange ? 1 : 0;
    }
    if (c.colour()) {
        if (*w.colourPresent != 1) {
            *w.colourPresent = 1;
            *w.primaries = *w.transfer = *w.matrix = 2;  // unspecified
        }
        if (c.primaries) *w.primaries = *c.primaries;
        if (c.transfer) *w.transfer = *c.transfer;
        if (c.matrix) *w.matrix = *c.matrix;
    }
    if (!c.fps) return false;
    const bool added = *w.timingPresent != 1;
    *w.timingPresent = 1;
    return added;
}

// Sets a cropping window given in luma samples on a picture of width x
// height with crop units unitX, unitY; returns whether any offset is set.
bool applyCrop(const Crop& crop, uint32_t unitX, uint32_t unitY, uint64_t width, uint64_t height,
               uint32_t* const offsets[4], const std::string& where) {
    const uint32_t values[4] = {crop.left, crop.right, crop.top, crop.bottom};
    const char* const names[4] = {"left", "right", "top", "bottom"};
    for (int i = 0; i < 4; ++i) {
        const uint32_t unit = i < 2 ? unitX : unitY;
        if (values[i] % unit != 0)
            throw Error(where + ": --crop: the " + names[i] + " offset " + std::to_string(values[i]) +
                        " is not a multiple of the crop unit " + std::to_string(unit));
    }
    if (uint64_t(crop.left) + crop.right >= width || uint64_t(crop.top) + crop.bottom >= height)
        throw Error(where + ": --crop: the window leaves nothing of the " + std::to_string(width) + "x" +
                    std::to_string(height) + " picture");
    for (int i = 0; i < 4; ++i) *offsets[i] = values[i] / (i < 2 ? unitX : unitY);
    return crop.left || crop.right || crop.top || crop.bottom;
}

bool oneBProfile(int32_t profileIdc) { return profileIdc == 66 || profileIdc == 77 || profileIdc == 88; }

void editH264Sps(const EditChanges& c, H264SpsRecord& s, const std::string& where) {
    if (applyVui(c, vuiWords(s, word(s.matrix_coefficients), word(s.timing_info_present_flag),
                             word(s.num_units_in_tick), word(s.time_scale))))
        s.fixed_frame_rate_flag = 1;
    const std::optional<Ratio> fps = c.fps ? c.fps : s.timing_info_present_flag != 1 ? c.fpsWhenAbsent : std::nullopt;
    if (fps) {
        if (s.timing_info_present_flag != 1) s.fixed_frame_rate_flag = 1;
        s.timing_info_present_flag = 1;
        // H.264 counts fields: two ticks per frame.
        *word(s.num_units_in_tick) = fps->den;
        *word(s.time_scale) = 2 * fps->num;
    }
    if (c.picStructPresent) s.pic_struct_present_flag = 1;
    if (c.level) {
        const bool oneB = c.level->oneB;
        if (oneBProfile(s.profile_idc)) {
            // Level 1b of these profiles is level_idc 11 with constraint_set3_flag.
            if (oneB || s.level_idc == 11) s.constraint_set3_flag = oneB ? 1 : 0;
            s.level_idc = oneB ? 11 : static_cast<int32_t>(c.level->major * 10 + c.level->minor);
        } else {
            s.level_idc = oneB ? 9 : static_cast<int32_t>(c.level->major * 10 + c.level->minor);
        }
    }
    if (c.crop) {
        // ITU-T H.264 7.4.2.1.1: CropUnitX, CropUnitY.
        const uint32_t chromaArrayType = s.separate_colour_plane_flag == 1 ? 0 : uint32_t(s.chroma_format_idc);
        const uint32_t subWidth = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
        const uint32_t subHeight = chromaArrayType == 1 ? 2 : 1;
        const uint32_t fieldFactor = s.frame_mbs_only_flag == 1 ? 1 : 2;
        const uint64_t width = (uint64_t(uint32_t(s.pic_width_in_mbs_minus1)) + 1) * 16;
        const uint64_t height = (uint64_t(uint32_t(s.pic_height_in_map_units_minus1)) + 1) * 16 * fieldFactor;
        uint32_t* const offsets[4] = {word(s.frame_crop_left_offset), word(s.frame_crop_right_offset),
                                      word(s.frame_crop_top_offset), word(s.frame_crop_bottom_offset)};
        s.frame_cropping_flag = applyCrop(*c.crop, subWidth, subHeight * fieldFactor, width, height, offsets, where);
    }
}

uint32_t hevcLevelIdc(const Level& level) { return level.major * 30 + level.minor * 3; }

void editHevcSps(const EditChanges& c, HevcSpsRecord& s, const std::string& where) {
    if (applyVui(c, vuiWords(s, &s.matrix_coeffs, &s.vui_timing_info_present_flag, &s.vui_num_units_in_tick,
                             &s.vui_time_scale))) {
        s.vui_poc_proportional_to_timing_flag = 0;
        s.vui_hrd_parameters_present_flag = 0;
    }
    if (c.fps) {
        s.vui_num_units_in_tick = c.fps->den;
        s.vui_time_scale = c.fps->num;
    }
    if (c.level) s.ptl.general_level_idc = hevcLevelIdc(*c.level);
    if (c.crop) {
        // ITU-T H.265 Table 6-1: SubWidthC, SubHeightC.
        const uint32_t format = s.separate_colour_plane_flag == 1 ? 0 : s.chroma_format_idc;
        const uint32_t subWidth = format == 1 || format == 2 ? 2 : 1;
        const uint32_t subHeight = format == 1 ? 2 : 1;
        uint32_t* const offsets[4] = {&s.conf_win_left_offset, &s.conf_win_right_offset, &s.conf_win_top_offset,
                                      &s.conf_win_bottom_offset};
        s.conformance_window_flag = applyCrop(*c.crop, subWidth, subHeight, s.pic_width_in_luma_samples,
                                              s.pic_height_in_luma_samples, offsets, where);
    }
}

void editHevcVps(const EditChanges& c, HevcVpsRecord& v) {
    if (c.level) v.ptl.general_level_idc = hevcLevelIdc(*c.level);
    // Timing in the VPS, where there is any, follows the SPS's.
    if (c.fps && v.vps_timing_info_present_flag == 1) {
        v.vps_num_units_in_tick = c.fps->den;
        v.vps_time_scale = c.fps->num;
    }
}

}  // namespace

Level parseLevel(const std::string& text) {
    if (text == "1b") return {1, 0, true};
    const size_t dot = text.find('.');
    const std::string major = text.substr(0, dot), minor = dot == std::string::npos ? "" : text.substr(dot + 1);
    auto digits = [](const std::string& s) { return !s.empty() && s.find_first_not_of("0123456789") == s.npos; };
    const bool ok = dot == std::string::npos ? digits(major) && major.size() <= 2
                                             : digits(major) && major.size() == 1 && digits(minor) && minor.size() == 1;
    if (!ok) throw Error("--level: '" + text + "' is not a level (4.1, 41, 4 or 1b)");
    if (dot != std::string::npos) return {uint32_t(major[0] - '0'), uint32_t(minor[0] - '0'), false};
    const uint32_t value = static_cast<uint32_t>(std::stoul(major));
    return value < 10 ? Level{value, 0, false} : Level{value / 10, value % 10, false};
}

void checkLevel(Codec codec, const Level& level) {
    const uint32_t tenfold = level.major * 10 + level.minor;
    bool known = false;
    if (codec == Codec::kHevc) {
        for (uint32_t l : kHevcLevels) known |= !level.oneB && l == tenfold;
    } else {
        for (uint32_t l : kH264Levels) known |= level.oneB || l == tenfold;
    }
    if (!known)
        throw Error(std::string("--level: ") + (codec == Codec::kHevc ? "HEVC" : "H.264") + " has no level " +
                    levelText(level));
}

struct ParameterSetEditor::Records {
    H264SpsRecord sps;
    HevcVpsRecord vps;
    HevcSpsRecord hevcSps;
    uint8_t unit[QNV_HEVC_PS_MAX_BYTES];
};

ParameterSetEditor::ParameterSetEditor(Codec codec, const EditChanges& changes)
    : codec_(codec), changes_(changes), records_(std::make_unique<Records>()) {
    // What the codec's parameter sets cannot carry is refused before any unit
    // is touched.
    if (changes.level) checkLevel(codec, *changes.level);
    if (changes.fps && codec == Codec::kH264 && changes.fps->num > 0x7FFFFFFFu)
        throw Error("--fps: " + std::to_string(changes.fps->num) +
                    " per second needs a time_scale beyond 32 bits in H.264 (two ticks per frame)");
}

ParameterSetEditor::~ParameterSetEditor() = default;

namespace nal = qnv::nal;

bool ParameterSetEditor::edits(uint32_t type) const {
    if (codec_ == Codec::kH264) return type == nal::h264::kSps && changes_.sequence();
    if (type == nal::hevc::kSps) return changes_.sequence();
    return type == nal::hevc::kVps && (changes_.level || changes_.fps);
}

const std::vector<uint8_t>& ParameterSetEditor::rewrite(const uint8_t* unit, uint32_t size, const std::string& where) {
    // Streams repeat their parameter sets unchanged: the last rewrite serves.
    if (source_.size() == size && std::memcmp(source_.data(), unit, size) == 0) return result_;
    // guard: the writers' output buffer bounds what can come back whole.
    if (size > QNV_H264_PS_MAX_BYTES)
        throw Error(where + ": " + std::to_string(size) + " bytes, more than a parameter set writer writes");
    Records& r = *records_;
    BitBuffer reader{const_cast<uint8_t*>(unit), size, size * 8, 0};
    const uint32_t type = nal::unitType(nalCodec(codec_), unit[0]);
    // Reads the unit, writes it back unchanged, edits the record, writes it.
    auto roundTrip = [&](auto& record, auto read, auto write, auto edit) {
        std::memset(&record, 0, sizeof record);
        const uint32_t consumed = read(&reader, &record);
        uint32_t n = consumed == 0 || consumed == 0xFFFFFFFFu ? 0 : write(&record, r.unit);
        if (n != size || std::memcmp(r.unit, unit, size) != 0)
            throw Error(where + ": the unit does not come back unchanged through the library's record, so it is "
                                "not rewritten");
        edit(record);
        n = write(&record, r.unit);
        if (n == 0) throw Error(where + ": the changed unit cannot be written");
        result_.assign(r.unit, r.unit + n);
    };
    if (codec_ == Codec::kH264) {
        roundTrip(r.sps, qnvutilRead_SPS, qnvutilWrite_SPS, [&](H264SpsRecord& s) { editH264Sps(changes_, s, where); });
    } else if (type == nal::hevc::kSps) {
        roundTrip(
            r.hevcSps, [&](BitBuffer* b, HevcSpsRecord* s) { return qnvutilRead_HEVC_SPS(b, s, nullptr, size * 8); },
            qnvutilWrite_HEVC_SPS, [&](HevcSpsRecord& s) { editHevcSps(changes_, s, where); });
    } else {
        roundTrip(
            r.vps, [&](BitBuffer* b, HevcVpsRecord* v) { return qnvutilRead_HEVC_VPS(b, v, nullptr, size * 8); },
            qnvutilWrite_HEVC_VPS, [&](HevcVpsRecord& v) { editHevcVps(changes_, v); });
    }
    source_.assign(unit, unit + size);
    return result_;
}

}  // namespace qnvtool
