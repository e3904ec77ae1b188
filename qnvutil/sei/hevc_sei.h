// Building one HEVC prefix SEI message as a NAL unit with its start code.
#ifndef QNVUTIL_QNVUTIL_SEI_HEVC_SEI_H
#define QNVUTIL_QNVUTIL_SEI_HEVC_SEI_H

#include <cstdint>
#include <initializer_list>

#include "foundation/bitio/bitio.h"

namespace qnv {

// Index of the payloadSize byte in the scratch RBSP.
inline constexpr uint32_t kSeiPayloadSizeIndex = 7;

// Starts the RBSP in `scratch`: four placeholder bytes for the start code,
// the PREFIX_SEI_NUT header (layer 0, temporal id 0), payloadType and a
// payloadSize byte that closeHevcSei fills in.
inline void beginHevcSei(BitBuffer* scratch, uint8_t payloadType) {
    for (uint8_t b : {uint8_t(0x00), uint8_t(0x00), uint8_t(0x00), uint8_t(0x01), uint8_t(0x4E), uint8_t(0x01),
                      payloadType, uint8_t(0x00)})
        WriteBits(scratch, 8, b);
}

// Closes the payload and writes the NAL unit, 00 00 00 01 first, to
// out[0, outSize); returns its length (beyond outSize when it did not fit).
inline uint32_t closeHevcSei(BitBuffer* scratch, uint8_t* out, uint32_t outSize) {
    BitBuffer o = bitWriter(out, outSize);
    EmitNalUnit(scratch, &o, kSeiPayloadSizeIndex, 0);
    return o.bitPos / 8;
}

}  // namespace qnv

#endif
