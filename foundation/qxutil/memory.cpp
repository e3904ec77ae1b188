// Memory services of the host layer.
#include <cstdlib>
#include <cstring>

#include "qnvutil/qxutil.h"

extern "C" {

void* QxAlloc(uint32_t size) { return std::malloc(size == 0 ? 1 : size); }

void QxFree(void* block) { std::free(block); }

void CopyMemoryFast(void* destination, const void* source, uint32_t count) {
    if (count != 0) std::memcpy(destination, source, count);
}

void ZeroMemoryFast(void* destination, uint32_t count) {
    if (count != 0) std::memset(destination, 0, count);
}

void qxOSCopyMemory(void* destination, const void* source, uint32_t count) {
    CopyMemoryFast(destination, source, count);
}

void qxOSZeroMemory(void* destination, uint32_t count) { ZeroMemoryFast(destination, count); }

}  // extern "C"
