// CQxDiskCache against plain pread, and its edges: the exact-end read, the
// bypass threshold, the end-of-file clamp, retried short reads, errors.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host_spy.h"
#include "qnvutil/storage.h"

namespace fs = std::filesystem;

namespace {

// Exposes the cache's state to the checks.
class Cache : public CQxDiskCache {
public:
    using CQxDiskCache::CQxDiskCache;
    uint64_t start() const { return cachedStart; }
    uint64_t end() const { return cachedEnd; }
    const uint8_t* data() const { return cacheData; }
    const uint8_t* raw() const { return rawBuffer; }
    // Forgets the buffer, for a copy that shares its source's buffer.
    void forget() { rawBuffer = nullptr; }
};

class DiskCache : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() /
              ("qnvcache-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir);
        path = (dir / "media.bin").string();
    }
    void TearDown() override {
        if (handle != QX_INVALID_FILE) qxOSCloseFile(handle);
        fs::remove_all(dir);
    }
    // Writes `size` random bytes and opens the file for reading.
    void makeFile(size_t size) {
        std::mt19937 rng(static_cast<unsigned>(size));
        content.resize(size);
        for (auto& b : content) b = static_cast<uint8_t>(rng());
        append(content.data(), content.size());
        handle = qxOSCreateFile(path.c_str(), QX_GENERIC_READ, 3, nullptr, QX_OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(handle, QX_INVALID_FILE);
    }
    void append(const uint8_t* bytes, size_t n) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, bytes, n), static_cast<ssize_t>(n));
        ::close(fd);
    }
    std::vector<uint8_t> expected(uint64_t position, uint32_t size) const {
        return {content.begin() + position, content.begin() + position + size};
    }

    fs::path dir;
    std::string path;
    std::vector<uint8_t> content;
    QXFILE handle = QX_INVALID_FILE;
};

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
                if (position + size > content.size()) position = content.size() - size;
                std::vector<uint8_t> got(size + 1, 0xEE), want(size);
                ASSERT_EQ(::pread(fd, want.data(), size, static_cast<off_t>(position)), static_cast<ssize_t>(size));
                uint32_t bytesRead = 0;
                ASSERT_EQ(cache.Read(got.data(), position, size, &bytesRead, flags), 0u);
                ASSERT_EQ(bytesRead, size) << position << "+" << size;
                ASSERT_EQ(got[size], 0xEE) << "wrote past the request";
                got.pop_back();
                ASSERT_EQ(got, want) << "cache " << cacheSize << " flags " << flags << " at " << position << "+" << size;
                next = position + size;
            }
        }
    }
}

TEST_F(DiskCache, ReadEndingAtTheCachedEndRefills) {
    makeFile(1 << 20);
    Cache cache;
    cache.SetHandleAndCacheSize(handle, 65536, false);
    std::vector<uint8_t> buf(100);
    uint32_t n = 0;
    ASSERT_EQ(cache.Read(buf.data(), 0, 100, &n, 0), 0u);
    EXPECT_EQ(cache.end(), 65536u);

    spy::reset();
    ASSERT_EQ(cache.Read(buf.data(), 65435, 100, &n, 0), 0u);  // ends one byte before
    EXPECT_TRUE(spy::calls().reads.empty() && spy::calls().seeks.empty());
    EXPECT_EQ(buf, expected(65435, 100));

    ASSERT_EQ(cache.Read(buf.data(), 65436, 100, &n, 0), 0u);  // ends exactly at cachedEnd
    EXPECT_EQ(n, 100u);
    EXPECT_EQ(buf, expected(65436, 100));
    // The cache moves on to the next boundary; nothing was left to read.
    EXPECT_EQ(spy::calls().seeks, std::vector<int64_t>{65536});
    EXPECT_TRUE(spy::calls().reads.empty());
    EXPECT_EQ(cache.start(), 65536u);
    EXPECT_EQ(cache.end(), 65536u);

    // A read across the end takes the cached part and refills for the rest.
    ASSERT_EQ(cache.Read(buf.data(), 0, 100, &n, 0), 0u);
    spy::reset();
    ASSERT_EQ(cache.Read(buf.data(), 65500, 100, &n, 0), 0u);
    EXPECT_EQ(buf, expected(65500, 100));
    EXPECT_EQ(spy::calls().seeks, std::vector<int64_t>{65536});
    EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{65536});
}

