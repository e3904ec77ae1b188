/*
 * Picture order of H.264 and HEVC frames taken one at a time in decoding
 * order (ITU-T H.264 8.2.1, H.265 8.3.1).
 *
 * A recorder that stamps captions or time codes on frames must hand the
 * i-th packet to the picture displayed i-th, not to the i-th frame it
 * receives: with B-frames the two orders differ. Each frame's picture order
 * count (POC) gives its place in display order within a coded video
 * sequence, and a picture that starts a sequence ends the ordering of the
 * one before. A client therefore:
 *   1. keeps one PicOrderState per stream, all zero before the first frame;
 *   2. calls qnvutilPicOrderCount (H.264) or qnvutilPicOrderCountHevc for
 *      every frame, in decoding order, with the SPS and PPS records its
 *      slices use (as qnvutilFindNalUnits / qnvutilFindNalUnitsHevc return
 *      them);
 *   3. queues the frame; when the result has QNV_PICORDER_NEW_SEQUENCE, all
 *      frames queued before it are displayed first, in POC order;
 *   4. while more than R frames are queued, where R is the SPS's
 *      max_num_reorder_frames (H.264 VUI; else max_dec_frame_buffering, else
 *      16) or sps_max_num_reorder_pics[HighestTid] (HEVC), takes the queued
 *      frame with the smallest POC as the next one displayed and gives it
 *      the next caption packet or time code;
 *   5. at the end of the stream takes the rest in POC order.
 * Frames are written out in decoding order once they have their packet, so
 * a frame waits until its picture is displayed: at most a group of
 * pictures between two anchors plus R frames. A frame with QNV_PICORDER_SECOND_FIELD is the
 * second field of an H.264 field pair: it joins the first field's frame and
 * takes no place of its own (one packet per frame, in its first field). A
 * frame with QNV_PICORDER_NOT_OUTPUT (HEVC RASL pictures of a CRA that
 * starts the stream, or pic_output_flag 0) is never displayed and takes no
 * place either.
 */
#ifndef QNVUTIL_PICORDER_H
#define QNVUTIL_PICORDER_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/export.h"
#include "qnvutil/h264.h"
#include "qnvutil/hevc.h"

QNV_BEGIN_C

/* What the picture order of the next frame depends on: 32 words, all zero
   before a stream's first frame. */
typedef struct PicOrderState {
    int32_t started;                  /* 0: no picture yet */
    int32_t endOfSequence;            /* an end-of-sequence unit came last */
    int32_t prevPicOrderCntMsb;       /* H.264 POC type 0: of the previous reference picture; HEVC: prevTid0Pic */
    int32_t prevPicOrderCntLsb;
    int32_t prevRefHadMmco5;          /* H.264: the previous reference picture carried operation 5 */
    int32_t prevRefBottomField;       /* ... and was a bottom field */
    int32_t prevRefTopFieldOrderCnt;  /* ... and its TopFieldOrderCnt after that operation */
    int32_t prevFrameNumOffset;       /* H.264 POC types 1 and 2 */
    int32_t prevFrameNum;
    int32_t prevHadMmco5;             /* the previous picture carried operation 5 */
    int32_t firstFieldPending;        /* H.264: the previous picture was a lone first field */
    int32_t firstFieldFrameNum;
    int32_t firstFieldBottom;
    int32_t firstFieldIdr;
    int32_t skippingRasl;             /* HEVC: the sequence began at a CRA whose RASL pictures are not output */
    int32_t reserved[17];
} PicOrderState;

QNV_STATIC_ASSERT(sizeof(PicOrderState) == 32 * 4, "PicOrderState layout");
QNV_STATIC_ASSERT(offsetof(PicOrderState, skippingRasl) == 14 * 4, "PicOrderState layout");

/* Bits of the result. */
#define QNV_PICORDER_NEW_SEQUENCE 0x1u /* starts a coded video sequence: IDR; HEVC IRAP with NoRaslOutputFlag 1 */
#define QNV_PICORDER_SECOND_FIELD 0x2u /* H.264: the second field of a complementary field pair */
#define QNV_PICORDER_NOT_OUTPUT 0x4u   /* HEVC: a RASL picture that is not output, or pic_output_flag 0 */
#define QNV_PICORDER_FAILED 0xFFFFFFFFu

/* The POC of an H.264 frame (its first slice's picture: for a frame
   Min(TopFieldOrderCnt, BottomFieldOrderCnt), for a field its own count)
   into *poc, and the QNV_PICORDER_* bits. The frame is Annex B, or carries
   4-byte big-endian lengths when lengthPrefixed is non-zero. Types 0, 1 and
   2 are derived as 8.2.1.1 to 8.2.1.3 say, memory_management_control_operation
   5 included; type 1 takes offset_for_ref_frame as the record keeps it (the
   cycle's last offset for every entry) and the two offsets the record keeps
   as code numbers at their signed values. Returns QNV_PICORDER_FAILED, with
   the state unchanged, when an argument is null or no slice header of the
   frame reads with the records. An end-of-sequence unit (type 10) is noted
   in the state. */
QNV_API uint32_t qnvutilPicOrderCount(PicOrderState* state, const uint8_t* frame, uint32_t size, int8_t lengthPrefixed,
                                      const H264SpsRecord* sps, const H264PpsRecord* pps, int32_t* poc);

/* The same for an HEVC frame (8.3.1): an IDR, a BLA, and a CRA that is the
   stream's first picture or follows an end-of-sequence unit start a
   sequence with PicOrderCntMsb 0; other pictures take the MSB from the
   previous picture of TemporalId 0 that is not a RASL, RADL or sub-layer
   non-reference picture. RASL pictures of a CRA that started a sequence
   are QNV_PICORDER_NOT_OUTPUT (decoders drop them). */
QNV_API uint32_t qnvutilPicOrderCountHevc(PicOrderState* state, const uint8_t* frame, uint32_t size,
                                          int8_t lengthPrefixed, const HevcSpsRecord* sps, const HevcPpsRecord* pps,
                                          int32_t* poc);

QNV_END_C

#endif
