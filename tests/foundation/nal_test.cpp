// NAL unit layer: unit types, the walk over both framings (and its agreement
// with the Annex B scanner), the unescaper's options and the escaper.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "foundation/nal/nal.h"
#include "foundation/nalscan/nalscan.h"

using namespace qnv::nal;
using Bytes = std::vector<uint8_t>;

namespace {

struct Span {
    uint32_t offset, prefix, size;
    bool operator==(const Span&) const = default;
};

std::vector<Span> walk(const Bytes& b, Framing framing, bool* truncated = nullptr) {
    std::vector<Span> spans;
    UnitWalk w(b.data(), static_cast<uint32_t>(b.size()), framing);
    for (Unit u; w.next(u);) spans.push_back({u.offset, u.prefix, u.size});
    if (truncated) *truncated = w.truncated();
    return spans;
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& x : b) x = rng() % 3 ? static_cast<uint8_t>(rng() % 4) : static_cast<uint8_t>(rng());
    return b;
}

}  // namespace

TEST(NalTypes, ClassesAndNames) {
    const struct { Codec codec; uint8_t header; uint32_t type; bool vcl, slice; const char* name; } rows[] = {
        {Codec::kH264, 0x65, 5, true, true, "IDR slice"},
        {Codec::kH264, 0x14, 20, false, false, "slice extension"},
        {Codec::kHevc, 0x26, 19, true, true, "IDR_W_RADL"},
        {Codec::kHevc, 0x14, 10, true, false, "RSV_VCL_N10"},
        {Codec::kHevc, 0x2E, 23, true, false, "RSV_IRAP_VCL23"},
        {Codec::kHevc, 0x7E, 63, false, false, "UNSPEC63"},
    };
    for (const auto& r : rows) {
        const uint32_t type = unitType(r.codec, r.header);
        EXPECT_EQ(type, r.type) << r.name;
        EXPECT_EQ(isVcl(r.codec, type), r.vcl) << r.name;
        EXPECT_EQ(isCodedSlice(r.codec, type), r.slice) << r.name;
        EXPECT_STREQ(typeName(r.codec, type), r.name);
    }
}

TEST(NalWalk, Framings) {
    const struct { const char* what; Framing framing; Bytes bytes; std::vector<Span> units; bool truncated; } rows[] = {
        {"4- and 3-byte codes, trailing zeros before a 4-byte code", Framing::kAnnexB,
         {0, 0, 0, 1, 0x67, 0xAA, 0, 0, 1, 0x68, 0xBB, 0, 0, 0, 0, 0, 0, 1, 0x65, 1, 2},
         {{0, 4, 2}, {6, 3, 2}, {14, 4, 3}}, false},
        {"bytes before the first code", Framing::kAnnexB, {9, 9, 0, 0, 1, 0x41, 0x01}, {{2, 3, 2}}, false},
        {"an empty unit", Framing::kAnnexB, {0, 0, 1, 0, 0, 1, 5}, {{0, 3, 0}, {3, 3, 1}}, false},
        {"a code with nothing behind it", Framing::kAnnexB, {0, 0, 1, 0x65, 0, 0, 1}, {{0, 3, 1}}, false},
        {"escapes and 00 00 02 inside a unit", Framing::kAnnexB, {0, 0, 1, 0x65, 0, 0, 3, 0, 0, 2}, {{0, 3, 7}}, false},
        {"no start code", Framing::kAnnexB, {1, 0, 0, 2, 5}, {}, false},
        {"lengths", Framing::kLengthPrefixed, {0, 0, 0, 2, 9, 0x10, 0, 0, 0, 3, 6, 1, 2, 0, 0, 0, 1, 0x65},
         {{0, 4, 2}, {6, 4, 3}, {13, 4, 1}}, false},
        {"a zero length", Framing::kLengthPrefixed, {0, 0, 0, 0, 0, 0, 0, 1, 5}, {{0, 4, 0}, {4, 4, 1}}, false},
        {"a length past the end", Framing::kLengthPrefixed, {0, 0, 0, 2, 9, 0x10, 0, 0, 0, 9, 6}, {{0, 4, 2}}, true},
        {"a cut length field", Framing::kLengthPrefixed, {0, 0, 0, 1, 9, 0, 0}, {{0, 4, 1}}, true},
    };
    for (const auto& r : rows) {
        bool truncated = false;
        EXPECT_EQ(walk(r.bytes, r.framing, &truncated), r.units) << r.what;
        EXPECT_EQ(truncated, r.truncated) << r.what;
    }
}

