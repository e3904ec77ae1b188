/*
 * HDR and colour metadata of H.264 and HEVC streams.
 *
 * Colour volume SEI messages, with the same payload syntax in both codecs:
 *   mastering_display_colour_volume      payloadType 137  ITU-T H.265 D.2.28 / H.264 D.1.29
 *   content_light_level_info             payloadType 144  ITU-T H.265 D.2.35 / H.264 D.1.31
 *   alternative_transfer_characteristics payloadType 147  ITU-T H.265 D.2.38 / H.264 D.1.32
 * carried in prefix SEI NAL units (H.265 7.3.2.4 sei_rbsp, H.264 7.3.2.3),
 * and HDR10+ dynamic metadata (SMPTE ST 2094-40) as a
 * user_data_registered_itu_t_t35 message (H.265 D.2.6, H.264 D.1.6; ITU-T
 * T.35 country 0xB5, terminal provider 0x003C, provider-oriented code
 * 0x0001, application_identifier 4).
 *
 * Dolby Vision: the reference processing unit (RPU) and enhancement layer
 * (EL) units of a single-track HEVC stream are NAL units of the unspecified
 * types 62 and 63 (H.265 Table 7-1); an RPU's payload begins with the byte
 * 0x19. The decoder configuration record of an ISO base media file sample
 * entry is the 24-byte DOVIDecoderConfigurationRecord, in a 'dvcC' box for
 * profiles up to 7, 'dvvC' for 8 to 10 and 'dvwC' above.
 *
 * Code points (preferred_transfer_characteristics) are those of ITU-T H.273.
 */
#ifndef QNVUTIL_HDR_H
#define QNVUTIL_HDR_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/export.h"

QNV_BEGIN_C

/* Codec argument of the SEI functions. */
#define QNV_HDR_H264 0
#define QNV_HDR_HEVC 1

/* Results. Writers return the bytes written; finders the count found. */
#define QNV_HDR_BAD_ARGUMENT (-1)
#define QNV_HDR_NO_ROOM (-102)

/* The colour SEI of one frame. A *_present word of 0 means the message is
   absent (the finder) or not to be written (the writer). Primaries are
   indexed as coded (c = 0..2; HDR10 streams give green, blue, red), in
   units of 0.00002; luminances in units of 0.0001 cd/m2; light levels in
   cd/m2. */
typedef struct ColorSeiRecord {
    uint32_t mastering_display_present;            /* 0 */
    uint32_t display_primaries_x[3];               /* 1 */
    uint32_t display_primaries_y[3];               /* 4 */
    uint32_t white_point_x;                        /* 7 */
    uint32_t white_point_y;                        /* 8 */
    uint32_t max_display_mastering_luminance;      /* 9 */
    uint32_t min_display_mastering_luminance;      /* 10 */
    uint32_t content_light_level_present;          /* 11 */
    uint32_t max_content_light_level;              /* 12 */
    uint32_t max_pic_average_light_level;          /* 13 */
    uint32_t alternative_transfer_present;         /* 14 */
    uint32_t preferred_transfer_characteristics;   /* 15 */
    uint32_t hdr10plus_present;                    /* 16: found only, never written */
    uint32_t hdr10plus_application_version;        /* 17 */
} ColorSeiRecord;

QNV_STATIC_ASSERT(sizeof(ColorSeiRecord) == 18 * 4, "ColorSeiRecord layout");
QNV_STATIC_ASSERT(offsetof(ColorSeiRecord, white_point_x) == 7 * 4, "ColorSeiRecord layout");
QNV_STATIC_ASSERT(offsetof(ColorSeiRecord, content_light_level_present) == 11 * 4, "ColorSeiRecord layout");
QNV_STATIC_ASSERT(offsetof(ColorSeiRecord, alternative_transfer_present) == 14 * 4, "ColorSeiRecord layout");
QNV_STATIC_ASSERT(offsetof(ColorSeiRecord, hdr10plus_application_version) == 17 * 4, "ColorSeiRecord layout");

/* Dolby Vision units of one frame. Entries beyond the first 16 are counted
   but not listed. */
#define QNV_DOVI_MAX_UNITS 16
#define QNV_DOVI_RPU 1
#define QNV_DOVI_EL 2

typedef struct DolbyVisionUnits {
    uint32_t count;                       /* 0: units found */
    uint32_t rpu_count;                   /* 1 */
    uint32_t el_count;                    /* 2 */
    uint32_t kind[QNV_DOVI_MAX_UNITS];    /* 3: QNV_DOVI_RPU or QNV_DOVI_EL */
    uint32_t offset[QNV_DOVI_MAX_UNITS];  /* 19: of the NAL unit header in the frame */
    uint32_t size[QNV_DOVI_MAX_UNITS];    /* 35: of the NAL unit, header first */
} DolbyVisionUnits;

