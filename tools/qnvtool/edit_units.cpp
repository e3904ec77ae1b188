// qnvtool edit: access unit delimiters, SEI messages and the colour SEI.
#include <algorithm>
#include <memory>
#include <string_view>

#include "foundation/bitio/bitio.h"
#include "foundation/nal/nal.h"
#include "qnvutil/hevc.h"
#include "qnvutil/hdr/hdr_syntax.h"
#include "qnvutil/hevc/hevc_slice.h"
#include "tools/qnvtool/edit.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace nal = qnv::nal;

namespace {

// Bits of PictureTypes::seen_: H.264 slice_type % 5 (P, B, I, SP, SI) and
// HEVC slice_type (B, P, I) each name their type by its own bit.
constexpr uint32_t kP = 1, kB = 2, kI = 4, kSp = 8, kSi = 16;

// H.264 Table 7-5: the slice types each primary_pic_type allows.
constexpr uint32_t kPrimaryPicTypes[8] = {kI, kI | kP, kI | kP | kB, kSi, kSi | kSp, kI | kSi, kI | kSi | kP | kSp,
                                          kI | kSi | kP | kSp | kB};
// H.265 Table 7-2: the slice types each pic_type allows.
constexpr uint32_t kHevcPicTypes[3] = {kI, kP | kI, kB | kP | kI};

// Enough of a slice unit for the header elements this file peeks at.
constexpr uint32_t kSliceHeadBytes = 32;
constexpr uint32_t kSpareBytes = 8;

// A reader over the first bytes of a unit past its NAL header, unescaped,
// with spare zero bytes behind them as the bit reader wants.
class HeadReader {
public:
    HeadReader(const uint8_t* unit, uint32_t size, uint32_t header) {
        const uint32_t n = size > header ? std::min(size - header, kSliceHeadBytes) : 0;
        const uint32_t kept = n - nal::unescape(unit + header, bytes_, n);
        bb_ = qnv::bitReader(bytes_, kept);
    }
    uint32_t u(uint32_t n) { return ReadBits(&bb_, n); }
    uint32_t ue() { return ReadExponentialGolombCode(&bb_); }
    bool failed() const { return bb_.bitPos > bb_.sizeBits; }

private:
    uint8_t bytes_[kSliceHeadBytes + kSpareBytes] = {};
    BitBuffer bb_{};
};

bool parsed(uint32_t result) { return result != 0 && result != 0xFFFFFFFFu; }

}  // namespace

// The HEVC parameter sets seen so far, by id, and a slice header record.
struct PictureTypes::HevcSets {
    std::unique_ptr<HevcSpsRecord> sps[16];
    std::unique_ptr<HevcSpsRecord> spareSps;  // the next SPS is read into it
    HevcPpsRecord pps[64];
    bool ppsKnown[64] = {};
    qnv::hevc::HevcSliceHeader slice;
};

PictureTypes::PictureTypes(Codec codec) : codec_(codec) {
    if (codec == Codec::kHevc) hevc_ = std::make_unique<HevcSets>();
}

PictureTypes::~PictureTypes() = default;

void PictureTypes::noteParameterSet(const uint8_t* unit, uint32_t size) {
    if (hevc_ == nullptr || size < 3) return;
    const uint32_t type = nal::unitType(nal::Codec::kHevc, unit[0]);
    BitBuffer reader{const_cast<uint8_t*>(unit), size, size * 8, 0};
    if (type == nal::hevc::kPps) {
        HevcPpsRecord pps{};
        if (!parsed(qnvutilRead_HEVC_PPS(&reader, &pps, nullptr, size * 8))) return;
        const uint32_t id = pps.pps_pic_parameter_set_id;
        // guard: ids beyond the standard's range are not kept
        if (id >= std::size(hevc_->pps)) return;
        hevc_->pps[id] = pps;
        hevc_->ppsKnown[id] = true;
    } else if (type == nal::hevc::kSps) {
        std::unique_ptr<HevcSpsRecord>& spare = hevc_->spareSps;
        if (!spare) spare = std::make_unique<HevcSpsRecord>();
        *spare = HevcSpsRecord{};
        if (!parsed(qnvutilRead_HEVC_SPS(&reader, spare.get(), nullptr, size * 8))) return;
        const uint32_t id = spare->sps_seq_parameter_set_id;
        // guard: ids beyond the standard's range are not kept
        if (id >= std::size(hevc_->sps)) return;
        std::swap(spare, hevc_->sps[id]);
    }
}

