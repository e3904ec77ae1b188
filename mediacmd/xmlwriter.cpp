// MediaCmd record -> XML document and text.
#include <tinyxml2.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "mediacmd/names.h"
#include "mediacmd/record.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/timecodetext.h"

namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

constexpr uint32_t kTimecodeWord = 0x32100;  // timecode text, type in the low byte
constexpr uint32_t kFixedWord = 0xB2140;     // timecode text of the queue values
constexpr uint32_t kLevelWarning = 0x80000000u;

std::string timecodeText(int32_t frames, uint32_t formatWord) {
    char text[TCT_TEXT_SIZE] = {};
    TimecodeTextFormat(static_cast<uint32_t>(frames), formatWord, text);
    return text;
}

class Writer {
public:
    Writer(XMLDocument* doc, MediaCmd* cmd, uint8_t tcType)
        : doc_(doc), cmd_(cmd), tcType_(tcType == 255 ? 0 : tcType), data_(cmd, cmd->StructSize) {}

    void write() {
        doc_->InsertFirstChild(doc_->NewDeclaration("xml version=\"1.0\" encoding=\"iso-8859-1\""));
        root_ = doc_->NewElement("MediaCmd");
        doc_->InsertEndChild(root_);
        root_->InsertEndChild(doc_->NewComment(" Velmora MEDIACMD xml structure version 1,0 "));
        header();
        command();
        speed();
        channels();
        if (cmd_->Flags & (cfUseCmdAlt | cfTimeMs | cfTimeTarget | cfTimeHouseClock)) {
            XMLElement* e = add("CmdAlt", cmd_->CmdAlt);
            flag(e, "TimeMs", cfTimeMs);
            flag(e, "TimeTarget", cfTimeTarget);
            flag(e, "TimeHouseClock", cfTimeHouseClock);
        }
        positions();
        if (cmd_->Flags & cfUseClipID) dataArea();
    }

private:
    XMLElement* add(const char* name) { return static_cast<XMLElement*>(root_->InsertEndChild(doc_->NewElement(name))); }
    XMLElement* add(const char* name, int32_t value) {
        XMLElement* e = add(name);
        e->SetAttribute("Value", value);
        return e;
    }
    XMLElement* addText(const char* name, std::string_view text) {
        XMLElement* e = add(name);
        e->SetText(std::string(text).c_str());
        return e;
    }
    void flag(XMLElement* e, const char* attribute, uint32_t bit) {
        if (cmd_->Flags & bit) e->SetAttribute(attribute, "1");
    }
    void tcTypeAttribute(XMLElement* e) {
        if (const char* name = qnv::tcTypeName(tcType_)) e->SetAttribute("TcType", name);
    }

