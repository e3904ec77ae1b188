// The HEVC slice segment header reader on an SPS, a PPS and a slice unit cut
// from the input (each behind a two-byte length), the records read by the
// library's readers. The reader must stay inside the unit and the records.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "qnvutil/hevc.h"
#include "qnvutil/hevc/hevc_slice.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 16)) return 0;
    std::vector<uint8_t> spsUnit = fuzzinput::take(data, size), ppsUnit = fuzzinput::take(data, size);
    const std::vector<uint8_t> slice(data, data + size);
    if (spsUnit.empty() || ppsUnit.empty()) return 0;
    auto sps = std::make_unique<HevcSpsRecord>();
    HevcPpsRecord pps{};
    spsUnit.push_back(0);  // the readers' spare byte
    ppsUnit.push_back(0);
    BitBuffer bb{spsUnit.data(), uint32_t(spsUnit.size()), uint32_t(spsUnit.size() - 1) * 8, 0};
    qnvutilRead_HEVC_SPS(&bb, sps.get(), nullptr, 0);
    bb = BitBuffer{ppsUnit.data(), uint32_t(ppsUnit.size()), uint32_t(ppsUnit.size() - 1) * 8, 0};
    qnvutilRead_HEVC_PPS(&bb, &pps, nullptr, 0);
    // An exactly sized copy: ASan sees any read past the unit.
    std::unique_ptr<uint8_t[]> unit(new uint8_t[slice.size() ? slice.size() : 1]);
    std::copy(slice.begin(), slice.end(), unit.get());
    auto header = std::make_unique<qnv::hevc::HevcSliceHeader>();
    if (qnv::hevc::readSliceSegmentHeader(unit.get(), uint32_t(slice.size()), *sps, pps, *header) ==
            qnv::hevc::SliceRead::kOk &&
        header->header_bits > slice.size() * 8)
        __builtin_trap();
    return 0;
}
