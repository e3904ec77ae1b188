// `qnvtool probe FILE.aac`: the ADTS headers of an AAC stream, one line each,
// or with --first a summary of the stream and its first header in full.
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>

#include "qnvutil/aac.h"
#include "qnvutil/aac/aac_internal.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

constexpr size_t kShortHeader = 7;  // header bytes without a CRC word

struct Frame {
    uint64_t offset;
    ADTSHeader header;
    uint32_t headerBits;  // as the library read it: 56, or 72 with the CRC word
    bool truncated;       // the stream ends inside the frame
};

// The header at the start of `bytes` (`available` of them, at most 9 are read).
Frame readFrame(const uint8_t* bytes, size_t available, uint64_t offset) {
    available = available < 9 ? available : 9;
    BitBuffer bb{const_cast<uint8_t*>(bytes), static_cast<uint32_t>(available), static_cast<uint32_t>(available * 8),
                 0};
    Frame f{offset, {}, 0, false};
    qnvutilReadADTS(&bb, &f.header);
    f.headerBits = bb.bitPos;
    return f;
}

bool syncAt(const uint8_t* bytes, size_t available) {
    return available >= kShortHeader && bytes[0] == 0xFF && (bytes[1] & 0xF6) == 0xF0;
}

bool detectAdts(const std::vector<uint8_t>& head) {
    if (!syncAt(head.data(), head.size())) return false;
    const uint32_t length = readFrame(head.data(), head.size(), 0).header.aac_frame_length;
    // A second frame, when the head holds one, must start where the first ends.
    return length >= kShortHeader && (length >= head.size() || syncAt(head.data() + length, head.size() - length));
}

// The frames of a stream one at a time, up to its end or to a place without
// a header.
class FrameWalk {
public:
    explicit FrameWalk(UnitReader& stream) : stream_(stream) {}
    bool next(Frame& f) {
        if (stopped_) return false;
        size_t available = 0;
        const uint8_t* bytes = stream_.peek(9, available);
        if (available == 0) return stopped_ = true, false;
        const uint64_t offset = stream_.position();
        if (!syncAt(bytes, available)) {
            problem_ = "offset " + std::to_string(offset) + ": no ADTS header";
            return stopped_ = true, false;
        }
        f = readFrame(bytes, available, offset);
        const uint32_t length = f.header.aac_frame_length;
        if (length < kShortHeader) {
            problem_ = "offset " + std::to_string(offset) + ": frame length " + std::to_string(length);
            stopped_ = true;
            return true;
        }
        f.truncated = stream_.skip(length) < length;
        return true;
    }
    // Why the walk stopped before the end of the stream ("" when it did not).
    const std::string& problem() const { return problem_; }

private:
    UnitReader& stream_;
    std::string problem_;
    bool stopped_ = false;
};

const char* profileName(uint32_t profile) {
    static const char* const kNames[4] = {"Main", "LC", "SSR", "LTP"};
    return kNames[profile & 3];
}

uint32_t channelsOf(uint32_t configuration) { return configuration == 7 ? 8 : configuration; }

std::string crcText(const Frame& f) {
    char text[16] = "-";
    if (f.headerBits > 56) std::snprintf(text, sizeof text, "0x%04X", f.header.crc_check);
    return text;
}

void printTable(FrameWalk& walk, std::ostream& out) {
    char line[256];
    std::snprintf(line, sizeof line, "%6s %9s %6s %2s %5s %6s %7s %5s %6s %4s %4s %4s %4s %3s %3s %8s %6s %6s\n",
                  "frame", "offset", "length", "id", "layer", "absent", "profile", "index", "rate", "chan", "priv",
                  "orig", "home", "cib", "cis", "fullness", "blocks", "crc");
    size_t count = 0;
    for (Frame f; walk.next(f); ++count) {
        if (count == 0) out << line;
        const ADTSHeader& h = f.header;
        std::snprintf(line, sizeof line,
                      "%6zu %9llu %6u %2u %5u %6u %7u %5u %6u %4u %4u %4u %4u %3u %3u    0x%03X %6u %6s%s\n", count,
                      static_cast<unsigned long long>(f.offset), h.aac_frame_length, h.ID, h.layer,
                      h.protection_absent, h.profile, h.sampling_frequency_index,
                      qnv::aacFrequencyFromIndex(h.sampling_frequency_index), h.channel_configuration, h.private_bit,
                      h.original_copy, h.home, h.copyright_identification_bit, h.copyright_identification_start,
                      h.adts_buffer_fullness, h.number_of_raw_data_blocks_in_frame, crcText(f).c_str(),
                      f.truncated ? "  (truncated)" : "");
        out << line;
    }
    if (count == 0) throw Error(walk.problem());
    clearProgressLine();
    out << count << " ADTS frames\n";
    if (!walk.problem().empty()) throw Error(walk.problem() + " (after " + std::to_string(count) + " frames)");
}

