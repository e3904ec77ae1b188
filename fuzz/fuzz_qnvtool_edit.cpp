// qnvtool edit's unit readers: SEI message removal, the slice type scan for
// delimiters and the parameter set rewrite. The first byte picks the codec
// and the changes; the rest is a run of units split at 00 00 01, each taken
// in turn by every reader (so that a slice follows the PPS and SPS it names).
// Every outcome is either a result or a qnvtool::Error.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qnvutil/qxutil.h"
#include "tools/qnvtool/edit.h"
#include "tools/qnvtool/tool.h"

namespace {

void quiet(uint32_t, const char*, void*) {}

qnvtool::EditChanges changesFor(uint8_t pick) {
    qnvtool::EditChanges c;
    if (pick & 0x02) {
        c.primaries = 9;
        c.matrix = 9;
    }
    if (pick & 0x04) c.fullRange = true;
    if (pick & 0x08) c.sar = qnvtool::Ratio{5, 7};
    if (pick & 0x10) c.fps = qnvtool::Ratio{30000, 1001};
    if (pick & 0x20) c.crop = qnvtool::Crop{2, 4, 6, 8};
    if (pick & 0x40) c.level = qnvtool::Level{4, 1, false};
    c.removeSei = {5, pick};
    return c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 8192) return 0;
    QxSetLogSink(quiet, nullptr);
    const qnvtool::Codec codec = data[0] & 1 ? qnvtool::Codec::kHevc : qnvtool::Codec::kH264;
    const qnvtool::EditChanges changes = changesFor(data[0]);
    qnvtool::PictureTypes types(codec);
    qnvtool::ParameterSetEditor editor(codec, changes);
    std::vector<uint8_t> out;
    const uint8_t* end = data + size;
    for (const uint8_t* unit = data + 1; unit < end;) {
        const uint8_t* next = unit;
        while (next + 3 <= end && !(next[0] == 0 && next[1] == 0 && next[2] == 1)) ++next;
        if (next + 3 > end) next = end;
        const uint32_t n = static_cast<uint32_t>(next - unit);
        if (n >= 2) {
            try {
                qnvtool::removeSeiMessages(codec, unit, n, changes.removeSei, out, "unit");
            } catch (const qnvtool::Error&) {
            }
            types.noteParameterSet(unit, n);
            types.noteSlice(unit, n);
            const uint32_t type = qnv::nal::unitType(qnvtool::nalCodec(codec), unit[0]);
            if (editor.edits(type)) {
                try {
                    if (editor.rewrite(unit, n, "unit").empty()) __builtin_trap();
                } catch (const qnvtool::Error&) {
                }
            }
        }
        unit = next + 3;
    }
    if (types.takeDelimiter().empty()) __builtin_trap();
    QxSetLogSink(nullptr, nullptr);
    return 0;
}