TEST_F(DiskCache, BypassesRequestsAboveCacheSizeLess4096) {
    makeFile(1 << 20);
    Cache cache;
    cache.SetHandleAndCacheSize(handle, 65536, false);
    std::vector<uint8_t> buf(65536);
    uint32_t n = 0;

    spy::reset();
    ASSERT_EQ(cache.Read(buf.data(), 4095, 65536 - 4096, &n, 0), 0u);  // the largest cached request
    EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{65536});
    EXPECT_EQ(cache.end(), 65536u);

    spy::reset();
    ASSERT_EQ(cache.Read(buf.data(), 70000, 65536 - 4095, &n, 0), 0u);
    EXPECT_EQ(spy::calls().seeks, std::vector<int64_t>{70000});
    EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{65536 - 4095});
    EXPECT_EQ(n, 65536u - 4095);
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + n), expected(70000, n));
    EXPECT_EQ(cache.start(), 0u);  // left as it was
    EXPECT_EQ(cache.end(), 65536u);

    // guard: a cache below 4096 bytes would let requests overrun it; they
    // all go straight to the file.
    Cache tiny;
    tiny.SetHandleAndCacheSize(handle, 100, false);
    spy::reset();
    ASSERT_EQ(tiny.Read(buf.data(), 10, 1, &n, 0), 0u);
    EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{1});
    EXPECT_EQ(tiny.end(), 0u);
}

TEST_F(DiskCache, EndOfFileClampAndReadsPastTheEnd) {
    makeFile(10000);
    std::vector<uint8_t> buf(3000);
    uint32_t n = 0;
    {
        Cache cache;
        cache.SetHandleAndCacheSize(handle, 65536, false);
        spy::reset();
        ASSERT_EQ(cache.Read(buf.data(), 9000, 500, &n, QX_DISKCACHE_TO_END_OF_FILE), 0u);
        EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{10000 - 8192});  // up to the end only
        EXPECT_EQ(cache.end(), 10000u);

        // A request whose size, counted from the refill's boundary, passes the
        // end asks for its size; the file falls short, so the read fails
        // quietly: result 0, only the cached bytes read.
        spy::reset();
        ASSERT_EQ(cache.Read(buf.data(), 9900, 2000, &n, 4), 0u);
        EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{2000});
        EXPECT_EQ(n, 100u);
    }
    {
        Cache cache;
        cache.SetHandleAndCacheSize(handle, 65536, false);
        spy::reset();
        ASSERT_EQ(cache.Read(buf.data(), 9000, 500, &n, 2 | 4), 0u);  // bit 1 set: no clamp
        EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{65536});

        // The refill's bytes are counted from its boundary: 1808 from 8192
        // cover the 1500 still needed from 9500, so the read succeeds and its
        // last 1000 bytes come from the buffer past the file's end (zero in a
        // new buffer).
        ASSERT_EQ(cache.Read(buf.data(), 9500, 1500, &n, 0), 0u);
        EXPECT_EQ(n, 1500u);
        EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 500), expected(9500, 500));
        EXPECT_EQ(std::vector<uint8_t>(buf.begin() + 500, buf.begin() + 1500), std::vector<uint8_t>(1000, 0));
    }
}

TEST_F(DiskCache, ShortReadWithRetryGivesUpAfter1500ms) {
    makeFile(10000);
    Cache cache;
    cache.SetHandleAndCacheSize(handle, 65536, true);
    std::vector<uint8_t> buf(3000, 0xEE);
    uint32_t n = 0;
    ASSERT_EQ(cache.Read(buf.data(), 8192, 100, &n, 0), 0u);

    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(cache.Read(buf.data(), 9000, 3000, &n, 0), 0u);  // no read failed: 0
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GE(ms, 1450);
    EXPECT_LT(ms, 4000);
    EXPECT_EQ(n, 1000u);  // only what the cache held
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 1000), expected(9000, 1000));
}

