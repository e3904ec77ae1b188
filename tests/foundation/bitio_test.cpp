// Bit reader and writer against literal bit-by-bit models, Exp-Golomb edge
// values and NAL unit emission.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/bitio/bitio.h"
#include "foundation/bitio/unescape.h"

using namespace qnv;

namespace {

// ---- A literal model of the reader rules --------------------------------

// With a known buffer size, bytes at or beyond it read as 0.
uint32_t modelBit(const BitBuffer& bb, uint32_t p) {
    if (bb.sizeBytes != 0 && (p >> 3) >= bb.sizeBytes) return 0;
    return (bb.data[p >> 3] >> (7 - (p & 7))) & 1u;
}

uint64_t modelRead(BitBuffer& bb, uint32_t n, unsigned width) {
    if (static_cast<int32_t>(n) <= 0) return 0;
    uint64_t r = 0;
    for (uint32_t place = n; place-- > 0;) {
        uint32_t p = bb.bitPos++;
        uint64_t v = p > bb.sizeBits ? 0xFFFFFFFFull : modelBit(bb, p);
        r |= v << (place % width);
    }
    return width == 32 ? r & 0xFFFFFFFFull : r;
}

uint32_t modelUe(BitBuffer& bb) {
    uint32_t zeros = 0;
    for (;;) {
        uint32_t p = bb.bitPos++;
        if (p > bb.sizeBits || modelBit(bb, p) == 1 || p + 1 >= bb.sizeBits) break;
        ++zeros;
    }
    return static_cast<uint32_t>(modelRead(bb, zeros, 32)) - 1u + (1u << (zeros & 31));
}

std::string bits(const std::vector<uint8_t>& bytes, uint32_t count) {
    std::string s;
    for (uint32_t p = 0; p < count; ++p) s += ((bytes[p >> 3] >> (7 - (p & 7))) & 1) ? '1' : '0';
    return s;
}

template <typename Write>
std::string written(Write write) {
    std::vector<uint8_t> buf(32, 0xAA);  // writers must overwrite, not OR
    BitBuffer bb{buf.data(), 0, 0, 0};
    write(&bb);
    return bits(buf, bb.bitPos);
}

}  // namespace

TEST(BitReader, MatchesLiteralModelEverywhere) {
    // The library's own calls take the inline fast paths (bitio.h); the
    // exported functions, named in parentheses, must agree with them and with
    // the model, for unknown and known buffer sizes.
    std::mt19937 rng(7);
    for (int round = 0; round < 40000; ++round) {
        std::vector<uint8_t> data(40);
        for (auto& b : data) b = rng() % 4 == 0 ? 0 : static_cast<uint8_t>(rng() >> (rng() % 8));
        uint32_t sizeBits = rng() % (8 * 36);
        uint32_t pos = rng() % (sizeBits + 12);
        uint32_t n = round % 10 == 0 ? rng() % 200 : rng() % 66;
        const uint32_t sizeBytes = rng() % 3 == 0 ? 0 : 1 + rng() % 40;
        // inline (a), exported (e) and model (m) readers from the same state
        BitBuffer a{data.data(), sizeBytes, sizeBits, pos}, e = a, m = a;
        const std::string at = std::to_string(pos) + "/" + std::to_string(sizeBits) + "/" + std::to_string(sizeBytes);
        uint64_t got = 0, exported = 0, want = 0;
        switch (round % 5) {
            case 0: got = ReadBits(&a, n), exported = (ReadBits)(&e, n), want = modelRead(m, n, 32); break;
            case 1: got = exported = ReadBits64(&a, n), e = a, want = modelRead(m, n, 64); break;
            case 2: got = ReadExponentialGolombCode(&a), exported = (ReadExponentialGolombCode)(&e), want = modelUe(m); break;
            case 3: {
                const uint32_t k = modelUe(m);
                got = uint32_t(ReadExponentialGolombCodeSigned(&a));
                exported = uint32_t((ReadExponentialGolombCodeSigned)(&e));
                want = (k & 1) ? (k >> 1) + 1 : uint32_t(0u - (k >> 1));
                break;
            }
            case 4:
                got = ReadBit(&a), exported = (ReadBit)(&e);
                want = m.bitPos > sizeBits ? 0xFFFFFFFFu : modelBit(m, m.bitPos);
                m.bitPos++;
                break;
        }
        ASSERT_EQ(std::tuple(got, a.bitPos), std::tuple(want, m.bitPos)) << at << " n=" << n << " case " << round % 5;
        ASSERT_EQ(std::tuple(exported, e.bitPos), std::tuple(want, m.bitPos)) << at << " n=" << n;
    }
}

