/*
 * TimecodeText: frame counts to timecode text and back (libtimecodetext.so).
 *
 * Format word
 *   bits 0-7  the timecode type:
 *     0    plain frame count: unsigned decimal ("107892")
 *     1    24 fps                    "HH:MM:SS:FF", FF 00-23
 *     2    30 fps non-drop           "HH:MM:SS:FF", FF 00-29
 *     4    29.97 fps drop-frame      "HH:MM:SS;FF": frame numbers 00 and 01 are
 *          skipped at the start of every minute except minutes 0, 10, 20, ...
 *     8    25 fps                    "HH:MM:SS:FF", FF 00-24
 *     16   50 fps                    frame pairs (below), FF 00-24
 *     32   59.94 fps drop-frame      frame pairs, pair numbers counted as type 4
 *     64   60 fps                    frame pairs, FF 00-29
 *     128  23.976 fps                counted at 24 per second like type 1
 *     132  23.976 fps, drop bit set  counted like 128: 23.976 has no
 *          drop-frame scheme, so the bit does not change the count or the text
 *     any other value counts as type 2.
 *   Frame pairs: above 30 frames per second the frames field counts pairs of
 *   frames (as SMPTE ST 12-1 does), so a count at 60 fps reads as the
 *   timecode of the 30 fps count = count / 2. The second frame of a pair is
 *   marked by the separator before the frames field: '.' instead of ':' and
 *   ',' instead of ';' (for 00:00:01:00 and its successor at 60 fps:
 *   "00:00:01:00", "00:00:01.00").
 *   bit 0x400 binary form: TimecodeTextFormat writes exactly four bytes,
 *     hours (low 8 bits), minutes, seconds, frames, with bit 7 of the frames
 *     byte marking the second frame of a pair; type 0 is split as type 2.
 *     TimecodeTextParse reads the same four bytes.
 *   All other bits are ignored. The words qnvUtil passes carry such bits:
 *   type | 0x100 for parsing, type | 0x32100 and type | 0x10100 for
 *   formatting, and the fixed word 0xB2140, which formats as type 64.
 *
 * Text rules: hours are at least two digits and keep growing past 24, so
 * every 32-bit count formats to at most 15 characters plus the terminator.
 * Parsing accepts surrounding spaces, one or more hour digits, and ':' ';' '.'
 * ',' as separators; minutes, seconds and frames must be two digits within
 * their ranges. A drop-frame text must use a drop separator (';' or ',') and
 * must not name a skipped frame number; a non-drop text must not use one. For
 * pair types the pair mark comes from the separator; other types accept '.'
 * and ',' like ':' and ';'. Type 0 accepts an unsigned decimal, or a negative
 * one down to -2147483648 (stored as its 32-bit two's complement).
 *
 * TimecodeTextParse is the exact inverse of TimecodeTextFormat for the same
 * type: for every count whose text it formats, parsing that text gives the
 * count back (in binary form: for counts below 256 hours).
 */
#ifndef QNVUTIL_TIMECODETEXT_H
#define QNVUTIL_TIMECODETEXT_H

#include <stdint.h>

#include "qnvutil/export.h"

QNV_BEGIN_C

/* Results. */
#define TCT_OK 0u
#define TCT_BADARG 1u   /* null pointer */
#define TCT_BADTEXT 2u  /* malformed text, or a count that does not fit 32 bits */

/* Room that TimecodeTextFormat needs, terminator included. */
#define TCT_TEXT_SIZE 16

/* Parses `text` under `formatWord` into *frames; on failure *frames is left
   unchanged. */
QNV_API uint32_t TimecodeTextParse(const char* text, uint32_t formatWord, uint32_t* frames);
/* Writes the text of `frames` (terminated, at most TCT_TEXT_SIZE bytes), or
   four bytes in binary form. */
QNV_API uint32_t TimecodeTextFormat(uint32_t frames, uint32_t formatWord, char* text);

QNV_END_C

#endif
