// Helpers of the HEVC tests: fixture files, Annex B units, captured
// diagnostics.
#ifndef QNVUTIL_TESTS_HEVC_TEST_UTIL_H
#define QNVUTIL_TESTS_HEVC_TEST_UTIL_H

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qnvutil/hevc.h"
#include "qnvutil/qxutil.h"

namespace hevctest {

inline std::vector<uint8_t> readFixture(const std::string& name) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/hevc/" + name, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

struct Unit {
    uint32_t offset;  // of the NAL header
    std::vector<uint8_t> bytes;
    uint32_t type() const { return bytes.empty() ? 64 : (bytes[0] >> 1) & 63u; }
};

// Units of an Annex B stream (00 00 01 delimited; zeros before a start code
// are not part of the preceding unit).
inline std::vector<Unit> annexBUnits(const std::vector<uint8_t>& s) {
    std::vector<Unit> units;
    size_t i = 0, begin = 0;
    bool open = false;
    auto close = [&](size_t end) {
        while (end > begin && s[end - 1] == 0) --end;
        if (open) units.push_back({static_cast<uint32_t>(begin), {s.begin() + begin, s.begin() + end}});
    };
    while (i + 2 < s.size()) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            close(i);
            begin = i + 3;
            open = true;
            i += 3;
        } else {
            ++i;
        }
    }
    close(s.size());
    return units;
}

// Standard output of a shell command.
inline std::string runCommand(const std::string& command) {
    std::string result;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) result.append(buf, n);
        pclose(p);
    }
    return result;
}

// Collects diagnostic lines while alive.
class LogCapture {
public:
    LogCapture() { QxSetLogSink(&LogCapture::sink, this); }
    ~LogCapture() { QxSetLogSink(nullptr, nullptr); }
    std::vector<std::string> lines;

private:
    static void sink(uint32_t, const char* line, void* self) {
        static_cast<LogCapture*>(self)->lines.push_back(line);
    }
};

// A reader over bytes with the spare byte the bit reader may touch.
struct Bytes {
    std::vector<uint8_t> data;
    BitBuffer reader() { return BitBuffer{data.data(), static_cast<uint32_t>(data.size()), static_cast<uint32_t>(data.size() * 8), 0}; }
};

}  // namespace hevctest

#endif
