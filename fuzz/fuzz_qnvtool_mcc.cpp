// qnvtool's MCC reader and its letters, and the CDP reader: any text gives
// a file or a qnvtool::Error; any bytes encode to letters that decode to
// the same bytes; a CDP that reads builds back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qnvtool/caption_files.h"
#include "tools/qnvtool/cdp.h"
#include "tools/qnvtool/tool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) return 0;
    using namespace qnvtool;
    try {
        const captions::MccFile f = captions::readMcc(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
        if (!f.rate) std::abort();
    } catch (const Error&) {
    }

    std::string letters;
    captions::mccEncode(data, size, letters);
    std::vector<uint8_t> back;
    size_t column = 0;
    if (!captions::mccDecode(letters, back, column) || back != std::vector<uint8_t>(data, data + size)) std::abort();

    cdp::Packet p;
    if (size <= cdp::kMaxBytes && cdp::read(data, size, p) == cdp::ReadResult::kOk) {
        uint8_t built[cdp::kMaxBytes];
        const size_t n = cdp::build(p, built);
        cdp::Packet again;
        if (n == 0 || cdp::read(built, n, again) != cdp::ReadResult::kOk || again.count != p.count) std::abort();
    }
    return 0;
}
