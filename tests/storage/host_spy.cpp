#include "host_spy.h"

#include <dlfcn.h>

#include <cstdlib>

#include "qnvutil/qxutil.h"

namespace spy {

Calls& calls() {
    thread_local Calls c;
    return c;
}

void reset() { calls() = Calls{}; }

template <typename Function>
Function next(const char* name) {
    void* f = ::dlsym(RTLD_NEXT, name);
    if (f == nullptr) std::abort();
    return reinterpret_cast<Function>(f);
}

}  // namespace spy

extern "C" uint32_t qxOSReadFile(QXFILE file, void* buffer, uint32_t count, uint32_t* bytesRead, void* overlapped) {
    using Read = uint32_t (*)(QXFILE, void*, uint32_t, uint32_t*, void*);
    static const Read real = spy::next<Read>("qxOSReadFile");
    spy::calls().reads.push_back(count);
    return real(file, buffer, count, bytesRead, overlapped);
}

extern "C" int64_t qxOSSeek(QXFILE file, int64_t offset) {
    using Seek = int64_t (*)(QXFILE, int64_t);
    static const Seek real = spy::next<Seek>("qxOSSeek");
    spy::calls().seeks.push_back(offset);
    return real(file, offset);
}
