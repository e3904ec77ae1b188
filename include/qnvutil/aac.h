/*
 * AAC stream headers: the AudioSpecificConfig of an MP4 sample description
 * and the ADTS frame header, moved between their bit form and flat records.
 *
 * Each function works on the caller's BitBuffer at its current position and
 * leaves the position after the header. Nothing is checked and every function
 * returns 0: readers copy field by field (a field that runs past the read
 * limit reads with its low bits set, see bitbuffer.h; compare bitPos with the
 * data to detect truncation), writers mask each value to its width and do not
 * check the buffer's size (with sizeBytes set, bits beyond it are dropped).
 */
#ifndef QNVUTIL_AAC_H
#define QNVUTIL_AAC_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/bitbuffer.h"
#include "qnvutil/export.h"

QNV_BEGIN_C

/* AudioSpecificConfig: object type, frequency and channels, then the three
   GASpecificConfig flags whatever the object type is. Nothing further is read
   or written: no escaped object types (31 stays 31), no SBR/PS signalling, no
   coreCoderDelay, no program config element. */
typedef struct AACConfig {
    uint32_t audioObjectType;        /* 5 bits */
    uint32_t samplingFrequencyIndex; /* 4 bits */
    uint32_t samplingFrequency;      /* Hz; 24 explicit bits only for index 15 */
    uint32_t channelConfiguration;   /* 4 bits */
    uint32_t frameLengthFlag;        /* 1 bit */
    uint32_t dependsOnCoreCoder;     /* 1 bit */
    uint32_t extensionFlag;          /* 1 bit */
} AACConfig;

QNV_STATIC_ASSERT(sizeof(AACConfig) == 7 * 4, "AACConfig layout");
QNV_STATIC_ASSERT(offsetof(AACConfig, samplingFrequency) == 8, "AACConfig layout");
QNV_STATIC_ASSERT(offsetof(AACConfig, channelConfiguration) == 12, "AACConfig layout");
QNV_STATIC_ASSERT(offsetof(AACConfig, extensionFlag) == 24, "AACConfig layout");

/* ADTS header, fixed and variable part, in stream order (bits in comments).
   crc_check follows when protection_absent is NOT zero: the reverse of the
   standard's rule, kept by reader and writer alike. With protection_absent 0
   a header is 56 bits and the reader leaves crc_check as it was; with
   protection_absent 1 it is 72 bits. */
typedef struct ADTSHeader {
    uint32_t syncword;                           /* 12; not checked, written from the record */
    uint32_t ID;                                 /* 1 */
    uint32_t layer;                              /* 2 */
    uint32_t protection_absent;                  /* 1 */
    uint32_t profile;                            /* 2 */
    uint32_t sampling_frequency_index;           /* 4 */
    uint32_t private_bit;                        /* 1 */
    uint32_t channel_configuration;              /* 3 */
    uint32_t original_copy;                      /* 1 */
    uint32_t home;                               /* 1 */
    uint32_t copyright_identification_bit;       /* 1 */
    uint32_t copyright_identification_start;     /* 1 */
    uint32_t aac_frame_length;                   /* 13; header included */
    uint32_t adts_buffer_fullness;               /* 11 */
    uint32_t number_of_raw_data_blocks_in_frame; /* 2 */
    uint32_t crc_check;                          /* 16 */
} ADTSHeader;

QNV_STATIC_ASSERT(sizeof(ADTSHeader) == 16 * 4, "ADTSHeader layout");
QNV_STATIC_ASSERT(offsetof(ADTSHeader, protection_absent) == 12, "ADTSHeader layout");
QNV_STATIC_ASSERT(offsetof(ADTSHeader, aac_frame_length) == 48, "ADTSHeader layout");
QNV_STATIC_ASSERT(offsetof(ADTSHeader, crc_check) == 60, "ADTSHeader layout");

/* Reads an AudioSpecificConfig. samplingFrequency comes from the index:
   96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025,
   8000, 7350 for 0..12, 0 for 13 and 14, 24 explicit bits for 15. */
QNV_API uint32_t qnvutilReadAAC(BitBuffer* bits, AACConfig* config);
/* Writes an AudioSpecificConfig; samplingFrequency is written only when the
   index is 15. */
QNV_API uint32_t qnvutilWriteAAC(BitBuffer* bits, const AACConfig* config);
/* Reads an ADTS header (the syncword is not checked). */
QNV_API uint32_t qnvutilReadADTS(BitBuffer* bits, ADTSHeader* header);
/* Writes an ADTS header. */
QNV_API uint32_t qnvutilWriteADTS(BitBuffer* bits, const ADTSHeader* header);

QNV_END_C

#endif
