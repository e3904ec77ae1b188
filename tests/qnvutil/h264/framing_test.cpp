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

}  // namespace

TEST(H264Framing, MarkerToSizeMatchesTheStepByStepWalk) {
    std::mt19937 rng(11);
    for (int round = 0; round < 220000; ++round) {
        Bytes frame = randomFrame(rng, round % 10 == 0);
        const uint32_t size = static_cast<uint32_t>(frame.size());
        if (size < 4) continue;
        Bytes model(frame), fast(frame);
        model.resize(size * 2 + 8, 0);
        fast.resize(size * 2 + 8, 0);
        uint32_t expected = modelMarkerToSize(model, size);
        ASSERT_EQ(qnvUtilh264MarkerToSize(fast.data(), size), expected) << "round " << round;
        ASSERT_EQ(fast, model) << "round " << round;

        // The checked form refuses one byte short and leaves the frame alone.
        Bytes checked(frame);
        checked.resize(size * 2 + 8, 0);
        ASSERT_EQ(qnvUtilh264MarkerToSizeChecked(checked.data(), size, expected - 1), 0xFFFFFFFFu);
        ASSERT_TRUE(std::equal(frame.begin(), frame.end(), checked.begin()));
        ASSERT_EQ(qnvUtilh264MarkerToSizeChecked(checked.data(), size, expected), expected);
        ASSERT_EQ(checked, model);

        // The baseline scan, which processors without AVX2 take, agrees too.
        Bytes generic(frame);
        generic.resize(size * 2 + 8, 0);
        ASSERT_EQ(qnv::h264ConvertGeneric(generic.data(), size, 0xFFFFFFFEu), expected);
        ASSERT_EQ(generic, model);
    }
}

