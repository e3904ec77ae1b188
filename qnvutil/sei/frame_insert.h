// Growing a DFrame in place, shared by the SEI insertions.
#ifndef QNVUTIL_QNVUTIL_SEI_FRAME_INSERT_H
#define QNVUTIL_QNVUTIL_SEI_FRAME_INSERT_H

#include <cstdint>
#include <cstring>

#include "qnvutil/dframe.h"

namespace qnv {

// True when `extra` more bytes than frameSize still fit in frameCapacity.
inline bool frameHasRoom(const DFrame& frame, uint64_t extra) {
    return frame.frameData != nullptr && uint64_t(frame.frameSize) + extra <= frame.frameCapacity;
}

// Moves frameData[pos, frameSize) up by `shift` and copies `block` (`length`
// bytes) to pos; frameSize is not changed. The caller has checked that
// pos <= frameSize and that frameSize + shift and pos + length fit in
// frameCapacity.
inline void insertAt(DFrame& frame, uint32_t pos, uint32_t shift, const uint8_t* block, uint32_t length) {
    std::memmove(frame.frameData + pos + shift, frame.frameData + pos, frame.frameSize - pos);
    std::memcpy(frame.frameData + pos, block, length);
}

// Replaces frameData[pos, pos + removed) with `block` (`length` bytes),
// moving the tail behind it; frameSize is not changed. The caller has checked
// that pos + removed <= frameSize and that the frame's new size fits in
// frameCapacity.
inline void replaceAt(DFrame& frame, uint32_t pos, uint32_t removed, const uint8_t* block, uint32_t length) {
    std::memmove(frame.frameData + pos + length, frame.frameData + pos + removed, frame.frameSize - pos - removed);
    std::memcpy(frame.frameData + pos, block, length);
}

}  // namespace qnv

#endif
