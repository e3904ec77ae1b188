// The H.264 pic_timing time code over arbitrary SPS and frames.
//
// Input: a selector byte (bit 0: length-prefixed; bit 1: pic_struct_present
// forced on; bits 4-7: pic_struct), the timecode type, the slack behind the
// frame (one byte), the SPS unit (two-byte length, read with
// qnvutilRead_SPS), then the frame. The frame lies between poisoned guard
// bytes that must stay untouched. A refused frame is unchanged; a stamped
// one, stamped again with the same time code, comes out the same (its
// pic_timing is found and replaced) unless its units could not be walked
// to the end, or an Annex B frame ended in zero bytes, which the walk gives
// to the last unit until a start code follows them.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/nal/nal.h"
#include "fuzz/fuzz_guard.h"
#include "fuzz/fuzz_input.h"
#include "qnvutil/h264.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei.h"

namespace {

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardByte = 0xA5;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size < 3 || size > (1 << 16)) return 0;
    const uint8_t selector = data[0];
    const uint32_t tcType = data[1];
    const uint32_t slack = data[2];
    data += 3;
    size -= 3;
    std::vector<uint8_t> spsUnit = fuzzinput::take(data, size);
    const std::vector<uint8_t> content(data, data + size);

    static H264SpsRecord sps;
    std::memset(&sps, 0, sizeof sps);
    if (!spsUnit.empty()) {
        BitBuffer bb{spsUnit.data(), uint32_t(spsUnit.size()), uint32_t(spsUnit.size() * 8), 0};
        qnvutilRead_SPS(&bb, &sps);
    }
    if (selector & 2) {
        sps.vui_parameters_present_flag = 1;
        sps.pic_struct_present_flag = 1;
    }
    const int8_t lengthPrefixed = selector & 1;
    const uint32_t picStruct = selector >> 4;

    const uint32_t capacity = uint32_t(content.size()) + slack;
    std::vector<uint8_t> region(kGuard + capacity + kGuard, kGuardByte);
    uint8_t* frameData = region.data() + kGuard;
    if (!content.empty()) std::memcpy(frameData, content.data(), content.size());
    GUARD_POISON(region.data(), kGuard);
    GUARD_POISON(frameData + capacity, kGuard);

    DFrame f{};
    f.frameData = frameData;
    f.frameCapacity = capacity;
    f.frameSize = uint32_t(content.size());
    f.frameTimecode = uint32_t(tcType) * 2654435761u;
    f.frameBytesTotal = 7;
    const int32_t r = qnvutilAddAVCTimeCode(&f, tcType, &sps, picStruct, lengthPrefixed);
    if (r != 0 && r != -1 && r != -102) __builtin_trap();
    if (f.frameSize > capacity || f.frameData != frameData || f.frameCapacity != capacity) __builtin_trap();
    if (f.frameBytesTotal - 7 != f.frameSize - uint32_t(content.size())) __builtin_trap();
    if (r != 0 && (f.frameSize != content.size() ||
                   (!content.empty() && std::memcmp(frameData, content.data(), content.size()) != 0)))
        __builtin_trap();
    if (r == 0) {
        // Walked to its end, the stamped frame keeps its size and bytes when stamped again.
        qnv::nal::UnitWalk walk(frameData, f.frameSize,
                                lengthPrefixed ? qnv::nal::Framing::kLengthPrefixed : qnv::nal::Framing::kAnnexB);
        for (qnv::nal::Unit u; walk.next(u);) {
        }
        const bool zeroEnd = !lengthPrefixed && !content.empty() && content.back() == 0;
        if (!walk.truncated() && !zeroEnd) {
            const std::vector<uint8_t> once(frameData, frameData + f.frameSize);
            if (qnvutilAddAVCTimeCode(&f, tcType, &sps, picStruct, lengthPrefixed) != 0) __builtin_trap();
            if (f.frameSize != once.size() || std::memcmp(frameData, once.data(), once.size()) != 0) __builtin_trap();
        }
    }
    GUARD_UNPOISON(region.data(), kGuard);
    GUARD_UNPOISON(frameData + capacity, kGuard);
    for (size_t i = 0; i < kGuard; ++i)
        if (region[i] != kGuardByte || frameData[capacity + i] != kGuardByte) __builtin_trap();
    return 0;
}
