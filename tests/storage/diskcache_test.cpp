// CQxDiskCache against plain pread, and its edges: the exact-end read, the
// bypass threshold, the end-of-file clamp, retried short reads, errors.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qnvutil/storage.h"
#include "tests/qnvutil/test_util.h"

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using Reads = std::vector<uint32_t>;  // byte counts asked for
using Seeks = std::vector<int64_t>;   // offsets asked for

// This program defines qxOSReadFile and qxOSSeek itself: each call is
// recorded (for the calling thread) and forwarded to the host library.
namespace spy {
thread_local Reads reads;
thread_local Seeks seeks;
template <typename Function>
Function next(Function, const char* name) {
    void* f = ::dlsym(RTLD_NEXT, name);
    if (f == nullptr) std::abort();
    return reinterpret_cast<Function>(f);
}
}  // namespace spy

extern "C" uint32_t qxOSReadFile(QXFILE file, void* buffer, uint32_t count, uint32_t* bytesRead, void* overlapped) {
    static const auto real = spy::next(&qxOSReadFile, "qxOSReadFile");
    spy::reads.push_back(count);
    return real(file, buffer, count, bytesRead, overlapped);
}

extern "C" int64_t qxOSSeek(QXFILE file, int64_t offset) {
    static const auto real = spy::next(&qxOSSeek, "qxOSSeek");
    spy::seeks.push_back(offset);
    return real(file, offset);
}