    void header() {
        const void* links[] = {cmd_->prev, cmd_->next, cmd_->list};
        const char* names[] = {"prev", "next", "list"};
        for (int i = 0; i < 3; ++i)
            if (links[i] != nullptr)
                add(names[i], static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(links[i]))));
        add("CmdID", static_cast<int32_t>(cmd_->CmdID));
        add("StructSize", static_cast<int32_t>(cmd_->StructSize));
        add("Channel", static_cast<int32_t>(cmd_->Channel));
    }

    void command() {
        const char* name = qnv::commandName(cmd_->Cmd);
        XMLElement* e = addText("Cmd", name != nullptr ? name : "Unknown");
        e->SetAttribute("Value", cmd_->Cmd);
        static const std::pair<const char*, uint32_t> kFlags[] = {
            {"Deferred", cfDeferred},   {"OverrideDeferred", cfOverrideDeferred},
            {"Loop", cfLoop},           {"Trigger", cfTrigger},
            {"Ripple", cfRipple},       {"Invert", cfInvert},
            {"Test", cfTest},           {"NoReturn", cfNoReturn},
            {"UseAllIDs", cfUseAllIDs}, {"UseClipID", cfUseClipID},
            {"NoClipFiles", cfNoClipFiles}, {"NoTCSpaces", cfNoTCSpaces},
        };
        for (const auto& [attribute, bit] : kFlags) flag(e, attribute, bit);
    }

    // Without cfUseSpeed, play and record (and shuttles) announce normal speed
    // while the text still shows the record's own Speed field.
    void speed() {
        int32_t value;
        if (cmd_->Flags & cfUseSpeed)
            value = cmd_->Speed;
        else if (cmd_->Cmd == ctPlay || cmd_->Cmd == ctRecord || (cmd_->Flags & cfIsShuttle))
            value = MEDIACMD_NORMAL_SPEED;
        else
            return;
        XMLElement* e = addText("Speed", std::to_string(qnv::speedPercent(cmd_->Speed)));
        e->SetAttribute("Value", value);
        flag(e, "IsShuttle", cfIsShuttle);
    }

    void channels() {
        if ((cmd_->Flags & cfUsePresets) == 0) return;
        const int32_t masks[] = {static_cast<int32_t>(cmd_->VideoChannels), static_cast<int32_t>(cmd_->AudioChannels),
                                 static_cast<int32_t>(cmd_->InfoChannels)};
        if (cmd_->Flags & cfUseFrameCount) {
            const char* names[] = {"ctltimecode", "ltctimecode", "vitctimecode"};
            for (int i = 0; i < 3; ++i) {
                XMLElement* e = add(names[i], masks[i]);
                tcTypeAttribute(e);
                e->SetText(timecodeText(masks[i], tcType_ | kTimecodeWord).c_str());
            }
        }
        add("VideoChannels", masks[0]);
        add("AudioChannels", masks[1]);
        add("InfoChannels", masks[2]);
    }

    XMLElement* position(const char* name, int32_t value, uint32_t offsetBit, bool fixedWord) {
        XMLElement* e = add(name, value);
        tcTypeAttribute(e);
        if (tcType_ == 0)
            e->SetText(value);
        else
            e->SetText(timecodeText(value, fixedWord ? kFixedWord : tcType_ | kTimecodeWord).c_str());
        flag(e, "IsOffset", offsetBit);
        flag(e, "UsingCurrent", cfUsingCurrent);
        flag(e, "UsingFrameCount", cfUseFrameCount);
        flag(e, "IsFieldCount", cfFields);
        return e;
    }

    // Start and End of the queue values are timed at 60 frames per second,
    // by two different tests that are both part of the format.
    void positions() {
        const uint32_t alt = static_cast<uint32_t>(cmd_->CmdAlt);
        position("Position", cmd_->Position, cfUsePositionOffset, false);
        if (cmd_->Flags & (cfUseStart | cfUseStartOffset))
            position("Start", cmd_->Start, cfUseStartOffset, alt > 1100000u);
        if (cmd_->Flags & (cfUseEnd | cfUseEndOffset))
            position("End", cmd_->End, cfUseEndOffset,
                     (alt == gsInsertqueue || alt == gsXlatqueue) && qnv::isValueCommand(cmd_->Cmd));
    }

    void dataArea() {
        if (!qnv::isValueCommand(cmd_->Cmd)) return clipPart();
        switch (cmd_->CmdAlt) {
            case gsChannelname: channelAliases(); return clipPart();
            case gsIpvideosettings: ipVideoSettings(); return clipPart();
            case gsIpvideoclock: addText("clockipaddress", data_.string(76)); return clipPart();
            case gsQnvtype: addText("chanName", data_.string(76)); return;
            case gsFramedata:
            case gsPreviewframe:
                if ((cmd_->Flags & cfUsingCurrent) == 0) arbitraryData();
                return;
            default: return clipPart();
        }
    }

    // The alias strings follow each other from offset 85. The second alias is
    // announced with the first one's text and written without its first
    // character, and the walk moves past a string only when it was written:
    // that is how the format has always been written.
    void channelAliases() {
        uint64_t p = 85;
        std::string_view s0 = data_.string(p);
        addText("channelalias", s0);
        p += s0.size() + 1;
        std::string_view s1 = data_.string(p);
        if (!s1.empty()) addText("channel1alias", s0);
        if (s1.size() >= 2) {
            addText("channel2alias", s1.substr(1));
            p += s1.size() + 1;
        }
        for (const char* name : {"channel3alias", "channel4alias", "channel5alias", "channel6alias", "channel7alias"}) {
            std::string_view s = data_.string(p);
            if (s.empty()) continue;
            addText(name, s);
            p += s.size() + 1;
        }
    }

    void ipVideoSettings() {
        uint64_t p = 76;
        for (const char* name : {"destinationipaddress", "sourceipaddress", "interfaceipaddress"}) {
            std::string_view s = data_.string(p);
            addText(name, s);
            p += s.size() + 1;
        }
        add("Start", cmd_->Start);
        add("End", cmd_->End);
        add("AudioChannels", static_cast<int32_t>(cmd_->AudioChannels));
    }

    void arbitraryData() {
        // guard: a StructSize below 76 leaves no data to write.
        const uint32_t n = static_cast<uint32_t>(data_.room(76));
        const auto* bytes = reinterpret_cast<const uint8_t*>(cmd_) + 76;
        std::string text;
        const char* type;
        if (cmd_->Flags & cfNoTCSpaces) {
            uint32_t m = n * 4 / 3 + 4;
            text.assign(m + m / 72 + 17, '\0');
            uint32_t length = 0;
            base64_encode(bytes, n, &length, text.data());
            text.resize(length);
            type = "base64";
        } else {
            static const char kHex[] = "0123456789ABCDEF";
            text.resize(size_t(n) * 2);
            for (uint32_t i = 0; i < n; ++i) {
                text[2 * i] = kHex[bytes[i] >> 4];
                text[2 * i + 1] = kHex[bytes[i] & 15];
            }
            type = "hex";
        }
        XMLElement* e = addText("arbID", text);
        e->SetAttribute("Type", type);
        e->SetAttribute("length", static_cast<int32_t>(n));
    }

    void clipPart() {
        const bool longName = data_.at(84) != '\0';
        const uint32_t size = cmd_->StructSize;
        if (cmd_->CmdAlt == gsMetabasefilename) {
            if (longName) return;
            addText("ClipID", data_.string(76));
            std::string_view file = data_.string(85);
            // A unique ID after "$" is split off, in the caller's record too.
            if (size_t dollar = file.find('$'); dollar != std::string_view::npos) {
                addText("UniqueID", file.substr(dollar + 1));
                reinterpret_cast<char*>(cmd_)[85 + dollar] = '\0';
                file = file.substr(0, dollar);
            }
            addText("FileName", file);
        } else if (cmd_->CmdAlt == gsMetabasegettag) {
            std::string_view tag = data_.string(76);
            addText("MetaTag", tag);
            if (cmd_->Speed != 1) {
                addText("MetaData", std::to_string(cmd_->Start));
            } else {
                // The tag's data starts End + 1 bytes into the data area.
                int64_t offset = 76 + int64_t(cmd_->End) + 1;
                addText("MetaData", offset < 0 ? std::string_view() : data_.string(uint64_t(offset)));
            }
            if (tag == "REPLAY_COUNT") add("PageRequest")->SetText(static_cast<int32_t>(cmd_->InfoChannels));
        } else if (longName) {
            std::string_view name = data_.string(76);
            if (name.empty() || name.size() + 77 >= uint64_t(size)) return;
            guarded("Exception: MediaCmdToXML() ", [&] { addText("FileName", name); });
        } else {
            std::string_view clip = data_.string(76);
            addText("ClipID", clip);
            guarded("Exception:  MediaCmdToXML(ClipID) ", [&] {
                if (data_.at(85) == '\0') {
                    if (cmd_->CmdAlt == gsMetadata) addText("FileName", clip);
                } else if (std::string_view file = data_.string(85); file.size() + 86 < uint64_t(size)) {
                    addText("FileName", file);
                }
            });
        }
    }

    // Runs one step of the file-name output; an exception ends the document
    // where it got to and is reported.
    template <typename Step>
    void guarded(const char* message, Step step) {
        try {
            step();
        } catch (...) {
            ErrFmtOut(kLevelWarning, 0, 0, "WARNING(XMLmCmd): %s\n", message);
        }
    }

    XMLDocument* doc_;
    MediaCmd* cmd_;
    uint32_t tcType_;
    qnv::RecordView data_;
    XMLElement* root_ = nullptr;
};

}  // namespace