void PictureTypes::noteSlice(const uint8_t* unit, uint32_t size) {
    if (hevc_ == nullptr) {
        // slice_header(): first_mb_in_slice, slice_type.
        HeadReader r(unit, size, 1);
        r.ue();
        const uint32_t sliceType = r.ue();
        if (r.failed() || sliceType > 9) {
            unknown_ = true;
            return;
        }
        static constexpr uint32_t kByType[5] = {kP, kB, kI, kSp, kSi};
        seen_ |= kByType[sliceType % 5];
        return;
    }
    if (size < 3) {
        unknown_ = true;
        return;
    }
    if (!slices_) temporalIdPlus1_ = std::max<uint8_t>(unit[1] & 7u, 1);
    slices_ = true;
    // slice_pic_parameter_set_id names the PPS, and that the SPS, which the
    // slice segment header is read with.
    HeadReader r(unit, size, 2);
    r.u(1);  // first_slice_segment_in_pic_flag
    if (qnv::hevc::isIrap(nal::unitType(nal::Codec::kHevc, unit[0]))) r.u(1);  // no_output_of_prior_pics_flag
    const uint32_t ppsId = r.ue();
    // guard: a slice naming a parameter set not seen (or out of range) has no readable type
    const bool known = ppsId < std::size(hevc_->pps) && hevc_->ppsKnown[ppsId];
    const uint32_t spsId = known ? hevc_->pps[ppsId].pps_seq_parameter_set_id : 0;
    if (!known || spsId >= std::size(hevc_->sps) || !hevc_->sps[spsId]) {
        unknown_ = true;
        return;
    }
    qnv::hevc::HevcSliceHeader& slice = hevc_->slice;
    if (qnv::hevc::readSliceSegmentHeader(unit, size, *hevc_->sps[spsId], hevc_->pps[ppsId], slice) !=
            qnv::hevc::SliceRead::kOk ||
        slice.slice_type > 2) {
        unknown_ = true;
        return;
    }
    static constexpr uint32_t kByType[3] = {kB, kP, kI};
    seen_ |= kByType[slice.slice_type];
}

std::vector<uint8_t> PictureTypes::takeDelimiter() {
    const uint32_t* allowed = hevc_ ? kHevcPicTypes : kPrimaryPicTypes;
    const uint32_t count = hevc_ ? 3 : 8;
    uint32_t picType = count - 1;
    for (uint32_t t = 0; t < count && !unknown_ && seen_ != 0; ++t)
        if ((seen_ & ~allowed[t]) == 0) {
            picType = t;
            break;
        }
    // The three-bit type, then rbsp_trailing_bits.
    const uint8_t payload = static_cast<uint8_t>(picType << 5 | 0x10);
    std::vector<uint8_t> unit = hevc_ ? std::vector<uint8_t>{nal::hevc::kAud << 1, temporalIdPlus1_, payload}
                                      : std::vector<uint8_t>{nal::h264::kAud, payload};
    seen_ = 0;
    unknown_ = false;
    slices_ = false;
    temporalIdPlus1_ = 1;
    return unit;
}

uint32_t removeSeiMessages(Codec codec, const uint8_t* unit, uint32_t size, const std::vector<uint32_t>& types,
                           std::vector<uint8_t>& out, const std::string& where) {
    const uint32_t header = nal::headerBytes(nalCodec(codec));
    if (size <= header) return 0;
    std::vector<uint8_t> rbsp(size - header);
    const size_t n = rbsp.size() - nal::unescape(unit + header, rbsp.data(), size - header);
    // rbsp_trailing_bits: a 0x80 byte with nothing but zero bytes after it.
    auto trailing = [&](size_t at) {
        return rbsp[at] == 0x80 &&
               std::all_of(rbsp.begin() + at + 1, rbsp.begin() + n, [](uint8_t b) { return b == 0; });
    };
    // sei_message(): payloadType and payloadSize as runs of 0xFF bytes plus
    // a last byte, then the payload.
    auto fail = [&] { throw Error(where + ": an SEI message runs past the end of its NAL unit"); };
    auto value = [&](size_t& at) {
        uint64_t v = 0;
        while (at < n && rbsp[at] == 0xFF) v += rbsp[at++];
        if (at >= n) fail();
        return v + rbsp[at++];
    };
    std::vector<uint8_t> kept;
    uint32_t removed = 0, left = 0;
    size_t at = 0;
    while (at < n && !trailing(at)) {
        const size_t start = at;
        const uint64_t type = value(at);
        const uint64_t payloadSize = value(at);
        // guard: the payload must lie inside the unit
        if (payloadSize > n - at) fail();
        at += payloadSize;
        if (std::find(types.begin(), types.end(), type) != types.end()) {
            ++removed;
        } else {
            kept.insert(kept.end(), rbsp.begin() + start, rbsp.begin() + at);
            ++left;
        }
    }
    out.clear();
    if (removed == 0 || left == 0) return removed;
    kept.push_back(0x80);
    const uint32_t keptSize = static_cast<uint32_t>(kept.size());
    out.resize(header + nal::escapedSize(kept.data(), keptSize));
    std::copy(unit, unit + header, out.begin());
    nal::escape(kept.data(), keptSize, out.data() + header);
    return removed;
}

