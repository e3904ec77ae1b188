// Closed captions carried in coded frames: H.264 and HEVC user-data SEI
// (ATSC A/53 cc_data in ITU-T T.35 registered user data) and MPEG-2 ATSC
// user_data().
#include <cstring>
#include <initializer_list>

#include "foundation/nalscan/nalscan.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"
#include "qnvutil/sei/caption_packet.h"
#include "qnvutil/sei/frame_insert.h"
#include "qnvutil/sei/hevc_sei.h"

namespace qnv {

namespace {

// T.35 country code (United States), provider code (ATSC), user_identifier
// "GA94" and user_data_type_code 3 (cc_data).
constexpr uint8_t kAtscUserData[] = {0xB5, 0x00, 0x31, 0x47, 0x41, 0x39, 0x34, 0x03};

// Room the caption insertions demand beyond the frame and the caption bytes.
constexpr uint32_t kCaptionMargin = 285;

// Caption bytes of the H.264 SEI: the ten triplets it announces.
constexpr uint32_t kAvcCaptionCap = 30;

// The SEI is placed only by what the first 256 bytes of a frame show; without
// SPS and PPS there it goes behind the 6-byte access unit delimiter that
// frames normally begin with.
constexpr uint32_t kAvcSearchWindow = 256;
constexpr uint32_t kAvcFallbackPosition = 6;

constexpr uint32_t kNotFound = 0xFFFFFFFFu;

void logNoRoom() { ErrOut("No Allocation for CC Data"); }

// Annex B: the first start code after both an SPS and a PPS were seen. A
// position holds a code when it starts 00 00 01 or 00 00 00 01; the codes
// are found with the scanner (a four-byte one is a 00 00 01 with one more
// zero in front that lies behind the previous code).
uint32_t findAnnexBPosition(const uint8_t* data, uint32_t size) {
    // guard: codes must start inside the window and end inside the frame
    const uint32_t limit = size < kAvcSearchWindow + 3 ? size : kAvcSearchWindow + 3;
    bool sps = false, pps = false;
    for (uint32_t i = 0; i < kAvcSearchWindow && i < size;) {
        const uint32_t j = FindStartCode(data, i, limit);
        if (j == limit) break;
        const uint32_t code = j > i && data[j - 1] == 0 ? j - 1 : j;
        if (code >= kAvcSearchWindow) break;
        if (sps && pps) return code;
        const uint32_t header = j + 3;  // after either kind of code
        sps |= header < size && data[header] == 0x67;
        pps |= header < size && data[header] == 0x68;
        i = header;
    }
    return kNotFound;
}

// Length-prefixed: walks the units, stepping over delimiters, SPS and PPS,
// and stops behind both parameter sets or at the first other unit.
uint32_t findLengthPrefixedPosition(const uint8_t* data, uint32_t size) {
    bool sps = false, pps = false;
    uint64_t i = 0;
    while (i < kAvcSearchWindow) {
        // guard: a unit size that runs past the frame's end ends the walk
        if (i > size) break;
        if (sps && pps) return static_cast<uint32_t>(i);
        // guard: the unit's size field and header byte must lie in the frame
        if (i + 5 > size) break;
        uint8_t header = data[i + 4];
        if (header == 0x67)
            sps = true;
        else if (header == 0x68)
            pps = true;
        else if (header != 0x09)
            return static_cast<uint32_t>(i);
        uint32_t unit = (uint32_t(data[i]) << 24) | (uint32_t(data[i + 1]) << 16) | (uint32_t(data[i + 2]) << 8) |
                        data[i + 3];
        i += 4 + uint64_t(unit);
    }
    return kNotFound;
}

bool isStartCode4(const uint8_t* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1; }

// Caption byte limit of the HEVC SEI at a frame rate: the cc_data of one
// frame at that rate.
uint32_t hevcCaptionLimit(uint32_t frameRate) {
    switch (frameRate) {
        case 23:
        case 24: return 75;
        case 25: return 72;
        case 29:
        case 30: return 60;
        case 50: return 36;
        default: return 30;
    }
}

// The bytes of the unit at `start` that its header can take (at most two):
// a unit ends at the first 00 00 00 or 00 00 01 or at the end of the data.
uint32_t headerBytes(const uint8_t* data, uint64_t start, uint32_t size) {
    uint32_t n = 0;
    for (uint64_t j = start; n < 2 && j < size; ++j, ++n)
        if (j + 2 < size && data[j] == 0 && data[j + 1] == 0 && data[j + 2] <= 1) break;
    return n;
}

bool isVcl(int32_t type) { return (type >= 0 && type <= 9) || (type >= 16 && type <= 21); }

// Builds the HEVC caption SEI NAL unit (start code included) into `out`;
// returns its length.
uint32_t buildHevcCaptionSei(const DFrame& frame, uint32_t frameRate, uint8_t* out, uint32_t outSize) {
    uint32_t count = captionByteCount(frame.captionPacket);
    const uint32_t limit = hevcCaptionLimit(frameRate);
    if (count > limit) {
        ErrOut("/nToo many CC bytes %d truncated to %d", static_cast<int>(count), static_cast<int>(limit));
        count = limit;
    }
    // Every field is whole bytes: the RBSP is written as bytes.
    uint8_t rbsp[64 + 75];
    uint32_t n = beginHevcSei(rbsp, 4);  // user_data_registered_itu_t_t35
    std::memcpy(rbsp + n, kAtscUserData, sizeof kAtscUserData);
    n += sizeof kAtscUserData;
    rbsp[n++] = 0xCA;  // process_cc_data_flag, cc_count 10
    rbsp[n++] = 0xFF;  // em_data
    // The packet array holds every byte the limit can reach.
    static_assert(kCaptionDataOffset + 75 <= DFRAME_CAPTION_PACKET_SIZE);
    std::memcpy(rbsp + n, frame.captionPacket + kCaptionDataOffset, count);
    n += count;
    rbsp[n++] = 0xFF;  // marker_bits
    rbsp[n++] = 0x80;
    BitBuffer w{rbsp, sizeof rbsp, sizeof rbsp * 8, n * 8};
    return closeHevcSei(&w, out, outSize);
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" {

int32_t qnvutilAddAVCCaptions(DFrame* frame, const uint8_t* packet, uint32_t packetSize, int8_t lengthPrefixed) {
    if (packetSize == 0) return QNV_SEI_OK;
    if (validateCaptionPacket(packet, packetSize) != kPacketValid) return QNV_SEI_BAD_PACKET;

    uint32_t k = captionByteCount(packet);
    if (k > kAvcCaptionCap) k = kAvcCaptionCap;
    // guard: no frame record (refused like a frame without room)
    if (frame == nullptr || !frameHasRoom(*frame, uint64_t(k) + kCaptionMargin)) {
        logNoRoom();
        return QNV_SEI_NO_ROOM;
    }

    uint8_t block[64];
    uint32_t n = 0;
    if (lengthPrefixed != 0) block[n++] = 0;
    for (uint8_t b : {0x00, 0x00, 0x01, 0x06, 0x04, 0x00}) block[n++] = b;  // NAL header 6, payloadType 4
    const uint32_t sizeIndex = n - 1;
    for (uint8_t b : kAtscUserData) block[n++] = b;
    block[n++] = 0xCA;  // process_cc_data_flag, cc_count fixed at 10
    block[n++] = 0xFF;  // em_data
    for (uint32_t i = 0; i < k; ++i) {
        uint64_t index = uint64_t(kCaptionDataOffset) + i;
        // guard: caption bytes beyond the packet's end read as 0
        block[n++] = index < packetSize ? packet[index] : 0;
    }
    block[n++] = 0xFF;  // marker_bits
    block[n++] = 0x80;  // rbsp_stop_one_bit
    if (lengthPrefixed != 0) block[3] = static_cast<uint8_t>(n - 4);
    block[sizeIndex] = static_cast<uint8_t>(n - sizeIndex - 2);  // country code .. marker_bits

    DFrame& f = *frame;
    uint32_t pos = lengthPrefixed != 0 ? findLengthPrefixedPosition(f.frameData, f.frameSize)
                                       : findAnnexBPosition(f.frameData, f.frameSize);
    if (pos == kNotFound) pos = kAvcFallbackPosition;
    // guard: a frame shorter than the fallback offset takes the SEI at its end
    if (pos > f.frameSize) pos = f.frameSize;

    // A following four-byte start code gives its first zero to the SEI's
    // closing 0x80, which then ends the SEI and leaves a three-byte code.
    const bool join = uint64_t(pos) + 4 <= f.frameSize && isStartCode4(f.frameData + pos);
    const uint32_t grow = join ? n - 1 : n;
    insertAt(f, pos, grow, block, n);
    f.frameSize += grow;
    return QNV_SEI_OK;
}

int32_t qnvutilAddMPEG2Captions(DFrame* frame) {
    if (frame == nullptr || validateFramePacket(*frame) != kPacketValid) return QNV_SEI_BAD_PACKET;
    DFrame& f = *frame;
    // guard: a data count below 7 leaves no caption bytes to count
    if (captionDataCount(f.captionPacket) < 7) return QNV_SEI_BAD_PACKET;
    const uint32_t k = captionByteCount(f.captionPacket);
    if (!frameHasRoom(f, uint64_t(f.captionSize) + kCaptionMargin)) {
        logNoRoom();
        return QNV_SEI_NO_ROOM;
    }

    uint8_t block[16 + 256];
    uint32_t n = 0;
    for (uint8_t b : {0x00, 0x00, 0x00, 0x01, 0xB2}) block[n++] = b;  // zero byte, user_data_start_code
    for (uint32_t i = 3; i < sizeof kAtscUserData; ++i) block[n++] = kAtscUserData[i];
    // The triplet count alone: process_em_data_flag, process_cc_data_flag and
    // additional_data_flag stay 0.
    block[n++] = static_cast<uint8_t>(k / 3);
    block[n++] = 0xFF;  // em_data
    std::memcpy(block + n, f.captionPacket + kCaptionDataOffset, k);
    n += k;
    block[n++] = 0xFF;  // marker_bits

    insertAt(f, 0, n, block, n);
    f.frameSize += n;
    return QNV_SEI_OK;
}

uint32_t qnvUtilAddHevcCaptions(DFrame* frame, uint32_t frameRate) {
    if (frame == nullptr || frame->captionSize == 0 || validateFramePacket(*frame) != kPacketValid) return 0;
    DFrame& f = *frame;
    uint8_t sei[256];
    const uint32_t length = buildHevcCaptionSei(f, frameRate, sei, sizeof sei);
    if (length == 0 || length > sizeof sei || f.frameSize == 0) return 0;
    // guard: a record whose frameSize exceeds its buffer is not read. The room
    // does not depend on the place: without it the walk would end with
    // nothing inserted.
    if (f.frameData == nullptr || uint64_t(f.frameSize) + length >= f.frameCapacity) return 0;

    // The walk of find_nal_unit calls from unit to unit, through the walker,
    // which finds a unit's end only when the walk goes on past it.
    const uint8_t* data = f.frameData;
    const uint32_t size = f.frameSize;
    NalUnitWalker walker(data, size);
    h264_stream_t walk{};
    uint32_t offset = 0;
    while (offset < size) {
        const uint8_t* p = data + offset;
        const uint32_t remaining = size - offset;
        const uint64_t start = walker.findStart(offset);
        if (start > size) break;  // no further start code
        // Fewer than four bytes left: the whole rest is the unit.
        const uint32_t header = remaining < 4 ? (remaining < 2 ? remaining : 2) : headerBytes(data, start, size);
        read_nal_unit(&walk, data + start, header);
        if (isVcl(walk.nal.nal_unit_type)) {
            const uint32_t prefix = remaining >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1 ? 3 : 4;
            const int64_t pos = int64_t(start) - prefix;
            // guard: a unit without a start code in front of it (the short
            // remainder of a frame) is no place for the SEI
            if (pos >= 0) {
                insertAt(f, static_cast<uint32_t>(pos), length, sei, length);
                return length;
            }
        }
        const UnitBounds u = walker.find(offset);
        offset = u.end == u.start ? offset + 1 : static_cast<uint32_t>(u.end);
    }
    return 0;
}

}  // extern "C"
