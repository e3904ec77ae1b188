// Search for two zero bytes in a row, the first half of every start code:
// the inner loop of every Annex B scan in the library.
#ifndef QNVUTIL_FOUNDATION_ZEROPAIR_H
#define QNVUTIL_FOUNDATION_ZEROPAIR_H

#include <cstdint>

namespace qnv {

constexpr uint32_t kNoZeroPair = 0xFFFFFFFFu;

// First q in [from, last] with data[q] = data[q + 1] = 0, or kNoZeroPair.
// Reads up to data[last + 1]. Uses AVX2 where the processor has it.
uint32_t FindZeroPair(const uint8_t* data, uint32_t from, uint32_t last);
// The same with baseline vector instructions only (what processors without
// AVX2 run; tests call it directly).
uint32_t FindZeroPairBaseline(const uint8_t* data, uint32_t from, uint32_t last);

}  // namespace qnv

#endif
