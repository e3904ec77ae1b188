// Reads any text as MediaCmd XML into a heap record of exactly 4188 bytes,
// writes the result back to text and reads that again: nothing may touch
// memory outside the records, whatever sizes the text claims.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "qnvutil/mediacmd.h"
#include "qnvutil/qxutil.h"

namespace {
void quiet(uint32_t, const char*, void*) {}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool silenced = (QxSetLogSink(quiet, nullptr), true);
    (void)silenced;
    std::string xml(reinterpret_cast<const char*>(data), size);
    uint32_t tcType = size > 0 ? data[size - 1] : 4;

    auto first = std::make_unique<MediaCmd>();
    MediaCmdFromXMLString(first.get(), &tcType, xml.c_str());
    if (first->StructSize > sizeof(MediaCmd) || first->StructSize < MEDIACMD_DATA_OFFSET) __builtin_trap();
    __dbgout_mediacmd(first.get());

    char* text = nullptr;
    MediaCmdToXMLString(&text, first.get(), tcType);
    if (text == nullptr) __builtin_trap();  // a record always has a text
    auto second = std::make_unique<MediaCmd>();
    if (MediaCmdFromXMLString(second.get(), &tcType, text) != 0) __builtin_trap();
    // Command and channel always travel as numbers.
    if (second->Cmd != first->Cmd || second->Channel != first->Channel) __builtin_trap();
    MediaCmdFreeXMLString(&text);
    return 0;
}