TEST(H264Framing, MarkerToSizeExamples) {
    Bytes one = {0, 0, 0, 1, 0x65, 0xAA, 0xBB, 0xCC, 0xDD};
    EXPECT_EQ(qnvUtilh264MarkerToSize(one.data(), 9), 9u);
    EXPECT_EQ(one, (Bytes{0, 0, 0, 5, 0x65, 0xAA, 0xBB, 0xCC, 0xDD}));

    Bytes two = {0, 0, 1, 0x67, 0x11, 0x22, 0x33, 0, 0, 1, 0x68, 0x44, 0x55, 0x66, 0xEE, 0xEE};
    EXPECT_EQ(qnvUtilh264MarkerToSize(two.data(), 14), 16u);
    EXPECT_EQ(two, (Bytes{0, 0, 0, 4, 0x67, 0x11, 0x22, 0x33, 0, 0, 0, 4, 0x68, 0x44, 0x55, 0x66}));

    // No start code: the first four bytes become size - 4.
    Bytes none = {9, 9, 9, 9, 0x41, 0x42};
    EXPECT_EQ(qnvUtilh264MarkerToSize(none.data(), 6), 6u);
    EXPECT_EQ(none, (Bytes{0, 0, 0, 2, 0x41, 0x42}));

    // A 00 00 01 in the last three bytes adds one without moving anything;
    // the last unit's length stops before it.
    Bytes tail = {0, 0, 0, 1, 0x65, 0, 0, 1, 0x77};
    EXPECT_EQ(qnvUtilh264MarkerToSize(tail.data(), 8), 9u);
    EXPECT_EQ(tail, (Bytes{0, 0, 0, 4, 0x65, 0, 0, 1, 0x77}));

    // Frames shorter than a slot: only 00 00 01 converts (into its spare byte).
    Bytes tiny = {0, 0, 1, 0x77};
    EXPECT_EQ(qnvUtilh264MarkerToSizeChecked(tiny.data(), 3, 3), 0xFFFFFFFFu);
    EXPECT_EQ(qnvUtilh264MarkerToSize(tiny.data(), 3), 4u);
    EXPECT_EQ(tiny, (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    Bytes shortFrame = {0, 0};
    EXPECT_EQ(qnvUtilh264MarkerToSize(shortFrame.data(), 2), 2u);
    EXPECT_EQ(shortFrame, (Bytes{0, 0}));
    EXPECT_EQ(qnvUtilh264MarkerToSize(nullptr, 5), 0u);
}

TEST(H264Framing, SizeToMarker) {
    Bytes annexB = {0, 0, 0, 1, 0x67, 0, 0, 0, 9};
    EXPECT_EQ(qnvUtilh264SizeToMarker(annexB.data(), 9), 9u);
    EXPECT_EQ(annexB, (Bytes{0, 0, 0, 1, 0x67, 0, 0, 0, 9}));

    Bytes zeroEnds = {0, 0, 0, 2, 0xAA, 0xBB, 0, 0, 0, 0};
    EXPECT_EQ(qnvUtilh264SizeToMarker(zeroEnds.data(), 10), 6u);
    EXPECT_EQ(zeroEnds, (Bytes{0, 0, 0, 1, 0xAA, 0xBB, 0, 0, 0, 0}));

    // A length running past the end stops the conversion; the rest stays.
    Bytes overrun = {0, 0, 0, 1 + 1, 0xAA, 0xBB, 0, 0, 0, 9, 0xCC};
    EXPECT_EQ(qnvUtilh264SizeToMarker(overrun.data(), 11), 11u);
    EXPECT_EQ(overrun, (Bytes{0, 0, 0, 1, 0xAA, 0xBB, 0, 0, 0, 9, 0xCC}));

    // Fewer than four bytes after the last unit: zeros end the frame there,
    // anything else is left and the whole size kept.
    Bytes trailing = {0, 0, 0, 2, 0xAA, 0xBB, 0, 0};
    EXPECT_EQ(qnvUtilh264SizeToMarker(trailing.data(), 8), 6u);
    Bytes trailing2 = {0, 0, 0, 2, 0xAA, 0xBB, 0, 7};
    EXPECT_EQ(qnvUtilh264SizeToMarker(trailing2.data(), 8), 8u);

    // Round trip of units of two bytes and more.
    std::mt19937 rng(5);
    for (int round = 0; round < 2000; ++round) {
        Bytes f;
        int units = 1 + rng() % 5;
        for (int u = 0; u < units; ++u) {
            f.insert(f.end(), {0, 0, 0, 1});
            int n = 2 + rng() % 9;
            for (int i = 0; i < n; ++i) f.push_back(static_cast<uint8_t>(0x80 | rng()));
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
    const uint8_t* found = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(qnvUtilFindSpecificNAL(lp.data(), 18, 0, 0x06, &found, &size), 1);
    EXPECT_EQ(found, lp.data() + 6);
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(qnvUtilFindSpecificNAL(lp.data(), 18, 0, 0x65, &found, &size), 1);
    EXPECT_EQ(found, lp.data() + 13);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(qnvUtilFindSpecificNAL(lp.data(), 18, 0, 0x68, &found, &size), 0);
    EXPECT_EQ(found, nullptr);

    // A length past the end reports the unit up to the end of the buffer.
    const Bytes overrun = {0, 0, 0, 2, 9, 0x10, 0xFF, 0xFF, 0xFF, 0xFC, 6, 1};
    EXPECT_EQ(qnvUtilFindSpecificNAL(overrun.data(), 12, 0, 0x06, &found, &size), 1);
    EXPECT_EQ(found, overrun.data() + 6);
    EXPECT_EQ(size, 6u);

    // Annex B: the scan stops at the first zero among three bytes and takes
    // the header four bytes later, so the PPS at 11 is missed and byte 13
    // (inside it) is taken for a header; the last unit is measured to where
    // the walk stopped (size - 4).
    const Bytes ab = {0, 0, 0, 1, 0x67, 0x42, 0x11, 0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80, 0x22};
    EXPECT_EQ(qnvUtilFindSpecificNAL(ab.data(), 16, 1, 0x67, &found, &size), 1);
    EXPECT_EQ(found, ab.data());
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(qnvUtilFindSpecificNAL(ab.data(), 16, 1, 0x68, &found, &size), 0);
    EXPECT_EQ(qnvUtilFindSpecificNAL(ab.data(), 16, 1, 0x38, &found, &size), 1);
    EXPECT_EQ(found, ab.data() + 9);
    EXPECT_EQ(size, 4u);

    // Too short or null: the outputs are not written.
    found = lp.data();
    size = 99;
    EXPECT_EQ(qnvUtilFindSpecificNAL(lp.data(), 3, 0, 0x06, &found, &size), 0);
    EXPECT_EQ(qnvUtilFindSpecificNAL(nullptr, 18, 0, 0x06, &found, &size), 0);
    EXPECT_EQ(found, lp.data());
    EXPECT_EQ(size, 99u);
}
