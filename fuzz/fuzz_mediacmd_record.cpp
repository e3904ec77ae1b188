// Writes records of any content and any StructSize as XML and debug text,
// merges and fixes them, and reads the text back into a record of the same
// size. Each record is allocated with exactly StructSize bytes (at least its
// 76-byte header), so a read or write past it is caught.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <tinyxml2.h>

#include "qnvutil/mediacmd.h"
#include "qnvutil/qxutil.h"

namespace {
void quiet(uint32_t, const char*, void*) {}

MediaCmd* allocate(uint32_t structSize) {
    size_t bytes = std::max<size_t>(structSize, MEDIACMD_DATA_OFFSET);
    return static_cast<MediaCmd*>(std::calloc(1, bytes));
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool silenced = (QxSetLogSink(quiet, nullptr), true);
    (void)silenced;
    if (size < MEDIACMD_DATA_OFFSET) return 0;
    uint32_t structSize;
    std::memcpy(&structSize, data + 28, 4);
    structSize %= 2 * MEDIACMD_SIZE;
    const size_t bytes = std::max<size_t>(structSize, MEDIACMD_DATA_OFFSET);
    MediaCmd* cmd = allocate(structSize);
    std::memcpy(cmd, data, std::min(size, bytes));
    cmd->StructSize = structSize;
    // The links are the caller's and never followed; keep them recognisable.
    cmd->prev = cmd->next = nullptr;
    cmd->list = nullptr;

    char* text = nullptr;
    MediaCmdToXMLString(&text, cmd, data[size - 1]);
    __dbgout_mediacmd(cmd);

    MediaCmd full;
    initMediaCmd(&full, ctStop);
    copyMediaCmd(&full, cmd, cmd->Flags);
    copyMediaCmd(cmd, &full, full.Flags);
    fixMediaCmd(cmd, data[0]);

    if (text != nullptr) {
        MediaCmd* back = allocate(structSize);
        back->StructSize = structSize;
        auto* doc = new tinyxml2::XMLDocument;
        doc->Parse(text);
        MediaCmdFromXML(back, nullptr, doc);
        // The size read back keeps the fixed part and never grows.
        if (back->StructSize > structSize || back->StructSize < std::min(structSize, MEDIACMD_DATA_OFFSET))
            __builtin_trap();
        std::free(back);
        MediaCmdFreeXMLString(&text);
    }
    std::free(cmd);
    return 0;
}
