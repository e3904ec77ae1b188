// Field-pair rewriting of arbitrary frames.
//
// Input: flags (bit 0: field pair, bit 1: a caller's SPS record), the second
// field's offset (2 bytes), the destination's capacity relative to the frame
// size (2 bytes, signed), then the frame. The source is an exact-size copy,
// which must stay unchanged; the destination lies between poisoned guard
// bytes that must stay untouched. Each rewrite runs twice over destinations
// of different fill and must give the same result both times.
// (The poisoning macros do nothing in a build without AddressSanitizer.)
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <sanitizer/asan_interface.h>

#include "fuzz/fuzz_input.h"
#include "qnvutil/hevc.h"
#include "qnvutil/qxutil.h"

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardByte = 0xA5;

struct Outcome {
    uint32_t status;
    std::vector<uint8_t> frame;
};

Outcome run(const std::vector<uint8_t>& source, uint32_t flags, uint32_t secondField, HevcSpsRecord* sps,
            uint32_t capacity, uint8_t fill) {
    std::vector<uint8_t> region(kGuard + capacity + kGuard, kGuardByte);
    uint8_t* data = region.data() + kGuard;
    std::memset(data, fill, capacity);
    ASAN_POISON_MEMORY_REGION(region.data(), kGuard);
    ASAN_POISON_MEMORY_REGION(data + capacity, kGuard);

    std::vector<uint8_t> copy(source);  // heap block of the frame's exact size
    DFrame src{};
    src.frameData = copy.data();
    src.frameSize = src.frameCapacity = static_cast<uint32_t>(copy.size());
    src.frameFlags = flags;
    src.secondFieldOffset = secondField;
    DFrame dst{};
    dst.frameData = data;
    dst.frameCapacity = capacity;
    dst.frameSize = 12345;
    const uint32_t status = qnvutilSetFrameInterlaced(&src, &dst, sps);

    ASAN_UNPOISON_MEMORY_REGION(region.data(), kGuard);
    ASAN_UNPOISON_MEMORY_REGION(data + capacity, kGuard);
    for (size_t i = 0; i < kGuard; ++i)
        if (region[i] != kGuardByte || data[capacity + i] != kGuardByte) __builtin_trap();
    if (copy != source) __builtin_trap();
    if (status != HEVC_INTERLACE_OK && status != HEVC_INTERLACE_PS_COPIED && status != HEVC_INTERLACE_NO_ROOM)
        __builtin_trap();
    if (dst.frameSize > capacity || (status == HEVC_INTERLACE_NO_ROOM && dst.frameSize != 0)) __builtin_trap();
    if (dst.frameData != data || dst.frameCapacity != capacity) __builtin_trap();
    return {status, std::vector<uint8_t>(data, data + dst.frameSize)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size < 5 || size > (1 << 16)) return 0;
    const uint8_t flags = data[0];
    const uint32_t secondField = uint32_t(data[1]) << 8 | data[2];
    const int32_t slack = static_cast<int16_t>(uint16_t(data[3]) << 8 | data[4]);
    const std::vector<uint8_t> frame(data + 5, data + size);
    const int64_t capacity = int64_t(frame.size()) + slack;
    const uint32_t room = capacity < 0 ? 0 : static_cast<uint32_t>(capacity);
    const uint32_t frameFlags = (flags & 1) ? HEVC_FRAME_FIRST_FIELD | HEVC_FRAME_SECOND_FIELD : HEVC_FRAME_FIRST_FIELD;

    // The caller's record, if any, starts from the frame's bytes and must be
    // edited alike in both runs.
    std::unique_ptr<HevcSpsRecord> spsA, spsB;
    if (flags & 2) {
        spsA = std::make_unique<HevcSpsRecord>();
        if (!frame.empty())
            std::memcpy(spsA.get(), frame.data(), std::min(frame.size(), sizeof(HevcSpsRecord)));
        spsB = std::make_unique<HevcSpsRecord>(*spsA);
    }
    const Outcome a = run(frame, frameFlags, secondField, spsA.get(), room, 0x00);
    const Outcome b = run(frame, frameFlags, secondField, spsB.get(), room, 0xFF);
    if (a.status != b.status || a.frame != b.frame) __builtin_trap();
    if (spsA && std::memcmp(spsA.get(), spsB.get(), sizeof(HevcSpsRecord)) != 0) __builtin_trap();
    return 0;
}
