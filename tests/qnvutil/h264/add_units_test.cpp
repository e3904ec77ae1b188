// qnvutilAddNalUnits: where each kind of unit goes (one table, both codecs,
// both framings), the bytes between units, and the refusals that leave the
// frame as it was.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "foundation/nal/nal.h"
#include "qnvutil/h264.h"

using Bytes = std::vector<uint8_t>;

namespace {

// A unit is named by its type and a letter: {7, 'a'} is an SPS "a".
using Name = std::pair<uint32_t, char>;
using Names = std::vector<Name>;

Bytes unitBytes(bool hevc, Name n) {
    const uint8_t id = static_cast<uint8_t>(0x80 | n.second);
    return hevc ? Bytes{static_cast<uint8_t>(n.first << 1), 0x01, id} : Bytes{static_cast<uint8_t>(n.first), id};
}

Bytes framed(bool hevc, bool lengths, const Names& names) {
    Bytes out;
    for (const Name& n : names) {
        const Bytes u = unitBytes(hevc, n);
        const Bytes prefix = lengths ? Bytes{0, 0, 0, static_cast<uint8_t>(u.size())} : Bytes{0, 0, 0, 1};
        out.insert(out.end(), prefix.begin(), prefix.end());
        out.insert(out.end(), u.begin(), u.end());
    }
    return out;
}

Names names(bool hevc, bool lengths, const Bytes& frame) {
    const auto codec = hevc ? qnv::nal::Codec::kHevc : qnv::nal::Codec::kH264;
    qnv::nal::UnitWalk walk(frame.data(), static_cast<uint32_t>(frame.size()),
                            lengths ? qnv::nal::Framing::kLengthPrefixed : qnv::nal::Framing::kAnnexB);
    Names out;
    for (qnv::nal::Unit u; walk.next(u);)
        out.push_back({qnv::nal::unitType(codec, frame[u.header()]), static_cast<char>(frame[u.end() - 1] & 0x7F)});
    return out;
}

// Inserts into a DFrame whose buffer has `slack` spare bytes.
int32_t add(Bytes& frame, const Bytes& units, bool hevc, bool lengths, uint32_t slack) {
    Bytes buffer(frame);
    buffer.resize(frame.size() + slack, 0xEE);
    DFrame f{};
    f.frameData = buffer.data();
    f.frameCapacity = static_cast<uint32_t>(buffer.size());
    f.frameSize = static_cast<uint32_t>(frame.size());
    const int32_t r = qnvutilAddNalUnits(&f, units.data(), static_cast<uint32_t>(units.size()), hevc, lengths);
    EXPECT_LE(f.frameSize, f.frameCapacity);
    frame.assign(buffer.begin(), buffer.begin() + f.frameSize);
    for (size_t i = f.frameSize; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 0xEE);  // nothing beyond the frame
    return r;
}

}  // namespace

TEST(AddNalUnits, Positions) {
    const struct { const char* what; bool hevc; Names frame, insert, expected; } rows[] = {
        {"a delimiter goes first", false, {{7, 'a'}, {8, 'a'}, {6, 'a'}, {5, 'a'}}, {{9, 'b'}},
         {{9, 'b'}, {7, 'a'}, {8, 'a'}, {6, 'a'}, {5, 'a'}}},
        {"sets go behind the delimiter and the frame's sets", false, {{9, 'a'}, {7, 'a'}, {8, 'a'}, {6, 'a'}, {5, 'a'}},
         {{7, 'b'}, {8, 'b'}}, {{9, 'a'}, {7, 'a'}, {8, 'a'}, {7, 'b'}, {8, 'b'}, {6, 'a'}, {5, 'a'}}},
        {"an SEI goes in front of the first slice", false, {{9, 'a'}, {7, 'a'}, {6, 'a'}, {5, 'a'}, {1, 'a'}},
         {{6, 'b'}}, {{9, 'a'}, {7, 'a'}, {6, 'a'}, {6, 'b'}, {5, 'a'}, {1, 'a'}}},
        {"every kind at once, each kind in its given order", false, {{7, 'a'}, {8, 'a'}, {5, 'a'}, {1, 'a'}},
         {{6, 'b'}, {10, 'b'}, {8, 'b'}, {9, 'b'}, {7, 'b'}, {12, 'b'}, {6, 'c'}, {15, 'b'}},
         {{9, 'b'}, {7, 'a'}, {8, 'a'}, {8, 'b'}, {7, 'b'}, {15, 'b'}, {6, 'b'}, {6, 'c'}, {5, 'a'}, {1, 'a'},
          {12, 'b'}, {10, 'b'}}},
        {"without a slice, SEI and filler go to the end", false, {{9, 'a'}, {7, 'a'}}, {{6, 'b'}, {12, 'b'}, {8, 'b'}},
         {{9, 'a'}, {7, 'a'}, {8, 'b'}, {6, 'b'}, {12, 'b'}}},
        {"into an empty frame", false, {}, {{7, 'b'}, {9, 'b'}}, {{9, 'b'}, {7, 'b'}}},
        {"HEVC: prefix before the first slice, suffix behind the last", true,
         {{35, 'a'}, {32, 'a'}, {33, 'a'}, {34, 'a'}, {39, 'a'}, {19, 'a'}, {1, 'a'}, {40, 'a'}},
         {{40, 'b'}, {39, 'b'}, {33, 'b'}, {36, 'b'}, {38, 'b'}},
         {{35, 'a'}, {32, 'a'}, {33, 'a'}, {34, 'a'}, {33, 'b'}, {39, 'a'}, {39, 'b'}, {19, 'a'}, {1, 'a'}, {40, 'b'},
          {38, 'b'}, {40, 'a'}, {36, 'b'}}},
        {"HEVC: a delimiter in front of a frame without one", true, {{32, 'a'}, {33, 'a'}, {34, 'a'}, {21, 'a'}},
         {{35, 'b'}, {32, 'b'}}, {{35, 'b'}, {32, 'a'}, {33, 'a'}, {34, 'a'}, {32, 'b'}, {21, 'a'}}},
    };
    for (const auto& r : rows) {
        for (bool lengths : {false, true}) {
            SCOPED_TRACE(std::string(r.what) + (lengths ? " (lengths)" : " (Annex B)"));
            Bytes frame = framed(r.hevc, lengths, r.frame);
            const Bytes units = framed(r.hevc, lengths, r.insert);
            // Exactly the room needed.
            ASSERT_EQ(add(frame, units, r.hevc, lengths, static_cast<uint32_t>(units.size())), QNV_ADD_UNITS_OK);
            EXPECT_EQ(names(r.hevc, lengths, frame), r.expected);
        }
    }
}

