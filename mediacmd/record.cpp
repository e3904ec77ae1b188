// Record initialisation, merging and defaults; channel masks; speeds; fourccs.
#include "mediacmd/record.h"

#include <algorithm>
#include <cmath>
#include <mutex>

namespace {

constexpr uint32_t kAllChannels = 0xFFFFFFFFu;
// Bits that copyMediaCmd leaves set only where the source has them.
constexpr uint32_t kSourceOnlyBits = cfDeferred | cfOverrideDeferred | cfTimeMs | cfTimeTarget | cfTimeHouseClock |
                                     cfUseAllIDs | cfCopy | cfConvert | cfLoop | cfRipple | cfInvert | cfTest |
                                     cfNoReturn;
constexpr uint32_t kCmdAltBits = cfUseCmdAlt | cfTimeMs | cfTimeTarget | cfTimeHouseClock;

bool isPlayLike(int32_t cmd) { return cmd == ctPlay || cmd == ctRecord; }

// ctStop, ctPause, ctRecStop, ctEject, ctTerminate, ctAbort.
bool isStopLike(int32_t cmd) {
    uint32_t c = static_cast<uint32_t>(cmd);
    return c < 20 && ((0xC0033u >> c) & 1u) != 0;
}

void setAllChannels(MediaCmd* cmd) {
    cmd->VideoChannels = kAllChannels;
    cmd->AudioChannels = kAllChannels;
    cmd->InfoChannels = kAllChannels;
}

// The speed a command implies when none is given; false when it implies none.
bool impliedSpeed(int32_t cmd, int32_t* speed) {
    if (isPlayLike(cmd)) {
        *speed = MEDIACMD_NORMAL_SPEED;
        return true;
    }
    if (isStopLike(cmd)) {
        *speed = 0;
        return true;
    }
    return false;
}

// strncpy between two records, limited to the bytes both have.
void copyText(MediaCmd* dst, const MediaCmd* src, uint32_t offset, uint64_t count) {
    qnv::RecordView from(src, src->StructSize), to(dst, dst->StructSize);
    // guard: neither record is read or written past its StructSize.
    count = std::min({count, from.room(offset), to.room(offset)});
    if (count == 0) return;
    const char* s = reinterpret_cast<const char*>(src) + offset;
    char* d = reinterpret_cast<char*>(dst) + offset;
    size_t n = ::strnlen(s, count);
    std::memmove(d, s, n);
    std::memset(d + n, 0, count - n);
}

struct SpeedRepsState {
    std::mutex lock;
    int32_t lastSpeed = MEDIACMD_NORMAL_SPEED;
    double rate = 0.0;
    double fraction = 0.0;
    double accumulator = 0.0;
};
SpeedRepsState g_reps;

double fractionOf(double v) { return v - std::trunc(v); }

// Moves the ASCII letters from..from+25 of each byte to to..to+25; bytes
// outside (non-ASCII ones included) stay as they are.
uint32_t mapFourcc(uint32_t fourcc, uint32_t from, uint32_t to) {
    uint32_t out = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        uint32_t b = fourcc >> shift & 0xFF;
        if (b >= from && b < from + 26) b = b - from + to;
        out |= b << shift;
    }
    return out;
}

}  // namespace

namespace qnv {
void resetSpeedReps() {
    std::lock_guard hold(g_reps.lock);
    g_reps.lastSpeed = MEDIACMD_NORMAL_SPEED;
    g_reps.rate = g_reps.fraction = g_reps.accumulator = 0.0;
}
}  // namespace qnv

