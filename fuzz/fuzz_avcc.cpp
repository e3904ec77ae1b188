// qnvutilReadAvcc over arbitrary boxes (held at their exact size, so that an
// overread is caught), and qnvutilGetAvcc over the same bytes taken as a
// frame in both framings, into a record buffer of drawn capacity whose end
// must stay untouched.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "qnvutil/h264.h"
#include "qnvutil/qxutil.h"

namespace {
struct Records {
    H264SpsRecord sps{};
    H264PpsRecord pps{};
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size < 1 || size > (1 << 16)) return 0;
    const uint8_t mode = data[0];
    std::vector<uint8_t> box(data + 1, data + size);
    const uint32_t n = static_cast<uint32_t>(box.size());
    BitBuffer bb{box.data(), n, n * 8, 0};
    auto r = std::make_unique<Records>();
    AvcConfigRecord config{};
    std::vector<uint8_t> spsOut(mode % 32), ppsOut(mode / 8 % 32);
    uint32_t spsSize = static_cast<uint32_t>(spsOut.size()), ppsSize = static_cast<uint32_t>(ppsOut.size());
    const uint32_t end = qnvutilReadAvcc(&bb, &config, &r->sps, &r->pps, spsOut.data(), &spsSize, ppsOut.data(),
                                         &ppsSize);
    if (end != 0xFFFFFFFFu && end > n) std::abort();
    if (spsSize > spsOut.size() || ppsSize > ppsOut.size()) std::abort();

    H264FrameContext frame{};
    frame.data = box.data();
    frame.size = n;
    frame.lengthPrefixed = mode & 1;
    const uint32_t capacity = (uint32_t(mode) * 7) % 300;
    std::vector<uint8_t> record(capacity + 16, 0xA5);
    const uint32_t length = qnvutilGetAvcc(&frame, record.data(), capacity);
    if (length > capacity) std::abort();
    for (uint32_t i = capacity; i < record.size(); ++i)
        if (record[i] != 0xA5) std::abort();
    return 0;
}
