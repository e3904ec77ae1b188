// The library's diagnostics while qnvtool works on a stream.
#ifndef QNVTOOL_LIBRARY_LOG_H
#define QNVTOOL_LIBRARY_LOG_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "qnvutil/qxutil.h"

namespace qnvtool {

// Collects the library's diagnostics while a stream is processed, so that a
// failure stays one line and a warning repeated for every access unit is
// reported once.
class LibraryLog {
public:
    LibraryLog() { QxSetLogSink(&LibraryLog::collect, this); }
    ~LibraryLog() { QxSetLogSink(nullptr, nullptr); }
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;

    std::string last() const { return lines_.empty() ? std::string() : lines_.back().first; }
    void reportWarnings() const {
        for (const auto& [line, count] : lines_)
            std::fprintf(stderr, "qnvtool: warning: %s (%zu times)\n", line.c_str(), count);
    }

private:
    static void collect(uint32_t, const char* line, void* context) {
        auto& lines = static_cast<LibraryLog*>(context)->lines_;
        for (auto& entry : lines)
            if (entry.first == line) {
                ++entry.second;
                return;
            }
        lines.emplace_back(line, 1);
    }
    std::vector<std::pair<std::string, size_t>> lines_;
};

}  // namespace qnvtool

#endif
