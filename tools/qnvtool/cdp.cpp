#include "tools/qnvtool/cdp.h"

#include <cstring>

namespace qnvtool::cdp {
namespace {

// The time code section's BCD digits and flags after its id (SMPTE ST 334-2
// 5.3.2), one entry per field, read and written from this table. Bits not
// named here are the reserved ones: 11 in front of the hours, 1 in front of
// the minutes (written as 1), and a zero in front of the tens of frames.
enum class Digit { kHoursTens, kHours, kMinutesTens, kMinutes, kField, kSecondsTens, kSeconds, kDrop, kFramesTens, kFrames };
struct BitField {
    Digit digit;
    uint8_t byte, shift, width;
};
constexpr BitField kTimeCodeFields[] = {
    {Digit::kHoursTens, 0, 4, 2},   {Digit::kHours, 0, 0, 4},       {Digit::kMinutesTens, 1, 4, 3},
    {Digit::kMinutes, 1, 0, 4},     {Digit::kField, 2, 7, 1},       {Digit::kSecondsTens, 2, 4, 3},
    {Digit::kSeconds, 2, 0, 4},     {Digit::kDrop, 3, 7, 1},        {Digit::kFramesTens, 3, 4, 2},
    {Digit::kFrames, 3, 0, 4},
};
constexpr uint8_t kTimeCodeReserved[4] = {0xC0, 0x80, 0x00, 0x00};

uint8_t digitOf(const TimeCode& t, Digit d) {
    switch (d) {
        case Digit::kHoursTens: return t.hours / 10;
        case Digit::kHours: return t.hours % 10;
        case Digit::kMinutesTens: return t.minutes / 10;
        case Digit::kMinutes: return t.minutes % 10;
        case Digit::kField: return t.fieldFlag;
        case Digit::kSecondsTens: return t.seconds / 10;
        case Digit::kSeconds: return t.seconds % 10;
        case Digit::kDrop: return t.dropFrame;
        case Digit::kFramesTens: return t.frames / 10;
        case Digit::kFrames: return t.frames % 10;
    }
    return 0;
}

void setDigit(TimeCode& t, Digit d, uint8_t v) {
    switch (d) {
        case Digit::kHoursTens: t.hours = static_cast<uint8_t>(t.hours % 10 + v * 10); break;
        case Digit::kHours: t.hours = static_cast<uint8_t>(t.hours / 10 * 10 + v); break;
        case Digit::kMinutesTens: t.minutes = static_cast<uint8_t>(t.minutes % 10 + v * 10); break;
        case Digit::kMinutes: t.minutes = static_cast<uint8_t>(t.minutes / 10 * 10 + v); break;
        case Digit::kField: t.fieldFlag = v != 0; break;
        case Digit::kSecondsTens: t.seconds = static_cast<uint8_t>(t.seconds % 10 + v * 10); break;
        case Digit::kSeconds: t.seconds = static_cast<uint8_t>(t.seconds / 10 * 10 + v); break;
        case Digit::kDrop: t.dropFrame = v != 0; break;
        case Digit::kFramesTens: t.frames = static_cast<uint8_t>(t.frames % 10 + v * 10); break;
        case Digit::kFrames: t.frames = static_cast<uint8_t>(t.frames / 10 * 10 + v); break;
    }
}

void writeTimeCode(const TimeCode& t, uint8_t* out) {
    std::memcpy(out, kTimeCodeReserved, 4);
    for (const BitField& f : kTimeCodeFields) {
        const uint8_t mask = static_cast<uint8_t>((1u << f.width) - 1);
        out[f.byte] = static_cast<uint8_t>(out[f.byte] | (digitOf(t, f.digit) & mask) << f.shift);
    }
}

void readTimeCode(const uint8_t* in, TimeCode& t) {
    t = TimeCode{};
    for (const BitField& f : kTimeCodeFields)
        setDigit(t, f.digit, static_cast<uint8_t>(in[f.byte] >> f.shift & ((1u << f.width) - 1)));
}

}  // namespace

FrameRate frameRateOf(uint32_t wholeRate) {
    switch (wholeRate) {
        case 23: return FrameRate::k23976;
        case 24: return FrameRate::k24;
        case 25: return FrameRate::k25;
        case 29: return FrameRate::k2997;
        case 30: return FrameRate::k30;
        case 50: return FrameRate::k50;
        case 59: return FrameRate::k5994;
        case 60: return FrameRate::k60;
        default: return FrameRate::kNone;
    }
}

uint32_t ccCountOf(FrameRate rate) {
    switch (rate) {
        case FrameRate::k23976:
        case FrameRate::k24: return 25;
        case FrameRate::k25: return 24;
        case FrameRate::k2997:
        case FrameRate::k30: return 20;
        case FrameRate::k50: return 12;
        case FrameRate::k5994:
        case FrameRate::k60: return 10;
        case FrameRate::kNone: return 0;
    }
    return 0;
}

size_t build(const Packet& p, uint8_t* out) {
    // guard: the sections must fit in the one-byte cdp_length.
    const uint32_t count = p.count > kMaxTriplets ? kMaxTriplets : p.count;
    const size_t length = kHeaderBytes + (p.hasTimeCode ? kTimeCodeSectionBytes : 0) + 2 + 3 * size_t(count) +
                          (p.svcInfoSize ? 1 + size_t(p.svcInfoSize) : 0) + kFooterBytes;
    if (length > kMaxBytes) return 0;
    size_t n = 0;
    const uint8_t hi = static_cast<uint8_t>(p.sequence >> 8), lo = static_cast<uint8_t>(p.sequence);
    uint8_t flags = static_cast<uint8_t>(p.flags & ~(kTimeCodePresent | kSvcInfoPresent));
    if (p.hasTimeCode) flags |= kTimeCodePresent;
    if (p.svcInfoSize) flags |= kSvcInfoPresent;
    out[n++] = kIdentifier0;
    out[n++] = kIdentifier1;
    out[n++] = static_cast<uint8_t>(length);
    out[n++] = static_cast<uint8_t>(static_cast<uint8_t>(p.rate) << 4 | 0x0F);
    out[n++] = flags;
    out[n++] = hi;
    out[n++] = lo;
    if (p.hasTimeCode) {
        out[n++] = kTimeCodeSectionId;
        writeTimeCode(p.timeCode, out + n);
        n += 4;
    }
    out[n++] = kCcDataId;
    out[n++] = static_cast<uint8_t>(0xE0 | count);
    for (uint32_t i = 0; i < count; ++i) {
        out[n++] = p.triplets[i].head;
        out[n++] = p.triplets[i].b1;
        out[n++] = p.triplets[i].b2;
    }
    if (p.svcInfoSize) {
        out[n++] = kSvcInfoId;
        std::memcpy(out + n, p.svcInfo, p.svcInfoSize);
        n += p.svcInfoSize;
    }
    out[n++] = kFooterId;
    out[n++] = hi;
    out[n++] = lo;
    uint8_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum = static_cast<uint8_t>(sum + out[i]);
    out[n++] = static_cast<uint8_t>(0x100 - sum);
    return n;
}

const char* readResultText(ReadResult r) {
    switch (r) {
        case ReadResult::kOk: return "valid";
        case ReadResult::kTooShort: return "too short for a CDP";
        case ReadResult::kNotCdp: return "no cdp_identifier 96 69";
        case ReadResult::kLength: return "cdp_length differs from the packet's length";
        case ReadResult::kSection: return "a section runs past the footer or has an unknown id";
        case ReadResult::kFooter: return "no cdp_footer";
        case ReadResult::kCounters: return "header and footer sequence counters differ";
        case ReadResult::kChecksum: return "bad packet_checksum";
    }
    return "?";
}

ReadResult read(const uint8_t* bytes, size_t size, Packet& p) {
    p = Packet{};
    // guard: the header and footer must be there before any field is read.
    if (size < kHeaderBytes + kFooterBytes) return ReadResult::kTooShort;
    if (bytes[0] != kIdentifier0 || bytes[1] != kIdentifier1) return ReadResult::kNotCdp;
    if (bytes[2] != size) return ReadResult::kLength;
    const size_t footer = size - kFooterBytes;
    if (bytes[footer] != kFooterId) return ReadResult::kFooter;
    p.rate = static_cast<FrameRate>(bytes[3] >> 4);
    p.flags = bytes[4];
    p.sequence = static_cast<uint16_t>(bytes[5] << 8 | bytes[6]);
    if (bytes[footer + 1] != bytes[5] || bytes[footer + 2] != bytes[6]) return ReadResult::kCounters;
    uint8_t sum = 0;
    for (size_t i = 0; i < size; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    if (sum != 0) return ReadResult::kChecksum;

    size_t n = kHeaderBytes;
    while (n < footer) {
        const uint8_t id = bytes[n++];
        if (id == kTimeCodeSectionId) {
            // guard: four time code bytes before the footer.
            if (footer - n < 4) return ReadResult::kSection;
            p.hasTimeCode = true;
            readTimeCode(bytes + n, p.timeCode);
            n += 4;
        } else if (id == kCcDataId) {
            if (n >= footer) return ReadResult::kSection;
            const uint32_t count = bytes[n++] & 0x1F;
            // guard: cc_count triplets before the footer.
            if ((footer - n) / 3 < count) return ReadResult::kSection;
            for (uint32_t i = 0; i < count; ++i, n += 3) p.triplets[i] = {bytes[n], bytes[n + 1], bytes[n + 2]};
            p.count = count;
        } else if (id == kSvcInfoId) {
            // The service information runs to the footer; kept whole.
            p.svcInfoSize = static_cast<uint32_t>(footer - n);
            std::memcpy(p.svcInfo, bytes + n, p.svcInfoSize);
            n = footer;
        } else {
            return ReadResult::kSection;
        }
    }
    return ReadResult::kOk;
}

void wrap(const uint8_t* cdp, size_t length, std::vector<uint8_t>& packet) {
    packet.assign({0, 0, 0, 0, 0x61, 0x01, static_cast<uint8_t>(length)});
    packet.insert(packet.end(), cdp, cdp + length);
}

bool buildCaptionPacket(Packet p, std::vector<uint8_t>& packet) {
    p.hasTimeCode = false;
    uint8_t bytes[kMaxBytes];
    const size_t n = build(p, bytes);
    if (n == 0) return false;
    wrap(bytes, n, packet);
    return true;
}

}  // namespace qnvtool::cdp
