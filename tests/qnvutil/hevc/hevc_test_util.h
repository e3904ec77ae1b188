// Helpers of the HEVC tests: fixture files, parsing and writing a unit.
#ifndef QNVUTIL_TESTS_HEVC_TEST_UTIL_H
#define QNVUTIL_TESTS_HEVC_TEST_UTIL_H

#include <cstdint>
#include <string>
#include <vector>

#include "qnvutil/hevc.h"
#include "qnvutil/qxutil.h"
#include "tests/qnvutil/test_util.h"

namespace hevctest {

using qnvtest::annexBUnits;
using qnvtest::cat;
using qnvtest::LogCapture;
using qnvtest::runCommand;
using qnvtest::Unit;

inline std::vector<uint8_t> readFixture(const std::string& name) { return qnvtest::readData("hevc/" + name); }

// Parses one unit (NAL header first, plus the spare byte the bit reader may
// touch) with `read`; `used` receives the reader's position and limit.
template <class Record>
uint32_t readUnit(uint32_t (*read)(BitBuffer*, Record*, HevcConfigRecord*, uint32_t), const std::vector<uint8_t>& unit,
                  Record* record, HevcConfigRecord* config = nullptr, BitBuffer* used = nullptr) {
    std::vector<uint8_t> b(unit);
    b.push_back(0);
    BitBuffer bb{b.data(), static_cast<uint32_t>(b.size()), static_cast<uint32_t>(unit.size() * 8), 0};
    const uint32_t result = read(&bb, record, config, 0);
    if (used != nullptr) *used = BitBuffer{nullptr, bb.sizeBytes, bb.sizeBits, bb.bitPos};
    return result;
}

// The unit `write` makes of `record`.
template <class Record>
std::vector<uint8_t> written(uint32_t (*write)(const Record*, uint8_t*), const Record& record) {
    std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
    out.resize(write(&record, out.data()));
    return out;
}

}  // namespace hevctest

#endif
