// Walks the input as the frame walkers do and parses every unit's header;
// NalUnitWalker must give the same units as find_nal_unit at every step.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/nalscan/nalscan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) return 0;
    std::vector<uint8_t> frame(data, data + size);  // exact size: overreads are caught
    qnv::h264_stream_t* h = qnv::h264_new();
    const uint32_t total = static_cast<uint32_t>(frame.size());
    qnv::NalUnitWalker walker(frame.data(), total);
    uint32_t offset = 0;
    while (offset < total) {
        int32_t start = 0, end = 0;
        int32_t n = qnv::find_nal_unit(frame.data() + offset, total - offset, &start, &end);
        const qnv::UnitBounds u = walker.find(offset);
        if (u.found() != (n != 0 || end != 0)) __builtin_trap();
        if (n == 0 && end == 0) break;
        if (start < 0 || end < start || static_cast<uint32_t>(end) > total - offset) __builtin_trap();
        if (u.start != offset + uint32_t(start) || u.end != offset + uint32_t(end)) __builtin_trap();
        qnv::read_nal_unit(h, frame.data() + offset + start, static_cast<uint32_t>(end - start));
        if (h->nal.nal_unit_type < 0 || h->nal.nal_unit_type > 63) __builtin_trap();
        offset += end > 0 ? static_cast<uint32_t>(end) : 1u;
    }
    qnv::h264_free(h);
    return 0;
}
