#include "tools/qnvtool/caption_files.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <random>

#include "tools/qnvtool/cdp.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool::captions {
namespace {

// Lines of a whole text, numbered from 1, without their line ends (LF or
// CR LF) and trailing blanks; a leading UTF-8 byte order mark is skipped.
class Lines {
public:
    explicit Lines(std::string_view text) : text_(text) {
        if (text_.substr(0, 3) == "\xEF\xBB\xBF") text_.remove_prefix(3);
    }
    bool next(std::string_view& line) {
        if (pos_ >= text_.size()) return false;
        size_t end = text_.find('\n', pos_);
        if (end == std::string_view::npos) end = text_.size();
        line = text_.substr(pos_, end - pos_);
        pos_ = end + 1;
        ++number_;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
            line.remove_suffix(1);
        return true;
    }
    uint32_t number() const { return number_; }

private:
    std::string_view text_;
    size_t pos_ = 0;
    uint32_t number_ = 0;
};

[[noreturn]] void fail(const std::string& name, uint32_t line, const std::string& what) {
    throw Error(name + ":" + std::to_string(line) + ": " + what);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A label "HH:MM:SS:FF" at the start of `line` (one or more hour digits,
// ':' or ';' between the fields); `frameSep` is the separator before the
// frames and `used` the characters taken.
struct Label {
    uint32_t h, m, s, f;
    char frameSep;
    size_t used;
};

bool readLabel(std::string_view line, Label& label) {
    size_t i = 0;
    uint32_t fields[4] = {};
    for (int k = 0; k < 4; ++k) {
        if (k > 0) {
            if (i >= line.size() || (line[i] != ':' && line[i] != ';')) return false;
            if (k == 3) label.frameSep = line[i];
            ++i;
        }
        const size_t start = i;
        // guard: at most four hour digits, two for the other fields.
        const size_t most = k == 0 ? 4 : 2;
        while (i < line.size() && isDigit(line[i]) && i - start < most) fields[k] = fields[k] * 10 + (line[i++] - '0');
        if (i == start || (k > 0 && i - start != 2)) return false;
    }
    label.h = fields[0];
    label.m = fields[1];
    label.s = fields[2];
    label.f = fields[3];
    label.used = i;
    return true;
}

std::string_view skipBlanks(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    return s;
}

// ---- MCC letters ----------------------------------------------------------------
//
// One table for both directions: G..O stand for runs of the DTVCC padding
// triplet, the others for a fixed byte string each.
constexpr uint8_t kPaddingRun[3] = {0xFA, 0x00, 0x00};
constexpr char kFirstRunLetter = 'G';  // one triplet; 'O' nine
constexpr uint32_t kMaxRun = 9;
struct Letter {
    char letter;
    uint8_t size;
    uint8_t bytes[4];
};
constexpr Letter kLetters[] = {
    {'U', 4, {0xE1, 0x00, 0x00, 0x00}}, {'P', 3, {0xFB, 0x80, 0x80}}, {'Q', 3, {0xFC, 0x80, 0x80}},
    {'R', 3, {0xFD, 0x80, 0x80}},        {'S', 2, {0x96, 0x69}},       {'T', 2, {0x61, 0x01}},
    {'Z', 1, {0x00}},
};

bool startsWith(const uint8_t* bytes, size_t size, const uint8_t* what, size_t n) {
    if (size < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (bytes[i] != what[i]) return false;
    return true;
}

const char kHexUpper[] = "0123456789ABCDEF";
const char kHexLower[] = "0123456789abcdef";

}  // namespace

// ---- Time code labels -----------------------------------------------------------

bool labelToCount(const Counting& c, uint32_t h, uint32_t m, uint32_t s, uint32_t f, uint32_t& count) {
    if (m >= 60 || s >= 60 || f >= c.perSecond) return false;
    if (c.dropped && s == 0 && m % 10 != 0 && f < c.dropped) return false;
    const uint64_t minutes = uint64_t(h) * 60 + m;
    const uint64_t n = (minutes * 60 + s) * c.perSecond + f - uint64_t(c.dropped) * (minutes - minutes / 10);
    // guard: counts are 32-bit.
    if (n > UINT32_MAX) return false;
    count = static_cast<uint32_t>(n);
    return true;
}

void countToLabel(const Counting& c, uint32_t count, uint32_t& h, uint32_t& m, uint32_t& s, uint32_t& f) {
    uint64_t n = count;
    if (c.dropped) {
        // Put the dropped numbers back, then split as non-drop-frame.
        const uint64_t perMinute = uint64_t(c.perSecond) * 60 - c.dropped;
        const uint64_t perTen = uint64_t(c.perSecond) * 600 - uint64_t(c.dropped) * 9;
        const uint64_t tens = n / perTen, rest = n % perTen;
        n += uint64_t(c.dropped) * 9 * tens;
        if (rest > c.dropped) n += c.dropped * ((rest - c.dropped) / perMinute);
    }
    f = static_cast<uint32_t>(n % c.perSecond);
    n /= c.perSecond;
    s = static_cast<uint32_t>(n % 60);
    n /= 60;
    m = static_cast<uint32_t>(n % 60);
    h = static_cast<uint32_t>(n / 60);
}

std::string labelText(const Counting& c, uint32_t count, char sep) {
    uint32_t h, m, s, f;
    countToLabel(c, count, h, m, s, f);
    char text[24];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u%c%02u", h, m, s, sep, f);
    return text;
}

bool parseLabel(std::string_view text, const Counting& c, uint32_t& count) {
    Label label;
    return readLabel(text, label) && label.used == text.size() && labelToCount(c, label.h, label.m, label.s, label.f, count);
}

// ---- SCC ------------------------------------------------------------------------

SccFile readScc(std::string_view text, const std::string& name) {
    SccFile file;
    Lines lines(text);
    std::string_view line;
    if (!lines.next(line) || line != kSccHeader)
        fail(name, 1, std::string("not an SCC file: the first line is not \"") + kSccHeader + "\"");
    bool sawLabel = false;
    uint32_t nextFree = 0;
    while (lines.next(line)) {
        const uint32_t n = lines.number();
        if (skipBlanks(line).empty()) continue;
        Label label;
        if (!readLabel(line, label) || label.used >= line.size() || (line[label.used] != '\t' && line[label.used] != ' '))
            fail(name, n, "expected a time code HH:MM:SS:FF (or HH:MM:SS;FF), then a tab and byte pairs");
        const bool drop = label.frameSep == ';';
        if (!sawLabel) file.counting = Counting{30, drop ? 2u : 0u};
        if (drop != (file.counting.dropped != 0))
            fail(name, n, "drop-frame (';') and non-drop-frame (':') time codes are mixed");
        uint32_t count;
        if (!labelToCount(file.counting, label.h, label.m, label.s, label.f, count))
            fail(name, n, "time code " + std::string(line.substr(0, label.used)) + " does not exist at 29.97 fps" +
                              (drop ? " drop-frame" : ""));
        if (sawLabel && count < file.labels.back()) fail(name, n, "time code earlier than the line before");
        sawLabel = true;
        file.labels.push_back(count);

        uint32_t frame = count > nextFree ? count : nextFree;
        if (frame != count) ++file.queued;
        std::string_view rest = skipBlanks(line.substr(label.used));
        if (rest.empty()) fail(name, n, "no byte pairs after the time code");
        while (!rest.empty()) {
            size_t word = 0;
            while (word < rest.size() && rest[word] != ' ' && rest[word] != '\t') ++word;
            const std::string_view w = rest.substr(0, word);
            int d[4] = {-1, -1, -1, -1};
            for (size_t i = 0; i < w.size() && i < 4; ++i) d[i] = hexValue(w[i]);
            if (w.size() != 4 || d[0] < 0 || d[1] < 0 || d[2] < 0 || d[3] < 0)
                fail(name, n, "'" + printable(w) + "' is not a byte pair of four hex digits");
            // guard: frame counts stay 32-bit.
            if (frame == UINT32_MAX) fail(name, n, "time code out of range");
            file.pairs.push_back(
                {frame++, static_cast<uint8_t>(d[0] << 4 | d[1]), static_cast<uint8_t>(d[2] << 4 | d[3]), count});
            rest = skipBlanks(rest.substr(word));
        }
        nextFree = frame;
    }
    if (!sawLabel) fail(name, lines.number(), "no captions");
    return file;
}

const SccPair* SccCursor::at(uint32_t frame) const {
    const auto it = std::lower_bound(file_.pairs.begin(), file_.pairs.end(), frame,
                                     [](const SccPair& p, uint32_t f) { return p.frame < f; });
    return it != file_.pairs.end() && it->frame == frame ? &*it : nullptr;
}

SccCursor::Leftover SccCursor::leftover(uint32_t end) const {
    Leftover l;
    for (const SccPair& p : file_.pairs) {
        l.before += p.frame < start_ ? 1 : 0;
        l.after += p.frame >= end ? 1 : 0;
        if (p.label < end && p.frame >= end) l.queuePastEnd = p.frame - end + 1;
    }
    for (uint32_t label : file_.labels) l.labelInside = l.labelInside || (label >= start_ && label < end);
    return l;
}

SccWriter::SccWriter(OutputStream& out, bool dropFrame) : out_(out), counting_{30, dropFrame ? 2u : 0u} {
    const std::string head = std::string(kSccHeader) + "\n\n";
    out_.write(reinterpret_cast<const uint8_t*>(head.data()), head.size());
}

void SccWriter::add(uint32_t frame, uint8_t b1, uint8_t b2) {
    if ((b1 & 0x7F) == 0 && (b2 & 0x7F) == 0) return;  // padding
    if (!open_ || frame != next_) {
        if (open_) {
            line_ += "\n\n";
            out_.write(reinterpret_cast<const uint8_t*>(line_.data()), line_.size());
        }
        line_ = labelText(counting_, frame, counting_.dropped ? ';' : ':');
        line_ += '\t';
        open_ = true;
    } else {
        line_ += ' ';
    }
    const char word[4] = {kHexLower[b1 >> 4], kHexLower[b1 & 15], kHexLower[b2 >> 4], kHexLower[b2 & 15]};
    line_.append(word, 4);
    next_ = frame + 1;
    ++pairs_;
}

void SccWriter::finish() {
    if (!open_) return;
    line_ += "\n\n";
    out_.write(reinterpret_cast<const uint8_t*>(line_.data()), line_.size());
    open_ = false;
}

// ---- MCC ------------------------------------------------------------------------

const MccRate kMccRates[7] = {
    {"24", {24, 0}, 24}, {"25", {25, 0}, 25}, {"30", {30, 0}, 30}, {"30DF", {30, 2}, 29},
    {"50", {50, 0}, 50}, {"60", {60, 0}, 60}, {"60DF", {60, 4}, 59},
};

void mccEncode(const uint8_t* bytes, size_t size, std::string& out) {
    size_t i = 0;
    while (i < size) {
        uint32_t run = 0;
        while (run < kMaxRun && startsWith(bytes + i + 3 * run, size - i - 3 * run, kPaddingRun, 3)) ++run;
        if (run) {
            out += static_cast<char>(kFirstRunLetter + run - 1);
            i += 3 * size_t(run);
            continue;
        }
        bool lettered = false;
        for (const Letter& l : kLetters) {
            if (startsWith(bytes + i, size - i, l.bytes, l.size)) {
                out += l.letter;
                i += l.size;
                lettered = true;
                break;
            }
        }
        if (lettered) continue;
        out += kHexUpper[bytes[i] >> 4];
        out += kHexUpper[bytes[i] & 15];
        ++i;
    }
}

bool mccDecode(std::string_view text, std::vector<uint8_t>& bytes, size_t& badColumn) {
    bytes.clear();
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c >= kFirstRunLetter && c < kFirstRunLetter + int(kMaxRun)) {
            for (int k = 0; k <= c - kFirstRunLetter; ++k) bytes.insert(bytes.end(), kPaddingRun, kPaddingRun + 3);
            ++i;
            continue;
        }
        bool lettered = false;
        for (const Letter& l : kLetters) {
            if (c == l.letter) {
                bytes.insert(bytes.end(), l.bytes, l.bytes + l.size);
                lettered = true;
                break;
            }
        }
        if (lettered) {
            ++i;
            continue;
        }
        const int hi = hexValue(c), lo = i + 1 < text.size() ? hexValue(text[i + 1]) : -1;
        if (hi < 0 || lo < 0) {
            badColumn = i;
            return false;
        }
        bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
        i += 2;
    }
    return true;
}

MccFile readMcc(std::string_view text, const std::string& name) {
    static constexpr std::string_view kFormat = "File Format=MacCaption_MCC V";
    MccFile file;
    Lines lines(text);
    std::string_view line;
    if (!lines.next(line) || line.substr(0, kFormat.size()) != kFormat)
        fail(name, 1, "not an MCC file: the first line is not \"File Format=MacCaption_MCC V1.0\" (or V2.0)");
    const std::string_view version = line.substr(kFormat.size());
    if (version == "1.0")
        file.version = 1;
    else if (version == "2.0")
        file.version = 2;
    else
        fail(name, 1, "unknown MCC version '" + printable(version) + "'");

    std::vector<uint8_t> anc;
    while (lines.next(line)) {
        const uint32_t n = lines.number();
        if (skipBlanks(line).empty() || line.substr(0, 2) == "//") continue;
        Label label;
        if (!readLabel(line, label)) {
            const size_t eq = line.find('=');
            if (eq == std::string_view::npos || eq == 0)
                fail(name, n, "expected a time code line, a Key=Value line or a // comment");
            if (line.substr(0, eq) == "Time Code Rate") {
                if (!file.packets.empty()) fail(name, n, "Time Code Rate after the first caption line");
                const std::string_view value = line.substr(eq + 1);
                file.rate = nullptr;
                for (const MccRate& r : kMccRates)
                    if (value == r.text) file.rate = &r;
                if (!file.rate)
                    fail(name, n, "unknown Time Code Rate '" + printable(value) + "' (24, 25, 30, 30DF, 50, 60, 60DF)");
            }
            continue;
        }
        if (!file.rate) fail(name, n, "a caption line before the Time Code Rate= line");
        // A suffix ".N" or ",N" after the frames numbers further packets
        // of the frame; the packets keep their order either way.
        size_t at = label.used;
        if (at < line.size() && (line[at] == '.' || line[at] == ',')) {
            ++at;
            while (at < line.size() && (isDigit(line[at]) || line[at] == ',' || line[at] == '.')) ++at;
        }
        if (at >= line.size() || (line[at] != '\t' && line[at] != ' '))
            fail(name, n, "expected a tab and the packet's hex data after the time code");
        uint32_t count;
        if (!labelToCount(file.rate->counting, label.h, label.m, label.s, label.f, count))
            fail(name, n, "time code " + std::string(line.substr(0, label.used)) + " does not exist at Time Code Rate " +
                              file.rate->text);
        if (!file.packets.empty() && count < file.packets.back().frame)
            fail(name, n, "time code earlier than the line before");
        size_t column = 0;
        const std::string_view data = skipBlanks(line.substr(at));
        if (!mccDecode(data, anc, column))
            fail(name, n, "'" + printable(data.substr(column, 1)) + "' at column " +
                              std::to_string(line.size() - data.size() + column + 1) +
                              " is neither a hex digit pair nor a letter G-U, Z");
        if (anc.size() < 4 || anc[0] != 0x61 || anc[1] != 0x01)
            fail(name, n, "not a caption packet: it does not begin with DID 61, SDID 01");
        if (anc.size() != size_t(anc[2]) + 4)
            fail(name, n, "the data count says " + std::to_string(anc[2]) + " bytes, the line holds " +
                              std::to_string(anc.size() - 4));
        uint8_t sum = 0;
        for (size_t i = 0; i + 1 < anc.size(); ++i) sum = static_cast<uint8_t>(sum + anc[i]);
        if (sum != anc.back()) fail(name, n, "bad ancillary packet checksum");
        cdp::Packet p;
        const cdp::ReadResult r = cdp::read(anc.data() + 3, anc[2], p);
        if (r != cdp::ReadResult::kOk) fail(name, n, std::string("CDP: ") + cdp::readResultText(r));
        file.packets.push_back({count, n, std::vector<uint8_t>(anc.begin() + 3, anc.end() - 1)});
    }
    if (!file.rate) fail(name, lines.number(), "no Time Code Rate= line");
    return file;
}

MccWriter::MccWriter(OutputStream& out, const MccRate& rate, const MccHeaderFields& header)
    : out_(out), rate_(rate) {
    std::string head = "File Format=MacCaption_MCC V1.0\n\n";
    head +=
        "///////////////////////////////////////////////////////////////////////////////////\n"
        "// Ancillary data packets, one per line\n"
        "//\n"
        "// Each line: HH:MM:SS:FF(tab) the packet in hexadecimal, from its DID to its checksum.\n"
        "// Letters stand for repeated bytes:\n"
        "//   G..O  1 to 9 x (FAh 00h 00h)   P  FBh 80h 80h   Q  FCh 80h 80h   R  FDh 80h 80h\n"
        "//   S     96h 69h                  T  61h 01h       U  E1h 00h 00h 00h\n"
        "//   Z     00h\n"
        "///////////////////////////////////////////////////////////////////////////////////\n\n";
    head += "UUID=" + header.uuid + "\n";
    head += "Creation Program=qnvtool\n";
    head += "Creation Date=" + header.creationDate + "\n";
    head += "Creation Time=" + header.creationTime + "\n";
    head += std::string("Time Code Rate=") + rate.text + "\n\n";
    out_.write(reinterpret_cast<const uint8_t*>(head.data()), head.size());
}

void MccWriter::add(uint32_t frame, const uint8_t* cdpBytes, size_t size) {
    // guard: a CDP longer than a data count can say is not written.
    if (size > cdp::kMaxBytes) return;
    anc_.assign({0x61, 0x01, static_cast<uint8_t>(size)});
    anc_.insert(anc_.end(), cdpBytes, cdpBytes + size);
    uint8_t sum = 0;
    for (uint8_t b : anc_) sum = static_cast<uint8_t>(sum + b);
    anc_.push_back(sum);
    // ':' before the frames for every rate: the rate line says drop-frame.
    line_ = labelText(rate_.counting, frame, ':');
    line_ += '\t';
    mccEncode(anc_.data(), anc_.size(), line_);
    line_ += '\n';
    out_.write(reinterpret_cast<const uint8_t*>(line_.data()), line_.size());
    ++packets_;
}

MccHeaderFields currentMccHeader() {
    MccHeaderFields h;
    std::random_device random;
    char uuid[40];
    uint32_t w[4] = {random(), random(), random(), random()};
    w[1] = (w[1] & 0xFFFF0FFFu) | 0x00004000u;  // version 4
    w[2] = (w[2] & 0x3FFFFFFFu) | 0x80000000u;  // variant 1
    std::snprintf(uuid, sizeof uuid, "%08X-%04X-%04X-%04X-%04X%08X", w[0], w[1] >> 16, w[1] & 0xFFFF, w[2] >> 16,
                  w[2] & 0xFFFF, w[3]);
    h.uuid = uuid;
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char text[64];
    std::strftime(text, sizeof text, "%A, %B ", &tm);
    h.creationDate = text + std::to_string(tm.tm_mday) + ", " + std::to_string(tm.tm_year + 1900);
    std::strftime(text, sizeof text, "%H:%M:%S", &tm);
    h.creationTime = text;
    return h;
}

}  // namespace qnvtool::captions
