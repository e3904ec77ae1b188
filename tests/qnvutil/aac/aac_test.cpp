// AudioSpecificConfig and ADTS headers: round trips, bit counts, the CRC
// condition, masking and truncated input.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "qnvutil/aac.h"

namespace {

// A reader over `bytes` (kept alive by the caller) with the spare byte that
// readers may touch.
BitBuffer reader(std::vector<uint8_t>& bytes) {
    uint32_t size = static_cast<uint32_t>(bytes.size());
    bytes.push_back(0);
    return BitBuffer{bytes.data(), 0, size * 8, 0};
}

AACConfig readAAC(std::vector<uint8_t> bytes, uint32_t* bits = nullptr) {
    BitBuffer bb = reader(bytes);
    AACConfig c;
    std::memset(&c, 0xEE, sizeof c);
    EXPECT_EQ(qnvutilReadAAC(&bb, &c), 0u);
    if (bits != nullptr) *bits = bb.bitPos;
    return c;
}

std::vector<uint8_t> writeAAC(const AACConfig& c, uint32_t* bits) {
    std::vector<uint8_t> out(8, 0xFF);  // writers overwrite whatever is there
    BitBuffer bb{out.data(), static_cast<uint32_t>(out.size()), 64, 0};
    EXPECT_EQ(qnvutilWriteAAC(&bb, &c), 0u);
    *bits = bb.bitPos;
    out.resize((bb.bitPos + 7) / 8);
    return out;
}

}  // namespace

TEST(AudioSpecificConfig, RoundTripsAndFrequencies) {
    uint32_t bits = 0;
    AACConfig c = readAAC({0x12, 0x10}, &bits);
    const AACConfig lc44100 = {2, 4, 44100, 2, 0, 0, 0};
    EXPECT_EQ(std::memcmp(&c, &lc44100, sizeof c), 0);
    EXPECT_EQ(bits, 16u);
    c.samplingFrequency = 12345;  // not written for a table index
    EXPECT_EQ(writeAAC(c, &bits), (std::vector<uint8_t>{0x12, 0x10}));
    EXPECT_EQ(bits, 16u);

    // The reserved indexes 13 and 14: frequency 0, no extra bits.
    for (std::vector<uint8_t> reserved : {std::vector<uint8_t>{0x16, 0x88}, std::vector<uint8_t>{0x17, 0x08}}) {
        c = readAAC(reserved, &bits);
        EXPECT_EQ(c.samplingFrequency, 0u);
        EXPECT_EQ(bits, 16u);
    }
    // Index 15: 24 explicit bits, a five-byte config; written back unchanged.
    std::vector<uint8_t> explicitRate = {0x17, 0x80, 0x5D, 0xC0, 0x10};  // AOT 2, 48000 Hz, 2 channels
    c = readAAC(explicitRate, &bits);
    const AACConfig explicit48000 = {2, 15, 48000, 2, 0, 0, 0};
    EXPECT_EQ(std::memcmp(&c, &explicit48000, sizeof c), 0);
    EXPECT_EQ(bits, 40u);
    EXPECT_EQ(writeAAC(c, &bits), explicitRate);
    EXPECT_EQ(bits, 40u);
}