TEST(AddNalUnits, KeepsTheBytesBetweenUnits) {
    // A 3-byte code, zeros behind the delimiter and a 4-byte code: the SEI
    // goes in front of the slice's zero_byte, the zeros stay where they were.
    Bytes frame = {0, 0, 1, 0x09, 0xF0, 0, 0, 0, 0, 0, 1, 0x65, 0x88};
    ASSERT_EQ(add(frame, {0, 0, 1, 0x06, 0x05, 0x80}, false, false, 6), QNV_ADD_UNITS_OK);
    EXPECT_EQ(frame, Bytes({0, 0, 1, 0x09, 0xF0, 0, 0, 0, 0, 1, 0x06, 0x05, 0x80, 0, 0, 0, 1, 0x65, 0x88}));
}

TEST(AddNalUnits, RefusalsLeaveTheFrame) {
    const Bytes frame = framed(false, false, {{9, 'a'}, {5, 'a'}});
    const Bytes sei = framed(false, false, {{6, 'b'}});
    const Bytes lengthFrame = framed(false, true, {{9, 'a'}, {5, 'a'}});
    Bytes cutLengths = framed(false, true, {{6, 'b'}});
    cutLengths[3] = 9;
    Bytes overlong = lengthFrame;
    overlong[3] = 40;
    const struct { const char* what; Bytes frame, units; bool lengths; uint32_t slack; int32_t result; } rows[] = {
        {"a slice is not inserted", frame, framed(false, false, {{1, 'b'}}), false, 8, QNV_ADD_UNITS_BAD},
        {"bytes before the first start code", frame, Bytes{0x12, 0, 0, 1, 6, 0x80}, false, 8, QNV_ADD_UNITS_BAD},
        {"a start code without a header", frame, Bytes{0, 0, 1, 6, 0x80, 0, 0, 1}, false, 8, QNV_ADD_UNITS_OK},
        {"no unit at all", frame, Bytes{}, false, 8, QNV_ADD_UNITS_BAD},
        {"a unit length past the end", lengthFrame, cutLengths, true, 16, QNV_ADD_UNITS_BAD},
        {"a frame length past the end", overlong, framed(false, true, {{6, 'b'}}), true, 16, QNV_ADD_UNITS_BAD},
        {"one byte short", frame, sei, false, static_cast<uint32_t>(sei.size() - 1), QNV_ADD_UNITS_NO_ROOM},
    };
    for (const auto& r : rows) {
        Bytes f = r.frame;
        EXPECT_EQ(add(f, r.units, false, r.lengths, r.slack), r.result) << r.what;
        if (r.result != QNV_ADD_UNITS_OK) {
            EXPECT_EQ(f, r.frame) << r.what;
        }
    }
    // No frame, no buffer, or a frame larger than its buffer.
    DFrame f{};
    EXPECT_EQ(qnvutilAddNalUnits(nullptr, sei.data(), 6, 0, 0), QNV_ADD_UNITS_BAD);
    EXPECT_EQ(qnvutilAddNalUnits(&f, sei.data(), 6, 0, 0), QNV_ADD_UNITS_BAD);
    Bytes buffer(frame);
    f.frameData = buffer.data();
    f.frameSize = static_cast<uint32_t>(buffer.size() + 1);
    f.frameCapacity = static_cast<uint32_t>(buffer.size());
    EXPECT_EQ(qnvutilAddNalUnits(&f, sei.data(), static_cast<uint32_t>(sei.size()), 0, 0), QNV_ADD_UNITS_NO_ROOM);
}
