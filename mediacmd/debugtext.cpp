// One-line summaries of a MediaCmd record and of a timecode for the debugger
// output.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "mediacmd/names.h"
#include "mediacmd/record.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/timecodetext.h"

namespace {

// The summary line, each item followed by its own space.
class Line {
public:
    void add(const char* format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
    {
        va_list args;
        va_start(args, format);
        // guard: the line is cut at the end of its buffer.
        int n = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, args);
        va_end(args);
        if (n > 0) length_ = std::min(length_ + size_t(n), sizeof text_ - 1);
    }
    const char* text() const { return text_; }

private:
    char text_[1040] = {};
    size_t length_ = 0;
};

void summarise(const MediaCmd* cmd, Line& line) {
    const uint32_t flags = cmd->Flags;
    line.add("qnv-Chan%1d ", static_cast<int32_t>(cmd->Channel));
    if (cmd->Cmd == ctGetValue) {
        char name[32];
        if (gsToString(static_cast<uint32_t>(cmd->CmdAlt), name) == 0)
            line.add("ctGetValue(%s)", name);
        else
            line.add("ctGetValue(%d, 0x%X) ", cmd->CmdAlt, static_cast<uint32_t>(cmd->CmdAlt));
    } else if (const char* name = qnv::commandName(cmd->Cmd)) {
        line.add("ct%s ", name);
    }
    if (flags & cfDeferred) line.add("Deferred ");
    if (flags & cfUseSpeed) line.add("UseSpeed (%ld) ", static_cast<long>(qnv::speedPercent(cmd->Speed)));
    if (flags & cfUsePosition) line.add("UsePosition (%d) ", cmd->Position);
    if (flags & cfUseStart) line.add("Use Start (%d) ", cmd->Start);
    if (flags & cfUseStartOffset) line.add("UseStartOffset (%d) ", cmd->Start);
    if (flags & cfUseEnd) line.add("UseEnd (%d) ", cmd->End);
    if (flags & cfUseEndOffset) line.add("UseEndOffset (%d) ", cmd->End);
    if (flags & cfUseCmdAlt) {
        const char* label = "CmdAlt: ";
        if ((flags & (cfTimeMs | cfTimeTarget)) == (cfTimeMs | cfTimeTarget))
            label = "CmdTarget: ";
        else if ((flags & (cfTimeMs | cfTimeHouseClock)) == (cfTimeMs | cfTimeHouseClock))
            label = "CmdHouse: ";
        else if (flags & cfTimeMs)
            label = "CmdTime: ";
        line.add("%s(%d) ", label, cmd->CmdAlt);
    }
    // The channel masks are shown with the position flag, not with
    // cfUsePresets; long-standing readers of the trace expect them there.
    if (flags & cfUsePosition)
        line.add("UsePresets: V(%d)A(%d)I(%d) ", static_cast<int32_t>(cmd->VideoChannels),
                 static_cast<int32_t>(cmd->AudioChannels), static_cast<int32_t>(cmd->InfoChannels));
    if (flags & cfUseClipID) {
        qnv::RecordView data(cmd, cmd->StructSize);
        line.add("UseClipId: (%s)(%s) ", std::string(data.string(76)).c_str(), std::string(data.string(85)).c_str());
    }
}

}  // namespace

extern "C" {

void __dbgout_mediacmd(const MediaCmd* cmd) {
    if (cmd == nullptr) return;
    // The state commands are polled constantly and would flood the trace.
    if (cmd->Cmd == ctGetState || cmd->Cmd == ctSetState) return;
    try {
        Line line;
        summarise(cmd, line);
        qxOutputDebugString(line.text());
    } catch (...) {
        ErrFmtOut(0x80000000u, 0, 0, "WARNING(vuMCmd): %s\n", "Exception: outputing mediacmd to string");
    }
}

void __dbgout_tc(int32_t frames, uint8_t tcType) {
    char text[TCT_TEXT_SIZE] = {};
    TimecodeTextFormat(static_cast<uint32_t>(frames), tcType == 0 ? 0x10102u : tcType | 0x10100u, text);
    qxOutputDebugString(text);
}

}  // extern "C"
