#include "qnvutil/sei/caption_packet.h"

#include "qnvutil/qxutil.h"

namespace qnv {

namespace {
// Bytes 0 .. 13: caller's header, DID, SDID, DC and the CDP header up to its
// sequence counter.
constexpr uint32_t kHeaderBytes = 14;
}  // namespace

int32_t validateCaptionPacket(const uint8_t* packet, uint32_t size) {
    // guard: a packet too short to hold the identifiers and the header counter
    if (packet == nullptr || size < kHeaderBytes) return kPacketBadHeader;
    const uint32_t dc = packet[6];
    if (packet[4] != 0x61 || packet[5] != 0x01 || packet[7] != 0x96 || packet[8] != 0x69 || packet[9] != dc)
        return kPacketBadHeader;
    const uint32_t expected = dc + 7;
    // guard: the footer counter (DC + 4, DC + 5) lies beyond the packet
    if (dc + 6 > size) {
        ErrOut("ERROR: mfcc, expectsize %d, calculated size %d ", static_cast<int>(size), static_cast<int>(expected));
        return kPacketBadHeader;
    }
    int32_t result = kPacketValid;
    if (packet[12] != packet[dc + 4] || packet[13] != packet[dc + 5]) {
        ErrOut("ERROR: mfcc, counts don't match 0x%02X 0x%02X != 0x%02X 0x%02X  ", packet[12], packet[13],
               packet[dc + 4], packet[dc + 5]);
        result = kPacketBadCounters;
    }
    if (size != expected)
        ErrOut("ERROR: mfcc, expectsize %d, calculated size %d ", static_cast<int>(size), static_cast<int>(expected));
    if (result != kPacketValid) return result;

    // The CDP from byte 7 up to the byte before the last; the last byte is the
    // checksum. A checksum equal to the plain sum is accepted too, as existing
    // inserters write it that way.
    uint32_t sum = 0;
    for (uint32_t i = 7; i + 1 < size; ++i) sum += packet[i];
    const uint32_t checksum = packet[size - 1];
    if (((sum + checksum) & 0xFF) == 0 || (sum & 0xFF) == checksum) return kPacketValid;
    ErrOut("ERROR: mfcc, bad CC 708 Checksum ");
    return kPacketBadChecksum;
}

int32_t validateFramePacket(const DFrame& frame) {
    // guard: captionSize beyond the record's packet array
    if (frame.captionSize > DFRAME_CAPTION_PACKET_SIZE) return kPacketBadHeader;
    return validateCaptionPacket(frame.captionPacket, frame.captionSize);
}

}  // namespace qnv
