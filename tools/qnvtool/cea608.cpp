#include "tools/qnvtool/cea608.h"

#include <cstdio>

namespace qnvtool::cea608 {
namespace {

constexpr char32_t kBlock = 0x2588;  // shown for a character with a parity error

// Basic characters 0x20-0x7F: ASCII except these cells (CEA-608 Table 50).
char32_t basic(uint8_t c) {
    switch (c) {
        case 0x2A: return 0xE1;  // á
        case 0x5C: return 0xE9;  // é
        case 0x5E: return 0xED;  // í
        case 0x5F: return 0xF3;  // ó
        case 0x60: return 0xFA;  // ú
        case 0x7B: return 0xE7;  // ç
        case 0x7C: return 0xF7;  // ÷
        case 0x7D: return 0xD1;  // Ñ
        case 0x7E: return 0xF1;  // ñ
        case 0x7F: return kBlock;
        default: return c;
    }
}

// Special characters: 11 30 .. 11 3F (Table 51). 11 39 is the transparent
// space.
constexpr char32_t kSpecial[16] = {0xAE, 0xB0, 0xBD, 0xBF, 0x2122, 0xA2, 0xA3, 0x266A,
                                   0xE0, 0x20, 0xE8, 0xE2, 0xEA,   0xEE, 0xF4, 0xFB};
// Extended characters: 12 20 .. 12 3F and 13 20 .. 13 3F.
constexpr char32_t kExtended[2][32] = {
    {0xC1, 0xC9, 0xD3, 0xDA, 0xDC, 0xFC, 0x2018, 0xA1, 0x2A, 0x2019, 0x2014, 0xA9, 0x2120, 0x2022, 0x201C, 0x201D,
     0xC0, 0xC2, 0xC7, 0xC8, 0xCA, 0xCB, 0xEB, 0xCE, 0xCF, 0xEF, 0xD4, 0xD9, 0xF9, 0xDB, 0xAB, 0xBB},
    {0xC3, 0xE3, 0xCD, 0xCC, 0xEC, 0xD2, 0xF2, 0xD5, 0xF5, 0x7B, 0x7D, 0x5C, 0x5E, 0x5F, 0x7C, 0x7E,
     0xC4, 0xE4, 0xD6, 0xF6, 0xDF, 0xA5, 0xA4, 0x2502, 0xC5, 0xE5, 0xD8, 0xF8, 0x250C, 0x2510, 0x2514, 0x2518},
};

// Rows of the preamble address codes by the first byte's low three bits
// (Table 53), 0-based; the second byte's 0x20 bit selects the next row
// (not for 0x10, whose codes all name row 11).
constexpr int kPacRow[8] = {10, 0, 2, 11, 13, 4, 6, 8};

// Miscellaneous control codes: the second byte of 14 2x (CC1).
enum Command : uint8_t {
    kRcl = 0x20, kBs = 0x21, kAof = 0x22, kAon = 0x23, kDer = 0x24, kRu2 = 0x25, kRu3 = 0x26, kRu4 = 0x27,
    kFon = 0x28, kRdc = 0x29, kTr = 0x2A, kRtd = 0x2B, kEdm = 0x2C, kCr = 0x2D, kEnm = 0x2E, kEoc = 0x2F,
};

bool oddParity(uint8_t b) { return __builtin_parity(b) == 1; }

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | c >> 6);
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | c >> 12);
        out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

}  // namespace

void Decoder::clear(Memory& m) {
    for (auto& row : m)
        for (char32_t& c : row) c = 0;
}

void Decoder::clearRow(Memory& m, int row) {
    for (char32_t& c : m[row]) c = 0;
}

