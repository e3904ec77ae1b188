// Annex B <-> length-prefix framing against a literal model of the
// step-by-step walk, and the NAL unit search.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "qnvutil/h264.h"
#include "qnvutil/h264/framing.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// The walk as first described: one cursor from the front, the rest of the
// frame moved up one byte at every three-byte start code. `b` has zeroed room
// behind the frame.
uint32_t modelMarkerToSize(Bytes& b, uint32_t size) {
    if (size == 0) return 0;
    int64_t prev = -1;
    int64_t p = 0;
    do {
        const int64_t end = size;
        bool four = b[p] == 0 && b[p + 1] == 0 && b[p + 2] == 0 && b[p + 3] == 1;
        bool three = !four && b[p] == 0 && b[p + 1] == 0 && b[p + 2] == 1 && (prev < 0 || p != prev + 1);
        if (p > end - 4) {
            p = end;
            if (prev < 0) prev = 0;
            put32(b, prev, static_cast<uint32_t>(end - prev - 4));
            prev = end;
            if (three) ++size;
        } else if (four || three) {
            if (prev >= 0) put32(b, prev, static_cast<uint32_t>(p - prev - 4));
            prev = p;
            if (three) {
                std::memmove(&b[p + 1], &b[p], size - p);
                ++size;
            }
        }
        ++p;
    } while (p < size);
    return size;
}

// Frames of units behind three- and four-byte codes with payloads drawn from
// bytes that form start codes, zero runs and near misses.
// `longUnits` gives payloads of up to 300 mostly non-zero bytes, so that the
// vector scan and the block moves do their work.
Bytes randomFrame(std::mt19937& rng, bool longUnits = false) {
    static const uint8_t alphabet[] = {0, 0, 0, 1, 3, 0x65, 0xFF};
    Bytes f;
    int units = rng() % 6;
    if (rng() % 3 == 0) f.push_back(alphabet[rng() % 7]);
    for (int u = 0; u < units; ++u) {
        if (rng() % 2) f.push_back(0);
        f.insert(f.end(), {0, 0, 1});
        int n = longUnits ? rng() % 300 : rng() % 12;
        for (int i = 0; i < n; ++i)
            f.push_back(longUnits && rng() % 16 != 0 ? static_cast<uint8_t>(rng() | 1) : alphabet[rng() % 7]);
    }
    while (f.size() < 4 && rng() % 2) f.push_back(alphabet[rng() % 7]);
    return f;
}

// The conversion on every instruction set the processor has gives the
// model's result and bytes.
void expectEveryVariant(const Bytes& frame, uint32_t expected, const Bytes& model) {
    for (auto v : {qnv::ScanVariant::kPortable, qnv::ScanVariant::kSse2, qnv::ScanVariant::kAvx2,
                   qnv::ScanVariant::kAvx512}) {
        if (!qnv::ScanVariantAvailable(v)) continue;
        Bytes b = frame;
        b.resize(model.size(), 0);
        ASSERT_EQ(qnv::h264ConvertWith(v, b.data(), static_cast<uint32_t>(frame.size()), 0xFFFFFFFEu), expected);
        ASSERT_EQ(b, model) << static_cast<int>(v);
    }
}

}  // namespace

TEST(H264Framing, MarkerToSizeMatchesTheStepByStepWalk) {
    std::mt19937 rng(11);
    for (int round = 0; round < 220000; ++round) {
        const Bytes frame = randomFrame(rng, round % 10 == 0);
        const uint32_t size = static_cast<uint32_t>(frame.size());
        if (size < 4) continue;
        Bytes model = frame, fast = frame, checked = frame;
        for (Bytes* b : {&model, &fast, &checked}) b->resize(size * 2 + 8, 0);
        const uint32_t expected = modelMarkerToSize(model, size);
        ASSERT_EQ(qnvUtilh264MarkerToSize(fast.data(), size), expected) << "round " << round;
        ASSERT_EQ(fast, model) << "round " << round;
        // The checked form refuses one byte short and leaves the frame alone.
        ASSERT_EQ(qnvUtilh264MarkerToSizeChecked(checked.data(), size, expected - 1), 0xFFFFFFFFu);
        ASSERT_TRUE(std::equal(frame.begin(), frame.end(), checked.begin()));
        ASSERT_EQ(qnvUtilh264MarkerToSizeChecked(checked.data(), size, expected), expected);
        ASSERT_EQ(checked, model);
        // So does every instruction set the processor has.
        ASSERT_NO_FATAL_FAILURE(expectEveryVariant(frame, expected, model));
    }
}