extern "C" {

uint32_t MediaCmdToXML(tinyxml2::XMLDocument* document, MediaCmd* cmd, uint8_t tcType) {
    if (document == nullptr || cmd == nullptr) return 0;
    try {
        Writer(document, cmd, tcType).write();
    } catch (...) {
        // Out of memory: the document stays as far as it got.
    }
    return 0;
}

uint32_t MediaCmdToXMLString(char** text, MediaCmd* cmd, uint32_t tcType) {
    if (text == nullptr) return 0;
    try {
        XMLDocument doc;
        uint32_t result = MediaCmdToXML(&doc, cmd, static_cast<uint8_t>(tcType));
        if (result != 0) return result;
        tinyxml2::XMLPrinter printer(nullptr, true);
        doc.Print(&printer);
        const int length = printer.CStrSize() - 1;
        if (length > 0) {
            auto* copy = static_cast<char*>(QxAlloc(static_cast<uint32_t>(length) + 1));
            if (copy != nullptr) {
                std::memcpy(copy, printer.CStr(), size_t(length) + 1);
                *text = copy;
            }
        }
        return result;
    } catch (...) {
        return 0;
    }
}

uint32_t MediaCmdFreeXMLString(char** text) {
    if (text == nullptr) return 0;
    QxFree(*text);
    *text = nullptr;
    return 0;
}

}  // extern "C"
