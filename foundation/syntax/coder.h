// Syntax coders: every bitstream syntax of the library (H.264 and HEVC
// parameter sets and slice headers, AAC headers) is written down once as a
// function template over a coder. The reading coder parses bits into a
// record, the writing coder serialises the record into bits, and a field sink
// on either sees every element with its name, value and bit position, which
// the tools and tests use to list a unit in the standard's terms.
//
// Rules every description keeps for both directions:
//  - branches and loop counts use the values the coder returns (the value
//    read, or the value as written, masked to its width), never a raw record
//    word, so a writer can only produce units its reader reads back alike;
//  - elements the records do not keep go through skip*(): the reader
//    discards them, the writer writes the given substitute;
//  - a reader's deliberate departures from the standard are named functions
//    of the description, used by both directions;
//  - the element macros below take the element's name from the record field
//    itself, so a name is written once; bounds, where given, are the
//    standard's range: a reader keeps any value it reads (and counts those
//    outside), a writer counts them and its caller refuses the record.
#ifndef QNVUTIL_FOUNDATION_SYNTAX_CODER_H
#define QNVUTIL_FOUNDATION_SYNTAX_CODER_H

#include <cstdint>

#include "foundation/bitio/bitio.h"

namespace qnv::syntax {

// Element name with up to two subscripts (-1: none).
struct Name {
    const char* text;
    int32_t i = -1;
    int32_t j = -1;
};

// The standard's range of an element's value, inclusive.
struct Bounds {
    int64_t lo = INT64_MIN;
    int64_t hi = INT64_MAX;
    bool holds(int64_t v) const { return v >= lo && v <= hi; }
};

// width of a field: bits of a fixed-length element, or one of these.
constexpr int32_t kUe = -1, kSe = -2;

// Receives every element a coder reads or writes. kept: false for elements
// the record does not hold (substitutes on writing). open/close bracket a
// nested structure (vui_parameters, hrd_parameters, pred_weight_table, ...).
class FieldSink {
public:
    virtual ~FieldSink() = default;
    virtual void field(uint32_t bitPos, const Name& name, int64_t value, int32_t width, bool kept) = 0;
    virtual void open(const char* /*structure*/) {}
    virtual void close() {}
};

inline uint32_t atMost(uint32_t v, uint32_t limit) { return v < limit ? v : limit; }

// Common state of both coders: the bit buffer, the sink, the count of
// elements outside their bounds.
class CoderBase {
public:
    CoderBase(BitBuffer* bb, FieldSink* sink, uint32_t origin) : bb_(bb), sink_(sink), origin_(origin) {}
    uint32_t pos() const { return bb_->bitPos; }
    BitBuffer* buffer() { return bb_; }
    FieldSink* sink() const { return sink_; }
    uint32_t outOfRange() const { return outOfRange_; }
    void open(const char* structure) {
        if (sink_) sink_->open(structure);
    }
    void close() {
        if (sink_) sink_->close();
    }
    // A value the record keeps that the stream codes otherwise (scaling list
    // entries from their deltas, a clamped count): width 0.
    void derived(const Name& name, int64_t value) { note(bb_->bitPos, name, value, 0, true); }

protected:
    void note(uint32_t at, const Name& name, int64_t value, int32_t width, bool kept) {
        if (sink_) sink_->field(at - origin_, name, value, width, kept);
    }
    void check(int64_t value, const Bounds& b) {
        if (!b.holds(value)) ++outOfRange_;
    }

    BitBuffer* bb_;
    FieldSink* sink_;
    uint32_t origin_;
    uint32_t outOfRange_ = 0;
};

// Fields are 32-bit words, signed (H.264 records) or unsigned (HEVC, AAC).
template <class W>
concept Word = sizeof(W) == 4;

class ReadCoder : public CoderBase {
public:
    static constexpr bool kWriting = false;
    explicit ReadCoder(BitBuffer* bb, FieldSink* sink = nullptr, uint32_t origin = 0) : CoderBase(bb, sink, origin) {}