TEST(NalWalk, AgreesWithTheScannerWalk) {
    // The walk qnvtool made with the scanner: find_nal_unit from the end of
    // each unit while 4 bytes or more remain; its start code is 4 bytes when
    // a zero in the searched range precedes 00 00 01.
    std::mt19937 rng(11);
    for (int round = 0; round < 4000; ++round) {
        const Bytes b = randomBytes(rng, 4 + rng() % (round % 8 ? 40 : 300));
        const uint32_t size = static_cast<uint32_t>(b.size());
        std::vector<Span> expected;
        for (uint32_t offset = 0; size - offset >= 4;) {
            int32_t start = -1, end = -1;
            if (qnv::find_nal_unit(b.data() + offset, size - offset, &start, &end) == 0 && start < 0) break;
            const uint32_t header = offset + static_cast<uint32_t>(start);
            const uint32_t code = header >= offset + 4 && b[header - 4] == 0 ? 4 : 3;
            // A start code without a byte behind it is no unit for the walk.
            if (header < size) expected.push_back({header - code, code, static_cast<uint32_t>(end - start)});
            offset += static_cast<uint32_t>(end > start ? end : start);
        }
        ASSERT_EQ(walk(b, Framing::kAnnexB), expected) << round;
    }
}

TEST(NalEscaping, UnescapeOptions) {
    UnescapeOptions from3;
    from3.from = 3;
    UnescapeOptions zeroC;
    zeroC.dropZeroC = true;
    UnescapeOptions inPlace;
    inPlace.from = 3;
    inPlace.keepLength = true;
    const struct { const char* what; Bytes in; UnescapeOptions options; Bytes out; uint32_t removed; } rows[] = {
        {"one escape", {0, 0, 3, 1}, {}, {0, 0, 1}, 1},
        {"a longer zero run", {0, 0, 0, 3, 0, 0, 3, 3}, {}, {0, 0, 0, 0, 0, 3}, 2},
        {"counting restarts behind an 03", {0, 0, 3, 3}, {}, {0, 0, 3}, 1},
        {"an escape at the end", {7, 0, 0, 3}, {}, {7, 0, 0}, 1},
        {"from: earlier escapes stay", {0, 0, 3, 0, 0, 3, 1}, from3, {0, 0, 3, 0, 0, 1}, 1},
        {"from: a pair straddling it stays", {9, 0, 0, 3, 1}, from3, {9, 0, 0, 3, 1}, 0},
        {"0C kept by default", {0x68, 0, 0, 0x0C, 5}, {}, {0x68, 0, 0, 0x0C, 5}, 0},
        {"0C dropped", {0x68, 0, 0, 0x0C, 5}, zeroC, {0x68, 0, 0, 5}, 1},
        {"kept length repeats the last byte", {1, 2, 3, 0, 0, 3, 7, 8, 0, 0, 3, 9}, inPlace,
         {1, 2, 3, 0, 0, 7, 8, 0, 0, 9, 9, 9}, 2},
    };
    for (const auto& r : rows) {
        Bytes copy(r.in.size());
        const uint32_t removed = unescape(r.in.data(), copy.data(), static_cast<uint32_t>(r.in.size()), r.options);
        if (!r.options.keepLength) copy.resize(copy.size() - removed);
        EXPECT_EQ(copy, r.out) << r.what;
        EXPECT_EQ(removed, r.removed) << r.what;
        Bytes same(r.in);  // in place gives the same
        unescape(same.data(), same.data(), static_cast<uint32_t>(same.size()), r.options);
        if (!r.options.keepLength) same.resize(same.size() - removed);
        EXPECT_EQ(same, r.out) << r.what;
    }
}

