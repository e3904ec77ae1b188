// Records the host file calls that the code under test makes: this program
// defines qxOSReadFile and qxOSSeek itself, records each call and forwards it
// to the host library.
#ifndef QNVUTIL_TESTS_STORAGE_HOST_SPY_H
#define QNVUTIL_TESTS_STORAGE_HOST_SPY_H

#include <cstdint>
#include <vector>

namespace spy {

struct Calls {
    std::vector<uint32_t> reads;  // byte counts asked for
    std::vector<int64_t> seeks;   // offsets asked for
};

// The calls since the last reset (calls from this thread only).
Calls& calls();
void reset();

}  // namespace spy

#endif
