/*
 * Video formats: rate/scale pairs, frame durations, aspect ratios, the colour
 * matrix choice, and timecode types.
 *
 * A signal format word carries its rate code in bits 0-8 (14 = 15000/1001,
 * 23 = 24000/1001, 29 = 30000/1001, 59 = 60000/1001, 119 = 120000/1001,
 * 47 and 71 likewise, 256 = unknown, any other code = code/1); the upper bits
 * name raster and scan. VID_NO_FORMAT means no format.
 *
 * Timecode types say how a frame count is counted and shown (the type word of
 * the timecode text library): VID_TC_FRAMES plain count, VID_TC_24 film,
 * VID_TC_30 30 non-drop (and the type of any rate that fits no other),
 * VID_TC_2997 the 29.97 family, VID_TC_25, VID_TC_50, VID_TC_5994, VID_TC_60,
 * VID_TC_23976, and VID_TC_23976_DROP (23.976 with the drop bit).
 */
#ifndef QNVUTIL_VIDFORMAT_H
#define QNVUTIL_VIDFORMAT_H

#include <stdint.h>

#include "qnvutil/export.h"

QNV_BEGIN_C

#define VID_NO_FORMAT 0xF0000000u
#define VID_RATE_MASK 0x1FFu
#define VID_RATE_UNKNOWN 256u
#define VID_ERROR 0xFFFFFFFFu

#define VID_TC_FRAMES 0u
#define VID_TC_24 1u
#define VID_TC_30 2u
#define VID_TC_2997 4u
#define VID_TC_25 8u
#define VID_TC_50 16u
#define VID_TC_5994 32u
#define VID_TC_60 64u
#define VID_TC_23976 128u
#define VID_TC_23976_DROP 132u

/* Packed aspect ratios: numerator << 16 | denominator; 0 = unknown. */
#define VID_ASPECT(n, d) (((uint32_t)(n) << 16) | (uint32_t)(d))

/* ---- Rates and durations --------------------------------------------------- */

/* Rate/scale of the format's rate code. VID_ERROR for VID_NO_FORMAT or null
   outputs (nothing written) and for the unknown rate code 256 (256/1
   written); otherwise 0. */
QNV_API uint32_t vidRateScale(uint32_t signalFormat, uint32_t* rate, uint32_t* scale);
/* The usual rate of an image width (and height for SD and 2K); widths above
   4096 leave the outputs alone. VID_ERROR when a pointer is null, else 0. */
QNV_API uint32_t vidRateScaleFromSize(uint32_t width, uint32_t height, uint32_t* rate, uint32_t* scale);
/* Rewrites hand-written pairs to exact ones: 2997/100 -> 30000/1001,
   2400/100 -> 24/1, 5994/100 -> 60000/1001, 120/1 stays; the spellings
   2397, 2398, 23976 and 23977 of 23.976 give 23976/1000. Whole numbers of a
   common rate (23, 29, ...) are taken literally as rate/1. A zero scale or a
   null pointer leaves both unchanged. Always 0. */
QNV_API uint32_t vidNormalizeRateScale(uint32_t* rate, uint32_t* scale);

/* Frames per second of rate/scale when both are non-zero, else of the
   format's rate code, else (no format, unknown rate) 29.97. */
QNV_API double vidFramesPerSecD(uint32_t signalFormat, uint32_t rate, uint32_t scale);
/* 1000 / vidFramesPerSecD, and that rounded (0 for a rate of 0). */
QNV_API double vidMsPerFrameD(uint32_t signalFormat, uint32_t rate, uint32_t scale);
QNV_API int64_t vidMsPerFrame(uint32_t signalFormat, uint32_t rate, uint32_t scale);

/* Frames per second and frame duration of a timecode type; types without a
   rate of their own count as 29.97. Type 2 is 30 frames per second, yet its
   duration is that of 29.97. */
QNV_API double vidTCFramesPerSecD(uint8_t tcType);
QNV_API double vidTCMsPerFrameD(uint8_t tcType);
QNV_API int64_t vidTCMsPerFrame(uint8_t tcType);

/* ---- Image ------------------------------------------------------------------ */

/* Display aspect ratio of an image description whose words 1 and 2 are the
   width and the (signed) height, as in a bitmap header: 4:3 for SD, 16:9 for
   HD and UHD, 256:135 for 2K/4K DCI, 239:100 and 185:100 for the 2K scope and
   flat sizes; 0 when unknown or null. */
QNV_API uint32_t vidGetAspectRatio(const uint32_t* imageDescription);

/* Colour matrix code for an image size: 0 SD, 4 HD, 6 UHD; with flag 0x1000
   the video-range codes 1 SD, 5 HD, 7 UHD. The configuration value
   "ForceVideoRangeMatrix" under "Quellbox\Advanced" of the default store,
   read once per process (0 written when missing), set to 1 turns the flag
   off. */
#define VID_MATRIX_VIDEO_RANGE 0x1000
QNV_API int32_t GetMatrixBySize(int32_t width, int32_t height, int32_t flags);

/* ---- Timecode types ------------------------------------------------------- */

/* The timecode type of a frame rate; high rates count as their half, third
   or quarter (47.952 -> 23.976, 119.88 -> 29.97) and 14.985 as its double. */
QNV_API uint32_t vidGetTCType(double framesPerSecond);
/* The type of the format's rate code for timecode counting: 50 and 59.94
   count as 25 and 29.97. */
QNV_API uint32_t vidGetTCTypeSignalFormat(uint32_t signalFormat);
/* As vidGetTCTypeSignalFormat, but 50, 59.94 and 60 keep their own types. */
QNV_API uint32_t vidGetFPSTCTypeSignalFormat(uint32_t signalFormat);
/* Converts *count from the type of rate/scale to `targetType` through its
   timecode text: the count is written as text under the source type and
   read back under the target type (unchanged when the text does not parse).
   For 59.94 and 60 sources the result is doubled. Nothing changes when both
   types are equal. */
QNV_API void vidConvertTC(uint32_t* count, uint32_t targetType, uint32_t rate, uint32_t scale);

QNV_END_C

#endif
