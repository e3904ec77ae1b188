// WriteBit: single bits, most significant first, the same as WriteBits; the
// other bits of a byte stay; nothing is written past the buffer.
#include <gtest/gtest.h>

#include <vector>

#include "qnvutil/bitbuffer.h"

TEST(BitWriter, WriteBitMatchesWriteBitsAndStaysInTheBuffer) {
    const uint32_t value = 0x2D9;  // 10 bits: 1011011001
    std::vector<uint8_t> one(3, 0x0F), many(3, 0x0F);
    BitBuffer a{one.data(), 2, 0, 3}, b{many.data(), 2, 0, 3};
    for (int i = 9; i >= 0; --i) EXPECT_EQ(WriteBit(&a, static_cast<uint8_t>(value >> i | 0x10)), &a);
    WriteBits(&b, 10, static_cast<int32_t>(value));
    EXPECT_EQ(one, many);
    EXPECT_EQ(one, (std::vector<uint8_t>{0x16, 0xCF, 0x0F})) << "bits 0-2 and 13-15 kept, only bit 0 of each value used";
    for (int i = 0; i < 8; ++i) WriteBit(&a, 1);  // runs past sizeBytes 2
    EXPECT_EQ(std::pair(one[2], a.bitPos), std::pair(uint8_t(0x0F), 21u));
}
