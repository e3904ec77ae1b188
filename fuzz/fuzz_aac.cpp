// Reads an AudioSpecificConfig and an ADTS header from the input (once over
// the exact bytes with sizeBytes set, once with only the read limit and the
// spare byte readers may touch), then checks that writing a record and
// reading it back gives a record that writes the same bits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qnvutil/aac.h"

namespace {

template <typename Record, typename Read, typename Write>
void roundTrip(const Record& record, Read read, Write write) {
    uint8_t first[16], second[16];
    BitBuffer w1{first, sizeof first, sizeof first * 8, 0};
    write(&w1, &record);
    BitBuffer r{first, sizeof first, w1.bitPos, 0};
    Record back;
    std::memset(&back, 0, sizeof back);
    read(&r, &back);
    BitBuffer w2{second, sizeof second, sizeof second * 8, 0};
    write(&w2, &back);
    if (r.bitPos != w1.bitPos || w2.bitPos != w1.bitPos || std::memcmp(first, second, (w1.bitPos + 7) / 8) != 0)
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 64) return 0;  // sizeBytes 0 would mean "size unknown"
    const uint32_t n = static_cast<uint32_t>(size);
    std::vector<uint8_t> exact(data, data + size);
    std::vector<uint8_t> spare(data, data + size);
    spare.push_back(0);

    for (BitBuffer bb : {BitBuffer{exact.data(), n, n * 8, 0}, BitBuffer{spare.data(), 0, n * 8, 0}}) {
        AACConfig config;
        ADTSHeader header;
        std::memset(&config, 0, sizeof config);
        std::memset(&header, 0, sizeof header);
        uint32_t start = bb.bitPos;
        qnvutilReadAAC(&bb, &config);
        bb.bitPos = start;
        qnvutilReadADTS(&bb, &header);
        roundTrip(config, qnvutilReadAAC, qnvutilWriteAAC);
        roundTrip(header, qnvutilReadADTS, qnvutilWriteADTS);
    }
    return 0;
}
