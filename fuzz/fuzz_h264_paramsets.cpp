// The H.264 SPS and PPS readers on units of exactly the input's size, with
// read limits and start positions drawn from the input.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "qnvutil/h264.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > (1u << 16)) return 0;
    const uint8_t mode = data[0];
    std::vector<uint8_t> unit(data + 1, data + size);
    const uint32_t n = static_cast<uint32_t>(unit.size());
    // Mostly the whole unit; sometimes a limit beyond it or a later start.
    uint32_t sizeBits = n * 8;
    if (mode & 0x10) sizeBits = n * 8 - mode % 8;
    if (mode & 0x20) sizeBits = n * 8 + 64 * (mode % 4);
    const uint32_t bitPos = mode & 0x40 ? mode % 8 : 0;

    BitBuffer bb{unit.data(), n, sizeBits, bitPos};
    H264SpsRecord sps;
    std::memset(&sps, 0, sizeof sps);
    uint32_t consumed = qnvutilRead_SPS(&bb, &sps);
    if (consumed != bb.bitPos / 8) __builtin_trap();
    bb = BitBuffer{unit.data(), n, sizeBits, bitPos};
    H264PpsRecord pps;
    std::memset(&pps, 0, sizeof pps);
    consumed = qnvutilRead_PPS(&bb, &pps);
    if (consumed != bb.bitPos / 8) __builtin_trap();
    if (std::memcmp(unit.data(), data + 1, n) != 0) __builtin_trap();  // the caller's bytes stay
    return 0;
}
