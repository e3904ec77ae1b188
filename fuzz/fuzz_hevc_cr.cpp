// qnvutilRead_HEVC_CR over arbitrary boxes, and the frame scan over the same
// bytes taken as an Annex B frame.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qnvutil/hevc.h"
#include "qnvutil/qxutil.h"

namespace {
void quiet(uint32_t, const char*, void*) {}
struct Records {
    HevcVpsRecord vps{};
    HevcSpsRecord sps{};
    HevcPpsRecord pps{};
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    QxSetLogSink(quiet, nullptr);
    std::vector<uint8_t> box(data, data + size);  // exact size: overreads are caught
    BitBuffer bb{box.data(), static_cast<uint32_t>(box.size()), static_cast<uint32_t>(box.size() * 8), 0};
    HevcConfigRecord config{};
    auto r = std::make_unique<Records>();
    qnvutilRead_HEVC_CR(&bb, &config, &r->vps, &r->sps, &r->pps);

    r = std::make_unique<Records>();
    HevcFrameContext frame{};
    frame.data = box.data();
    frame.size = static_cast<uint32_t>(box.size());
    uint8_t vpsOut[64], spsOut[64], ppsOut[64];
    uint32_t vpsSize = sizeof vpsOut, spsSize = sizeof spsOut, ppsSize = sizeof ppsOut;
    qnvutilFindNalUnitsHevc(&frame, &r->vps, &r->sps, &r->pps, vpsOut, &vpsSize, spsOut, &spsSize, ppsOut, &ppsSize);
    return 0;
}
