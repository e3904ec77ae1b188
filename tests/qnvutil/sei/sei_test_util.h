// Caption packets, frames and captured diagnostics for the SEI tests.
#ifndef QNVUTIL_TESTS_SEI_TEST_UTIL_H
#define QNVUTIL_TESTS_SEI_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qnvutil/sei.h"
#include "tests/qnvutil/test_util.h"

namespace seitest {

using Bytes = std::vector<uint8_t>;

// H.264 units: delimiter, SPS, PPS, IDR slice.
inline const Bytes kAud = {0, 0, 0, 1, 0x09, 0x10}, kSps = {0, 0, 0, 1, 0x67, 0x42, 0x00, 0x1E},
                   kPps = {0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80}, kSlice = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21};

// A valid caption packet carrying `triplets` (three bytes each), with
// counter 0x1234.
inline Bytes packetOf(const Bytes& triplets) {
    Bytes p = {0xAA, 0xBB, 0xCC, 0xDD, 0x61, 0x01, 0, 0x96, 0x69, 0, 0x5F, 0x43, 0x12, 0x34, 0x72,
               static_cast<uint8_t>(0xE0 | ((triplets.size() / 3) & 31))};
    p.insert(p.end(), triplets.begin(), triplets.end());
    p.insert(p.end(), {0x74, 0x12, 0x34, 0});
    p[6] = p[9] = static_cast<uint8_t>(p.size() - 7);
    uint8_t sum = 0;
    for (size_t i = 7; i + 1 < p.size(); ++i) sum = static_cast<uint8_t>(sum + p[i]);
    p.back() = static_cast<uint8_t>(0x100 - sum);
    return p;
}

// A valid caption packet with n triplets (FC 10+i 20+i).
inline Bytes packet(uint32_t triplets) {
    Bytes t;
    for (uint32_t i = 0; i < triplets; ++i) t.insert(t.end(), {0xFC, uint8_t(0x10 + i), uint8_t(0x20 + i)});
    return packetOf(t);
}

// A frame record over `buffer` (its capacity) holding `content`.
inline DFrame frameOver(Bytes& buffer, const Bytes& content) {
    std::memcpy(buffer.data(), content.data(), content.size());
    DFrame f{};
    f.frameData = buffer.data();
    f.frameCapacity = static_cast<uint32_t>(buffer.size());
    f.frameSize = static_cast<uint32_t>(content.size());
    return f;
}

inline void setCaption(DFrame& f, const Bytes& p) {
    std::memcpy(f.captionPacket, p.data(), p.size());
    f.captionSize = static_cast<uint32_t>(p.size());
}

inline Bytes contents(const DFrame& f) { return Bytes(f.frameData, f.frameData + f.frameSize); }

using qnvtest::cat;

// Collects the diagnostic lines of a test.
class SeiTest : public ::testing::Test {
protected:
    qnvtest::LogCapture capture;
    std::vector<std::string>& log = capture.lines;
};

}  // namespace seitest

#endif