namespace {

// Exposes the cache's state to the checks.
class Cache : public CQxDiskCache {
public:
    using CQxDiskCache::CQxDiskCache;
    uint64_t start() const { return cachedStart; }
    uint64_t end() const { return cachedEnd; }
    const uint8_t* data() const { return cacheData; }
    const uint8_t* raw() const { return rawBuffer; }
    void forget() { rawBuffer = nullptr; }  // for a copy that shares its source's buffer
};

// One read through the cache: result, the bytes read and the host calls made.
struct Got {
    uint32_t result = 0, n = 0;
    Bytes bytes;
    Reads reads;
    Seeks seeks;
};
Got read(Cache& cache, uint64_t position, uint32_t size, uint32_t flags = 0) {
    spy::reads.clear();
    spy::seeks.clear();
    Got g{0, 0, Bytes(size), {}, {}};
    g.result = cache.Read(g.bytes.data(), position, size, &g.n, flags);
    g.bytes.resize(std::min(g.n, size));
    g.reads = spy::reads;
    g.seeks = spy::seeks;
    return g;
}

class DiskCache : public ::testing::Test {
protected:
    void SetUp() override {
        path = fs::temp_directory_path() / ("qnvcache-" + std::to_string(::getpid()) + "-" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override {
        if (handle != QX_INVALID_FILE) qxOSCloseFile(handle);
        fs::remove(path);
    }
    // Writes `size` random bytes, opens the file for reading and gives a cache on it.
    void makeFile(size_t size, uint32_t cacheSize = 65536, bool retry = false) {
        std::mt19937 rng(static_cast<unsigned>(size));
        content.resize(size);
        for (auto& b : content) b = static_cast<uint8_t>(rng());
        append(content);
        handle = qxOSCreateFile(path.c_str(), QX_GENERIC_READ, 3, nullptr, QX_OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(handle, QX_INVALID_FILE);
        ASSERT_EQ(cache.SetHandleAndCacheSize(handle, cacheSize, retry), 0u);
    }
    void append(const Bytes& bytes) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    }
    Bytes expected(uint64_t position, uint32_t size) const {
        return {content.begin() + position, content.begin() + position + size};
    }

    fs::path path;
    Bytes content;
    QXFILE handle = QX_INVALID_FILE;
    Cache cache;
};

int64_t msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

TEST_F(DiskCache, MatchesPreadOverRandomReads) {
    makeFile((3u << 20) + 1234);
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(handle));
    std::mt19937 rng(11);
    for (uint32_t cacheSize : {65536u, 1u << 20, 12345u}) {
        for (uint32_t flags : {0u, QX_DISKCACHE_TO_END_OF_FILE, 6u}) {
            Cache cache;
            ASSERT_EQ(cache.SetHandleAndCacheSize(handle, cacheSize, false), 0u);
            uint64_t next = 0;
            for (int i = 0; i < 3000; ++i) {
                // Mostly small pieces, read on from the last one or anywhere;
                // now and then one near or above the bypass threshold.
                uint32_t size = i % 50 == 0 ? cacheSize - 4096 + rng() % 8 - 4 : rng() % (i % 7 == 0 ? 9000 : 400);
                uint64_t position = rng() % 3 == 0 ? rng() % content.size() : next;
                // Some reads pass the end of the file: those that succeed
                // read zeros there, those that fail only bytes of the file.
                if (position + size > content.size() && i % 4 != 0) position = content.size() - size;
                Bytes got(size + 1, 0xEE), want(size, 0);
                ASSERT_GE(::pread(fd, want.data(), size, static_cast<off_t>(position)), 0);
                uint32_t bytesRead = 0;
                ASSERT_EQ(cache.Read(got.data(), position, size, &bytesRead, flags), 0u);
                ASSERT_EQ(bytesRead, position + size <= content.size() ? size : std::min(bytesRead, size))
                    << position << "+" << size;
                ASSERT_EQ(got[size], 0xEE) << "wrote past the request";
                got.resize(bytesRead);
                want.resize(bytesRead);
                ASSERT_EQ(got, want) << "cache " << cacheSize << " flags " << flags << " at " << position << "+" << size;
                next = position + size;
            }
        }
    }
}

TEST_F(DiskCache, ReadEndingAtTheCachedEndRefills) {
    makeFile(1 << 20);
    read(cache, 0, 100);
    EXPECT_EQ(cache.end(), 65536u);
    Got g = read(cache, 65435, 100);  // ends one byte before: from the cache alone
    EXPECT_EQ(g.bytes, expected(65435, 100));
    EXPECT_TRUE(g.reads.empty() && g.seeks.empty());

    // Ends exactly at the cached end: the cache moves on to the next
    // boundary, with nothing left to read.
    g = read(cache, 65436, 100);
    EXPECT_EQ(g.bytes, expected(65436, 100));
    EXPECT_EQ(g.seeks, Seeks{65536});
    EXPECT_TRUE(g.reads.empty());
    EXPECT_EQ(std::pair(cache.start(), cache.end()), std::pair(uint64_t(65536), uint64_t(65536)));
}

TEST_F(DiskCache, BypassesRequestsAboveCacheSizeLess4096) {
    makeFile(1 << 20);
    EXPECT_EQ(read(cache, 4095, 65536 - 4096).reads, Reads{65536});  // the largest cached request
    EXPECT_EQ(cache.end(), 65536u);

    Got g = read(cache, 70000, 65536 - 4095);
    EXPECT_EQ(g.seeks, Seeks{70000});
    EXPECT_EQ(g.reads, Reads{65536 - 4095});
    EXPECT_EQ(g.bytes, expected(70000, 65536 - 4095));
    EXPECT_EQ(std::pair(cache.start(), cache.end()), std::pair(uint64_t(0), uint64_t(65536)));  // left as it was

    // guard: a cache below 4096 bytes would let requests overrun it; they
    // all go straight to the file.
    Cache tiny;
    tiny.SetHandleAndCacheSize(handle, 100, false);
    EXPECT_EQ(read(tiny, 10, 1).reads, Reads{1});
    EXPECT_EQ(tiny.end(), 0u);
}

TEST_F(DiskCache, EndOfFileClampAndReadsPastTheEnd) {
    makeFile(10000);
    EXPECT_EQ(read(cache, 9000, 500, QX_DISKCACHE_TO_END_OF_FILE).reads, Reads{10000 - 8192});  // up to the end
    EXPECT_EQ(cache.end(), 10000u);
    // A request whose size, counted from the refill's boundary, passes the
    // end asks for its size; the file falls short, so the read fails
    // quietly: result 0, only the cached bytes read.
    Got g = read(cache, 9900, 2000, 4);
    EXPECT_EQ(g.reads, Reads{2000});
    EXPECT_EQ(std::pair(g.result, g.n), std::pair(0u, 100u));

    Cache other;
    other.SetHandleAndCacheSize(handle, 65536, false);
    EXPECT_EQ(read(other, 9000, 500, 2 | 4).reads, Reads{65536});  // bit 1 set: no clamp
    read(other, 0, 100);  // the buffer now holds the file from 0
    // The refill's bytes are counted from its boundary: 1808 from 8192 cover
    // the 1000 still needed from 10000, so the read succeeds; its bytes past
    // the file's end are zero, not what the buffer held there.
    Bytes want = expected(9500, 500);
    want.resize(1500, 0);
    EXPECT_EQ(read(other, 9500, 1500).bytes, want);
}

TEST_F(DiskCache, ShortReadWithRetryGivesUpAfter1500ms) {
    makeFile(10000, 65536, true);
    read(cache, 8192, 100);
    const auto t0 = std::chrono::steady_clock::now();
    Got g = read(cache, 9000, 3000);
    const int64_t ms = msSince(t0);
    EXPECT_GE(ms, 1450);
    EXPECT_LT(ms, 4000);
    EXPECT_EQ(g.result, 0u);             // no read failed
    EXPECT_EQ(g.bytes, expected(9000, 1000));  // only what the cache held
}

TEST_F(DiskCache, ShortReadWithRetryFollowsAGrowingFile) {
    makeFile(8192 + 100, 65536, true);
    Bytes more(5000);
    for (size_t i = 0; i < more.size(); ++i) more[i] = static_cast<uint8_t>(i * 7);
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        append(more);
    });
    const auto t0 = std::chrono::steady_clock::now();
    Got g = read(cache, 8192, 2000);
    const int64_t ms = msSince(t0);
    writer.join();
    content.insert(content.end(), more.begin(), more.end());
    EXPECT_EQ(g.result, 0u);
    EXPECT_EQ(g.bytes, expected(8192, 2000));
    EXPECT_GE(ms, 250);
    EXPECT_LT(ms, 1500);
}