TEST(NalEscaping, EscapeOptions) {
    EscapeOptions passTwo;
    passTwo.passZeroZeroTwo = true;
    EscapeOptions open;
    open.openEnd = true;
    const struct { Bytes in; EscapeOptions options; Bytes out; } rows[] = {
        {{0, 0, 1, 5}, {}, {0, 0, 3, 1, 5}},
        {{0, 0, 0, 0}, {}, {0, 0, 3, 0, 0, 3}},
        {{0, 0, 2}, {}, {0, 0, 3, 2}},
        {{0, 0, 2}, passTwo, {0, 0, 2}},
        {{0, 0, 4, 0, 0, 3}, {}, {0, 0, 4, 0, 0, 3, 3}},
        {{5, 0}, {}, {5, 0, 3}},
        {{5, 0}, open, {5, 0}},
        {{}, {}, {}},
    };
    for (const auto& r : rows) {
        const uint32_t n = static_cast<uint32_t>(r.in.size());
        Bytes out(n + n / 2 + 1);
        out.resize(escape(r.in.data(), n, out.data(), r.options));
        EXPECT_EQ(out, r.out);
        EXPECT_EQ(escapedSize(r.in.data(), n, r.options), r.out.size());
    }
}

TEST(NalEscaping, RoundTripAndStreamingForms) {
    std::mt19937 rng(3);
    for (int round = 0; round < 3000; ++round) {
        const Bytes raw = randomBytes(rng, rng() % (round % 4 ? 30 : 400));
        const uint32_t n = static_cast<uint32_t>(raw.size());
        Bytes escaped(n + n / 2 + 1);
        escaped.resize(escape(raw.data(), n, escaped.data()));
        // No start code or zero triple survives escaping.
        for (size_t i = 0; i + 2 < escaped.size(); ++i)
            ASSERT_FALSE(escaped[i] == 0 && escaped[i + 1] == 0 && escaped[i + 2] <= 2) << round;
        Bytes streamed;
        Escaper e;
        for (uint8_t b : raw) e.put(b, [&](uint8_t x) { streamed.push_back(x); });
        e.finish([&](uint8_t x) { streamed.push_back(x); });
        ASSERT_EQ(streamed, escaped) << round;

        // Unescaping gives the raw bytes back, and the byte reader agrees. A
        // closing 03 stays when a single zero precedes it.
        Bytes back(escaped.size());
        back.resize(back.size() - unescape(escaped.data(), back.data(), static_cast<uint32_t>(escaped.size())));
        if (back.size() == n + 1 && raw.back() == 0) back.pop_back();
        ASSERT_EQ(back, raw) << round;
        Bytes read;
        RbspReader r(escaped.data(), static_cast<uint32_t>(escaped.size()));
        for (uint8_t b; r.next(b);) read.push_back(b);
        if (read.size() == n + 1 && raw.back() == 0) read.pop_back();
        ASSERT_EQ(read, raw) << round;
    }
}

TEST(NalEscaping, KeptLengthMatchesTheClassicInPlaceRemoval) {
    // The H.264 readers' removal: from index 3, each 00 00 03 (or 00 00 0C)
    // loses its third byte by a move of the rest, the length staying.
    auto classic = [](Bytes b, bool dropZeroC) {
        for (size_t i = 3; i + 2 < b.size(); ++i) {
            if (b[i] == 0 && b[i + 1] == 0 && (b[i + 2] == 3 || (dropZeroC && b[i + 2] == 0x0C))) {
                std::copy(b.begin() + i + 3, b.end(), b.begin() + i + 2);
                ++i;
            }
        }
        return b;
    };
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round) {
        Bytes b = randomBytes(rng, 1 + rng() % 40);
        for (auto& x : b)
            if (x == 2 && rng() % 2) x = 0x0C;
        UnescapeOptions o;
        o.from = 3;
        o.keepLength = true;
        o.dropZeroC = round % 2;
        Bytes mine(b);
        unescape(mine.data(), mine.data(), static_cast<uint32_t>(mine.size()), o);
        ASSERT_EQ(mine, classic(b, o.dropZeroC)) << round;
    }
}
