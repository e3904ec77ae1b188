// Caption packet (ancillary-wrapped CEA-708 CDP) validation and the pieces
// of its layout that the caption insertions share.
#ifndef QNVUTIL_QNVUTIL_SEI_CAPTION_PACKET_H
#define QNVUTIL_QNVUTIL_SEI_CAPTION_PACKET_H

#include <cstdint>

#include "qnvutil/dframe.h"

namespace qnv {

// Offset of the first cc_data triplet in a caption packet.
inline constexpr uint32_t kCaptionDataOffset = 16;

// Validation results.
inline constexpr int32_t kPacketValid = 0;
inline constexpr int32_t kPacketBadHeader = -1;    // identifiers, DC, or a packet too short to hold them
inline constexpr int32_t kPacketBadCounters = -2;  // header and footer sequence counters differ
inline constexpr int32_t kPacketBadChecksum = -3;

// Validates `size` bytes at `packet`; reads nothing outside them. Logs the
// counter mismatch, a size other than DC + 7 (a warning only) and a bad
// checksum through ErrOut.
int32_t validateCaptionPacket(const uint8_t* packet, uint32_t size);

// Validates a frame's own caption packet; a captionSize beyond the record's
// array is refused as a bad header.
int32_t validateFramePacket(const DFrame& frame);

// The data count DC (byte 6) of a packet that passed validation.
inline uint32_t captionDataCount(const uint8_t* packet) { return packet[6]; }

// The number of caption bytes the insertions copy, DC - 7, taken as unsigned
// 32-bit: a DC below 7 wraps to a huge count that every cap reduces.
inline uint32_t captionByteCount(const uint8_t* packet) { return captionDataCount(packet) - 7u; }

}  // namespace qnv

#endif
