// Colour volume SEI: written as one prefix SEI NAL unit, found in a frame.
#include <cstring>

#include "foundation/bitio/bitio.h"
#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "qnvutil/hdr.h"
#include "qnvutil/hdr/hdr_syntax.h"

namespace qnv::hdr {

namespace {

// The largest unit: 4 bytes of prefix, a 2-byte header, the three messages
// with a type and a size byte each, the trailing byte, and an 03 for every
// two bytes in the worst case.
constexpr uint32_t kRbspBytes = 4 + 2 + (2 + kMasteringDisplayBytes) + (2 + kContentLightLevelBytes) +
                                (2 + kAlternativeTransferBytes) + 1;
constexpr uint32_t kUnitBytes = kRbspBytes + kRbspBytes / 2 + 8;

bool knownCodec(uint32_t codec) { return codec == QNV_HDR_H264 || codec == QNV_HDR_HEVC; }
nal::Codec layerOf(uint32_t codec) { return codec == QNV_HDR_HEVC ? nal::Codec::kHevc : nal::Codec::kH264; }

// One sei_message(): its type and size bytes, then the payload's description.
template <class Describe>
void writeMessage(BitBuffer* rbsp, uint32_t type, uint32_t bytes, const ColorSeiRecord& s, Describe describe) {
    WriteBits(rbsp, 8, static_cast<int32_t>(type));
    WriteBits(rbsp, 8, static_cast<int32_t>(bytes));
    syntax::WriteCoder c(rbsp);
    describe(c, s);
}

// Builds the unit into unit[0, kUnitBytes); returns its length, 0 when the
// record asks for no message.
uint32_t buildUnit(const ColorSeiRecord& s, uint32_t codec, bool lengthPrefixed, uint8_t* unit) {
    if (!s.mastering_display_present && !s.content_light_level_present && !s.alternative_transfer_present) return 0;
    uint8_t scratch[kRbspBytes + 8] = {0, 0, 0, 1};
    BitBuffer rbsp = bitWriter(scratch, sizeof scratch);
    rbsp.bitPos = 32;
    if (codec == QNV_HDR_HEVC) {
        WriteBits(&rbsp, 8, nal::hevc::kPrefixSei << 1);
        WriteBits(&rbsp, 8, 1);  // nuh_layer_id 0, nuh_temporal_id_plus1 1
    } else {
        WriteBits(&rbsp, 8, nal::h264::kSei);  // nal_ref_idc 0
    }
    if (s.mastering_display_present)
        writeMessage(&rbsp, kMasteringDisplay, kMasteringDisplayBytes, s,
                     [](auto& c, auto& r) { masteringDisplayColourVolume(c, r); });
    if (s.content_light_level_present)
        writeMessage(&rbsp, kContentLightLevel, kContentLightLevelBytes, s,
                     [](auto& c, auto& r) { contentLightLevelInfo(c, r); });
    if (s.alternative_transfer_present)
        writeMessage(&rbsp, kAlternativeTransfer, kAlternativeTransferBytes, s,
                     [](auto& c, auto& r) { alternativeTransferCharacteristics(c, r); });

    BitBuffer out = bitWriter(unit, kUnitBytes);
    EmitNalUnit(&rbsp, &out, 0xFFFFFFFFu, lengthPrefixed ? 1 : 0);
    uint32_t length = out.bitPos / 8;

    // The emitter lets 00 00 02 pass, which H.264 7.4.1 and H.265 7.4.2 do
    // not allow inside a unit (a luminance of 0 followed by a light level of
    // 512 to 767 gives it): such a unit is escaped again by the standard rule.
    const uint32_t header = nal::headerBytes(layerOf(codec));
    uint8_t plain[kUnitBytes];
    const uint32_t body = length - 4 - header;
    const uint32_t plainSize = body - nal::unescape(unit + 4 + header, plain, body);
    if (nal::escapedSize(plain, plainSize) != body) {
        length = 4 + header + nal::escape(plain, plainSize, unit + 4 + header);
        if (lengthPrefixed) nal::putBe32(unit, length - 4);
    }
    return length;
}

// The messages of one SEI unit into the record; returns the count found.
uint32_t readMessages(nal::Codec layer, const uint8_t* unit, uint32_t size, ColorSeiRecord& s) {
    uint32_t found = 0;
    nal::forEachSeiMessage(layer, unit, size, [&](uint32_t type, BitBuffer payload) {
        const uint32_t bytes = (payload.sizeBits - payload.bitPos) / 8;
        syntax::ReadCoder c(&payload);
        // guard: a payload shorter than its syntax is not read
        if (type == kMasteringDisplay && bytes >= kMasteringDisplayBytes) {
            masteringDisplayColourVolume(c, s);
            s.mastering_display_present = 1;
        } else if (type == kContentLightLevel && bytes >= kContentLightLevelBytes) {
            contentLightLevelInfo(c, s);
            s.content_light_level_present = 1;
        } else if (type == kAlternativeTransfer && bytes >= kAlternativeTransferBytes) {
            alternativeTransferCharacteristics(c, s);
            s.alternative_transfer_present = 1;
        } else if (type == kUserDataT35 && bytes >= sizeof kHdr10PlusHead + 1) {
            for (uint8_t b : kHdr10PlusHead)
                if (ReadBits(&payload, 8) != b) return;
            s.hdr10plus_present = 1;
            s.hdr10plus_application_version = ReadBits(&payload, 8);
        } else {
            return;
        }
        ++found;
    });
    return found;
}

}  // namespace

}  // namespace qnv::hdr

using namespace qnv;

extern "C" {

int32_t qnvutilWrite_HDR_WCG_SEI_Packet(const ColorSeiRecord* record, uint32_t codec, uint8_t* out, uint32_t outSize,
                                        int8_t lengthPrefixed) {
    // guard: no record, no output or an unknown codec
    if (record == nullptr || out == nullptr || !hdr::knownCodec(codec)) return QNV_HDR_BAD_ARGUMENT;
    uint8_t unit[hdr::kUnitBytes];
    const uint32_t length = hdr::buildUnit(*record, codec, lengthPrefixed != 0, unit);
    if (length == 0) return QNV_HDR_BAD_ARGUMENT;
    // guard: the unit is copied only into an output that holds it
    if (length > outSize) return QNV_HDR_NO_ROOM;
    std::memcpy(out, unit, length);
    return static_cast<int32_t>(length);
}

int32_t qnvutilFindColorSEI(const uint8_t* frame, uint32_t frameSize, uint32_t codec, int8_t lengthPrefixed,
                            ColorSeiRecord* record) {
    // guard: no record or an unknown codec
    if (record == nullptr || !hdr::knownCodec(codec)) return QNV_HDR_BAD_ARGUMENT;
    *record = ColorSeiRecord{};
    const nal::Codec layer = hdr::layerOf(codec);
    nal::UnitWalk walk(frame, frameSize, lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB);
    uint32_t found = 0;
    for (nal::Unit u; walk.next(u);) {
        if (u.size <= nal::headerBytes(layer)) continue;
        const uint32_t type = nal::unitType(layer, frame[u.header()]);
        const bool sei = layer == nal::Codec::kHevc ? type == nal::hevc::kPrefixSei || type == nal::hevc::kSuffixSei
                                                    : type == nal::h264::kSei;
        if (sei) found += hdr::readMessages(layer, frame + u.header(), u.size, *record);
    }
    return static_cast<int32_t>(found);
}

}  // extern "C"
