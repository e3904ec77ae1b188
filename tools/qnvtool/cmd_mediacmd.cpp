// qnvtool mediacmd xml|read: builds a MediaCmd record from options and prints
// its XML text, or reads XML text and prints the record's debug line and
// fields.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mediacmd/names.h"
#include "qnvutil/mediacmd.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/timecodetext.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

constexpr uint32_t kTcTypes[] = {0, 1, 2, 4, 8, 16, 32, 64, 128, 132};

std::optional<int64_t> number(const std::string& text) {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || v < INT32_MIN || v > UINT32_MAX) return std::nullopt;
    return v;
}

uint32_t parseTcType(const std::string& text) {
    for (uint32_t t : kTcTypes)
        if (text == qnv::tcTypeName(t)) return t;
    if (auto v = number(text); v && *v >= 0 && *v <= 255) return uint32_t(*v);
    throw Error("unknown timecode type '" + text + "' (frames, film, non-drop-frame, drop-frame, pal, 50, 59.94, 60, "
                "film-drop, 23.98 or a number)");
}

int32_t parseCommand(const std::string& text) {
    for (int32_t code = 0; code < qnv::kCommandCount; ++code) {
        std::string name = qnv::commandName(code);
        if (name.size() == text.size() &&
            std::equal(name.begin(), name.end(), text.begin(), [](char a, char b) { return qnv::asciiLower(a) == qnv::asciiLower(b); }))
            return code;
    }
    if (auto v = number(text)) return int32_t(*v);
    throw Error("unknown command '" + text + "'");
}

// A frame count, or timecode text in the given type.
int32_t parsePosition(const std::string& text, uint32_t tcType) {
    if (auto v = number(text)) return int32_t(*v);
    uint32_t frames = 0;
    if (TimecodeTextParse(text.c_str(), tcType | 0x100, &frames) != TCT_OK)
        throw Error("'" + text + "' is neither a frame count nor a timecode of type " + qnv::tcTypeName(tcType));
    return int32_t(frames);
}

struct XmlOptions {
    std::string cmd, tcType = "frames", clip, file, value;
    std::optional<std::string> position, start, end;
    std::optional<int64_t> channel, speed, video, audio, info;
    std::vector<std::string> flags;
};

void runXml(const XmlOptions& o) {
    MediaCmd c;
    initMediaCmd(&c, uint32_t(parseCommand(o.cmd)));
    const uint32_t tcType = parseTcType(o.tcType);
    if (o.channel) c.Channel = uint32_t(*o.channel);
    if (o.speed) {
        c.Speed = int32_t(*o.speed);
        c.Flags |= cfUseSpeed;
    }
    if (o.video || o.audio || o.info) {
        c.Flags |= cfUsePresets;
        c.VideoChannels = o.video ? uint32_t(*o.video) : 0;
        c.AudioChannels = o.audio ? uint32_t(*o.audio) : 0;
        c.InfoChannels = o.info ? uint32_t(*o.info) : 0;
    }
    if (!o.value.empty()) {
        uint32_t code;
        if (gsFromString(o.value.c_str(), &code) != 0) {
            auto v = number(o.value);
            if (!v) throw Error("unknown value name '" + o.value + "'");
            code = uint32_t(*v);
        }
        c.CmdAlt = int32_t(code);
        c.Flags |= cfUseCmdAlt;
    }
    if (o.position) c.Position = parsePosition(*o.position, tcType), c.Flags |= cfUsePosition;
    if (o.start) c.Start = parsePosition(*o.start, tcType), c.Flags |= cfUseStart;
    if (o.end) c.End = parsePosition(*o.end, tcType), c.Flags |= cfUseEnd;
    for (const std::string& name : o.flags) {
        uint32_t bit;
        if (cfFromString(name.c_str(), &bit) != 0) throw Error("unknown flag '" + name + "'");
        c.Flags |= bit;
    }
    if (!o.clip.empty() || !o.file.empty()) {
        if (o.clip.size() > 8) throw Error("a clip ID has at most 8 characters");
        if (o.file.size() >= sizeof c.FileName) throw Error("file name too long");
        std::memcpy(c.ClipID, o.clip.data(), o.clip.size());
        std::memcpy(c.FileName, o.file.data(), o.file.size());
        c.Flags |= cfUseClipID;
    }
    char* text = nullptr;
    MediaCmdToXMLString(&text, &c, tcType);
    std::unique_ptr<char*, void (*)(char**)> release(&text, [](char** t) { MediaCmdFreeXMLString(t); });
    if (text == nullptr) throw Error("no XML text written");
    std::printf("%s\n", text);
}

struct ReadOptions {
    std::string file, tcType = "drop-frame";
};

std::string flagNames(uint32_t flags) {
    std::string names;
    for (uint32_t bit = 1; bit != 0; bit <<= 1) {
        char name[32];
        if ((flags & bit) && cfToString(bit, name) == 0) names += std::string(names.empty() ? "" : " ") + name;
    }
    return names;
}

