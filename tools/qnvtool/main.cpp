// qnvtool: command-line access to qnvUtil.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <utility>

#include "qnvutil/qxutil.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {
std::vector<std::function<void(CLI::App&)>>& registry() {
    static std::vector<std::function<void(CLI::App&)>> setups;
    return setups;
}

// What the library wrote through its log sink during the run.
struct LibraryLog {
    std::mutex lock;
    bool verbose = false;
    std::vector<LibraryComplaint> complaints;
    std::string debugLine;
};
LibraryLog& libraryLog() {
    static LibraryLog log;
    return log;
}

void collect(uint32_t level, const char* line, void* context) {
    auto& log = *static_cast<LibraryLog*>(context);
    std::lock_guard hold(log.lock);
    if (level == QX_LOG_DEBUG) {
        log.debugLine = line;
        return;
    }
    if (log.verbose) {
        std::fprintf(stderr, "qnvtool: library: %s\n", printable(line).c_str());
        return;
    }
    for (auto& c : log.complaints)
        if (c.line == line) {
            ++c.count;
            return;
        }
    log.complaints.push_back({line, 1});
}

std::string counted(const LibraryComplaint& c) {
    return c.count > 1 ? c.line + " (" + std::to_string(c.count) + " times)" : c.line;
}

// The error line: the message, then the library's complaints that led to it.
std::string errorLine(const std::string& message) {
    std::string line = message;
    const std::vector<LibraryComplaint> complaints = takeLibraryComplaints();
    constexpr size_t kShown = 3;
    for (size_t i = 0; i < complaints.size() && i < kShown; ++i)
        line += (i == 0 ? " (library: " : "; ") + counted(complaints[i]);
    if (complaints.size() > kShown) line += "; " + std::to_string(complaints.size() - kShown) + " more";
    if (!complaints.empty()) line += ")";
    return printable(line);
}

}  // namespace

Registration::Registration(std::function<void(CLI::App&)> setup) { registry().push_back(std::move(setup)); }

std::vector<uint8_t> readFile(const std::string& path) {
    InputStream in(path);
    return readAll(in);
}

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    OutputStream out(path);
    out.write(bytes);
    out.commit();
}

std::vector<uint8_t> makeBox(const char (&type)[5], const std::vector<uint8_t>& payload) {
    const size_t size = payload.size() + 8;
    if (size > 0xFFFFFFFFu) throw Error("box too large");
    std::vector<uint8_t> box(size);
    for (int i = 0; i < 4; ++i) {
        box[i] = static_cast<uint8_t>(size >> (24 - 8 * i));
        box[4 + i] = static_cast<uint8_t>(type[i]);
    }
    std::copy(payload.begin(), payload.end(), box.begin() + 8);
    return box;
}

void printHex(const std::vector<uint8_t>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i)
        std::printf("%02x%s", bytes[i], i % 16 == 15 || i + 1 == bytes.size() ? "\n" : " ");
}

std::vector<LibraryComplaint> takeLibraryComplaints() {
    LibraryLog& log = libraryLog();
    std::lock_guard hold(log.lock);
    return std::exchange(log.complaints, {});
}

std::string lastLibraryDebugLine() {
    LibraryLog& log = libraryLog();
    std::lock_guard hold(log.lock);
    return log.debugLine;
}

}  // namespace qnvtool

int main(int argc, char** argv) {
    CLI::App app{"qnvtool: timecode, video-format and elementary-stream utilities", "qnvtool"};
    app.require_subcommand(1);
    app.fallthrough();  // --verbose after the subcommand too
    app.add_flag("-v,--verbose", qnvtool::libraryLog().verbose, "print the library's complaints as they come");
    app.add_flag("-q,--quiet", qnvtool::gQuiet, "no progress line on a terminal");
    for (auto& setup : qnvtool::registry()) setup(app);
    QxSetLogSink(qnvtool::collect, &qnvtool::libraryLog());
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return 0;
    } catch (const CLI::CallForAllHelp&) {
        std::cout << app.help("", CLI::AppFormatMode::All);
        return 0;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);
        std::string message = e.what();
        for (char& c : message)
            if (c == '\n') c = ' ';
        std::fprintf(stderr, "qnvtool: %s (see qnvtool --help)\n", qnvtool::printable(message).c_str());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qnvtool: %s\n", qnvtool::errorLine(e.what()).c_str());
        return 1;
    }
    for (const auto& c : qnvtool::takeLibraryComplaints())
        std::fprintf(stderr, "qnvtool: warning: %s\n", qnvtool::printable(qnvtool::counted(c)).c_str());
    return 0;
}