TEST(H264Framing, MarkerToSizeAroundTheRecordedPositions) {
    // Pass one records where the first 4,096 codes lie; pass two finds the
    // codes beyond them again. Frames below and above that room, some with
    // units of 64 KiB and more between short ones, and frames of just as
    // many three-byte codes as the room holds and one more, on every
    // instruction set.
    struct Case {
        int units, longEvery;
        bool plain = false;  // three-byte codes only, payload without 00 or 01
    };
    std::mt19937 rng(3);
    for (const Case c : {Case{3000, 0}, Case{5200, 0}, Case{3000, 700}, Case{4600, 900}, Case{4096, 0, true},
                         Case{4097, 0, true}}) {
        Bytes frame;
        for (int u = 0; u < c.units; ++u) {
            if (!c.plain && rng() % 3 == 0) frame.push_back(0);
            frame.insert(frame.end(), {0, 0, 1});
            static const uint8_t alphabet[] = {0, 0, 1, 3, 0x65, 0xFF, 7, 9};
            for (int n = rng() % 40; n > 0; --n) frame.push_back(alphabet[c.plain ? 3 + rng() % 5 : rng() % 8]);
            if (c.longEvery != 0 && u % c.longEvery == c.longEvery / 2) frame.resize(frame.size() + 66000, 0x5A);
        }
        const uint32_t size = static_cast<uint32_t>(frame.size());
        Bytes model = frame, fast = frame;
        model.resize(size * 2 + 8, 0);
        fast.resize(size * 2 + 8, 0);
        const uint32_t expected = modelMarkerToSize(model, size);
        ASSERT_EQ(qnvUtilh264MarkerToSize(fast.data(), size), expected);
        ASSERT_EQ(fast, model) << c.units;
        ASSERT_NO_FATAL_FAILURE(expectEveryVariant(frame, expected, model)) << c.units;
    }
}

TEST(H264Framing, LiteralFrames) {
    // MarkerToSize: `in` holds the frame's `size` bytes and its spare room;
    // the checked form refuses one byte short of the result.
    const struct { Bytes in; uint32_t size, result; Bytes out; } toSize[] = {
        {{0, 0, 0, 1, 0x65, 0xAA, 0xBB, 0xCC, 0xDD}, 9, 9, {0, 0, 0, 5, 0x65, 0xAA, 0xBB, 0xCC, 0xDD}},
        {{0, 0, 1, 0x67, 0x11, 0x22, 0x33, 0, 0, 1, 0x68, 0x44, 0x55, 0x66, 0xEE, 0xEE}, 14, 16,
         {0, 0, 0, 4, 0x67, 0x11, 0x22, 0x33, 0, 0, 0, 4, 0x68, 0x44, 0x55, 0x66}},
        {{9, 9, 9, 9, 0x41, 0x42}, 6, 6, {0, 0, 0, 2, 0x41, 0x42}},  // no start code: size - 4 over the first four
        // A 00 00 01 in the last three bytes adds one without moving anything;
        // the last unit's length stops before it.
        {{0, 0, 0, 1, 0x65, 0, 0, 1, 0x77}, 8, 9, {0, 0, 0, 4, 0x65, 0, 0, 1, 0x77}},
        // Frames shorter than a slot: only 00 00 01 converts (into its spare byte).
        {{0, 0, 1, 0x77}, 3, 4, {0xFF, 0xFF, 0xFF, 0xFF}},
        {{0, 0}, 2, 2, {0, 0}},
    };
    for (const auto& row : toSize) {
        Bytes b = row.in;
        ASSERT_EQ(qnvUtilh264MarkerToSizeChecked(b.data(), row.size, row.result - 1), 0xFFFFFFFFu);
        EXPECT_EQ(b, row.in);
        EXPECT_EQ(qnvUtilh264MarkerToSize(b.data(), row.size), row.result);
        EXPECT_EQ(b, row.out) << &row - toSize;
    }
    EXPECT_EQ(qnvUtilh264MarkerToSize(nullptr, 5), 0u);

    // SizeToMarker: the first unit's length becomes 00 00 00 01.
    const std::pair<Bytes, uint32_t> toMarker[] = {
        {{0, 0, 0, 1, 0x67, 0, 0, 0, 9}, 9},          // already behind a start code
        {{0, 0, 0, 2, 0xAA, 0xBB, 0, 0, 0, 0}, 6},    // a zero length ends the frame
        {{0, 0, 0, 2, 0xAA, 0xBB, 0, 0, 0, 5, 0xCC}, 11},  // a length past the end stops the conversion
        // Fewer than four bytes after the last unit: zeros end the frame
        // there, anything else is left and the whole size kept.
        {{0, 0, 0, 2, 0xAA, 0xBB, 0, 0}, 6},
        {{0, 0, 0, 2, 0xAA, 0xBB, 0, 7}, 8},
    };
    for (auto [in, result] : toMarker) {
        Bytes b = in;
        EXPECT_EQ(qnvUtilh264SizeToMarker(b.data(), static_cast<uint32_t>(b.size())), result);
        in[3] = 1;
        EXPECT_EQ(b, in);
    }
}