    template <Word W>
    [[gnu::always_inline]] uint32_t u(uint32_t n, W& f, Name name, Bounds b = {}) {
        const uint32_t v = fixed(n, name, true);
        f = static_cast<W>(v);
        check(v, b);
        return v;
    }
    template <Word W>
    [[gnu::always_inline]] uint32_t ue(W& f, Name name, Bounds b = {}) {
        const uint32_t v = code(name, true);
        f = static_cast<W>(v);
        check(v, b);
        return v;
    }
    template <Word W>
    [[gnu::always_inline]] int32_t se(W& f, Name name, Bounds b = {}) {
        const int32_t v = signedCode(name, true);
        f = static_cast<W>(v);
        check(v, b);
        return v;
    }
    // 48 bits into a pair of words.
    template <Word W>
    uint64_t u48(W& lo, W& hi, Name name) {
        const uint64_t v = fixed64(48, name, true);
        lo = static_cast<W>(v);
        hi = static_cast<W>(v >> 32);
        return v;
    }
    uint32_t skip(uint32_t n, uint32_t, Name name) { return fixed(n, name, false); }
    uint64_t skip64(uint32_t n, uint64_t, Name name) { return fixed64(n, name, false); }
    uint32_t skipUe(uint32_t, Name name) { return code(name, false); }
    int32_t skipSe(int32_t, Name name) { return signedCode(name, false); }
    // A value a description derives rather than reads: stored on reading.
    template <Word W>
    void derive(W& f, uint32_t value) {
        f = static_cast<W>(value);
    }

private:
    // The sink sees the element after it was read, at its first bit.
    [[gnu::always_inline]] uint32_t fixed(uint32_t n, const Name& name, bool kept) {
        const uint32_t at = bb_->bitPos;
        const uint32_t v = ReadBits(bb_, n);
        note(at, name, v, static_cast<int32_t>(n), kept);
        return v;
    }
    uint64_t fixed64(uint32_t n, const Name& name, bool kept) {
        const uint32_t at = bb_->bitPos;
        const uint64_t v = ReadBits64(bb_, n);
        note(at, name, static_cast<int64_t>(v), static_cast<int32_t>(n), kept);
        return v;
    }
    // A code longer than 63 bits stands for no 32-bit value: the bit
    // reader's value is kept and the element counts as out of range.
    void checkLength(uint32_t at) {
        if (bb_->bitPos - at > 63) ++outOfRange_;
    }
    [[gnu::always_inline]] uint32_t code(const Name& name, bool kept) {
        const uint32_t at = bb_->bitPos;
        const uint32_t v = ReadExponentialGolombCode(bb_);
        checkLength(at);
        note(at, name, v, kUe, kept);
        return v;
    }
    int32_t signedCode(const Name& name, bool kept) {
        const uint32_t at = bb_->bitPos;
        const int32_t v = ReadExponentialGolombCodeSigned(bb_);
        checkLength(at);
        note(at, name, v, kSe, kept);
        return v;
    }
};

// kKeepWord: the word the last write left is kept in the coder, and a write
// that goes on from there takes it rather than loading it back (the load
// would wait for the store before it). That pays only where the coder lives
// in registers: a small payload built whole in one inlined function. A
// write that is not the next one (bitPos moved by other means) loads the
// word again; other code must not change the kept word's bytes in between.
template <bool kKeepWord>
class BasicWriteCoder : public CoderBase {
public:
    static constexpr bool kWriting = true;
    explicit BasicWriteCoder(BitBuffer* bb, FieldSink* sink = nullptr, uint32_t origin = 0)
        : CoderBase(bb, sink, origin) {}

