// Internal side of the AAC header functions.
#ifndef QNVUTIL_QNVUTIL_AAC_AAC_INTERNAL_H
#define QNVUTIL_QNVUTIL_AAC_AAC_INTERNAL_H

#include <cstdint>

#include "foundation/syntax/coder.h"
#include "qnvutil/aac.h"

namespace qnv {

// Sampling frequency of a frequency index, as qnvutilReadAAC fills it: the
// standard table for 0..12, 0 for 13, 14 and any index that is not 4 bits
// wide (15 carries an explicit frequency instead).
uint32_t aacFrequencyFromIndex(uint32_t index);

// qnvutilReadADTS with a sink that sees every element (bit positions from
// the header's first bit).
void readAdtsHeader(BitBuffer* bits, ADTSHeader* header, syntax::FieldSink* sink);

}  // namespace qnv

#endif
