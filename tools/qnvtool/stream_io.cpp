#include "tools/qnvtool/stream_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/qnvtool/tool.h"

namespace qnvtool {

bool gQuiet = false;

namespace {

Progress* gShowing = nullptr;  // the progress line on screen, if any

std::string humanBytes(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (bytes >= 1024 && u < 4) bytes /= 1024, ++u;
    char text[32];
    std::snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
    return text;
}

}  // namespace

Progress::Progress(uint64_t total, bool listing)
    : enabled_(!gQuiet && ::isatty(2) == 1 && !(listing && ::isatty(1) == 1)), total_(total), start_(std::chrono::steady_clock::now()), last_(start_) {}

void Progress::draw(uint64_t done) {
    const auto now = std::chrono::steady_clock::now();
    if (now - start_ < std::chrono::seconds(1) || now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    std::string line = "\r" + humanBytes(double(done));
    if (total_ != 0) {
        char percent[16];
        std::snprintf(percent, sizeof percent, " (%.0f%%)", 100.0 * double(done) / double(total_));
        line += percent;
    }
    line += ", " + humanBytes(double(done) / seconds) + "/s\033[K";
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    shown_ = true;
    gShowing = this;
}

void Progress::clear() {
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    shown_ = false;
    if (gShowing == this) gShowing = nullptr;
}

// ---- Input -----------------------------------------------------------------

namespace {

// Bytes of a regular file, 0 for a pipe; a folder or a failed stat closes
// the descriptor and throws.
uint64_t regularSize(int fd, bool owned, const std::string& name) {
    struct stat st;
    const int error = ::fstat(fd, &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : 0;
    if (error == 0) return S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    if (owned) ::close(fd);
    throw Error(name + ": " + std::strerror(error));
}

int openInput(const std::string& path) {
    if (path == "-") return 0;
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) throw Error(path + ": " + std::strerror(errno));
    return fd;
}

}  // namespace

InputStream::InputStream(const std::string& path, bool listing)
    : fd_(openInput(path)),
      owned_(path != "-"),
      name_(path == "-" ? "standard input" : path),
      size_(regularSize(fd_, owned_, name_)),
      progress_(size_, listing) {}

InputStream::~InputStream() {
    if (owned_) ::close(fd_);
}

size_t InputStream::read(uint8_t* to, size_t capacity) {
    if (capacity > chunk_) capacity = chunk_;
    for (;;) {
        const ssize_t n = ::read(fd_, to, capacity);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Error(name_ + ": " + std::strerror(errno));
        consumed_ += static_cast<uint64_t>(n);
        progress_.update(consumed_);
        return static_cast<size_t>(n);
    }
}

size_t InputStream::chunkBytes() {
    static const size_t bytes = [] {
        const char* text = std::getenv("QNVTOOL_CHUNK_BYTES");
        const long v = text ? std::strtol(text, nullptr, 10) : 0;
        return v > 0 && v <= (64L << 20) ? static_cast<size_t>(v) : size_t(1) << 20;
    }();
    return bytes;
}

std::vector<uint8_t> readAll(InputStream& in) {
    std::vector<uint8_t> bytes;
    if (in.size() != 0) bytes.reserve(in.size());
    std::vector<uint8_t> chunk(in.chunk());
    for (size_t n; (n = in.read(chunk.data(), chunk.size())) != 0;) bytes.insert(bytes.end(), chunk.data(), chunk.data() + n);
    return bytes;
}

// ---- Output ----------------------------------------------------------------

OutputStream::OutputStream(const std::string& path) : path_(path) {
    buffer_.reserve(size_t(1) << 20);
    if (path == "-") {
        fd_ = 1;
        return;
    }
    const size_t slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    temporary_ = folder + "." + name + ".XXXXXX";
    fd_ = ::mkstemp(temporary_.data());
    if (fd_ < 0) throw Error(path + ": " + std::strerror(errno));
}

OutputStream::~OutputStream() {
    if (fd_ > 1) ::close(fd_);
    if (!committed_ && !temporary_.empty()) std::remove(temporary_.c_str());
}

void OutputStream::flush() {
    const uint8_t* at = buffer_.data();
    size_t left = buffer_.size();
    while (left > 0) {
        const ssize_t n = ::write(fd_, at, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw Error(path_ + ": " + std::strerror(n < 0 ? errno : EIO));
        at += n;
        left -= static_cast<size_t>(n);
    }
    buffer_.clear();
}

void OutputStream::write(const uint8_t* bytes, size_t size) {
    written_ += size;
    if (buffer_.size() + size > buffer_.capacity()) {
        flush();
        if (size >= buffer_.capacity()) {
            buffer_.assign(bytes, bytes + size);  // one large piece: straight through
            flush();
            return;
        }
    }
    buffer_.insert(buffer_.end(), bytes, bytes + size);
}

void OutputStream::commit() {
    flush();
    if (fd_ == 1) {
        committed_ = true;
        return;
    }
    // The new file gets the permissions a newly created file would get.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    int error = ::fchmod(fd_, 0666 & ~mask) != 0 ? errno : 0;
    if (::close(fd_) != 0 && error == 0) error = errno;
    fd_ = -1;
    if (error == 0 && std::rename(temporary_.c_str(), path_.c_str()) != 0) error = errno;
    if (error != 0) throw Error(path_ + ": " + std::strerror(error));
    committed_ = true;
}

void clearProgressLine() {
    if (gShowing) gShowing->clear();
}

FILE* summaryFile(const OutputStream& out) {
    clearProgressLine();
    return out.toStdout() ? stderr : stdout;
}

}  // namespace qnvtool
