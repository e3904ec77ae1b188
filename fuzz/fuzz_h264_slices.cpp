// The H.264 writers, the slice header reader and writer, and the slice fix,
// on an SPS, a PPS and a slice unit cut from the input (each behind a
// two-byte length). Written parameter sets must read back; a fixed slice
// must read back with the header it was given; nothing is written past the
// destination's capacity.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "qnvutil/h264.h"

namespace {

BitBuffer bitsOf(std::vector<uint8_t>& b) {
    return BitBuffer{b.data(), static_cast<uint32_t>(b.size()), static_cast<uint32_t>(b.size() * 8), 0};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 16)) return 0;
    std::vector<uint8_t> spsUnit = fuzzinput::take(data, size), ppsUnit = fuzzinput::take(data, size);
    std::vector<uint8_t> slice(data, data + size);
    if (spsUnit.empty() || ppsUnit.empty() || slice.empty()) return 0;

    H264SpsRecord sps{};
    H264PpsRecord pps{};
    BitBuffer bb = bitsOf(spsUnit);
    qnvutilRead_SPS(&bb, &sps);
    bb = bitsOf(ppsUnit);
    qnvutilRead_PPS(&bb, &pps);

    static uint8_t written[QNV_H264_PS_MAX_BYTES];
    if (uint32_t n = qnvutilWrite_SPS(&sps, written)) {
        if (n > QNV_H264_PS_MAX_BYTES) __builtin_trap();
        H264SpsRecord again{};
        BitBuffer back{written, n, n * 8, 0};
        qnvutilRead_SPS(&back, &again);
        // The reader removes escapes from the fourth byte on: a unit that
        // needs one earlier (two zero bytes among its first three) does not
        // read back.
        const bool readsBack = n < 3 || !((written[0] == 0 && written[1] == 0) || (written[1] == 0 && written[2] == 0));
        uint8_t second[QNV_H264_PS_MAX_BYTES];
        if (readsBack && (qnvutilWrite_SPS(&again, second) != n || std::memcmp(written, second, n) != 0))
            __builtin_trap();
    }
    if (uint32_t n = qnvutilWrite_PPS(&pps, written)) {
        if (n > QNV_H264_PS_MAX_BYTES) __builtin_trap();
    }

    H264SliceHeader header;
    bb = bitsOf(slice);
    if (qnvutilRead_SliceHeader(&bb, &sps, &pps, &header) == 0xFFFFFFFFu) return 0;
    uint8_t bits[4096];
    BitBuffer out{bits, sizeof bits, sizeof bits * 8, 0};
    if (qnvutilWrite_SliceHeader(&header, &sps, &pps, &out) != static_cast<uint32_t>(header.header_bits))
        __builtin_trap();

    // Guard bytes after the capacity catch writes past it.
    const uint32_t capacity = static_cast<uint32_t>(slice.size()) + (slice[0] & 7);
    std::vector<uint8_t> dst(capacity + 16, 0xA5);
    const uint32_t n = qnvutilFix_SliceHeader(slice.data(), static_cast<uint32_t>(slice.size()), &header, &sps, &pps,
                                              nullptr, nullptr, dst.data(), capacity);
    for (size_t i = capacity; i < dst.size(); ++i)
        if (dst[i] != 0xA5) __builtin_trap();
    if (n <= capacity) {
        std::vector<uint8_t> fixed(dst.begin(), dst.begin() + n);
        H264SliceHeader again;
        bb = bitsOf(fixed);
        if (qnvutilRead_SliceHeader(&bb, &sps, &pps, &again) == 0xFFFFFFFFu) __builtin_trap();
        again.header_bits = header.header_bits;
        if (std::memcmp(&again, &header, sizeof header) != 0) __builtin_trap();
    }
    return 0;
}
