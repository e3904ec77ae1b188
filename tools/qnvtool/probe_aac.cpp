// `qnvtool probe FILE.aac`: the ADTS headers of an AAC stream, one line each,
// or with --first a summary of the stream and its first header in full.
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>

#include "qnvutil/aac.h"
#include "qnvutil/aac/aac_internal.h"
#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

constexpr size_t kShortHeader = 7;  // header bytes without a CRC word

struct Frame {
    size_t offset;
    ADTSHeader header;
    uint32_t headerBits;  // as the library read it: 56, or 72 with the CRC word
};

// The header at `offset`, read through a buffer that stops at the file's end.
Frame readFrame(const std::vector<uint8_t>& data, size_t offset) {
    size_t available = data.size() - offset < 9 ? data.size() - offset : 9;
    BitBuffer bb{const_cast<uint8_t*>(data.data() + offset), static_cast<uint32_t>(available),
                 static_cast<uint32_t>(available * 8), 0};
    Frame f{offset, {}, 0};
    qnvutilReadADTS(&bb, &f.header);
    f.headerBits = bb.bitPos;
    return f;
}

bool syncAt(const std::vector<uint8_t>& data, size_t offset) {
    return data.size() - offset >= kShortHeader && data[offset] == 0xFF && (data[offset + 1] & 0xF6) == 0xF0;
}

bool detectAdts(const std::vector<uint8_t>& data) {
    if (!syncAt(data, 0)) return false;
    uint32_t length = readFrame(data, 0).header.aac_frame_length;
    // A second frame, when the file has one, must start where the first ends.
    return length >= kShortHeader && (length >= data.size() || syncAt(data, length));
}

struct Walk {
    std::vector<Frame> frames;
    std::string problem;  // why the walk stopped before the end of the file
};

// Every frame up to the end of the file or to a place without a header.
Walk walk(const std::vector<uint8_t>& data) {
    Walk w;
    size_t offset = 0;
    while (offset < data.size()) {
        if (!syncAt(data, offset)) {
            w.problem = "offset " + std::to_string(offset) + ": no ADTS header";
            break;
        }
        w.frames.push_back(readFrame(data, offset));
        uint32_t length = w.frames.back().header.aac_frame_length;
        if (length < kShortHeader) {
            w.problem = "offset " + std::to_string(offset) + ": frame length " + std::to_string(length);
            break;
        }
        offset += length;
    }
    return w;
}

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

void printTable(const std::vector<Frame>& frames, size_t fileSize, std::ostream& out) {
    char line[256];
    std::snprintf(line, sizeof line, "%6s %9s %6s %2s %5s %6s %7s %5s %6s %4s %4s %4s %4s %3s %3s %8s %6s %6s\n",
                  "frame", "offset", "length", "id", "layer", "absent", "profile", "index", "rate", "chan", "priv",
                  "orig", "home", "cib", "cis", "fullness", "blocks", "crc");
    out << line;
    for (size_t i = 0; i < frames.size(); ++i) {
        const ADTSHeader& h = frames[i].header;
        std::snprintf(line, sizeof line,
                      "%6zu %9zu %6u %2u %5u %6u %7u %5u %6u %4u %4u %4u %4u %3u %3u    0x%03X %6u %6s%s\n", i,
                      frames[i].offset, h.aac_frame_length, h.ID, h.layer, h.protection_absent, h.profile,
                      h.sampling_frequency_index, qnv::aacFrequencyFromIndex(h.sampling_frequency_index),
                      h.channel_configuration, h.private_bit, h.original_copy, h.home,
                      h.copyright_identification_bit, h.copyright_identification_start, h.adts_buffer_fullness,
                      h.number_of_raw_data_blocks_in_frame, crcText(frames[i]).c_str(),
                      frames[i].offset + h.aac_frame_length > fileSize ? "  (truncated)" : "");
        out << line;
    }
    out << frames.size() << " ADTS frames\n";
}

void printSummary(const std::vector<uint8_t>& data, const std::vector<Frame>& frames, std::ostream& out) {
    const size_t fileSize = data.size();
    const Frame& first = frames.front();
    const ADTSHeader& h = first.header;
    uint64_t samples = 0;
    for (const Frame& f : frames) samples += 1024u * (f.header.number_of_raw_data_blocks_in_frame + 1);
    uint32_t rate = qnv::aacFrequencyFromIndex(h.sampling_frequency_index);
    char line[256];
    out << "ADTS stream: " << frames.size() << " frames, " << fileSize << " bytes\n";
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
    const size_t available = data.size() < 9 ? data.size() : 9;
    BitBuffer bb{const_cast<uint8_t*>(data.data()), static_cast<uint32_t>(available),
                 static_cast<uint32_t>(available * 8), 0};
    ADTSHeader again{};
    qnv::readAdtsHeader(&bb, &again, &lines);
    // The CRC word is read when protection_absent is set (this library's rule),
    // so for streams without protection it holds the first payload bits.
    if (!lines.crc) out << "  crc_check                            -\n";
}

void runAdts(const std::vector<uint8_t>& data, const ProbeOptions& options, std::ostream& out) {
    Walk w = walk(data);
    if (w.frames.empty()) throw Error(w.problem);
    if (options.first)
        printSummary(data, w.frames, out);
    else
        printTable(w.frames, data.size(), out);
    if (!w.problem.empty()) throw Error(w.problem + " (after " + std::to_string(w.frames.size()) + " frames)");
}

const ProberRegistration kAac({"aac", detectAdts, runAdts});

}  // namespace
}  // namespace qnvtool
