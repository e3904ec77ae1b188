// `qnvtool probe FILE`: stream probers register here, one per stream kind.
#ifndef QNVTOOL_PROBE_H
#define QNVTOOL_PROBE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tools/qnvtool/probe_json.h"

#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {

struct ProbeOptions {
    bool first = false;   // stop after the first parameter set / header
    bool slices = false;  // list every slice (segment) header too
    bool hdr = false;     // list the colour SEI, HDR10+ and Dolby Vision units of each access unit instead
};

struct Prober {
    const char* name;  // value of --kind, e.g. "h264"
    // True when the stream's first bytes (up to kDetectBytes) are this
    // prober's kind of stream. Detections of different probers must not
    // overlap.
    bool (*detect)(const std::vector<uint8_t>& head);
    // Reads the stream and prints its description; throws Error on failure.
    void (*run)(UnitReader& stream, const ProbeOptions& options, std::ostream& out);
};

// Prints the elements of a JSON array as they come, `indent` spaces in,
// in the layout of nlohmann::json::dump(2): "[" is written with the first
// element, so that nothing is printed for a list that stays empty.
class JsonArrayPrinter {
public:
    JsonArrayPrinter(std::ostream& out, int indent) : out_(out), indent_(indent) {}
    void add(const Json& element);
    // Closes the array ("[]" when empty).
    void close();
    size_t size() const { return count_; }

private:
    std::ostream& out_;
    int indent_;
    size_t count_ = 0;
};

// The --hdr listing of an H.264 or HEVC stream (probe_colour.cpp).
void probeColour(UnitReader& stream, bool hevc, const ProbeOptions& options, std::ostream& out);

struct ProberRegistration {
    explicit ProberRegistration(const Prober& prober);
};

}  // namespace qnvtool

#endif