TEST(AudioSpecificConfig, ReadsNoFieldsBeyondTheFlags) {
    // Object type 31 (escape) stays 31, dependsOnCoreCoder set: still 16 bits,
    // no extension type, no coreCoderDelay.
    uint32_t bits = 0;
    AACConfig c = readAAC({0xF9, 0x0E, 0xFF, 0xFF}, &bits);
    EXPECT_EQ(bits, 16u);
    EXPECT_EQ(c.audioObjectType, 31u);
    EXPECT_EQ(c.channelConfiguration, 1u);
    EXPECT_EQ(c.frameLengthFlag, 1u);
    EXPECT_EQ(c.dependsOnCoreCoder, 1u);
    EXPECT_EQ(c.extensionFlag, 0u);

    // Values are masked to their widths; an index masked to 15 brings its
    // explicit frequency along, so the stream stays readable.
    AACConfig wide{0x22, 0x1F, 0x1234567, 0x13, 2, 3, 4};
    std::vector<uint8_t> out = writeAAC(wide, &bits);
    EXPECT_EQ(bits, 40u);
    AACConfig back = readAAC(out);
    EXPECT_EQ(back.audioObjectType, 2u);
    EXPECT_EQ(back.samplingFrequencyIndex, 15u);
    EXPECT_EQ(back.samplingFrequency, 0x234567u);
    EXPECT_EQ(back.channelConfiguration, 3u);
    EXPECT_EQ(back.frameLengthFlag + back.dependsOnCoreCoder + back.extensionFlag, 1u);
}

TEST(AudioSpecificConfig, TruncatedInputReadsOnesWithoutTouchingMore) {
    // A read limit inside the index field, and no spare byte: sizeBytes keeps
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

namespace {

ADTSHeader sampleHeader(uint32_t protectionAbsent) {
    return ADTSHeader{0xFFF, 0, 0, protectionAbsent, 1, 4, 0, 2, 0, 0, 0, 0, 371, 0x7FF, 0, 0xBEEF};
}

}  // namespace

TEST(AdtsHeader, CrcWordFollowsWhenProtectionIsAbsent) {
    for (uint32_t absent : {1u, 0u}) {
        SCOPED_TRACE(absent);
        std::vector<uint8_t> out(12, 0xA5);
        BitBuffer w{out.data(), static_cast<uint32_t>(out.size()), 96, 0};
        ADTSHeader h = sampleHeader(absent);
        qnvutilWriteADTS(&w, &h);
        EXPECT_EQ(w.bitPos, absent ? 72u : 56u);
        EXPECT_EQ(out[w.bitPos / 8], 0xA5) << "nothing written after the header";

        BitBuffer r{out.data(), static_cast<uint32_t>(out.size()), 96, 0};
        ADTSHeader back;
        std::memset(&back, 0, sizeof back);
        back.crc_check = 0x1234;
        qnvutilReadADTS(&r, &back);
        EXPECT_EQ(r.bitPos, w.bitPos);
        if (absent == 0) h.crc_check = 0x1234;  // left as it was
        EXPECT_EQ(std::memcmp(&back, &h, sizeof h), 0);
    }
    // The familiar 7-byte header of a 44.1 kHz stereo frame of 371 bytes.
    std::vector<uint8_t> out(9);
    BitBuffer w{out.data(), 9, 72, 0};
    ADTSHeader h = sampleHeader(1);
    qnvutilWriteADTS(&w, &h);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xF1, 0x50, 0x80, 0x2E, 0x7F, 0xFC, 0xBE, 0xEF}));
}

TEST(AdtsHeader, SyncWordIsCopiedNotCheckedAndValuesAreMasked) {
    ADTSHeader h = {0x123, 3, 7, 1, 6, 0x1F, 3, 9, 2, 3, 4, 5, 0x2001, 0x801, 7, 0x10001};
    std::vector<uint8_t> out(10, 0);
    BitBuffer w{out.data(), 10, 80, 0};
    qnvutilWriteADTS(&w, &h);
    BitBuffer r{out.data(), 10, 80, 0};
    ADTSHeader back;
    qnvutilReadADTS(&r, &back);
    const ADTSHeader masked = {0x123, 1, 3, 1, 2, 0xF, 1, 1, 0, 1, 0, 1, 1, 1, 3, 1};
    EXPECT_EQ(std::memcmp(&back, &masked, sizeof back), 0);

    // protection_absent 2 is written as bit 0: no CRC word, as the reader
    // will expect.
    h.protection_absent = 2;
    w.bitPos = 0;
    qnvutilWriteADTS(&w, &h);
    EXPECT_EQ(w.bitPos, 56u);
}