void Decoder::pair(int64_t time, uint8_t b1, uint8_t b2) {
    const bool good1 = oddParity(b1), good2 = oddParity(b2);
    const uint8_t c1 = b1 & 0x7F, c2 = b2 & 0x7F;
    if (c1 >= 0x10 && c1 <= 0x1F) {
        // A control code: dropped with a parity error, acted on once when
        // sent twice in a row.
        const uint16_t code = static_cast<uint16_t>(c1 << 8 | c2);
        if (!good1 || !good2) {
            lastControl_ = 0;
            return;
        }
        if (code == lastControl_) {
            lastControl_ = 0;
            return;
        }
        lastControl_ = code;
        control(time, c1, c2);
        return;
    }
    lastControl_ = 0;
    if (c1 == 0 && c2 == 0) return;  // padding
    if (c1 < 0x10) return;           // extended data services (field 2 only)
    if (!channelOne_ || mode_ == Mode::kNone || mode_ == Mode::kText) return;
    character(good1 ? basic(c1) : kBlock);
    if (c2 >= 0x20) character(good2 ? basic(c2) : kBlock);
}

void Decoder::control(int64_t time, uint8_t c1, uint8_t c2) {
    channelOne_ = (c1 & 0x08) == 0;
    if (!channelOne_) return;
    const uint8_t group = c1 & 0x07;
    if (c2 >= 0x40) {  // preamble address code
        int row = kPacRow[group];
        if (group != 0 && (c2 & 0x20)) ++row;
        const int indent = (c2 & 0x10) ? ((c2 >> 1) & 0x07) * 4 : 0;
        // guard: a roll-up window stays on screen.
        if (mode_ == Mode::kRollUp && row < rollRows_ - 1) row = rollRows_ - 1;
        if (mode_ == Mode::kRollUp && row != baseRow_) {
            // The window moves with its base row.
            Memory& m = memory_[displayed_];
            char32_t copy[4][kColumns];
            for (int i = 0; i < rollRows_; ++i) {
                const int from = baseRow_ - rollRows_ + 1 + i;
                for (int c = 0; c < kColumns; ++c) copy[i][c] = from >= 0 ? m[from][c] : 0;
            }
            clear(m);
            const int top = row - rollRows_ + 1;
            for (int i = 0; i < rollRows_; ++i)
                if (top + i >= 0)
                    for (int c = 0; c < kColumns; ++c) m[top + i][c] = copy[i][c];
            baseRow_ = row;
        }
        row_ = row;
        column_ = indent;
        return;
    }
    if ((group == 4 || group == 5) && c2 >= 0x20 && c2 <= 0x2F) {
        command(time, c2);
        return;
    }
    if (mode_ == Mode::kNone || mode_ == Mode::kText) return;
    if (group == 7 && c2 >= 0x21 && c2 <= 0x23) {  // tab offsets
        column_ += c2 - 0x20;
        // guard: the cursor stays in the row's last column
        if (column_ >= kColumns) column_ = kColumns - 1;
    } else if (group == 1 && c2 >= 0x20 && c2 <= 0x2F) {  // mid-row code: one cell, a space
        character(U' ');
    } else if (group == 1 && c2 >= 0x30 && c2 <= 0x3F) {
        character(kSpecial[c2 - 0x30]);
    } else if ((group == 2 || group == 3) && c2 >= 0x20 && c2 <= 0x3F) {
        replaceLast(kExtended[group - 2][c2 - 0x20]);
    }
}

