// Finding the ATSC cc_data of one frame: H.264 and HEVC user-data SEI and
// MPEG-2 user_data(), the forms the caption insertions write.
#include <cstring>

#include "foundation/bitio/bitio.h"
#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "qnvutil/sei.h"

namespace qnv {

namespace {

enum class Found : uint8_t { kNo, kYes };

// payloadType of user_data_registered_itu_t_t35.
constexpr uint32_t kT35Payload = 4;
// MPEG-2 user_data_start_code value.
constexpr uint8_t kUserDataStartCode = 0xB2;

// cc_data() (ATSC A/53-4 Table 6.4) from its flag byte on, up to the
// reader's limit, which ends with the closing marker_bits byte.
Found readCcData(BitBuffer* bb, CaptionDataRecord* r) {
    // guard: the flag byte and em_data must lie inside the payload
    if (bb->bitPos > bb->sizeBits || bb->sizeBits - bb->bitPos < 16) return Found::kNo;
    r->process_em_data_flag = readBits(bb, 1);
    r->process_cc_data_flag = readBits(bb, 1);
    r->additional_data_flag = readBits(bb, 1);
    r->cc_count = readBits(bb, 5);
    r->em_data = readBits(bb, 8);
    const uint32_t left = (bb->sizeBits - bb->bitPos) / 8;
    r->carriedCount = left == 0 ? 0 : (left - 1) / 3;
    // guard: the record holds QNV_CC_MAX_TRIPLETS
    const uint32_t kept = r->carriedCount < QNV_CC_MAX_TRIPLETS ? r->carriedCount : QNV_CC_MAX_TRIPLETS;
    bool proper = true;
    for (uint32_t i = 0; i < kept; ++i) {
        r->cc_data[i] = readBits(bb, 24);
        proper = proper && (r->cc_data[i] >> 19) == 0x1F;  // marker_bits '11111'
        r->tripletCount += proper ? 1 : 0;
    }
    return Found::kYes;
}

// An SEI unit (NAL header first, escaped): the first T.35 message holding
// ATSC cc_data.
Found readSeiUnit(nal::Codec codec, const uint8_t* unit, uint32_t size, CaptionDataRecord* r) {
    Found found = Found::kNo;
    uint32_t index = 0;
    nal::forEachSeiMessage(codec, unit, size, [&](uint32_t type, BitBuffer& payload) {
        if (found == Found::kNo && type == kT35Payload && nal::readAtscCaptionHeader(&payload) &&
            readCcData(&payload, r) == Found::kYes) {
            found = Found::kYes;
            r->messageIndex = index;
        }
        ++index;
    });
    return found;
}

// An MPEG-2 user_data() unit (B2 first). Its bytes run to the next start
// code; no emulation prevention applies.
Found readUserData(const uint8_t* unit, uint32_t size, CaptionDataRecord* r) {
    BitBuffer bb{const_cast<uint8_t*>(unit), size, size * 8, 8};
    // guard: the identifier is read only when its five bytes lie in the unit
    if (size < 1 + 5 || !nal::readAtscCaptionIdentifier(&bb)) return Found::kNo;
    return readCcData(&bb, r);
}

Found readUnit(uint32_t form, const uint8_t* unit, uint32_t size, CaptionDataRecord* r) {
    switch (form) {
        case QNV_CC_FORM_AVC:
            if (nal::unitType(nal::Codec::kH264, unit[0]) != nal::h264::kSei) return Found::kNo;
            return readSeiUnit(nal::Codec::kH264, unit, size, r);
        case QNV_CC_FORM_HEVC: {
            const uint32_t type = nal::unitType(nal::Codec::kHevc, unit[0]);
            // guard: the two-byte header must lie in the unit
            if (size < 2 || (type != nal::hevc::kPrefixSei && type != nal::hevc::kSuffixSei)) return Found::kNo;
            return readSeiUnit(nal::Codec::kHevc, unit, size, r);
        }
        default:
            if (unit[0] != kUserDataStartCode) return Found::kNo;
            return readUserData(unit, size, r);
    }
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" {

int32_t qnvutilFindCaptions(const uint8_t* data, uint32_t size, uint32_t form, int8_t lengthPrefixed,
                            CaptionDataRecord* captions) {
    // guard: a record, a known form, and data for a non-empty frame
    if (captions == nullptr) return QNV_SEI_BAD_ARGUMENT;
    std::memset(captions, 0, sizeof *captions);
    if ((data == nullptr && size != 0) || form < QNV_CC_FORM_AVC || form > QNV_CC_FORM_MPEG2)
        return QNV_SEI_BAD_ARGUMENT;
    const nal::Framing framing = lengthPrefixed != 0 && form != QNV_CC_FORM_MPEG2 ? nal::Framing::kLengthPrefixed
                                                                                   : nal::Framing::kAnnexB;
    nal::UnitWalk walk(data, size, framing);
    nal::Unit u{};
    while (walk.next(u)) {
        if (u.size == 0) continue;
        if (readUnit(form, data + u.header(), u.size, captions) == Found::kYes) {
            captions->form = form;
            captions->unitOffset = u.offset;
            captions->unitPrefix = u.prefix;
            captions->unitSize = u.size;
            return QNV_SEI_OK;
        }
    }
    return QNV_SEI_NOT_FOUND;
}

}  // extern "C"
