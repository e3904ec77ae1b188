// Read-ahead cache in front of a caller's file handle.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "qnvutil/storage.h"

namespace {

constexpr uint32_t kSlack = 2048;         // allocated beyond the cache, room for the alignment
constexpr uint64_t kFileAlign = 4096;     // refills start at multiples of this
constexpr uintptr_t kMemoryAlign = 1024;  // cacheData is aligned to this
constexpr uint32_t kRetryMs = 1500;
constexpr uint32_t kErrorBit = 0x80000000u;

// memcpy that takes empty copies from and to null pointers.
inline void copyBytes(uint8_t* destination, const uint8_t* source, uint32_t count) {
    if (count != 0) std::memcpy(destination, source, count);
}

}  // namespace

CQxDiskCache::CQxDiskCache()
    : handle(QX_INVALID_FILE),
      rawBuffer(nullptr),
      cacheData(nullptr),
      cacheSize(0),
      cachedStart(0),
      cachedEnd(0),
      retryShortReads(false) {}

CQxDiskCache::~CQxDiskCache() {
    if (rawBuffer != nullptr) QxFree(rawBuffer);
}

// Shallow on purpose (see the header): the buffer is shared, not duplicated.
CQxDiskCache::CQxDiskCache(const CQxDiskCache& other) = default;
CQxDiskCache& CQxDiskCache::operator=(const CQxDiskCache& other) = default;

uint32_t CQxDiskCache::SetHandleAndCacheSize(QXFILE newHandle, uint32_t newCacheSize, bool retry) {
    handle = newHandle;
    retryShortReads = retry;
    if (rawBuffer != nullptr) QxFree(rawBuffer);
    rawBuffer = nullptr;
    cachedStart = cachedEnd = 0;
    // guard: the block of cacheSize + 2048 bytes must be countable in 32 bits
    if (newCacheSize <= 0xFFFFFFFFu - kSlack) rawBuffer = static_cast<uint8_t*>(QxAlloc(newCacheSize + kSlack));
    if (rawBuffer == nullptr) {
        cacheData = nullptr;
        cacheSize = 0;
        return 0xFFFFFFFFu;
    }
    cacheData = reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(rawBuffer) + kMemoryAlign - 1) &
                                           ~(kMemoryAlign - 1));
    cacheSize = newCacheSize;
    return 0;
}

uint32_t CQxDiskCache::Read(uint8_t* destination, uint64_t position, uint32_t size, uint32_t* bytesRead,
                            uint32_t flags) {
    uint32_t ignored = 0;
    if (bytesRead == nullptr) bytesRead = &ignored;
    *bytesRead = 0;
    // guard: a cache without a handle reads nothing (a null handle would be
    // standard input)
    if (handle == QX_INVALID_FILE) return EBADF;

    // guard: a cache smaller than 4096 bytes takes no request but empty ones
    // (cacheSize - 4096 would wrap and let requests overrun the buffer)
    const uint32_t largestCached = cacheSize > kFileAlign ? cacheSize - static_cast<uint32_t>(kFileAlign) : 0;
    if (size > largestCached || cacheData == nullptr) {
        qxOSSeek(handle, static_cast<int64_t>(position));
        return qxOSReadFile(handle, destination, size, bytesRead, nullptr) ? 0 : qxOSGetLastError();
    }

    uint64_t at = position;  // where the part still to be copied starts
    if (cachedStart <= position && position < cachedEnd) {
        const uint8_t* cached = cacheData + (position - cachedStart);
        if (position + size < cachedEnd) {
            copyBytes(destination, cached, size);
            *bytesRead = size;
            return 0;
        }
        *bytesRead = static_cast<uint32_t>(cachedEnd - position);
        copyBytes(destination, cached, *bytesRead);
        at = position + *bytesRead;
    }

    cachedStart = at & ~(kFileAlign - 1);
    if (qxOSSeek(handle, static_cast<int64_t>(cachedStart)) != static_cast<int64_t>(cachedStart)) {
        uint32_t error = qxOSGetLastError();
        // guard: the buffer no longer holds what it held at the old start
        cachedEnd = cachedStart;
        ErrOut("Diskcache seek failed 0x%08X ", error);
        return error | kErrorBit;
    }

    const uint32_t started = qxOSGetMs();
    uint32_t amount = cacheSize;
    if ((flags & 6) == QX_DISKCACHE_TO_END_OF_FILE) {
        int64_t fileSize = 0;
        if (qxOSGetFileSizeEx(handle, &fileSize) && fileSize >= 0) {
            const uint64_t end = static_cast<uint64_t>(fileSize);
            // Up to the end of the file; a request that passes the end (its
            // size counted from cachedStart) asks for its size instead.
            if (cachedStart + cacheSize > end) {
                if (cachedStart + size > end)
                    amount = size;
                else
                    amount = static_cast<uint32_t>(end - cachedStart);
            }
        }
    }

    const uint32_t needed = size - *bytesRead;
    uint32_t got = 0;
    uint32_t lastError = 0;
    bool failed = false;
    while (got < needed) {
        uint32_t n = 0;
        if (!qxOSReadFile(handle, cacheData + got, amount - got, &n, nullptr)) lastError = qxOSGetLastError();
        // Bytes that arrived before a failure count too: the file position
        // has moved past them, so the next attempt continues after them.
        got += n;
        if (got < needed) {
            if (!retryShortReads || qxOSGetMs() - started >= kRetryMs) {
                failed = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    if (failed) {
        // guard: the cache must not claim bytes that this refill overwrote
        // or did not bring
        if (cachedEnd > cachedStart + got) cachedEnd = cachedStart + got;
        return lastError != 0 ? lastError | kErrorBit : 0;
    }

    cachedEnd = cachedStart + got;
    // guard: the refill may end before the request does (it counts from its
    // boundary, the request from `at`); bytes past what it brought are zero,
    // never what an earlier refill left in the buffer.
    const uint64_t skip = at - cachedStart;
    const uint32_t valid = got > skip ? static_cast<uint32_t>(std::min<uint64_t>(got - skip, needed)) : 0;
    copyBytes(destination + *bytesRead, cacheData + skip, valid);
    if (valid < needed) std::memset(destination + *bytesRead + valid, 0, needed - valid);
    *bytesRead = size;
    return lastError;
}