void runRead(const ReadOptions& o) {
    std::string xml;
    if (o.file == "-") {
        xml.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::vector<uint8_t> bytes = readFile(o.file);
        xml.assign(bytes.begin(), bytes.end());
    }
    uint32_t tcType = parseTcType(o.tcType);
    auto c = std::make_unique<MediaCmd>();
    uint32_t result = MediaCmdFromXMLString(c.get(), &tcType, xml.c_str());
    if (result != MEDIACMD_XML_OK) {
        char code[16];
        std::snprintf(code, sizeof code, "0x%08X", result);
        throw Error(std::string(o.file == "-" ? "standard input" : o.file) + ": no MediaCmd element (result " + code + ")");
    }
    __dbgout_mediacmd(c.get());
    const std::string debugLine = printable(lastLibraryDebugLine());

    const uint32_t f = c->Flags;
    const char* cmdName = qnv::commandName(c->Cmd);
    std::printf("debug:         %s\n", debugLine.c_str());
    std::printf("StructSize:    %u\n", c->StructSize);
    std::printf("Channel:       %d\n", int32_t(c->Channel));
    std::printf("Cmd:           %d (%s)\n", c->Cmd, cmdName != nullptr ? cmdName : "unknown");
    std::printf("Flags:         0x%08X %s\n", f, flagNames(f).c_str());
    if (f & cfUseSpeed) std::printf("Speed:         %d (%.2f x normal)\n", c->Speed, c->Speed / 65520.0);
    if (f & cfUsePresets)
        std::printf("Channels:      video 0x%08X audio 0x%08X info 0x%08X\n", c->VideoChannels, c->AudioChannels,
                    c->InfoChannels);
    if (f & cfUseCmdAlt) {
        char name[32] = "";
        gsToString(uint32_t(c->CmdAlt), name);
        std::printf("CmdAlt:        %d %s\n", c->CmdAlt, name);
    }
    const std::pair<const char*, int32_t> positions[] = {{"Position", c->Position}, {"Start", c->Start}, {"End", c->End}};
    const uint32_t bits[] = {cfUsePosition | cfUsePositionOffset, cfUseStart | cfUseStartOffset, cfUseEnd | cfUseEndOffset};
    for (int i = 0; i < 3; ++i) {
        if ((f & bits[i]) == 0) continue;
        char tc[TCT_TEXT_SIZE] = {};
        TimecodeTextFormat(uint32_t(positions[i].second), tcType | 0x32100, tc);
        std::printf("%-14s %d (%s)\n", (std::string(positions[i].first) + ":").c_str(), positions[i].second, tc);
    }
    if (f & cfUseClipID) {
        std::printf("ClipID:        %s\n", printable({c->ClipID, ::strnlen(c->ClipID, 8)}).c_str());
        std::printf("FileName:      %s\n", printable({c->FileName, ::strnlen(c->FileName, sizeof c->FileName)}).c_str());
    }
}

const Registration kMediaCmd([](CLI::App& app) {
    CLI::App* sub = app.add_subcommand("mediacmd", "Write or read MediaCmd records as XML text");
    sub->require_subcommand(1);

    auto x = std::make_shared<XmlOptions>();
    CLI::App* xml = sub->add_subcommand("xml", "Print the XML text of a record built from the options");
    xml->add_option("--cmd", x->cmd, "command: stop, pause, play, record, ..., switch, or its number")->required();
    xml->add_option("--channel", x->channel, "channel number");
    xml->add_option("--speed", x->speed, "speed, 65520 = normal play");
    xml->add_option("--position", x->position, "position: frame count or timecode text");
    xml->add_option("--start", x->start, "start (in point)");
    xml->add_option("--end", x->end, "end (out point)");
    xml->add_option("--tc-type", x->tcType, "timecode type of the positions (default frames)");
    xml->add_option("--clip", x->clip, "clip ID (up to 8 characters)");
    xml->add_option("--file", x->file, "file name");
    xml->add_option("--value", x->value, "value name or code of a get/set command (CmdAlt)");
    xml->add_option("--video", x->video, "video channel mask");
    xml->add_option("--audio", x->audio, "audio channel mask");
    xml->add_option("--info", x->info, "info channel mask");
    xml->add_option("--flag", x->flags, "flag name (repeatable): deferred, loop, noreturn, ...");
    xml->callback([x] { runXml(*x); });

    auto r = std::make_shared<ReadOptions>();
    CLI::App* read = sub->add_subcommand("read", "Read XML text and print the record's debug line and fields");
    read->add_option("FILE", r->file, "XML file, or - for standard input")->required();
    read->add_option("--tc-type", r->tcType, "timecode type of positions given as text only (default drop-frame)");
    read->callback([r] { runRead(*r); });
});

}  // namespace
}  // namespace qnvtool
