// Internal helpers around the MediaCmd record.
#ifndef QNV_MEDIACMD_RECORD_H
#define QNV_MEDIACMD_RECORD_H

#include <cstdint>
#include <cstring>
#include <string_view>

#include "qnvutil/mediacmd.h"

namespace qnv {

// Bounded view of a record's bytes: offsets at or past `size` lie outside the
// record and read as 0 (strings there are empty).
class RecordView {
public:
    RecordView(const MediaCmd* cmd, uint32_t size) : base_(reinterpret_cast<const char*>(cmd)), size_(size) {}

    uint32_t size() const { return size_; }
    char at(uint64_t offset) const { return offset < size_ ? base_[offset] : '\0'; }
    // guard: a string runs to its terminator or to the record's end,
    // whichever comes first.
    std::string_view string(uint64_t offset) const {
        if (offset >= size_) return {};
        const char* p = base_ + offset;
        return {p, ::strnlen(p, size_ - offset)};
    }
    // Bytes from `offset` to the record's end (0 outside).
    uint64_t room(uint64_t offset) const { return offset < size_ ? size_ - offset : 0; }

private:
    const char* base_;
    uint64_t size_;
};

// Speed in percent of normal play: Speed * 100 in wrapping 32-bit arithmetic,
// divided by 65520 toward zero.
inline int32_t speedPercent(int32_t speed) {
    return static_cast<int32_t>(static_cast<uint32_t>(speed) * 100u) / MEDIACMD_NORMAL_SPEED;
}

inline bool isValueCommand(int32_t cmd) { return cmd == ctGetValue || cmd == ctSetValue || cmd == ctValueSupported; }

// Returns the speed-state of speedReps to its start (for tests).
void resetSpeedReps();

}  // namespace qnv

#endif
