// `qnvtool probe FILE`: stream probers register here, one per stream kind.
#ifndef QNVTOOL_PROBE_H
#define QNVTOOL_PROBE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace qnvtool {

struct ProbeOptions {
    bool first = false;   // stop after the first parameter set / header
    bool slices = false;  // list every slice (segment) header too
};

struct Prober {
    const char* name;  // value of --kind, e.g. "h264"
    // True when the data is this prober's kind of stream. Detections of
    // different probers must not overlap.
    bool (*detect)(const std::vector<uint8_t>& data);
    // Prints the stream's description; throws Error on failure.
    void (*run)(const std::vector<uint8_t>& data, const ProbeOptions& options, std::ostream& out);
};

struct ProberRegistration {
    explicit ProberRegistration(const Prober& prober);
};

}  // namespace qnvtool

#endif