void Decoder::command(int64_t time, uint8_t code) {
    switch (code) {
        case kRcl:
            mode_ = Mode::kPopOn;
            break;
        case kRdc:
            mode_ = Mode::kPaintOn;
            break;
        case kRu2:
        case kRu3:
        case kRu4: {
            const int rows = code - kRu2 + 2;
            if (mode_ != Mode::kRollUp) {
                // Entering roll-up erases both memories (CEA-608 B.5).
                if (!shown().empty()) change(time);
                clear(memory_[0]);
                clear(memory_[1]);
                baseRow_ = kRows - 1;
                row_ = baseRow_;
                column_ = 0;
            } else {
                for (int r = 0; r <= baseRow_ - rows; ++r) clearRow(memory_[displayed_], r);
            }
            mode_ = Mode::kRollUp;
            rollRows_ = rows;
            break;
        }
        case kTr:
        case kRtd:
            mode_ = Mode::kText;
            break;
        case kBs:
            if (mode_ == Mode::kNone || mode_ == Mode::kText) break;
            if (column_ > 0) --column_;
            target()[row_][column_] = 0;
            break;
        case kDer:
            if (mode_ == Mode::kNone || mode_ == Mode::kText) break;
            for (int c = column_; c < kColumns; ++c) target()[row_][c] = 0;
            break;
        case kEdm:
            change(time);
            clear(memory_[displayed_]);
            break;
        case kEnm:
            clear(memory_[1 - displayed_]);
            break;
        case kEoc:
            change(time);
            displayed_ = 1 - displayed_;
            mode_ = Mode::kPopOn;
            break;
        case kCr:
            if (mode_ != Mode::kRollUp) break;
            {
                change(time);
                Memory& m = memory_[displayed_];
                const int top = baseRow_ - rollRows_ + 1;
                for (int r = (top > 0 ? top : 0); r < baseRow_; ++r)
                    for (int c = 0; c < kColumns; ++c) m[r][c] = m[r + 1][c];
                clearRow(m, baseRow_);
                column_ = 0;
            }
            break;
        default:  // AOF, AON, FON: nothing to show
            break;
    }
}

void Decoder::character(char32_t c) {
    target()[row_][column_] = c;
    // guard: characters past the last column overwrite it
    if (column_ < kColumns - 1) ++column_;
}

void Decoder::replaceLast(char32_t c) {
    // An extended character follows a basic stand-in, which it replaces.
    if (column_ > 0) --column_;
    character(c);
}

std::string Decoder::shown() const {
    std::string text;
    const Memory& m = memory_[displayed_];
    for (int r = 0; r < kRows; ++r) {
        int first = 0, last = kColumns - 1;
        while (first < kColumns && (m[r][first] == 0 || m[r][first] == U' ')) ++first;
        while (last >= first && (m[r][last] == 0 || m[r][last] == U' ')) --last;
        if (first > last) continue;
        if (!text.empty()) text += '\n';
        for (int c = first; c <= last; ++c) appendUtf8(text, m[r][c] ? m[r][c] : U' ');
    }
    return text;
}

void Decoder::change(int64_t time) {
    const std::string text = shown();
    if (!text.empty() && time > since_) sink_(Cue{since_, time, text});
    since_ = time;
}

void Decoder::finish(int64_t time) { change(time); }

// ---- SubRip and WebVTT ----------------------------------------------------------

SubtitleWriter::SubtitleWriter(OutputStream& out, Format format) : out_(out), format_(format) {
    if (format_ == Format::kVtt) out_.write(reinterpret_cast<const uint8_t*>("WEBVTT\n\n"), 8);
}

void SubtitleWriter::add(const Cue& cue) {
    auto stamp = [this](int64_t us) {
        const int64_t ms = (us + 500) / 1000;
        char text[32];
        std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld%c%03lld", static_cast<long long>(ms / 3600000),
                      static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60),
                      format_ == Format::kSrt ? ',' : '.', static_cast<long long>(ms % 1000));
        return std::string(text);
    };
    ++count_;
    text_.clear();
    if (format_ == Format::kSrt) text_ += std::to_string(count_) + "\n";
    text_ += stamp(cue.start) + " --> " + stamp(cue.end) + "\n";
    // WebVTT reserves '&' and '<' in cue text.
    for (char c : cue.text) {
        if (format_ == Format::kVtt && c == '&')
            text_ += "&amp;";
        else if (format_ == Format::kVtt && c == '<')
            text_ += "&lt;";
        else
            text_ += c;
    }
    text_ += "\n\n";
    out_.write(reinterpret_cast<const uint8_t*>(text_.data()), text_.size());
}

}  // namespace qnvtool::cea608