TEST(BitReader, CountsAndCodesBeyondTheModelsReach) {
    uint8_t data[2] = {0xA5, 0x80};
    BitBuffer bb{data, 0, 8, 3};
    EXPECT_EQ(ReadBits(&bb, 0x80000000u), 0u);
    EXPECT_EQ(bb.bitPos, 3u);
    // A huge count on a tiny buffer finishes at once and folds to all ones.
    EXPECT_EQ(ReadBits(&bb, 0x7FFFFFFFu), 0xFFFFFFFFu);
    EXPECT_EQ(bb.bitPos, 3u + 0x7FFFFFFFu);

    uint8_t coded[] = {0xFF, 0xFF, 0x05, 0x00};
    bb = bitReader(coded, 3);
    EXPECT_EQ(ReadCodedNumber(&bb), 515u);
}

TEST(BitWriter, ExpGolombCodes) {
    auto ue = [](int32_t v) { return written([v](BitBuffer* bb) { WriteExponentialGolombCode(bb, v); }); };
    auto se = [](int32_t v) { return written([v](BitBuffer* bb) { WriteSignedExponentialGolombCode(bb, v); }); };
    EXPECT_EQ(ue(0), "1");
    EXPECT_EQ(ue(1), "010");
    EXPECT_EQ(ue(65535), std::string(16, '0') + "1" + std::string(16, '0'));
    // From x = 2^24 up the code carries 48 extra leading zeros.
    EXPECT_EQ(ue(0xFFFFFE), std::string(23, '0') + "1" + std::string(23, '1'));
    EXPECT_EQ(ue(0xFFFFFF), std::string(72, '0') + "1" + std::string(24, '0'));
    EXPECT_EQ(se(0), "1");
    EXPECT_EQ(se(1), "00101");  // codeNum 4: the writer's own positive mapping
    EXPECT_EQ(se(-1), "011");

    const std::pair<int32_t, uint32_t> lengths[] = {{0, 1}, {1, 3}, {2, 3}, {3, 5}, {127, 15}, {-1, 2}};
    for (auto [v, length] : lengths) EXPECT_EQ(LengthExponentialGolombCode(v), length) << v;

    EXPECT_EQ(written([](BitBuffer* bb) { WriteBits(bb, 1, 6); }), "0");
    EXPECT_EQ(written([](BitBuffer* bb) { WriteBits(bb, 0, 7); }), "");
    EXPECT_EQ(written([](BitBuffer* bb) { WriteBits(bb, 34, -2); }), std::string(33, '1') + "0");
    EXPECT_EQ(written([](BitBuffer* bb) { WriteBits64(bb, 66, 1); }), "010" + std::string(62, '0') + "1");
}

TEST(BitWriter, RandomCodesReadBack) {
    std::mt19937 rng(11);
    std::vector<uint32_t> codes;
    std::vector<uint8_t> buf(1 << 16);
    BitBuffer w{buf.data(), static_cast<uint32_t>(buf.size()), 0, 0};
    for (int i = 0; i < 4000; ++i) {
        codes.push_back((rng() >> (rng() % 32)) % 0xFFFFFF);  // below the 48-zero band
        WriteExponentialGolombCode(&w, static_cast<int32_t>(codes.back()));
        WriteBits(&w, 5, i & 31);
    }
    BitBuffer r{buf.data(), 0, w.bitPos, 0};
    for (int i = 0; i < 4000; ++i) {
        uint32_t k = codes[i];
        if (i % 2) {
            ASSERT_EQ(ReadExponentialGolombCode(&r), k);
        } else {
            int32_t expected = k % 2 ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
            ASSERT_EQ(ReadExponentialGolombCodeSigned(&r), expected);
        }
        ASSERT_EQ(ReadBits(&r, 5), static_cast<uint32_t>(i & 31));
    }
}

