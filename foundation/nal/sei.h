// The messages of an SEI NAL unit (sei_rbsp(): ITU-T H.264 7.3.2.3, H.265
// 7.3.2.4), as the frame scans inspect them.
#ifndef QNVUTIL_FOUNDATION_NAL_SEI_H
#define QNVUTIL_FOUNDATION_NAL_SEI_H

#include <cstdint>
#include <cstring>

#include "foundation/nal/nal.h"
#include "qnvutil/bitbuffer.h"

namespace qnv::nal {

// The scans look at no more than this much of an SEI unit.
inline constexpr uint32_t kSeiInspectBytes = 1024;

// Unescapes the first kSeiInspectBytes of the SEI unit `unit` (NAL header
// first) and calls visit(payloadType, payload) for each sei_message, where
// payload is a reader over the message's payload bytes alone. Messages run
// until the rbsp_trailing_bits (a last byte 0x80) or the end; a message
// whose payloadSize runs past the bytes looked at ends the walk. True when
// the unit was looked at whole and its messages run up to its trailing
// bits.
template <class Visit>
bool forEachSeiMessage(Codec codec, const uint8_t* unit, uint32_t size, Visit visit) {
    uint8_t copy[kSeiInspectBytes + 8] = {};  // spare bytes for the bit reader
    const uint32_t header = headerBytes(codec);
    const uint32_t count = size < kSeiInspectBytes ? size : kSeiInspectBytes;
    std::memcpy(copy, unit, count);
    const uint32_t bytes = count - unescape(copy, copy, count, {.from = header});
    BitBuffer bb{copy, sizeof copy, bytes * 8, header * 8};
    while (bb.bitPos + 16 <= bb.sizeBits && !(bb.bitPos / 8 + 1 == bytes && copy[bytes - 1] == 0x80)) {
        const uint32_t type = ReadCodedNumber(&bb);
        const uint32_t payloadSize = ReadCodedNumber(&bb);
        const uint64_t next = uint64_t(bb.bitPos) + 8ull * payloadSize;
        // guard: a payload running past the bytes looked at ends the walk
        if (next > bb.sizeBits) return false;
        BitBuffer payload{copy, sizeof copy, static_cast<uint32_t>(next), bb.bitPos};
        visit(type, payload);
        bb.bitPos = static_cast<uint32_t>(next);
    }
    return size <= kSeiInspectBytes && bytes > 0 && bb.bitPos / 8 + 1 == bytes && copy[bytes - 1] == 0x80;
}

// ATSC A/53-4 user data announcing cc_data: user_identifier "GA94"
// and user_data_type_code 3, as MPEG-2 user_data() carries it behind its
// start code. True with the reader at cc_data()'s flag byte.
inline bool readAtscCaptionIdentifier(BitBuffer* payload) {
    return ReadBits(payload, 32) == 0x47413934 && ReadBits(payload, 8) == 0x03;
}

// The same behind the T.35 prefix of a user_data_registered_itu_t_t35
// payload (country B5, provider 0031).
inline bool readAtscCaptionHeader(BitBuffer* payload) {
    return ReadBits(payload, 8) == 0xB5 && ReadBits(payload, 16) == 0x0031 && readAtscCaptionIdentifier(payload);
}

// A user_data_registered_itu_t_t35 payload holding ATSC A/53 cc_data: true,
// with the cc_count.
inline bool readAtscCaptionCount(BitBuffer* payload, uint32_t* ccCount) {
    if (!readAtscCaptionHeader(payload)) return false;
    SkipBits(payload, 3);  // process_em_data_flag, process_cc_data_flag, additional_data_flag
    *ccCount = ReadBits(payload, 5);
    return true;
}

}  // namespace qnv::nal

#endif
