// AudioSpecificConfig and ADTS headers against literal bytes: bit counts, the
// inverted CRC condition, masking and truncated input.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "qnvutil/aac.h"

using Bytes = std::vector<uint8_t>;

TEST(AudioSpecificConfig, WritesAndReadsLiteralConfigs) {
    const struct {
        AACConfig written;
        Bytes bytes;
        AACConfig read;
    } rows[] = {
        {{2, 4, 12345, 2, 0, 0, 0}, {0x12, 0x10}, {2, 4, 44100, 2, 0, 0, 0}},  // a table frequency is not written
        {{2, 13, 0, 1, 0, 0, 0}, {0x16, 0x88}, {2, 13, 0, 1, 0, 0, 0}},  // reserved indexes: frequency 0
        {{2, 14, 9, 1, 0, 0, 0}, {0x17, 0x08}, {2, 14, 0, 1, 0, 0, 0}},
        {{2, 15, 48000, 2, 0, 0, 0}, {0x17, 0x80, 0x5D, 0xC0, 0x10}, {2, 15, 48000, 2, 0, 0, 0}},  // 24 explicit bits
        // Escape type 31 stays 31, and dependsOnCoreCoder brings no coreCoderDelay.
        {{31, 2, 0, 1, 1, 1, 0}, {0xF9, 0x0E}, {31, 2, 64000, 1, 1, 1, 0}},
        // Values are masked to their widths; an index masked to 15 brings its
        // explicit frequency along, so the stream stays readable.
        {{0x22, 0x1F, 0x1234567, 0x13, 2, 3, 4}, {0x17, 0x91, 0xA2, 0xB3, 0x9A}, {2, 15, 0x234567, 3, 0, 1, 0}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const uint32_t bits = static_cast<uint32_t>(row.bytes.size() * 8);
        Bytes out(8, 0xFF);  // the writer overwrites whatever is there
        BitBuffer w{out.data(), 8, 64, 0};
        EXPECT_EQ(qnvutilWriteAAC(&w, &row.written), 0u);
        EXPECT_EQ(w.bitPos, bits);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + row.bytes.size()), row.bytes);

        Bytes in = row.bytes;
        in.push_back(0);  // the spare byte readers may touch
        BitBuffer r{in.data(), 0, bits, 0};
        AACConfig c;
        std::memset(&c, 0xEE, sizeof c);  // every word must be written
        EXPECT_EQ(qnvutilReadAAC(&r, &c), 0u);
        EXPECT_EQ(r.bitPos, bits);
        EXPECT_EQ(std::memcmp(&c, &row.read, sizeof c), 0);
    }
}

TEST(AudioSpecificConfig, TruncatedInputReadsOnesWithoutTouchingMore) {
    // A read limit inside the index field and no spare byte: sizeBytes keeps
    // the reader inside the byte, the limit makes the missing fields all ones.
    uint8_t one = 0x12;
    BitBuffer bb{&one, 1, 6, 0};
    AACConfig c;
    qnvutilReadAAC(&bb, &c);
    EXPECT_EQ(c.audioObjectType, 2u);
    EXPECT_EQ(c.samplingFrequencyIndex, 0xFFFFFFFFu);
    EXPECT_EQ(c.samplingFrequency, 0u);  // no table entry for a truncated index
    EXPECT_EQ(c.extensionFlag, 0xFFFFFFFFu);
    EXPECT_EQ(bb.bitPos, 16u);
}

TEST(AdtsHeader, RoundTripsWithTheCrcWordWhenProtectionIsAbsent) {
    // A 44.1 kHz stereo frame of 371 bytes, and a header of out-of-range
    // values whose sync word is copied, not checked.
    const ADTSHeader plain = {0xFFF, 0, 0, 1, 1, 4, 0, 2, 0, 0, 0, 0, 371, 0x7FF, 0, 0xBEEF};
    const ADTSHeader wide = {0x123, 3, 7, 1, 6, 0x1F, 3, 9, 2, 3, 4, 5, 0x2001, 0x801, 7, 0x10001};
    const ADTSHeader masked = {0x123, 1, 3, 1, 2, 0xF, 1, 1, 0, 1, 0, 1, 1, 1, 3, 1};
    auto absent = [](ADTSHeader h, uint32_t a, uint32_t crc) { return h.protection_absent = a, h.crc_check = crc, h; };
    const struct {
        ADTSHeader written, read;
        uint32_t bits;
    } rows[] = {
        {plain, plain, 72},
        {absent(plain, 0, 0xBEEF), absent(plain, 0, 0x1234), 56},  // no word: crc_check left as it was
        {wide, masked, 72},
        {absent(wide, 2, 0xBEEF), absent(masked, 0, 0x1234), 56},  // 2 is written as bit 0
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        Bytes out(12, 0xA5);
        BitBuffer w{out.data(), 12, 96, 0};
        qnvutilWriteADTS(&w, &row.written);
        EXPECT_EQ(w.bitPos, row.bits);
        EXPECT_EQ(out[w.bitPos / 8], 0xA5) << "nothing written after the header";
        BitBuffer r{out.data(), 12, 96, 0};
        ADTSHeader back;
        std::memset(&back, 0xEE, sizeof back);
        back.crc_check = 0x1234;
        qnvutilReadADTS(&r, &back);
        EXPECT_EQ(r.bitPos, row.bits);
        EXPECT_EQ(std::memcmp(&back, &row.read, sizeof back), 0);
        if (&row == rows) {
            EXPECT_EQ(Bytes(out.begin(), out.begin() + 9), (Bytes{0xFF, 0xF1, 0x50, 0x80, 0x2E, 0x7F, 0xFC, 0xBE, 0xEF}));
        }
    }
}