extern "C" {

void initMediaCmd(MediaCmd* cmd, uint32_t command) {
    if (cmd == nullptr) return;
    std::memset(cmd, 0, sizeof *cmd);
    cmd->CmdID = MEDIACMD_ID;
    cmd->StructSize = MEDIACMD_SIZE;
    cmd->Channel = 0xFFFFFFFFu;
    cmd->Cmd = static_cast<int32_t>(command);
    cmd->Speed = MEDIACMD_NO_SPEED;
    setAllChannels(cmd);
    cmd->CmdAlt = cmd->Position = cmd->Start = cmd->End = -1;
}

void copyMediaCmd(MediaCmd* dst, const MediaCmd* src, uint32_t flagMask) {
    if (dst == nullptr || src == nullptr) return;
    const uint32_t from = src->Flags;
    dst->CmdID = MEDIACMD_ID;
    dst->Channel = src->Channel;
    dst->Cmd = src->Cmd;
    dst->Flags |= flagMask & from;
    dst->Flags &= ~(kSourceOnlyBits & ~from);
    if ((from & cfUsePresets) == 0) setAllChannels(dst);

    int32_t speed;
    if (from & cfUseSpeed) {
        dst->Speed = src->Speed;
        dst->Flags |= cfUseSpeed;
    } else if (impliedSpeed(src->Cmd, &speed)) {
        dst->Speed = speed;
        dst->Flags |= cfUseSpeed;
    } else {
        dst->Speed = MEDIACMD_NO_SPEED;
    }

    if (from & cfUsePresets) {
        dst->Flags |= cfUsePresets;
        dst->VideoChannels = src->VideoChannels;
        dst->AudioChannels = src->AudioChannels;
        dst->InfoChannels = src->InfoChannels;
    }
    if ((from & kCmdAltBits) != 0 || qnv::isValueCommand(src->Cmd)) {
        dst->CmdAlt = src->CmdAlt;
        dst->Flags |= from & kCmdAltBits;
    }
    dst->Position = src->Position;
    dst->Flags |= from & (cfUsePosition | cfUsePositionOffset);
    dst->Start = src->Start;
    dst->Flags = (dst->Flags & ~(cfUseStart | cfUseStartOffset)) | (from & (cfUseStart | cfUseStartOffset));
    dst->End = src->End;
    dst->Flags = (dst->Flags & ~(cfUseEnd | cfUseEndOffset)) | (from & (cfUseEnd | cfUseEndOffset));

    if (from & cfUseClipID) {
        copyText(dst, src, MEDIACMD_DATA_OFFSET, 8);
        if (src->StructSize >= 86 && dst->StructSize >= 86) {
            uint32_t n = std::min({src->StructSize - 85, dst->StructSize - 85, 4099u});
            copyText(dst, src, MEDIACMD_FILENAME_OFFSET, n);
        }
    }
}

uint32_t fixMediaCmd(MediaCmd* cmd, uint32_t flagMask) {
    if (cmd == nullptr) return 0;
    uint32_t m = cmd->Flags & (flagMask != 0 ? flagMask : 0xFFFFFFFFu);
    if ((m & cfUsePresets) == 0) setAllChannels(cmd);
    int32_t speed;
    if ((m & cfUseSpeed) == 0 && impliedSpeed(cmd->Cmd, &speed)) {
        cmd->Speed = speed;
        cmd->Flags |= cfUseSpeed;
    }
    return cmd->Flags;
}

uint32_t findChannel(uint32_t mask, uint32_t* rest, uint32_t index) {
    uint32_t seen = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        if ((mask >> bit & 1u) == 0) continue;
        if (seen++ == index) {
            if (rest != nullptr) *rest = mask & ~(1u << bit);
            return bit;
        }
    }
    if (rest != nullptr) *rest = mask;
    return 0xFFFFFFFFu;
}

uint32_t isolateChannel(uint32_t mask, uint32_t index) {
    uint32_t bit = findChannel(mask, nullptr, index);
    return bit == 0xFFFFFFFFu ? 0 : 1u << bit;
}

uint32_t totalChannels(uint32_t mask) {
    uint32_t n = 0;
    for (; mask != 0; mask &= mask - 1) ++n;
    return n;
}

uint32_t speedRate(int32_t speed) {
    double r = std::fabs(static_cast<double>(speed)) / 65520.0;
    double whole = std::trunc(r);
    auto fraction = static_cast<uint32_t>((r - whole) * 65536.0);
    return static_cast<uint32_t>(whole) << 16 | (fraction & 0xFFFFu);
}

uint32_t speedReps(uint32_t* frame, int32_t speed) {
    if (speed == 0) return 0;
    std::lock_guard hold(g_reps.lock);
    SpeedRepsState& s = g_reps;
    if (speed != MEDIACMD_NO_SPEED && speed != s.lastSpeed) {
        s.lastSpeed = speed;
        s.accumulator = 0.0;
        // Rates are taken against half the normal speed.
        s.rate = std::fabs(static_cast<double>(speed)) / 32760.0;
        s.fraction = fractionOf(s.rate);
    }
    if (s.lastSpeed >= MEDIACMD_NORMAL_SPEED) {
        // Normal speed or faster: skip frames, one more whenever the
        // fractions add up past a whole frame.
        if (frame != nullptr) *frame += static_cast<uint32_t>(s.rate);
        s.accumulator += s.fraction;
        if (s.accumulator > 1.0) {
            if (frame != nullptr) ++*frame;
            s.accumulator = fractionOf(s.accumulator);
        }
        return 1;
    }
    // Slower or reverse: one frame on, repeated 1 / rate times.
    if (frame != nullptr) ++*frame;
    double q = 1.0 / s.rate;
    s.fraction = q;
    s.accumulator += fractionOf(q);
    auto reps = static_cast<uint32_t>(q);
    if (s.accumulator > 1.0) {
        s.accumulator = fractionOf(s.accumulator);
        return reps + 1;
    }
    return reps;
}

uint32_t fourccToLower(uint32_t fourcc) { return mapFourcc(fourcc, 'A', 'a'); }

uint32_t fourccToUpper(uint32_t fourcc) { return mapFourcc(fourcc, 'a', 'A'); }

}  // extern "C"
