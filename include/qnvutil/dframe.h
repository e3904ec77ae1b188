/*
 * DFrame: the client's record of one coded video frame.
 *
 * The library reads and grows the frame in place: insertions move the tail
 * of frameData[0, frameSize) up and never write at or beyond frameCapacity.
 */
#ifndef QNVUTIL_DFRAME_H
#define QNVUTIL_DFRAME_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/export.h"

QNV_BEGIN_C

/* Size of the caption packet carried with a frame. */
#define DFRAME_CAPTION_PACKET_SIZE 512

typedef struct DFrame {
    uint8_t* frameData;         /* the coded frame; owned by the client */
    uint32_t frameCapacity;     /* bytes available at frameData */
    uint32_t frameSize;         /* bytes in use */
    uint32_t frameTimecode;     /* the frame's timecode as a frame count */
    uint32_t frameBytesTotal;   /* second byte counter, raised with frameSize by the time-code insertion */
    uint32_t frameFlags;        /* 0x20000 | 0x40000: the frame holds two fields */
    uint32_t secondFieldOffset; /* where the second field's NAL units begin */
    uint32_t captionSize;       /* bytes in captionPacket; above 512 the packet is refused */
    uint8_t captionPacket[DFRAME_CAPTION_PACKET_SIZE]; /* the frame's caption packet */
} DFrame;

QNV_STATIC_ASSERT(sizeof(DFrame) == 552, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, frameCapacity) == 8, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, frameSize) == 12, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, frameTimecode) == 16, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, frameBytesTotal) == 20, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, frameFlags) == 24, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, secondFieldOffset) == 28, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, captionSize) == 32, "DFrame layout");
QNV_STATIC_ASSERT(offsetof(DFrame, captionPacket) == 36, "DFrame layout");

QNV_END_C

#endif