TEST(BitWriter, WordWritesMatchBitByBitWrites) {
    // With a known size, WriteBits rewrites the whole eight-byte words that
    // hold the bits when they lie inside (one, or two where the bits cross a
    // word's end); the bytes must be those of the bit-by-bit writes.
    std::mt19937 rng(13);
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> fast(24), model(24);
        for (size_t i = 0; i < fast.size(); ++i) fast[i] = model[i] = static_cast<uint8_t>(rng());
        const uint32_t sizeBytes = 1 + rng() % 24;
        BitBuffer f{fast.data(), sizeBytes, 0, static_cast<uint32_t>(rng() % 160)};
        BitBuffer m{model.data(), sizeBytes, 0, f.bitPos};
        for (int k = 0; k < 6; ++k) {
            const uint32_t n = rng() % 40;
            const int32_t v = static_cast<int32_t>(rng());
            WriteBits(&f, n, v);
            for (uint32_t i = n; i > 32; --i) WriteBit(&m, static_cast<uint8_t>(uint32_t(v) >> 31));
            for (uint32_t i = std::min(n, 32u); i > 0; --i) WriteBit(&m, static_cast<uint8_t>(uint32_t(v) >> (i - 1)));
        }
        ASSERT_EQ(fast, model) << round;
        ASSERT_EQ(f.bitPos, m.bitPos);
    }
}

TEST(BitBuffer, MemoryGuardKeepsAccessInsideSizeBytes) {
    uint8_t data[4] = {0xFF, 0xFF, 0xEE, 0xEE};
    BitBuffer bb{data, 2, 20, 12};
    EXPECT_EQ(ReadBits(&bb, 8), 0xF0u);  // bits 16..19 lie inside sizeBits but past sizeBytes
    bb.bitPos = 14;
    WriteBits(&bb, 8, 0);
    EXPECT_EQ(std::tuple(data[1], data[2], bb.bitPos), std::tuple(0xFC, 0xEE, 22u));  // the byte past sizeBytes dropped
    // WriteBit uses bit 0 of its value only and drops bits past sizeBytes too.
    bb.bitPos = 14;
    EXPECT_EQ(WriteBit(&bb, 0x13), &bb);
    for (int i = 0; i < 8; ++i) WriteBit(&bb, 1);
    EXPECT_EQ(std::tuple(data[1], data[2], bb.bitPos), std::tuple(0xFF, 0xEE, 23u));
}

TEST(EmitNalUnit, EmulationPreventionAndFraming) {
    // `unusedBits`: low bits of the last byte that are not yet written.
    auto emit = [](std::vector<uint8_t> rbsp, uint32_t sizeIndex, uint8_t lengthPrefix, uint32_t unusedBits = 0) {
        std::vector<uint8_t> scratch(rbsp.size() + 8, 0);
        std::copy(rbsp.begin(), rbsp.end(), scratch.begin());
        BitBuffer s{scratch.data(), static_cast<uint32_t>(scratch.size()), 0,
                    static_cast<uint32_t>(rbsp.size() * 8 - unusedBits)};
        std::vector<uint8_t> out(rbsp.size() * 2 + 16, 0xEE);
        BitBuffer o{out.data(), static_cast<uint32_t>(out.size()), 0, 16};  // two bytes already in the output
        EmitNalUnit(&s, &o, sizeIndex, lengthPrefix);
        return std::vector<uint8_t>(out.begin() + 2, out.begin() + (o.bitPos >> 3));
    };
    using V = std::vector<uint8_t>;
    EXPECT_EQ(emit({0, 0, 0, 1, 0x4E, 0, 0, 0, 0}, 0xFFFFFFFF, 0),
              (V{0, 0, 0, 1, 0x4E, 0, 0, 3, 0, 0, 0x80}));
    EXPECT_EQ(emit({0, 0, 0, 1, 0x4E, 0x01, 0x05}, 0xFFFFFFFF, 1), (V{0, 0, 0, 4, 0x4E, 0x01, 0x05, 0x80}));
    // The size byte is patched after the SEI payload alignment (1 then zeros).
    EXPECT_EQ(emit({0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x00, 0xAA}, 7, 0), (V{0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x01, 0xAA, 0x80}));
    EXPECT_EQ(emit({0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x00, 0xA0}, 7, 0, 5),
              (V{0, 0, 0, 1, 0x4E, 0x01, 0x05, 0x01, 0xB0, 0x80}));
}

namespace {
// The copy step taken literally, one byte at a time, over the closed RBSP.
std::vector<uint8_t> modelCopy(const std::vector<uint8_t>& src) {
    auto ep = [](uint8_t b) { return b == 0 || b == 1 || b == 3; };
    std::vector<uint8_t> out;
    size_t i = 0, n = src.size();
    if (n > 3)
        for (; i < 4; ++i) out.push_back(src[i]);
    while (n - i >= 3) {
        if (src[i] == 0 && src[i + 1] == 0 && ep(src[i + 2])) {
            out.insert(out.end(), {0, 0, 3, src[i + 2]});
            i += 3;
            while (src[i - 1] == 0 && n - i >= 2 && src[i] == 0 && ep(src[i + 1])) {
                out.insert(out.end(), {0, 3, src[i + 1]});
                i += 2;
            }
        } else {
            out.push_back(src[i++]);
        }
    }
    out.insert(out.end(), src.begin() + i, src.end());
    return out;
}
}  // namespace

