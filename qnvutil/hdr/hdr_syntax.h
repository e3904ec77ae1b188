// The HDR metadata syntax, described once over the library's syntax coders
// (foundation/syntax/coder.h): the colour volume SEI payloads and the Dolby
// Vision decoder configuration record.
#ifndef QNVUTIL_QNVUTIL_HDR_HDR_SYNTAX_H
#define QNVUTIL_QNVUTIL_HDR_HDR_SYNTAX_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/hdr.h"

namespace qnv::hdr {

// payloadType values of the messages this family reads and writes.
inline constexpr uint32_t kUserDataT35 = 4, kMasteringDisplay = 137, kContentLightLevel = 144,
                          kAlternativeTransfer = 147;
// Payload bytes of the three colour messages.
inline constexpr uint32_t kMasteringDisplayBytes = 24, kContentLightLevelBytes = 4, kAlternativeTransferBytes = 1;

// HDR10+ (SMPTE ST 2094-40) as ITU-T T.35 user data: the bytes in front of
// application_version.
inline constexpr uint8_t kHdr10PlusHead[6] = {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04};

// mastering_display_colour_volume(): ITU-T H.265 D.2.28, H.264 D.1.29.
template <class C, class S>
void masteringDisplayColourVolume(C& c, S& s) {
    for (uint32_t i = 0; i < 3; ++i) {
        QNV_UI(16, display_primaries_x, i);
        QNV_UI(16, display_primaries_y, i);
    }
    QNV_U(16, white_point_x);
    QNV_U(16, white_point_y);
    QNV_U(32, max_display_mastering_luminance);
    QNV_U(32, min_display_mastering_luminance);
}

// content_light_level_info(): ITU-T H.265 D.2.35, H.264 D.1.31.
template <class C, class S>
void contentLightLevelInfo(C& c, S& s) {
    QNV_U(16, max_content_light_level);
    QNV_U(16, max_pic_average_light_level);
}

// alternative_transfer_characteristics(): ITU-T H.265 D.2.38, H.264 D.1.32.
template <class C, class S>
void alternativeTransferCharacteristics(C& c, S& s) {
    QNV_U(8, preferred_transfer_characteristics);
}

// DOVIDecoderConfigurationRecord: 24 bytes, reserved bits written as 0.
inline constexpr uint32_t kDoviRecordBytes = 24;
template <class C, class S>
void doviDecoderConfigurationRecord(C& c, S& s) {
    QNV_U(8, dv_version_major);
    QNV_U(8, dv_version_minor);
    QNV_U(7, dv_profile);
    QNV_U(6, dv_level);
    QNV_FLAG(rpu_present_flag);
    QNV_FLAG(el_present_flag);
    QNV_FLAG(bl_present_flag);
    QNV_U(4, dv_bl_signal_compatibility_id);
    c.skip(28, 0, {"reserved"});
    for (int32_t i = 0; i < 4; ++i) c.skip(32, 0, {"reserved", i});
}

}  // namespace qnv::hdr

#endif
