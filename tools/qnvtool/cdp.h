// CEA-708 caption distribution packets (SMPTE ST 334-2, clause 5: cdp_header,
// time_code_section, ccdata_section, ccsvcinfo_section, cdp_footer), built
// and read from one description of their layout, and their wrapping into the
// library's caption packets (a 4-byte caller header, then the SMPTE ST 291
// ancillary DID 61, SDID 01 and data count in front of the CDP).
#ifndef QNVTOOL_CDP_H
#define QNVTOOL_CDP_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qnvtool::cdp {

// ---- Layout -----------------------------------------------------------------

inline constexpr uint8_t kIdentifier0 = 0x96, kIdentifier1 = 0x69;  // cdp_identifier
inline constexpr uint8_t kTimeCodeSectionId = 0x71;
inline constexpr uint8_t kCcDataId = 0x72;
inline constexpr uint8_t kSvcInfoId = 0x73;
inline constexpr uint8_t kFooterId = 0x74;

// cdp_header bytes: identifier (2), cdp_length, cdp_frame_rate << 4 | 0xF,
// flags, cdp_hdr_sequence_cntr (2).
inline constexpr size_t kHeaderBytes = 7;
inline constexpr size_t kTimeCodeSectionBytes = 5;
inline constexpr size_t kFooterBytes = 4;  // id, cdp_ftr_sequence_cntr (2), packet_checksum

// Flag bits of the header's fifth byte.
inline constexpr uint8_t kTimeCodePresent = 0x80;
inline constexpr uint8_t kCcDataPresent = 0x40;
inline constexpr uint8_t kSvcInfoPresent = 0x20;
inline constexpr uint8_t kCaptionServiceActive = 0x02;
inline constexpr uint8_t kFlagsReserved = 0x01;

// Triplet kinds (cc_type, CEA-708 4.4): the first triplet byte with the five
// marker bits and cc_valid set.
inline constexpr uint8_t kField1 = 0xFC;       // cc_valid 1, cc_type 0: NTSC line 21 field 1
inline constexpr uint8_t kField2 = 0xFD;       // cc_type 1: field 2
inline constexpr uint8_t kDtvccPadding = 0xFA; // cc_valid 0, cc_type 2 (with 00 00)

// The largest CDP: cdp_length is one byte.
inline constexpr size_t kMaxBytes = 255;
inline constexpr size_t kMaxTriplets = 31;  // cc_count: 5 bits

// cdp_frame_rate codes (SMPTE ST 334-2 Table 3).
enum class FrameRate : uint8_t {
    kNone = 0,
    k23976 = 1,
    k24 = 2,
    k25 = 3,
    k2997 = 4,
    k30 = 5,
    k50 = 6,
    k5994 = 7,
    k60 = 8,
};

// The rate code of a whole-number rate as qnvtool's --rate takes it (23,
// 29 and 59 meaning 23.976, 29.97 and 59.94); kNone for any other.
FrameRate frameRateOf(uint32_t wholeRate);
// cc_count that fills the 9600 bit/s caption channel at a rate (CEA-708
// Table 3, SMPTE ST 334-2 5.3.3): 25 at 23.976 and 24, 24 at 25, 20 at
// 29.97 and 30, 12 at 50, 10 at 59.94 and 60; 0 for kNone.
uint32_t ccCountOf(FrameRate rate);

struct Triplet {
    uint8_t head;  // marker_bits, cc_valid, cc_type
    uint8_t b1, b2;
};

// time_code_section (SMPTE ST 334-2 5.3.2), as decimal fields.
struct TimeCode {
    uint8_t hours = 0, minutes = 0, seconds = 0, frames = 0;
    bool dropFrame = false;
    bool fieldFlag = false;
};

struct Packet {
    FrameRate rate = FrameRate::kNone;
    uint8_t flags = kCcDataPresent | kCaptionServiceActive | kFlagsReserved;  // the time code bit follows hasTimeCode
    uint16_t sequence = 0;
    bool hasTimeCode = false;
    TimeCode timeCode;
    uint32_t count = 0;  // triplets in use
    Triplet triplets[kMaxTriplets];
    // ccsvcinfo_section bytes kept as they are (read, written back), after its id.
    uint32_t svcInfoSize = 0;
    uint8_t svcInfo[kMaxBytes];
};

// Writes the CDP of `p` to `out` (room for kMaxBytes), with cdp_length,
// both counters and the checksum filled in; returns its length, or 0 when
// the sections do not fit in cdp_length.
size_t build(const Packet& p, uint8_t* out);

enum class ReadResult {
    kOk,
    kTooShort,      // fewer bytes than the header and footer
    kNotCdp,        // no cdp_identifier
    kLength,        // cdp_length is not the number of bytes
    kSection,       // a section runs past the footer, or an unknown section id
    kFooter,        // no footer id where cdp_length puts it
    kCounters,      // header and footer sequence counters differ
    kChecksum,      // the bytes do not sum to 0 modulo 256
};
const char* readResultText(ReadResult r);

// Reads a CDP of exactly `size` bytes into `p`. Reads nothing outside them.
ReadResult read(const uint8_t* bytes, size_t size, Packet& p);

// ---- Library caption packets ------------------------------------------------

// Offset of the CDP in a caption packet.
inline constexpr size_t kWrapBytes = 7;

// A CDP behind the caption packet header (4 caller bytes, 61 01, its length).
void wrap(const uint8_t* cdp, size_t length, std::vector<uint8_t>& packet);

// A caption packet for the library's insertions: the time code section is
// left out, since the insertions take the cc_data triplets from a fixed
// offset behind the header. Returns false when the CDP does not fit.
bool buildCaptionPacket(Packet p, std::vector<uint8_t>& packet);

}  // namespace qnvtool::cdp

#endif
