// Caption files: Scenarist SCC (CEA-608 byte pairs at SMPTE ST 12-1 time
// codes) and MCC (whole SMPTE ST 334-2 caption distribution packets, as
// SMPTE ST 291 ancillary packets, at time codes), read whole and checked
// before anything is written, and written a line at a time.
//
// SCC: the first line is "Scenarist_SCC V1.0"; then lines
//   HH:MM:SS:FF<tab>9420 9420 94ae ...
// of byte pairs as four hex digits (parity bits included), sent one pair per
// frame from the label on. A ';' before the frames marks drop-frame labels
// (29.97 fps); ':' non-drop-frame (30 frame numbers a second). Empty lines
// separate the labelled lines.
//
// MCC: a header ("File Format=MacCaption_MCC V1.0" or "V2.0", comment lines
// beginning "//", "Key=Value" lines such as UUID=, Creation Date= and
// "Time Code Rate=" one of 24, 25, 30, 30DF, 50, 60, 60DF), then lines
//   HH:MM:SS:FF<tab>T52S52...
// holding one ancillary packet each: DID 61, SDID 01, the data count, the
// CDP, and the ancillary checksum (the low 8 bits of the sum of the other
// bytes). Pairs of hex digits may be replaced by one letter each:
//   G..O  1 to 9 times FA 00 00     P  FB 80 80     Q  FC 80 80
//   R     FD 80 80                  S  96 69        T  61 01
//   U     E1 00 00 00               Z  00
// Lines with the same time code carry further packets of that frame.
#ifndef QNVTOOL_CAPTION_FILES_H
#define QNVTOOL_CAPTION_FILES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qnvtool/stream_io.h"

namespace qnvtool::captions {

// ---- Time code labels -------------------------------------------------------

// How labels count frames: frame numbers per second (24, 25, 30, 50, 60) and
// the numbers dropped at the start of each minute not divisible by ten (2
// at 30, 4 at 60; 0 for non-drop-frame).
struct Counting {
    uint32_t perSecond = 30;
    uint32_t dropped = 0;
    bool operator==(const Counting&) const = default;
};

// The frame count of a label's fields; false when a field is out of range
// or names a dropped frame number.
bool labelToCount(const Counting& c, uint32_t h, uint32_t m, uint32_t s, uint32_t f, uint32_t& count);
// The fields of a count.
void countToLabel(const Counting& c, uint32_t count, uint32_t& h, uint32_t& m, uint32_t& s, uint32_t& f);
// "HH:MM:SS:FF", or with `sep` before the frames.
std::string labelText(const Counting& c, uint32_t count, char sep);
// The count of a whole label "HH:MM:SS:FF" (':' or ';' between the fields,
// whatever the counting); false when it is not one or does not exist.
bool parseLabel(std::string_view text, const Counting& c, uint32_t& count);

// ---- SCC ----------------------------------------------------------------------

inline constexpr char kSccHeader[] = "Scenarist_SCC V1.0";

struct SccPair {
    uint32_t frame;  // the frame the pair is sent in (see readScc)
    uint8_t b1, b2;
    uint32_t label;  // its line's label
};

struct SccFile {
    Counting counting;         // 30 frame numbers a second; drop-frame from the labels
    std::vector<uint32_t> labels;  // the labelled lines' counts, ascending
    // Every pair in order, each at its frame: the pairs of a line go one per
    // frame from its label on, or from the frame after the previous line's
    // last pair when that is later (pairs queue up).
    std::vector<SccPair> pairs;
    uint32_t queued = 0;  // lines whose pairs were held back by the queue
};

// Reads a whole SCC text. Throws Error "<name>:<line>: <what>" on the first
// malformed line.
SccFile readScc(std::string_view text, const std::string& name);

// The pairs of an SCC file for the pictures of a stream, the first in
// display order at `start`: each picture's frame is start plus its display
// rank. Pictures come in decoding order, so frames are looked up.
class SccCursor {
public:
    SccCursor(const SccFile& file, uint32_t start) : file_(file), start_(start) {}
    // The pair sent at `frame`, or null when none is.
    const SccPair* at(uint32_t frame) const;
    // After the last picture, at `end` (the first frame past the stream):
    // pairs that fell before the first picture, pairs left for after the
    // stream, and how far past the end the queue of the lines that began
    // inside the stream runs (0: it does not).
    struct Leftover {
        uint64_t before = 0, after = 0;
        uint32_t queuePastEnd = 0;
        bool labelInside = false;  // a label falls inside [start, end)
    };
    Leftover leftover(uint32_t end) const;

private:
    const SccFile& file_;
    uint32_t start_;
};

// SCC lines written in frame order: pairs on consecutive frames share a
// line; a gap starts a new labelled line. Padding (80 80) is left out.
class SccWriter {
public:
    SccWriter(OutputStream& out, bool dropFrame);
    // A pair sent at `frame` (counted as the labels count); frames ascend.
    void add(uint32_t frame, uint8_t b1, uint8_t b2);
    void finish();
    uint64_t pairs() const { return pairs_; }

private:
    OutputStream& out_;
    Counting counting_;
    std::string line_;
    uint32_t next_ = 0;  // the frame that continues the open line
    bool open_ = false;
    uint64_t pairs_ = 0;
};

// ---- MCC ----------------------------------------------------------------------

// Time code rates of the header; the index is the text's place in
// kMccRates.
struct MccRate {
    const char* text;
    Counting counting;
    uint32_t wholeRate;  // qnvtool's --rate for it (29 for 30DF)
};
extern const MccRate kMccRates[7];

struct MccPacket {
    uint32_t frame;       // the label's count
    uint32_t line;        // in the file, for messages
    std::vector<uint8_t> cdp;  // the CDP, without the ancillary wrapping
};

struct MccFile {
    uint32_t version = 1;
    const MccRate* rate = nullptr;
    std::vector<MccPacket> packets;  // in file order; counts ascend
};

// Reads a whole MCC text: each packet's letters expanded, its ancillary
// header and checksum checked and its CDP read (cdp.h). Throws Error
// "<name>:<line>: <what>" on the first malformed line.
MccFile readMcc(std::string_view text, const std::string& name);

// The letters of the MCC hex form, appended to `out`: `bytes` as hex pairs
// with the runs the letters stand for replaced.
void mccEncode(const uint8_t* bytes, size_t size, std::string& out);
// The bytes of a line's data; false on a character that is neither a hex
// pair nor a letter.
bool mccDecode(std::string_view text, std::vector<uint8_t>& bytes, size_t& badColumn);

struct MccHeaderFields {
    std::string uuid;          // 8-4-4-4-12 hex digits
    std::string creationDate;  // e.g. "Monday, March 2, 2026"
    std::string creationTime;  // "HH:MM:SS"
};

// MCC version 1.0 text: the header, then one line per CDP.
class MccWriter {
public:
    MccWriter(OutputStream& out, const MccRate& rate, const MccHeaderFields& header);
    // A CDP of a frame at `frame` (counted as the rate counts).
    void add(uint32_t frame, const uint8_t* cdp, size_t size);
    uint64_t packets() const { return packets_; }

private:
    OutputStream& out_;
    const MccRate& rate_;
    std::string line_;
    std::vector<uint8_t> anc_;
    uint64_t packets_ = 0;
};

// The header fields for now: a random UUID, today's date and time.
MccHeaderFields currentMccHeader();

}  // namespace qnvtool::captions

#endif