void printSummary(UnitReader& stream, FrameWalk& walk, std::ostream& out) {
    // The first header's bytes, for listing its elements.
    size_t available = 0;
    const uint8_t* head = stream.peek(9, available);
    const std::vector<uint8_t> firstBytes(head, head + available);
    Frame first{};
    size_t count = 0;
    uint64_t samples = 0;
    for (Frame f; walk.next(f); ++count) {
        if (count == 0) first = f;
        samples += 1024u * (f.header.number_of_raw_data_blocks_in_frame + 1);
    }
    if (count == 0) throw Error(walk.problem());
    uint64_t fileSize = stream.position();
    fileSize += stream.skip(UINT64_MAX);  // the bytes after a problem count too
    clearProgressLine();
    const ADTSHeader& h = first.header;
    uint32_t rate = qnv::aacFrequencyFromIndex(h.sampling_frequency_index);
    char line[256];
    out << "ADTS stream: " << count << " frames, " << fileSize << " bytes\n";
    std::snprintf(line, sizeof line, "  profile %s, %u Hz (index %u), channel configuration %u (%u channel%s)\n",
                  profileName(h.profile), rate, h.sampling_frequency_index, h.channel_configuration,
                  channelsOf(h.channel_configuration), channelsOf(h.channel_configuration) == 1 ? "" : "s");
    out << line;
    if (rate != 0) {
        double seconds = double(samples) / rate;
        std::snprintf(line, sizeof line, "  %llu samples, %.3f s, %.1f kbit/s\n", (unsigned long long)samples,
                      seconds, seconds > 0 ? fileSize * 8 / seconds / 1000 : 0.0);
        out << line;
    }
    out << "first header (" << first.headerBits << " bits):\n";
    // The elements as the library's description reads them.
    struct Lines : qnv::syntax::FieldSink {
        std::ostream& out;
        bool crc = false;
        explicit Lines(std::ostream& o) : out(o) {}
        void field(uint32_t, const qnv::syntax::Name& name, int64_t value, int32_t, bool) override {
            char line[256];
            const std::string_view n = name.text;
            if (n == "syncword")
                std::snprintf(line, sizeof line, "  %-36s 0x%03X\n", name.text, static_cast<uint32_t>(value));
            else if (n == "crc_check")
                std::snprintf(line, sizeof line, "  %-36s 0x%04X\n", name.text, static_cast<uint32_t>(value));
            else
                std::snprintf(line, sizeof line, "  %-36s %u\n", name.text, static_cast<uint32_t>(value));
            crc = crc || n == "crc_check";
            out << line;
        }
    } lines(out);
    available = firstBytes.size() < 9 ? firstBytes.size() : 9;
    BitBuffer bb{const_cast<uint8_t*>(firstBytes.data()), static_cast<uint32_t>(available),
                 static_cast<uint32_t>(available * 8), 0};
    ADTSHeader again{};
    qnv::readAdtsHeader(&bb, &again, &lines);
    // The CRC word is read when protection_absent is set (this library's rule),
    // so for streams without protection it holds the first payload bits.
    if (!lines.crc) out << "  crc_check                            -\n";
}

void runAdts(UnitReader& stream, const ProbeOptions& options, std::ostream& out) {
    FrameWalk walk(stream);
    if (!options.first) {
        printTable(walk, out);
        return;
    }
    printSummary(stream, walk, out);
    if (!walk.problem().empty()) throw Error(walk.problem());
}

const ProberRegistration kAac({"aac", detectAdts, runAdts});

}  // namespace
}  // namespace qnvtool
