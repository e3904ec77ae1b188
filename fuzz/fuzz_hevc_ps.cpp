// The three HEVC parameter-set readers over arbitrary units (the input's
// first byte picks the reader), with a configuration record to merge into.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qnvutil/hevc.h"
#include "qnvutil/qxutil.h"

namespace {
void quiet(uint32_t, const char*, void*) {}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 1 << 16) return 0;
    QxSetLogSink(quiet, nullptr);
    std::vector<uint8_t> unit(data + 1, data + size);  // exact size: overreads are caught
    BitBuffer bb{unit.data(), static_cast<uint32_t>(unit.size()), static_cast<uint32_t>(unit.size() * 8), 0};
    HevcConfigRecord config{};
    const uint32_t bitLength = data[0] & 0x80 ? 0 : static_cast<uint32_t>(unit.size() * 8);
    switch (data[0] % 3) {
        case 0: {
            HevcVpsRecord vps{};
            qnvutilRead_HEVC_VPS(&bb, &vps, &config, bitLength);
            break;
        }
        case 1: {
            auto sps = std::make_unique<HevcSpsRecord>();
            qnvutilRead_HEVC_SPS(&bb, sps.get(), &config, bitLength);
            break;
        }
        default: {
            HevcPpsRecord pps{};
            qnvutilRead_HEVC_PPS(&bb, &pps, &config, bitLength);
            break;
        }
    }
    return 0;
}
