// CQNVTransTC and CQNVTransTC2: the transport's frame counter.
#include <cstddef>

#include "qnvutil/timecode.h"
#include "timecode/fixedpoint.h"

using qnv::kSpeedUnit;
using qnv::wrapAdd;
using qnv::wrapSub;

namespace {

// A step of exactly one frame forward or back puts the position at the start
// of its frame; every other speed at its middle.
bool IsPlaySpeed(const CQNVSpeed& s) { return s.Get() == kSpeedUnit || s.Get() == -kSpeedUnit; }

}  // namespace

// ---- CQNVTransTC ------------------------------------------------------------

CQNVTransTC::CQNVTransTC()
    : in(0), out(0), dur(0), pos(), speed(0), playCountStale(true), index(0), lastPlayCount(1) {
    // The field order is the record's layout.
    static_assert(offsetof(CQNVTransTC, dur) == 8 && offsetof(CQNVTransTC, pos) == 12 &&
                  offsetof(CQNVTransTC, speed) == 20 && offsetof(CQNVTransTC, playCountStale) == 24 &&
                  offsetof(CQNVTransTC, index) == 28 && sizeof(CQNVTransTC) == 36 &&
                  sizeof(CQNVTransTC2) == 36);
}

void CQNVTransTC::SetRange(int32_t a, int32_t b) {
    if (b == -1 || a < b) {
        in = a;
        out = b;
    } else {
        in = b;
        out = a;
    }
    dur = uint32_t(out) - uint32_t(in);
}

void CQNVTransTC::SetTC(int32_t t) {
    pos.Set(t, 0);
    index = 0;
    Modulo();
    playCountStale = true;
}

void CQNVTransTC::SetTC(const CQNVPos& p) {
    pos.Set(p.whole, p.fraction);
    playCountStale = true;
    Modulo();
    index = 0;
}

void CQNVTransTC::SetSpeed(const CQNVSpeed& s) {
    speed = s;
    playCountStale = true;
    pos.fraction = IsPlaySpeed(s) ? 0 : kSpeedUnit / 2;
}

int32_t CQNVTransTC::operator=(int32_t t) {
    SetTC(t);
    return pos.whole;
}

CQNVPos& CQNVTransTC::operator=(const CQNVPos& p) {
    SetTC(p);
    return pos;
}

CQNVSpeed& CQNVTransTC::operator=(const CQNVSpeed& s) {
    speed = s;
    return speed;
}

CQNVTransTC& CQNVTransTC::operator=(const CQNVTransTC& other) {
    if (this == &other) return *this;
    in = other.in;
    out = other.out;
    dur = uint32_t(out) - uint32_t(in);
    speed = other.speed;
    pos = other.pos;
    index = other.index;
    lastPlayCount = other.lastPlayCount;
    playCountStale = other.playCountStale;
    return *this;
}

int32_t CQNVTransTC::PlayCount() {
    if (!playCountStale) return lastPlayCount;
    const int32_t s = speed.Get();
    const int32_t magnitude = speed.Abs();
    // -2^31 keeps its sign under Abs(); its quotient below is 0 all the same.
    if (s == 0 || magnitude >= kSpeedUnit) return 1;
    const int32_t remaining = s < 0 ? pos.frac() : pos.fracbar();
    const int32_t quotient = remaining / magnitude;
    const int32_t count = (quotient < 0 ? -quotient : quotient) + 1;
    lastPlayCount = count;
    playCountStale = false;
    return count;
}

void CQNVTransTC::Modulo() {
    if (dur == 0) return;
    int32_t p = pos.whole;
    // Small negative positions wrap from the end; further ones wrap through
    // the unsigned remainder below.
    if (p > -100 && p < 0) p = wrapAdd(p, static_cast<int32_t>(dur));
    const uint32_t offset = (uint32_t(p) - uint32_t(in)) % dur;
    pos.Set(static_cast<int32_t>(uint32_t(in) + offset), pos.fraction);
    playCountStale = true;
}

namespace {

// Moves `pos` by `steps` (1/65520 frame) forward or back: the steps are split
// into whole frames and a non-negative fraction, and the sum normalised.
void MovePos(CQNVPos& pos, int32_t steps, bool forward) {
    CQNVPos delta(CQNVSpeed{steps});
    if (forward) {
        pos.Set(wrapAdd(pos.floor(), delta.floor()), pos.frac() + delta.frac());
    } else {
        pos.Set(wrapSub(pos.floor(), delta.floor()), pos.frac() - delta.frac());
    }
}

}  // namespace

