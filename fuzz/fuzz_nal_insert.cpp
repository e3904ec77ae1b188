// qnvutilAddNalUnits over arbitrary frames and units, both codecs and both
// framings. Input: selector, capacity slack (2 bytes), units length (2
// bytes), the units, then the frame. The frame's buffer lies between
// poisoned guard bytes that must stay untouched; each insertion runs twice
// with different bytes between frameSize and frameCapacity and must give the
// same result (nothing past frameSize is read); a refusal leaves the frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_guard.h"
#include "fuzz/fuzz_input.h"
#include "qnvutil/h264.h"
#include "qnvutil/qxutil.h"

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardByte = 0xA5;

struct Outcome {
    int32_t result;
    std::vector<uint8_t> frame;
};

Outcome run(const std::vector<uint8_t>& units, const uint8_t* content, uint32_t contentSize, uint32_t capacity,
            int8_t hevc, int8_t lengths, uint8_t fill) {
    std::vector<uint8_t> region(kGuard + capacity + kGuard, kGuardByte);
    uint8_t* data = region.data() + kGuard;
    std::memset(data, fill, capacity);
    const uint32_t held = contentSize < capacity ? contentSize : capacity;
    if (held) std::memcpy(data, content, held);
    GUARD_POISON(region.data(), kGuard);
    GUARD_POISON(data + capacity, kGuard);
    DFrame f{};
    f.frameData = data;
    f.frameCapacity = capacity;
    f.frameSize = contentSize;
    const std::vector<uint8_t> exact(units);  // the units at their exact size
    const int32_t r = qnvutilAddNalUnits(&f, exact.data(), static_cast<uint32_t>(exact.size()), hevc, lengths);
    GUARD_UNPOISON(region.data(), kGuard);
    GUARD_UNPOISON(data + capacity, kGuard);
    for (size_t i = 0; i < kGuard; ++i)
        if (region[i] != kGuardByte || data[capacity + i] != kGuardByte) std::abort();
    if (r != QNV_ADD_UNITS_OK && r != QNV_ADD_UNITS_BAD && r != QNV_ADD_UNITS_NO_ROOM) std::abort();
    if (r == QNV_ADD_UNITS_OK && (f.frameSize > capacity || f.frameSize < contentSize)) std::abort();
    if (r != QNV_ADD_UNITS_OK && (f.frameSize != contentSize || (held && std::memcmp(data, content, held) != 0)))
        std::abort();
    const uint32_t used = f.frameSize < capacity ? f.frameSize : capacity;
    return {r, std::vector<uint8_t>(data, data + used)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size < 5 || size > (1 << 16)) return 0;
    const uint8_t selector = data[0];
    const uint32_t slack = uint32_t(data[1]) << 8 | data[2];
    uint32_t unitsLength = uint32_t(data[3]) << 8 | data[4];
    data += 5;
    size -= 5;
    if (unitsLength > size) unitsLength = static_cast<uint32_t>(size);
    const std::vector<uint8_t> units(data, data + unitsLength);
    const uint8_t* content = data + unitsLength;
    const uint32_t contentSize = static_cast<uint32_t>(size - unitsLength);
    // Mostly a buffer at least as large as the frame; sometimes a record
    // whose frameSize exceeds its capacity.
    const uint32_t capacity = (selector & 4) ? (contentSize > slack ? contentSize - slack : 0) : contentSize + slack;
    const int8_t hevc = selector & 1, lengths = (selector >> 1) & 1;
    const Outcome a = run(units, content, contentSize, capacity, hevc, lengths, 0x00);
    const Outcome b = run(units, content, contentSize, capacity, hevc, lengths, 0xFF);
    if (a.result != b.result || a.frame != b.frame) std::abort();
    return 0;
}
