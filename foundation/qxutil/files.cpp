// File access over POSIX with the Win32 argument conventions.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "qnvutil/qxutil.h"

namespace {

thread_local uint32_t t_lastError = 0;

int fdOf(QXFILE file) { return static_cast<int>(reinterpret_cast<intptr_t>(file)); }

bool fail() {
    t_lastError = static_cast<uint32_t>(errno);
    return false;
}

// Copies at most `capacity` - 1 bytes of [begin, end) and terminates.
void copyPart(char* out, size_t capacity, const char* begin, const char* end) {
    if (out == nullptr) return;
    size_t n = static_cast<size_t>(end - begin);
    if (n > capacity - 1) n = capacity - 1;  // guard: outputs hold at most their QX_MAX_* size
    std::memcpy(out, begin, n);
    out[n] = '\0';
}

}  // namespace

extern "C" {

uint32_t qxOSFileExists(const char* path) {
    struct stat st;
    return path != nullptr && ::stat(path, &st) == 0 ? 1u : 0u;
}

QXFILE qxOSCreateFile(const char* path, uint32_t access, uint32_t, void*, uint32_t disposition, uint32_t,
                      QXFILE) {
    if (path == nullptr) {
        errno = EINVAL;
        fail();
        return QX_INVALID_FILE;
    }
    int flags = O_CLOEXEC;
    bool read = (access & QX_GENERIC_READ) != 0;
    bool write = (access & QX_GENERIC_WRITE) != 0;
    flags |= read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY;
    switch (disposition) {
        case QX_CREATE_NEW: flags |= O_CREAT | O_EXCL; break;
        case QX_CREATE_ALWAYS: flags |= O_CREAT | O_TRUNC; break;
        case QX_OPEN_EXISTING: break;
        case QX_OPEN_ALWAYS: flags |= O_CREAT; break;
        case QX_TRUNCATE_EXISTING: flags |= O_TRUNC; break;
        default:
            errno = EINVAL;
            fail();
            return QX_INVALID_FILE;
    }
    int fd;
    do {
        fd = ::open(path, flags, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        fail();
        return QX_INVALID_FILE;
    }
    return reinterpret_cast<QXFILE>(static_cast<intptr_t>(fd));
}

uint32_t qxOSReadFile(QXFILE file, void* buffer, uint32_t count, uint32_t* bytesRead, void*) {
    uint32_t got = 0;
    auto* out = static_cast<char*>(buffer);
    while (got < count) {
        ssize_t n = ::read(fdOf(file), out + got, count - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (bytesRead != nullptr) *bytesRead = got;
            return fail();
        }
        if (n == 0) break;  // end of file
        got += static_cast<uint32_t>(n);
    }
    if (bytesRead != nullptr) *bytesRead = got;
    return 1;
}

uint32_t qxOSWriteFile(QXFILE file, const void* buffer, uint32_t count, uint32_t* bytesWritten, void*) {
    uint32_t put = 0;
    const auto* in = static_cast<const char*>(buffer);
    while (put < count) {
        ssize_t n = ::write(fdOf(file), in + put, count - put);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (bytesWritten != nullptr) *bytesWritten = put;
            return fail();
        }
        put += static_cast<uint32_t>(n);
    }
    if (bytesWritten != nullptr) *bytesWritten = put;
    return 1;
}

int64_t qxOSSeek(QXFILE file, int64_t offset) {
    off_t r = ::lseek(fdOf(file), static_cast<off_t>(offset), SEEK_SET);
    if (r < 0) fail();
    return static_cast<int64_t>(r);
}

uint32_t qxOSGetFileSize(QXFILE file, uint32_t* high) {
    int64_t size = 0;
    if (!qxOSGetFileSizeEx(file, &size)) return 0xFFFFFFFFu;
    if (high != nullptr) *high = static_cast<uint32_t>(static_cast<uint64_t>(size) >> 32);
    return static_cast<uint32_t>(size);
}

uint32_t qxOSGetFileSizeEx(QXFILE file, int64_t* size) {
    struct stat st;
    if (::fstat(fdOf(file), &st) != 0) return fail();
    if (size != nullptr) *size = static_cast<int64_t>(st.st_size);
    return 1;
}

void qxOSCloseFile(QXFILE file) {
    if (file != QX_INVALID_FILE && ::close(fdOf(file)) != 0) fail();
}

uint32_t qxOSGetLastError(void) { return t_lastError; }

uint32_t qxOSGetMs(void) {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

void qxOSSplitPath(const char* path, char* drive, char* dir, char* name, char* ext) {
    if (path == nullptr) path = "";
    const char* end = path + std::strlen(path);
    const char* slash = std::strrchr(path, '/');
    const char* base = slash != nullptr ? slash + 1 : path;
    const char* dot = std::strrchr(base, '.');
    if (dot == nullptr) dot = end;
    copyPart(drive, QX_MAX_DRIVE, path, path);
    copyPart(dir, QX_MAX_DIR, path, base);
    copyPart(name, QX_MAX_FNAME, base, dot);
    copyPart(ext, QX_MAX_EXT, dot, end);
}

void qxOSMakePath(char* path, const char* drive, const char* dir, const char* name, const char* ext) {
    if (path == nullptr) return;
    size_t used = 0;
    auto append = [&](const char* s, size_t n) {
        if (n > QX_MAX_PATH - 1 - used) n = QX_MAX_PATH - 1 - used;  // guard: output holds QX_MAX_PATH
        std::memcpy(path + used, s, n);
        used += n;
    };
    if (drive != nullptr) append(drive, std::strlen(drive));
    if (dir != nullptr && *dir != '\0') {
        size_t n = std::strlen(dir);
        append(dir, n);
        if (dir[n - 1] != '/' && dir[n - 1] != '\\') append("/", 1);
    }
    if (name != nullptr) append(name, std::strlen(name));
    if (ext != nullptr && *ext != '\0') {
        if (*ext != '.') append(".", 1);
        append(ext, std::strlen(ext));
    }
    path[used] = '\0';
}

}  // extern "C"
