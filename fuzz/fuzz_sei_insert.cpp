// Caption and time-code insertion over arbitrary frames and packets.
//
// Input: selector, capacity slack (2 bytes), rate or timecode type, packet
// length (2 bytes), the packet, then the frame. The frame lies between
// poisoned guard bytes that must stay untouched; each insertion runs twice,
// with different bytes between frameSize and frameCapacity, and must give the
// same result both times (nothing past frameSize is read).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_guard.h"
#include "fuzz/fuzz_input.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardByte = 0xA5;

// Makes a packet pass validation: identifiers, data count, counters, checksum.
void repair(std::vector<uint8_t>& p) {
    if (p.size() < 14 || p.size() > 262) return;
    const uint8_t dc = static_cast<uint8_t>(p.size() - 7);
    p[4] = 0x61;
    p[5] = 0x01;
    p[6] = p[9] = dc;
    p[7] = 0x96;
    p[8] = 0x69;
    p[dc + 4] = p[12];
    p[dc + 5] = p[13];
    uint8_t sum = 0;
    for (size_t i = 7; i + 1 < p.size(); ++i) sum = static_cast<uint8_t>(sum + p[i]);
    p.back() = static_cast<uint8_t>(0x100 - sum);
}

struct Outcome {
    int64_t result;
    std::vector<uint8_t> frame;  // frameData[0, frameSize + reported growth)
    uint32_t size, bytesTotal;
};

Outcome run(uint8_t op, uint8_t param, const std::vector<uint8_t>& packet, uint32_t captionSize,
            const uint8_t* content, uint32_t contentSize, uint32_t capacity, uint8_t fill) {
    std::vector<uint8_t> region(kGuard + capacity + kGuard, kGuardByte);
    uint8_t* data = region.data() + kGuard;
    std::memset(data, fill, capacity);
    const uint32_t held = contentSize < capacity ? contentSize : capacity;  // the buffer's share of the frame
    if (held) std::memcpy(data, content, held);
    GUARD_POISON(region.data(), kGuard);
    GUARD_POISON(data + capacity, kGuard);

    DFrame f{};
    f.frameData = data;
    f.frameCapacity = capacity;
    f.frameSize = contentSize;
    f.frameTimecode = uint32_t(param) * 2654435761u;
    f.frameBytesTotal = 7;
    f.captionSize = captionSize;
    if (!packet.empty()) std::memcpy(f.captionPacket, packet.data(), packet.size() < 512 ? packet.size() : 512);
    std::vector<uint8_t> exact(packet);  // the AVC packet at its exact size
    int64_t r = 0;
    uint32_t growth = 0;
    switch (op) {
        case 0:
        case 1:
            r = qnvutilAddAVCCaptions(&f, exact.empty() ? nullptr : exact.data(), uint32_t(exact.size()), int8_t(op));
            if (r != 0 && r != -1 && r != -102) __builtin_trap();
            break;
        case 2:
            r = qnvutilAddMPEG2Captions(&f);
            if (r != 0 && r != -1 && r != -102) __builtin_trap();
            break;
        case 3:
            r = qnvUtilAddHevcCaptions(&f, param);
            growth = static_cast<uint32_t>(r);
            if (r != 0 && uint64_t(f.frameSize) + growth >= capacity) __builtin_trap();
            break;
        default:
            r = qnvutilAddHEVCTimeCode(&f, param);
            if (r != 0) __builtin_trap();
            if (f.frameBytesTotal - 7 != f.frameSize - contentSize) __builtin_trap();
            break;
    }
    GUARD_UNPOISON(region.data(), kGuard);
    GUARD_UNPOISON(data + capacity, kGuard);
    for (size_t i = 0; i < kGuard; ++i)
        if (region[i] != kGuardByte || data[capacity + i] != kGuardByte) __builtin_trap();
    if (f.frameData != data || f.frameCapacity != capacity) __builtin_trap();
    if (f.frameSize != contentSize && f.frameSize > capacity) __builtin_trap();
    // Refused insertions leave the frame as it was.
    if (f.frameSize == contentSize && growth == 0 && held && std::memcmp(data, content, held) != 0) __builtin_trap();
    const uint64_t used = uint64_t(f.frameSize) + growth;
    return {r, std::vector<uint8_t>(data, data + (used < capacity ? used : capacity)), f.frameSize, f.frameBytesTotal};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size < 6 || size > (1 << 16)) return 0;
    const uint8_t selector = data[0];
    const uint32_t slack = uint32_t(data[1]) << 8 | data[2];
    const uint8_t param = data[3];
    uint32_t packetLength = (uint32_t(data[4]) << 8 | data[5]) % 600;
    data += 6;
    size -= 6;
    if (packetLength > size) packetLength = static_cast<uint32_t>(size);
    std::vector<uint8_t> packet(data, data + packetLength);
    if (selector & 0x80) repair(packet);
    const uint8_t* content = data + packetLength;
    const uint32_t contentSize = static_cast<uint32_t>(size - packetLength);
    const uint32_t captionSize = (selector & 0x40) ? packetLength + (slack & 0x3FF) : packetLength;
    const uint8_t op = (selector & 7) % 5;
    // Mostly a buffer at least as large as the frame; sometimes a record whose
    // frameSize exceeds its capacity.
    const uint32_t capacity = (selector & 0x20) ? (contentSize > slack ? contentSize - slack : 0) : contentSize + slack;

    Outcome a = run(op, param, packet, captionSize, content, contentSize, capacity, 0x00);
    Outcome b = run(op, param, packet, captionSize, content, contentSize, capacity, 0xFF);
    if (a.result != b.result || a.size != b.size || a.bytesTotal != b.bytesTotal || a.frame != b.frame)
        __builtin_trap();
    return 0;
}
