// Sequential reads of 188-byte and 4 KiB pieces of a 256 MiB file: through
// CQxDiskCache with a 1 MiB cache, with pread of the same pieces, and with
// fread through a 1 MiB stdio buffer; and side by side with memcpy from a
// mapping of the file (mapped and touched once before timing). The file is
// made in /tmp on first use, before any timing, and removed at exit.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "qnvutil/storage.h"

namespace {

constexpr uint64_t kFileSize = 256ull << 20;
constexpr uint32_t kCacheSize = 1u << 20;

class MediaFile {
public:
    MediaFile() {
        char name[] = "/tmp/qnvbench-storage-XXXXXX";
        int fd = ::mkstemp(name);
        if (fd < 0) std::abort();
        path_ = name;
        std::vector<uint8_t> chunk(1 << 20);
        std::mt19937 rng(5);
        for (uint64_t written = 0; written < kFileSize; written += chunk.size()) {
            for (auto& b : chunk) b = static_cast<uint8_t>(rng());
            if (::write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) std::abort();
        }
        ::close(fd);
    }
    ~MediaFile() { ::unlink(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

const std::string& mediaPath() {
    static MediaFile file;
    return file.path();
}

void BM_DiskCacheRead(benchmark::State& state) {
    const uint32_t piece = static_cast<uint32_t>(state.range(0));
    QXFILE handle = qxOSCreateFile(mediaPath().c_str(), QX_GENERIC_READ, 3, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    CQxDiskCache cache;
    cache.SetHandleAndCacheSize(handle, kCacheSize, false);
    std::vector<uint8_t> buf(piece);
    uint64_t position = 0;
    for (auto _ : state) {
        if (position + piece > kFileSize) position = 0;
        uint32_t n = 0;
        if (cache.Read(buf.data(), position, piece, &n, 0) != 0 || n != piece) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(buf.data());
        position += piece;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * piece);
    qxOSCloseFile(handle);
}

void BM_Pread(benchmark::State& state) {
    const uint32_t piece = static_cast<uint32_t>(state.range(0));
    int fd = ::open(mediaPath().c_str(), O_RDONLY);
    std::vector<uint8_t> buf(piece);
    uint64_t position = 0;
    for (auto _ : state) {
        if (position + piece > kFileSize) position = 0;
        if (::pread(fd, buf.data(), piece, static_cast<off_t>(position)) != static_cast<ssize_t>(piece))
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(buf.data());
        position += piece;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * piece);
    ::close(fd);
}

void BM_Fread(benchmark::State& state) {
    const uint32_t piece = static_cast<uint32_t>(state.range(0));
    std::FILE* f = std::fopen(mediaPath().c_str(), "rb");
    std::vector<char> stdioBuffer(kCacheSize);
    std::setvbuf(f, stdioBuffer.data(), _IOFBF, stdioBuffer.size());
    std::vector<uint8_t> buf(piece);
    for (auto _ : state) {
        if (std::fread(buf.data(), 1, piece, f) != piece) {
            std::rewind(f);
            if (std::fread(buf.data(), 1, piece, f) != piece) state.SkipWithError("read failed");
        }
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * piece);
    std::fclose(f);
}

// 4 MiB of pieces per timed region on both sides, each side walking the file
// from its own position.
void BM_DiskCacheVsMmap(benchmark::State& state) {
    const uint32_t piece = static_cast<uint32_t>(state.range(0));
    const uint64_t batch = (4u << 20) / piece;
    QXFILE handle = qxOSCreateFile(mediaPath().c_str(), QX_GENERIC_READ, 3, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    CQxDiskCache cache;
    cache.SetHandleAndCacheSize(handle, kCacheSize, false);
    int fd = ::open(mediaPath().c_str(), O_RDONLY);
    auto* map = static_cast<const uint8_t*>(::mmap(nullptr, kFileSize, PROT_READ, MAP_SHARED, fd, 0));
    if (map == MAP_FAILED) std::abort();
    uint64_t touched = 0;
    for (uint64_t i = 0; i < kFileSize; i += 4096) touched += map[i];
    benchmark::DoNotOptimize(touched);
    std::vector<uint8_t> buf(piece);
    uint64_t cachePosition = 0, mapPosition = 0;
    bench::sideBySide(
        state, [] {},
        [&] {
            for (uint64_t k = 0; k < batch; ++k) {
                if (cachePosition + piece > kFileSize) cachePosition = 0;
                uint32_t n = 0;
                if (cache.Read(buf.data(), cachePosition, piece, &n, 0) != 0 || n != piece) std::abort();
                benchmark::DoNotOptimize(buf.data());
                cachePosition += piece;
            }
        },
        [&] {
            for (uint64_t k = 0; k < batch; ++k) {
                if (mapPosition + piece > kFileSize) mapPosition = 0;
                std::memcpy(buf.data(), map + mapPosition, piece);
                benchmark::DoNotOptimize(buf.data());
                mapPosition += piece;
            }
        });
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * batch * piece));
    ::munmap(const_cast<uint8_t*>(map), kFileSize);
    ::close(fd);
    qxOSCloseFile(handle);
}
BENCHMARK(BM_DiskCacheVsMmap)->Arg(188)->Arg(4096)->UseManualTime()->Unit(benchmark::kMicrosecond);

BENCHMARK(BM_DiskCacheRead)->Arg(188)->Arg(4096);
BENCHMARK(BM_Pread)->Arg(188)->Arg(4096);
BENCHMARK(BM_Fread)->Arg(188)->Arg(4096);

}  // namespace
