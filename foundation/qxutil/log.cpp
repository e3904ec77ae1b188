// Diagnostics: one line per message, to standard error or to the host's sink.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "qnvutil/qxutil.h"

namespace {

std::shared_mutex g_sinkLock;  // shared while delivering, exclusive while replacing
QxLogSink g_sink = nullptr;
void* g_sinkContext = nullptr;

// Hands one message on as a single line: interior line breaks become spaces,
// a trailing one is dropped (and added back for standard error).
void deliver(uint32_t level, const char* text, size_t length) {
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
    std::string line(text, length);
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';

    std::shared_lock lock(g_sinkLock);
    if (g_sink != nullptr) {
        g_sink(level, line.c_str(), g_sinkContext);
        return;
    }
    line.push_back('\n');
    // One write call per line keeps lines from several threads whole.
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n <= 0) break;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void deliverFormatted(uint32_t level, const char* format, va_list args) {
    if (format == nullptr) return;
    char small[1024];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof small) {
        deliver(level, small, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), format, args);
    deliver(level, big.data(), static_cast<size_t>(n));
}

}  // namespace

extern "C" {

void ErrOut(const char* format, ...) {
    va_list args;
    va_start(args, format);
    deliverFormatted(QX_LOG_ERROR, format, args);
    va_end(args);
}

void ErrFmtOut(uint32_t level, uint32_t, uint32_t, const char* format, ...) {
    va_list args;
    va_start(args, format);
    deliverFormatted(level, format, args);
    va_end(args);
}

void qxOutputDebugString(const char* text) {
    if (text != nullptr) deliver(QX_LOG_DEBUG, text, std::char_traits<char>::length(text));
}

void QxSetLogSink(QxLogSink sink, void* context) {
    std::unique_lock lock(g_sinkLock);
    g_sink = sink;
    g_sinkContext = context;
}

}  // extern "C"
