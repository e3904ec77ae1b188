// The three H.264 framing operations on frames of exactly their size (plus
// the spare bytes the widened start codes need): no access outside, results
// within the frame plus the documented growth, refused conversions untouched.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "qnvutil/h264.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > (1u << 20)) return 0;
    const uint8_t mode = data[0];
    const std::vector<uint8_t> frame(data + 1, data + size);
    const uint32_t n = static_cast<uint32_t>(frame.size());

    // Checked conversion into a buffer of a capacity drawn from the input.
    const uint32_t capacity = n + mode % 16;
    std::vector<uint8_t> buf(frame);
    buf.resize(capacity);
    const uint32_t checked = qnvUtilh264MarkerToSizeChecked(buf.data(), n, capacity);
    if (checked == 0xFFFFFFFFu) {
        if (!std::equal(frame.begin(), frame.end(), buf.begin())) std::abort();
    } else if (checked > capacity || checked < n) {
        std::abort();
    }

    // Unchecked conversion with exactly the room the result needs.
    std::vector<uint8_t> probe(frame);
    probe.resize(n + n / 2 + 8);
    const uint32_t needed = qnvUtilh264MarkerToSizeChecked(probe.data(), n, static_cast<uint32_t>(probe.size()));
    if (needed == 0xFFFFFFFFu) std::abort();  // a frame widens by at most one byte in three
    std::vector<uint8_t> exact(frame);
    exact.resize(needed > n ? needed : n);
    if (qnvUtilh264MarkerToSize(exact.data(), n) != needed) std::abort();

    // Back to start codes, and the search in both framings.
    std::vector<uint8_t> back(exact.begin(), exact.begin() + needed);
    if (qnvUtilh264SizeToMarker(back.data(), needed) > needed) std::abort();
    for (int32_t startCodes = 0; startCodes < 2; ++startCodes) {
        const std::vector<uint8_t>& f = startCodes ? frame : back;
        const uint8_t* found = nullptr;
        uint32_t foundSize = 0;
        if (qnvUtilFindSpecificNAL(f.data(), static_cast<uint32_t>(f.size()), startCodes, mode, &found, &foundSize)) {
            if (found < f.data() || found + foundSize > f.data() + f.size()) std::abort();
        }
    }
    return 0;
}
