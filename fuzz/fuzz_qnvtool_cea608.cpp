// qnvtool's CEA-608 decoder: any run of byte pairs, one per picture, gives
// captions in time order, each ending after it starts, with text of at most
// 15 rows of 32 characters.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tools/qnvtool/cea608.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 16384) return 0;
    using qnvtool::cea608::Cue;
    int64_t last = 0;
    qnvtool::cea608::Decoder d([&](const Cue& c) {
        if (c.end <= c.start || c.start < last || c.text.empty() || c.text.size() > 15 * (32 * 3 + 1)) std::abort();
        last = c.end;
    });
    int64_t t = 0;
    for (size_t i = 0; i + 1 < size; i += 2) d.pair(t++, data[i], data[i + 1]);
    d.finish(t);
    return 0;
}
