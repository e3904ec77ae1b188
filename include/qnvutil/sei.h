/*
 * Caption and time-code SEI insertion into coded frames.
 *
 * Caption packets are CEA-708 caption distribution packets (CDP) as carried
 * in an SMPTE 334 ancillary packet, laid out from their first byte as:
 *   0-3      caller's header (not examined)
 *   4, 5     0x61 0x01 (DID, SDID)
 *   6        DC, the data count (must equal byte 9)
 *   7, 8     0x96 0x69 (cdp_identifier)
 *   9        cdp_length (must equal DC)
 *   10, 11   frame rate and flags
 *   12, 13   header sequence counter (must equal the footer's)
 *   14, 15   ccdata_id, cc_count
 *   16 ...   cc_data triplets
 *   DC + 3   footer id 0x74; DC + 4, DC + 5 footer sequence counter
 *   DC + 6   checksum: the CDP bytes from 7 on sum to 0 mod 256 (a checksum
 *            byte equal to the sum of the other bytes is accepted as well)
 * A packet is DC + 7 bytes; another size is reported but accepted.
 *
 * Each insertion grows the frame in place, moving its tail up inside
 * frameData[0, frameCapacity); a frame without room is left unchanged.
 * Complaints go to ErrOut.
 *
 * qnvutilFindCaptions is the inverse of the three caption insertions: it
 * finds the cc_data() of one frame and copies its triplets into a
 * caller-owned record, reading nothing outside the frame.
 */
#ifndef QNVUTIL_SEI_H
#define QNVUTIL_SEI_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/dframe.h"
#include "qnvutil/export.h"
#include "qnvutil/h264.h"

QNV_BEGIN_C

/* Results of the H.264 and MPEG-2 caption insertions, the H.264 time code
   and the caption search. */
#define QNV_SEI_OK 0
#define QNV_SEI_BAD_PACKET (-1)
#define QNV_SEI_BAD_ARGUMENT (-1) /* a missing frame, record or SPS, or an argument out of range */
#define QNV_SEI_NOT_FOUND (-2)    /* the frame carries no ATSC cc_data */
#define QNV_SEI_NO_ROOM (-102)

/* Inserts the packet's caption data into an H.264 frame as a
   user_data_registered_itu_t_t35 SEI (ATSC cc_data, cc_count announced as 10,
   at most 30 caption bytes). The SEI goes after the frame's SPS and PPS when
   both appear in its first 256 bytes, else at offset 6 (behind an access
   unit delimiter). lengthPrefixed non-zero: the frame's units carry four-byte
   big-endian sizes instead of start codes. Raises frameSize.
   0 on success and for a packet size of 0; -1 for a packet that fails
   validation; -102 when frameSize + captions + 285 exceeds frameCapacity. */
QNV_API int32_t qnvutilAddAVCCaptions(DFrame* frame, const uint8_t* packet, uint32_t packetSize,
                                      int8_t lengthPrefixed);

/* Puts the frame's own caption packet (captionPacket, captionSize) in front
   of an MPEG-2 frame as an ATSC user_data() block. Raises frameSize.
   0 on success; -1 for a packet that fails validation; -102 when
   frameSize + captionSize + 285 exceeds frameCapacity. */
QNV_API int32_t qnvutilAddMPEG2Captions(DFrame* frame);

/* Inserts the frame's own caption packet into an HEVC frame as a prefix SEI
   in front of the first slice that leaves room. frameRate (whole frames per
   second) limits the caption bytes: 75 at 23 and 24, 72 at 25, 60 at 29 and
   30, 36 at 50, 30 otherwise. Leaves frameSize unchanged: returns the bytes
   inserted, which the caller adds; 0 when nothing was inserted. */
QNV_API uint32_t qnvUtilAddHevcCaptions(DFrame* frame, uint32_t frameRate);

/* Inserts frameTimecode as an HEVC time_code SEI (payloadType 136) in front
   of the frame's first prefix SEI, else behind a leading access unit
   delimiter, else at offset 0, unless that first prefix SEI already is a time
   code. tcType is the timecode type of the count (drop-frame: 4 and 32).
   Raises frameSize and frameBytesTotal. Always returns 0; a frame without
   room is reported through ErrOut and left unchanged. */
QNV_API int32_t qnvutilAddHEVCTimeCode(DFrame* frame, uint32_t tcType);

/* Writes frameTimecode into an H.264 frame as a pic_timing SEI message
   (payloadType 1; ITU-T H.264 D.1.3, semantics D.2.3) with one clock
   timestamp: pic_struct as given (Table D-1: 0 frame, 1 top field,
   2 bottom field, 3 to 8 the field orders and repeats), clock_timestamp_flag
   1 on the first of its NumClockTS entries only, ct_type 0 (progressive) for
   the frame structures 0, 7, 8 and 1 (interlaced) for the field ones,
   nuit_field_based_flag 1 unless the SPS's timing counts one tick per frame,
   counting_type 4 with cnt_dropped_flag 1 for the drop-frame types 4 and 32
   (else 0 and 0), full_timestamp_flag 1, discontinuity_flag 0, n_frames,
   seconds, minutes and hours, and a zero time_offset of time_offset_length
   bits (24 without HRD parameters, E.2.2).
   The payload's layout follows `sps`, the SPS the frame is decoded with: the
   CPB and DPB delays are written when it has NAL or VCL HRD parameters, at
   their lengths, keeping the values of the frame's own pic_timing when it
   has one (else 0). `sps` must have VUI pic_struct_present_flag 1.
   A pic_timing message already in the frame (in an SEI unit in front of its
   first slice, of at most 1024 bytes) is replaced in its place, the unit's
   other messages kept; otherwise a new SEI unit goes in front of the first
   slice (or at the end of a frame without one). lengthPrefixed non-zero: the
   frame's units carry four-byte big-endian sizes; zero: Annex B start codes.
   Raises or lowers frameSize and frameBytesTotal by the change.
   0 on success; -1 when frame, its data or sps is null, frameSize exceeds
   frameCapacity, sps has no pic_struct_present_flag, picStruct is above 8,
   or a length-prefixed frame's unit runs past its end before any slice;
   -102 when the frame has no room, or the SEI unit whose pic_timing is
   replaced would grow past 1024 bytes (reported through ErrOut, frame
   unchanged). */