std::vector<uint32_t> EditChanges::seiToRemove() const {
    using namespace qnv::hdr;
    std::vector<uint32_t> types = removeSei;
    auto add = [&](bool wanted, uint32_t type) {
        if (wanted && std::find(types.begin(), types.end(), type) == types.end()) types.push_back(type);
    };
    add(removeHdr || hdr.mastering_display_present, kMasteringDisplay);
    add(removeHdr || hdr.content_light_level_present, kContentLightLevel);
    add(removeHdr || hdr.alternative_transfer_present, kAlternativeTransfer);
    return types;
}

namespace {

// Reads "<literal><number>" pieces from the front of a text.
class TextCursor {
public:
    explicit TextCursor(std::string_view text) : rest_(text) {}
    bool literal(std::string_view word) {
        if (rest_.substr(0, word.size()) != word) return false;
        rest_.remove_prefix(word.size());
        return true;
    }
    // An unsigned decimal number up to `limit`.
    bool number(uint32_t limit, uint32_t& value) {
        uint64_t v = 0;
        size_t n = 0;
        while (n < rest_.size() && n < 11 && rest_[n] >= '0' && rest_[n] <= '9') v = v * 10 + uint32_t(rest_[n++] - '0');
        if (n == 0 || n > 10 || v > limit) return false;
        rest_.remove_prefix(n);
        value = static_cast<uint32_t>(v);
        return true;
    }
    bool done() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

}  // namespace

void parseMasteringDisplay(const std::string& text, ColorSeiRecord& record) {
    ColorSeiRecord r = record;
    TextCursor in(text);
    // G, B and R are display_primaries 0, 1 and 2.
    bool ok = true;
    const char* const kPrimaries[3] = {"G(", "B(", "R("};
    for (uint32_t c = 0; c < 3; ++c)
        ok = ok && in.literal(kPrimaries[c]) && in.number(0xFFFF, r.display_primaries_x[c]) && in.literal(",") &&
             in.number(0xFFFF, r.display_primaries_y[c]) && in.literal(")");
    ok = ok && in.literal("WP(") && in.number(0xFFFF, r.white_point_x) && in.literal(",") &&
         in.number(0xFFFF, r.white_point_y) && in.literal(")") && in.literal("L(") &&
         in.number(0xFFFFFFFFu, r.max_display_mastering_luminance) && in.literal(",") &&
         in.number(0xFFFFFFFFu, r.min_display_mastering_luminance) && in.literal(")") && in.done();
    if (!ok)
        throw Error("--mastering-display: '" + text +
                    "' is not G(x,y)B(x,y)R(x,y)WP(x,y)L(max,min) with chromaticities up to 65535");
    r.mastering_display_present = 1;
    record = r;
}

void parseMaxCll(const std::string& text, ColorSeiRecord& record) {
    TextCursor in(text);
    uint32_t cll = 0, fall = 0;
    if (!(in.number(0xFFFF, cll) && in.literal(",") && in.number(0xFFFF, fall) && in.done()))
        throw Error("--max-cll: '" + text + "' is not MaxCLL,MaxFALL with values up to 65535");
    record.content_light_level_present = 1;
    record.max_content_light_level = cll;
    record.max_pic_average_light_level = fall;
}

}  // namespace qnvtool
