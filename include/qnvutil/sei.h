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
 */
#ifndef QNVUTIL_SEI_H
#define QNVUTIL_SEI_H

#include <stdint.h>

#include "qnvutil/dframe.h"
#include "qnvutil/export.h"

QNV_BEGIN_C

/* Results of the H.264 and MPEG-2 caption insertions. */
#define QNV_SEI_OK 0
#define QNV_SEI_BAD_PACKET (-1)
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

QNV_END_C

#endif
