// qnvutilFindNalUnits over arbitrary frames in both framings: the frame and
// the two copy buffers lie between poisoned guard bytes that must stay
// untouched, copies stay within their capacities, offsets within the frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "fuzz/fuzz_guard.h"
#include "fuzz/fuzz_input.h"
#include "qnvutil/h264.h"
#include "qnvutil/qxutil.h"

namespace {

constexpr size_t kGuard = 32;
constexpr uint8_t kGuardByte = 0xA5;

// `n` usable bytes between two guards.
struct Guarded {
    explicit Guarded(size_t n) : bytes(kGuard + n + kGuard, kGuardByte), size(n) {
        GUARD_POISON(bytes.data(), kGuard);
        GUARD_POISON(bytes.data() + kGuard + n, kGuard);
    }
    uint8_t* data() { return bytes.data() + kGuard; }
    void check() {
        GUARD_UNPOISON(bytes.data(), kGuard);
        GUARD_UNPOISON(bytes.data() + kGuard + size, kGuard);
        for (size_t i = 0; i < kGuard; ++i)
            if (bytes[i] != kGuardByte || bytes[kGuard + size + i] != kGuardByte) std::abort();
    }
    std::vector<uint8_t> bytes;
    size_t size;
};

struct Records {
    H264SpsRecord sps{};
    H264PpsRecord pps{};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size < 2 || size > (1 << 16)) return 0;
    const uint8_t mode = data[0];
    Guarded frame(size - 1), spsOut(mode % 64), ppsOut(mode / 4 % 64);
    std::copy(data + 1, data + size, frame.data());
    auto r = std::make_unique<Records>();
    H264FrameContext ctx{};
    ctx.data = frame.data();
    ctx.size = static_cast<uint32_t>(size - 1);
    ctx.lengthPrefixed = mode & 1;
    uint32_t spsSize = static_cast<uint32_t>(spsOut.size), ppsSize = static_cast<uint32_t>(ppsOut.size);
    const uint32_t walked = qnvutilFindNalUnits(&ctx, (mode & 2) ? &r->sps : nullptr, &r->pps, spsOut.data(),
                                                &spsSize, ppsOut.data(), &ppsSize);
    frame.check();
    spsOut.check();
    ppsOut.check();
    if (spsSize > spsOut.size || ppsSize > ppsOut.size || walked > size) std::abort();
    if ((ctx.found & H264_FOUND_VCL) && ctx.firstVclOffset >= size - 1) std::abort();
    return 0;
}
