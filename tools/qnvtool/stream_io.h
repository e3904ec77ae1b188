// Streamed input and output for qnvtool: files or standard input and output
// ("-"), read and written in chunks, with a progress line on a terminal.
#ifndef QNVTOOL_STREAM_IO_H
#define QNVTOOL_STREAM_IO_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qnvtool {

// Set by --quiet: no progress line.
extern bool gQuiet;

// The progress line on stderr: bytes, percent (when the total is known) and
// rate, redrawn at most four times a second once a run has lasted a
// second, and only when stderr is a terminal.
class Progress {
public:
    Progress(uint64_t total, bool listing);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(uint64_t done) {
        if (enabled_ && ++calls_ % 16 == 0) draw(done);
    }
    // Removes the line (before a result or an error is printed).
    void clear();

private:
    void draw(uint64_t done);

    bool enabled_;
    bool shown_ = false;
    uint64_t total_;
    uint64_t calls_ = 0;
    std::chrono::steady_clock::time_point start_, last_;
};

// A stream read in chunks: a file, or standard input for "-".
class InputStream {
public:
    // listing: the command prints a line per item on stdout, so the
    // progress line is left out when stdout is a terminal as well.
    explicit InputStream(const std::string& path, bool listing = false);
    ~InputStream();
    InputStream(const InputStream&) = delete;
    InputStream& operator=(const InputStream&) = delete;

    // Up to `capacity` bytes; 0 at the end. Throws Error on a read error.
    size_t read(uint8_t* to, size_t capacity);
    const std::string& name() const { return name_; }
    uint64_t consumed() const { return consumed_; }
    // Bytes of a regular file, 0 when not known.
    uint64_t size() const { return size_; }

    // The largest read: QNVTOOL_CHUNK_BYTES, else 1 MiB. Small chunks put
    // chunk boundaries everywhere, for testing.
    static size_t chunkBytes();
    size_t chunk() const { return chunk_; }
    void setChunk(size_t bytes) { chunk_ = bytes != 0 ? bytes : 1; }

private:
    int fd_;
    bool owned_;
    std::string name_;
    uint64_t size_ = 0;
    uint64_t consumed_ = 0;
    size_t chunk_ = chunkBytes();
    Progress progress_;
};

// The whole input (for small files such as caption packet lists and boxes).
std::vector<uint8_t> readAll(InputStream& in);

// An output written in chunks. A file is written to a temporary file in the
// destination's folder and renamed into place by commit(); until then, and
// on any failure, the destination is left as it was, and the temporary file
// is removed when the stream is destroyed uncommitted. "-" writes standard
// output.
class OutputStream {
public:
    explicit OutputStream(const std::string& path);
    ~OutputStream();
    OutputStream(const OutputStream&) = delete;
    OutputStream& operator=(const OutputStream&) = delete;

    void write(const uint8_t* bytes, size_t size);
    void write(const std::vector<uint8_t>& bytes) { write(bytes.data(), bytes.size()); }
    void commit();
    uint64_t written() const { return written_; }
    bool toStdout() const { return fd_ == 1; }

private:
    void flush();

    std::string path_, temporary_;
    int fd_ = -1;
    bool committed_ = false;
    uint64_t written_ = 0;
    std::vector<uint8_t> buffer_;
};

// Removes the progress line, if one is shown (before printing results).
void clearProgressLine();

// Where a command prints its summary: stdout, or stderr when stdout carries
// the output stream.
FILE* summaryFile(const OutputStream& out);

}  // namespace qnvtool

#endif