    template <Word W>
    uint32_t u(uint32_t n, const W& f, Name name, Bounds b = {}) {
        check(static_cast<uint32_t>(f), b);
        return fixed(n, static_cast<uint32_t>(f), name, true);
    }
    template <Word W>
    uint32_t ue(const W& f, Name name, Bounds b = {}) {
        check(static_cast<uint32_t>(f), b);
        return code(static_cast<uint32_t>(f), name, true);
    }
    template <Word W>
    int32_t se(const W& f, Name name, Bounds b = {}) {
        check(static_cast<int32_t>(f), b);
        return signedCode(static_cast<int32_t>(f), name, true);
    }
    template <Word W>
    uint64_t u48(const W& lo, const W& hi, Name name) {
        const uint64_t v = (uint64_t(static_cast<uint32_t>(hi)) << 32 | static_cast<uint32_t>(lo)) & 0xFFFFFFFFFFFFull;
        note(bb_->bitPos, name, static_cast<int64_t>(v), 48, true);
        write64(48, v);
        return v;
    }
    uint32_t skip(uint32_t n, uint32_t value, Name name) { return fixed(n, value, name, false); }
    uint64_t skip64(uint32_t n, uint64_t value, Name name) {
        note(bb_->bitPos, name, static_cast<int64_t>(value), static_cast<int32_t>(n), false);
        write64(n, value);
        return value;
    }
    uint32_t skipUe(uint32_t value, Name name) { return code(value, name, false); }
    int32_t skipSe(int32_t value, Name name) { return signedCode(value, name, false); }
    template <Word W>
    void derive(const W&, uint32_t) {}

private:
    // n bits of v.
    void put(uint32_t n, uint32_t v) {
        if constexpr (!kKeepWord) {
            writeBits(bb_, n, v);
            return;
        }
        uint64_t at;
        if (!wordsInside(bb_, n, &at)) {
            keptEnd_ = kNoEnd;
            writeBits(bb_, n, v);
            return;
        }
        const uint32_t p = bb_->bitPos;
        // The kept word holds bit p when the last write ended at p inside it.
        const bool kept = p == keptEnd_ && (p & 63) != 0;
        kept_ = putWords(bb_, at, kept ? kept_ : loadWord(bb_->data + at), n, v);
        keptEnd_ = p + n;
    }
    void write64(uint32_t n, uint64_t v) {
        if constexpr (kKeepWord) keptEnd_ = kNoEnd;
        WriteBits64(bb_, n, v);
    }
    uint32_t fixed(uint32_t n, uint32_t value, const Name& name, bool kept) {
        const uint32_t v = n >= 32 ? value : value & ((1u << n) - 1u);
        note(bb_->bitPos, name, v, static_cast<int32_t>(n), kept);
        put(n, v);
        return v;
    }
    // Standard ue(v) for every code number up to 2^32 - 2 (the largest a
    // reader returns for a well-formed code); larger words are clamped.
    uint32_t code(uint32_t value, const Name& name, bool kept) {
        const uint32_t v = atMost(value, 0xFFFFFFFEu);
        note(bb_->bitPos, name, v, kUe, kept);
        const uint64_t x = uint64_t(v) + 1;
        const uint32_t bits = 64 - static_cast<uint32_t>(__builtin_clzll(x));
        if (x < 0x10000u) {
            // The exported writer's code: bits - 1 zeros, then x, at once.
            put(2 * bits - 1, static_cast<uint32_t>(x));
        } else if (x < 0x1000000u) {
            put(bits - 1, 0);
            put(bits, static_cast<uint32_t>(x));
        } else {
            // The exported writer adds 48 zeros from 2^24 up; write the
            // standard code here so that the unit reads back.
            write64(bits - 1, 0);
            write64(bits, x);
        }
        return v;
    }
    // se(v) with the standard mapping (-2v up to 0, 2v - 1 above), written
    // as ue(v). (The library's exported signed writer agrees up to 0 only.)
    int32_t signedCode(int32_t value, const Name& name, bool kept) {
        const int32_t v = value == INT32_MIN ? INT32_MIN + 1 : value;
        note(bb_->bitPos, name, v, kSe, kept);
        const uint32_t codeNum = v <= 0 ? 0u - 2u * static_cast<uint32_t>(v) : 2u * static_cast<uint32_t>(v) - 1u;
        // code() would note the element a second time
        FieldSink* sink = sink_;
        sink_ = nullptr;
        code(codeNum, name, kept);
        sink_ = sink;
        return v;
    }

    // No kept word (bitPos is never 0 after a write).
    static constexpr uint32_t kNoEnd = 0;
    uint64_t kept_ = 0;          // the word put() wrote last, most significant bit first
    uint32_t keptEnd_ = kNoEnd;  // bitPos after that write
};

using WriteCoder = BasicWriteCoder<false>;
// For SEI payloads built whole inside one flattened function.
using InlineWriteCoder = BasicWriteCoder<true>;

}  // namespace qnv::syntax

// Element macros for descriptions: the coder is `c`, the record (or the
// nested structure being described) is `s`, and the element's name is the
// field's own. Optional trailing arguments are the element's bounds.
#define QNV_U(n, field, ...) c.u(n, s.field, {#field} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))
#define QNV_FLAG(field) c.u(1, s.field, {#field})
#define QNV_UE(field, ...) c.ue(s.field, {#field} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))
#define QNV_SE(field, ...) c.se(s.field, {#field} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))
// Subscripted elements: field[i] (and field[i][j]).
#define QNV_UI(n, field, i, ...) \
    c.u(n, s.field[i], {#field, int32_t(i)} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))
#define QNV_FLAGI(field, i) c.u(1, s.field[i], {#field, int32_t(i)})
#define QNV_UEI(field, i, ...) \
    c.ue(s.field[i], {#field, int32_t(i)} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))
#define QNV_SEI(field, i, ...) \
    c.se(s.field[i], {#field, int32_t(i)} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))
// An element coded once per entry that the record keeps in one word (the
// last entry's value stays): field as entry i.
#define QNV_U_AT(n, field, i) c.u(n, s.field, {#field, int32_t(i)})
#define QNV_UE_AT(field, i) c.ue(s.field, {#field, int32_t(i)})
#define QNV_SE_AT(field, i) c.se(s.field, {#field, int32_t(i)})
#define QNV_SEIJ(field, i, j, ...) \
    c.se(s.field[i][j], {#field, int32_t(i), int32_t(j)} __VA_OPT__(, ::qnv::syntax::Bounds{__VA_ARGS__}))

#endif