TEST_F(DiskCache, ShortReadWithRetryFollowsAGrowingFile) {
    makeFile(8192 + 100);
    Cache cache;
    cache.SetHandleAndCacheSize(handle, 65536, true);
    std::vector<uint8_t> more(5000);
    for (size_t i = 0; i < more.size(); ++i) more[i] = static_cast<uint8_t>(i * 7);
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        append(more.data(), more.size());
    });
    std::vector<uint8_t> buf(2000);
    uint32_t n = 0;
    auto t0 = std::chrono::steady_clock::now();
    uint32_t result = cache.Read(buf.data(), 8192, 2000, &n, 0);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    writer.join();
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(n, 2000u);
    content.insert(content.end(), more.begin(), more.end());
    EXPECT_EQ(buf, expected(8192, 2000));
    EXPECT_GE(ms, 250);
    EXPECT_LT(ms, 1500);
}

TEST_F(DiskCache, ErrorCodes) {
    makeFile(10000);
    std::vector<std::string> log;
    QxSetLogSink([](uint32_t, const char* line, void* context) { static_cast<std::vector<std::string>*>(context)->push_back(line); },
                 &log);
    Cache cache;
    cache.SetHandleAndCacheSize(handle, 65536, false);
    std::vector<uint8_t> buf(100);
    uint32_t n = 0;
    ASSERT_EQ(cache.Read(buf.data(), 0, 100, &n, 0), 0u);
    // A refill whose seek fails (an offset beyond what lseek takes).
    EXPECT_EQ(cache.Read(buf.data(), 1ull << 63, 10, &n, 0), 0x80000000u | EINVAL);
    EXPECT_EQ(log, std::vector<std::string>{"Diskcache seek failed 0x00000016 "});
    EXPECT_EQ(cache.start(), cache.end());  // guard: nothing claimed
    QxSetLogSink(nullptr, nullptr);

    // Read errors: with bit 31 from a refill, as they are from a bypass.
    QXFILE writeOnly = qxOSCreateFile(path.c_str(), QX_GENERIC_WRITE, 3, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(writeOnly, QX_INVALID_FILE);
    cache.SetHandleAndCacheSize(writeOnly, 65536, false);
    EXPECT_EQ(cache.Read(buf.data(), 0, 10, &n, 0), 0x80000000u | EBADF);
    EXPECT_EQ(cache.Read(buf.data(), 0, 65000, &n, 0), static_cast<uint32_t>(EBADF));
    qxOSCloseFile(writeOnly);
}

TEST_F(DiskCache, BufferSetupAndShallowCopies) {
    makeFile(10000);
    Cache cache;
    ASSERT_EQ(cache.SetHandleAndCacheSize(handle, 65536, false), 0u);
    auto data = reinterpret_cast<uintptr_t>(cache.data()), raw = reinterpret_cast<uintptr_t>(cache.raw());
    EXPECT_EQ(data % 1024, 0u);
    EXPECT_LT(data - raw, 1024u);

    std::vector<uint8_t> buf(100);
    uint32_t n = 0;
    cache.Read(buf.data(), 5000, 100, &n, 0);
    {
        Cache copy(cache);  // shares the buffer and the cached range
        EXPECT_EQ(copy.data(), cache.data());
        EXPECT_EQ(copy.end(), 10000u);
        copy.forget();
    }
    // A new size empties the cache; an impossible one leaves no cache and
    // every read goes to the file.
    ASSERT_EQ(cache.SetHandleAndCacheSize(handle, 8192, false), 0u);
    EXPECT_EQ(cache.end(), 0u);
    EXPECT_EQ(cache.SetHandleAndCacheSize(handle, 0xFFFFFFFFu, false), 0xFFFFFFFFu);
    EXPECT_EQ(cache.data(), nullptr);
    spy::reset();
    ASSERT_EQ(cache.Read(buf.data(), 5000, 100, &n, 0), 0u);
    EXPECT_EQ(spy::calls().reads, std::vector<uint32_t>{100});
    EXPECT_EQ(buf, expected(5000, 100));
}
