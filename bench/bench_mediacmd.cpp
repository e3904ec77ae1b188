// MediaCmd XML round trips (record -> text -> record) against a bare
// tinyxml2 parse-and-print of the same text, side by side.
#include <benchmark/benchmark.h>
#include <tinyxml2.h>

#include <cstring>
#include <string>

#include "bench/ratio.h"
#include "qnvutil/mediacmd.h"

namespace {

MediaCmd playCommand() {
    MediaCmd c;
    initMediaCmd(&c, ctPlay);
    c.Channel = 2;
    c.Flags = cfUseSpeed | cfUsePresets | cfUsePosition | cfUseStart | cfUseEnd | cfUseClipID;
    c.Speed = 65520;
    c.VideoChannels = 1, c.AudioChannels = 0xFF, c.InfoChannels = 1;
    c.Position = 107892, c.Start = 107892, c.End = 109690;
    std::strcpy(c.ClipID, "CLIP0042");
    std::strcpy(c.FileName, "/media/clips/CLIP0042.mov");
    return c;
}

MediaCmd setValueCommand() {
    MediaCmd c;
    initMediaCmd(&c, ctSetValue);
    c.Channel = 1;
    c.Flags = cfUseCmdAlt | cfUsePosition;
    c.CmdAlt = gsVidinsignalformat;
    c.Position = 0x10019;
    return c;
}

MediaCmd command(int which) { return which == 0 ? playCommand() : setValueCommand(); }

constexpr int kBatch = 16;  // round trips per timed region

// Record -> text -> record, side by side with tinyxml2 parsing and printing
// the same text into a fresh document and printer, as the round trip must.
void BM_MediaCmdRoundTripVsTinyxml2(benchmark::State& state) {
    MediaCmd c = command(int(state.range(0))), back;
    initMediaCmd(&back, ctPlay);
    char* first = nullptr;
    MediaCmdToXMLString(&first, &c, 4);
    const std::string xml = first;
    MediaCmdFreeXMLString(&first);
    bench::sideBySide(
        state, [] {},
        [&] {
            for (int k = 0; k < kBatch; ++k) {
                uint32_t tcType = 4;
                char* text = nullptr;
                MediaCmdToXMLString(&text, &c, tcType);
                MediaCmdFromXMLString(&back, &tcType, text);
                MediaCmdFreeXMLString(&text);
                benchmark::DoNotOptimize(back.Position);
            }
        },
        [&] {
            for (int k = 0; k < kBatch; ++k) {
                tinyxml2::XMLDocument doc;
                doc.Parse(xml.c_str(), xml.size());
                tinyxml2::XMLPrinter printer(nullptr, true);
                doc.Print(&printer);
                benchmark::DoNotOptimize(printer.CStr());
            }
        });
    state.SetLabel(state.range(0) == 0 ? "play with clip ID" : "set value");
}
BENCHMARK(BM_MediaCmdRoundTripVsTinyxml2)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
