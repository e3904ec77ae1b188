// read, write, read, write: the record read from a written unit must be
// written back to the same unit and read back to the same record.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "qnvutil/hevc.h"
#include "qnvutil/qxutil.h"

namespace {

void quiet(uint32_t, const char*, void*) {}

template <class Record>
using Reader = uint32_t (*)(BitBuffer*, Record*, HevcConfigRecord*, uint32_t);
template <class Record>
using Writer = uint32_t (*)(const Record*, uint8_t*);

template <class Record>
bool readUnit(Reader<Record> read, const uint8_t* bytes, uint32_t size, Record* record) {
    std::vector<uint8_t> unit(bytes, bytes + size);
    BitBuffer bb{unit.data(), size, size * 8, 0};
    *record = Record{};
    return read(&bb, record, nullptr, 0) != 0xFFFFFFFFu;
}

template <class Record>
void roundTrip(Reader<Record> read, Writer<Record> write, const uint8_t* data, uint32_t size) {
    auto r1 = std::make_unique<Record>(), r2 = std::make_unique<Record>(), r3 = std::make_unique<Record>();
    if (size == 0 || !readUnit(read, data, size, r1.get())) return;
    std::vector<uint8_t> u1(QNV_HEVC_PS_MAX_BYTES), u2(QNV_HEVC_PS_MAX_BYTES);
    const uint32_t n1 = write(r1.get(), u1.data());
    if (n1 == 0) __builtin_trap();
    // The readers leave an escape that starts in bytes 0-2 of an SPS or PPS
    // (settled), so such a unit does not read back.
    if (u1[0] != 0x40 && u1[2] == 0 && u1[3] == 0) return;
    if (!readUnit(read, u1.data(), n1, r2.get())) __builtin_trap();
    const uint32_t n2 = write(r2.get(), u2.data());
    if (!readUnit(read, u2.data(), n2, r3.get())) __builtin_trap();
    if (n1 != n2 || std::memcmp(u1.data(), u2.data(), n1) != 0) __builtin_trap();
    if (std::memcmp(r2.get(), r3.get(), sizeof(Record)) != 0) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 1 << 12) return 0;
    QxSetLogSink(quiet, nullptr);
    // The first byte picks the kind; the unit gets that kind's header.
    std::vector<uint8_t> unit(data, data + size);
    const uint32_t kind = data[0] % 3;
    unit[0] = static_cast<uint8_t>((32 + kind) << 1);
    unit[1] = 1;
    const uint32_t n = static_cast<uint32_t>(unit.size());
    if (kind == 0) roundTrip<HevcVpsRecord>(qnvutilRead_HEVC_VPS, qnvutilWrite_HEVC_VPS, unit.data(), n);
    if (kind == 1) roundTrip<HevcSpsRecord>(qnvutilRead_HEVC_SPS, qnvutilWrite_HEVC_SPS, unit.data(), n);
    if (kind == 2) roundTrip<HevcPpsRecord>(qnvutilRead_HEVC_PPS, qnvutilWrite_HEVC_PPS, unit.data(), n);
    return 0;
}
