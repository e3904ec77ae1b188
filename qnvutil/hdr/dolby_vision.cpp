// Dolby Vision: the RPU and EL units of a frame, and the decoder
// configuration box of a sample entry.
#include "foundation/bitio/bitio.h"
#include "foundation/nal/nal.h"
#include "qnvutil/hdr.h"
#include "qnvutil/hdr/hdr_syntax.h"

namespace qnv::hdr {

namespace {

// HEVC nal_unit_type 62 (UNSPEC62) carries the RPU, 63 (UNSPEC63) the EL.
constexpr uint32_t kRpuType = 62, kElType = 63;
constexpr uint8_t kRpuPrefix = 0x19;

uint32_t fourcc(const char* t) {
    return uint32_t(uint8_t(t[0])) << 24 | uint32_t(uint8_t(t[1])) << 16 | uint32_t(uint8_t(t[2])) << 8 |
           uint8_t(t[3]);
}

// The box type for a profile.
uint32_t boxType(uint32_t profile) {
    if (profile <= 7) return fourcc("dvcC");
    if (profile <= 10) return fourcc("dvvC");
    return fourcc("dvwC");
}

bool knownBox(uint32_t type) { return type == fourcc("dvcC") || type == fourcc("dvvC") || type == fourcc("dvwC"); }

}  // namespace

}  // namespace qnv::hdr

using namespace qnv;

extern "C" {

int32_t qnvUtilFindDolbyVisionMetadata(const uint8_t* frame, uint32_t frameSize, int8_t lengthPrefixed,
                                       DolbyVisionUnits* units) {
    // guard: no record
    if (units == nullptr) return QNV_HDR_BAD_ARGUMENT;
    *units = DolbyVisionUnits{};
    nal::UnitWalk walk(frame, frameSize, lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB);
    for (nal::Unit u; walk.next(u);) {
        // guard: a unit shorter than its two-byte header has no type
        if (u.size < 2) continue;
        const uint32_t type = nal::unitType(nal::Codec::kHevc, frame[u.header()]);
        uint32_t kind = 0;
        if (type == hdr::kRpuType && u.size > 2 && frame[u.header() + 2] == hdr::kRpuPrefix) {
            kind = QNV_DOVI_RPU;
            ++units->rpu_count;
        } else if (type == hdr::kElType) {
            kind = QNV_DOVI_EL;
            ++units->el_count;
        } else {
            continue;
        }
        // guard: units beyond the record's entries are counted, not listed
        if (units->count < QNV_DOVI_MAX_UNITS) {
            units->kind[units->count] = kind;
            units->offset[units->count] = u.header();
            units->size[units->count] = u.size;
        }
        ++units->count;
    }
    return static_cast<int32_t>(units->count);
}

int32_t qnvutilWrite_DVVC_CR(const DoviConfigRecord* record, uint8_t* out, uint32_t outSize) {
    // guard: no record or output
    if (record == nullptr || out == nullptr) return QNV_HDR_BAD_ARGUMENT;
    // guard: the box is written only into an output that holds it
    if (outSize < QNV_DOVI_BOX_BYTES) return QNV_HDR_NO_ROOM;
    BitBuffer w = bitWriter(out, QNV_DOVI_BOX_BYTES);
    WriteBits(&w, 32, QNV_DOVI_BOX_BYTES);
    WriteBits(&w, 32, static_cast<int32_t>(hdr::boxType(record->dv_profile & 0x7F)));
    syntax::WriteCoder c(&w);
    hdr::doviDecoderConfigurationRecord(c, *record);
    return QNV_DOVI_BOX_BYTES;
}

int32_t qnvutilRead_DVVC_CR(const uint8_t* data, uint32_t size, DoviConfigRecord* record) {
    // guard: no record, or fewer bytes than the box
    if (record == nullptr || data == nullptr || size < QNV_DOVI_BOX_BYTES) return QNV_HDR_BAD_ARGUMENT;
    *record = DoviConfigRecord{};
    const uint32_t boxSize = nal::getBe32(data);
    // guard: a box size that the result cannot carry is refused with the box
    if (!hdr::knownBox(nal::getBe32(data + 4)) || boxSize < QNV_DOVI_BOX_BYTES || boxSize > 0x7FFFFFFFu)
        return QNV_HDR_BAD_ARGUMENT;
    // The reader looks one byte past its limit: it reads a copy.
    uint8_t copy[hdr::kDoviRecordBytes + 8] = {};
    for (uint32_t i = 0; i < hdr::kDoviRecordBytes; ++i) copy[i] = data[8 + i];
    BitBuffer r{copy, sizeof copy, hdr::kDoviRecordBytes * 8, 0};
    syntax::ReadCoder c(&r);
    hdr::doviDecoderConfigurationRecord(c, *record);
    return static_cast<int32_t>(boxSize);
}

}  // extern "C"
