// Caption packet validation over arbitrary packets of their exact size.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/sei/caption_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::quietLog();
    if (size > 4096) return 0;
    std::vector<uint8_t> packet(data, data + size);  // exact size: overreads are caught
    int32_t r = qnv::validateCaptionPacket(packet.empty() ? nullptr : packet.data(), static_cast<uint32_t>(size));
    if (r != 0 && r != -1 && r != -2 && r != -3) __builtin_trap();
    // A valid packet holds its footer counter and checksum.
    if (r == 0 && (size < 14 || size_t(packet[6]) + 6 > size)) __builtin_trap();
    return 0;
}