int32_t& CQNVTransTC::operator++() {
    *this += 1;
    return pos.whole;
}

int32_t& CQNVTransTC::operator--() {
    *this -= 1;
    return pos.whole;
}

int32_t CQNVTransTC::operator+=(int32_t n) {
    const int32_t count = PlayCount();
    MovePos(pos, qnv::wrapMul(qnv::wrapMul(count, speed.Get()), n), true);
    if (dur != 0) Modulo();
    // One per call, however far the call moved.
    index = wrapAdd(index, 1);
    playCountStale = true;
    return pos.whole;
}

int32_t CQNVTransTC::operator-=(int32_t n) {
    const int32_t count = PlayCount();
    MovePos(pos, qnv::wrapMul(qnv::wrapMul(count, speed.Get()), n), false);
    if (dur != 0) Modulo();
    index = wrapSub(index, 1);
    playCountStale = true;
    return pos.whole;
}

int32_t CQNVTransTC::GetTC() const { return pos.whole; }

int32_t CQNVTransTC::GetTC(int16_t& repeat) {
    repeat = static_cast<int16_t>(PlayCount());
    return pos.whole;
}

int32_t CQNVTransTC::GetTC(uint16_t& repeat) {
    repeat = static_cast<uint16_t>(PlayCount());
    return pos.whole;
}

int32_t CQNVTransTC::GetTC(int32_t& repeat) {
    repeat = PlayCount();
    return pos.whole;
}

int32_t CQNVTransTC::GetTC(uint32_t& repeat) {
    repeat = static_cast<uint32_t>(PlayCount());
    return pos.whole;
}

void CQNVTransTC::GetCPos(CQNVPos& result) const { result = pos; }
void CQNVTransTC::GetCSpeed(CQNVSpeed& result) const { result = speed; }
int32_t CQNVTransTC::GetLSpeed() const { return speed.Get(); }
int32_t CQNVTransTC::GetIn() const { return in; }
int32_t CQNVTransTC::GetOut() const { return out; }
uint32_t CQNVTransTC::GetDur() const { return uint32_t(out) - uint32_t(in); }
int32_t CQNVTransTC::GetIndex() const { return index; }

// ---- CQNVTransTC2 -----------------------------------------------------------

CQNVTransTC2::CQNVTransTC2() = default;

CQNVTransTC2& CQNVTransTC2::operator=(const CQNVTransTC2& other) {
    CQNVTransTC::operator=(other);
    return *this;
}

CQNVPos& CQNVTransTC2::operator=(const CQNVPos& p) { return CQNVTransTC::operator=(p); }
CQNVSpeed& CQNVTransTC2::operator=(const CQNVSpeed& s) { return CQNVTransTC::operator=(s); }

uint32_t CQNVTransTC2::In() const { return uint32_t(in); }
uint32_t CQNVTransTC2::Out() const { return uint32_t(out); }
uint32_t CQNVTransTC2::GetClipTC() const { return uint32_t(pos.floor()) - uint32_t(in); }
void CQNVTransTC2::SetClipTC(int32_t c) { SetTC(wrapAdd(in, c)); }

void CQNVTransTC2::SetClipTCLimit(int32_t c) {
    const int32_t t = wrapAdd(in, c);
    SetTC(t < out ? t : wrapSub(out, 1));
}

void CQNVTransTC2::SetTCLimit(int32_t t) {
    if (t < in) {
        t = in;
    } else if (t >= out) {
        t = wrapSub(out, 1);
    }
    pos.Set(t, 0);
}

void CQNVTransTC2::SetSpeed(const CQNVSpeed& s) { CQNVTransTC::SetSpeed(s); }

void CQNVTransTC2::SetSpeedZero(const CQNVSpeed& s) {
    speed = s;
    playCountStale = true;
    if (IsPlaySpeed(s)) pos.Set(pos.floor(), 0);
}

uint32_t CQNVTransTC2::GetIndex() const { return uint32_t(index); }
int32_t CQNVTransTC2::GetLastPlayCount() const { return lastPlayCount; }
uint32_t CQNVTransTC2::GetRepeat() { return static_cast<uint32_t>(PlayCount()); }
