/*
 * Speed, position and transport timecode values (C++ only).
 *
 * One frame, or normal play speed, is 65520 steps. CQNVSpeed holds a speed in
 * steps (65520 play, -65520 reverse, 0 still, 0x7FFFFFFF undefined);
 * CQNVPos a position as whole frames plus a fraction 0 <= frac < 65520, so
 * -0.5 frame is (-1, 32760). CQNVTransTC is the frame counter of a transport:
 * an in/out range, a position and a speed; each step moves the position by
 * the speed, wraps it into the range and tells how many times the current
 * frame is shown at slow speeds. CQNVTransTC2 adds clip-relative access and
 * clamping setters.
 *
 * All four are plain copyable values. Arithmetic that leaves 32 bits wraps in
 * two's complement.
 */
#ifndef QNVUTIL_TIMECODE_H
#define QNVUTIL_TIMECODE_H

#include <stdint.h>

#include "qnvutil/export.h"

#ifdef __cplusplus

class QNV_EXPORT CQNVSpeed {
public:
    // Normal play (65520).
    CQNVSpeed();
    // Raw value in 1/65520 of normal play.
    explicit CQNVSpeed(int32_t v);
    // 65520 * num / den, see Set.
    CQNVSpeed(int32_t num, int32_t den);
    CQNVSpeed(const CQNVSpeed&) = default;

    void Set(int32_t v);
    // 65520 * num / den rounded to nearest, halves away from zero. A zero
    // denominator, or a result outside 32 bits, gives the undefined speed.
    void Set(int32_t num, int32_t den);
    int32_t Get() const;
    // Whole speeds, truncated toward zero, and the rest with the value's sign.
    int32_t Whole() const;
    int32_t Frac() const;
    int32_t Abs() const;
    double Double();
    // d * 65520 truncated toward zero; NaN or a value outside 32 bits gives
    // the undefined speed.
    CQNVSpeed& operator=(const double& d);
    CQNVSpeed& operator=(const CQNVSpeed& other);
    // Splits off the whole speeds (floored) and returns them; the value keeps
    // the non-negative rest 0..65519.
    int32_t Fractionalize();

protected:
    int32_t value;
};

class CQNVTransTC;

class QNV_EXPORT CQNVPos {
public:
    CQNVPos();
    CQNVPos(int32_t whole, int32_t frac);
    // The speed read as a distance: value / 65520 frames.
    explicit CQNVPos(const CQNVSpeed& s);
    CQNVPos(const CQNVPos&) = default;

    // whole + frac / 65520, brought to 0 <= frac < 65520.
    CQNVPos& Set(int32_t whole, int32_t frac);
    // Replaces the position with s.Get() / 65520 frames.
    CQNVPos& Set(const CQNVSpeed& s);
    // num / den frames, the fraction truncated to 1/65520 toward zero before
    // it is normalised. A zero denominator leaves the position unchanged.
    CQNVPos& SetAsFrac(int32_t num, int32_t den);
    CQNVPos& operator=(const CQNVPos& other);
    CQNVPos& operator=(const CQNVSpeed& s);

    int32_t floor() const;
    int32_t frac() const;
    // 65519 - frac (one less than the rest of the frame).
    int32_t fracbar() const;
    int32_t ceil() const;
    bool IsNeg() const;
    bool IsPlus() const;
    bool IsZero() const;

protected:
    void Normalize();

    int32_t whole;
    int32_t fraction;  // 1/65520 frame; read through frac()

    friend class CQNVTransTC;
};

class QNV_EXPORT CQNVTransTC {
public:
    // Empty range, position (0, 0), speed 0.
    CQNVTransTC();
    CQNVTransTC(const CQNVTransTC&) = default;

    // Orders the pair (b = -1 leaves an open range a..-1).
    void SetRange(int32_t a, int32_t b);
    void SetTC(int32_t t);
    void SetTC(const CQNVPos& p);
    // Also puts the position at the middle of its frame for any speed other
    // than exactly play or reverse, where it goes to the frame's start.
    void SetSpeed(const CQNVSpeed& s);
    int32_t operator=(int32_t t);
    CQNVPos& operator=(const CQNVPos& p);
    // Copies the speed alone, without SetSpeed's effects.
    CQNVSpeed& operator=(const CQNVSpeed& s);
    CQNVTransTC& operator=(const CQNVTransTC& other);

    // Steps: the position moves by (play count x speed), wraps into the
    // range, and the index counts the call. += and -= move n times as far and
    // still count one call.
    int32_t& operator++();
    int32_t& operator--();
    int32_t operator+=(int32_t n);
    int32_t operator-=(int32_t n);

    int32_t GetTC() const;
    // The frame, with repeat = how many steps it is shown at this speed.
    int32_t GetTC(int16_t& repeat);
    int32_t GetTC(uint16_t& repeat);
    int32_t GetTC(int32_t& repeat);
    int32_t GetTC(uint32_t& repeat);
    void GetCPos(CQNVPos& out) const;
    void GetCSpeed(CQNVSpeed& out) const;
    int32_t GetLSpeed() const;
    int32_t GetIn() const;
    int32_t GetOut() const;
    uint32_t GetDur() const;
    int32_t GetIndex() const;

protected:
    void Modulo();
    int32_t PlayCount();

    int32_t in;
    int32_t out;  // exclusive; -1 = open
    uint32_t dur; // out - in; 0 disables wrapping
    CQNVPos pos;
    CQNVSpeed speed;
    bool playCountStale;
    int32_t index;
    int32_t lastPlayCount;
};

class QNV_EXPORT CQNVTransTC2 : public CQNVTransTC {
public:
    CQNVTransTC2();
    CQNVTransTC2(const CQNVTransTC2&) = default;

    // The frame-number assignment (and the rest) of the base stays usable.
    using CQNVTransTC::operator=;
    CQNVTransTC2& operator=(const CQNVTransTC2& other);
    CQNVPos& operator=(const CQNVPos& p);
    CQNVSpeed& operator=(const CQNVSpeed& s);

    uint32_t In() const;
    uint32_t Out() const;
    // Position relative to the range start.
    uint32_t GetClipTC() const;
    void SetClipTC(int32_t c);
    // As SetClipTC, but not past the last frame of the range.
    void SetClipTCLimit(int32_t c);
    // Clamps t into the range and sets it without wrapping, without marking
    // the play count stale and without resetting the index.
    void SetTCLimit(int32_t t);
    void SetSpeed(const CQNVSpeed& s);
    // As SetSpeed, but keeps the fraction for speeds other than +-65520.
    void SetSpeedZero(const CQNVSpeed& s);
    uint32_t GetIndex() const;
    int32_t GetLastPlayCount() const;
    uint32_t GetRepeat();
};

#endif /* __cplusplus */

#endif