QNV_API int32_t qnvutilAddAVCTimeCode(DFrame* frame, uint32_t tcType, const H264SpsRecord* sps, uint32_t picStruct,
                                      int8_t lengthPrefixed);

/* ---- Finding captions ------------------------------------------------------ */

/* Forms of carried captions: the codec a frame is searched as, and what was
   found. */
#define QNV_CC_FORM_AVC 1   /* H.264 SEI (nal_unit_type 6) */
#define QNV_CC_FORM_HEVC 2  /* HEVC prefix or suffix SEI (nal_unit_type 39, 40) */
#define QNV_CC_FORM_MPEG2 3 /* MPEG-2 user_data() (start code 00 00 01 B2) */

/* Triplets a record holds: every cc_count that 5 bits can announce. */
#define QNV_CC_MAX_TRIPLETS 31

/* The cc_data() of ATSC A/53-4 (6.2.3, Table 6.4) found in a frame, one
   word per syntax element, and where it was found. */
typedef struct CaptionDataRecord {
    uint32_t form;       /* QNV_CC_FORM_... */
    uint32_t unitOffset; /* first byte of the carrying unit's prefix (start code or length field) */
    uint32_t unitPrefix; /* bytes of that prefix: 3 or 4 (zero_byte, then 00 00 01), or 4 (length) */
    uint32_t unitSize;   /* bytes of the unit behind its prefix, header (or start code value B2) first */
    uint32_t messageIndex; /* SEI: the carrying sei_message's place in its unit, 0 first; MPEG-2: 0 */
    uint32_t process_em_data_flag;
    uint32_t process_cc_data_flag;
    uint32_t additional_data_flag;
    uint32_t cc_count; /* as announced */
    uint32_t em_data;
    /* Whole triplets the payload carries in front of its closing marker_bits
       byte. It may differ from cc_count: the H.264 and HEVC insertions
       announce 10 whatever they carry, and the insertions copy the packet's
       footer bytes behind its triplets. */
    uint32_t carriedCount;
    /* The caption data proper: the leading carried triplets whose
       marker_bits are '11111' (A/53 Table 6.4), at most QNV_CC_MAX_TRIPLETS. */
    uint32_t tripletCount;
    /* The first carried triplets (at most QNV_CC_MAX_TRIPLETS), each as one
       word: its first byte (marker_bits, cc_valid, cc_type) << 16 |
       cc_data_1 << 8 | cc_data_2. */
    uint32_t cc_data[QNV_CC_MAX_TRIPLETS];
} CaptionDataRecord;

QNV_STATIC_ASSERT(sizeof(CaptionDataRecord) == 43 * 4, "CaptionDataRecord layout");
QNV_STATIC_ASSERT(offsetof(CaptionDataRecord, messageIndex) == 4 * 4, "CaptionDataRecord layout");
QNV_STATIC_ASSERT(offsetof(CaptionDataRecord, cc_count) == 8 * 4, "CaptionDataRecord layout");
QNV_STATIC_ASSERT(offsetof(CaptionDataRecord, carriedCount) == 10 * 4, "CaptionDataRecord layout");
QNV_STATIC_ASSERT(offsetof(CaptionDataRecord, cc_data) == 12 * 4, "CaptionDataRecord layout");

/* Finds the first ATSC cc_data() in the `size` bytes of one frame at `data`:
    - QNV_CC_FORM_AVC: in a user_data_registered_itu_t_t35 SEI message
      (ITU-T H.264 7.3.2.3, D.1.6; T.35 country B5, provider 0031,
      user_identifier "GA94", user_data_type_code 3), any message of any SEI
      unit;
    - QNV_CC_FORM_HEVC: the same in a prefix or suffix SEI unit (ITU-T H.265
      7.3.5, D.2.6);
    - QNV_CC_FORM_MPEG2: in an ATSC user_data() block (ATSC A/53-4
      6.2.2: 00 00 01 B2, "GA94", 3); lengthPrefixed is ignored.
   lengthPrefixed non-zero: the frame's units carry four-byte big-endian
   sizes; zero: Annex B start codes. SEI units are read with emulation
   prevention removed, from their first 1024 bytes. Clears *captions, then
   fills it. No allocation.
   0 when found; -2 when the frame carries none; -1 when data (with a
   non-zero size) or captions is null or form is unknown. */
QNV_API int32_t qnvutilFindCaptions(const uint8_t* data, uint32_t size, uint32_t form, int8_t lengthPrefixed,
                                    CaptionDataRecord* captions);

QNV_END_C

#endif
