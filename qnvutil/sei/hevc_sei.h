// Building one HEVC prefix SEI message as a NAL unit with its start code.
#ifndef QNVUTIL_QNVUTIL_SEI_HEVC_SEI_H
#define QNVUTIL_QNVUTIL_SEI_HEVC_SEI_H

#include <cstdint>
#include <initializer_list>

#include "foundation/bitio/bitio.h"

namespace qnv {

// Index of the payloadSize byte in the scratch RBSP.
inline constexpr uint32_t kSeiPayloadSizeIndex = 7;

// Starts an RBSP written as bytes: four placeholder bytes for the start
// code, the PREFIX_SEI_NUT header (layer 0, temporal id 0), payloadType and
// a payloadSize byte that closeHevcSei fills in, at rbsp[0, 8); returns 8.
inline uint32_t beginHevcSei(uint8_t* rbsp, uint8_t payloadType) {
    const uint8_t start[8] = {0x00, 0x00, 0x00, 0x01, 0x4E, 0x01, payloadType, 0x00};
    for (uint32_t i = 0; i < 8; ++i) rbsp[i] = start[i];
    return 8;
}

// The same eight bytes written to `scratch` at its position.
inline void beginHevcSei(BitBuffer* scratch, uint8_t payloadType) {
    const uint32_t at = scratch->bitPos / 8;
    if (scratch->bitPos % 8 == 0 && scratch->sizeBytes >= 8 && at <= scratch->sizeBytes - 8) {
        scratch->bitPos += 8 * beginHevcSei(scratch->data + at, payloadType);
        return;
    }
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
