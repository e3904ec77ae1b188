#include "foundation/nalscan/nalscan.h"

#include <new>

#include "foundation/bitio/bitio.h"
#include "foundation/nalscan/zeropair.h"

namespace qnv {

h264_stream_t* h264_new() { return new (std::nothrow) h264_stream_t{}; }

void h264_free(h264_stream_t* h) { delete h; }

namespace {

// First i >= from where buf[i..i+2] is 00 00 01, or with `orZero` also
// 00 00 00; `size` when there is none.
uint32_t findCode(const uint8_t* buf, uint32_t from, uint32_t size, bool orZero) {
    while (uint64_t(from) + 2 < size) {
        uint32_t q = FindZeroPair(buf, from, size - 3);
        if (q == kNoZeroPair) break;
        if (buf[q + 2] == 1 || (orZero && buf[q + 2] == 0)) return q;
        from = q + 1;
    }
    return size;
}

}  // namespace

int32_t find_nal_unit(const uint8_t* buf, uint32_t size, int32_t* nal_start, int32_t* nal_end) {
    if (size < 4) {
        *nal_start = 0;
        *nal_end = static_cast<int32_t>(size);
        return static_cast<int32_t>(size);
    }
    uint32_t code = findCode(buf, 0, size, false);
    if (code == size) return 0;
    uint32_t start = code + 3;
    uint32_t end = findCode(buf, start, size, true);
    *nal_start = static_cast<int32_t>(start);
    *nal_end = static_cast<int32_t>(end);
    return static_cast<int32_t>(end - start);
}

int32_t read_nal_unit(h264_stream_t* h, const uint8_t* unit, uint32_t size) {
    uint8_t header[3] = {0, 0, 0};  // two header bytes and the reader's spare byte
    for (uint32_t i = 0; i < 2 && i < size; ++i) header[i] = unit[i];
    BitBuffer bb = bitReader(header, 2);
    h->nal.forbidden_zero_bit = static_cast<int32_t>(ReadBits(&bb, 1));
    h->nal.nal_unit_type = static_cast<int32_t>(ReadBits(&bb, 6));
    h->nal.nuh_layer_id = static_cast<int32_t>(ReadBits(&bb, 6));
    h->nal.nuh_temporal_id = static_cast<int32_t>(ReadBits(&bb, 3)) - 1;
    return static_cast<int32_t>(size);
}

}  // namespace qnv