QNV_STATIC_ASSERT(sizeof(DolbyVisionUnits) == 51 * 4, "DolbyVisionUnits layout");
QNV_STATIC_ASSERT(offsetof(DolbyVisionUnits, kind) == 3 * 4, "DolbyVisionUnits layout");
QNV_STATIC_ASSERT(offsetof(DolbyVisionUnits, offset) == 19 * 4, "DolbyVisionUnits layout");
QNV_STATIC_ASSERT(offsetof(DolbyVisionUnits, size) == 35 * 4, "DolbyVisionUnits layout");

/* DOVIDecoderConfigurationRecord, one word per element. */
typedef struct DoviConfigRecord {
    uint32_t dv_version_major;               /* 0: 8 bits */
    uint32_t dv_version_minor;               /* 1: 8 bits */
    uint32_t dv_profile;                     /* 2: 7 bits */
    uint32_t dv_level;                       /* 3: 6 bits */
    uint32_t rpu_present_flag;               /* 4 */
    uint32_t el_present_flag;                /* 5 */
    uint32_t bl_present_flag;                /* 6 */
    uint32_t dv_bl_signal_compatibility_id;  /* 7: 4 bits */
} DoviConfigRecord;

QNV_STATIC_ASSERT(sizeof(DoviConfigRecord) == 8 * 4, "DoviConfigRecord layout");
QNV_STATIC_ASSERT(offsetof(DoviConfigRecord, rpu_present_flag) == 4 * 4, "DoviConfigRecord layout");
QNV_STATIC_ASSERT(offsetof(DoviConfigRecord, dv_bl_signal_compatibility_id) == 7 * 4, "DoviConfigRecord layout");

/* Bytes of the configuration box: 8 of box header, 24 of record. */
#define QNV_DOVI_BOX_BYTES 32

/* Builds one prefix SEI NAL unit (H.264 nal_unit_type 6, HEVC 39 with layer
   0 and temporal id 0) holding, in this order, the messages of `record`
   whose *_present word is set: mastering_display_colour_volume (H.265
   D.2.28, H.264 D.1.29), content_light_level_info (H.265 D.2.35, H.264
   D.1.31), alternative_transfer_characteristics (H.265 D.2.38, H.264
   D.1.32). Values are masked to their element widths. The unit goes to
   out[0, outSize) behind 00 00 00 01, or with lengthPrefixed non-zero
   behind its four-byte big-endian length, with emulation prevention.
   Result: bytes written; -1 for a missing record or output, an unknown
   codec or no message to write; -102 when outSize is too small (64 bytes
   always suffice). */
QNV_API int32_t qnvutilWrite_HDR_WCG_SEI_Packet(const ColorSeiRecord* record, uint32_t codec, uint8_t* out,
                                                uint32_t outSize, int8_t lengthPrefixed);

/* Finds the colour SEI messages above, and HDR10+ with its
   application_version, in the SEI NAL units of one frame (H.264 type 6;
   HEVC prefix and suffix SEI, 39 and 40), any number of messages per unit
   and units per frame; the last of a kind wins. The frame is Annex B, or
   with lengthPrefixed non-zero a run of four-byte big-endian lengths and
   units. Only the first 1024 bytes of each SEI unit are looked at. Clears
   `record` first. Result: the number of messages found (0 for none), -1 for
   a missing record or an unknown codec. */
QNV_API int32_t qnvutilFindColorSEI(const uint8_t* frame, uint32_t frameSize, uint32_t codec, int8_t lengthPrefixed,
                                    ColorSeiRecord* record);

/* Finds the Dolby Vision units of one HEVC frame: RPU (nal_unit_type 62
   with 0x19 as its first payload byte) and EL (nal_unit_type 63). The RPU
   body is not decoded. Framing as for qnvutilFindColorSEI. Clears `units`
   first. Result: the number of units found, -1 for a missing record. */
QNV_API int32_t qnvUtilFindDolbyVisionMetadata(const uint8_t* frame, uint32_t frameSize, int8_t lengthPrefixed,
                                               DolbyVisionUnits* units);

/* Writes the Dolby Vision configuration box: its 32-bit size (32), its
   type ('dvcC' for dv_profile up to 7, 'dvvC' for 8 to 10, 'dvwC' above)
   and the 24-byte DOVIDecoderConfigurationRecord with every reserved bit 0.
   Values are masked to their element widths. Result: 32; -1 for a missing
   record or output; -102 when outSize is below 32. */
QNV_API int32_t qnvutilWrite_DVVC_CR(const DoviConfigRecord* record, uint8_t* out, uint32_t outSize);

/* Reads a box written as above: data[0, size) begins with its size and
   type, which must be one of the three types, its size 32 to 2^31 - 1
   (only the first 32 bytes are read). Reserved bits
   are not checked. Clears `record` first. Result: the box size; -1 for a
   missing argument, a short buffer or another box. */
QNV_API int32_t qnvutilRead_DVVC_CR(const uint8_t* data, uint32_t size, DoviConfigRecord* record);

QNV_END_C

#endif