TEST(EmitNalUnit, OutputUnescapesToInputWithoutStartCodes) {
    std::mt19937 rng(3);
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> rbsp = {0, 0, 0, 1, 0x02};
        size_t n = rng() % 40;
        for (size_t i = 0; i < n; ++i) rbsp.push_back(rng() % 3 == 0 ? static_cast<uint8_t>(rng() % 4) : 0);
        rbsp.push_back(static_cast<uint8_t>(1u << (rng() % 8)));  // stop bit byte
        std::vector<uint8_t> scratch = rbsp;
        scratch.resize(rbsp.size() + 2);
        BitBuffer s{scratch.data(), 0, 0, static_cast<uint32_t>(rbsp.size() * 8)};
        s.bitPos = static_cast<uint32_t>(rbsp.size() * 8);
        // Emit appends its own trailing byte: drop it again for the comparison.
        std::vector<uint8_t> out(rbsp.size() * 2 + 8);
        BitBuffer o{out.data(), 0, 0, 0};
        EmitNalUnit(&s, &o, 0xFFFFFFFF, 0);
        out.resize(o.bitPos >> 3);
        scratch.resize(s.bitPos >> 3);
        ASSERT_EQ(out, modelCopy(scratch));
        out.pop_back();
        std::vector<uint8_t> back(out.begin(), out.begin() + 4);
        int zeros = 0;
        for (size_t i = 4; i < out.size(); ++i) {
            if (i + 2 < out.size() && out[i] == 0 && out[i + 1] == 0) {
                ASSERT_GT(out[i + 2], 1) << "start code emulation at " << i;
            }
            if (zeros >= 2 && out[i] == 3) {
                zeros = 0;
                continue;
            }
            zeros = out[i] == 0 ? zeros + 1 : 0;
            back.push_back(out[i]);
        }
        ASSERT_EQ(back, rbsp);
    }
}

namespace {
// The removal as first written: byte by byte, reading past the end as the
// last byte, checking at each index from 3 on.
std::vector<uint8_t> modelUnescape(const std::vector<uint8_t>& src, bool dropOC) {
    const uint32_t n = static_cast<uint32_t>(src.size());
    std::vector<uint8_t> dst(n);
    auto at = [&](uint64_t m) { return src[m < n ? m : n - 1]; };
    uint32_t removed = 0, done = 0;
    for (uint32_t i = 3; uint64_t(i) + 2 < n; ++i) {
        for (; done < i + 2; ++done) dst[done] = at(uint64_t(done) + removed);
        const uint8_t third = at(uint64_t(i) + 2 + removed);
        if (dst[i] == 0 && dst[i + 1] == 0 && (third == 3 || (dropOC && third == 0x0C))) {
            ++removed;
            ++i;
        }
    }
    for (; done < n; ++done) dst[done] = at(uint64_t(done) + removed);
    return dst;
}
}  // namespace

TEST(UnescapedCopy, MatchesTheByteByByteRemoval) {
    std::mt19937 rng(12);
    static const uint8_t alphabet[] = {0, 0, 0, 3, 3, 0x0C, 1, 0x80};
    for (int round = 0; round < 20000; ++round) {
        std::vector<uint8_t> src(1 + rng() % (round % 50 == 0 ? 700 : 40));
        for (auto& b : src) b = alphabet[rng() % 8];
        const bool dropOC = round % 2 != 0;
        std::vector<uint8_t> dst(src.size());
        UnescapeShifted(src.data(), dst.data(), static_cast<uint32_t>(src.size()), dropOC);
        ASSERT_EQ(dst, modelUnescape(src, dropOC)) << round;
        // The working copy: the same bytes, eight zeros, the caller's position.
        BitBuffer caller{src.data(), static_cast<uint32_t>(src.size()), 5, 3};
        UnescapedCopy copy(caller, dropOC);
        ASSERT_TRUE(copy.ok());
        const BitBuffer* b = copy.bits();
        ASSERT_EQ(std::tuple(b->sizeBytes, b->sizeBits, b->bitPos), std::tuple(caller.sizeBytes + 8, 5u, 3u));
        ASSERT_TRUE(std::equal(dst.begin(), dst.end(), b->data));
        ASSERT_TRUE(std::all_of(b->data + dst.size(), b->data + dst.size() + 8, [](uint8_t x) { return x == 0; }));
    }
}
