// A stream cut into access units and ranked for display, as qnvtool's
// captions and timecode commands do: the first byte picks H.264 or HEVC, the
// rest is an Annex B stream. Each access unit goes to the ranker as an
// exactly sized copy, so ASan sees any read past one, and the ranks handed
// out must be the display places 0, 1, 2, ... each once.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/nal/nal.h"
#include "qnvutil/order/access_unit.h"
#include "tools/qnvtool/picture_order.h"

namespace {

void pop(qnvtool::PictureRanker& ranker, std::vector<bool>& seen) {
    for (int64_t rank; ranker.pop(rank);) {
        if (rank < 0) continue;
        if (static_cast<size_t>(rank) >= seen.size()) seen.resize(rank + 1);
        if (seen[rank]) __builtin_trap();  // a place handed out twice
        seen[rank] = true;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > (1u << 16)) return 0;
    const bool hevc = data[0] & 1;
    const uint8_t* stream = data + 1;
    const uint32_t n = static_cast<uint32_t>(size - 1);
    qnv::order::AccessUnitSplitter splitter(hevc ? qnv::nal::Codec::kHevc : qnv::nal::Codec::kH264);
    qnvtool::PictureRanker ranker(hevc ? qnvtool::VideoCodec::kHevc : qnvtool::VideoCodec::kH264);
    std::vector<bool> seen;
    uint32_t begin = 0;
    bool open = false;
    const auto add = [&](uint32_t end) {
        std::unique_ptr<uint8_t[]> copy(new uint8_t[end - begin]);
        std::copy(stream + begin, stream + end, copy.get());
        ranker.add(copy.get(), end - begin, &splitter);
        pop(ranker, seen);
        begin = end;
    };
    qnv::nal::UnitWalk walk(stream, n, qnv::nal::Framing::kAnnexB);
    for (qnv::nal::Unit u; walk.next(u);) {
        const uint8_t* unit = stream + u.header();
        if (splitter.opens(unit, u.size) && open) add(u.offset);
        splitter.note(unit, u.size);
        open = true;
    }
    if (open) add(n);
    ranker.finish();
    pop(ranker, seen);
    if (static_cast<int64_t>(seen.size()) != ranker.ranked()) __builtin_trap();
    for (bool s : seen)
        if (!s) __builtin_trap();  // a place left out
    return 0;
}
