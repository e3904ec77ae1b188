// Drives the bit reader and writer with operations taken from the input over
// a buffer of exactly the input's size: with sizeBytes set, nothing may touch
// memory outside it, whatever the positions and counts. The inline fast paths
// (the names as macros) must agree with the exported functions.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/bitio/bitio.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) return 0;
    uint32_t ops = data[0] % 64;
    std::vector<uint8_t> buf(data + 1, data + size);
    BitBuffer bb{buf.data(), static_cast<uint32_t>(buf.size()), 0, 0};
    uint32_t word;
    std::memcpy(&word, data + 1, 4);
    bb.sizeBits = word % (buf.size() * 8 + 64);
    for (uint32_t i = 0; i < ops; ++i) {
        uint8_t op = data[(i * 7 + 5) % size];
        uint32_t n = data[(i * 13 + 3) % size];
        BitBuffer exported = bb;
        auto same = [&](uint64_t a, uint64_t b) {
            if (a != b || bb.bitPos != exported.bitPos) __builtin_trap();
        };
        switch (op % 12) {
            case 0: same(ReadBit(&bb), (ReadBit)(&exported)); break;
            case 1: same(ReadBits(&bb, n % 40), (ReadBits)(&exported, n % 40)); break;
            case 2: ReadBits64(&bb, n % 80); break;
            case 3: ReadCodedNumber(&bb); break;
            case 4: same(ReadExponentialGolombCode(&bb), (ReadExponentialGolombCode)(&exported)); break;
            case 5: same(uint32_t(ReadExponentialGolombCodeSigned(&bb)), uint32_t((ReadExponentialGolombCodeSigned)(&exported))); break;
            case 6: SkipBits(&bb, n % 17); break;
            case 7: WriteBits(&bb, n % 40, static_cast<int32_t>(word * n)); break;
            case 8: WriteExponentialGolombCode(&bb, static_cast<int32_t>(word >> (n % 32))); break;
            case 9: qnv::WriteSignedExponentialGolombCode(&bb, static_cast<int32_t>(word) >> (n % 32)); break;
            case 10: qnv::PeekBits(&bb, n % 33); break;
            case 11: bb.bitPos = (word ^ (n << 8)) % (bb.sizeBits + 100); break;
        }
    }
    // Emit the buffer as a NAL unit into a guarded output of the documented size.
    BitBuffer scratch{buf.data(), static_cast<uint32_t>(buf.size()), 0,
                      static_cast<uint32_t>(bb.bitPos % (buf.size() * 8 + 1))};
    std::vector<uint8_t> out(buf.size() + buf.size() / 2 + 8);
    BitBuffer o{out.data(), static_cast<uint32_t>(out.size()), 0, 0};
    qnv::EmitNalUnit(&scratch, &o, data[2] % 2 ? 7 : 0xFFFFFFFFu, data[3] & 1);
    return 0;
}