TEST_F(DiskCache, ErrorCodes) {
    makeFile(10000);
    {
        qnvtest::LogCapture log;
        read(cache, 0, 100);
        // A refill whose seek fails (an offset beyond what lseek takes).
        EXPECT_EQ(read(cache, 1ull << 63, 10).result, 0x80000000u | EINVAL);
        EXPECT_EQ(log.lines, std::vector<std::string>{"Diskcache seek failed 0x00000016 "});
        EXPECT_EQ(cache.start(), cache.end());  // guard: nothing claimed
    }

    // Read errors: with bit 31 from a refill, as they are from a bypass.
    QXFILE writeOnly = qxOSCreateFile(path.c_str(), QX_GENERIC_WRITE, 3, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(writeOnly, QX_INVALID_FILE);
    cache.SetHandleAndCacheSize(writeOnly, 65536, false);
    EXPECT_EQ(read(cache, 0, 10).result, 0x80000000u | EBADF);
    EXPECT_EQ(read(cache, 0, 65000).result, static_cast<uint32_t>(EBADF));
    qxOSCloseFile(writeOnly);
}

TEST_F(DiskCache, FailedRefillClaimsOnlyWhatItBrought) {
    makeFile(1 << 20);
    read(cache, 70000, 100);  // caches 65536..131072
    ASSERT_EQ(::truncate(path.c_str(), 50), 0);
    Got g = read(cache, 0, 100);  // the refill from 0 brings 50 bytes of 100
    EXPECT_EQ(std::pair(g.result, g.n), std::pair(0u, 0u));
    EXPECT_EQ(std::pair(cache.start(), cache.end()), std::pair(uint64_t(0), uint64_t(50)));  // guard
}

TEST_F(DiskCache, BufferSetupAndShallowCopies) {
    makeFile(10000);
    auto data = reinterpret_cast<uintptr_t>(cache.data()), raw = reinterpret_cast<uintptr_t>(cache.raw());
    EXPECT_EQ(data % 1024, 0u);
    EXPECT_LT(data - raw, 1024u);
    read(cache, 5000, 100);
    {
        Cache copy(cache), assigned;  // share the buffer and the cached range
        assigned = cache;
        for (const Cache* c : {&copy, &assigned})
            EXPECT_EQ(std::pair(c->data(), c->end()), std::pair(cache.data(), uint64_t(10000)));
        copy.forget();
        assigned.forget();
    }
    // A new size empties the cache; an impossible one leaves no cache and
    // every read goes to the file.
    ASSERT_EQ(cache.SetHandleAndCacheSize(handle, 8192, false), 0u);
    EXPECT_EQ(cache.end(), 0u);
    EXPECT_EQ(cache.SetHandleAndCacheSize(handle, 0xFFFFFFFFu, false), 0xFFFFFFFFu);
    EXPECT_EQ(cache.data(), nullptr);
    Got g = read(cache, 5000, 100);
    EXPECT_EQ(g.reads, Reads{100});
    EXPECT_EQ(g.bytes, expected(5000, 100));
}

TEST_F(DiskCache, UnsetHandleReadsNothing) {
    // Standard input holds bytes that a read through descriptor 0 would take.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], "hello", 5), 5);
    ::close(fds[1]);
    const int savedStdin = ::dup(0);
    ::dup2(fds[0], 0);
    ::close(fds[0]);

    Cache fresh, cleared;
    cleared.SetHandleAndCacheSize(QX_INVALID_FILE, 65536, false);
    for (Cache* cache : {&fresh, &cleared}) {
        for (uint32_t size : {5u, 70000u}) {  // through the cache and past it
            Got g = read(*cache, 0, size);
            EXPECT_EQ(std::pair(g.result, g.n), std::pair(uint32_t(EBADF), 0u));
        }
    }
    char left[8] = {};
    EXPECT_EQ(::read(0, left, sizeof left), 5);
    ::dup2(savedStdin, 0);
    ::close(savedStdin);
}
