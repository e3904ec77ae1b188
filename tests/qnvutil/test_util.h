// File, command, box and diagnostics helpers shared by the tests.
#ifndef QNVUTIL_TESTS_TEST_UTIL_H
#define QNVUTIL_TESTS_TEST_UTIL_H

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qnvutil/qxutil.h"

namespace qnvtest {

// The bytes of a file under tests/data (none when it is missing).
inline std::vector<uint8_t> readData(const std::string& path) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/" + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The parts one after the other.
inline std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A temporary file holding `bytes`, removed with the object.
class TempFile {
public:
    explicit TempFile(const std::vector<uint8_t>& bytes = {}) {
        char name[] = "/tmp/qnv_test_XXXXXX";
        const int fd = ::mkstemp(name);
        path_ = name;
        if (fd >= 0) {
            if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) path_.clear();
            ::close(fd);
        }
    }
    ~TempFile() { std::remove(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }
    std::string text() const {
        std::ifstream in(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    std::vector<uint8_t> bytes() const {
        const std::string t = text();
        return {t.begin(), t.end()};
    }

private:
    std::string path_;
};

// The box of type `tag` (header included) in an MP4 file, or nothing.
inline std::vector<uint8_t> findBox(const std::vector<uint8_t>& mp4, const char* tag) {
    const auto at = std::search(mp4.begin(), mp4.end(), tag, tag + 4);
    if (at - mp4.begin() < 4 || mp4.end() - at < 4) return {};
    const size_t size = size_t(at[-4]) << 24 | size_t(at[-3]) << 16 | size_t(at[-2]) << 8 | at[-1];
    return size > size_t(mp4.end() - at) + 4 ? std::vector<uint8_t>{} : std::vector<uint8_t>(at - 4, at - 4 + size);
}

// A box of type `tag` around `payload`.
inline std::vector<uint8_t> boxed(const std::vector<uint8_t>& payload, const char* tag) {
    const uint32_t size = static_cast<uint32_t>(payload.size() + 8);
    std::vector<uint8_t> box = {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size),
                                uint8_t(tag[0]),     uint8_t(tag[1]),     uint8_t(tag[2]),    uint8_t(tag[3])};
    box.insert(box.end(), payload.begin(), payload.end());
    return box;
}

// Collects the library's diagnostic lines while alive.
class LogCapture {
public:
    LogCapture() { QxSetLogSink(&LogCapture::sink, this); }
    ~LogCapture() { QxSetLogSink(nullptr, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<std::string> lines;
    std::vector<uint32_t> levels;

private:
    static void sink(uint32_t level, const char* line, void* self) {
        static_cast<LogCapture*>(self)->lines.push_back(line);
        static_cast<LogCapture*>(self)->levels.push_back(level);
    }
};

struct Unit {
    uint32_t offset;  // of the NAL header
    std::vector<uint8_t> bytes;
    uint32_t hevcType() const { return bytes.empty() ? 64 : (bytes[0] >> 1) & 63u; }
};

// Units of an Annex B stream (00 00 01 delimited; zeros before a start code
// are not part of the preceding unit).
inline std::vector<Unit> annexBUnits(const std::vector<uint8_t>& s) {
    std::vector<Unit> units;
    size_t begin = 0;
    auto close = [&](size_t end) {
        while (end > begin && s[end - 1] == 0) --end;
        if (begin > 0) units.push_back({static_cast<uint32_t>(begin), {s.begin() + begin, s.begin() + end}});
    };
    for (size_t i = 0; i + 2 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            close(i);
            begin = i + 3;
            i += 2;
        }
    }
    close(s.size());
    return units;
}

// Standard output of a shell command.
inline std::string runCommand(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

// The qnvtool of this build, and whether it was built.
inline const std::string kQnvtool = std::string(QNV_BINARY_DIR) + "/bin/qnvtool";
inline bool qnvtoolBuilt() { return !runCommand("test -x " + kQnvtool + " && echo yes").empty(); }

// A trace_headers reference of slice headers (tests/data/*/slices/*.ref): a
// "SLICE" line per header, then "pos name bits value" lines. Elements that
// `omit` names are left out of `lines`; `end` is the bit after the last
// element, the omitted ones counted where `endAfterOmitted` says so.
struct TracedHeader {
    std::vector<std::string> lines;  // "pos name value"
    uint32_t end = 0;
};

template <class Omit>
std::vector<TracedHeader> loadHeaderTrace(const std::string& path, Omit omit, bool endAfterOmitted) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/" + path);
    std::vector<TracedHeader> headers;
    for (std::string line; std::getline(in, line);) {
        if (line == "SLICE") {
            headers.emplace_back();
            continue;
        }
        if (headers.empty()) continue;
        std::istringstream f(line);
        uint32_t pos = 0;
        std::string element, bits, value;
        f >> pos >> element >> bits >> value;
        const bool omitted = omit(element);
        if (!omitted || endAfterOmitted) headers.back().end = pos + static_cast<uint32_t>(bits.size());
        if (!omitted) headers.back().lines.push_back(std::to_string(pos) + " " + element + " " + value);
    }
    return headers;
}

}  // namespace qnvtest

#endif
