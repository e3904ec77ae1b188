// qnvtool's SCC reader: any text gives a file or a qnvtool::Error. A file's
// pairs go one per frame in order, and the cursor finds each at its frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tools/qnvtool/caption_files.h"
#include "tools/qnvtool/tool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) return 0;
    using namespace qnvtool::captions;
    try {
        const SccFile f = readScc(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
        const SccCursor cursor(f, f.pairs.empty() ? 0 : f.pairs.front().frame);
        for (size_t i = 0; i < f.pairs.size(); ++i) {
            if (i > 0 && f.pairs[i].frame <= f.pairs[i - 1].frame) std::abort();
            if (f.pairs[i].frame < f.pairs[i].label) std::abort();
            if (cursor.at(f.pairs[i].frame) != &f.pairs[i]) std::abort();
        }
        cursor.leftover(f.pairs.empty() ? 0 : f.pairs.back().frame);
    } catch (const qnvtool::Error&) {
    }
    return 0;
}