TEST(H264Framing, SizeToMarkerUndoesMarkerToSize) {
    std::mt19937 rng(5);
    for (int round = 0; round < 2000; ++round) {
        Bytes f;  // units of two bytes and more behind four-byte codes
        for (int units = 1 + rng() % 5; units > 0; --units) {
            f.insert(f.end(), {0, 0, 0, 1});
            for (int n = 2 + rng() % 9; n > 0; --n) f.push_back(static_cast<uint8_t>(0x80 | rng()));
        }
        Bytes b(f);
        const uint32_t size = static_cast<uint32_t>(f.size());
        ASSERT_EQ(qnvUtilh264MarkerToSize(b.data(), size), size);
        ASSERT_EQ(qnvUtilh264SizeToMarker(b.data(), size), size);
        ASSERT_EQ(b, f);
    }
}

TEST(H264Framing, FindSpecificNAL) {
    const Bytes lp = {0, 0, 0, 2, 9, 0x10, 0, 0, 0, 3, 6, 1, 2, 0, 0, 0, 1, 0x65};
    // A length past the end reports the unit up to the end of the buffer.
    const Bytes overrun = {0, 0, 0, 2, 9, 0x10, 0xFF, 0xFF, 0xFF, 0xFC, 6, 1};
    // Annex B: the scan stops at the first zero among three bytes and takes
    // the header four bytes later, so the PPS at 11 is missed and byte 13
    // (inside it) is taken for a header; the last unit is measured to where
    // the walk stopped (size - 4).
    const Bytes ab = {0, 0, 0, 1, 0x67, 0x42, 0x11, 0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80, 0x22};
    const struct { const Bytes& data; int32_t startCodes; uint8_t header; int64_t at; uint32_t size; } rows[] = {
        {lp, 0, 0x06, 6, 7}, {lp, 0, 0x65, 13, 5}, {lp, 0, 0x68, -1, 0}, {overrun, 0, 0x06, 6, 6},
        {ab, 1, 0x67, 0, 5}, {ab, 1, 0x68, -1, 0}, {ab, 1, 0x38, 9, 4},  // at -1: not found
    };
    for (const auto& row : rows) {
        const uint8_t* found = row.data.data();
        uint32_t size = 99;
        EXPECT_EQ(qnvUtilFindSpecificNAL(row.data.data(), static_cast<uint32_t>(row.data.size()), row.startCodes,
                                         row.header, &found, &size),
                  row.at >= 0 ? 1 : 0);
        EXPECT_EQ(found, row.at >= 0 ? row.data.data() + row.at : nullptr) << &row - rows;
        EXPECT_EQ(size, row.size) << &row - rows;
    }
    // Too short or null: the outputs are not written.
    const uint8_t* found = lp.data();
    uint32_t size = 99;
    EXPECT_EQ(qnvUtilFindSpecificNAL(lp.data(), 3, 0, 0x06, &found, &size), 0);
    EXPECT_EQ(qnvUtilFindSpecificNAL(nullptr, 18, 0, 0x06, &found, &size), 0);
    EXPECT_EQ(found, lp.data());
    EXPECT_EQ(size, 99u);
}
