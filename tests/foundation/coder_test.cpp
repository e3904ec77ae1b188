// The syntax writer against the exported bit writers: the same elements give
// the same bytes and positions, whatever the buffer around them.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <vector>

#include "foundation/bitio/bitio.h"
#include "foundation/syntax/coder.h"

namespace {


// The standard ue(v) through the exported writers (whose own code from 2^24
// up differs, so that range is written bit by bit as the standard has it).
void modelUe(BitBuffer* bb, uint32_t v) {
    const uint64_t x = uint64_t(v) + 1;
    const uint32_t bits = 64 - static_cast<uint32_t>(__builtin_clzll(x));
    if (x < 0x1000000u) {
        WriteExponentialGolombCode(bb, static_cast<int32_t>(v));
    } else {
        qnv::WriteBits64(bb, bits - 1, 0);
        qnv::WriteBits64(bb, bits, x);
    }
}

uint32_t drawValue(std::mt19937& rng) {
    switch (rng() % 4) {
        case 0: return rng() % 4;
        case 1: return rng() % 300;
        case 2: return rng() >> (rng() % 32);
        default: return 0xFFFFFFF0u + rng() % 16;
    }
}

}  // namespace

// Elements of every kind in random order, into buffers of every size (cut
// anywhere, so that the end takes the bit-by-bit path), with bitPos
// sometimes moved between elements by other code.
template <class Coder>
void expectBitWritersBytes() {
    std::mt19937 rng(29);
    for (int round = 0; round < 4000; ++round) {
        std::vector<uint8_t> fast(48), model(48);
        for (size_t i = 0; i < fast.size(); ++i) fast[i] = model[i] = static_cast<uint8_t>(rng());
        const uint32_t sizeBytes = rng() % 6 == 0 ? 0 : 1 + rng() % 40;
        BitBuffer f{fast.data(), sizeBytes, 0, static_cast<uint32_t>(rng() % 70)};
        BitBuffer m{model.data(), sizeBytes, 0, f.bitPos};
        Coder c(&f);
        for (int k = 0; k < 10 && m.bitPos < 300; ++k) {
            const uint32_t v = drawValue(rng);
            switch (rng() % 6) {
                case 0: {
                    const uint32_t n = rng() % 33;
                    c.skip(n, v, {"u"});
                    WriteBits(&m, n, static_cast<int32_t>(n >= 32 ? v : v & ((1u << n) - 1u)));
                    break;
                }
                case 1:
                    c.skipUe(v, {"ue"});
                    modelUe(&m, v > 0xFFFFFFFEu ? 0xFFFFFFFEu : v);
                    break;
                case 2: {
                    const int32_t s = rng() % 8 == 0 ? INT32_MIN : static_cast<int32_t>(v);
                    c.skipSe(s, {"se"});
                    const int32_t t = s == INT32_MIN ? INT32_MIN + 1 : s;
                    modelUe(&m, t <= 0 ? 0u - 2u * uint32_t(t) : 2u * uint32_t(t) - 1u);
                    break;
                }
                case 3:
                    c.skip64(40, uint64_t(v) << 8 | 0x5A, {"u40"});
                    qnv::WriteBits64(&m, 40, uint64_t(v) << 8 | 0x5A);
                    break;
                case 4: {
                    // Other code moves bitPos on between elements.
                    const uint32_t n = rng() % 12;
                    SkipBits(&f, n);
                    SkipBits(&m, n);
                    break;
                }
                default:
                    WriteBits(&f, 7, static_cast<int32_t>(v));
                    WriteBits(&m, 7, static_cast<int32_t>(v));
                    break;
            }
            ASSERT_EQ(f.bitPos, m.bitPos) << round;
            ASSERT_EQ(fast, model) << round << " element " << k;
        }
    }
}

TEST(WriteCoder, WritesWhatTheBitWritersWrite) {
    ASSERT_NO_FATAL_FAILURE(expectBitWritersBytes<qnv::syntax::WriteCoder>());
    ASSERT_NO_FATAL_FAILURE(expectBitWritersBytes<qnv::syntax::InlineWriteCoder>());
}
