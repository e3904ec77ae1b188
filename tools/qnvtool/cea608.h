// A CEA-608 caption decoder for CC1 (field 1, data channel 1), turning
// line-21 byte pairs into timed captions, and the SubRip and WebVTT text
// they are written as.
//
// It keeps the displayed and non-displayed memories of 15 rows of 32
// cells (CEA-608 B.3, B.4) and follows the caption modes: pop-on (RCL, text
// into non-displayed memory, shown by EOC), roll-up (RU2, RU3, RU4: text
// into the bottom row of a window of 2 to 4 rows, scrolled by CR) and
// paint-on (RDC: text straight into displayed memory). Preamble address
// codes (B.6, Table 53) place the cursor with their row and indent; tab
// offsets (TO1-TO3) move it right; mid-row codes take one cell as a space.
// Basic characters (Table 50, with its replacements of ASCII such as 0x2A
// by U+00E1), special characters (Table 51) and the extended Spanish,
// French, Portuguese and German characters (Tables 5 and 6 of CEA-608-E),
// which replace the cell before them, come out as UTF-8.
//
// Bytes carry odd parity (B.1): a character byte with a parity error shows
// as U+2588 (a solid block) and a control code with one is dropped. Control
// codes sent twice in a row act once. Codes for data channel 2 switch the
// characters that follow them to that channel, which is not shown.
//
// Captions: the screen changes at EOC and EDM, at CR in roll-up mode, and
// when roll-up mode begins with text on screen. Each change ends a caption
// that holds the text on screen just before it and began at the change
// before (for roll-up and paint-on text, which is drawn as it comes, the
// caption shows the rows as they stood when the change came). So a pop-on
// caption runs from its EOC picture to the picture of the EOC or EDM that
// removes it. The end of the stream ends the last caption.
#ifndef QNVTOOL_CEA608_H
#define QNVTOOL_CEA608_H

#include <cstdint>
#include <functional>
#include <string>

#include "tools/qnvtool/stream_io.h"

namespace qnvtool::cea608 {

struct Cue {
    int64_t start = 0, end = 0;  // microseconds
    std::string text;            // rows top to bottom, joined by '\n'
};

class Decoder {
public:
    static constexpr int kRows = 15, kColumns = 32;

    explicit Decoder(std::function<void(const Cue&)> sink) : sink_(std::move(sink)) {}

    // The field-1 byte pair of the picture displayed at `time`, parity bits
    // included.
    void pair(int64_t time, uint8_t b1, uint8_t b2);
    // The end of the stream at `time`: the caption on screen ends there.
    void finish(int64_t time);
    // The text on screen now (rows with text, top to bottom, '\n' between).
    std::string shown() const;

private:
    enum class Mode { kNone, kPopOn, kRollUp, kPaintOn, kText };
    using Memory = char32_t[kRows][kColumns];

    void control(int64_t time, uint8_t b1, uint8_t b2);
    void command(int64_t time, uint8_t code);
    void character(char32_t c);
    void replaceLast(char32_t c);
    // The screen changes at `time`: the caption of the text shown until then ends.
    void change(int64_t time);
    Memory& target() { return mode_ == Mode::kPopOn ? memory_[1 - displayed_] : memory_[displayed_]; }
    static void clear(Memory& m);
    void clearRow(Memory& m, int row);

    std::function<void(const Cue&)> sink_;
    Memory memory_[2] = {};
    int displayed_ = 0;
    Mode mode_ = Mode::kNone;
    int rollRows_ = 2, baseRow_ = kRows - 1;
    int row_ = kRows - 1, column_ = 0;
    bool channelOne_ = true;   // characters go to CC1
    uint16_t lastControl_ = 0;  // the pair just before, when it was a control code
    int64_t since_ = 0;         // the last change
};

// SubRip or WebVTT text of cues, written as they come.
class SubtitleWriter {
public:
    enum class Format { kSrt, kVtt };
    SubtitleWriter(OutputStream& out, Format format);
    void add(const Cue& cue);
    uint64_t cues() const { return count_; }

private:
    OutputStream& out_;
    Format format_;
    std::string text_;
    uint64_t count_ = 0;
};

}  // namespace qnvtool::cea608

#endif
